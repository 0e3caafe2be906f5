# The range cache's benchmark, group "cache" of bench/run.sh.
add_executable(bench_cache ${CMAKE_CURRENT_LIST_DIR}/cache_bench.cpp)
target_link_libraries(bench_cache PRIVATE esa_stack)
