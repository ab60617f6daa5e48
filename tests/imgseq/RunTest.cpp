// The image sequence import run on the substitute recorder: clips read back through zubclip
// and ffmpeg, questions answered by a script.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "RefuseRateRecord.h"
#include "tests/imgseq/RunTestSupport.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/ImgSeqRun.h"
#include "imgseq/SequenceNaming.h"

using namespace zub;
using namespace zub::test;

namespace {

struct Answers {
    std::shared_ptr<ScriptedPrompt> prompt;
    ScopedPrompter scope;
    explicit Answers(std::vector<Answer> a = {})
        : prompt(std::make_shared<ScriptedPrompt>(std::move(a))), scope(prompt)
    {
    }
    std::vector<std::string> Texts() const { return prompt->Texts(); }
};

std::string LoadFailedText(const std::string& path)
{
    return "Failed to load image into memory:\n" + path + "\nContinue ?";
}

void Truncate(const std::string& path, std::uintmax_t keep)
{
    std::filesystem::resize_file(path, keep);
}

// Compressed 3 MB/s, Fit All, bicubic, "Normal": the usual choices.
void UsualSettings()
{
    ImportSettings& s = CurrentSettings();
    s.videoUncompressed = 0;
    s.videoDataRate = 3 * 1024 * 1024;
    s.createAlpha = 0;
    s.fixedFieldSize = 0;
    s.fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic);
    s.swapFields = 0;
    s.shiftDown = 0;
}

double PsnrBgr(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b)
{
    if (a.size() != b.size() || a.empty()) return 0;
    double se = 0;
    std::size_t n = 0;
    for (std::size_t i = 0; i < a.size(); i += 4)
        for (int c = 0; c < 3; ++c) {
            const double d = double(a[i + c]) - b[i + c];
            se += d * d;
            ++n;
        }
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / (se / n));
}

}  // namespace

TEST(ImgSeqRun, EmptyListMakesNothingAndAsksNothing)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened()) << CRecorderDevice::GetError();
    Answers answers;
    ImgSeqRunRequest req;
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_TRUE(r.clipPath.empty());
    EXPECT_EQ(r.framesWritten, 0);
    EXPECT_TRUE(vol.Clips().empty());
    EXPECT_TRUE(answers.Texts().empty());
}

class ImgSeqFormats : public ::testing::TestWithParam<const char*> {};

// Every image lands in its own frame, in list order, in any of the readable formats.
TEST_P(ImgSeqFormats, WritesEveryFrameInOrder)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened()) << CRecorderDevice::GetError();
    UsualSettings();
    const auto files = MakeStills(vol.ImageDir(), "shot", GetParam(), 8, 400, 300, 1, 40);
    ASSERT_EQ(files.size(), 8u);
    Answers answers;
    std::vector<int> progress;
    ImgSeqRunRequest req;
    req.files = files;
    req.progress = [&](int done, int total) {
        EXPECT_EQ(total, 8);
        progress.push_back(done);
    };
    const ImgSeqRunResult r = RunImageSequence(req);
    ASSERT_EQ(r.endCode, 1) << r.message;
    EXPECT_EQ(r.clipPath, vol.ClipDir() + "shot.zub");
    EXPECT_EQ(r.framesWritten, 8);
    EXPECT_FALSE(r.keptPartial);
    EXPECT_EQ(progress, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_TRUE(answers.Texts().empty());
    EXPECT_EQ(FramesReadable(r.clipPath), 8);
    const auto frames = ExportFrames(r.clipPath, vol.Path("out"), 720, 486);
    ASSERT_EQ(frames.size(), 8u);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(FrameNumberOf(frames[i]), 40 + i) << "frame " << i;
}

INSTANTIATE_TEST_SUITE_P(Formats, ImgSeqFormats, ::testing::Values("tga", "jpg", "bmp", "tif", "sgi"));

