# What makes a memory error in our code end the process instead of serving an attacker. Debian's compiler has some of
# it on by itself; naming all of it keeps other toolchains alike, and tests/packaging/hardening.sh checks the result.
# Packagers whose distribution brings flags of its own configure with -DTARN_HARDEN=OFF.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)
include(CheckPIESupported)

# A sanitizer has checks of its own, which these ones would shadow; coverage is built without optimisation.
set(TARN_HARDENED OFF)
if(TARN_HARDEN AND NOT TARN_SANITIZE AND NOT TARN_COVERAGE AND NOT TARN_FUZZ)
  set(TARN_HARDENED ON)
endif()
if(NOT TARN_HARDENED)
  return()
endif()

set(TARN_HARDEN_COMPILE_OPTIONS "")
foreach(flag -fstack-protector-strong -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER TARN_HAS${flag} has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    list(APPEND TARN_HARDEN_COMPILE_OPTIONS ${flag})
  endif()
endforeach()
# Other processors have it not, and some compilers accept it for them all the same.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i.86)$")
  check_cxx_compiler_flag(-fcf-protection=full TARN_HAS_CF_PROTECTION)
  if(TARN_HAS_CF_PROTECTION)
    list(APPEND TARN_HARDEN_COMPILE_OPTIONS -fcf-protection=full)
  endif()
endif()

# Level 3 also bounds what has a size only at run time, and takes GCC 12 and glibc 2.34. The C library's headers demand
# an optimising compiler.
set(CMAKE_REQUIRED_FLAGS "-O1 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
check_cxx_source_compiles("#include <features.h>
#if __USE_FORTIFY_LEVEL < 3
#error
#endif
int main() {}" TARN_HAS_FORTIFY_3)
unset(CMAKE_REQUIRED_FLAGS)
set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
set(level 2)
if(TARN_HAS_FORTIFY_3)
  set(level 3)
endif()
list(APPEND TARN_HARDEN_COMPILE_OPTIONS $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=${level}>)
# Checks indices and empty containers in the standard library's inline functions; the ABI stays the same.
set(TARN_HARDEN_COMPILE_DEFINITIONS _GLIBCXX_ASSERTIONS)

set(TARN_HARDEN_LINK_OPTIONS "")
foreach(flag relro now noexecstack)
  check_linker_flag(CXX LINKER:-z,${flag} TARN_HAS_LINKER_${flag})
  if(TARN_HAS_LINKER_${flag})
    list(APPEND TARN_HARDEN_LINK_OPTIONS LINKER:-z,${flag})
  endif()
endforeach()

# With it, POSITION_INDEPENDENT_CODE of a program is followed when it is linked, too.
check_pie_supported()

function(tarn_harden target)
  target_compile_options(${target} PRIVATE ${TARN_HARDEN_COMPILE_OPTIONS})
  target_compile_definitions(${target} PRIVATE ${TARN_HARDEN_COMPILE_DEFINITIONS})
  target_link_options(${target} PRIVATE ${TARN_HARDEN_LINK_OPTIONS})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL EXECUTABLE)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  endif()
endfunction()
