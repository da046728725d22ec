# Installs the build tree, builds a project that uses the result and runs its programs.
#
#   cmake -D BUILD=<build tree> -D SOURCE=<source tree> -D WORK=<scratch folder> -D VERSION=<x.y.z> -D LIBDIR=<lib>
#         -D USER=consumer|pkg_config|subproject -D FLAGS=<flags of the compiler>
#         [-D COMPILER=<of C++>] [-D C_COMPILER=<of C>] [-D STANDARD=<of C++>] [-D STATIC=ON] [-D HEADERS_IN_ONE=ON]
#         [-D PROVIDER=<PRICE_CONNECTOR_LBM of a subproject>] [-D INSTALL=ON] [-D UNITY=ON] -P run.cmake
cmake_minimum_required(VERSION 3.25)

# run(<command>...): stops the test with the command's output when it fails.
function(run)
  execute_process(
    COMMAND ${ARGV}
    RESULT_VARIABLE result
    OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    list(JOIN ARGV " " command)
    message(FATAL_ERROR "${command}\nended with ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# expect_shared(<program> <yes or no>): whether it needs the connector's own library when it starts.
function(expect_shared program expected)
  run(readelf --dynamic --wide ${program})
  string(FIND "${output}" "[libprice_connector.so." at)
  if((at EQUAL -1 AND expected) OR (NOT at EQUAL -1 AND NOT expected))
    message(FATAL_ERROR "Is ${program} linked with the shared library? That should be ${expected}:\n${output}")
  endif()
endfunction()

set(prefix ${WORK}/prefix)
set(project ${WORK}/build)
set(programs program scripted_program)
file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

if(USER STREQUAL "subproject")
  # The embedded engine in the place of the licensed library, under the names that one has.
  set(library_prefix ${WORK}/library)
  file(COPY ${prefix}/include/price_connector/lbm/lbm.h DESTINATION ${library_prefix}/include/lbm)
  file(GLOB engine ${prefix}/${LIBDIR}/libprice_connector_lbm_embedded.so*)
  file(COPY ${engine} DESTINATION ${library_prefix}/lib)
  file(CREATE_LINK libprice_connector_lbm_embedded.so ${library_prefix}/lib/liblbm.so SYMBOLIC)
  set(options -D CMAKE_PREFIX_PATH=${library_prefix} -D PRICE_CONNECTOR_SOURCE=${SOURCE} -D PROVIDER=${PROVIDER})
  if(INSTALL)
    list(APPEND options -D PRICE_CONNECTOR_INSTALL=ON)
  endif()
  if(UNITY)
    list(APPEND options -D CMAKE_UNITY_BUILD=ON)
  endif()
  set(programs program)
else()
  # Elsewhere than where it was installed: nothing may depend on that place.
  file(RENAME ${prefix} ${WORK}/moved)
  set(prefix ${WORK}/moved)
  set(options -D CMAKE_PREFIX_PATH=${prefix} -D PACKAGE_PREFIX=${prefix} -D EXPECTED_VERSION=${VERSION})
endif()

if(USER STREQUAL "pkg_config")
  file(MAKE_DIRECTORY ${project})
  set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
  separate_arguments(flags UNIX_COMMAND "${FLAGS} -std=c++17 -Wall -Wextra -Wconversion -Werror")
  # build(<module> <source> <program> [<option of pkg-config>...])
  function(build module source program)
    run(pkg-config --exists --print-errors "${module} = ${VERSION}")
    run(pkg-config --cflags --libs ${ARGN} ${module})
    separate_arguments(from_package UNIX_COMMAND "${output}")
    run(${COMPILER} ${flags} ${CMAKE_CURRENT_LIST_DIR}/${source} -o ${project}/${program} ${from_package}
        -Wl,-rpath,${prefix}/${LIBDIR})
  endfunction()
  build(price_connector program.cpp program)
  build(price_connector-static program.cpp static_program)
  build(price_connector-scripted scripted_program.cpp scripted_program)
  # As those ask who link statically what can be.
  build(price_connector program.cpp asked_static_program --static)
  list(APPEND programs static_program asked_static_program)
  expect_shared(${project}/program yes)
  expect_shared(${project}/static_program no)
else()
  list(APPEND options -D CMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=${FLAGS}")
  if(COMPILER)
    list(APPEND options -D CMAKE_CXX_COMPILER=${COMPILER} -D CMAKE_CXX_STANDARD=${STANDARD} -D
         HEADERS_IN_ONE=${HEADERS_IN_ONE})
  endif()
  if(C_COMPILER)
    list(APPEND options -D CMAKE_C_COMPILER=${C_COMPILER})
  endif()
  if(STATIC)
    list(APPEND options -D price_connector_USE_STATIC_LIBS=ON)
  endif()
  run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/${USER} -B ${project} -G Ninja ${options})
  run(${CMAKE_COMMAND} --build ${project})
endif()

if(USER STREQUAL "consumer" AND STATIC)
  expect_shared(${project}/program no)
elseif(USER STREQUAL "consumer")
  expect_shared(${project}/program yes)
elseif(USER STREQUAL "subproject")
  run(${CMAKE_COMMAND} --install ${project} --prefix ${WORK}/installed)
  if(INSTALL AND NOT EXISTS ${WORK}/installed/${LIBDIR}/cmake/price_connector/price_connectorConfig.cmake)
    message(FATAL_ERROR "As a subproject it does not install what was asked for:\n${output}")
  elseif(NOT INSTALL AND EXISTS ${WORK}/installed)
    message(FATAL_ERROR "As a subproject it installs what nobody asked for:\n${output}")
  endif()
endif()

foreach(program IN LISTS programs)
  run(${CMAKE_COMMAND} -E env LBM_RUNTIME_DIR=${project}/runtime ${project}/${program})
endforeach()
