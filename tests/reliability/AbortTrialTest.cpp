// Aborts at random moments, keep and discard, in the conversion and the image sequence run.
// Seeded (ZUB_ABORT_SEED, else the clock; the seed is printed so a failure can be replayed);
// ZUB_ABORT_TRIALS sets the trials per job (a few by default, to keep the suite short).
// Discard leaves nothing; keep leaves a clip that reads back whole up to its last frame, the
// frames in order from the first, and nothing damaged after it.
#include <random>

#include "tests/reliability/Jobs.h"

using namespace zub;
using namespace zub::rel;

namespace {

constexpr int kLimit = 60;
constexpr int kFrames = 24;

int Trials()
{
    const char* v = std::getenv("ZUB_ABORT_TRIALS");
    return v && std::atoi(v) > 0 ? std::atoi(v) : 4;
}

unsigned Seed()
{
    const char* v = std::getenv("ZUB_ABORT_SEED");
    return v && *v ? unsigned(std::strtoul(v, nullptr, 10))
                   : unsigned(std::chrono::system_clock::now().time_since_epoch().count());
}

// What a trial left, checked; returns a one-word summary for the tally.
std::string CheckTrial(const Outcome& o, const Volume& vol, bool keep, bool imgseq, int frames)
{
    EXPECT_FALSE(o.timedOut) << "hung";
    EXPECT_EQ(o.signal, 0) << "crashed";
    EXPECT_TRUE(o.endCode == 1 || o.endCode == 2) << o.Describe();
    const auto made = vol.Made();
    for (const auto& f : made) EXPECT_NE(f.rfind("tmp/", 0), 0u) << "scratch file left: " << f;
    if (o.endCode == 2) {
        // Discarded, or aborted before anything was made.
        EXPECT_TRUE(made.empty()) << ::testing::PrintToString(made) << "\n" << o.Describe();
        return keep ? "nothing-made" : "discarded";
    }
    std::string clip;
    for (const auto& f : made) {
        if (f.rfind("video/", 0) == 0) clip = vol.Root() + "/" + f;
        if (f.rfind("audio/", 0) == 0) {
            EXPECT_EQ(CheckReadable(vol.Root() + "/" + f), "");
        }
    }
    if (clip.empty()) {
        ADD_FAILURE() << "ended with 1 but no clip: " << o.Describe();
        return "no-clip";
    }
    EXPECT_EQ(CheckReadable(clip), "") << o.Describe();
    const ClipRead r = ReadClip(clip);
    // An image sequence aborted with "keep" before its first frame keeps an empty clip.
    EXPECT_GE(r.readable, imgseq && keep ? 0 : 1) << r.text;
    EXPECT_LE(r.readable, frames) << r.text;
    if (r.readable > 0) {
        EXPECT_EQ(ClipNumbers(clip, vol.Root() + "/png"), Sequence(r.readable)) << r.text;
    }
    const bool whole = r.readable == frames;
    if (!whole) {
        // Kept partial: only an abort answered "keep" does that.
        EXPECT_TRUE(keep) << "a discard left a partial clip: " << r.text;
        // The image sequence writes the rate record for a kept clip; the conversion does not.
        if (imgseq) {
            EXPECT_GT(r.sectors, 0) << r.text;
        } else {
            EXPECT_EQ(r.sectors, -1) << r.text;
        }
    }
    return whole ? "finished-first" : "kept-partial";
}

class AbortTrials : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        media_ = new TempDir;
        movie_ = MakeMovie(media_->Path().string() + "/trial.mp4", "mp4_h264_aac", kFrames);
        mov_ = MakeMovie(media_->Path().string() + "/trial.mov", "mov_twos", kFrames);
        stills_ = new std::vector<std::string>(MakeStills(media_->Path().string(), "still", kFrames));
    }
    static void TearDownTestSuite()
    {
        delete stills_;
        delete media_;
    }
    static TempDir* media_;
    static std::string movie_, mov_;
    static std::vector<std::string>* stills_;
};
TempDir* AbortTrials::media_ = nullptr;
std::string AbortTrials::movie_, AbortTrials::mov_;
std::vector<std::string>* AbortTrials::stills_ = nullptr;

}  // namespace

TEST_F(AbortTrials, Conversion)
{
    const unsigned seed = Seed();
    const int trials = Trials();
    std::cout << "[ seed ] conversion abort trials: ZUB_ABORT_SEED=" << seed << " ZUB_ABORT_TRIALS=" << trials << "\n";
    std::mt19937 rng(seed);
    std::map<std::string, int> tally;
    for (int t = 0; t < trials; ++t) {
        const bool keep = rng() % 2;
        const bool movieRoute = rng() % 2;
        // Each frame takes at least 15 ms to store: the run lasts about half a second, and
        // the abort lands anywhere from before the start to after the end.
        const int at = int(rng() % 900);
        SCOPED_TRACE("trial " + std::to_string(t) + ": " + (keep ? "keep" : "discard") + " at " + std::to_string(at) +
                     " ms, " + (movieRoute ? "movie" : "graph") + " route, seed " + std::to_string(seed));
        Volume vol;
        ::setenv("ZUBREC_WRITE_DELAY", "15", 1);
        ConvertJob job;
        job.setup = SetupFor(vol);
        job.source = movieRoute ? mov_ : movie_;
        job.abortAfterMs = at;
        job.abortAnswer = keep ? Answer::No : Answer::Yes;
        const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(job); });
        ::unsetenv("ZUBREC_WRITE_DELAY");
        ++tally[(keep ? "keep:" : "discard:") + CheckTrial(o, vol, keep, false, kFrames)];
        if (HasFailure()) break;
    }
    std::cout << "[ tally ] conversion " << ::testing::PrintToString(tally) << "\n";
}

TEST_F(AbortTrials, ImageSequence)
{
    const unsigned seed = Seed();
    const int trials = Trials();
    std::cout << "[ seed ] image sequence abort trials: ZUB_ABORT_SEED=" << seed << " ZUB_ABORT_TRIALS=" << trials << "\n";
    std::mt19937 rng(seed ^ 0x5EEDu);
    std::map<std::string, int> tally;
    for (int t = 0; t < trials; ++t) {
        const bool keep = rng() % 2;
        const int at = int(rng() % 700);
        const int threads = int(rng() % 3) - 1;  // -1 (up to four), 0 (none) or 1 worker
        SCOPED_TRACE("trial " + std::to_string(t) + ": " + (keep ? "keep" : "discard") + " at " + std::to_string(at) +
                     " ms, decode threads " + std::to_string(threads) + ", seed " + std::to_string(seed));
        Volume vol;
        ::setenv("ZUBREC_WRITE_DELAY", "15", 1);
        ImgSeqJob job;
        job.setup = SetupFor(vol);
        job.files = *stills_;
        job.abortAfterMs = at;
        job.abortAnswer = keep ? 1 : -1;
        job.decodeThreads = threads;
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
        ::unsetenv("ZUBREC_WRITE_DELAY");
        ++tally[(keep ? "keep:" : "discard:") + CheckTrial(o, vol, keep, true, kFrames)];
        if (HasFailure()) break;
    }
    std::cout << "[ tally ] image sequence " << ::testing::PrintToString(tally) << "\n";
}
