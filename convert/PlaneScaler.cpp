#include "convert/PlaneScaler.h"

#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace zub {

namespace {

// The vertical pass keeps each sample as value << 6: room for the cubic's overshoot both ways
// in 16 bits, and the horizontal pass's sums of such products stay inside 32 bits.
constexpr int kVerticalShift = 8;                                                 // 8 bits in, 14-bit weights
constexpr int kHorizontalShift = 2 * PlaneScaler::kWeightBits - kVerticalShift;   // back to 8 bits
constexpr int kVectorBlock = 16;                                                  // samples per vector load

std::atomic<PlaneScaler::Code> codeLimit{PlaneScaler::Code::Best};

bool CpuHasAvx2()
{
    static const bool avx2 = __builtin_cpu_supports("avx2");
    return avx2;
}

// VPDPWSSD on 256-bit registers: a multiply-add and the add of its result in one instruction.
bool CpuHasFusedMultiplyAdd()
{
    static const bool vnni = CpuHasAvx2() && __builtin_cpu_supports("avx512vnni") && __builtin_cpu_supports("avx512vl");
    return vnni;
}

bool HaveAvx2()
{
    return CpuHasAvx2() && codeLimit.load(std::memory_order_relaxed) != PlaneScaler::Code::Plain;
}

bool HaveFusedMultiplyAdd()
{
    return CpuHasFusedMultiplyAdd() && codeLimit.load(std::memory_order_relaxed) == PlaneScaler::Code::Best;
}

double KernelWeight(PlaneScaler::Kernel kernel, double x)
{
    x = std::fabs(x);
    if (kernel == PlaneScaler::Kernel::Bilinear) return x < 1 ? 1 - x : 0;
    // Keys' cubic with a = -0.6 (B = 0, C = 0.6), libswscale's default bicubic.
    constexpr double a = -0.6;
    if (x < 1) return ((a + 2) * x - (a + 3)) * x * x + 1;
    if (x < 2) return ((a * x - 5 * a) * x + 8 * a) * x - 4 * a;
    return 0;
}

std::int16_t VerticalValue(int sum)
{
    return static_cast<std::int16_t>(std::clamp((sum + (1 << (kVerticalShift - 1))) >> kVerticalShift, -32768, 32767));
}

std::uint8_t HorizontalValue(int sum)
{
    return static_cast<std::uint8_t>(std::clamp((sum + (1 << (kHorizontalShift - 1))) >> kHorizontalShift, 0, 255));
}

void VerticalPlain(const std::uint8_t* const* rows, const std::int16_t* weights, int taps, int count, std::int16_t* out)
{
    for (int x = 0; x < count; ++x) {
        int sum = 0;
        for (int k = 0; k < taps; ++k) sum += rows[k][x] * weights[k];
        out[x] = VerticalValue(sum);
    }
}

void HorizontalPlain(const std::int16_t* row, const PlaneScaler::Filter& f, int from, int count, std::uint8_t* out)
{
    for (int i = from; i < count; ++i) {
        const std::int16_t* s = row + f.start[i];
        const std::int16_t* w = f.weights.data() + static_cast<std::size_t>(i) * f.width;
        int sum = 0;
        for (int k = 0; k < f.width; ++k) sum += s[k] * w[k];
        out[i] = HorizontalValue(sum);
    }
}

#define ZUB_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

// acc + the pairwise products of a and b summed in twos, as 32-bit words. Fused, it is one
// AVX-512 VNNI instruction on 256-bit registers (with the same wrapping sums), written out
// here so that the AVX2 templates serve both; only a processor that has it runs it.
template <bool Fused>
ZUB_AVX2_INLINE __m256i MulAdd(__m256i acc, __m256i a, __m256i b)
{
    if constexpr (Fused) {
        asm("vpdpwssd %2, %1, %0" : "+x"(acc) : "x"(a), "xm"(b));
        return acc;
    } else {
        return _mm256_add_epi32(acc, _mm256_madd_epi16(a, b));
    }
}

// Weights packed for a multiply-add of a source pair: the pair's first row in the low half.
std::int32_t PairWeight(std::int16_t first, std::int16_t second)
{
    return static_cast<std::int32_t>((static_cast<std::uint32_t>(static_cast<std::uint16_t>(second)) << 16) |
                                     static_cast<std::uint16_t>(first));
}

// Sixteen of thirty-two samples of one source row pair, as two vectors of (first, second)
// 16-bit pairs: columns 0-3 and 16-19 with 4-7 and 20-23 (Half 0), or 8-11 and 24-27 with
// 12-15 and 28-31 (Half 1). Interleaving the bytes before widening them takes three shuffles
// per half where widening each row first takes four: the shuffle units are as busy as the
// multipliers in this pass.
struct Pairs {
    __m256i q0, q1;
};

template <int Half>
ZUB_AVX2_INLINE Pairs LoadPairs(const std::uint8_t* a, const std::uint8_t* b)
{
    const __m256i ra = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a));
    const __m256i rb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
    const __m256i zero = _mm256_setzero_si256();
    const __m256i ab = Half == 0 ? _mm256_unpacklo_epi8(ra, rb) : _mm256_unpackhi_epi8(ra, rb);
    return {_mm256_unpacklo_epi8(ab, zero), _mm256_unpackhi_epi8(ab, zero)};
}

