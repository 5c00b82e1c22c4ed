# Warnings for our own targets, and the rule that assertions stay in.

# vlx_house_rules(TARGET): strict warnings; errors only where a preset or CI asks for it.
function(vlx_house_rules target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wshadow -Wconversion -Wsign-conversion -Wswitch-enum -Wnon-virtual-dtor
        -Wold-style-cast -Wcast-align -Woverloaded-virtual -Wformat=2 -Wundef
        $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
    if(VLX_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

# vlx_keep_assertions(TARGET): assertions are part of the product, whatever the build type defines.
function(vlx_keep_assertions target)
    target_compile_options(${target} PRIVATE -UNDEBUG)
endfunction()
