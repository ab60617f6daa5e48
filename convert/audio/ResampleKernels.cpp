// The formula behind the resampler's coefficient tables.
//
// Every row is a sinc interpolator shaped by a window, evaluated at the taps' distances from
// the output position and scaled so the row's DC gain is exactly one:
//
//   d_j   = j - (N/2 - 1) - k/64            distance of tap j (0 .. N-1) at phase k
//   W     = N/2,  u = (d / W)^2
//   h(d)  = sinc(d) * E(u)  +  sinc(d) * (d / W) * cos(pi d) * O(u)
//   row_j = round(32768 * h(d_j) / sum_i h(d_i))
//
// E is an even polynomial window over the kernel's span (E(0) = 1). It is not a textbook
// window because the tables this format was defined with do not use one: their short kernels
// lift the taps around +-1 sample above the sinc (the 4-tap window rises to about 1.67 there,
// which gives those kernels a treble lift), while the long ones fall off much like a Kaiser
// window.
//
// The second term is odd in d. sinc(d) * d * cos(pi d) is sin(2 pi d) / (2 pi): zero at every
// whole and half sample, so it keeps the kernel interpolating (phase 0 copies) and leaves the
// half-way rows alone. It is there because the published 4- and 8-tap rows are not mirror
// images: phase 63 is not phase 1 reversed (the outer taps are -78 against -175 and -16
// against -37), which no even kernel can give; an even kernel misses those rows by half the gap
// (56 and 13 units). The 16- and 32-tap kernels have no such row to follow and stay even.
//
// The coefficients are least-squares fits to the rows that format publishes (phases 1, 32 and
// 63 of the 4- and 8-tap kernels, phase 32 of the 16- and 32-tap ones), solved linearly: with
// the row sum s, h(d_j) - t_j * s = 0 is linear in the coefficients. Every published row is
// reproduced exactly after rounding.
#include "convert/audio/ResampleKernels.h"

#include <cmath>
#include <numbers>

namespace zub::audio {

namespace {

// Regenerate the tables (tools/zubresample) after changing any of these.
const KernelShape kShapes[4] = {
    {4, 3, {1.0, 4.676224202938084, -9.106377587776478, 3.887564517420551}, 2, {2, 6},
     {0.2350513557041538, -0.0434136333083177}},
    {8, 7,
     {1.0, 2.9217755063628985, -47.21521063398962, 220.84342038031144, -511.4204114135436, 652.4007960981122,
      -442.24553171017527, 123.92961658525702},
     2, {2, 8}, {0.018499304410428654, 0.06802043095266258}},
    {16, 5,
     {1.0, -2.123328024751264, 1.8237859190276415, -0.7774915677542812, -2.8833212016026527e-05,
      0.16065107889129054},
     0, {}, {}},
    {32, 6,
     {1.0, -4.596515783995864, 9.51012908701394, -11.692059810078252, 9.228281134118445, -4.4382743932646855,
      0.990285811307107},
     0, {}, {}},
};

double Sinc(double x)
{
    if (x == 0.0) return 1.0;
    const double px = std::numbers::pi * x;
    return std::sin(px) / px;
}

}  // namespace

const KernelShape& ShapeFor(int taps)
{
    switch (taps) {
    case 4: return kShapes[0];
    case 8: return kShapes[1];
    case 16: return kShapes[2];
    default: return kShapes[3];
    }
}

void KernelFormulaRow(const KernelShape& shape, int phase, std::int32_t* out)
{
    const int n = shape.taps;
    const double half = n / 2.0;
    const double x = phase / 64.0;
    double h[32];
    double sum = 0.0;
    for (int j = 0; j < n; ++j) {
        const double d = j - (n / 2 - 1) - x;
        const double u = (d / half) * (d / half);
        double e = 0.0;
        for (int m = shape.evenDegree; m >= 0; --m) e = e * u + shape.even[m];
        double o = 0.0;
        for (int i = 0; i < shape.oddCount; ++i) o += shape.odd[i] * std::pow(u, shape.oddPower[i]);
        const double s = Sinc(d);
        h[j] = s * e + s * (d / half) * std::cos(std::numbers::pi * d) * o;
        sum += h[j];
    }
    for (int j = 0; j < n; ++j) out[j] = static_cast<std::int32_t>(std::lround(32768.0 * h[j] / sum));
}

}  // namespace zub::audio
