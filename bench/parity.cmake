# The parity engine's benchmark, group "parity" of bench/run.sh:
# include(parity.cmake) from bench/CMakeLists.txt.
add_executable(bench_parity ${CMAKE_CURRENT_LIST_DIR}/parity_bench.cpp)
target_link_libraries(bench_parity PRIVATE esa_stack)
