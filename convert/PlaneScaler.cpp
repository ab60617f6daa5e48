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

ZUB_AVX2_INLINE __m256i Widen(const std::uint8_t* p)
{
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

ZUB_AVX2_INLINE __m256i Finish(__m256i sum, __m256i round)
{
    return _mm256_srai_epi32(_mm256_add_epi32(sum, round), kVerticalShift);
}

// Thirty-two samples of two rows at a time, one multiply per pair of taps and sixteen samples.
__attribute__((target("avx2"))) void VerticalAvx2(const std::uint8_t* const* rows, const std::int16_t* weights, int taps,
                                                    int count, std::int16_t* out, const std::uint8_t* const* ahead,
                                                    int aheadCount)
{
    const __m256i round = _mm256_set1_epi32(1 << (kVerticalShift - 1));
    int x = 0;
    for (; x + 2 * kVectorBlock <= count; x += 2 * kVectorBlock) {
        // The rows the next window adds are fetched while this one is worked on: they come
        // from a picture the decoder has only just written, often on the other core.
        for (int r = 0; r < aheadCount; ++r) _mm_prefetch(reinterpret_cast<const char*>(ahead[r] + x), _MM_HINT_T0);
        __m256i lo0 = _mm256_setzero_si256(), hi0 = lo0, lo1 = lo0, hi1 = lo0;
        for (int k = 0; k < taps; k += 2) {
            const bool pair = k + 1 < taps;
            const std::uint8_t* ra = rows[k] + x;
            const std::uint8_t* rb = pair ? rows[k + 1] + x : nullptr;
            const int second = pair ? weights[k + 1] : 0;
            const __m256i w = _mm256_set1_epi32(static_cast<int>((static_cast<std::uint32_t>(second) << 16) |
                                                                 static_cast<std::uint16_t>(weights[k])));
            const __m256i a0 = Widen(ra), a1 = Widen(ra + kVectorBlock);
            const __m256i b0 = pair ? Widen(rb) : _mm256_setzero_si256();
            const __m256i b1 = pair ? Widen(rb + kVectorBlock) : _mm256_setzero_si256();
            lo0 = _mm256_add_epi32(lo0, _mm256_madd_epi16(_mm256_unpacklo_epi16(a0, b0), w));
            hi0 = _mm256_add_epi32(hi0, _mm256_madd_epi16(_mm256_unpackhi_epi16(a0, b0), w));
            lo1 = _mm256_add_epi32(lo1, _mm256_madd_epi16(_mm256_unpacklo_epi16(a1, b1), w));
            hi1 = _mm256_add_epi32(hi1, _mm256_madd_epi16(_mm256_unpackhi_epi16(a1, b1), w));
        }
        // The unpacks split each 128-bit half; packing the two back per half restores the order.
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), _mm256_packs_epi32(Finish(lo0, round), Finish(hi0, round)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x + kVectorBlock), _mm256_packs_epi32(Finish(lo1, round), Finish(hi1, round)));
    }
    for (; x < count; ++x) {
        int sum = 0;
        for (int k = 0; k < taps; ++k) sum += rows[k][x] * weights[k];
        out[x] = VerticalValue(sum);
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
    // The vector pass reads whole blocks of samples, so its windows are widened to a
    // multiple of the block where the source is wide enough.
    h_ = MakeFilter(srcWidth, dstWidth, kernel, 0, ratioX, phaseX);
    const int block = (h_.width + kVectorBlock - 1) / kVectorBlock * kVectorBlock;
    vector_ = HaveAvx2() && srcWidth >= block;
    if (vector_ && block != h_.width) h_ = MakeFilter(srcWidth, dstWidth, kernel, block, ratioX, phaseX);
    Keep(v_, window.y, window.height);
    Keep(h_, window.x, window.width);
    column_.assign(static_cast<std::size_t>(srcWidth) + kVectorBlock, 0);
    return true;
}

void PlaneScaler::Scale(const std::uint8_t* src, std::ptrdiff_t srcStride, std::uint8_t* dst, std::ptrdiff_t dstStride)
{
    // Down first: a shrink then filters across only as many rows as it makes.
    const int taps = v_.width;
    std::vector<const std::uint8_t*> rows(taps);
    std::int16_t* mid = column_.data();
    const std::uint8_t* ahead[8];
    for (int y = 0; y < dstH_; ++y) {
        for (int k = 0; k < taps; ++k) rows[k] = src + (v_.start[y] + k) * srcStride;
        int aheadCount = 0;
        if (y + 1 < dstH_)
            for (int r = v_.start[y] + taps; r < v_.start[y + 1] + taps && aheadCount < 8; ++r)
                ahead[aheadCount++] = src + r * srcStride;
        const std::int16_t* weights = v_.weights.data() + static_cast<std::size_t>(y) * taps;
        std::uint8_t* out = dst + y * dstStride;
        if (!vector_) {
            VerticalPlain(rows.data(), weights, taps, srcW_, mid);
            HorizontalPlain(mid, h_, 0, dstW_, out);
            continue;
        }
        VerticalAvx2(rows.data(), weights, taps, srcW_, mid, ahead, aheadCount);
        switch (h_.width / kVectorBlock) {
        case 1: HorizontalAvx2<1>(mid, h_, dstW_, out); break;
        case 2: HorizontalAvx2<2>(mid, h_, dstW_, out); break;
        default: HorizontalAvx2<0>(mid, h_, dstW_, out); break;
        }
    }
}

}  // namespace zub
