// Awkward names and awkward folders: names a shell would misread, letters beyond ASCII, a path
// one short of the limit, files the job may not read, a target folder it may not write and one
// removed under it. Each job runs in a child under a time limit.
#include "tests/reliability/Jobs.h"

using namespace zub;
using namespace zub::rel;

namespace {

constexpr int kLimit = 60;

// Everything a shell or a format string would take for its own: spaces, both quotes, ';',
// a command substitution, a percent and letters beyond ASCII.
const std::string kAwkward = "take one 'q' \"d\"; $(touch INJECTED) `touch INJECTED` 50% \xC3\xA9t\xC3\xA9 \xE5\xBD\xB1";

void ExpectNoInjection(const Volume& vol)
{
    std::error_code ec;
    EXPECT_FALSE(fs::exists("INJECTED", ec)) << "a name reached a shell";
    for (const auto& f : Listing(vol.Root())) EXPECT_NE(fs::path(f).filename(), "INJECTED") << f;
}

void ExpectSafe(const Outcome& o)
{
    EXPECT_FALSE(o.timedOut) << "the job hung";
    EXPECT_EQ(o.signal, 0) << "the job crashed";
    EXPECT_TRUE(o.reported);
    EXPECT_TRUE(o.endCode == 1 || o.endCode == 2) << o.Describe();
}

// A folder under `root` deep enough that root/…/name is exactly `length` characters.
std::string PathOfLength(const std::string& root, const std::string& ext, std::size_t length)
{
    std::string dir = root;
    while (dir.size() + 1 + 60 + ext.size() < length) dir += "/" + std::string(40, 'd');
    fs::create_directories(dir);
    const std::size_t left = length - dir.size() - 1 - ext.size();
    return dir + "/" + std::string(left, 'n') + ext;
}

}  // namespace

TEST(Names, ConversionOfAnAwkwardlyNamedMovieKeepsTheName)
{
    Volume vol;
    const std::string src = MakeMovie(vol.Root() + "/" + kAwkward + ".mp4", "mp4_h264_aac", 6);
    const std::string before = Slurp(src);
    ConvertJob job;
    job.setup = SetupFor(vol);
    job.source = src;
    const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(job); });
    ExpectSafe(o);
    EXPECT_EQ(o.endCode, 1) << o.Describe();
    const std::string clip = vol.VideoDir() + kAwkward + ".zub";
    const std::string wav = vol.AudioDir() + kAwkward + ".wav";
    EXPECT_EQ(CheckReadable(clip), "");
    EXPECT_EQ(CheckReadable(wav), "");
    EXPECT_EQ(ClipNumbers(clip, vol.Root() + "/png"), Sequence(6));
    EXPECT_EQ(Slurp(src), before);
    ExpectNoInjection(vol);
}

TEST(Names, ImageSequenceAndBatchRowWithAwkwardNames)
{
    Volume vol;
    const std::string dir = vol.Root() + "/" + kAwkward;
    fs::create_directories(dir);
    auto files = MakeStills(vol.Root(), "plain", 3);
    ASSERT_EQ(files.size(), 3u);
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string to = dir + "/" + kAwkward + " " + std::to_string(i + 1) + ".tga";
        fs::rename(files[i], to);
        files[i] = to;
    }
    {
        ImgSeqJob job;
        job.setup = SetupFor(vol);
        job.files = files;
        job.clipName = kAwkward;
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
        ExpectSafe(o);
        EXPECT_EQ(o.endCode, 1) << o.Describe();
        ASSERT_EQ(o.paths.size(), 1u);
        EXPECT_EQ(o.paths[0], vol.VideoDir() + kAwkward + ".zub");
        EXPECT_EQ(CheckReadable(o.paths[0]), "");
        EXPECT_EQ(ClipNumbers(o.paths[0], vol.Root() + "/png"), Sequence(3));
    }
    vol.Clear();
    {
        // A companion program is present and records what it was given: the name reaches it
        // whole, as one argument, and no shell ever sees it.
        const std::string companion = vol.ModuleDir() + "/Batch_Import_Video";
        WriteBytes(companion, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$0.args\"\n");
        fs::permissions(companion, fs::perms::owner_all);
        const std::string src = MakeMovie(vol.Root() + "/" + kAwkward + ".avi", "avi_mpeg4_pcm", 4);
        BatchJob job;
        job.setup = SetupFor(vol);
        job.moduleFolder = vol.ModuleDir();
        batch::BatchRow row;
        row.fileName = src;
        row.type = batch::kTypeVideo;
        row.note = "note; $(touch INJECTED)";
        job.rows.push_back(row);
        const Outcome o = RunGuarded(kLimit, [&] { return RunBatchJob(job); });
        ExpectSafe(o);
        EXPECT_EQ(o.endCode, 1) << o.Describe();
        EXPECT_EQ(CheckReadable(vol.VideoDir() + kAwkward + ".zub"), "");
        // The companion is not waited for: give it a moment.
        for (int i = 0; i < 100 && !fs::exists(companion + ".args"); ++i) ::usleep(20000);
        ::usleep(50000);
        const std::string args = Slurp(companion + ".args");
        EXPECT_EQ(args, src + "\nnote; $(touch INJECTED)\n");
    }
    ExpectNoInjection(vol);
}

