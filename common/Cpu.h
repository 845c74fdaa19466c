// What the processor offers the Fast engine beyond the x86-64 baseline.
//
// The Fast coding spreads a value's 7-bit groups over bytes and gathers them
// back. BMI2's pdep and pext do either in one instruction where the portable
// code takes up to twelve; the engine's record coders are built twice, once
// for the baseline and once with BMI2 enabled (TRDCOMP_TARGET_BMI2), and a
// run of records picks one by UseBmi2(). Both produce the same bytes and read
// the same bytes: only the arithmetic between a load and a store differs.
//
// pext and pdep are microcoded on AMD's Zen 1 and Zen 2 (tens of cycles), so
// those take the baseline code. Builds that define TRDCOMP_NO_BMI2 (the
// sanitizer and fuzzing builds, or a packager's choice) have the baseline
// code only: there a coder instantiated for BMI2 computes as the portable
// one does.
#pragma once

#include <cstdint>

#include "Inline.h"

#if (defined(__x86_64__) || defined(_M_X64)) && defined(__GNUC__) && !defined(TRDCOMP_NO_BMI2)
#define TRDCOMP_HAVE_BMI2 1
#define TRDCOMP_TARGET_BMI2 [[gnu::target("bmi,bmi2"), gnu::noinline]]
#else
#define TRDCOMP_HAVE_BMI2 0
#define TRDCOMP_TARGET_BMI2 [[gnu::noinline]]
#endif

namespace trdcomp::detail {

#if TRDCOMP_HAVE_BMI2
namespace internal {
inline bool ProbeBmi2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("bmi2") && !__builtin_cpu_is("znver1") && !__builtin_cpu_is("znver2");
}
}  // namespace internal

// Whether the record coders built for BMI2 run here: a property of the
// processor, the same for every call of the process.
inline bool UseBmi2() {
    static const bool use = internal::ProbeBmi2();
    return use;
}

// The bits of v under mask m, packed to the low end (pext), and the low bits
// of v spread to the set bits of m (pdep). Inline assembly, so that they can
// sit in the portable helpers the BMI2 coders inline; only code that
// UseBmi2() chose reaches them.
TRDCOMP_FORCE_INLINE std::uint64_t Pext(std::uint64_t v, std::uint64_t m) {
    std::uint64_t r;
    __asm__("pextq %2, %1, %0" : "=r"(r) : "r"(v), "rm"(m));
    return r;
}
TRDCOMP_FORCE_INLINE std::uint64_t Pdep(std::uint64_t v, std::uint64_t m) {
    std::uint64_t r;
    __asm__("pdepq %2, %1, %0" : "=r"(r) : "r"(v), "rm"(m));
    return r;
}
#else
inline bool UseBmi2() { return false; }
#endif

}  // namespace trdcomp::detail
