# The disk layer's benchmark, group "disk" of bench/run.sh (figures disk.*).
add_executable(bench_disk ${CMAKE_CURRENT_LIST_DIR}/disk_bench.cpp)
target_link_libraries(bench_disk PRIVATE esa_stack)
