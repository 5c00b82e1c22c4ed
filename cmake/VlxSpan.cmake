# The byte view's type is nonstd::span_lite::span: span-lite's own where it is installed, otherwise
# our stand-in on std::span. Chosen once here, and installed with the package.

find_package(span-lite QUIET)
add_library(vlx_span INTERFACE)
if(TARGET nonstd::span-lite)
    set(VLX_SPAN_LITE_FOUND TRUE)
    target_link_libraries(vlx_span INTERFACE nonstd::span-lite)
    # span-lite would otherwise alias std::span, and the name span_lite would not exist.
    target_compile_definitions(vlx_span INTERFACE span_CONFIG_SELECT_SPAN=span_SPAN_NONSTD)
    message(STATUS "Byte view: span-lite ${span-lite_VERSION}")
else()
    set(VLX_SPAN_LITE_FOUND FALSE)
    target_include_directories(vlx_span INTERFACE
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/compat>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/vlx/compat>)
    message(STATUS "Byte view: std::span (span-lite is not installed)")
endif()