// What the clip holds is what the fitting makes of each image (through the recorder's 4:2:2
// store), not a neighbour's picture; with decode workers and without.
TEST(ImgSeqRun, FramesMatchTheFittingOfTheSameImages)
{
    for (int threads : {0, 3}) {
        SCOPED_TRACE(threads);
        Volume vol;
        ASSERT_TRUE(vol.Opened()) << CRecorderDevice::GetError();
        UsualSettings();
        CurrentSettings().videoUncompressed = 1;
        CurrentSettings().fitWord = MakeFitWord(kFitAll, kAreaSafeImage, kResizeBiLinear);
        const auto files = MakeStills(vol.ImageDir(), "fit", "tga", 5, 640, 360);
        ASSERT_EQ(files.size(), 5u);
        ImgSeqRunRequest req;
        req.files = files;
        req.decodeThreads = threads;
        const ImgSeqRunResult r = RunImageSequence(req);
        ASSERT_EQ(r.endCode, 1) << r.message;
        const auto frames = ExportFrames(r.clipPath, vol.Path("out"), 720, 486);
        ASSERT_EQ(frames.size(), 5u);
        for (int i = 0; i < 5; ++i) {
            FrameHolder holder;
            std::string err;
            ASSERT_TRUE(LoadFrame(files[i], CurrentSettings().fitWord, false, false, {720, 486}, holder, &err)) << err;
            std::vector<std::uint8_t> expect(std::size_t(720) * 486 * 4);
            for (int y = 0; y < 486; ++y)
                std::memcpy(expect.data() + std::size_t(y) * 720 * 4, holder.Pixels() + std::size_t(485 - y) * 720 * 4,
                            720 * 4);
            EXPECT_GT(PsnrBgr(frames[i].bgra, expect), 34.0) << "frame " << i;
            if (i > 0) {
                EXPECT_LT(PsnrBgr(frames[i - 1].bgra, expect), 30.0) << "frame " << i << " is its neighbour";
            }
        }
    }
}

TEST(ImgSeqRun, LoadFailureAnsweredNoDeletesTheClip)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    auto files = MakeStills(vol.ImageDir(), "bad", "tga", 5);
    ASSERT_EQ(files.size(), 5u);
    Truncate(files[2], 30);
    Answers answers({Answer::No});
    ImgSeqRunRequest req;
    req.files = files;
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_TRUE(r.clipPath.empty());
    EXPECT_EQ(answers.Texts(), std::vector<std::string>{LoadFailedText(files[2])});
    EXPECT_EQ(r.message, LoadFailedText(files[2]));
    EXPECT_EQ(answers.prompt->Requests()[0].buttons, Buttons::YesNo);
    EXPECT_EQ(answers.prompt->Requests()[0].icon, Icon::Question);
    EXPECT_TRUE(vol.Clips().empty());
}

// Yes goes on to import that frame although nothing loaded: the recorder refuses an empty
// frame, which is the import question; Yes again keeps going.
TEST(ImgSeqRun, LoadFailureAnsweredYesStillAttemptsTheFrame)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    auto files = MakeStills(vol.ImageDir(), "bad", "jpg", 5);
    ASSERT_EQ(files.size(), 5u);
    { std::ofstream(files[1], std::ios::binary | std::ios::trunc) << "not a picture"; }
    Answers answers({Answer::Yes, Answer::Yes});
    ImgSeqRunRequest req;
    req.files = files;
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 1) << r.message;
    EXPECT_EQ(answers.Texts(),
              (std::vector<std::string>{LoadFailedText(files[1]), "Failed to import image into video file.  Continue ?"}));
    EXPECT_EQ(r.framesWritten, 4);
    ASSERT_EQ(vol.Clips(), std::vector<std::string>{"bad.zub"});
    // The frames after the refused one are there, at their own indexes; the reader stops at
    // the hole.
    const std::string info = ClipInfo(r.clipPath);
    EXPECT_NE(info.find("frames written (header): 5"), std::string::npos) << info;
    EXPECT_EQ(FramesReadable(r.clipPath), 1);
}

