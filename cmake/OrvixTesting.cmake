# Helpers for the test trees.

set(ORVIX_TEST_UBUSD "" CACHE FILEPATH
    "Bus daemon the integration tests start (default: hostbus's orvix-ubusd, else ubusd from PATH)")
if(ORVIX_TEST_UBUSD)
    set(ORVIX_TEST_UBUSD_PATH "${ORVIX_TEST_UBUSD}")
elseif(TARGET orvix-ubusd)
    set(ORVIX_TEST_UBUSD_PATH "$<TARGET_FILE:orvix-ubusd>")
else()
    find_program(ORVIX_SYSTEM_UBUSD ubusd)
    set(ORVIX_TEST_UBUSD_PATH "${ORVIX_SYSTEM_UBUSD}")
endif()

# orvix_add_test(NAME SOURCES ... [LIBRARIES ...] [LABELS label...] [TIMEOUT seconds] [NEEDS_DAEMON])
# Builds a GoogleTest executable and registers each of its tests with CTest.
# NEEDS_DAEMON passes the bus daemon's path to the test as ORVIX_TEST_UBUSD.
function(orvix_add_test name)
    cmake_parse_arguments(T "NEEDS_DAEMON" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 60)
    endif()
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE ${T_LIBRARIES} GTest::gmock GTest::gtest_main orvix_warnings)
    if(T_NEEDS_DAEMON)
        target_link_libraries(${name} PRIVATE orvix_test_support)
        target_compile_definitions(${name} PRIVATE ORVIX_TEST_UBUSD="${ORVIX_TEST_UBUSD_PATH}")
        if(TARGET orvix-ubusd AND NOT ORVIX_TEST_UBUSD)
            add_dependencies(${name} orvix-ubusd)
        endif()
    endif()
    gtest_discover_tests(${name}
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${T_TIMEOUT})
    # gtest_discover_tests flattens list-valued properties, so the labels are set by a file
    # that CTest reads after the discovered tests.
    set(labels_file ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    file(WRITE ${labels_file}
        "if(${name}_TESTS)\n"
        "    set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${T_LABELS}\")\n"
        "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${labels_file})
endfunction()
