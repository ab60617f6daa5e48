#include "convert/audio/PolyphaseResampler.h"

#include <algorithm>

#include "convert/audio/ResampleKernels.h"
#include "convert/audio/ResampleSimd.h"

namespace zub::audio {

const char* KernelPathName(KernelPath path)
{
    switch (path) {
    case KernelPath::Scalar: return "scalar";
    case KernelPath::Sse2: return "SSE2";
    case KernelPath::Avx2: return "AVX2";
    }
    return "?";
}

bool PolyphaseResampler::PathAvailable(KernelPath path)
{
    switch (path) {
    case KernelPath::Scalar: return true;
    case KernelPath::Sse2: return simd::HaveSse2();
    case KernelPath::Avx2: return simd::HaveAvx2();
    }
    return false;
}

KernelPath PolyphaseResampler::BestPath()
{
    static const KernelPath best = PathAvailable(KernelPath::Avx2)   ? KernelPath::Avx2
                                   : PathAvailable(KernelPath::Sse2) ? KernelPath::Sse2
                                                                     : KernelPath::Scalar;
    return best;
}

bool PolyphaseResampler::SetPath(KernelPath path)
{
    if (!PathAvailable(path)) return false;
    path_ = path;
    return true;
}

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
    rows16_.clear();
    rowAt_.clear();
    copy_.clear();
    vectorRows_ = false;
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
    if (mode_ > 0) MakeVectorRows();
    return true;
}

void PolyphaseResampler::MakeVectorRows()
{
    // 16-bit multiplies take the coefficients; the 4- and 8-tap kernels' centre taps go up to
    // about 33400, so their rows are A (clamped to 16 bits) then B (the rest), and the samples
    // are multiplied by both. The products add up modulo 2^32 to the same accumulator.
    const int taps = KernelTaps(mode_);
    const bool split = taps <= 8;
    const int width = split ? 2 * taps : taps;
    rows16_.assign(static_cast<std::size_t>(width) * kKernelPhases, 0);
    for (int phase = 1; phase < kKernelPhases; ++phase) {
        const std::int32_t* c = KernelRow(taps, phase);
        std::int16_t* row = rows16_.data() + static_cast<std::size_t>(width) * static_cast<std::size_t>(phase);
        for (int j = 0; j < taps; ++j) {
            const std::int32_t a = std::clamp<std::int32_t>(c[j], -32768, 32767);
            const std::int32_t b = c[j] - a;
            row[j] = static_cast<std::int16_t>(a);
            if (split) {
                if (b < -32768 || b > 32767) return;  // no 16-bit form: the scalar loop runs
                row[taps + j] = static_cast<std::int16_t>(b);
            } else if (b != 0) {
                return;
            }
        }
    }
    rowAt_.resize(static_cast<std::size_t>(M_));
    copy_.resize(static_cast<std::size_t>(M_));
    for (std::size_t i = 0; i < static_cast<std::size_t>(M_); ++i) {
        rowAt_[i] = static_cast<std::uint32_t>(width) * phase_[i];
        copy_[i] = phase_[i] == 0 ? 1 : 0;
    }
    vectorRows_ = true;
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

void PolyphaseResampler::FilterScalar(std::size_t& i, std::int64_t& at, std::size_t count, const std::int16_t* staged,
                                      std::int16_t* out, std::size_t stride) const
{
    const int taps = mode_ > 0 ? KernelTaps(mode_) : 0;
    const int back = taps / 2 - 1;  // taps reach from position - back to position + taps / 2
    const auto cycle = static_cast<std::size_t>(M_);
    for (std::size_t k = 0; k < count; ++k) {
        const int phase = phase_[i];
        std::int16_t v;
        if (phase == 0 || taps == 0) {
            v = staged[at];
        } else {
            const std::int32_t* c = KernelRow(taps, phase);
            const std::int16_t* s = staged + (at - back);
            // A 32-bit accumulator, wrapping as the format's reference arithmetic does; it
            // only overflows on full-scale input alternating in step with the kernel's signs.
            std::uint32_t acc = 0;
            for (int t = 0; t < taps; ++t)
                acc += static_cast<std::uint32_t>(static_cast<std::int32_t>(s[t]) * c[t]);
            const std::int32_t r = static_cast<std::int32_t>(acc) >> 15;
            v = static_cast<std::int16_t>(std::clamp<std::int32_t>(r, -32768, 32767));
        }
        out[k * stride] = v;
        at += step_[i];
        if (++i == cycle) i = 0;
    }
}

void PolyphaseResampler::Filter(std::size_t& i, std::int64_t& at, std::size_t count, const std::int16_t* const* staged,
                                int channels, std::int16_t* out) const
{
    if (vectorRows_ && path_ != KernelPath::Scalar) {
        simd::CycleTables t;
        t.rows = rows16_.data();
        t.rowAt = rowAt_.data();
        t.copy = copy_.data();
        t.step = step_.data();
        t.cycle = static_cast<std::size_t>(M_);
        if (path_ == KernelPath::Avx2)
            simd::RunAvx2(KernelTaps(mode_), channels, t, i, at, count, staged, out);
        else
            simd::RunSse2(KernelTaps(mode_), channels, t, i, at, count, staged, out);
        return;
    }
    for (int c = 0; c < channels; ++c) {
        std::size_t ci = i;
        std::int64_t cat = at;
        FilterScalar(ci, cat, count, staged[c], out + c, static_cast<std::size_t>(channels));
        if (c == channels - 1) {
            i = ci;
            at = cat;
        }
    }
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
    auto i = static_cast<std::size_t>(first % M_);
    std::int64_t at = (first / M_) * L_ + offset_[i] - stageStart;
    const std::int16_t* channels[1] = {staged};
    Filter(i, at, count, channels, 1, out);
}

void PolyphaseResampler::RunStereo(std::int64_t first, std::size_t count, const std::int16_t* left,
                                   const std::int16_t* right, std::int64_t stageStart, std::int16_t* out) const
{
    if (kind_ != Kind::Tables) {
        const std::int64_t stride = kind_ == Kind::WholeStep ? L_ : 1;
        const std::int16_t* l = left + (first * stride - stageStart);
        const std::int16_t* r = right + (first * stride - stageStart);
        if (stride == 1) {
            simd::Interleave(l, r, count, out);
            return;
        }
        for (std::size_t k = 0; k < count; ++k) {
            out[2 * k] = l[static_cast<std::int64_t>(k) * stride];
            out[2 * k + 1] = r[static_cast<std::int64_t>(k) * stride];
        }
        return;
    }
    auto i = static_cast<std::size_t>(first % M_);
    std::int64_t at = (first / M_) * L_ + offset_[i] - stageStart;
    const std::int16_t* channels[2] = {left, right};
    Filter(i, at, count, channels, 2, out);
}

}  // namespace zub::audio
