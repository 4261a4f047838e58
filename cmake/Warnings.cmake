# Applied to every target we build ourselves; third-party headers come in as SYSTEM includes.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wformat=2)
if(SSOCLIENT_WERROR)
    add_compile_options(-Werror)
endif()
