# Helpers for the test trees and the benchmarks.

set(ORVIX_TEST_UBUSD "" CACHE FILEPATH
    "Bus daemon the tests and benchmarks start (default: hostbus's orvix-ubusd, else ubusd from PATH)")

# orvix_testing_use_daemon(TARGET): TARGET gets the bus daemon's path as ORVIX_TEST_UBUSD.
function(orvix_testing_use_daemon target)
    if(ORVIX_TEST_UBUSD)
        set(path "${ORVIX_TEST_UBUSD}")
    elseif(TARGET orvix-ubusd)
        set(path "$<TARGET_FILE:orvix-ubusd>")
        add_dependencies(${target} orvix-ubusd)
    else()
        find_program(ORVIX_SYSTEM_UBUSD ubusd)
        set(path "${ORVIX_SYSTEM_UBUSD}")
    endif()
    target_compile_definitions(${target} PRIVATE ORVIX_TEST_UBUSD="${path}")
endfunction()

# orvix_add_test(NAME SOURCES ... [LIBRARIES ...] [LABELS label...] [TIMEOUT seconds] [NEEDS_DAEMON])
# Builds a GoogleTest executable with the test kit and registers each of its tests with CTest.
# NEEDS_DAEMON passes the bus daemon's path to the test as ORVIX_TEST_UBUSD.
function(orvix_add_test name)
    cmake_parse_arguments(T "NEEDS_DAEMON" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 60)
    endif()
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE ${T_LIBRARIES} orvix_testing GTest::gmock
        GTest::gtest_main orvix_warnings)
    if(T_NEEDS_DAEMON)
        orvix_testing_use_daemon(${name})
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