struct Sums {
    __m256i s0, s1;
};

ZUB_AVX2_INLINE void Start(Sums& sums, const Pairs& p, const std::int32_t* weight)
{
    const __m256i w = _mm256_set1_epi32(*weight);
    sums.s0 = _mm256_madd_epi16(p.q0, w);
    sums.s1 = _mm256_madd_epi16(p.q1, w);
}

template <bool Fused>
ZUB_AVX2_INLINE void Add(Sums& sums, const Pairs& p, const std::int32_t* weight)
{
    const __m256i w = _mm256_set1_epi32(*weight);
    sums.s0 = MulAdd<Fused>(sums.s0, p.q0, w);
    sums.s1 = MulAdd<Fused>(sums.s1, p.q1, w);
}

// Rounded and saturated as VerticalValue does: Half 0 gives columns 0-7 and 16-23, Half 1
// columns 8-15 and 24-31.
ZUB_AVX2_INLINE __m256i Finish(const Sums& sums)
{
    const __m256i round = _mm256_set1_epi32(1 << (kVerticalShift - 1));
    return _mm256_packs_epi32(_mm256_srai_epi32(_mm256_add_epi32(sums.s0, round), kVerticalShift),
                              _mm256_srai_epi32(_mm256_add_epi32(sums.s1, round), kVerticalShift));
}

// One half of thirty-two samples for both rows; the halves are made one after the other so
// that the sums of both rows stay in registers.
template <bool Fused, int Half>
ZUB_AVX2_INLINE void VerticalHalf(const std::uint8_t* const* rows, int x, const std::int32_t* upperWeights,
                                  const std::int32_t* lowerWeights, int pairs, int endUpper, int beginLower,
                                  __m256i& upper, __m256i& lower)
{
    // Each row's sums start from its first product rather than from zero: one add fewer.
    const __m256i zero = _mm256_setzero_si256();
    Sums up, down{zero, zero};
    const Pairs first = LoadPairs<Half>(rows[0] + x, rows[1] + x);
    Start(up, first, upperWeights);
    if (beginLower == 0) Start(down, first, lowerWeights);
    int p = 1;
    for (const int both = std::min(endUpper, beginLower); p < both; ++p)
        Add<Fused>(up, LoadPairs<Half>(rows[2 * p] + x, rows[2 * p + 1] + x), upperWeights + p);
    if (p < endUpper && p == beginLower) {
        const Pairs q = LoadPairs<Half>(rows[2 * p] + x, rows[2 * p + 1] + x);
        Add<Fused>(up, q, upperWeights + p);
        Start(down, q, lowerWeights + p);
        ++p;
    }
    for (; p < endUpper; ++p) {
        const Pairs q = LoadPairs<Half>(rows[2 * p] + x, rows[2 * p + 1] + x);
        Add<Fused>(up, q, upperWeights + p);
        Add<Fused>(down, q, lowerWeights + p);
    }
    if (p <= beginLower && beginLower < pairs) {
        p = beginLower;
        Start(down, LoadPairs<Half>(rows[2 * p] + x, rows[2 * p + 1] + x), lowerWeights + p);
        ++p;
    }
    for (; p < pairs; ++p)
        Add<Fused>(down, LoadPairs<Half>(rows[2 * p] + x, rows[2 * p + 1] + x), lowerWeights + p);
    upper = Finish(up);
    lower = Finish(down);
}

