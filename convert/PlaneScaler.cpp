#include "convert/PlaneScaler.h"

#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>

namespace zub {

namespace {

// The vertical pass keeps each sample as value << 6: room for the cubic's overshoot both ways
// in 16 bits, and the horizontal pass's sums of such products stay inside 32 bits.
constexpr int kVerticalShift = 8;                                                 // 8 bits in, 14-bit weights
constexpr int kHorizontalShift = 2 * PlaneScaler::kWeightBits - kVerticalShift;   // back to 8 bits
constexpr int kVectorBlock = 16;                                                  // samples per vector load

std::atomic<bool> vectorAllowed{true};

bool HaveAvx2()
{
    static const bool avx2 = __builtin_cpu_supports("avx2");
    return avx2 && vectorAllowed.load(std::memory_order_relaxed);
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

ZUB_AVX2_INLINE __m256i Finish(__m256i sum, __m256i round)
{
    return _mm256_srai_epi32(_mm256_add_epi32(sum, round), kVerticalShift);
}

// Weights packed for a multiply-add of a source pair: the pair's first row in the low half.
std::int32_t PairWeight(std::int16_t first, std::int16_t second)
{
    return static_cast<std::int32_t>((static_cast<std::uint32_t>(static_cast<std::uint16_t>(second)) << 16) |
                                     static_cast<std::uint16_t>(first));
}

// Thirty-two samples of one source row pair, as four vectors of (first, second) 16-bit pairs:
// columns 0-3 and 16-19, 4-7 and 20-23, 8-11 and 24-27, 12-15 and 28-31. Interleaving the
// bytes before widening them takes six shuffles where widening each row first takes eight,
// and shuffles, not multiplies, are what this pass waits on.
struct Pairs {
    __m256i q0, q1, q2, q3;
};

ZUB_AVX2_INLINE Pairs LoadPairs(const std::uint8_t* a, const std::uint8_t* b)
{
    const __m256i ra = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a));
    const __m256i rb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
    const __m256i zero = _mm256_setzero_si256();
    const __m256i lo = _mm256_unpacklo_epi8(ra, rb), hi = _mm256_unpackhi_epi8(ra, rb);
    return {_mm256_unpacklo_epi8(lo, zero), _mm256_unpackhi_epi8(lo, zero), _mm256_unpacklo_epi8(hi, zero),
            _mm256_unpackhi_epi8(hi, zero)};
}

struct Sums {
    __m256i s0, s1, s2, s3;
};

ZUB_AVX2_INLINE void Add(Sums& sums, const Pairs& p, const std::int32_t* weight)
{
    const __m256i w = _mm256_set1_epi32(*weight);
    sums.s0 = _mm256_add_epi32(sums.s0, _mm256_madd_epi16(p.q0, w));
    sums.s1 = _mm256_add_epi32(sums.s1, _mm256_madd_epi16(p.q1, w));
    sums.s2 = _mm256_add_epi32(sums.s2, _mm256_madd_epi16(p.q2, w));
    sums.s3 = _mm256_add_epi32(sums.s3, _mm256_madd_epi16(p.q3, w));
}

// Rounds, saturates as VerticalValue does, and puts the columns back in order.
ZUB_AVX2_INLINE void Store(const Sums& sums, std::int16_t* out)
{
    const __m256i round = _mm256_set1_epi32(1 << (kVerticalShift - 1));
    const __m256i a = _mm256_packs_epi32(Finish(sums.s0, round), Finish(sums.s1, round));  // 0-7, 16-23
    const __m256i b = _mm256_packs_epi32(Finish(sums.s2, round), Finish(sums.s3, round));  // 8-15, 24-31
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(a, b, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + kVectorBlock), _mm256_permute2x128_si256(a, b, 0x31));
}

// Two output rows (the lower one only when `lower` is given) from `pairs` source row pairs,
// thirty-two samples at a time; `rows` holds each pair's two rows in turn. The upper row uses
// pairs [0, endUpper), the lower one [beginLower, pairs).
__attribute__((target("avx2"))) void VerticalPairAvx2(const std::uint8_t* const* rows, const std::int32_t* upperWeights,
                                                        const std::int32_t* lowerWeights, int pairs, int endUpper,
                                                        int beginLower, int count, std::int16_t* upper,
                                                        std::int16_t* lower, const std::uint8_t* const* ahead,
                                                        int aheadCount)
{
    if (!lower) endUpper = std::min(endUpper, pairs), beginLower = pairs;
    const int both = std::min(endUpper, beginLower);
    for (int x = 0; x + 2 * kVectorBlock <= count; x += 2 * kVectorBlock) {
        // The rows the next run adds are fetched while this one is worked on: they come from a
        // picture the decoder has only just written, often on the other core.
        for (int r = 0; r < aheadCount; ++r) _mm_prefetch(reinterpret_cast<const char*>(ahead[r] + x), _MM_HINT_T0);
        const __m256i zero = _mm256_setzero_si256();
        Sums up{zero, zero, zero, zero}, down{zero, zero, zero, zero};
        int p = 0;
        for (; p < both; ++p) Add(up, LoadPairs(rows[2 * p] + x, rows[2 * p + 1] + x), upperWeights + p);
        for (; p < endUpper; ++p) {
            const Pairs q = LoadPairs(rows[2 * p] + x, rows[2 * p + 1] + x);
            Add(up, q, upperWeights + p);
            Add(down, q, lowerWeights + p);
        }
        for (p = std::max(p, beginLower); p < pairs; ++p) Add(down, LoadPairs(rows[2 * p] + x, rows[2 * p + 1] + x), lowerWeights + p);
        Store(up, upper + x);
        if (lower) Store(down, lower + x);
    }
}

