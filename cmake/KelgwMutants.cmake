# The build that ./dev check mutants judges: the gateway and its runtime layer come from a changed copy of the sources,
# in which every small change can be switched on (tests/mutants/). Nothing of it is in any other build.

set(KELGW_MUTATED "" CACHE PATH "The changed copy of Sources/ and PlatformDependant/; empty: the sources themselves")

# kelgw_mutants(): for the copy's rooms and for the tests.
function(kelgw_mutants)
  if(NOT KELGW_MUTATED)
    return()
  endif()
  # What the switches make of the code is not held against it, and it is built more often than it runs.
  add_compile_definitions(KELGW_LEAK_SANITIZER _GLIBCXX_ASSERTIONS)
  add_compile_options(-w -Wno-narrowing -O0)
endfunction()

# kelgw_mutants_note(<test> <libs...>): the tests that see the gateway's own code judge the mutants.
function(kelgw_mutants_note name)
  if(NOT KELGW_MUTATED OR NOT ARGN MATCHES "(^|;)(gateway|runtime)(;|$)")
    return()
  endif()
  # What is not given back is noticed at the end of a test.
  target_link_options(${name} PRIVATE -fsanitize=leak)
  set_property(GLOBAL APPEND_STRING PROPERTY KELGW_MUTANT_TESTS "${name}\t$<TARGET_FILE:${name}>\n")
endfunction()

# kelgw_mutants_finish(): writes down which tests those are.
function(kelgw_mutants_finish)
  if(KELGW_MUTATED)
    add_library(mutants STATIC "${KELGW_MUTATED}/mutants/mutants.cpp")
    target_include_directories(mutants PUBLIC "${KELGW_MUTATED}/mutants")
    target_link_libraries(runtime PUBLIC mutants)
    get_property(tests GLOBAL PROPERTY KELGW_MUTANT_TESTS)
    file(GENERATE OUTPUT "${CMAKE_BINARY_DIR}/mutant-tests.txt" CONTENT "${tests}")
  endif()
endfunction()