// Thirty-two samples of one row from its two halves, back in column order.
ZUB_AVX2_INLINE void Store(__m256i half0, __m256i half1, std::int16_t* out)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(half0, half1, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + kVectorBlock), _mm256_permute2x128_si256(half0, half1, 0x31));
}

// Two output rows (the lower one only when `lower` is given) from `pairs` source row pairs,
// thirty-two samples at a time from column `from` to `to`; `rows` holds each pair's two rows
// in turn. The upper row uses pairs [0, endUpper), the lower one [beginLower, pairs).
template <bool Fused>
__attribute__((target("avx2"))) void VerticalPairAvx2(const std::uint8_t* const* rows, const std::int32_t* upperWeights,
                                                        const std::int32_t* lowerWeights, int pairs, int endUpper,
                                                        int beginLower, int from, int to, std::int16_t* upper,
                                                        std::int16_t* lower, const std::uint8_t* const* ahead,
                                                        int aheadCount)
{
    if (!lower) endUpper = std::min(endUpper, pairs), beginLower = pairs;
    for (int x = from; x + 2 * kVectorBlock <= to; x += 2 * kVectorBlock) {
        // The rows the next run adds are fetched while this one is worked on: they come from a
        // picture the decoder has only just written, often on the other core.
        for (int r = 0; r < aheadCount; ++r) _mm_prefetch(reinterpret_cast<const char*>(ahead[r] + x), _MM_HINT_T0);
        __m256i up0, down0, up1, down1;
        VerticalHalf<Fused, 0>(rows, x, upperWeights, lowerWeights, pairs, endUpper, beginLower, up0, down0);
        VerticalHalf<Fused, 1>(rows, x, upperWeights, lowerWeights, pairs, endUpper, beginLower, up1, down1);
        Store(up0, up1, upper + x);
        if (lower) Store(down0, down1, lower + x);
    }
}

// Eight rows filtered across together. The rows are first laid out as column pairs, one
// vector per pair holding that pair of every row (row r in 32-bit lane r), so that one
// multiply-add applies two taps to all eight rows and every lane ends with a finished sum:
// no window padded to a vector's width and no adding up of partial sums per output, which
// is what filtering each row on its own spent most of its time on. A window starting on an
// odd column uses the pair before it with a zero first weight, so only the pairs starting on
// even columns are laid out.
__attribute__((target("avx2"))) void LayOutPairs(const std::int16_t* const* rows, int from, int to, __m256i* laid)
{
    for (int c = from / 4; 4 * c < to; ++c) {
        const int x = 8 * c;
        __m256i y[4];
#pragma GCC unroll 4
        for (int r = 0; r < 4; ++r)
            y[r] = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(rows[r + 4] + x),
                                       reinterpret_cast<const __m128i*>(rows[r] + x));
        const __m256i t0 = _mm256_unpacklo_epi32(y[0], y[1]), t1 = _mm256_unpackhi_epi32(y[0], y[1]);
        const __m256i t2 = _mm256_unpacklo_epi32(y[2], y[3]), t3 = _mm256_unpackhi_epi32(y[2], y[3]);
        _mm256_storeu_si256(laid + 4 * c, _mm256_unpacklo_epi64(t0, t2));
        _mm256_storeu_si256(laid + 4 * c + 1, _mm256_unpackhi_epi64(t0, t2));
        _mm256_storeu_si256(laid + 4 * c + 2, _mm256_unpacklo_epi64(t1, t3));
        _mm256_storeu_si256(laid + 4 * c + 3, _mm256_unpackhi_epi64(t1, t3));
    }
}