// One output's products over a window of `Blocks` x 16 samples, as eight partial sums.
template <int Blocks>
ZUB_AVX2_INLINE __m256i Dot(const std::int16_t* s, const std::int16_t* w, int width)
{
    __m256i a = _mm256_madd_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s)),
                                  _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w)));
    const int blocks = Blocks > 0 ? Blocks : width / kVectorBlock;
    for (int c = 1; c < blocks; ++c)
        a = _mm256_add_epi32(a, _mm256_madd_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + c * kVectorBlock)),
                                                  _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w + c * kVectorBlock))));
    return a;
}

// Eight outputs per step; their eight partial sums each are added up by a tree of pairwise
// adds within the 128-bit halves, then across the halves.
template <int Blocks>
__attribute__((target("avx2"))) void HorizontalAvx2(const std::int16_t* row, const PlaneScaler::Filter& f, int count,
                                                      std::uint8_t* out)
{
    const int width = f.width;
    const std::int16_t* weights = f.weights.data();
    const int* start = f.start.data();
    const __m256i round = _mm256_set1_epi32(1 << (kHorizontalShift - 1));
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        const std::int16_t* w = weights + static_cast<std::size_t>(i) * width;
        const __m256i a0 = Dot<Blocks>(row + start[i], w, width);
        const __m256i a1 = Dot<Blocks>(row + start[i + 1], w + width, width);
        const __m256i a2 = Dot<Blocks>(row + start[i + 2], w + 2 * width, width);
        const __m256i a3 = Dot<Blocks>(row + start[i + 3], w + 3 * width, width);
        const __m256i a4 = Dot<Blocks>(row + start[i + 4], w + 4 * width, width);
        const __m256i a5 = Dot<Blocks>(row + start[i + 5], w + 5 * width, width);
        const __m256i a6 = Dot<Blocks>(row + start[i + 6], w + 6 * width, width);
        const __m256i a7 = Dot<Blocks>(row + start[i + 7], w + 7 * width, width);
        const __m256i u0 = _mm256_hadd_epi32(_mm256_hadd_epi32(a0, a1), _mm256_hadd_epi32(a2, a3));
        const __m256i u1 = _mm256_hadd_epi32(_mm256_hadd_epi32(a4, a5), _mm256_hadd_epi32(a6, a7));
        __m256i sum = _mm256_add_epi32(_mm256_permute2x128_si256(u0, u1, 0x20), _mm256_permute2x128_si256(u0, u1, 0x31));
        sum = _mm256_srai_epi32(_mm256_add_epi32(sum, round), kHorizontalShift);
        const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(words, words));
    }
    HorizontalPlain(row, f, i, count, out);
}

// Windows of eight samples: two outputs per multiply-add, one in each 128-bit half, so half
// the multiplies and half the adding up of a sixteen-sample window.
__attribute__((target("avx2"))) void HorizontalAvx2Half(const std::int16_t* row, const PlaneScaler::Filter& f, int count,
                                                          std::uint8_t* out)
{
    const std::int16_t* weights = f.weights.data();
    const int* start = f.start.data();
    const __m256i round = _mm256_set1_epi32(1 << (kHorizontalShift - 1));
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        __m256i v[4];
        for (int j = 0; j < 4; ++j) {
            const int o = i + 2 * j;
            const __m256i s = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(row + start[o + 1]),
                                                  reinterpret_cast<const __m128i*>(row + start[o]));
            v[j] = _mm256_madd_epi16(s, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(weights + static_cast<std::size_t>(o) * 8)));
        }
        // Lower half: outputs 0, 2, 4, 6; upper half: 1, 3, 5, 7.
        __m256i sum = _mm256_hadd_epi32(_mm256_hadd_epi32(v[0], v[1]), _mm256_hadd_epi32(v[2], v[3]));
        sum = _mm256_srai_epi32(_mm256_add_epi32(sum, round), kHorizontalShift);
        const __m128i even = _mm256_castsi256_si128(sum), odd = _mm256_extracti128_si256(sum, 1);
        const __m128i words = _mm_packs_epi32(_mm_unpacklo_epi32(even, odd), _mm_unpackhi_epi32(even, odd));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(words, words));
    }
    HorizontalPlain(row, f, i, count, out);
}

}  // namespace

