# Debian packages: tessd, tess-tools, libtess-dev. scripts/package makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessd)
set(CPACK_PACKAGE_VENDOR tessd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build/packages CACHE PATH "Where CPack leaves the packages")
set(CPACK_COMPONENTS_ALL daemon tools devel)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE tessd)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "tessd packaging <packaging@tessd.invalid>" CACHE STRING "Maintainer of the packages")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(debian ${CMAKE_CURRENT_SOURCE_DIR}/debian)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME tessd)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION net)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles, passwd")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS tess-tools)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS libtess-dev)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${debian}/tessd/postinst ${debian}/tessd/prerm
                                               ${debian}/tessd/postrm)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "command listener daemon of an embedded device
Takes text commands over a serial line, telnet and two local sockets and hands
them to the processes of the device that registered for them.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tess-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS tessd)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "client for the command listener daemon tessd
Sends commands from a shell or a console, turns a script into a process of the
device, and checks what works. With a small device process to try it on.")

set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME libtess-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVEL_PACKAGE_RECOMMENDS "g++ (>= 4:12), pkgconf | pkg-config")
set(CPACK_DEBIAN_DEVEL_PACKAGE_SUGGESTS cmake)
set(CPACK_DEBIAN_DEVEL_PACKAGE_CONTROL_EXTRA ${debian}/libtess-dev/triggers)
set(CPACK_COMPONENT_DEVEL_DESCRIPTION "library for processes that take commands from tessd
Headers, static and shared library, pkg-config file and CMake package: message
queues, log and timers for processes of the device. With what authors of such
processes in any language must know, and examples.")

# Every package has the change log and the terms. tessctl has parts of libraries in it that want theirs told, too.
compress(${debian}/changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
set(tools_terms)
foreach(library libcli11-dev nlohmann-json3-dev)
    if(TARGET tessctl AND EXISTS /usr/share/doc/${library}/copyright)
        file(READ /usr/share/doc/${library}/copyright terms)
        string(APPEND tools_terms "\n\nThe tools contain parts of ${library}, whose terms are:\n\n${terms}")
    endif()
endforeach()
foreach(component daemon tools devel)
    string(TOUPPER ${component} upper)
    file(READ ${debian}/copyright terms)
    string(APPEND terms "${${component}_terms}")
    file(CONFIGURE OUTPUT ${component}.copyright CONTENT "@terms@" @ONLY)
    set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${component}.copyright DESTINATION ${doc_dir} RENAME copyright
            COMPONENT ${component})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz DESTINATION ${doc_dir} COMPONENT ${component})
endforeach()

include(CPack)
