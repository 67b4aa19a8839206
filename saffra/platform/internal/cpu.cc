#include "saffra/platform/internal/cpu.h"

#include <atomic>
#include <cstdlib>

namespace saffra::cpu {

namespace {

std::atomic<bool>& baselineOnly() {
  static std::atomic<bool> off = [] {
    const char* value = std::getenv("SAFFRA_BASELINE_KERNELS");
    return value && *value && *value != '0';
  }();
  return off;
}

}  // namespace

#if SAFFRA_X86_DISPATCH
bool hasAvx2() {
  static const bool present = __builtin_cpu_supports("avx2");
  return present && !baselineOnly().load(std::memory_order_relaxed);
}
bool hasSsse3() {
  static const bool present = __builtin_cpu_supports("ssse3");
  return present && !baselineOnly().load(std::memory_order_relaxed);
}
#else
bool hasAvx2() {
  return false;
}
bool hasSsse3() {
  return false;
}
#endif

void useBaselineKernels(bool baseline) {
  baselineOnly().store(baseline, std::memory_order_relaxed);
}

}  // namespace saffra::cpu
