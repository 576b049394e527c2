# The SANE backend against SANE's own test backend, both through scanimage:
# `cmake --build build --target bench_sane` prints the median of 5 runs.
if(TARGET sane-zentary)
  add_custom_target(bench_sane
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/sane_scanimage.sh ${CMAKE_BINARY_DIR}
    DEPENDS sane-zentary
    USES_TERMINAL)
endif()
