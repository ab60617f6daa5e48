// A separable resampler for one 8-bit picture plane (bilinear or bicubic), for the
// conversion's fast frame path. libswscale does the same job, but its horizontal pass on this
// machine class is a two-pixels-at-a-time SSSE3 loop over every source row (its AVX2 one is
// switched off on AMD processors, and rightly: it is built on gathers, which measured slower
// still). This one filters down first, so that a shrink filters across only the rows it makes:
// down two output rows at a time from source rows taken in pairs, each pair widened once for
// both; across eight rows at a time from those rows laid out as column pairs, so that every
// multiply-add applies two taps to eight rows and no sum needs adding up afterwards. Where the
// processor has AVX-512 VNNI the multiply and the add are one instruction (on the same 256-bit
// registers). A 1080p 4:2:0 picture into 720x486 4:2:2 takes about 0.58 ms on a Zen 4 core
// (0.70 ms with AVX2 alone; bench_convert_scaler); the first version of this scaler, which
// took the scaling from about two fifths of a 1080p conversion's processor time to about a
// quarter, took 0.93 ms. Every path gives exactly the bytes of the plain arithmetic.
//
// The kernels and the sample positions are libswscale's defaults (cubic with a = -0.6; samples
// at their centres in each plane's own grid), so a picture comes out as ffmpeg's scale filter
// makes it, to within rounding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zub {

// The part of a scaled picture to make (all of it when width or height is 0): a picture scaled
// beyond the frame is made only as far as it shows.
struct PlaneWindow {
    int x = 0, y = 0, width = 0, height = 0;
    bool operator==(const PlaneWindow&) const = default;
};

class PlaneScaler {
public:
    enum class Kernel { Bilinear, Bicubic };

    using Window = PlaneWindow;

    // False for sizes outside 1..32768 or a window outside the scaled picture. The filters are
    // built once per shape.
    // ratioX / ratioY, when given, replace srcWidth / dstWidth and srcHeight / dstHeight as the
    // step between samples: a chroma plane follows its picture's own ratio, which its rounded
    // sizes miss when a side is odd. phaseX moves every output across by that part of an
    // output sample: the chroma of a cut starting on an odd column sits between its own.
    bool Configure(int srcWidth, int srcHeight, int dstWidth, int dstHeight, Kernel kernel, Window window = {},
                   double ratioX = 0, double ratioY = 0, double phaseX = 0);
    // Scales src (srcWidth x srcHeight, rows srcStride bytes apart) into dst, which holds the
    // window.
    void Scale(const std::uint8_t* src, std::ptrdiff_t srcStride, std::uint8_t* dst, std::ptrdiff_t dstStride);

    // One direction's filter: for output i, `width` weights (sum 1 << kWeightBits) starting at
    // source sample start[i]; the taps beyond the source were folded onto its edge samples.
    struct Filter {
        int width = 0;
        std::vector<int> start;
        std::vector<std::int16_t> weights;  // width per output
    };
    static constexpr int kWeightBits = 14;
    static Filter MakeFilter(int srcSize, int dstSize, Kernel kernel, double ratio = 0, double phase = 0);

    // The arithmetic a scaler runs: plain, AVX2, or AVX2 with the fused multiply-add of
    // AVX-512 VNNI (on 256-bit registers), the best the processor has unless told otherwise.
    enum class Code { Plain, Avx2, Best };
    // For tests and benchmarks: every scaler configured afterwards runs at most `code`, so that
    // the paths can be compared on one machine. Returns whether the processor has all of it.
    static bool LimitCode(Code code);

private:
    static void Keep(Filter& f, int first, int count);
    void PlanRowPairs();
    void PlanAcross();

    // The vector pass makes two output rows at a time from one run of source rows taken in
    // pairs: each pair is widened once and serves both rows (whose windows mostly overlap).
    // Each output row has one weight pair per source pair (zero outside its own window).
    struct RowPair {
        int first = 0;         // the run's first source row
        int pairs = 0;         // source row pairs in the run
        int endUpper = 0;      // the upper row's weights are zero from this pair on
        int beginLower = 0;    // and the lower row's before this one
        std::size_t weights = 0;  // offset of the upper row's pair weights; the lower row's follow
    };

    int srcW_ = 0, srcH_ = 0, dstW_ = 0, dstH_ = 0;  // dst: the window's size
    int scaledW_ = 0, scaledH_ = 0;
    Window window_;
    double ratioX_ = 0, ratioY_ = 0, phaseX_ = 0;
    Kernel kernel_ = Kernel::Bicubic;
    Filter h_, v_;
    bool vector_ = false, fused_ = false;
    std::vector<RowPair> rowPairs_;
    std::vector<std::int32_t> pairWeights_;  // two 16-bit weights per word, the upper row's in the low half
    // Across, eight rows at a time: output i takes acrossTaps_ pair weights from column pair
    // acrossFirst_[i] of the rows laid out as column pairs (laid_).
    std::vector<int> acrossFirst_;
    std::vector<std::int32_t> acrossWeights_;
    int acrossTaps_ = 0, laidPairs_ = 0;
    int columnsFrom_ = 0, columnsTo_ = 0;  // the columns filtered down: those filtered across
    std::vector<std::int32_t> laid_;
    std::ptrdiff_t midStride_ = 0;
    std::vector<std::int16_t> column_;  // rows filtered down, before they are filtered across
};

}  // namespace zub
