# Shared build helpers.

# Warnings for every target of ours.
function(zentary_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
    # g++ 12 at -O3 warns falsely inside std::string concatenation (GCC bug 105329)
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
  if(ZENTARY_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# zentary_library(name SOURCES ... LIBS ...): a static library of one src/ directory.
function(zentary_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
  zentary_warnings(${name})
endfunction()

# zentary_test(name SOURCES ... LIBS ... [LABELS ...]): one gtest executable, one ctest entry.
function(zentary_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  zentary_warnings(${name})
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "ZENTARY_BUILD_DIR=${CMAKE_BINARY_DIR};ZENTARY_DS=${ZENTARY_TWAIN_DIR}/ZentaryQ305.ds;ZENTARY_UI=headless;ZENTARY_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
  if(ARG_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()

# zentary_fuzzer(name SOURCE file LIBS ...): a libFuzzer target, run by ctest for
# a bounded time over its seed corpus in tests/fuzz/corpus/<name>/.
set(ZENTARY_FUZZ_SECONDS 30 CACHE STRING "Seconds each fuzzer runs under ctest")
function(zentary_fuzzer name)
  cmake_parse_arguments(ARG "" "SOURCE" "LIBS" ${ARGN})
  set(corpus ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${name})
  set(sources ${ARG_SOURCE})
  if(NOT ZENTARY_FUZZ)
    list(APPEND sources ${PROJECT_SOURCE_DIR}/tests/fuzz/ReplayMain.cpp)
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  zentary_warnings(${name})
  # Outside the fuzz build the harness has a plain main that replays the
  # seeds once, as an ordinary test of every other build.
  if(NOT ZENTARY_FUZZ)
    file(GLOB seeds CONFIGURE_DEPENDS ${corpus}/*)
    add_test(NAME ${name}_seeds COMMAND ${name} ${seeds})
    set_tests_properties(${name}_seeds PROPERTIES TIMEOUT 120 LABELS seeds ENVIRONMENT "ZENTARY_UI=headless")
    return()
  endif()
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set(work ${CMAKE_BINARY_DIR}/fuzz-corpus/${name})
  add_test(NAME ${name}
    COMMAND ${CMAKE_COMMAND} -E env ZENTARY_UI=headless
      ${PROJECT_SOURCE_DIR}/scripts/run-fuzzer $<TARGET_FILE:${name}> ${corpus} ${work} ${ZENTARY_FUZZ_SECONDS})
  set_tests_properties(${name} PROPERTIES TIMEOUT 900 LABELS fuzz)
  add_dependencies(fuzzers ${name})
endfunction()
if(ZENTARY_FUZZ AND NOT TARGET fuzzers)
  add_custom_target(fuzzers)
endif()
