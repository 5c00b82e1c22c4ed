# Sanitizers for the whole tree, chosen by VLX_SANITIZE.

set(VLX_NO_UNDEFINED LINKER:--no-undefined)
if(VLX_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
    # GCC 12 then sees uninitialised values in the standard library's own std::regex.
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
elseif(VLX_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(VLX_SANITIZE)
    message(FATAL_ERROR "VLX_SANITIZE is \"${VLX_SANITIZE}\"; known are address and thread")
endif()
if(VLX_SANITIZE)
    # clang leaves the sanitizer's own symbols in a shared library to the program.
    set(VLX_NO_UNDEFINED)
endif()
