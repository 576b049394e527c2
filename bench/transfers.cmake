# Transfers through the loaded data source against the reference tools.
add_executable(bench_transfers ${CMAKE_CURRENT_LIST_DIR}/bench_transfers.cpp)
target_link_libraries(bench_transfers PRIVATE zentary_dsm TIFF::TIFF benchmark::benchmark)
target_compile_definitions(bench_transfers PRIVATE ZENTARY_DS_PATH="${ZENTARY_TWAIN_DIR}/ZentaryQ305.ds")
zentary_warnings(bench_transfers)
add_dependencies(bench_transfers ZentaryQ305)
