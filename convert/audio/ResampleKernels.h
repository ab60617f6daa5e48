// The resampler's four interpolation kernels (4, 8, 16 and 32 taps) at the 63 phases k/64,
// k = 1 .. 63, in Q15. The tables themselves are generated constants
// (ResampleCoefficients.cpp, written by tools/zubresample from KernelFormulaRow below);
// the formula stays in the library so the tables can be checked against it.
#pragma once

#include <cstdint>

namespace zub::audio {

inline constexpr int kKernelPhases = 64;  // rows exist for phases 1 .. 63; phase 0 copies

// Taps of the kernel a resampling mode uses: 1 -> 4, 2 -> 8, 3 -> 16, 4 -> 32.
constexpr int KernelTaps(int mode) { return 4 << (mode - 1); }

// Row of the generated table: taps coefficients for phase 1 .. 63. The first tap applies to
// the source sample taps/2 - 1 before the position.
const std::int32_t* KernelRow(int taps, int phase);

// How a kernel's rows are computed (see ResampleKernels.cpp for the reasoning):
//   h(d) = sinc(d) * E(u) + sinc(d) * (d / W) * cos(pi d) * O(u),  W = taps / 2,  u = (d / W)^2,
//   E(u) = sum even[m] * u^m,  O(u) = sum odd[i] * u^oddPower[i],
// each row scaled to a DC gain of exactly 32768 and rounded tap by tap.
struct KernelShape {
    int taps = 0;
    int evenDegree = 0;
    double even[8] = {};
    int oddCount = 0;
    int oddPower[2] = {};
    double odd[2] = {};
};
const KernelShape& ShapeFor(int taps);

// Evaluates the formula for one row (phase 1 .. 63) into out[0 .. taps).
void KernelFormulaRow(const KernelShape& shape, int phase, std::int32_t* out);

}  // namespace zub::audio
