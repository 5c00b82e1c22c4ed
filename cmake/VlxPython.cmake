# The Python of the module and its tests: the system's, which has the packages of the distribution,
# unless Python_EXECUTABLE names another one.

set(vlx_build_python_default OFF)
if(NOT CMAKE_CROSSCOMPILING)
    if(NOT DEFINED Python_EXECUTABLE AND EXISTS /usr/bin/python3)
        set(Python_EXECUTABLE /usr/bin/python3)
    endif()
    find_package(Python 3.9 QUIET COMPONENTS Interpreter Development.Module NumPy)
    if(Python_FOUND)
        find_package(pybind11 QUIET)
    endif()
    if(PROJECT_IS_TOP_LEVEL AND pybind11_FOUND)
        set(vlx_build_python_default ON)
    endif()
endif()
option(VLX_BUILD_PYTHON "Build the Python module" ${vlx_build_python_default})

# Below the prefix; Debian's Python names a directory below /usr/local.
if(VLX_BUILD_PYTHON AND NOT DEFINED CACHE{VLX_PYTHON_DIR})
    execute_process(
        COMMAND ${Python_EXECUTABLE} -c
            "import os, sys, sysconfig; print(os.path.relpath(sysconfig.get_path('platlib'), sys.prefix))"
        OUTPUT_VARIABLE vlx_python_dir OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "^local/" "" vlx_python_dir ${vlx_python_dir})
    set(VLX_PYTHON_DIR ${vlx_python_dir} CACHE STRING "Directory of the Python module, below the prefix")
endif()