TEST(ImgSeqRun, ImportFailureAnsweredNoDiscards)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    auto files = MakeStills(vol.ImageDir(), "bad", "tga", 4);
    Truncate(files[3], 10);
    Answers answers({Answer::Yes, Answer::No});
    ImgSeqRunRequest req;
    req.files = files;
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_EQ(answers.Texts().size(), 2u);
    EXPECT_TRUE(vol.Clips().empty());
}

TEST(ImgSeqRun, AbortKeepingGivesAShorterClipWithItsRateRecord)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    CurrentSettings().videoUncompressed = 1;
    const auto files = MakeStills(vol.ImageDir(), "abort", "tga", 10);
    std::atomic<int> abort{0};
    Answers answers;
    ImgSeqRunRequest req;
    req.files = files;
    req.abortRequest = &abort;
    req.frameDone = [&](int frame, const FrameHolder*) {
        if (frame == 3) abort = 1;  // seen before frame 4
    };
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 1);
    EXPECT_TRUE(r.keptPartial);
    EXPECT_EQ(r.framesWritten, 4);
    EXPECT_EQ(FramesReadable(r.clipPath), 4);
    EXPECT_EQ(RateSectors(r.clipPath), 17476);
    EXPECT_TRUE(answers.Texts().empty());
}

TEST(ImgSeqRun, AbortDiscardingLeavesNoFile)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    const auto files = MakeStills(vol.ImageDir(), "abort", "tga", 10);
    std::atomic<int> abort{0};
    ImgSeqRunRequest req;
    req.files = files;
    req.abortRequest = &abort;
    req.progress = [&](int done, int) {
        if (done == 5) abort = -1;
    };
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_TRUE(r.clipPath.empty());
    EXPECT_EQ(r.framesWritten, 5);
    EXPECT_TRUE(vol.Clips().empty());
}

TEST(ImgSeqRun, AbortQuestionMapsItsThreeAnswers)
{
    Answers answers({Answer::Yes, Answer::No, Answer::Cancel});
    EXPECT_EQ(AskAbortQuestion(), -1);
    EXPECT_EQ(AskAbortQuestion(), 1);
    EXPECT_EQ(AskAbortQuestion(), 0);
    ASSERT_EQ(answers.prompt->Requests().size(), 3u);
    EXPECT_EQ(answers.prompt->Requests()[0].text, kAbortQuestion);
    EXPECT_EQ(answers.prompt->Requests()[0].buttons, Buttons::YesNoCancel);
}

TEST(ImgSeqRun, BatchModeTakesTheNextFreeNameAndAsksNothing)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    const auto files = MakeStills(vol.ImageDir(), "clip", "jpg", 3);
    Answers answers;
    ImgSeqRunRequest req;
    req.files = files;
    req.clipName = "clip";
    const ImgSeqRunResult first = RunImageSequence(req);
    ASSERT_EQ(first.endCode, 1) << first.message;
    const auto before = std::filesystem::last_write_time(first.clipPath);

    // A person is told the name is taken.
    const ImgSeqRunResult taken = RunImageSequence(req);
    EXPECT_EQ(taken.endCode, 2);
    EXPECT_EQ(answers.Texts(), std::vector<std::string>{vol.ClipDir() + "clip.zub exists already."});

    req.batchProcess = true;
    const ImgSeqRunResult second = RunImageSequence(req);
    ASSERT_EQ(second.endCode, 1) << second.message;
    EXPECT_EQ(second.clipPath, vol.ClipDir() + "clip2.zub");
    EXPECT_EQ(FramesReadable(second.clipPath), 3);
    EXPECT_EQ(std::filesystem::last_write_time(first.clipPath), before);
    EXPECT_EQ(answers.Texts().size(), 1u);
    EXPECT_EQ(vol.Clips(), (std::vector<std::string>{"clip.zub", "clip2.zub"}));
}

