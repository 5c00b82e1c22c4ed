# vlx_house_rules(TARGET): strict warnings, errors only where a preset or CI asks for it; and
# assertions stay in, whatever the build type defines: they are part of the product.
function(vlx_house_rules target)
    target_compile_options(${target} PRIVATE
        -UNDEBUG -Wall -Wextra -Wshadow -Wconversion -Wsign-conversion -Wswitch-enum -Wnon-virtual-dtor
        -Wold-style-cast -Wcast-align -Woverloaded-virtual -Wformat=2 -Wundef
        $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
    if(VLX_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
