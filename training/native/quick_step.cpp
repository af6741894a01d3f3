#include "quick_step.h"

#include <string_view>

int se_training_has_path(const char* suffix) {
#ifdef __x86_64__
  const std::string_view path = suffix;
  if (path == "avx512")
    return __builtin_cpu_supports("avx512bf16") && __builtin_cpu_supports("avx512vnni") &&
           __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
  if (path == "avx2") return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
#endif
  (void)suffix;
  return 0;
}
