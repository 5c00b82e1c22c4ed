# How tests become ctest processes, one process for each test.

# vlx_discover_tests(NAME): each test of a GoogleTest program becomes a ctest process.
function(vlx_discover_tests name)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES
        TIMEOUT 60
        ENVIRONMENT "GST_REGISTRY=${PROJECT_BINARY_DIR}/gst-registry.bin")
endfunction()

# vlx_add_test(NAME [LIBRARY...]): one program from NAME.cpp, whose tests ctest runs.
function(vlx_add_test name)
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE vlx_test_support ${ARGN})
    vlx_house_rules(${name})
    vlx_discover_tests(${name})
endfunction()
