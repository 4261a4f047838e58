# What a fuzz target's input function links, in the fuzzers and in their ctest replays alike: the
# ssoclient objects (not the shared library, so that internal classes are reachable) and the
# foundation's HTTP reply accumulator, which libbasalt keeps hidden.
function(ssoclient_link_fuzz_input target)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/foundation/src/http/HttpReply.cpp)
    target_include_directories(${target}
        PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/foundation/src)
    target_link_libraries(${target} PRIVATE ssoclient_objects Basalt::basalt)
endfunction()
