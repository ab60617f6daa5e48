// The recorder failing mid-job, through its fault switches: the volume fills after a given
// frame, or one frame import fails. The conversion (graph and movie routes) asks its error
// question and keeps or discards; the image sequence run asks its import question; a batch row
// fails without a question and leaves nothing.
#include "tests/reliability/Jobs.h"

using namespace zub;
using namespace zub::rel;

namespace {

constexpr int kLimit = 60;
constexpr const char* kConvertError = "Error occurred during conversion.\r\nDo you want to discard the media file ?";

struct Fault {
    const char* variable;
    const char* value;
    int wholeFrames;  // frames a kept clip holds: those before the fault
};
const Fault kFaults[] = {{"ZUBREC_FULL_AFTER", "4", 4}, {"ZUBREC_FAIL_IMPORT", "3", 2}};

class Faults : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        media_ = new TempDir;
        graph_ = MakeMovie(media_->Path().string() + "/graph.mp4", "mp4_h264_aac", 12);
        movie_ = MakeMovie(media_->Path().string() + "/movie.mov", "mov_twos", 12);
    }
    static void TearDownTestSuite() { delete media_; }
    static TempDir* media_;
    static std::string graph_, movie_;
};
TempDir* Faults::media_ = nullptr;
std::string Faults::graph_, Faults::movie_;

}  // namespace

TEST_F(Faults, ConversionAsksAndKeepsOrDiscardsOnBothRoutes)
{
    for (const Fault& f : kFaults) {
        for (const std::string& src : {graph_, movie_}) {
            for (Answer answer : {Answer::No, Answer::Yes}) {
                SCOPED_TRACE(std::string(f.variable) + "=" + f.value + " " + src + (answer == Answer::Yes ? " Yes" : " No"));
                Volume vol;
                ::setenv(f.variable, f.value, 1);
                ConvertJob job;
                job.setup = SetupFor(vol);
                job.setup.answers = {answer};
                job.source = src;
                const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(job); });
                ::unsetenv(f.variable);
                ASSERT_FALSE(o.timedOut);
                ASSERT_EQ(o.signal, 0);
                ASSERT_FALSE(o.prompts.empty()) << o.Describe();
                EXPECT_EQ(o.prompts.back(), kConvertError) << o.Describe();
                const std::string name = fs::path(src).stem().string();
                const std::string clip = vol.VideoDir() + name + ".zub";
                if (answer == Answer::Yes) {
                    EXPECT_EQ(o.endCode, 2);
                    EXPECT_TRUE(vol.Made().empty()) << ::testing::PrintToString(vol.Made());
                    continue;
                }
                EXPECT_EQ(o.endCode, 1) << o.Describe();
                EXPECT_EQ(CheckReadable(clip), "");
                const ClipRead r = ReadClip(clip);
                EXPECT_EQ(r.readable, f.wholeFrames) << r.text;
                EXPECT_EQ(r.sectors, -1) << "an errored clip gets no rate record";
                EXPECT_EQ(ClipNumbers(clip, vol.Root() + "/png"), Sequence(f.wholeFrames));
                for (const auto& m : vol.Made()) {
                    if (m.rfind("audio/", 0) == 0) {
                        EXPECT_EQ(CheckReadable(vol.Root() + "/" + m), "");
                    }
                }
            }
        }
    }
}

TEST_F(Faults, ImageSequenceAsksTheImportQuestionAndDiscards)
{
    for (const Fault& f : kFaults) {
        for (bool batch : {false, true}) {
            SCOPED_TRACE(std::string(f.variable) + (batch ? " batch" : " asked"));
            Volume vol;
            const auto stills = MakeStills(vol.Root(), "s", 6);
            ::setenv(f.variable, f.value, 1);
            ImgSeqJob job;
            job.setup = SetupFor(vol);
            job.setup.answers = {Answer::No};
            job.files = stills;
            job.batch = batch;
            const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
            ::unsetenv(f.variable);
            ASSERT_FALSE(o.timedOut);
            ASSERT_EQ(o.signal, 0);
            EXPECT_EQ(o.endCode, 2);
            EXPECT_EQ(o.message, kImportFailedText);
            EXPECT_EQ(o.prompts, batch ? std::vector<std::string>{} : std::vector<std::string>{kImportFailedText});
            EXPECT_EQ(o.frames, f.wholeFrames);
            EXPECT_TRUE(vol.Made().empty()) << ::testing::PrintToString(vol.Made());
        }
    }
}

// Answering Yes to the import question goes on: the clip is kept with the refused frame as a
// hole, and the run ends with its rate record.
TEST_F(Faults, ImageSequenceGoesOnPastAFailedImport)
{
    Volume vol;
    const auto stills = MakeStills(vol.Root(), "s", 6);
    ::setenv("ZUBREC_FAIL_IMPORT", "3", 1);
    ImgSeqJob job;
    job.setup = SetupFor(vol);
    job.setup.answers = {Answer::Yes};
    job.files = stills;
    const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
    ::unsetenv("ZUBREC_FAIL_IMPORT");
    EXPECT_EQ(o.endCode, 1) << o.Describe();
    EXPECT_EQ(o.prompts, std::vector<std::string>{kImportFailedText});
    ASSERT_EQ(o.paths.size(), 1u);
    const ClipRead r = ReadClip(o.paths[0]);
    EXPECT_EQ(r.header, 6) << r.text;
    EXPECT_EQ(r.readable, 2) << r.text;  // whole from the start up to the hole
    EXPECT_GT(r.sectors, 0) << r.text;
}

TEST_F(Faults, BatchRowFailsAndLeavesNothing)
{
    for (const Fault& f : kFaults) {
        SCOPED_TRACE(f.variable);
        Volume vol;
        const auto stills = MakeStills(vol.Root(), "s", 1);
        ::setenv(f.variable, "1", 1);
        if (std::string(f.variable) == "ZUBREC_FULL_AFTER") ::setenv(f.variable, "0", 1);
        BatchJob job;
        job.setup = SetupFor(vol);
        job.moduleFolder = vol.ModuleDir();
        batch::BatchRow video, still;
        video.fileName = graph_;
        video.type = batch::kTypeVideo;
        still.fileName = stills[0];
        still.type = batch::kTypeImages;
        job.rows = {video, still};
        const Outcome o = RunGuarded(2 * kLimit, [&] { return RunBatchJob(job); });
        ::unsetenv(f.variable);
        ASSERT_FALSE(o.timedOut);
        ASSERT_EQ(o.signal, 0);
        std::cout << o.message;
        EXPECT_EQ(o.endCode, 2);
        // A full volume fails both rows; one failing import fails only the row that met it, and
        // the next row goes on.
        const bool full = std::string(f.variable) == "ZUBREC_FULL_AFTER";
        std::istringstream lines(o.message);
        int rows = 0;
        for (std::string line; std::getline(lines, line); ++rows) {
            const auto at = line.find(": FAILED ");
            if (rows == 0 || full) {
                EXPECT_NE(at, std::string::npos) << line;
                EXPECT_TRUE(at == std::string::npos || line.size() > at + 9) << "no Result text: " << line;
            } else {
                EXPECT_EQ(at, std::string::npos) << line;
            }
        }
        EXPECT_EQ(rows, 2);
        const std::set<std::string> left = full ? std::set<std::string>{} : std::set<std::string>{"video/s.zub"};
        EXPECT_EQ(vol.Made(), left);
        if (!full) {
            EXPECT_EQ(CheckReadable(vol.VideoDir() + "s.zub"), "");
        }
    }
}
