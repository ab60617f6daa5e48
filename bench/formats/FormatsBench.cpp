// The scratch copy an MXF OP-Atom source is read from (5 s of 1080p DNxHD, 110 MB), against
// ffmpeg's command-line stream copy of the same file; and a minute of 16-bit stereo sound
// through the movie route's pass-through into a WAVE file.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "graph/SourceFacts.h"
#include "quicktime/QuickTimeSource.h"
#include "TempDir.h"
#include "Tool.h"

namespace {

zub::test::TempDir& Dir()
{
    static zub::test::TempDir dir;
    return dir;
}

const std::string& OpAtom()
{
    static const std::string path = [] {
        const std::string p = Dir() / "atom.mxf";
        zub::test::Capture("ffmpeg -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25:duration=5 -c:v dnxhd -b:v 175M "
                           "-pix_fmt yuv422p -f mxf_opatom '" + p + "'");
        return p;
    }();
    return path;
}

void BM_GraphCopyOpAtom(benchmark::State& state)
{
    ::setenv("TMPDIR", Dir().Path().c_str(), 1);
    const std::string source = OpAtom();  // made before the clock runs
    for (auto _ : state) {
        std::shared_ptr<const zub::GraphCopy> copy;
        std::string why;
        if (!zub::MakeGraphCopy(source, &copy, &why)) state.SkipWithError(why.c_str());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(std::filesystem::file_size(OpAtom())));
}
BENCHMARK(BM_GraphCopyOpAtom)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FfmpegCopyOpAtom(benchmark::State& state)
{
    const std::string out = Dir() / "ffmpeg-copy.mov";
    const std::string source = OpAtom();
    for (auto _ : state) {
        int status = 0;
        zub::test::Capture("ffmpeg -v error -y -i '" + OpAtom() + "' -map 0:v -c copy '" + out + "'", &status);
        if (status != 0) state.SkipWithError("ffmpeg failed");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(std::filesystem::file_size(OpAtom())));
}
BENCHMARK(BM_FfmpegCopyOpAtom)->Unit(benchmark::kMillisecond)->UseRealTime();

// A minute of stereo 'twos' at 48 kHz, as ffmpeg's muxer writes it (1,024-frame samples): the
// pass-through now holds every sample's bytes until they leave in whole frames.
const std::string& BigSampleMovie()
{
    static const std::string path = [] {
        const std::string p = Dir() / "big.mov";
        zub::test::Capture("ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=60 -ac 2 -c:a pcm_s16be '" +
                           p + "'");
        return p;
    }();
    return path;
}

void BM_PassThroughSound(benchmark::State& state)
{
    const std::string wav = Dir() / "out.wav";
    const std::string movie = BigSampleMovie();
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        zub::CQuickTimeAudioSource audio;
        if (!audio.Open(movie.c_str())) {
            state.SkipWithError(audio.LastError().c_str());
            break;
        }
        bool more = true;
        while (more && audio.ConvertChunk(wav.c_str(), more)) {
        }
        bytes = audio.BytesWritten();
        audio.Finish(true);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_PassThroughSound)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
