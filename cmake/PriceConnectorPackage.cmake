# What users link, price_connector::price_connector, and what find_package(price_connector) finds.
include(CMakePackageConfigHelpers)

# The connector with the default of every link-time seam. An application with a log back end of its own links
# price_connector::connector, price_connector::lbm_provider and price_connector::onload instead.
set(parts)
foreach(room connector lbm_provider logger_backend onload)
  if(TARGET price_connector::${room})
    get_target_property(kind price_connector::${room} TYPE)
    if(NOT kind STREQUAL "INTERFACE_LIBRARY")
      list(APPEND parts price_connector::${room})
    endif()
  endif()
endforeach()
price_connector_library(price_connector INTERFACE PUBLIC ${parts})

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/price_connector)
configure_package_config_file(cmake/price_connectorConfig.cmake.in price_connectorConfig.cmake
                              INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO)
# Before 1.0 every minor version may change the interface.
write_basic_package_version_file(price_connectorConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/price_connectorConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/price_connectorConfigVersion.cmake DESTINATION ${package_folder})
install(EXPORT price_connectorTargets NAMESPACE price_connector:: DESTINATION ${package_folder})
if(PRICE_CONNECTOR_LBM STREQUAL "system")
  install(FILES cmake/FindLBM.cmake DESTINATION ${package_folder})
endif()
