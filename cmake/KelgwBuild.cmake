# Build rules that every room shares: language, warnings, sanitizers, tests.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

set(KELGW_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined or thread")
option(KELGW_WERROR "Treat warnings as errors" ON)
option(KELGW_TESTS "Build the tests" ON)
option(KELGW_BENCH "Build the benchmarks" ON)

find_program(KELGW_CCACHE ccache)
if(KELGW_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${KELGW_CCACHE}")
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

# Assertions stay active in every build type: no NDEBUG anywhere.
foreach(type IN ITEMS RELEASE RELWITHDEBINFO MINSIZEREL)
  string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_${type} "${CMAKE_CXX_FLAGS_${type}}")
endforeach()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 sees overlapping copies in string concatenation where there are none (GCC bug 105651).
  add_compile_options(-Wno-restrict)
endif()
if(KELGW_WERROR)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # The lock annotations of the code are promises; clang holds them.
  add_compile_options(-Wthread-safety -Werror=thread-safety)
endif()
if(KELGW_SANITIZE)
  add_compile_options(-fsanitize=${KELGW_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KELGW_SANITIZE})
endif()

if(KELGW_TESTS)
  find_package(GTest REQUIRED)
endif()

# kelgw_add_test(<name> SOURCES <files...> [LIBS <targets...>] [LABELS <labels...>] [TIMEOUT <seconds>])
# One GoogleTest executable, one ctest entry, judged by its closing line as well as by its exit code: a test that
# ends the process does not pass. The time limit only ends a hung test.
function(kelgw_add_test name)
  if(NOT KELGW_TESTS)
    return()
  endif()
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBS;LABELS;INCLUDES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gmock_main)
  if(arg_INCLUDES)
    target_include_directories(${name} PRIVATE ${arg_INCLUDES})
  endif()
  kelgw_mutants_note(${name} ${arg_LIBS})
  add_test(NAME ${name} COMMAND /usr/bin/python3 -B "${PROJECT_SOURCE_DIR}/tests/support/gtest_run.py" $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT})
  if(arg_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}")
  endif()
endfunction()
