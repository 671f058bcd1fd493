# vexd_fuzzer(NAME SOURCES file... LIBS target... CORPUS dir [ENV VAR=value...]
#             [OPTIONS flag...])
# Adds a libFuzzer target (only when VEXD_FUZZ is on) to the `fuzz_targets`
# group, a CTest test labelled `fuzz` that replays its checked-in corpus once,
# and build-fuzz/fuzz/NAME.env, which tells scripts/fuzz where the corpus is.
function(vexd_fuzzer name)
  if(NOT VEXD_FUZZ)
    return()
  endif()
  cmake_parse_arguments(ARG "" "CORPUS" "SOURCES;LIBS;ENV;OPTIONS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  add_dependencies(fuzz_targets ${name})
  set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_CORPUS})
  add_test(NAME fuzz.${name}
    COMMAND ${CMAKE_COMMAND} -E env ${ARG_ENV}
      $<TARGET_FILE:${name}> -runs=0 ${ARG_OPTIONS} ${corpus})
  set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT 120)
  string(JOIN " " env_words ${ARG_ENV})
  string(JOIN " " option_words ${ARG_OPTIONS})
  file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/fuzz/${name}.env CONTENT
"corpus='${corpus}'
env=(${env_words})
options=(${option_words})
")
endfunction()
