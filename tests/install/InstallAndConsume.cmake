# Installs the build tree into a scratch prefix, then configures, builds and runs a small outside
# project that finds the libraries with find_package and with pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "failed: ${ARGN}\n${out}")
    endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file lib/libbasalt.so lib/libssoclient.so lib/cmake/SsoClient/SsoClientConfig.cmake
             lib/pkgconfig/ssoclient.pc include/ssoClient/Types.h include/basalt/Object.h bin/ssotool)
    if(NOT EXISTS ${prefix}/${file})
        message(FATAL_ERROR "not installed: ${file}")
    endif()
endforeach()

# The installed libssoclient finds libbasalt by itself (a program that needs only libssoclient
# carries no run path to libbasalt).
execute_process(COMMAND ldd ${prefix}/lib/libssoclient.so OUTPUT_VARIABLE deps)
if(NOT deps MATCHES "libbasalt.so.0 => ${prefix}/lib/")
    message(FATAL_ERROR "the installed libssoclient does not find libbasalt:\n${deps}")
endif()

set(flags "")
if(SANITIZE)
    set(flags "-fsanitize=${SANITIZE}")
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/consumer
    -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_FLAGS=${flags}
    -DCMAKE_EXE_LINKER_FLAGS=${flags})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/consumer)

# pkg-config must give a working compile and link line as well.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs ssoclient
                OUTPUT_VARIABLE pcflags RESULT_VARIABLE status OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know ssoclient")
endif()
separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
run(c++ -std=c++17 ${flags} ${SOURCE_DIR}/tests/install/consumer/main.cpp ${pcflags}
    -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/consumer-pc)
run(${WORK_DIR}/consumer-pc)
