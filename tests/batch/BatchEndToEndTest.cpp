// A mixed list through the module's own importers: the conversion engine for video and audio
// rows, the image sequence run for the still, the MXF unwrapper for the .mxf row. What each
// row made is read back by zubclip and sox, tools that do not share the run's code.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/batch/BatchRunSupport.h"
#include "Tool.h"
#include "batch/Companion.h"
#include "batch/TypeFilter.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

using namespace zub;
using namespace zub::batch;
using namespace zub::test;
namespace fs = std::filesystem;

namespace {

std::set<std::string> Listing(const fs::path& folder)
{
    std::set<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(folder)) out.insert(e.path().string());
    return out;
}

// Frame count of a clip as zubclip reads it from the file ("frames written" in its header).
long ZubclipFrames(const std::string& clip, std::string* text)
{
    *text = Capture("'" ZUB_TEST_ZUBCLIP "' info '" + clip + "' 2>&1");
    std::istringstream in(*text);
    for (std::string line; std::getline(in, line);) {
        std::string lower = line;
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        const auto at = lower.find("frames written");
        if (at == std::string::npos) continue;
        const auto digit = line.find_first_of("0123456789", at);
        if (digit != std::string::npos) return std::stol(line.substr(digit));
    }
    return -1;
}

}  // namespace

TEST(BatchEndToEnd, MixedListThroughTheModuleImporters)
{
    TempDir vol, src, tmp;
    UseTestVolume(vol);
    // The test runs from bin/, the still reader lives in lib/.
    ::setenv("ZUBIMPORT_IMAGING_LIBRARY", ZUB_TEST_IMAGING_LIBRARY, 1);
    ::setenv("TMPDIR", tmp.Path().c_str(), 1);
    ImportSettings& s = CurrentSettings();
    s = ImportSettings{};
    s.videoDir = vol.Path().string() + "/";
    s.audioDir = vol.Path().string() + "/";
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scoped(prompt);

    // The sources, made now.
    auto preset = [&](const char* name, const std::string& file) {
        testmedia::MediaSpec spec;
        EXPECT_TRUE(testmedia::Preset(name, &spec));
        std::string error;
        EXPECT_TRUE(testmedia::MakeMedia(src / file, spec, &error)) << error;
        return src / file;
    };
    const std::string mp4 = preset("mp4_h264_aac", "movie.mp4");
    const std::string mov = preset("mov_sowt", "movie.mov");
    const std::string wav = preset("wav_s16_stereo", "tone.wav");
    const std::string mxf = src / "clip.MXF";
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=720x576:rate=25", "-f", "lavfi", "-i",
                   "sine=frequency=1000:sample_rate=48000", "-t", "1", "-c:v", "mpeg2video", "-c:a", "pcm_s16le", "-f",
                   "mxf", mxf}),
              0);
    const std::string tga = src / "still.tga";
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=720x576", "-frames:v", "1", tga}), 0);
    const std::string xyz = src / "notes.xyz";
    fs::copy_file(mp4, xyz);
    const std::string broken = src / "broken.mov";
    std::ofstream(broken) << std::string(5000, 'x');
    std::map<std::string, std::string> sums;
    for (const auto& e : fs::directory_iterator(src.Path())) sums[e.path().string()] = Slurp(e.path().string());

    ForgetCapturedRangesForTesting();
    const TypeFilter filter(0);
    std::vector<BatchRow> rows;
    for (const std::string& f : {mp4, mov, wav, mxf, tga, xyz, broken}) {
        BatchRow r;
        r.fileName = f;
        r.type = filter.Classify(f);
        rows.push_back(r);
    }
    // The shared database's MP4 globs name none of the video filter's extensions, so an .mp4
    // joins only the audio filter and imports as sound; the same movie under an unknown
    // extension falls back to video.
    EXPECT_EQ(rows[0].type, kTypeAudio);
    EXPECT_EQ(rows[1].type, kTypeVideo);
    EXPECT_EQ(rows[2].type, kTypeAudio);
    EXPECT_EQ(rows[3].type, kTypeVideo);
    EXPECT_EQ(rows[4].type, kTypeImages);
    EXPECT_EQ(rows[5].type, kTypeVideo);

    ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(1, 0, 0), 1) << CRecorderDevice::GetError();
    const std::set<std::string> before = Listing(vol.Path());
    BatchRunOptions options;
    options.moduleFolder = fs::path(ZUB_TEST_MXFWRAP).parent_path().string();
    const BatchRunResult run = RunBatch(rows, options);

    std::set<std::string> made;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const BatchRowResult& r = run.rows[i];
        SCOPED_TRACE(rows[i].fileName + " -> " + r.result);
        if (rows[i].fileName == broken) {
            EXPECT_FALSE(r.ok);
            EXPECT_FALSE(r.result.empty());
            continue;
        }
        EXPECT_TRUE(r.ok);
        for (const std::string& p : {r.clipPath, r.secondPath}) {
            if (p.empty()) continue;
            made.insert(p);
            const std::string ext = fs::path(p).extension().string();
            if (ext == ".zub") {
                std::string text;
                const long frames = ZubclipFrames(p, &text);
                EXPECT_EQ(frames, static_cast<long>(TheRecorder().QueryFileLength(p.c_str()))) << text;
                EXPECT_GE(frames, 1) << text;
                if (rows[i].type != kTypeImages) {
                    EXPECT_GE(frames, 20) << text;
                    EXPECT_LE(frames, 40) << text;
                } else {
                    EXPECT_EQ(frames, 1) << text;
                }
            } else {
                EXPECT_EQ(CaptureLine("sox --i -b '" + p + "'"), "16") << p;
                const double seconds = std::atof(CaptureLine("sox --i -D '" + p + "'").c_str());
                EXPECT_NEAR(seconds, 1.0, 0.2) << p;
            }
        }
        // Each kind made what it should: a clip for video and stills, sound for audio.
        const auto ext = [](const std::string& p) { return p.empty() ? std::string() : fs::path(p).extension().string(); };
        const std::set<std::string> kinds = {ext(r.clipPath), ext(r.secondPath)};
        if (rows[i].type == kTypeAudio) {
            EXPECT_TRUE(r.secondPath.empty());
            EXPECT_TRUE(kinds.count(".wav") || kinds.count(".dva"));
        } else {
            EXPECT_TRUE(kinds.count(".zub"));
        }
        if (rows[i].type == kTypeVideo && rows[i].fileName != tga) {
            EXPECT_TRUE(kinds.count(".wav") || kinds.count(".dva")) << "the movie's sound is missing";
        }
        if (rows[i].fileName == mxf) {
            EXPECT_EQ(fs::path(r.secondPath).stem(), "clip");  // named after the MXF, not its temporary copy
        }
    }
    TheRecorder().CloseDevice();
    EXPECT_TRUE(run.anyFailed);
    EXPECT_FALSE(run.closeDialog);

    // Nothing is left of the broken row, and nothing beyond what the rows reported.
    for (const std::string& p : Listing(vol.Path())) {
        if (!before.count(p)) {
            EXPECT_TRUE(made.count(p)) << "left behind: " << p;
        }
    }
    // The unwrapped copy is gone and no source was touched.
    EXPECT_TRUE(fs::is_empty(tmp.Path()));
    for (const auto& [path, bytes] : sums) EXPECT_EQ(Slurp(path), bytes) << path;
    ::unsetenv("TMPDIR");
    s = ImportSettings{};
}
