add_executable(bench_capabilities ${CMAKE_CURRENT_LIST_DIR}/bench_capabilities.cpp)
target_link_libraries(bench_capabilities PRIVATE zentary_capabilities benchmark::benchmark)
target_compile_definitions(bench_capabilities PRIVATE
  ZENTARY_CAPABILITIES_DIR="${PROJECT_SOURCE_DIR}/resources/Resources/Capabilities")
zentary_warnings(bench_capabilities)
