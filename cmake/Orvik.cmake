# Small helpers so that adding a test or a benchmark is one line.

# orvik_add_test(<name> [LIBS lib...]): builds tests/<name>.cpp against GoogleTest
# and the project's libraries, and registers every case with ctest.
function(orvik_add_test name)
    cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE orvik_testsupport ${ARG_LIBS} GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# orvik_add_bench(<name>): builds bench/<name>.cpp against Google Benchmark.
function(orvik_add_bench name)
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE orvik_benchsupport benchmark::benchmark_main)
endfunction()