TEST(Names, PathsOneShortOfTheLimit)
{
    Volume vol;
    // A source whose full path is 259 characters.
    const std::string src = PathOfLength(vol.Root() + "/long", ".mp4", 259);
    ASSERT_EQ(src.size(), 259u);
    MakeMovie(src, "mp4_h264_aac", 4, false);
    {
        ConvertJob job;
        job.setup = SetupFor(vol);
        job.source = src;
        job.strSettings = "short";
        const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(job); });
        ExpectSafe(o);
        EXPECT_EQ(o.endCode, 1) << o.Describe();
        EXPECT_EQ(CheckReadable(vol.VideoDir() + "short.zub"), "");
    }
    vol.Clear();
    // An image of 259 characters, and a clip name that makes the target 259 characters.
    const std::string stillDir = fs::path(PathOfLength(vol.Root() + "/stills", ".tga", 259)).parent_path().string();
    const auto made = MakeStills(stillDir, "s", 2);
    ASSERT_EQ(made.size(), 2u);
    const std::string longStill = PathOfLength(vol.Root() + "/stills", ".tga", 259);
    fs::rename(made[0], longStill);
    {
        ImgSeqJob job;
        job.setup = SetupFor(vol);
        job.files = {longStill, made[1]};
        job.clipName = std::string(259 - vol.VideoDir().size() - 4, 'c');
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
        ExpectSafe(o);
        EXPECT_EQ(o.endCode, 1) << o.Describe();
        ASSERT_EQ(o.paths.size(), 1u) << o.Describe();
        EXPECT_EQ(o.paths[0].size(), 259u);
        EXPECT_EQ(CheckReadable(o.paths[0]), "");
        EXPECT_EQ(ReadClip(o.paths[0]).readable, 2);
    }
}

TEST(Folders, UnreadableSources)
{
    Volume vol;
    if (!PermissionsBind(vol.Tmp())) {
        GTEST_SKIP() << "running with the right to read any file (root): mode bits cannot make a source unreadable here";
    }
    const std::string movie = MakeMovie(vol.Root() + "/locked.mp4", "mp4_h264_aac", 4);
    const auto stills = MakeStills(vol.Root(), "locked", 3);
    ::chmod(movie.c_str(), 0);
    ::chmod(stills[1].c_str(), 0);
    ConvertJob conv;
    conv.setup = SetupFor(vol);
    conv.source = movie;
    Outcome o = RunGuarded(kLimit, [&] { return RunConvert(conv); });
    ExpectSafe(o);
    EXPECT_EQ(o.endCode, 2) << o.Describe();
    EXPECT_FALSE(o.prompts.empty());
    EXPECT_TRUE(vol.Made().empty());
    ImgSeqJob seq;
    seq.setup = SetupFor(vol);
    seq.files = stills;
    seq.batch = true;
    o = RunGuarded(kLimit, [&] { return RunImgSeq(seq); });
    ExpectSafe(o);
    EXPECT_EQ(o.endCode, 2);
    EXPECT_NE(o.message.find(stills[1]), std::string::npos) << o.Describe();
    EXPECT_TRUE(vol.Made().empty());
}

TEST(Folders, ReadOnlyTargetFolder)
{
    Volume vol;
    if (!PermissionsBind(vol.Tmp())) {
        GTEST_SKIP() << "running with the right to write anywhere (root): a read-only folder does not stop writes here; "
                        "Folders.TargetFolderThatIsAFile covers the refused creation";
    }
    const std::string movie = MakeMovie(vol.Root() + "/m.mp4", "mp4_h264_aac", 4);
    ::chmod(vol.VideoDir().c_str(), 0555);
    ::chmod(vol.AudioDir().c_str(), 0555);
    ConvertJob conv;
    conv.setup = SetupFor(vol);
    conv.source = movie;
    Outcome o = RunGuarded(kLimit, [&] { return RunConvert(conv); });
    ExpectSafe(o);
    EXPECT_EQ(o.endCode, 2) << o.Describe();
    ASSERT_FALSE(o.prompts.empty());
    EXPECT_EQ(o.prompts.back(), "Failed to create video file.");
    EXPECT_TRUE(vol.Made().empty());
}