TEST(ImgSeqRun, BatchModeDiscardsOnAnyFailureWithoutAsking)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    auto files = MakeStills(vol.ImageDir(), "b", "tga", 4);
    Truncate(files[2], 20);
    Answers answers;
    ImgSeqRunRequest req;
    req.files = files;
    req.batchProcess = true;
    const ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_EQ(r.message, LoadFailedText(files[2]));
    EXPECT_TRUE(answers.Texts().empty());
    EXPECT_TRUE(vol.Clips().empty());
}

// (0xFFFFFFFF / fps) >> 9 for an uncompressed clip; the rate over fps for a compressed one.
TEST(ImgSeqRun, RateRecordFollowsTheStandardAndTheFilmRateFlag)
{
    EXPECT_EQ(RateRecordSectors(-1, 30), 17476);
    EXPECT_EQ(RateRecordSectors(-1, 25), 7864);
    EXPECT_EQ(RateRecordSectors(-1, 24), 21845);
    EXPECT_EQ(RunFramesPerSecond(false, 525), 30);
    EXPECT_EQ(RunFramesPerSecond(false, 625), 25);
    EXPECT_EQ(RunFramesPerSecond(true, 625), 24);
    struct Case {
        const char* lines;
        int fixed;
        int uncompressed;
        int sectors;
    } cases[] = {{"525", 0, 1, 17476}, {"625", 0, 1, 7864}, {"625", 1, 1, 21845}, {"525", 0, 0, 3145728 / 30 >> 9}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.lines) + " fixed " + std::to_string(c.fixed));
        Volume vol(1, c.lines);
        ASSERT_TRUE(vol.Opened());
        UsualSettings();
        CurrentSettings().fixedFieldSize = c.fixed;
        CurrentSettings().videoUncompressed = c.uncompressed;
        ImgSeqRunRequest req;
        req.files = MakeStills(vol.ImageDir(), "rate", "tga", 2);
        const ImgSeqRunResult r = RunImageSequence(req);
        ASSERT_EQ(r.endCode, 1) << r.message;
        EXPECT_EQ(RateSectors(r.clipPath), c.sectors);
    }
}

TEST(ImgSeqRun, TbxAndZubClipsReadBackAlike)
{
    std::vector<std::vector<Exported>> got;
    for (int useZub : {1, 0}) {
        SCOPED_TRACE(useZub);
        Volume vol(useZub, "625");
        ASSERT_TRUE(vol.Opened()) << CRecorderDevice::GetError();
        UsualSettings();
        CurrentSettings().createAlpha = 1;
        CurrentSettings().alphaSameAsVideo = 1;
        ImgSeqRunRequest req;
        req.files = MakeStills(vol.ImageDir(), "both", "tga", 4, 720, 576);
        const ImgSeqRunResult r = RunImageSequence(req);
        ASSERT_EQ(r.endCode, 1) << r.message;
        const std::string info = ClipInfo(r.clipPath);
        EXPECT_NE(info.find("frames readable: video 4, key 4"), std::string::npos) << info;
        EXPECT_EQ(RateSectors(r.clipPath), (3145728 / 25) >> 9);
        got.push_back(ExportFrames(r.clipPath, vol.Path("out"), 720, 576));
    }
    ASSERT_EQ(got.size(), 2u);
    ASSERT_EQ(got[0].size(), 4u);
    ASSERT_EQ(got[1].size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(got[0][i].bgra, got[1][i].bgra) << "frame " << i;
        EXPECT_EQ(FrameNumberOf(got[0][i]), i);
    }
}

TEST(ImgSeqRun, AFullVolumeIsToldAndNothingIsMade)
{
    Volume vol(1, "525", "2M");
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    CurrentSettings().videoUncompressed = 1;  // 700 KB a frame
    const auto files = MakeStills(vol.ImageDir(), "big", "tga", 5);
    Answers answers;
    ImgSeqRunRequest req;
    req.files = files;
    ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_EQ(answers.Texts(), std::vector<std::string>{"There is not enough space in the volume."});
    req.batchProcess = true;
    r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_EQ(r.message, "There is not enough space in the volume.");
    EXPECT_EQ(answers.Texts().size(), 1u);
    EXPECT_TRUE(vol.Clips().empty());
}

