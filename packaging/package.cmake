# What users of the installed library find it by: pkg-config file and CMake package. And its software bill of materials.
include(CMakePackageConfigHelpers)
# From where the pkg-config file lies to the prefix, so that the tree can be installed and moved anywhere.
file(RELATIVE_PATH VELA_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
list(TRANSFORM VELA_WIDE_TYPES PREPEND " -D" OUTPUT_VARIABLE VELA_PC_DEFINITIONS)
string(JOIN "" VELA_PC_DEFINITIONS ${VELA_PC_DEFINITIONS})
configure_file(${CMAKE_CURRENT_LIST_DIR}/vela.pc.in ${PROJECT_BINARY_DIR}/vela.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vela.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vela-config.cmake.in ${PROJECT_BINARY_DIR}/vela-config.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vela)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vela-config-version.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT vela NAMESPACE vela:: FILE vela-targets.cmake DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vela)
install(FILES ${PROJECT_BINARY_DIR}/vela-config.cmake ${PROJECT_BINARY_DIR}/vela-config-version.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vela)

include(${CMAKE_CURRENT_LIST_DIR}/sbom.cmake)
