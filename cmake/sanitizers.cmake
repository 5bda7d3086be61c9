# Instrumented builds, each in a build directory of its own:
#
#   DRAVNIK_SANITIZE=ON  every target with AddressSanitizer (leaks included)
#                        and UndefinedBehaviorSanitizer, for running the unit
#                        tests and the black-box suite (g++ or clang++);
#   DRAVNIK_FUZZ=ON      the same sanitizers plus libFuzzer's coverage
#                        instrumentation, and the fuzz targets of fuzz/
#                        (clang++ only: g++ has no libFuzzer).
#
# Undefined behaviour is made fatal: a report that lets the program go on
# would pass unnoticed in a test that only looks at the exit status.
option(DRAVNIK_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(DRAVNIK_FUZZ "Build the libFuzzer targets of fuzz/ (clang only)" OFF)

set(dravnik_sanitizer_flags
  -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)

if(DRAVNIK_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "DRAVNIK_FUZZ needs clang++ (-DCMAKE_CXX_COMPILER=clang++)")
  endif()
  add_compile_options(${dravnik_sanitizer_flags} -fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=address,undefined)
elseif(DRAVNIK_SANITIZE)
  add_compile_options(${dravnik_sanitizer_flags})
  add_link_options(-fsanitize=address,undefined)
  # The sanitizers' run-time settings are compiled into every program:
  # the sandbox gives the programs it runs an environment of PATH alone,
  # so ASAN_OPTIONS and UBSAN_OPTIONS could not reach them there.
  add_library(dravnik_sanitizer_defaults OBJECT
    ${CMAKE_CURRENT_LIST_DIR}/sanitizer_defaults.cc)
  link_libraries(
    "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:dravnik_sanitizer_defaults>")
endif()