void PlaneScaler::AllowVectorCode(bool allow)
{
    vectorAllowed.store(allow, std::memory_order_relaxed);
}

PlaneScaler::Filter PlaneScaler::MakeFilter(int srcSize, int dstSize, Kernel kernel, int window, double ratio,
                                            double phase)
{
    Filter f;
    const double scale = ratio > 0 ? ratio : static_cast<double>(srcSize) / dstSize;
    const double stretch = std::max(1.0, scale);  // a shrink widens the kernel
    const double support = (kernel == Kernel::Bilinear ? 1.0 : 2.0) * stretch;
    // The samples strictly inside the kernel's reach: never more than 2 x support of them.
    const int kernelWidth = std::max(1, static_cast<int>(std::ceil(2 * support - 1e-9)));
    f.width = std::min(srcSize, std::max(kernelWidth, window));
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
        window == window_ && ratioX == ratioX_ && ratioY == ratioY_ && phaseX == phaseX_ && !h_.start.empty())
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
    v_ = MakeFilter(srcHeight, dstHeight, kernel, 0, ratioY);
    // The vector pass reads whole blocks of samples, so its windows are widened to eight
    // samples or a multiple of sixteen where the source is wide enough.
    h_ = MakeFilter(srcWidth, dstWidth, kernel, 0, ratioX, phaseX);
    const int block = h_.width <= kVectorBlock / 2 ? kVectorBlock / 2
                                                   : (h_.width + kVectorBlock - 1) / kVectorBlock * kVectorBlock;
    vector_ = HaveAvx2() && srcWidth >= block;
    if (vector_ && block != h_.width) h_ = MakeFilter(srcWidth, dstWidth, kernel, block, ratioX, phaseX);
    Keep(v_, window.y, window.height);
    Keep(h_, window.x, window.width);
    column_.assign(2 * (static_cast<std::size_t>(srcWidth) + kVectorBlock), 0);
    rowPairs_.clear();
    pairWeights_.clear();
    if (vector_) PlanRowPairs();
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
    std::int16_t* midLower = mid + srcW_ + kVectorBlock;
    const int vectorWidth = srcW_ / (2 * kVectorBlock) * (2 * kVectorBlock);
    std::vector<const std::uint8_t*> rows;
    std::vector<const std::uint8_t*> plainRows(taps);
    const std::uint8_t* ahead[8];
    for (std::size_t n = 0; n < rowPairs_.size(); ++n) {
        const RowPair& r = rowPairs_[n];
        const int y = 2 * static_cast<int>(n);
        const bool lower = y + 1 < dstH_;
        rows.resize(2 * static_cast<std::size_t>(r.pairs));
        // A run's last pair may reach one row past the picture; its weights there are zero.
        const int last = srcH_ - 1;
        for (int k = 0; k < 2 * r.pairs; ++k) rows[k] = src + std::min(r.first + k, last) * srcStride;
        int aheadCount = 0;
        if (n + 1 < rowPairs_.size())
            for (int s = r.first + 2 * r.pairs; s < rowPairs_[n + 1].first + 2 * rowPairs_[n + 1].pairs && aheadCount < 8; ++s)
                if (s <= last) ahead[aheadCount++] = src + s * srcStride;
        const std::int32_t* weights = pairWeights_.data() + r.weights;
        VerticalPairAvx2(rows.data(), weights, weights + r.pairs, r.pairs, r.endUpper, r.beginLower, srcW_, mid,
                         lower ? midLower : nullptr, ahead, aheadCount);
        for (int k = 0; k < (lower ? 2 : 1); ++k) {
            std::int16_t* out = k ? midLower : mid;
            const int row = y + k;
            if (vectorWidth < srcW_) {
                for (int t = 0; t < taps; ++t) plainRows[t] = src + (v_.start[row] + t) * srcStride + vectorWidth;
                VerticalPlain(plainRows.data(), v_.weights.data() + static_cast<std::size_t>(row) * taps, taps,
                              srcW_ - vectorWidth, out + vectorWidth);
            }
            std::uint8_t* line = dst + row * dstStride;
            switch (h_.width) {
            case kVectorBlock / 2: HorizontalAvx2Half(out, h_, dstW_, line); break;
            case kVectorBlock: HorizontalAvx2<1>(out, h_, dstW_, line); break;
            case 2 * kVectorBlock: HorizontalAvx2<2>(out, h_, dstW_, line); break;
            default: HorizontalAvx2<0>(out, h_, dstW_, line); break;
            }
        }
    }
}

}  // namespace zub
