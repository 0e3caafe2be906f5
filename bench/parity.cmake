# The parity engine's benchmark: include(parity.cmake) from bench/CMakeLists.txt.
add_executable(parity_bench ${CMAKE_CURRENT_LIST_DIR}/parity_bench.cpp)
target_link_libraries(parity_bench PRIVATE esa_stack)