// Eight rows, laid out as column pairs, filtered across into `out` (its first `count` rows):
// output i takes `taps` pairs from pair first[i]; the weights go by eight outputs, tap by tap,
// and both run on to a whole eight (the outputs past the last are made and not stored).
template <bool Fused>
__attribute__((target("avx2"))) void HorizontalRowsAvx2(const __m256i* laid, const int* first,
                                                          const std::int32_t* weights, int taps, int width,
                                                          std::uint8_t* const* out, int count)
{
    // Transposes a 4 x 4 block of bytes in each half: (output, row) order to (row, output).
    const __m256i byRow = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,
                                           0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m256i round = _mm256_set1_epi32(1 << (kHorizontalShift - 1));
    for (int i = 0; i < width; i += 8) {
        // Eight outputs side by side, so that their sums do not wait on one another.
        const __m256i* at[8];
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) at[k] = laid + first[i + k];
        const std::int32_t* w = weights + static_cast<std::size_t>(i) * taps;
        __m256i v[8];
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) v[k] = round;
        for (int p = 0; p < taps; ++p, w += 8) {
            // The eight outputs' weights for this pair in one load, each spread over a whole
            // register by shuffles: with the fused multiply-add the loads are what this loop
            // waits on, not the shuffle units (with AVX2 alone the two ways take the same time).
            const __m256i all = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w));
            const __m256i low = _mm256_permute2x128_si256(all, all, 0x00), high = _mm256_permute2x128_si256(all, all, 0x11);
            v[0] = MulAdd<Fused>(v[0], _mm256_shuffle_epi32(low, 0x00), _mm256_loadu_si256(at[0] + p));
            v[1] = MulAdd<Fused>(v[1], _mm256_shuffle_epi32(low, 0x55), _mm256_loadu_si256(at[1] + p));
            v[2] = MulAdd<Fused>(v[2], _mm256_shuffle_epi32(low, 0xAA), _mm256_loadu_si256(at[2] + p));
            v[3] = MulAdd<Fused>(v[3], _mm256_shuffle_epi32(low, 0xFF), _mm256_loadu_si256(at[3] + p));
            v[4] = MulAdd<Fused>(v[4], _mm256_shuffle_epi32(high, 0x00), _mm256_loadu_si256(at[4] + p));
            v[5] = MulAdd<Fused>(v[5], _mm256_shuffle_epi32(high, 0x55), _mm256_loadu_si256(at[5] + p));
            v[6] = MulAdd<Fused>(v[6], _mm256_shuffle_epi32(high, 0xAA), _mm256_loadu_si256(at[6] + p));
            v[7] = MulAdd<Fused>(v[7], _mm256_shuffle_epi32(high, 0xFF), _mm256_loadu_si256(at[7] + p));
        }
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) v[k] = _mm256_srai_epi32(v[k], kHorizontalShift);
        // Saturated to 16 bits and then to 8, exactly as HorizontalValue clamps.
        const __m256i b0 = _mm256_shuffle_epi8(
            _mm256_packus_epi16(_mm256_packs_epi32(v[0], v[1]), _mm256_packs_epi32(v[2], v[3])), byRow);
        const __m256i b1 = _mm256_shuffle_epi8(
            _mm256_packus_epi16(_mm256_packs_epi32(v[4], v[5]), _mm256_packs_epi32(v[6], v[7])), byRow);
        // Eight bytes per row: rows 0, 1 | 4, 5 and rows 2, 3 | 6, 7.
        const __m256i lo = _mm256_unpacklo_epi32(b0, b1), hi = _mm256_unpackhi_epi32(b0, b1);
        const int n = std::min(8, width - i);
        if (n == 8 && count == 8) {
            const __m128i halves[4] = {_mm256_castsi256_si128(lo), _mm256_castsi256_si128(hi),
                                       _mm256_extracti128_si256(lo, 1), _mm256_extracti128_si256(hi, 1)};
#pragma GCC unroll 4
            for (int h = 0; h < 4; ++h) {
                _mm_storel_epi64(reinterpret_cast<__m128i*>(out[2 * h] + i), halves[h]);
                // The high eight bytes moved down and stored as the low: an unaligned store
                // through a double pointer would be undefined behaviour in C++ terms.
                _mm_storel_epi64(reinterpret_cast<__m128i*>(out[2 * h + 1] + i), _mm_unpackhi_epi64(halves[h], halves[h]));
            }
            continue;
        }
        alignas(32) std::uint8_t block[64];
        _mm256_store_si256(reinterpret_cast<__m256i*>(block), lo);
        _mm256_store_si256(reinterpret_cast<__m256i*>(block + 32), hi);
        static constexpr int kAt[8] = {0, 8, 32, 40, 16, 24, 48, 56};
        for (int r = 0; r < count; ++r) std::memcpy(out[r] + i, block + kAt[r], static_cast<std::size_t>(n));
    }
}

}  // namespace

