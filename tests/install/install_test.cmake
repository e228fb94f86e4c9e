# Run by CTest in script mode; see CMakeLists.txt next to it.

function(run)
    execute_process(COMMAND ${ARGN}
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "${command}\nfailed (${result}):\n${output}")
    endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${ORVIX_BUILD_DIR} --prefix ${prefix} --config ${ORVIX_CONFIG})

set(ENV{PKG_CONFIG_PATH} ${prefix}/${ORVIX_LIBDIR}/pkgconfig)
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs orvix
    RESULT_VARIABLE result OUTPUT_VARIABLE flags ERROR_VARIABLE error
    OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config --cflags --libs orvix failed: ${error}")
endif()
foreach(expected -lorvix -lubus -lubox)
    if(NOT " ${flags} " MATCHES " ${expected} ")
        message(FATAL_ERROR "pkg-config gives '${flags}', without ${expected}")
    endif()
endforeach()
execute_process(COMMAND ${PKG_CONFIG} --modversion orvix
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(flags UNIX_COMMAND "${flags}")

# The installed liborvix has no RUNPATH: the consumers run against the libraries in the
# directories orvix.pc names, liborvix's and libubox's and libubus's wherever they are.
set(libdirs ${flags})
list(FILTER libdirs INCLUDE REGEX "^-L")
list(TRANSFORM libdirs REPLACE "^-L" "")
string(REPLACE ";" ":" libdirs "${libdirs}")
set(ENV{LD_LIBRARY_PATH} "${libdirs}:$ENV{LD_LIBRARY_PATH}")

run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-consumer -G ${GENERATOR}
    -DCMAKE_BUILD_TYPE=${ORVIX_CONFIG}
    -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run(${WORK_DIR}/cmake-consumer/orvix_consumer)

run(${CXX_COMPILER} -std=c++17 "-DORVIX_EXPECTED_VERSION=\"${version}\""
    ${CONSUMER_DIR}/main.cpp ${flags} -o ${WORK_DIR}/pkg-config-consumer)
run(${WORK_DIR}/pkg-config-consumer)
