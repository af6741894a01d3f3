# Flags shared by every target of this project. Floating point is deliberate: no contraction and no
# fast-math, so that the same input gives the same bits at every optimisation level and on every CPU.
# Two flags that change no result: nothing here reads errno after a mathematical function, and nothing
# looks at floating-point exceptions, so that selects need no branches.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
if(NOT EMSCRIPTEN)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported()
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O3 -DNDEBUG")

add_library(se_options INTERFACE)
target_compile_options(se_options INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -ffp-contract=off -fno-math-errno -fno-trapping-math
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility=hidden -fvisibility-inlines-hidden>)
if(SE_SANITIZE)
  target_compile_options(se_options INTERFACE
    -fsanitize=${SE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(se_options INTERFACE -fsanitize=${SE_SANITIZE})
endif()
# Against what a mistake could be used for. Nothing here changes a result; the sanitizers find more.
# Assertions of the C++ library are for the tool alone (tools/speech-enhance).
option(SE_HARDENING "Stack protector, checked C functions, read-only relocations" ON)
if(SE_HARDENING AND NOT SE_SANITIZE)
  include(CheckCXXCompilerFlag)
  include(CheckLinkerFlag)
  check_cxx_compiler_flag(-fstack-protector-strong SE_HAVE_STACK_PROTECTOR)
  if(SE_HAVE_STACK_PROTECTOR)
    target_compile_options(se_options INTERFACE -fstack-protector-strong)
  endif()
  # Some compilers define it themselves, some as 3; without optimisation it only warns.
  target_compile_options(se_options INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
  check_linker_flag(CXX -Wl,-z,relro,-z,now SE_HAVE_RELRO)
  if(SE_HAVE_RELRO)
    target_link_options(se_options INTERFACE -Wl,-z,relro,-z,now)
  endif()
endif()
if(SE_FUZZ)
  target_compile_options(se_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# GCC's vectoriser fuses the products of a complex multiplication (vfmaddsub on x86 with FMA, fcmla on
# AArch64 from v8.3 on) in spite of -ffp-contract=off. Where such instructions are there to be used,
# it stays off; source files with FMA flags of their own have to add this flag, too.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles("
    #if !defined(__FMA__) && !defined(__ARM_FEATURE_COMPLEX)
    #error no fused complex arithmetic
    #endif
    int main() { return 0; }" SE_FUSED_COMPLEX_ARITHMETIC)
  if(SE_FUSED_COMPLEX_ARITHMETIC)
    target_compile_options(se_options INTERFACE -fno-tree-vectorize)
  endif()
endif()
