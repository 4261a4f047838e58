# Fails unless every symbol the two libraries define for outside use belongs to their namespaces.
# Weak definitions of standard-library templates (std::, __gnu_cxx::) are emitted wherever they
# are instantiated and are tolerated; strong definitions must be ours.
function(check_library path namespace)
    execute_process(COMMAND nm -D --defined-only -C ${path}
                    OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "nm failed on ${path}")
    endif()
    string(REPLACE "\n" ";" lines "${symbols}")
    set(ours 0)
    foreach(line IN LISTS lines)
        if(line STREQUAL "")
            continue()
        endif()
        string(REGEX MATCH "^[0-9a-f]+ (.) (.*)$" _ "${line}")
        set(kind "${CMAKE_MATCH_1}")
        set(name "${CMAKE_MATCH_2}")
        if(name MATCHES "^(typeinfo name for |typeinfo for |vtable for |VTT for |construction vtable for [^ ]+-in-|non-virtual thunk to |virtual thunk to |guard variable for )?(${namespace})::")
            math(EXPR ours "${ours} + 1")
        elseif(kind MATCHES "^[WVu]$" AND name MATCHES "(std|__gnu_cxx|boost|asio)[a-z_]*::")
            # weak template instantiation
        elseif(name MATCHES "^(_init|_fini|_edata|_end|__bss_start)$")
        else()
            message(SEND_ERROR "${path}: unexpected exported symbol: ${line}")
        endif()
    endforeach()
    if(ours EQUAL 0)
        message(SEND_ERROR "${path}: no symbols of ${namespace} exported")
    endif()
endfunction()

check_library(${BASALT} "Basalt")
check_library(${SSOCLIENT} "SsoClient")