bool PlaneScaler::LimitCode(Code code)
{
    codeLimit.store(code, std::memory_order_relaxed);
    switch (code) {
    case Code::Plain: return true;
    case Code::Avx2: return CpuHasAvx2();
    case Code::Best: return CpuHasFusedMultiplyAdd();
    }
    return false;
}
PlaneScaler::Filter PlaneScaler::MakeFilter(int srcSize, int dstSize, Kernel kernel, double ratio, double phase)
{
    Filter f;
    const double scale = ratio > 0 ? ratio : static_cast<double>(srcSize) / dstSize;
    const double stretch = std::max(1.0, scale);  // a shrink widens the kernel
    const double support = (kernel == Kernel::Bilinear ? 1.0 : 2.0) * stretch;
    // The samples strictly inside the kernel's reach: never more than 2 x support of them.
    const int kernelWidth = std::max(1, static_cast<int>(std::ceil(2 * support - 1e-9)));
    f.width = std::min(srcSize, kernelWidth);
    f.start.resize(dstSize);
    f.weights.assign(static_cast<std::size_t>(dstSize) * f.width, 0);
    std::vector<double> acc(f.width);
    for (int i = 0; i < dstSize; ++i) {
        const double centre = (i + 0.5 + phase) * scale - 0.5;
        const int first = static_cast<int>(std::floor(centre - support)) + 1;
        const int start = std::clamp(first, 0, srcSize - f.width);
        std::fill(acc.begin(), acc.end(), 0.0);
        double total = 0;
        for (int k = 0; k < kernelWidth; ++k) {
            const double w = KernelWeight(kernel, (first + k - centre) / stretch);
            // Beyond the picture the edge sample stands in, as libswscale does.
            acc[std::clamp(first + k, 0, srcSize - 1) - start] += w;
            total += w;
        }
        std::int16_t* out = f.weights.data() + static_cast<std::size_t>(i) * f.width;
        int sum = 0, largest = 0;
        for (int k = 0; k < f.width; ++k) {
            out[k] = static_cast<std::int16_t>(std::lround(acc[k] / total * (1 << kWeightBits)));
            sum += out[k];
            if (std::abs(out[k]) > std::abs(out[largest])) largest = k;
        }
        // Whole weights sum exactly to one, so a flat picture stays exactly flat.
        out[largest] = static_cast<std::int16_t>(out[largest] + (1 << kWeightBits) - sum);
        f.start[i] = start;
    }
    return f;
}

void PlaneScaler::Keep(Filter& f, int first, int count)
{
    f.start.erase(f.start.begin() + first + count, f.start.end());
    f.start.erase(f.start.begin(), f.start.begin() + first);
    const std::size_t w = static_cast<std::size_t>(f.width);
    f.weights.erase(f.weights.begin() + static_cast<std::ptrdiff_t>((first + count) * w), f.weights.end());
    f.weights.erase(f.weights.begin(), f.weights.begin() + static_cast<std::ptrdiff_t>(first * w));
}

