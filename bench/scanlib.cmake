add_executable(bench_scanlib ${CMAKE_CURRENT_LIST_DIR}/bench_scanlib.cpp)
target_link_libraries(bench_scanlib PRIVATE zentary_scanlib zentary_emulator benchmark::benchmark)
zentary_warnings(bench_scanlib)
