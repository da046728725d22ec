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

# Settings for what becomes part of a library of ours, which shows only what its public headers say is to be seen.
function(price_connector_library_settings target)
  price_connector_compile_settings(${target})
  if(PRICE_CONNECTOR_SANITIZE)
    # To optimise tests and tools would take longer than they run.
    target_compile_options(${target} PRIVATE -O1)
  endif()
  set_target_properties(${target} PROPERTIES C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden
                                             VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# price_connector_exports(<target> <map>)
#
# Gives a shared library the names that its map lists, a version script for the linker in which @names@ of variables are
# replaced; and a soname, which changes with every minor version, because before 1.0 each may change the interface.
function(price_connector_exports target map)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  configure_file(${map} ${script} @ONLY)
  target_link_options(${target} PRIVATE LINKER:--version-script=${script})
  set_target_properties(
    ${target} PROPERTIES LINK_DEPENDS ${script} VERSION ${PROJECT_VERSION}
                         SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
endfunction()

# price_connector_install(<export set> <target> <name>)
#
# Installs a target as price_connector::<name> of the package. Installed, shared libraries find each other beside
# themselves.
function(price_connector_install set target name)
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name} INSTALL_RPATH $ORIGIN)
  if(PRICE_CONNECTOR_INSTALL)
    install(TARGETS ${target} EXPORT price_connector${set}Targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endfunction()

# price_connector_library(<room> [INTERFACE|SHARED <map>] [INTERNAL] [SOURCES <file>...] [PUBLIC <lib>...]
#                         [PRIVATE <lib>...] [EXPORT_SET <set>])
#
# The target price_connector::<room>, with the folder include/ for others and source/ for itself. What stands behind a
# link-time seam is SHARED, so that another implementation can take its place, and exports what the map says; everything
# else with sources is STATIC and becomes a part of the library price_connector. Of an INTERNAL room no header is
# installed. The package has the targets that are not STATIC, in its export set of the given name if there is one.
function(price_connector_library room)
  cmake_parse_arguments(PARSE_ARGV 1 arg "INTERFACE;INTERNAL" "SHARED;EXPORT_SET" "SOURCES;PUBLIC;PRIVATE")
  set(target price_connector_${room})
  set(scope PUBLIC)
  if(arg_INTERFACE)
    add_library(${target} INTERFACE)
    set(scope INTERFACE)
  elseif(arg_SHARED)
    add_library(${target} SHARED ${arg_SOURCES})
    price_connector_exports(${target} ${arg_SHARED})
    # A program links it for libraries that may come later in its list than this one.
    target_link_options(${target} INTERFACE $<INSTALL_INTERFACE:LINKER:--no-as-needed>)
  else()
    add_library(${target} STATIC ${arg_SOURCES})
    set_property(GLOBAL APPEND PROPERTY PRICE_CONNECTOR_PARTS ${target})
  endif()
  if(arg_INTERFACE OR arg_SHARED)
    price_connector_install("${arg_EXPORT_SET}" ${target} ${room})
  endif()
  if(NOT arg_INTERFACE)
    price_connector_library_settings(${target})
    target_include_directories(${target} PRIVATE source)
    target_link_libraries(${target} PRIVATE ${arg_PRIVATE})
  endif()
  add_library(price_connector::${room} ALIAS ${target})
  if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include)
    target_include_directories(
      ${target} ${scope} $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
                         $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/price_connector>)
    if(PRICE_CONNECTOR_INSTALL AND NOT arg_INTERNAL)
      install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/price_connector PATTERN ".*" EXCLUDE)
    endif()
  endif()
  target_compile_features(${target} INTERFACE cxx_std_17)
  target_link_libraries(${target} ${scope} ${arg_PUBLIC})
endfunction()

# price_connector_objects(<name> SOURCES <file>... LIBRARIES <lib>...)
#
# What a SHARED room is made of, for it and for those of its tests that look inside.
function(price_connector_objects name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
  add_library(${name} OBJECT ${arg_SOURCES})
  price_connector_library_settings(${name})
  target_include_directories(${name} PRIVATE source PUBLIC include)
  target_link_libraries(${name} PUBLIC ${arg_LIBRARIES})
endfunction()

# Settings for what tests are compiled from.
function(price_connector_test_settings target)
  price_connector_compile_settings(${target})
  target_compile_options(
    ${target} PRIVATE # ccache looks for this option before it keeps what precompiled headers are a part of.
                      $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>
                      # With more the compiler warns of things inside std::string without a foundation.
                      $<$<CONFIG:Release>:-O1>)
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
  price_connector_test_settings(${name})
  target_precompile_headers(${name} REUSE_FROM price_connector_test_headers)
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