bool PlaneScaler::Configure(int srcWidth, int srcHeight, int dstWidth, int dstHeight, Kernel kernel, Window window,
                            double ratioX, double ratioY, double phaseX)
{
    for (int v : {srcWidth, srcHeight, dstWidth, dstHeight})
        if (v < 1 || v > 32768) return false;
    if (window.width == 0 || window.height == 0) window = Window{0, 0, dstWidth, dstHeight};
    if (window.x < 0 || window.y < 0 || window.width < 1 || window.height < 1 || window.x + window.width > dstWidth ||
        window.y + window.height > dstHeight)
        return false;
    if (srcWidth == srcW_ && srcHeight == srcH_ && dstWidth == scaledW_ && dstHeight == scaledH_ && kernel == kernel_ &&
        window == window_ && ratioX == ratioX_ && ratioY == ratioY_ && phaseX == phaseX_ && !h_.start.empty() &&
        vector_ == HaveAvx2() && fused_ == (vector_ && HaveFusedMultiplyAdd()))
        return true;
    ratioX_ = ratioX;
    ratioY_ = ratioY;
    phaseX_ = phaseX;
    srcW_ = srcWidth;
    srcH_ = srcHeight;
    scaledW_ = dstWidth;
    scaledH_ = dstHeight;
    window_ = window;
    dstW_ = window.width;
    dstH_ = window.height;
    kernel_ = kernel;
    v_ = MakeFilter(srcHeight, dstHeight, kernel, ratioY);
    h_ = MakeFilter(srcWidth, dstWidth, kernel, ratioX, phaseX);
    vector_ = HaveAvx2();
    fused_ = vector_ && HaveFusedMultiplyAdd();
    Keep(v_, window.y, window.height);
    Keep(h_, window.x, window.width);
    rowPairs_.clear();
    pairWeights_.clear();
    if (vector_) {
        PlanRowPairs();
        PlanAcross();
    } else {
        column_.assign(static_cast<std::size_t>(srcWidth), 0);
    }
    return true;
}

void PlaneScaler::PlanRowPairs()
{
    const int taps = v_.width;
    for (int y = 0; y < dstH_; y += 2) {
        const bool lower = y + 1 < dstH_;
        RowPair r;
        r.first = v_.start[y];
        const int offset = lower ? v_.start[y + 1] - r.first : 0;  // never negative: windows only move down
        r.pairs = (offset + taps + 1) / 2;
        r.endUpper = (taps + 1) / 2;
        r.beginLower = lower ? offset / 2 : r.pairs;
        r.weights = pairWeights_.size();
        // Each row's weights laid over the run; zero outside the row's own window.
        std::vector<std::int16_t> upper(2 * r.pairs, 0), down(2 * r.pairs, 0);
        std::copy_n(v_.weights.data() + static_cast<std::size_t>(y) * taps, taps, upper.begin());
        if (lower) std::copy_n(v_.weights.data() + static_cast<std::size_t>(y + 1) * taps, taps, down.begin() + offset);
        for (int p = 0; p < r.pairs; ++p) pairWeights_.push_back(PairWeight(upper[2 * p], upper[2 * p + 1]));
        for (int p = 0; p < r.pairs; ++p) pairWeights_.push_back(PairWeight(down[2 * p], down[2 * p + 1]));
        rowPairs_.push_back(r);
    }
}

void PlaneScaler::PlanAcross()
{
    const int taps = h_.width;
    acrossTaps_ = 0;
    for (int i = 0; i < dstW_; ++i) acrossTaps_ = std::max(acrossTaps_, (h_.start[i] % 2 + taps + 1) / 2);
    const int padded = (dstW_ + 7) / 8 * 8;
    acrossFirst_.resize(padded);
    acrossWeights_.assign(static_cast<std::size_t>(padded) * acrossTaps_, 0);
    int pairs = 0;
    std::vector<std::int16_t> w(2 * static_cast<std::size_t>(acrossTaps_));
    for (int i = 0; i < padded; ++i) {
        const int o = std::min(i, dstW_ - 1);  // past the last output, the last one again
        const int lead = h_.start[o] % 2;
        acrossFirst_[i] = h_.start[o] / 2;
        std::fill(w.begin(), w.end(), 0);
        std::copy_n(h_.weights.data() + static_cast<std::size_t>(o) * taps, taps, w.begin() + lead);
        std::int32_t* out = acrossWeights_.data() + static_cast<std::size_t>(i / 8 * 8) * acrossTaps_ + i % 8;
        for (int p = 0; p < acrossTaps_; ++p) out[8 * p] = PairWeight(w[2 * p], w[2 * p + 1]);
        pairs = std::max(pairs, acrossFirst_[i] + acrossTaps_);
    }
    // Pairs are laid out four at a time, from eight columns of each row; the columns past the
    // picture stay zero and only ever meet zero weights.
    laidPairs_ = (pairs + 3) / 4 * 4;
    // The columns the pairs read: from a whole vector block at or before the first one.
    const int firstPair = *std::min_element(acrossFirst_.begin(), acrossFirst_.end());
    columnsFrom_ = 2 * firstPair / (2 * kVectorBlock) * (2 * kVectorBlock);
    columnsTo_ = std::min(srcW_, 2 * laidPairs_);
    laid_.assign(8 * static_cast<std::size_t>(laidPairs_), 0);
    midStride_ = (std::max(srcW_, 2 * laidPairs_) + 2 * kVectorBlock) / kVectorBlock * kVectorBlock;
    column_.assign(8 * static_cast<std::size_t>(midStride_), 0);
}

