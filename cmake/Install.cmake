include(CMakePackageConfigHelpers)

set(SSOCLIENT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/SsoClient)

install(TARGETS basalt ssoclient
        EXPORT SsoClientTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/foundation/include/basalt
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ssoClient
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

install(EXPORT SsoClientTargets NAMESPACE SsoClient:: DESTINATION ${SSOCLIENT_CMAKE_DIR})
# The foundation target is also reachable under its own namespace.
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/SsoClientConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/SsoClientConfig.cmake
                              INSTALL_DESTINATION ${SSOCLIENT_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/SsoClientConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/SsoClientConfig.cmake
              ${PROJECT_BINARY_DIR}/SsoClientConfigVersion.cmake
        DESTINATION ${SSOCLIENT_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/ssoclient.pc.in ${PROJECT_BINARY_DIR}/ssoclient.pc @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/cmake/basalt.pc.in ${PROJECT_BINARY_DIR}/basalt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ssoclient.pc ${PROJECT_BINARY_DIR}/basalt.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
