# How a room's targets are declared, so that every room is built, exported and tested the same way.

set(PRICE_CONNECTOR_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
                             -Wold-style-cast -Wcast-align -Wimplicit-fallthrough
                             # Members that a designated initializer leaves out have defaults on purpose.
                             -Wno-missing-field-initializers)

# Settings for code of ours that is compiled here; nothing of them reaches what links it.
function(price_connector_compile_settings target)
  target_compile_features(${target} PRIVATE cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
  target_compile_options(
    ${target}
    PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${PRICE_CONNECTOR_WARNINGS}>
            $<$<BOOL:${PRICE_CONNECTOR_WARNINGS_AS_ERRORS}>:-Werror>
            # Log statements carry their file's path relative to the source tree.
            -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
  if(PRICE_CONNECTOR_SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(PRICE_CONNECTOR_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  endif()
endfunction()

# Installs targets price_connector_<name> and exports them as price_connector::<name>; the names are the installed
# package's components. Installed, the targets find our shared libraries beside them.
function(price_connector_install)
  list(TRANSFORM ARGV REPLACE "^price_connector_" "" OUTPUT_VARIABLE names)
  set_property(GLOBAL APPEND PROPERTY PRICE_CONNECTOR_COMPONENTS ${names})
  file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${ARGV} PROPERTIES INSTALL_RPATH "$ORIGIN;$ORIGIN/${to_libraries}")
  install(
    TARGETS ${ARGV}
    EXPORT price_connectorTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()

# price_connector_library(<room> [SHARED|STATIC|INTERFACE] [SOURCES <file>...] [PUBLIC <lib>...] [PRIVATE <lib>...])
#
# The target price_connector::<room>, with the folder include/ for others and source/ for itself. What stands behind a
# link-time seam is SHARED, so that another implementation can take its place; everything else is STATIC.
function(price_connector_library room)
  cmake_parse_arguments(PARSE_ARGV 1 arg "SHARED;STATIC;INTERFACE" "" "SOURCES;PUBLIC;PRIVATE")
  set(target price_connector_${room})
  if(arg_INTERFACE)
    add_library(${target} INTERFACE)
    set(scope INTERFACE)
  else()
    set(kind STATIC)
    if(arg_SHARED)
      set(kind SHARED)
    endif()
    add_library(${target} ${kind} ${arg_SOURCES})
    # Before 1.0 every minor version may change the interface.
    set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION}
                                               SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
    set(scope PUBLIC)
    price_connector_compile_settings(${target})
    target_include_directories(${target} PRIVATE source)
    target_link_libraries(${target} PRIVATE ${arg_PRIVATE})
  endif()
  add_library(price_connector::${room} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${room})
  if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include)
    target_include_directories(
      ${target} ${scope} $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
                         $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/price_connector>)
    install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/price_connector PATTERN ".*" EXCLUDE)
  endif()
  target_compile_features(${target} INTERFACE cxx_std_17)
  target_link_libraries(${target} ${scope} ${arg_PUBLIC})
  price_connector_install(${target})
endfunction()

# price_connector_test(<name> SOURCES <file>... [LIBRARIES <lib>...] [LABELS <label>...])
#
# A GoogleTest program whose cases are tests of their own. It may include its room's private headers.
function(price_connector_test name)
  if(NOT PRICE_CONNECTOR_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES;LABELS")
  add_executable(${name} ${arg_SOURCES})
  price_connector_compile_settings(${name})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/source ${CMAKE_CURRENT_SOURCE_DIR}/../source)
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} price_connector_test_support GTest::gmock
                                        GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120 LABELS "${arg_LABELS}")
endfunction()

# price_connector_soname(<path of a shared library> <result variable>)
#
# The name by which programs that are linked with the library find it when they start.
function(price_connector_soname library result)
  execute_process(COMMAND ${CMAKE_READELF} --dynamic --wide ${library} OUTPUT_VARIABLE entries ERROR_VARIABLE entries)
  if(NOT entries MATCHES "\\(SONAME\\)[^[]*\\[([^]]+)\\]")
    message(FATAL_ERROR "${library} is needed as a shared library with a SONAME, but ${CMAKE_READELF} says:\n${entries}")
  endif()
  set(${result} ${CMAKE_MATCH_1} PARENT_SCOPE)
endfunction()

# price_connector_c_header(<room> <header>)
#
# Has the build of the tests compile a room's C header alone in each language that may include it, as strictly as a user
# might: without the compiler's extensions, and without a macro that asks the system's headers for more.
function(price_connector_c_header room header)
  if(NOT PRICE_CONNECTOR_BUILD_TESTS)
    return()
  endif()
  set(languages C C CXX)
  set(standards 99 11 17)
  foreach(language standard IN ZIP_LISTS languages standards)
    string(TOLOWER ${language} suffix)
    set(target ${room}_header_${suffix}${standard})
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}.${suffix})
    file(CONFIGURE OUTPUT ${source} CONTENT "#include <@header@>\n" @ONLY)
    add_library(${target} OBJECT ${source})
    set_target_properties(${target} PROPERTIES ${language}_STANDARD ${standard} ${language}_STANDARD_REQUIRED ON
                                               ${language}_EXTENSIONS OFF)
    target_compile_options(${target} PRIVATE -pedantic-errors -Wall -Wextra -Werror)
    target_link_libraries(${target} PRIVATE price_connector::${room})
  endforeach()
endfunction()

# price_connector_page_example(<page> <result variable>)
#
# Writes the only C++ block of a page of documentation to a file, so that what users read is what is built.
function(price_connector_page_example page result)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page})
  file(READ ${page} text)
  string(REGEX REPLACE ".*\n```cpp\n(.*)" "\\1" rest "${text}")
  string(FIND "${rest}" "\n```" end)
  string(SUBSTRING "${rest}" 0 ${end} example)
  get_filename_component(name ${page} NAME_WE)
  string(TOLOWER ${name}_example.cpp file)
  file(CONFIGURE OUTPUT ${file} CONTENT "${example}\n" @ONLY)
  set(${result} ${CMAKE_CURRENT_BINARY_DIR}/${file} PARENT_SCOPE)
endfunction()