void PlaneScaler::Scale(const std::uint8_t* src, std::ptrdiff_t srcStride, std::uint8_t* dst, std::ptrdiff_t dstStride)
{
    // Down first: a shrink then filters across only as many rows as it makes.
    const int taps = v_.width;
    std::int16_t* mid = column_.data();
    if (!vector_) {
        std::vector<const std::uint8_t*> rows(taps);
        for (int y = 0; y < dstH_; ++y) {
            for (int k = 0; k < taps; ++k) rows[k] = src + (v_.start[y] + k) * srcStride;
            VerticalPlain(rows.data(), v_.weights.data() + static_cast<std::size_t>(y) * taps, taps, srcW_, mid);
            HorizontalPlain(mid, h_, 0, dstW_, dst + y * dstStride);
        }
        return;
    }
    // Only the columns the filter across reads are filtered down; whole blocks of them by the
    // vector code, the rest plainly.
    const int vectorEnd = columnsFrom_ + (columnsTo_ - columnsFrom_) / (2 * kVectorBlock) * (2 * kVectorBlock);
    const int last = srcH_ - 1;
    std::vector<const std::uint8_t*> plainRows(taps);
    const std::int16_t* midRows[8];
    std::uint8_t* outRows[8];
    __m256i* laid = reinterpret_cast<__m256i*>(laid_.data());
    std::vector<const std::uint8_t*> rows;
    const std::uint8_t* ahead[8];
    for (int y0 = 0; y0 < dstH_; y0 += 8) {
        const int count = std::min(8, dstH_ - y0);
        for (int y = y0; y < y0 + count; y += 2) {
            const std::size_t n = static_cast<std::size_t>(y / 2);
            const RowPair& r = rowPairs_[n];
            rows.resize(2 * static_cast<std::size_t>(r.pairs));
            // A run's last pair may reach one row past the picture; its weights there are zero.
            for (int k = 0; k < 2 * r.pairs; ++k) rows[k] = src + std::min(r.first + k, last) * srcStride;
            int aheadCount = 0;
            if (n + 1 < rowPairs_.size())
                for (int s = r.first + 2 * r.pairs; s < rowPairs_[n + 1].first + 2 * rowPairs_[n + 1].pairs && aheadCount < 8; ++s)
                    if (s <= last) ahead[aheadCount++] = src + s * srcStride;
            std::int16_t* upper = mid + (y - y0) * midStride_;
            const std::int32_t* weights = pairWeights_.data() + r.weights;
            (fused_ ? VerticalPairAvx2<true> : VerticalPairAvx2<false>)(
                rows.data(), weights, weights + r.pairs, r.pairs, r.endUpper, r.beginLower, columnsFrom_, vectorEnd, upper,
                y + 1 < dstH_ ? upper + midStride_ : nullptr, ahead, aheadCount);
        }
        if (vectorEnd < columnsTo_)
            for (int k = 0; k < count; ++k) {
                const int y = y0 + k;
                for (int t = 0; t < taps; ++t) plainRows[t] = src + (v_.start[y] + t) * srcStride + vectorEnd;
                VerticalPlain(plainRows.data(), v_.weights.data() + static_cast<std::size_t>(y) * taps, taps,
                              columnsTo_ - vectorEnd, mid + k * midStride_ + vectorEnd);
            }
        for (int k = 0; k < 8; ++k) {
            midRows[k] = mid + (k < count ? k : 0) * midStride_;
            outRows[k] = k < count ? dst + (y0 + k) * dstStride : nullptr;
        }
        LayOutPairs(midRows, columnsFrom_ / 2, laidPairs_, laid);
        (fused_ ? HorizontalRowsAvx2<true> : HorizontalRowsAvx2<false>)(laid, acrossFirst_.data(), acrossWeights_.data(),
                                                                         acrossTaps_, dstW_, outRows, count);
    }
}

}  // namespace zub
