# Compiles through ccache where it is installed, unless a launcher is given or VLX_COMPILER_CACHE is
# off. A library inside another project leaves that to the project.

option(VLX_COMPILER_CACHE "Compile through ccache if it is installed" ${PROJECT_IS_TOP_LEVEL})
if(VLX_COMPILER_CACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    find_program(VLX_CCACHE ccache)
    if(VLX_CCACHE)
        set(CMAKE_CXX_COMPILER_LAUNCHER ${VLX_CCACHE})
    endif()
endif()
