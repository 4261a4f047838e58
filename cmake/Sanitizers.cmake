# SSOCLIENT_SANITIZE is a comma separated list passed to -fsanitize.
if(SSOCLIENT_SANITIZE)
    add_compile_options(-fsanitize=${SSOCLIENT_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${SSOCLIENT_SANITIZE})
endif()
if(SSOCLIENT_SANITIZE MATCHES "thread")
    # Asio's fenced blocks use atomic_thread_fence, which GCC reports under ThreadSanitizer.
    add_compile_options(-Wno-tsan)
endif()
