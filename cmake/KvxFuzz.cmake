# kvx_fuzz_target(NAME name LINKS target...)
#
# One decoder, one target: <name>_fuzzer.cpp defines LLVMFuzzerTestOneInput. The `fuzz` preset
# (clang) makes it a libFuzzer program, bin/fuzz_<name>. Everywhere else, with tests on, the same
# source runs over every file of fuzz/corpus/<name>/ as the test fuzz.corpus.<name>.
function(kvx_fuzz_target)
    cmake_parse_arguments(PARSE_ARGV 0 FUZZ "" "NAME" "LINKS")
    set(target fuzz_${FUZZ_NAME})
    set(corpus ${PROJECT_SOURCE_DIR}/fuzz/corpus/${FUZZ_NAME})
    if(KVX_BUILD_FUZZERS)
        add_executable(${target} ${FUZZ_NAME}_fuzzer.cpp)
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
        target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    elseif(KVX_BUILD_TESTS)
        add_executable(${target} ${FUZZ_NAME}_fuzzer.cpp ${PROJECT_SOURCE_DIR}/fuzz/replay.cpp)
        add_test(NAME fuzz.corpus.${FUZZ_NAME} COMMAND ${target} ${corpus})
        set_tests_properties(fuzz.corpus.${FUZZ_NAME} PROPERTIES TIMEOUT 120)
    else()
        return()
    endif()
    target_link_libraries(${target} PRIVATE kvx_options ${FUZZ_LINKS})
    set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
endfunction()
