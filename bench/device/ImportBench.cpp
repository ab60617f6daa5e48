// Frames per second of importing 720 x 486 frames through the device object into the
// substitute recorder: compressed at 5 MB/s, uncompressed, and compressed with fixed field
// size. Clips of 240 frames are written to a scratch volume under $TMPDIR and removed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "zubimport/Platform.h"

using namespace zub;

namespace {

constexpr int kWidth = 720, kHeight = 486, kClipFrames = 240;

std::vector<std::uint8_t> Frame()
{
    std::vector<std::uint8_t> h(40 + kWidth * kHeight * 4);
    BITMAPINFOHEADER bi{};
    bi.biSize = 40;
    bi.biWidth = kWidth;
    bi.biHeight = kHeight;
    bi.biPlanes = 1;
    bi.biBitCount = 32;
    std::memcpy(h.data(), &bi, 40);
    std::uint8_t* p = h.data() + 40;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x, p += 4) {
            p[0] = static_cast<std::uint8_t>(x * 255 / kWidth);
            p[1] = static_cast<std::uint8_t>(y * 255 / kHeight);
            p[2] = static_cast<std::uint8_t>(128 + 100 * std::sin((x + y) / 30.0));
            p[3] = 255;
        }
    return h;
}

void Import(benchmark::State& state, bool uncompressed, bool fixed)
{
    const std::string folder =
        (std::filesystem::temp_directory_path() / ("zubbench-" + std::to_string(getpid()))).string() + "/";
    std::filesystem::create_directories(folder);
    setenv("ZUBREC_VOLUME", folder.c_str(), 1);
    CRecorderDeviceInfo dev;
    if (!dev.OpenDeviceWithInfo(1, 0, 0)) {
        state.SkipWithError(CRecorderDevice::GetError().c_str());
        return;
    }
    const auto frame = Frame();
    ClipSpec spec;
    spec.frames = kClipFrames;
    spec.videoRate = uncompressed ? -1 : 5 * 1024 * 1024;
    spec.videoUncompressed = uncompressed;
    spec.fixedFieldSize = fixed;
    ClipItems items;
    int clip = 0, n = kClipFrames;
    for (auto _ : state) {
        if (n == kClipFrames) {
            state.PauseTiming();
            dev.ReleaseItem(items.video);
            std::filesystem::remove(spec.path);
            spec.path = folder + "bench" + std::to_string(clip++) + ".zub";
            if (dev.CreateClipItem(spec, items) != ClipStatus::Ok) {
                state.SkipWithError(CRecorderDevice::GetError().c_str());
                break;
            }
            n = 0;
            state.ResumeTiming();
        }
        FrameImport f;
        f.videoItem = items.video;
        f.frame = n++;
        f.data = frame.data();
        f.videoRate = spec.videoRate;
        f.videoType = VideoTypeFor(uncompressed);
        if (!dev.ImportFrame(f)) {
            state.SkipWithError(CRecorderDevice::GetError().c_str());
            break;
        }
    }
    dev.ReleaseItem(items.video);
    dev.CloseDevice();
    std::filesystem::remove_all(folder);
    state.SetItemsProcessed(state.iterations());
    state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Import5MBs(benchmark::State& s) { Import(s, false, false); }
void BM_ImportUncompressed(benchmark::State& s) { Import(s, true, false); }
void BM_Import5MBsFixedFieldSize(benchmark::State& s) { Import(s, false, true); }

BENCHMARK(BM_Import5MBs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ImportUncompressed)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Import5MBsFixedFieldSize)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    setenv(kRecorderDirVariable, ZUB_BENCH_LIB_DIR, 0);
    setenv("ZUBREC_MONITOR", "off", 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
