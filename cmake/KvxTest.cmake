# kvx_test(NAME rv.message SOURCES file... LINKS target... [TIMEOUT seconds]
#          [ENVIRONMENT NAME=value] [LABEL name])
#   LABEL  leaves the test out of the usual run of ./test
#
# One GoogleTest program per room; CTest lists every case as <NAME>.<Suite>.<Case>.
function(kvx_test)
    cmake_parse_arguments(PARSE_ARGV 0 TEST "" "NAME;TIMEOUT;ENVIRONMENT;LABEL" "SOURCES;LINKS")
    if(NOT TEST_TIMEOUT)
        set(TEST_TIMEOUT 120)
    endif()
    string(REPLACE "." "_" target ${TEST_NAME}_test)
    add_executable(${target} ${TEST_SOURCES})
    target_link_libraries(${target} PRIVATE kvx_options ${TEST_LINKS} kvx_test_support
                          GTest::gtest_main)
    target_precompile_headers(${target} REUSE_FROM kvx_test_headers)
    set_target_properties(${target} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests UNITY_BUILD OFF)
    set(properties TIMEOUT ${TEST_TIMEOUT})
    if(TEST_ENVIRONMENT)
        list(APPEND properties ENVIRONMENT ${TEST_ENVIRONMENT})
    endif()
    if(TEST_LABEL)
        list(APPEND properties LABELS ${TEST_LABEL})
    endif()
    include(GoogleTest)
    gtest_discover_tests(${target}
        TEST_PREFIX ${TEST_NAME}. DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        PROPERTIES ${properties})
endfunction()
