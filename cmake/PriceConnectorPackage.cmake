# What users link, and what find_package(price_connector) and pkg-config find.
include(CMakePackageConfigHelpers)

# The connector with the default of every link-time seam. An application with a log back end of its own links
# price_connector::connector and price_connector::lbm_provider instead, a test price_connector::scripted as provider.
add_library(price_connector INTERFACE)
add_library(price_connector::price_connector ALIAS price_connector)
target_link_libraries(price_connector INTERFACE price_connector::connector price_connector::lbm_provider
                                                price_connector::logger_backend)
if(NOT PRICE_CONNECTOR_INSTALL)
  return()
endif()

# The library of everything that stands behind no seam, shared and static. Who provides the messaging interface and the
# log back end is for the application to say, so the library does not.
find_package(EXPAT REQUIRED)
find_package(Protobuf ${PRICE_CONNECTOR_PROTOBUF_VERSION} REQUIRED)
get_property(parts GLOBAL PROPERTY PRICE_CONNECTOR_PARTS)
list(TRANSFORM parts REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>" OUTPUT_VARIABLE objects)
foreach(kind shared static)
  string(TOUPPER ${kind} KIND)
  set(target price_connector_${kind})
  add_library(${target} ${KIND} ${objects})
  price_connector_library_settings(${target})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME price_connector LINKER_LANGUAGE CXX)
  target_compile_features(${target} INTERFACE cxx_std_17)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/price_connector>)
  target_link_libraries(
    ${target}
    PUBLIC price_connector::lbm_interface price_connector::statistics Boost::headers Threads::Threads
    PRIVATE price_connector::onload protobuf::libprotobuf EXPAT::EXPAT ${CMAKE_DL_LIBS})
endforeach()
price_connector_exports(price_connector_shared cmake/price_connector.map)
price_connector_install(Shared price_connector_shared connector)
price_connector_install(Static price_connector_static connector)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/price_connector)
configure_package_config_file(cmake/price_connectorConfig.cmake.in price_connectorConfig.cmake
                              INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO
                              NO_CHECK_REQUIRED_COMPONENTS_MACRO)
configure_file(cmake/price_connectorConfigVersion.cmake.in price_connectorConfigVersion.cmake @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/price_connectorConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/price_connectorConfigVersion.cmake DESTINATION ${package_folder})
foreach(set "" Shared Static Scripted)
  install(EXPORT price_connector${set}Targets NAMESPACE price_connector:: DESTINATION ${package_folder})
endforeach()
if(PRICE_CONNECTOR_LBM STREQUAL "system")
  install(FILES cmake/FindLBM.cmake DESTINATION ${package_folder})
endif()

# price_connector_pkg_config(<name> <summary> LIBRARIES <flag>... [PRIVATE <flag>...])
#
# Of the flags, the PRIVATE ones are for those who link statically.
function(price_connector_pkg_config name summary)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "LIBRARIES;PRIVATE")
  list(JOIN arg_LIBRARIES " " libraries)
  list(JOIN arg_PRIVATE " " private_libraries)
  set(folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH to_libraries ${folder} ${CMAKE_INSTALL_FULL_LIBDIR})
  file(RELATIVE_PATH to_headers ${folder} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/price_connector)
  configure_file(cmake/price_connector.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

if(PRICE_CONNECTOR_LBM STREQUAL "system")
  set(provider ${LBM_LIBRARY})
  set(provider_headers -I${LBM_INCLUDE_DIR})
else()
  set(provider -lprice_connector_lbm_embedded)
endif()
set(seams -lprice_connector_logger_backend -lprice_connector_statistics)
set(linked_in -lprice_connector_onload -lprotobuf -lexpat -ldl)
price_connector_pkg_config(price_connector "with a messaging library and the default log back end"
                           LIBRARIES -lprice_connector ${provider} ${seams} PRIVATE ${linked_in})
price_connector_pkg_config(price_connector-static "its own library static"
                           LIBRARIES -l:libprice_connector.a ${provider} ${seams} ${linked_in})
price_connector_pkg_config(price_connector-scripted "with the scripted provider, for tests"
                           LIBRARIES -lprice_connector -lprice_connector_lbm_scripted ${seams})
