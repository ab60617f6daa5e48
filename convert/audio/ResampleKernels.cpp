// The formula behind the resampler's coefficient tables.
//
// Every row is a sinc interpolator shaped by a window, evaluated at the taps' distances from
// the output position and scaled so the row's DC gain is exactly one:
//
//   d_j   = j - (N/2 - 1) - k/64            distance of tap j (0 .. N-1) at phase k
//   h(d)  = sinc(d) * P(u),  u = (d / (N/2))^2,  P(u) = sum_m terms[m] * u^m,  P(0) = 1
//   row_j = round(32768 * h(d_j) / sum_i h(d_i))
//
// The window is an even polynomial in d over the kernel's span rather than a textbook window
// because the tables this format was defined with are not one: their short kernels boost the
// taps around +-1 sample above the sinc (the 4-tap window rises to about 1.67 there) and the
// long ones fall off close to a Kaiser window. The polynomial terms below are least-squares fits
// to the rows that format publishes for each kernel (phases 1, 32 and 63 of the 4- and 8-tap
// kernels, phase 32 of the 16- and 32-tap ones), solved linearly: with the row sum s,
// h(d_j) - t_j * s = 0 is linear in the terms. Largest deviations from those rows, in Q15
// units: 16 and 32 taps none, 8 taps 13, 4 taps 56.
//
// The published 4- and 8-tap rows at phases 1 and 63 are not mirror images of each other (the
// outermost tap differs: -175 against -78, and -37 against -16), which no kernel that is even in
// d can give; an even kernel meets them halfway, and 56 and 13 are exactly half those gaps at
// the centre tap. Keeping the kernels even keeps the interpolation free of a phase-dependent
// delay, which matters more than the last few units on two table rows.
#include "ResampleKernels.h"

#include <cmath>
#include <numbers>

namespace zub::audio {

namespace {

// Terms of P for each kernel length; regenerate the tables (tools/zubresample) after a change.
const KernelShape kShapes[4] = {
    {4, 3, {1.0, 4.6764093618449145, -9.107754939384828, 3.889470866292641}},
    {8, 6,
     {1.0, 2.748550014941352, -42.185052898462935, 171.8827802354801, -310.81631135145625, 261.6742704123114,
      -84.13910501389469}},
    {16, 5,
     {1.0, -2.123328024751264, 1.8237859190276415, -0.7774915677542812, -2.8833212016026527e-05,
      0.16065107889129054}},
    {32, 6,
     {1.0, -4.596515783995864, 9.51012908701394, -11.692059810078252, 9.228281134118445, -4.4382743932646855,
      0.990285811307107}},
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
        double p = 0.0;
        for (int m = shape.degree; m >= 0; --m) p = p * u + shape.terms[m];
        h[j] = Sinc(d) * p;
        sum += h[j];
    }
    for (int j = 0; j < n; ++j) out[j] = static_cast<std::int32_t>(std::lround(32768.0 * h[j] / sum));
}

}  // namespace zub::audio
