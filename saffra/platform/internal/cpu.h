// What the processor the program runs on can do, for kernels that have a faster version for
// newer x86-64 processors. Internal: not part of the public API.
//
// Such kernels are compiled with a per-function target attribute (SAFFRA_TARGET_AVX2) and
// chosen at run time, so one build runs on any x86-64 processor and uses AVX2 where it is
// present. SAFFRA_X86_DISPATCH is 0 on other processors and compilers, where only the
// portable versions exist.
#pragma once

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define SAFFRA_X86_DISPATCH 1
#define SAFFRA_TARGET_AVX2 __attribute__((target("avx2")))
#define SAFFRA_TARGET_SSSE3 __attribute__((target("ssse3")))
#else
#define SAFFRA_X86_DISPATCH 0
#endif

namespace saffra::cpu {

/// True when the processor runs AVX2 instructions and the kernels for it are on.
bool hasAvx2();
/// True when the processor runs SSSE3 instructions and the kernels for it are on.
bool hasSsse3();

/// Turns the kernels for newer processors off (true) or back on (false), so tests can hold
/// both versions to the same results. The SAFFRA_BASELINE_KERNELS variable, when set to
/// anything but 0, turns them off from the start (to measure one against the other).
void useBaselineKernels(bool baseline);

}  // namespace saffra::cpu
