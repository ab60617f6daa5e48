// The resampler's vectorised filter loops (SSE2 and AVX2, x86-64 only), chosen at run time.
// They take the resampler's per-cycle tables in the form the loops want and give output equal,
// sample for sample, to the scalar loop in PolyphaseResampler.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zub::audio::simd {

// One cycle of output positions as the vector loops walk it.
struct CycleTables {
    const std::int16_t* rows = nullptr;   // 16-bit rows, see PolyphaseResampler::Setup
    const std::uint32_t* rowAt = nullptr;  // per cycle index: offset of its row in rows
    const std::uint8_t* copy = nullptr;    // per cycle index: 1 when the output copies a sample
    const std::int32_t* step = nullptr;    // per cycle index: source samples to advance
    std::size_t cycle = 0;                 // M
};

bool HaveSse2();
bool HaveAvx2();

// Filters count outputs of taps (4, 8, 16 or 32) for channels (1 or 2) channels, from cycle
// index i and staged position at, which are advanced past them. staged[c] is channel c's
// staged window (at indexes it); two channels come out interleaved.
void RunSse2(int taps, int channels, const CycleTables& t, std::size_t& i, std::int64_t& at, std::size_t count,
             const std::int16_t* const* staged, std::int16_t* out);
void RunAvx2(int taps, int channels, const CycleTables& t, std::size_t& i, std::int64_t& at, std::size_t count,
             const std::int16_t* const* staged, std::int16_t* out);

// Interleaves two channels' samples into frames: out[2k] = left[k], out[2k + 1] = right[k].
void Interleave(const std::int16_t* left, const std::int16_t* right, std::size_t count, std::int16_t* out);

// Splits frames of two samples into two channels: left[k] = in[2k], right[k] = in[2k + 1].
void Deinterleave(const std::int16_t* in, std::size_t frames, std::int16_t* left, std::int16_t* right);

}  // namespace zub::audio::simd
