# The disk layer benchmark: build/bin/disk_bench (figures disk.*).
add_executable(disk_bench ${CMAKE_CURRENT_LIST_DIR}/disk_bench.cpp)
target_link_libraries(disk_bench PRIVATE esa_stack)
