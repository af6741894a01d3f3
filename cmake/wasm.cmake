# WebAssembly by Debian's emscripten. SE_WASM_SIMD decides between a module for engines that know vectors of
# 128 bits (all current ones) and one for those that do not.
include(/usr/share/emscripten/cmake/Modules/Platform/Emscripten.cmake)
option(SE_WASM_SIMD "Use the vectors of WebAssembly" ON)
if(SE_WASM_SIMD)
  set(CMAKE_C_FLAGS_INIT -msimd128)
  set(CMAKE_CXX_FLAGS_INIT -msimd128)
endif()
set(SE_BUILD_STREAM ON CACHE BOOL "")
set(SE_HARDENING OFF CACHE BOOL "")  # the sandbox does it
