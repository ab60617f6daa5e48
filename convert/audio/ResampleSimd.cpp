// The vectorised filter loops: ResampleLoop.inc compiled once for SSE2 and once for AVX2.
// Function-level target attributes keep AVX2 instructions inside the functions that are only
// called after the processor was asked, so the rest of the library stays baseline x86-64.
#include "convert/audio/ResampleSimd.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ZUB_RESAMPLE_X86 1
#else
#define ZUB_RESAMPLE_X86 0
#endif

#include <cstdlib>

namespace zub::audio::simd {

#if ZUB_RESAMPLE_X86

namespace sse2 {
#define ZUB_SIMD_TARGET __attribute__((target("sse2")))
#define ZUB_SIMD_AVX2 0
#include "convert/audio/ResampleLoop.inc"
#undef ZUB_SIMD_TARGET
#undef ZUB_SIMD_AVX2
}  // namespace sse2

namespace avx2 {
#define ZUB_SIMD_TARGET __attribute__((target("avx2")))
#define ZUB_SIMD_AVX2 1
#include "convert/audio/ResampleLoop.inc"
#undef ZUB_SIMD_TARGET
#undef ZUB_SIMD_AVX2
}  // namespace avx2

// The processor is asked at first use, which may come from a static constructor: initialise the
// feature data first. AVX2 counts only when the system also saves the wide registers, which
// the compiler's run-time check includes.
bool HaveSse2()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("sse2");
}

bool HaveAvx2()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

void RunSse2(int taps, int channels, const CycleTables& t, std::size_t& i, std::int64_t& at, std::size_t count,
             const std::int16_t* const* staged, std::int16_t* out)
{
    sse2::Run(taps, channels, t, i, at, count, staged, out);
}

void RunAvx2(int taps, int channels, const CycleTables& t, std::size_t& i, std::int64_t& at, std::size_t count,
             const std::int16_t* const* staged, std::int16_t* out)
{
    avx2::Run(taps, channels, t, i, at, count, staged, out);
}

void Interleave(const std::int16_t* left, const std::int16_t* right, std::size_t count, std::int16_t* out)
{
    std::size_t k = 0;
    for (; k + 8 <= count; k += 8) {
        const __m128i l = _mm_loadu_si128(reinterpret_cast<const __m128i*>(left + k));
        const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(right + k));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * k), _mm_unpacklo_epi16(l, r));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * k + 8), _mm_unpackhi_epi16(l, r));
    }
    for (; k < count; ++k) {
        out[2 * k] = left[k];
        out[2 * k + 1] = right[k];
    }
}

void Deinterleave(const std::int16_t* in, std::size_t frames, std::int16_t* left, std::int16_t* right)
{
    std::size_t k = 0;
    for (; k + 8 <= frames; k += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 2 * k));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 2 * k + 8));
        // Each 32-bit lane is one frame: its low half sign-extended is left, its high half right;
        // packing values already inside 16 bits saturates nothing.
        const __m128i la = _mm_srai_epi32(_mm_slli_epi32(a, 16), 16), lb = _mm_srai_epi32(_mm_slli_epi32(b, 16), 16);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(left + k), _mm_packs_epi32(la, lb));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(right + k), _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16)));
    }
    for (; k < frames; ++k) {
        left[k] = in[2 * k];
        right[k] = in[2 * k + 1];
    }
}

#else

bool HaveSse2() { return false; }
bool HaveAvx2() { return false; }

// Never called: the resampler asks HaveSse2 / HaveAvx2 first.
void RunSse2(int, int, const CycleTables&, std::size_t&, std::int64_t&, std::size_t, const std::int16_t* const*,
             std::int16_t*)
{
    std::abort();
}
void RunAvx2(int, int, const CycleTables&, std::size_t&, std::int64_t&, std::size_t, const std::int16_t* const*,
             std::int16_t*)
{
    std::abort();
}

void Interleave(const std::int16_t* left, const std::int16_t* right, std::size_t count, std::int16_t* out)
{
    for (std::size_t k = 0; k < count; ++k) {
        out[2 * k] = left[k];
        out[2 * k + 1] = right[k];
    }
}

void Deinterleave(const std::int16_t* in, std::size_t frames, std::int16_t* left, std::int16_t* right)
{
    for (std::size_t k = 0; k < frames; ++k) {
        left[k] = in[2 * k];
        right[k] = in[2 * k + 1];
    }
}

#endif

}  // namespace zub::audio::simd
