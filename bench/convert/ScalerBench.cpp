// The frame path's plane scaler on its own, at the shapes a conversion into the 720x486 frame
// meets: HD luma and its 4:2:0 chroma planes (made 4:2:2, so more rows than they had), a whole
// such picture, the bilinear kernel, and a 720-line source. One iteration is one plane (or
// one picture for the "Picture" rows), so the time shown is milliseconds per frame.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "convert/PlaneScaler.h"

using zub::PlaneScaler;

namespace {

// Rows as a decoder hands them over: a stride rounded up past the width.
struct Plane {
    int width = 0, height = 0, stride = 0;
    std::vector<std::uint8_t> bytes;
};

// Shading, texture, hard edges and noise: a flat picture would let every weight look alike.
Plane Picture(int w, int h, unsigned seed)
{
    Plane p;
    p.width = w;
    p.height = h;
    p.stride = (w + 63) / 64 * 64;
    p.bytes.assign(static_cast<std::size_t>(p.stride) * h, 0);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> noise(-12, 12);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double v = 128 + 70 * std::sin(x * 0.013 + y * 0.021) + 30 * std::sin(x * 0.31) * std::cos(y * 0.17);
            if ((x / 37 + y / 23) % 5 == 0) v = v > 128 ? 235 : 16;
            p.bytes[static_cast<std::size_t>(y) * p.stride + x] =
                static_cast<std::uint8_t>(std::clamp(static_cast<int>(v) + noise(rng), 0, 255));
        }
    return p;
}

void ScalePlane(benchmark::State& state, int sw, int sh, int dw, int dh, PlaneScaler::Kernel kernel)
{
    const Plane src = Picture(sw, sh, 1);
    std::vector<std::uint8_t> dst(static_cast<std::size_t>(dw) * dh);
    PlaneScaler scaler;
    if (!scaler.Configure(sw, sh, dw, dh, kernel)) {
        state.SkipWithError("the scaler refused the shape");
        return;
    }
    for (auto _ : state) {
        scaler.Scale(src.bytes.data(), src.stride, dst.data(), dw);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

// A whole 4:2:0 picture into 4:2:2 planes, as the frame path scales it, with the best code the
// processor has or at most `code` (the AVX2 baseline on a processor that has more).
void ScalePicture(benchmark::State& state, int sw, int sh, int dw, int dh, PlaneScaler::Kernel kernel,
                  PlaneScaler::Code code = PlaneScaler::Code::Best)
{
    if (!PlaneScaler::LimitCode(code) && code != PlaneScaler::Code::Best) {
        PlaneScaler::LimitCode(PlaneScaler::Code::Best);
        state.SkipWithError("the processor lacks that code");
        return;
    }
    const Plane y = Picture(sw, sh, 1), u = Picture(sw / 2, sh / 2, 2), v = Picture(sw / 2, sh / 2, 3);
    std::vector<std::uint8_t> dy(static_cast<std::size_t>(dw) * dh), du(static_cast<std::size_t>(dw / 2) * dh),
        dv(du.size());
    PlaneScaler luma, chroma;
    const bool configured = luma.Configure(sw, sh, dw, dh, kernel) && chroma.Configure(sw / 2, sh / 2, dw / 2, dh, kernel);
    PlaneScaler::LimitCode(PlaneScaler::Code::Best);
    if (!configured) {
        state.SkipWithError("the scaler refused the shape");
        return;
    }
    for (auto _ : state) {
        luma.Scale(y.bytes.data(), y.stride, dy.data(), dw);
        chroma.Scale(u.bytes.data(), u.stride, du.data(), dw / 2);
        chroma.Scale(v.bytes.data(), v.stride, dv.data(), dw / 2);
        benchmark::DoNotOptimize(dy.data());
        benchmark::DoNotOptimize(du.data());
        benchmark::DoNotOptimize(dv.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

constexpr auto kBicubic = PlaneScaler::Kernel::Bicubic;
constexpr auto kBilinear = PlaneScaler::Kernel::Bilinear;

}  // namespace

BENCHMARK_CAPTURE(ScalePlane, Luma1080Bicubic, 1920, 1080, 720, 486, kBicubic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePlane, Chroma540Bicubic, 960, 540, 360, 486, kBicubic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePicture, Picture1080Bicubic, 1920, 1080, 720, 486, kBicubic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePicture, Picture1080BicubicAvx2, 1920, 1080, 720, 486, kBicubic, PlaneScaler::Code::Avx2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePicture, Picture1080BicubicPlain, 1920, 1080, 720, 486, kBicubic, PlaneScaler::Code::Plain)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePlane, Luma1080Bilinear, 1920, 1080, 720, 486, kBilinear)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePlane, Chroma540Bilinear, 960, 540, 360, 486, kBilinear)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePlane, Luma720Bicubic, 1280, 720, 720, 486, kBicubic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ScalePlane, Chroma360Bicubic, 640, 360, 360, 486, kBicubic)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
