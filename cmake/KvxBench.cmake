# kvx_bench(NAME name SOURCES file... LINKS target...)
#
# One program for one question: bin/bench_<name>. It prints how each figure was made, then a table
# with the ratio to a baseline measured in the same run.
function(kvx_bench)
    cmake_parse_arguments(PARSE_ARGV 0 BENCH "" "NAME" "SOURCES;LINKS")
    set(target bench_${BENCH_NAME})
    add_executable(${target} ${BENCH_SOURCES})
    target_link_libraries(${target} PRIVATE kvx_options ${BENCH_LINKS})
    set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
endfunction()
