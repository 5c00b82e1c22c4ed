# How tests become ctest processes, one process for each test.

# What test processes find in their environment; a room may add to it. GStreamer's clocks need no
# plugin. Many of them would fill GLib's table of names, of which it loses the former ones as it
# grows.
set(VLX_TEST_ENVIRONMENT
    "GST_REGISTRY=${PROJECT_BINARY_DIR}/gst-without-plugins.bin" "GST_PLUGIN_SYSTEM_PATH=")

# vlx_discover_tests(NAME): each test of a GoogleTest program becomes a ctest process, with the
# environment above.
function(vlx_discover_tests name)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)

    # Set when the tests are known: gtest_discover_tests() would take the entries of a list for
    # properties of their own and keep the first alone.
    set(environmentFile ${CMAKE_CURRENT_BINARY_DIR}/${name}_environment.cmake)
    file(WRITE ${environmentFile}
        "set_tests_properties(\${${name}_TESTS} PROPERTIES ENVIRONMENT \"${VLX_TEST_ENVIRONMENT}\")\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${environmentFile})
endfunction()

# vlx_add_test(NAME [LIBRARY...]): one program from NAME.cpp, whose tests ctest runs.
function(vlx_add_test name)
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE vlx_test_support ${ARGN})
    vlx_house_rules(${name})
    vlx_discover_tests(${name})
endfunction()
