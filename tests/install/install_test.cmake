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

# Nothing sets a library path: installed programs and libraries find theirs from where
# they are, and each consumer from its run path.
foreach(program orvix orvix-ubusd)
    if(EXISTS ${prefix}/bin/${program})
        execute_process(COMMAND ${prefix}/bin/${program} --version
            RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
        if(result EQUAL 127 OR output MATCHES "error while loading shared libraries")
            message(FATAL_ERROR "installed ${program} does not start (${result}):\n${output}")
        endif()
    endif()
endforeach()
if(NOT EXISTS ${prefix}/bin/orvix)
    message(FATAL_ERROR "the orvix tool is not installed")
endif()

set(libdirs ${flags})
list(FILTER libdirs INCLUDE REGEX "^-L")
list(TRANSFORM libdirs REPLACE "^-L" "-Wl,-rpath,")

run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-consumer -G ${GENERATOR}
    -DCMAKE_BUILD_TYPE=${ORVIX_CONFIG}
    -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run(${WORK_DIR}/cmake-consumer/orvix_consumer)

run(${CXX_COMPILER} -std=c++17 "-DORVIX_EXPECTED_VERSION=\"${version}\""
    ${CONSUMER_DIR}/main.cpp ${flags} ${libdirs} -o ${WORK_DIR}/pkg-config-consumer)
run(${WORK_DIR}/pkg-config-consumer)

if(EXISTS ${prefix}/${ORVIX_LIBDIR}/pkgconfig/orvix-asio.pc)
    run(${PKG_CONFIG} --exists --print-errors orvix-asio)
endif()
