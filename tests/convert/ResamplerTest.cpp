// The resampler's tables and kernels: the published rows, the generated constants against
// their formula, the phase tables against exact rational arithmetic, and the mode rule.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "convert/audio/PolyphaseResampler.h"
#include "convert/audio/ResampleKernels.h"

namespace zub::audio {
namespace {

struct TellingRow {
    int taps;
    int phase;
    std::vector<std::int32_t> row;
};

const std::vector<TellingRow>& TellingRows()
{
    static const std::vector<TellingRow> rows = {
        {4, 1, {-848, 32930, 861, -175}},
        {4, 32, {-10124, 26508, 26508, -10124}},
        {4, 63, {-78, 865, 32818, -837}},
        {8, 1, {-128, 194, -526, 32792, 545, -200, 128, -37}},
        {8, 32, {-1822, 3035, -6427, 21599, 21599, -6427, 3035, -1822}},
        {8, 63, {-16, 129, -199, 544, 32767, -526, 195, -126}},
        {16, 32, {-138, 305, -619, 1131, -1957, 3386, -6467, 20744, 20744, -6467, 3386, -1957, 1131, -619, 305, -138}},
        {32, 32, {-1,   5,    -13,  29,   -58,   108,   -186, 305,  -479, 729,  -1085,
                  1600, -2386, 3727, -6678, 20768, 20768, -6678, 3727, -2386, 1600, -1085,
                  729,  -479, 305,  -186, 108,  -58,  29,   -13,  5,    -1}},
    };
    return rows;
}

TEST(ResampleKernels, TablesReproduceThePublishedRows)
{
    std::map<int, int> worst;
    for (const auto& t : TellingRows()) {
        const std::int32_t* row = KernelRow(t.taps, t.phase);
        for (int j = 0; j < t.taps; ++j) {
            const int dev = std::abs(row[j] - t.row[static_cast<std::size_t>(j)]);
            worst[t.taps] = std::max(worst[t.taps], dev);
            EXPECT_EQ(dev, 0) << t.taps << " taps, phase " << t.phase << ", tap " << j;
        }
    }
    for (const auto& [taps, dev] : worst) std::printf("largest deviation, %d taps: %d\n", taps, dev);
}

TEST(ResampleKernels, GeneratedConstantsFollowTheFormulaAndKeepUnitGain)
{
    for (int taps : {4, 8, 16, 32}) {
        for (int phase = 1; phase < kKernelPhases; ++phase) {
            std::int32_t formula[32];
            KernelFormulaRow(ShapeFor(taps), phase, formula);
            const std::int32_t* table = KernelRow(taps, phase);
            long sum = 0;
            for (int j = 0; j < taps; ++j) {
                ASSERT_EQ(table[j], formula[j]) << "regenerate with zubresample: " << taps << " taps, phase " << phase;
                sum += table[j];
            }
            // Each tap is rounded on its own, so the row sum can miss 32768 by half a unit a tap.
            EXPECT_LE(std::labs(sum - 32768), taps / 2) << taps << " taps, phase " << phase;
        }
        // The half-way row is symmetric; the long kernels are even at every phase.
        const std::int32_t* half = KernelRow(taps, 32);
        for (int j = 0; j < taps; ++j) EXPECT_EQ(half[j], half[taps - 1 - j]) << taps;
        if (taps >= 16) {
            for (int phase = 1; phase < kKernelPhases; ++phase) {
                for (int j = 0; j < taps; ++j)
                    ASSERT_EQ(KernelRow(taps, phase)[j], KernelRow(taps, 64 - phase)[taps - 1 - j]) << taps << " " << phase;
            }
        }
    }
}

TEST(PolyphaseResampler, TablesFor48000To44100)
{
    PolyphaseResampler r;
    ASSERT_TRUE(r.Setup(48000, 44100));
    EXPECT_EQ(r.L(), 160);
    EXPECT_EQ(r.M(), 147);
    EXPECT_EQ(r.Mode(), 4);
    EXPECT_EQ(r.Taps(), 32);
    ASSERT_EQ(r.Phases().size(), 147u);
    // 147 is odd, so i * 64 * 160 / 147 never lies exactly halfway: exact rounding of the
    // rational position must agree with the accumulated sum.
    long stepSum = 0;
    for (long i = 0; i < 147; ++i) {
        const long num = i * 64 * 160;
        const long position = (2 * num + 147) / (2 * 147);
        EXPECT_EQ(r.Phases()[static_cast<std::size_t>(i)], position & 63) << i;
        EXPECT_EQ(r.Offsets()[static_cast<std::size_t>(i)], position >> 6) << i;
        stepSum += r.Steps()[static_cast<std::size_t>(i)];
    }
    EXPECT_EQ(stepSum, 160);
    // The cycle closes: output 147 sits exactly on source sample 160.
    std::int64_t pos;
    int phase;
    r.PositionOf(147, pos, phase);
    EXPECT_EQ(pos, 160);
    EXPECT_EQ(phase, 0);
}

TEST(PolyphaseResampler, ModeRuleAndRateKinds)
{
    PolyphaseResampler r;
    ASSERT_TRUE(r.Setup(48000, 11025));
    EXPECT_EQ(r.Mode(), 2);  // ratio about 4.35
    EXPECT_EQ(r.Taps(), 8);
    EXPECT_EQ(r.L(), 640);
    EXPECT_EQ(r.M(), 147);

    EXPECT_EQ(ResampleMode(1.5, 0), 4);
    EXPECT_EQ(ResampleMode(2.0, 0), 3);
    EXPECT_EQ(ResampleMode(3.99, 0), 3);
    EXPECT_EQ(ResampleMode(4.0, 0), 2);
    EXPECT_EQ(ResampleMode(8.0, 0), 1);
    EXPECT_EQ(ResampleMode(12.0, 0), 0);
    EXPECT_EQ(ResampleMode(0.5, 0), 4);  // 5, clamped
    EXPECT_EQ(ResampleMode(1.5, 1), 2);
    EXPECT_EQ(ResampleMode(20.0, 2), 0);
    EXPECT_EQ(GreatestCommonDivisor(48000, 44100), 300);

    ASSERT_TRUE(r.Setup(48000, 16000));
    EXPECT_TRUE(r.WholeStep());
    EXPECT_EQ(r.L(), 3);
    EXPECT_TRUE(r.Phases().empty());
    ASSERT_TRUE(r.Setup(44100, 44100));
    EXPECT_TRUE(r.PassThrough());
    EXPECT_FALSE(r.Setup(0, 44100));
}

// Runs a whole signal through the resampler as one block, staging it as the converter does.
std::vector<std::int16_t> ResampleAll(const PolyphaseResampler& r, const std::vector<std::int16_t>& in)
{
    const std::int64_t n = r.OutputCount(static_cast<std::int64_t>(in.size()));
    std::int64_t begin, end;
    r.SourceSpan(0, static_cast<std::size_t>(n), begin, end);
    std::vector<std::int16_t> staged(static_cast<std::size_t>(end - begin), 0);
    for (std::int64_t i = std::max<std::int64_t>(begin, 0); i < std::min<std::int64_t>(end, static_cast<std::int64_t>(in.size())); ++i)
        staged[static_cast<std::size_t>(i - begin)] = in[static_cast<std::size_t>(i)];
    std::vector<std::int16_t> out(static_cast<std::size_t>(n));
    r.Run(0, out.size(), staged.data(), begin, out.data());
    return out;
}

TEST(PolyphaseResampler, CopiesForWholeStepsAndSaturatesFullScale)
{
    std::vector<std::int16_t> in(1000);
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<std::int16_t>(i * 37 % 65536 - 32768);
    PolyphaseResampler r;
    ASSERT_TRUE(r.Setup(48000, 12000));
    auto out = ResampleAll(r, in);
    ASSERT_EQ(out.size(), 250u);
    for (std::size_t i = 0; i < out.size(); ++i) ASSERT_EQ(out[i], in[4 * i]) << i;

    // A full-scale square wave overshoots between its edges; the output clips instead of
    // wrapping round to the other sign.
    std::vector<std::int16_t> square(4800);
    for (std::size_t i = 0; i < square.size(); ++i) square[i] = (i / 24) % 2 ? -32768 : 32767;
    ASSERT_TRUE(r.Setup(48000, 44100));
    out = ResampleAll(r, square);
    int clippedHigh = 0, clippedLow = 0;
    for (std::size_t i = 50; i + 50 < out.size(); ++i) {
        const double t = static_cast<double>(i) * 48000.0 / 44100.0;
        const bool high = (static_cast<long>(t) / 24) % 2 == 0;
        const double intoHalf = std::fmod(t, 24.0);
        if (intoHalf > 4 && intoHalf < 20) {  // away from the edges the sign must hold
            ASSERT_EQ(out[i] > 0, high) << i;
        }
        clippedHigh += out[i] == 32767;
        clippedLow += out[i] == -32768;
    }
    EXPECT_GT(clippedHigh, 0);
    EXPECT_GT(clippedLow, 0);
}

// Source signals for the path comparison: uniform noise over the whole 16-bit range, and the
// same with windows set to full scale in step with the kernel's signs, which drives the 32-bit
// accumulator past its range so that it wraps.
std::vector<std::int16_t> NoiseWithWraps(const PolyphaseResampler& r, std::size_t frames, unsigned seed, int& wraps)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<std::int16_t> in(frames);
    for (auto& v : in) v = static_cast<std::int16_t>(dist(rng));
    wraps = 0;
    const int taps = r.Taps();
    if (taps < 4 || r.PassThrough() || r.WholeStep()) return in;
    const std::int64_t outputs = r.OutputCount(static_cast<std::int64_t>(frames));
    for (std::int64_t n = 3; n < outputs; n += 1 + static_cast<std::int64_t>(rng() % 60)) {
        std::int64_t pos;
        int phase;
        r.PositionOf(n, pos, phase);
        if (phase == 0) continue;
        const std::int32_t* c = KernelRow(taps, phase);
        const std::int64_t from = pos - (taps / 2 - 1);
        if (from < 0 || from + taps > static_cast<std::int64_t>(frames)) continue;
        std::int64_t exact = 0;
        for (int t = 0; t < taps; ++t) {
            const std::int16_t v = c[t] >= 0 ? 32767 : -32768;
            in[static_cast<std::size_t>(from + t)] = v;
            exact += static_cast<std::int64_t>(v) * c[t];
        }
        wraps += exact > INT32_MAX;
        n += taps;  // the next window starts clear of this one
    }
    return in;
}

// Stages in[] for outputs first .. first + count as the converter does and runs one path.
std::vector<std::int16_t> RunPath(PolyphaseResampler& r, KernelPath path, const std::vector<std::int16_t>& left,
                                  const std::vector<std::int16_t>* right, std::int64_t first, std::size_t count)
{
    EXPECT_TRUE(r.SetPath(path));
    std::int64_t begin, end;
    r.SourceSpan(first, count, begin, end);
    auto stage = [&](const std::vector<std::int16_t>& in) {
        std::vector<std::int16_t> staged(static_cast<std::size_t>(end - begin), 0);
        for (std::int64_t i = std::max<std::int64_t>(begin, 0); i < std::min<std::int64_t>(end, static_cast<std::int64_t>(in.size())); ++i)
            staged[static_cast<std::size_t>(i - begin)] = in[static_cast<std::size_t>(i)];
        return staged;
    };
    const auto l = stage(left);
    if (!right) {
        std::vector<std::int16_t> out(count, 0x5A5A);
        r.Run(first, count, l.data(), begin, out.data());
        return out;
    }
    const auto rt = stage(*right);
    // One sample past the end shows a store that runs over.
    std::vector<std::int16_t> out(2 * count + 1, 0x5A5A);
    r.RunStereo(first, count, l.data(), rt.data(), begin, out.data());
    EXPECT_EQ(out.back(), 0x5A5A) << "stereo output ran past its end";
    out.pop_back();
    return out;
}

TEST(PolyphaseResampler, VectorPathsGiveTheScalarSamplesExactly)
{
    std::vector<KernelPath> paths;
    for (KernelPath p : {KernelPath::Sse2, KernelPath::Avx2})
        if (PolyphaseResampler::PathAvailable(p)) paths.push_back(p);
    if (paths.empty()) GTEST_SKIP() << "no vector path on this processor";
    std::printf("vector paths checked:");
    for (auto p : paths) std::printf(" %s", KernelPathName(p));
    std::printf(", best %s\n", KernelPathName(PolyphaseResampler::BestPath()));

    // Every mode (0 copies, 1..4 filter with 4..32 taps), the two rate kinds without tables, and
    // a pair whose cycle is long.
    const struct {
        long from, to;
        int mode;
    } pairs[] = {{192000, 11025, 0}, {96000, 11025, 1}, {48000, 11025, 2}, {48000, 22050, 3}, {48000, 44100, 4},
                 {48000, 32000, 4}, {44100, 32000, 4}, {96000, 44100, 3}, {48000, 12000, 2}, {44100, 44100, 4},
                 {47999, 44100, 4}};
    // Odd and tiny block lengths, and starts inside the cycle, so the vector loops' groups of
    // four and their one-at-a-time tails both meet every phase.
    const std::size_t counts[] = {1, 2, 3, 5, 7, 13, 146, 147, 149, 1001, 4099};
    const std::int64_t firsts[] = {0, 1, 3, 146, 1000};
    int wrapsSeen = 0;
    for (const auto& pr : pairs) {
        PolyphaseResampler r;
        ASSERT_TRUE(r.Setup(pr.from, pr.to));
        ASSERT_EQ(r.Mode(), pr.mode) << pr.from << " -> " << pr.to;
        const std::size_t frames = 20011;
        int wrapsL = 0, wrapsR = 0;
        const auto left = NoiseWithWraps(r, frames, static_cast<unsigned>(pr.from + pr.to), wrapsL);
        const auto right = NoiseWithWraps(r, frames, static_cast<unsigned>(pr.from * 3 + pr.to), wrapsR);
        wrapsSeen += wrapsL + wrapsR;
        const std::int64_t outputs = r.OutputCount(static_cast<std::int64_t>(frames));
        for (std::int64_t first : firsts) {
            for (std::size_t count : counts) {
                // Also runs past the end of the source into the zero margin.
                if (first + static_cast<std::int64_t>(count) > outputs + 40) continue;
                const auto monoRef = RunPath(r, KernelPath::Scalar, left, nullptr, first, count);
                const auto rightRef = RunPath(r, KernelPath::Scalar, right, nullptr, first, count);
                for (KernelPath p : paths) {
                    const std::string what = std::to_string(pr.from) + " -> " + std::to_string(pr.to) + ", " +
                                             KernelPathName(p) + ", first " + std::to_string(first) + ", count " +
                                             std::to_string(count);
                    const auto mono = RunPath(r, p, left, nullptr, first, count);
                    ASSERT_EQ(mono, monoRef) << what;
                    const auto stereo = RunPath(r, p, left, &right, first, count);
                    for (std::size_t k = 0; k < count; ++k) {
                        ASSERT_EQ(stereo[2 * k], monoRef[k]) << what << ", left " << k;
                        ASSERT_EQ(stereo[2 * k + 1], rightRef[k]) << what << ", right " << k;
                    }
                }
                // The scalar path's own stereo form is the two channels interleaved.
                const auto scalarStereo = RunPath(r, KernelPath::Scalar, left, &right, first, count);
                for (std::size_t k = 0; k < count; ++k) {
                    ASSERT_EQ(scalarStereo[2 * k], monoRef[k]);
                    ASSERT_EQ(scalarStereo[2 * k + 1], rightRef[k]);
                }
            }
        }
    }
    // The comparison covered accumulators that wrapped, not only ones that stayed in range.
    EXPECT_GT(wrapsSeen, 100);
}

TEST(PolyphaseResampler, WrappedAccumulatorIsKeptNotClipped)
{
    // One output, every tap at full scale with the kernel's sign: the exact sum passes 2^31,
    // and the defined arithmetic wraps it round to a large negative value before the shift.
    PolyphaseResampler r;
    ASSERT_TRUE(r.Setup(48000, 44100));
    std::int64_t pos;
    int phase;
    std::int64_t n = 40;  // far enough in that the window lies inside the signal
    for (;; ++n) {
        r.PositionOf(n, pos, phase);
        if (phase >= 28 && phase <= 36) break;
    }
    const std::int32_t* c = KernelRow(32, phase);
    std::vector<std::int16_t> in(400, 0);
    std::int64_t exact = 0;
    for (int t = 0; t < 32; ++t) {
        in[static_cast<std::size_t>(pos - 15 + t)] = c[t] >= 0 ? 32767 : -32768;
        exact += static_cast<std::int64_t>(in[static_cast<std::size_t>(pos - 15 + t)]) * c[t];
    }
    ASSERT_GT(exact, INT32_MAX);
    const auto wrapped = static_cast<std::int32_t>(static_cast<std::uint32_t>(exact));
    const auto expect = static_cast<std::int16_t>(std::clamp(wrapped >> 15, -32768, 32767));
    EXPECT_EQ(expect, -32768);
    for (KernelPath p : {KernelPath::Scalar, KernelPath::Sse2, KernelPath::Avx2}) {
        if (!PolyphaseResampler::PathAvailable(p)) continue;
        const auto out = RunPath(r, p, in, nullptr, n, 1);
        EXPECT_EQ(out[0], expect) << KernelPathName(p);
    }
}

}  // namespace
}  // namespace zub::audio
