# Installation: the public headers, liborvix (and liborvix-asio when built), a CMake
# package giving orvix::orvix (and orvix::asio) to find_package(orvix), and orvix.pc.
#
# With hostbus, its libubox and libubus (libraries and headers) are installed alongside:
# a consumer on a desktop has no other ones, and liborvix was built against these.
# Otherwise the package refers to the libubox and libubus the build found.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ORVIX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/orvix)
set(ORVIX_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(_orvix_installed_targets orvix)
if(TARGET orvix_asio)
    list(APPEND _orvix_installed_targets orvix_asio)
endif()
install(TARGETS ${_orvix_installed_targets} EXPORT orvix-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT orvix-targets
    NAMESPACE orvix::
    DESTINATION ${ORVIX_INSTALL_CMAKEDIR})

if(TARGET orvix_asio)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/orvix DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
else()
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/orvix DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        PATTERN asio_event_loop.h EXCLUDE)
endif()

if(ORVIX_USING_HOSTBUS)
    # Exported as ubus::ubox and ubus::ubus, the names the export of orvix refers to. The
    # component "ubus" alone installs them the way a device has them.
    install(TARGETS ubox ubus EXPORT orvix-hostbus-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ubus
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(EXPORT orvix-hostbus-targets
        NAMESPACE ubus::
        DESTINATION ${ORVIX_INSTALL_CMAKEDIR})
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/hostbus/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT ubus)
    # A bus for desktops and containers, which have none of their own.
    install(TARGETS orvix-ubusd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ubus)
else()
    # Where the build found them, for the package config and orvix.pc to look there again.
    get_filename_component(_orvix_ubox_libdir "${UBOX_LIBRARY}" DIRECTORY)
    get_filename_component(_orvix_ubus_libdir "${UBUS_LIBRARY}" DIRECTORY)
    set(ORVIX_UBUS_INCLUDE_HINTS "${UBOX_INCLUDE_DIR}" "${UBUS_INCLUDE_DIR}")
    set(ORVIX_UBUS_LIBRARY_HINTS "${_orvix_ubox_libdir}" "${_orvix_ubus_libdir}")
    list(REMOVE_DUPLICATES ORVIX_UBUS_INCLUDE_HINTS)
    list(REMOVE_DUPLICATES ORVIX_UBUS_LIBRARY_HINTS)
    list(TRANSFORM ORVIX_UBUS_INCLUDE_HINTS PREPEND " -I" OUTPUT_VARIABLE ORVIX_PC_UBUS_CFLAGS)
    list(TRANSFORM ORVIX_UBUS_LIBRARY_HINTS PREPEND " -L" OUTPUT_VARIABLE ORVIX_PC_UBUS_LIBS)
    list(JOIN ORVIX_PC_UBUS_CFLAGS "" ORVIX_PC_UBUS_CFLAGS)
    list(JOIN ORVIX_PC_UBUS_LIBS "" ORVIX_PC_UBUS_LIBS)
endif()

configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/orvix-config.cmake.in
    ${PROJECT_BINARY_DIR}/orvix-config.cmake
    INSTALL_DESTINATION ${ORVIX_INSTALL_CMAKEDIR}
    PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/orvix-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/orvix-config.cmake
    ${PROJECT_BINARY_DIR}/orvix-config-version.cmake
    DESTINATION ${ORVIX_INSTALL_CMAKEDIR})

# orvix.pc locates the prefix from its own place, so it stays right under any --prefix.
file(RELATIVE_PATH ORVIX_PC_PREFIX_FROM_PCFILEDIR
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ORVIX_PC_PREFIX_FROM_PCFILEDIR "${ORVIX_PC_PREFIX_FROM_PCFILEDIR}")
file(RELATIVE_PATH ORVIX_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH ORVIX_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/orvix.pc.in ${PROJECT_BINARY_DIR}/orvix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvix.pc DESTINATION ${ORVIX_INSTALL_PKGCONFIGDIR})
if(TARGET orvix_asio)
    set(ORVIX_PC_ASIO_CFLAGS "")
    if(NOT ORVIX_ASIO_INCLUDE_DIR STREQUAL "/usr/include")
        set(ORVIX_PC_ASIO_CFLAGS " -I${ORVIX_ASIO_INCLUDE_DIR}")
    endif()
    configure_file(${CMAKE_CURRENT_LIST_DIR}/orvix-asio.pc.in ${PROJECT_BINARY_DIR}/orvix-asio.pc
        @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/orvix-asio.pc DESTINATION ${ORVIX_INSTALL_PKGCONFIGDIR})
endif()
