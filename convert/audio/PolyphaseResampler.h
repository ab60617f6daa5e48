// The audio reader's resampler: a fixed-point polyphase interpolator that brings 16-bit PCM
// from one rate down to a lower one. Output positions are kept in 64ths of a source sample;
// each output sample either copies the source sample at its position (phase 0, or the
// cheapest mode) or runs a 4- to 32-tap Q15 kernel around it.
//
// The resampler never holds the whole file: the caller hands it a window of staged source
// samples per block of output, so memory stays bounded however long the file is, and the
// result does not depend on where the blocks fall.
//
// The filter runs in one of three ways, all giving the same samples: a plain loop (the
// reference), and SSE2 or AVX2 loops chosen at run time by what the processor has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zub::audio {

// Staged windows carry this many samples before and after the range a block needs, which
// covers the longest kernel (32 taps reach 15 back and 16 forward).
inline constexpr int kStageMargin = 16;

// How the filter loop runs. Every path gives the scalar loop's output exactly.
enum class KernelPath { Scalar, Sse2, Avx2 };
const char* KernelPathName(KernelPath path);

class PolyphaseResampler {
public:
    // The fastest path this processor can run, and whether a path can run here at all.
    static KernelPath BestPath();
    static bool PathAvailable(KernelPath path);

    // Prepares the tables for srcRate -> dstRate (both > 0) at the given quality (0 = best).
    // False, with the reason in Error(), for rates that are not positive.
    bool Setup(long srcRate, long dstRate, int quality = 0);

    long SourceRate() const { return srcRate_; }
    long TargetRate() const { return dstRate_; }
    // Reduced ratio: L source samples for every M output samples. 1:1 for equal rates and
    // step:1 for whole multiples.
    long L() const { return L_; }
    long M() const { return M_; }
    // 0 = copy the sample at the position, 1..4 = 4-, 8-, 16-, 32-tap kernel.
    int Mode() const { return mode_; }
    // Taps the mode's kernel uses (1 when it only copies).
    int Taps() const;
    bool PassThrough() const { return kind_ == Kind::PassThrough; }
    bool WholeStep() const { return kind_ == Kind::WholeStep; }

    // The per-cycle tables (empty for pass-through and whole-multiple steps).
    const std::vector<std::uint8_t>& Phases() const { return phase_; }
    const std::vector<std::int32_t>& Offsets() const { return offset_; }
    const std::vector<std::int32_t>& Steps() const { return step_; }

    // Source sample position (whole samples) and phase (64ths) of output sample n.
    void PositionOf(std::int64_t n, std::int64_t& position, int& phase) const;
    // How many output samples have their position inside a source of srcFrames samples.
    std::int64_t OutputCount(std::int64_t srcFrames) const;

    // Computes out[0 .. count) = output samples first .. first + count of one channel.
    // staged[i] holds source sample stageStart + i, for every source index from
    // position(first) - kStageMargin up to position(first + count - 1) + kStageMargin
    // (zeros outside the file). The caller sizes the window with SourceSpan.
    void Run(std::int64_t first, std::size_t count, const std::int16_t* staged, std::int64_t stageStart,
             std::int16_t* out) const;
    // Both channels of a stereo source at once (they share every position and row), written
    // interleaved: out[2k] from left, out[2k + 1] from right.
    void RunStereo(std::int64_t first, std::size_t count, const std::int16_t* left, const std::int16_t* right,
                   std::int64_t stageStart, std::int16_t* out) const;
    // The source index range [begin, end) a block of count outputs from first needs staged.
    void SourceSpan(std::int64_t first, std::size_t count, std::int64_t& begin, std::int64_t& end) const;

    const char* Error() const { return error_; }

    // Chooses the filter loop; a path this processor lacks is refused (false, path unchanged).
    bool SetPath(KernelPath path);
    KernelPath Path() const { return path_; }

private:
    enum class Kind { PassThrough, WholeStep, Tables };
    // The filter part of a block: cycle index i, staged position at (both advanced).
    void Filter(std::size_t& i, std::int64_t& at, std::size_t count, const std::int16_t* const* staged, int channels,
                std::int16_t* out) const;
    void MakeVectorRows();
    void FilterScalar(std::size_t& i, std::int64_t& at, std::size_t count, const std::int16_t* staged,
                      std::int16_t* out, std::size_t stride) const;

    Kind kind_ = Kind::PassThrough;
    long srcRate_ = 0;
    long dstRate_ = 0;
    long L_ = 1;
    long M_ = 1;
    int mode_ = 0;
    std::vector<std::uint8_t> phase_;
    std::vector<std::int32_t> offset_;
    std::vector<std::int32_t> step_;
    // The vector loops' form of the kernel: one 16-bit row per phase after a zero row for
    // phase 0; rows of 4 and 8 taps carry a second half with what did not fit 16 bits.
    std::vector<std::int16_t> rows16_;
    std::vector<std::uint32_t> rowAt_;
    std::vector<std::uint8_t> copy_;
    bool vectorRows_ = false;
    KernelPath path_ = BestPath();
    const char* error_ = "";
};

// The mode rule on its own: r = srcRate / dstRate, quality 0 = best.
int ResampleMode(double ratio, int quality);

// Greatest common divisor by Euclid's remainders.
long GreatestCommonDivisor(long a, long b);

}  // namespace zub::audio
