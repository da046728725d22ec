# Fails when the operations guide and the sources drift apart: every environment variable that the sources read is in the
# guide, and every log line that the guide tells of is in the sources.
#
#   cmake -D ROOT=<source tree> -P check.cmake
cmake_minimum_required(VERSION 3.25)

file(READ ${ROOT}/docs/operations.md guide)
set(files)
foreach(room lbm messaging misc platform price_server tools)
  file(GLOB_RECURSE found ${ROOT}/${room}/*.cpp ${ROOT}/${room}/*.h)
  list(APPEND files ${found})
endforeach()
list(FILTER files EXCLUDE REGEX "/tests/|/platform/lbm/scripted/")

set(code "")
set(read_anywhere)
foreach(file IN LISTS files)
  file(READ ${file} text)
  # Literals of several pieces become one.
  string(REGEX REPLACE "\"[ \t\r\n]*\"" "" text "${text}")
  string(APPEND code "${text}")
  string(REGEX MATCHALL "(getenv|Environment|envname|Variable(\\[\\])?)( = )?\\(?\"[A-Z][A-Z0-9_]*\"" reads "${text}")
  foreach(read IN LISTS reads)
    string(REGEX MATCH "\"([A-Z0-9_]+)\"" _ "${read}")
    list(APPEND read_anywhere ${CMAKE_MATCH_1})
    string(FIND "${guide}" "\n| `${CMAKE_MATCH_1}` |" row)
    if(row EQUAL -1)
      message(SEND_ERROR "${file} reads ${CMAKE_MATCH_1}, of which docs/operations.md has no row")
    endif()
  endforeach()
endforeach()

# Of the lines in the guide's tables of texts: what stands before the first value, and is in the source in one piece.
string(REGEX REPLACE "^.*\n## Log lines" "" lines "${guide}")
string(REGEX MATCHALL "\n\\| `[^`]+`" rows "${lines}")
foreach(row IN LISTS rows)
  string(REGEX REPLACE "^\n\\| `(lbm [a-z]+: |…)?([^…`]*).*$" "\\2" text "${row}")
  string(REGEX REPLACE ": $" "" text "${text}")  # added by those who print it
  string(FIND "${code}" "${text}" found)
  if(found EQUAL -1)
    message(SEND_ERROR "docs/operations.md tells of a line \"${text}\", which is not in the sources")
  endif()
endforeach()

list(REMOVE_DUPLICATES read_anywhere)
list(LENGTH read_anywhere variables)
list(LENGTH rows texts)
if(variables EQUAL 0 OR texts EQUAL 0)
  message(FATAL_ERROR "Found ${variables} variables and ${texts} lines to compare")
endif()
message(STATUS "${variables} variables and ${texts} lines are in the guide and in the sources")