// What a read-only folder does for an unprivileged user, reached as root too: the importing
// folder names a file, so no clip can be made in it.
TEST(Folders, TargetFolderThatIsAFile)
{
    Volume vol;
    const std::string movie = MakeMovie(vol.Root() + "/m.mp4", "mp4_h264_aac", 4, false);
    const auto stills = MakeStills(vol.Root(), "s", 2);
    WriteBytes(vol.Root() + "/plain", "a file, not a folder");
    for (bool batch : {false, true}) {
        SCOPED_TRACE(batch ? "batch" : "asked");
        ConvertJob conv;
        conv.setup = SetupFor(vol);
        conv.setup.videoDir = vol.Root() + "/plain/";
        conv.source = movie;
        conv.batch = batch;
        Outcome o = RunGuarded(kLimit, [&] { return RunConvert(conv); });
        ExpectSafe(o);
        EXPECT_EQ(o.endCode, 2) << o.Describe();
        // The space query for a folder that is not there fails first: the designed question,
        // whose default (Cancel) ends the conversion; it is asked in batch mode too.
        ASSERT_FALSE(o.prompts.empty());
        EXPECT_TRUE(o.prompts.back() == "There is not enough space in the selected drive (or failed to obtain ZUB drive info)" ||
                    (!batch && o.prompts.back() == "Failed to create video file."))
            << o.Describe();
        ImgSeqJob seq;
        seq.setup = conv.setup;
        seq.files = stills;
        seq.batch = batch;
        o = RunGuarded(kLimit, [&] { return RunImgSeq(seq); });
        ExpectSafe(o);
        EXPECT_EQ(o.endCode, 2);
        EXPECT_EQ(o.message, kCreateFailedText) << o.Describe();
        EXPECT_EQ(o.prompts.size(), batch ? 0u : 1u);
        EXPECT_EQ(Slurp(vol.Root() + "/plain"), "a file, not a folder");
        EXPECT_TRUE(vol.Made().empty());
    }
}

// The importing folders vanish while frames are being written: the job ends by itself, says
// so, and whatever it says it made is really there and readable.
TEST(Folders, TargetFolderRemovedWhileAJobRuns)
{
    Volume vol;
    const std::string movie = MakeMovie(vol.Root() + "/m.mp4", "mp4_h264_aac", 40);
    ::setenv("ZUBREC_WRITE_DELAY", "20", 1);
    {
        ConvertJob conv;
        conv.setup = SetupFor(vol);
        conv.source = movie;
        conv.onProgress = [&](const ConvertProgress& p) {
            if (p.converting && p.framesDone > 0) {
                std::error_code ec;
                fs::remove_all(vol.VideoDir(), ec);
                fs::remove_all(vol.AudioDir(), ec);
            }
        };
        const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(conv); });
        std::cout << "[ case ] folders removed, conversion: " << o.Describe() << "\n";
        ExpectSafe(o);
        EXPECT_NE(std::find(o.prompts.begin(), o.prompts.end(), std::string("Failed to store video rate in file")),
                  o.prompts.end())
            << "files were lost and nobody was told: " << o.Describe();
        for (const auto& p : o.paths) {
            if (o.endCode == 1 && fs::exists(p)) {
                EXPECT_EQ(CheckReadable(p), "");
            }
        }
    }
    fs::create_directories(vol.VideoDir());
    {
        const auto stills = MakeStills(vol.Root(), "gone", 12);
        ImgSeqJob seq;
        seq.setup = SetupFor(vol);
        seq.files = stills;
        seq.setup.answers = {Answer::No};
        seq.frameDone = [&](int frame) {
            if (frame == 2) {
                std::error_code ec;
                fs::remove_all(vol.VideoDir(), ec);
            }
        };
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(seq); });
        std::cout << "[ case ] folder removed, image sequence: " << o.Describe() << "\n";
        ExpectSafe(o);
        // The frames go on into the open (now nameless) file; the rate record, written by name,
        // fails and says so, as the design has it for a failed rate record.
        EXPECT_NE(std::find(o.prompts.begin(), o.prompts.end(), std::string(kRateFailedText)), o.prompts.end())
            << "the clip was lost and nobody was told: " << o.Describe();
    }
    ::unsetenv("ZUBREC_WRITE_DELAY");
}
