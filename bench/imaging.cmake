# Image conversion and export against the reference tools on the same pixels.
add_executable(bench_imaging ${CMAKE_CURRENT_LIST_DIR}/bench_imaging.cpp)
target_link_libraries(bench_imaging PRIVATE zentary_imaging TIFF::TIFF JPEG::JPEG benchmark::benchmark)
zentary_warnings(bench_imaging)
