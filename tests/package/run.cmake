# Installs the build tree, builds a project that uses the result and runs its program.
#
#   cmake -D BUILD=<build tree> -D SOURCE=<source tree> -D WORK=<scratch folder> -D VERSION=<x.y.z> -D LIBDIR=<lib>
#         -D USER=consumer|system_provider -D FLAGS=<flags of the compiler> -P run.cmake
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
endfunction()

set(prefix ${WORK}/prefix)
set(project ${WORK}/build)
file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

set(options -D CMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS=${FLAGS}")
if(USER STREQUAL "consumer")
  # Elsewhere than where it was installed: nothing may depend on that place.
  file(RENAME ${prefix} ${WORK}/moved)
  set(prefix ${WORK}/moved)
  list(APPEND options -D CMAKE_PREFIX_PATH=${prefix} -D PACKAGE_PREFIX=${prefix} -D EXPECTED_VERSION=${VERSION})
else()
  # The embedded engine in the place of the licensed library, under the names that one has.
  set(library_prefix ${WORK}/library)
  file(COPY ${prefix}/include/price_connector/lbm/lbm.h DESTINATION ${library_prefix}/include/lbm)
  file(GLOB engine ${prefix}/${LIBDIR}/libprice_connector_lbm_embedded.so*)
  file(COPY ${engine} DESTINATION ${library_prefix}/lib)
  file(CREATE_LINK libprice_connector_lbm_embedded.so ${library_prefix}/lib/liblbm.so SYMBOLIC)
  list(APPEND options -D CMAKE_PREFIX_PATH=${library_prefix} -D PRICE_CONNECTOR_SOURCE=${SOURCE})
endif()

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/${USER} -B ${project} -G Ninja ${options})
run(${CMAKE_COMMAND} --build ${project})

execute_process(
  COMMAND ${CMAKE_COMMAND} -E env LBM_RUNTIME_DIR=${project}/runtime ${project}/program
  RESULT_VARIABLE result
  OUTPUT_VARIABLE output
  ERROR_VARIABLE output)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "The program ended with ${result}:\n${output}")
endif()
