# What users link, price_connector::price_connector, and what find_package(price_connector) finds.
include(CMakePackageConfigHelpers)

# The connector with the default of every link-time seam. An application with a log back end of its own links
# price_connector::connector, price_connector::lbm_provider and price_connector::onload instead.
price_connector_library(price_connector INTERFACE PUBLIC price_connector::connector price_connector::lbm_provider
                                                         price_connector::logger_backend price_connector::onload)

get_property(components GLOBAL PROPERTY PRICE_CONNECTOR_COMPONENTS)
list(APPEND components lbm_provider)  # made when the package is found
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/price_connector)
configure_package_config_file(cmake/price_connectorConfig.cmake.in price_connectorConfig.cmake
                              INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO
                              NO_CHECK_REQUIRED_COMPONENTS_MACRO)
# Before 1.0 every minor version may change the interface.
write_basic_package_version_file(price_connectorConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/price_connectorConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/price_connectorConfigVersion.cmake DESTINATION ${package_folder})
install(EXPORT price_connectorTargets NAMESPACE price_connector:: DESTINATION ${package_folder})
if(PRICE_CONNECTOR_LBM STREQUAL "system")
  install(FILES cmake/FindLBM.cmake DESTINATION ${package_folder})
endif()
