# The SANE backend against SANE's own test backend, both through scanimage:
# `cmake --build build-release --target bench_sane` prints a letter page at
# 1200 dpi colour through each (median of 3 runs, RUNS=N for more), scanimage's
# peak RSS, the fixed cost of a scan and the ratio with and without it.
if(TARGET sane-zentary)
  add_custom_target(bench_sane
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/sane_scanimage.sh ${CMAKE_BINARY_DIR}
    DEPENDS sane-zentary
    USES_TERMINAL)
endif()
