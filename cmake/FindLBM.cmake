# Finds the licensed messaging library: the header lbm/lbm.h and the library lbm, under LBM_ROOT, under
# CMAKE_PREFIX_PATH or where the system keeps such things.
#
# Targets: LBM::headers (the header alone) and LBM::lbm (header and library).
# Variables: LBM_FOUND, LBM_VERSION; in the cache LBM_INCLUDE_DIR and LBM_LIBRARY, to be set by hand if need be.
find_path(LBM_INCLUDE_DIR lbm/lbm.h)
find_library(LBM_LIBRARY lbm)
mark_as_advanced(LBM_INCLUDE_DIR LBM_LIBRARY)

set(LBM_VERSION)
set(_lbm_reason "Set LBM_ROOT or CMAKE_PREFIX_PATH to the folder that has include/lbm/lbm.h and lib/liblbm.so")
if(LBM_INCLUDE_DIR)
  foreach(part MAJOR MINOR SP)
    file(STRINGS ${LBM_INCLUDE_DIR}/lbm/lbm.h _lbm_line REGEX "^[ \t]*#[ \t]*define[ \t]+LBM_VERS_${part}[ \t]+[0-9]+"
         LIMIT_COUNT 1)
    string(REGEX MATCH "LBM_VERS_${part}[ \t]+([0-9]+)" _ "${_lbm_line}")
    list(APPEND LBM_VERSION "${CMAKE_MATCH_1}")
  endforeach()
  list(JOIN LBM_VERSION "." LBM_VERSION)
  if(NOT LBM_VERSION MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$")
    set(LBM_VERSION)
    set(_lbm_reason "${LBM_INCLUDE_DIR}/lbm/lbm.h does not define LBM_VERS_MAJOR, LBM_VERS_MINOR and LBM_VERS_SP")
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
  LBM
  REQUIRED_VARS LBM_LIBRARY LBM_INCLUDE_DIR LBM_VERSION
  VERSION_VAR LBM_VERSION
  REASON_FAILURE_MESSAGE "${_lbm_reason}")

if(LBM_FOUND AND NOT TARGET LBM::headers)
  add_library(LBM::headers INTERFACE IMPORTED)
  set_target_properties(LBM::headers PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${LBM_INCLUDE_DIR})
  add_library(LBM::lbm UNKNOWN IMPORTED)
  set_target_properties(LBM::lbm PROPERTIES IMPORTED_LOCATION ${LBM_LIBRARY} INTERFACE_LINK_LIBRARIES LBM::headers)
endif()
