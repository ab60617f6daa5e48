#include "PolyphaseResampler.h"

#include <algorithm>

#include "ResampleKernels.h"

namespace zub::audio {

long GreatestCommonDivisor(long a, long b)
{
    while (b != 0) {
        const long r = a % b;
        a = b;
        b = r;
    }
    return a;
}

int ResampleMode(double ratio, int quality)
{
    const int q = 2 - quality;
    int mode;
    if (ratio < 1.0)
        mode = 2 * q + 1;
    else if (ratio < 2.0)
        mode = 2 * q;
    else if (ratio < 4.0)
        mode = 2 * q - 1;
    else if (ratio < 8.0)
        mode = 2 * q - 2;
    else if (ratio < 12.0)
        mode = 2 * q - 3;
    else
        mode = 2 * q - 4;
    return std::clamp(mode, 0, 4);
}

bool PolyphaseResampler::Setup(long srcRate, long dstRate, int quality)
{
    phase_.clear();
    offset_.clear();
    step_.clear();
    if (srcRate <= 0 || dstRate <= 0) {
        error_ = "sample rates must be positive";
        return false;
    }
    srcRate_ = srcRate;
    dstRate_ = dstRate;
    mode_ = ResampleMode(static_cast<double>(srcRate) / static_cast<double>(dstRate), quality);

    if (srcRate == dstRate) {
        kind_ = Kind::PassThrough;
        L_ = M_ = 1;
        return true;
    }
    if (srcRate % dstRate == 0) {
        kind_ = Kind::WholeStep;
        L_ = srcRate / dstRate;
        M_ = 1;
        return true;
    }

    kind_ = Kind::Tables;
    const long g = GreatestCommonDivisor(srcRate, dstRate);
    L_ = srcRate / g;
    M_ = dstRate / g;
    phase_.resize(static_cast<std::size_t>(M_));
    offset_.resize(static_cast<std::size_t>(M_));
    step_.resize(static_cast<std::size_t>(M_));

    // Positions come from repeated addition rather than i * 64 * L / M so that they carry
    // the same accumulated rounding as the tables this format was defined with.
    const double increment = 64.0 * static_cast<double>(L_) / static_cast<double>(M_);
    double accumulated = 0.0;
    for (long i = 0; i < M_; ++i) {
        const auto position = static_cast<std::int64_t>(accumulated + 0.5);
        phase_[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(position & 63);
        offset_[static_cast<std::size_t>(i)] = static_cast<std::int32_t>(position >> 6);
        if (i + 1 < M_) accumulated += increment;
    }
    for (long i = 0; i + 1 < M_; ++i)
        step_[static_cast<std::size_t>(i)] = offset_[static_cast<std::size_t>(i + 1)] - offset_[static_cast<std::size_t>(i)];
    // The cycle closes on a whole source sample, so cycles chain without drift.
    step_[static_cast<std::size_t>(M_ - 1)] = static_cast<std::int32_t>(L_ - offset_[static_cast<std::size_t>(M_ - 1)]);
    return true;
}

int PolyphaseResampler::Taps() const
{
    return (kind_ == Kind::Tables && mode_ > 0) ? KernelTaps(mode_) : 1;
}

void PolyphaseResampler::PositionOf(std::int64_t n, std::int64_t& position, int& phase) const
{
    switch (kind_) {
    case Kind::PassThrough:
        position = n;
        phase = 0;
        return;
    case Kind::WholeStep:
        position = n * L_;
        phase = 0;
        return;
    case Kind::Tables: {
        const std::int64_t cycle = n / M_;
        const auto i = static_cast<std::size_t>(n % M_);
        position = cycle * L_ + offset_[i];
        phase = phase_[i];
        return;
    }
    }
}

std::int64_t PolyphaseResampler::OutputCount(std::int64_t srcFrames) const
{
    if (srcFrames <= 0) return 0;
    // Positions never decrease, so the count is the first n whose position reaches the end.
    std::int64_t lo = 0;
    std::int64_t hi = srcFrames * M_ / L_ + M_ + 1;
    while (lo < hi) {
        const std::int64_t mid = lo + (hi - lo) / 2;
        std::int64_t pos;
        int phase;
        PositionOf(mid, pos, phase);
        if (pos < srcFrames)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

void PolyphaseResampler::SourceSpan(std::int64_t first, std::size_t count, std::int64_t& begin, std::int64_t& end) const
{
    std::int64_t p0, p1;
    int phase;
    PositionOf(first, p0, phase);
    PositionOf(first + static_cast<std::int64_t>(count == 0 ? 0 : count - 1), p1, phase);
    begin = p0 - kStageMargin;
    end = p1 + kStageMargin + 1;
}

void PolyphaseResampler::Run(std::int64_t first, std::size_t count, const std::int16_t* staged, std::int64_t stageStart,
                             std::int16_t* out) const
{
    if (kind_ == Kind::PassThrough) {
        std::copy_n(staged + (first - stageStart), count, out);
        return;
    }
    if (kind_ == Kind::WholeStep) {
        const std::int16_t* s = staged + (first * L_ - stageStart);
        for (std::size_t k = 0; k < count; ++k) out[k] = s[static_cast<std::int64_t>(k) * L_];
        return;
    }

    const int taps = mode_ > 0 ? KernelTaps(mode_) : 0;
    const int back = taps / 2 - 1;  // taps reach from position - back to position + taps / 2
    auto i = static_cast<std::size_t>(first % M_);
    std::int64_t at = (first / M_) * L_ + offset_[i] - stageStart;
    const auto cycle = static_cast<std::size_t>(M_);
    for (std::size_t k = 0; k < count; ++k) {
        const int phase = phase_[i];
        if (phase == 0 || taps == 0) {
            out[k] = staged[at];
        } else {
            const std::int32_t* c = KernelRow(taps, phase);
            const std::int16_t* s = staged + (at - back);
            // A 32-bit accumulator, wrapping as the format's reference arithmetic does; it
            // only overflows on full-scale input alternating in step with the kernel's signs.
            std::uint32_t acc = 0;
            for (int t = 0; t < taps; ++t)
                acc += static_cast<std::uint32_t>(static_cast<std::int32_t>(s[t]) * c[t]);
            const std::int32_t v = static_cast<std::int32_t>(acc) >> 15;
            out[k] = static_cast<std::int16_t>(std::clamp<std::int32_t>(v, -32768, 32767));
        }
        at += step_[i];
        if (++i == cycle) i = 0;
    }
}

}  // namespace zub::audio