namespace {

// The ZUB back-end as loaded, except that frame imports find the volume full after a few.
rec::ZubApi g_filling;
rec::ZubVideoImportFn g_realImport = nullptr;
std::atomic<int> g_importsLeft{0};
std::int32_t FillingImport(std::int32_t device, const rec::ZubImportRecord* r)
{
    if (g_importsLeft-- <= 0) return rec::kZubNoSpace;
    return g_realImport(device, r);
}

}  // namespace

TEST(ImgSeqRun, AVolumeFillingUpMidRunEndsWithTheImportQuestion)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    const auto files = MakeStills(vol.ImageDir(), "fill", "tga", 6);
    const rec::ZubApi* real = ZubBackend();
    ASSERT_NE(real, nullptr);
    g_filling = *real;
    g_realImport = real->ZubVideoImport;
    g_filling.ZubVideoImport = &FillingImport;
    struct Restore {
        ~Restore() { SetZubBackendForTesting(nullptr); }
    } restore;
    SetZubBackendForTesting(&g_filling);

    g_importsLeft = 3;
    Answers answers({Answer::No});
    ImgSeqRunRequest req;
    req.files = files;
    ImgSeqRunResult r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_EQ(r.framesWritten, 3);
    EXPECT_EQ(answers.Texts(), std::vector<std::string>{"Failed to import image into video file.  Continue ?"});
    EXPECT_TRUE(vol.Clips().empty());

    g_importsLeft = 2;
    req.batchProcess = true;
    r = RunImageSequence(req);
    EXPECT_EQ(r.endCode, 2);
    EXPECT_EQ(r.message, "Failed to import image into video file.  Continue ?");
    EXPECT_TRUE(vol.Clips().empty());
}

TEST(ImgSeqRun, ShowImagesOnOutputPutsEachFrameOnTheMonitor)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    const auto files = MakeStills(vol.ImageDir(), "mon", "tga", 3, 720, 486, 1, 7);
    std::atomic<int> show{1};
    ImgSeqRunRequest req;
    req.files = files;
    req.showOnOutput = &show;
    const ImgSeqRunResult r = RunImageSequence(req);
    ASSERT_EQ(r.endCode, 1) << r.message;
    ASSERT_TRUE(std::filesystem::exists(vol.Path("monitor.jpg")));
    // The last frame shown is the last image.
    const std::string raw = Capture("ffmpeg -v error -i " + Quote(vol.Path("monitor.jpg")) + " -f rawvideo -pix_fmt bgra -");
    const std::string size = CaptureLine("ffprobe -v error -show_entries stream=width,height -of csv=p=0 " +
                                         Quote(vol.Path("monitor.jpg")));
    ASSERT_EQ(size, "720,486");
    EXPECT_EQ(testmedia::ReadFrameNumber(testmedia::ImageView{reinterpret_cast<const std::uint8_t*>(raw.data()), 720,
                                                              486, 720 * 4, testmedia::PixelFormat::Bgra32}),
              9);
    EXPECT_EQ(CurrentSettings().showImagesOnOutput, 1);
}

// A rate record that cannot be stored is told, and the clip is kept all the same.
TEST(ImgSeqRun, AFailedRateRecordIsToldAndTheClipKept)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    UsualSettings();
    const auto files = MakeStills(vol.ImageDir(), "norate", "tga", 3);
    ImgSeqRunResult r;
    Answers answers;
    {
        const zub::test::RefuseRateRecord refuse;
        ASSERT_TRUE(refuse.Active());
        ImgSeqRunRequest req;
        req.files = files;
        r = RunImageSequence(req);
    }
    EXPECT_EQ(r.endCode, 1);
    EXPECT_EQ(answers.Texts(), std::vector<std::string>{"Failed to store video rate in file"});
    EXPECT_EQ(FramesReadable(r.clipPath), 3);
    EXPECT_EQ(RateSectors(r.clipPath), -1);  // zubclip finds no ZUBV record
}
