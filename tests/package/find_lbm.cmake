# What FindLBM says when the messaging library is missing, too old or not what it seems.
#
#   cmake -D MODULES=<folder of FindLBM.cmake> -D WORK=<scratch folder> -D VERSION=<x.y.z wanted> -P find_lbm.cmake
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE ${WORK})
file(WRITE ${WORK}/find.cmake "cmake_minimum_required(VERSION 3.25)
set(CMAKE_FIND_USE_CMAKE_SYSTEM_PATH FALSE)
set(CMAKE_FIND_LIBRARY_PREFIXES lib)
set(CMAKE_FIND_LIBRARY_SUFFIXES .so)
find_package(LBM ${VERSION} REQUIRED)
")

# expect_refusal(<name> <text of lbm.h, or nothing for no such file> <pattern that the message has to match>)
function(expect_refusal name header pattern)
  set(prefix ${WORK}/${name})
  file(WRITE ${prefix}/lib/liblbm.so "")
  if(header)
    file(WRITE ${prefix}/include/lbm/lbm.h "${header}")
  endif()
  execute_process(
    COMMAND ${CMAKE_COMMAND} -D CMAKE_MODULE_PATH=${MODULES} -D LBM_ROOT=${prefix} -P ${WORK}/find.cmake
    RESULT_VARIABLE result
    ERROR_VARIABLE said)
  string(REGEX REPLACE "[ \n]+" " " said "${said}")
  if(result EQUAL 0)
    message(SEND_ERROR "${name}: found, but must be refused")
  elseif(NOT said MATCHES "${pattern}")
    message(SEND_ERROR "${name}: expected a message that matches\n  ${pattern}\nand got\n  ${said}")
  endif()
endfunction()

expect_refusal(absent "" "Set LBM_ROOT or CMAKE_PREFIX_PATH")
expect_refusal(old "#define LBM_VERS_MAJOR 6\n#define LBM_VERS_MINOR 12\n#define LBM_VERS_SP 1\n"
               "\"6\\.12\\.1\".* at least \"${VERSION}\"")
expect_refusal(unversioned "#define LBM_VERS_MAJOR 6\n" "lbm\\.h does not define LBM_VERS_MAJOR")
