# Chooses where libubox and libubus come from and exposes them as the targets
# ubus::ubox and ubus::ubus, so the rest of the build links them the same way in
# every mode. Sets ORVIX_USING_HOSTBUS.

string(TOUPPER "${ORVIX_HOSTBUS}" _orvix_hostbus)
if(NOT _orvix_hostbus MATCHES "^(AUTO|ON|OFF)$")
    message(FATAL_ERROR "ORVIX_HOSTBUS must be AUTO, ON or OFF (got '${ORVIX_HOSTBUS}')")
endif()

set(ORVIX_USING_HOSTBUS ON)
if(NOT _orvix_hostbus STREQUAL "ON")
    find_path(UBUS_INCLUDE_DIR libubus.h)
    find_path(UBOX_INCLUDE_DIR libubox/uloop.h)
    find_library(UBUS_LIBRARY ubus)
    find_library(UBOX_LIBRARY ubox)
    if(UBUS_INCLUDE_DIR AND UBOX_INCLUDE_DIR AND UBUS_LIBRARY AND UBOX_LIBRARY)
        set(ORVIX_USING_HOSTBUS OFF)
    elseif(_orvix_hostbus STREQUAL "OFF")
        message(FATAL_ERROR
            "ORVIX_HOSTBUS=OFF, but the system's libubox/libubus were not found "
            "(headers: libubus.h ${UBUS_INCLUDE_DIR}, libubox/uloop.h ${UBOX_INCLUDE_DIR}; "
            "libraries: ubus ${UBUS_LIBRARY}, ubox ${UBOX_LIBRARY}). "
            "Install them, or configure with -DORVIX_HOSTBUS=AUTO to use the bundled hostbus.")
    endif()
endif()

if(ORVIX_USING_HOSTBUS)
    message(STATUS "libubox/libubus: hostbus (bundled)")
    add_subdirectory(${PROJECT_SOURCE_DIR}/hostbus ${PROJECT_BINARY_DIR}/hostbus)
    add_library(ubus::ubox ALIAS ubox)
    add_library(ubus::ubus ALIAS ubus)
else()
    message(STATUS "libubox/libubus: system (${UBOX_LIBRARY}, ${UBUS_LIBRARY})")
    add_library(ubus::ubox UNKNOWN IMPORTED GLOBAL)
    set_target_properties(ubus::ubox PROPERTIES
        IMPORTED_LOCATION "${UBOX_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${UBOX_INCLUDE_DIR}")
    add_library(ubus::ubus UNKNOWN IMPORTED GLOBAL)
    set_target_properties(ubus::ubus PROPERTIES
        IMPORTED_LOCATION "${UBUS_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${UBUS_INCLUDE_DIR}"
        INTERFACE_LINK_LIBRARIES ubus::ubox)
    # Installed programs and libraries find them where the build found them, unless the
    # loader looks there anyway.
    foreach(_orvix_lib ${UBOX_LIBRARY} ${UBUS_LIBRARY})
        get_filename_component(_orvix_dir "${_orvix_lib}" DIRECTORY)
        if(NOT _orvix_dir IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES)
            list(APPEND CMAKE_INSTALL_RPATH "${_orvix_dir}")
        endif()
    endforeach()
    list(REMOVE_DUPLICATES CMAKE_INSTALL_RPATH)
endif()
