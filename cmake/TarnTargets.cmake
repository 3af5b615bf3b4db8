# What every target of this project gets. Those who embed us get none of it.
include(TarnHarden)

find_program(TARN_CCACHE ccache)
if(TARN_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${TARN_CCACHE})
endif()

# Some 32-bit processors have no instruction for it, and GCC's library has the function.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <atomic>
                           #include <cstdint>
                           std::atomic<std::uint64_t> number{0};
                           int main() { return static_cast<int>(number.fetch_add(1)); }" TARN_HAS_64_BIT_ATOMICS)

# Options for our own code; generated code is compiled without the warnings.
function(tarn_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  tarn_instrument(${target})
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    # Files of more than 2 GiB, and times after January 2038. No public header has a type that this changes.
    target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  endif()
  if(NOT TARN_HAS_64_BIT_ATOMICS)
    target_link_libraries(${target} PRIVATE atomic)
  endif()
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                           -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
                                           -Wformat=2)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 sees overlapping copies in every string concatenation (its bug 105651), endless ones, and ones beyond
    # the end.
    target_compile_options(${target} PRIVATE -Wno-restrict -Wno-stringop-overflow -Wno-array-bounds)
  endif()
endfunction()

# Hardening, sanitizers, fuzzing and coverage, for generated code too.
function(tarn_instrument target)
  # Log lines and assertions name files as they stand in the repository, wherever that is built.
  target_compile_options(${target} PRIVATE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  if(TARN_HARDENED)
    tarn_harden(${target})
  endif()
  if(TARN_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    if(TARN_SANITIZE MATCHES undefined)
      # Its check of vptr opens a pipe, which fails in the tests that run out of file descriptors.
      target_compile_options(${target} PRIVATE -fno-sanitize=vptr)
    endif()
    target_link_options(${target} PRIVATE -fsanitize=${TARN_SANITIZE})
  endif()
  if(TARN_FUZZ)
    # Counts what an input reaches, for libFuzzer, which only the programs in fuzz/ link.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(TARN_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

# A shared library of this project: its own soname, an alias, and its exports from TARGET.map beside its CMakeLists.txt.
function(tarn_shared_library target)
  add_library(${target} SHARED)
  add_library(${target}::${target} ALIAS ${target})
  tarn_compile_options(${target})
  set(map ${CMAKE_CURRENT_SOURCE_DIR}/${target}.map)
  # The library calls its own functions, whatever an application calls its own. Data stays shared with applications,
  # as their code may copy it: inline code of generated headers refers to it.
  target_link_options(${target} PRIVATE LINKER:--version-script=${map} LINKER:-Bsymbolic-functions)
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0 LINK_DEPENDS ${map})
endfunction()

# Where an installed target finds our libraries, relative to itself, so that an installed tree can be moved.
function(tarn_run_path target path)
  if(TARN_INSTALL_RPATH)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH ${path})
  endif()
endfunction()

# A program on the public headers, built with what any application gets.
function(tarn_program name)
  add_executable(${name} ${ARGN})
  tarn_compile_options(${name})
  target_link_libraries(${name} PRIVATE tarn::tarn)
endfunction()

# Sets `result` to what a script runs as the program of `target`: the emulator with it, if this machine can't run it.
function(tarn_runnable result target)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${result} $<TARGET_FILE:${target}> PARENT_SCOPE)
    return()
  endif()
  set(runner ${PROJECT_BINARY_DIR}/run/${target})
  set(${result} ${runner} PARENT_SCOPE)
  get_property(runners GLOBAL PROPERTY TARN_RUNNERS)
  if(target IN_LIST runners)
    return()
  endif()
  set_property(GLOBAL APPEND PROPERTY TARN_RUNNERS ${target})
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  file(GENERATE OUTPUT ${runner} CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${target}> \"$@\"\n"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endfunction()

# One test program of GoogleTest cases: tarn_test(NAME name SOURCES ... LIBRARIES ... [TIMEOUT seconds]).
function(tarn_test)
  cmake_parse_arguments(arg "" "NAME;TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${arg_NAME} ${arg_SOURCES})
  tarn_compile_options(${arg_NAME})
  target_include_directories(${arg_NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${arg_NAME} PRIVATE ${arg_LIBRARIES} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${arg_NAME} DISCOVERY_MODE PRE_TEST
                       PROPERTIES TIMEOUT ${arg_TIMEOUT} ENVIRONMENT "${TARN_TEST_ENVIRONMENT}")
endfunction()
