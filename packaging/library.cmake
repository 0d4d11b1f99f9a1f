# libtess-framework: headers, both libraries, and what find_package() and pkg-config want to know.
include(CMakePackageConfigHelpers)

set(TESS_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/tess)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tess-framework)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/framework/*.h)
install(FILES ${headers} DESTINATION ${TESS_HEADER_DIR}/framework COMPONENT devel)
install(TARGETS tess_framework_static tess_framework_shared EXPORT tess-framework-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT devel
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT devel
        INCLUDES DESTINATION ${TESS_HEADER_DIR})

install(EXPORT tess-framework-targets NAMESPACE tess:: DESTINATION ${package_dir} COMPONENT devel)
configure_package_config_file(tess-framework-config.cmake.in tess-framework-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tess-framework-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tess-framework-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tess-framework-config-version.cmake
        DESTINATION ${package_dir} COMPONENT devel)

# Relative to the file itself, so that any prefix will do.
file(RELATIVE_PATH TESS_PC_TO_PREFIX /${pkgconfig_dir} /)
get_target_property(definitions tess_framework_static INTERFACE_COMPILE_DEFINITIONS)
set(TESS_PC_DEFINITIONS)
foreach(definition ${definitions})
    if(definition)
        string(APPEND TESS_PC_DEFINITIONS " -D${definition}")
    endif()
endforeach()
configure_file(tess-framework.pc.in tess-framework.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tess-framework.pc DESTINATION ${pkgconfig_dir} COMPONENT devel)
