// The choice of a kernel by what the processor can do.
#include "text_kernel.h"

namespace {

struct Kernels {
  const TextKernel* fastest_first[3];
  size_t count = 0;

  Kernels() {
#if TESSERA_X86_KERNELS
    if (runsAvx512()) add(kAvx512Kernel);
    if (runsAvx2()) add(kAvx2Kernel);
#endif
    add(kPortableKernel);
  }

  void add(const TextKernel& kernel) { fastest_first[count++] = &kernel; }

#if TESSERA_X86_KERNELS
  // These ask for the operating system's support of the registers, too.
  static bool runsAvx2() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt");
  }
  static bool runsAvx512() {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") &&
           __builtin_cpu_supports("avx512vnni") && __builtin_cpu_supports("bmi2") &&
           __builtin_cpu_supports("popcnt");
  }
#endif
};

}  // namespace

std::span<const TextKernel* const> supportedKernels() {
  static const Kernels kernels;
  return {kernels.fastest_first, kernels.count};
}
