# Puts the page's files together in one document, and that in a source file.
#
# cmake -D PAGE=<this folder> -D OUTPUT=<source file> -P embed.cmake
cmake_minimum_required(VERSION 3.25)

function(read_files variable)
  set(whole "")
  foreach(file IN LISTS ARGN)
    file(READ ${PAGE}/${file} text)
    string(APPEND whole "${text}")
  endforeach()
  set(${variable} "${whole}" PARENT_SCOPE)
endfunction()

read_files(page index.html)
read_files(style uplot/uPlot.min.css page.css)
read_files(library uplot/uPlot.iife.min.js)
read_files(script model.js view.js)
string(REPLACE "@STYLE@" "${style}" page "${page}")
string(REPLACE "@LIBRARY@" "${library}" page "${page}")
string(REPLACE "@SCRIPT@" "${script}" page "${page}")
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT [[
#include <string_view>

namespace price_stat {

extern const std::string_view kWebPageTemplate;
const std::string_view kWebPageTemplate = R"page(@page@)page";

}  // namespace price_stat
]])
