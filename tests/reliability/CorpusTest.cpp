// Broken media, made here, through every job that can meet it: the conversion (asked and in
// batch mode), the image sequence run and a batch list. Each job runs in a child under a time
// limit; afterwards the parent checks the end code, the message, that nothing was left that
// the job does not keep, that the source is untouched and that whatever was kept reads back.
#include <random>

#include "tests/reliability/Jobs.h"

using namespace zub;
using namespace zub::rel;

namespace {

constexpr int kLimit = 60;  // seconds for any one job
constexpr const char* kUnsupported =
    "File format unsupported by the current installation of Direct Show Filters and QuickTime conversion "
    "(QuickTime may not be installed)";

std::string Random(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = char(rng());
    return s;
}

std::string LoadFailed(const std::string& path)
{
    char buf[4096];
    std::snprintf(buf, sizeof buf, kLoadFailedText, path.c_str());
    return buf;
}

// A 64-bit big-endian box walker over an MP4/MOV held in memory.
struct Box {
    std::size_t at = 0, size = 0, header = 8;
    std::string type;
};

std::vector<Box> Children(const std::string& f, std::size_t from, std::size_t to)
{
    std::vector<Box> out;
    auto be32 = [&](std::size_t i) {
        return (std::uint32_t(std::uint8_t(f[i])) << 24) | (std::uint32_t(std::uint8_t(f[i + 1])) << 16) |
               (std::uint32_t(std::uint8_t(f[i + 2])) << 8) | std::uint32_t(std::uint8_t(f[i + 3]));
    };
    while (from + 8 <= to) {
        Box b;
        b.at = from;
        b.size = be32(from);
        b.type = f.substr(from + 4, 4);
        if (b.size == 1 && from + 16 <= to) {
            b.size = (std::size_t(be32(from + 8)) << 32) | be32(from + 12);
            b.header = 16;
        }
        if (b.size == 0) b.size = to - from;
        if (b.size < b.header || from + b.size > to) break;
        out.push_back(b);
        from += b.size;
    }
    return out;
}

const Box* Find(const std::vector<Box>& boxes, const std::string& type)
{
    for (const auto& b : boxes)
        if (b.type == type) return &b;
    return nullptr;
}

// Empties the sample tables of a movie's sound track: the track stays, with its sound
// description, but holds no samples.
bool EmptySoundTrack(std::string& f)
{
    const auto top = Children(f, 0, f.size());
    const Box* moov = Find(top, "moov");
    if (!moov) return false;
    for (const auto& trak : Children(f, moov->at + 8, moov->at + moov->size)) {
        if (trak.type != "trak") continue;
        const auto tk = Children(f, trak.at + 8, trak.at + trak.size);
        const Box* mdia = Find(tk, "mdia");
        if (!mdia) continue;
        const auto md = Children(f, mdia->at + 8, mdia->at + mdia->size);
        const Box* hdlr = Find(md, "hdlr");
        if (!hdlr || f.substr(hdlr->at + 16, 4) != "soun") continue;
        const Box* minf = Find(md, "minf");
        if (!minf) return false;
        const auto mi = Children(f, minf->at + 8, minf->at + minf->size);  // Find points into it
        const Box* stbl = Find(mi, "stbl");
        if (!stbl) return false;
        for (const auto& t : Children(f, stbl->at + 8, stbl->at + stbl->size)) {
            // Full boxes: version and flags, then the entry count (stsz: sample size, then count).
            std::size_t count = t.at + 12;
            if (t.type == "stsz") {
                std::memset(&f[t.at + 12], 0, 4);
                count = t.at + 16;
            } else if (t.type != "stts" && t.type != "stsc" && t.type != "stco" && t.type != "co64" && t.type != "stss") {
                continue;
            }
            std::memset(&f[count], 0, 4);
        }
        return true;
    }
    return false;
}

struct Source {
    std::string name;   // what the case is
    std::string path;
    bool unreadable;    // nothing can open it: the unsupported-format end
};

// Checks that hold after any job: it ended by itself, under the limit, with a designed code;
// the sources are as they were; what is left is readable; a job that made nothing left nothing.
struct Expect {
    bool nothingOnFailure = true;  // end code 2 leaves nothing (not a batch: its other rows stay)
    bool wholeFramesOnly = true;   // no frame recorded past a hole
};

void CheckInvariants(const Outcome& o, const Volume& vol, const std::map<std::string, std::string>& sources,
                     Expect expect = {})
{
    EXPECT_FALSE(o.timedOut) << "the job hung";
    EXPECT_EQ(o.signal, 0) << "the job crashed";
    ASSERT_TRUE(o.reported) << "the job sent no report";
    EXPECT_TRUE(o.endCode == 1 || o.endCode == 2) << o.Describe();
    for (const auto& [path, bytes] : sources) EXPECT_EQ(Slurp(path), bytes) << path << " was changed";
    const auto made = vol.Made();
    for (const auto& f : made) {
        EXPECT_NE(f.rfind("tmp/", 0), 0u) << "a scratch file was left: " << f;
        if (f.rfind("tmp/", 0) == 0) continue;
        EXPECT_EQ(CheckReadable(vol.Root() + "/" + f, expect.wholeFramesOnly), "");
    }
    if (o.endCode == 2 && expect.nothingOnFailure) {
        EXPECT_TRUE(made.empty()) << "the job made nothing but left " << ::testing::PrintToString(made);
    }
}

std::map<std::string, std::string> Snapshot(const std::vector<std::string>& paths)
{
    std::map<std::string, std::string> m;
    for (const auto& p : paths) m[p] = Slurp(p);
    return m;
}

class Corpus : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        media_ = new TempDir;
        const std::string dir = media_->Path().string();
        auto add = [&](const std::string& name, const std::string& path, bool unreadable) {
            sources_->push_back({name, path, unreadable});
        };
        sources_ = new std::vector<Source>;
        for (const char* ext : {".mp4", ".mov", ".wav", ".tga"}) {
            WriteBytes(dir + "/empty" + ext, "");
            add(std::string("zero-length ") + ext, dir + "/empty" + ext, true);
            WriteBytes(dir + "/noise" + ext, Random(64 * 1024, 17));
            add(std::string("random bytes ") + ext, dir + "/noise" + ext, true);
        }
        WriteBytes(dir + "/letter.mov", "Dear editor,\nthis is a text file and not a movie.\n");
        add("text renamed .mov", dir + "/letter.mov", true);

        // The muxer writes the index after the media data: cutting the file inside the index.
        const std::string whole = MakeMovie(dir + "/whole.mp4", "mp4_h264_aac", 12);
        const std::string bytes = Slurp(whole);
        const auto top = Children(bytes, 0, bytes.size());
        const Box* moov = Find(top, "moov");
        const Box* mdat = Find(top, "mdat");
        if (moov && mdat && moov->at > mdat->at) {
            WriteBytes(dir + "/cut-index.mp4", bytes.substr(0, moov->at + moov->size / 2));
            add("MP4 cut in its index", dir + "/cut-index.mp4", false);
        } else {
            ADD_FAILURE() << "the generated MP4 does not keep its index last";
        }
        // The index first (faststart), then the media data cut in half: an index that promises
        // frames the file does not hold.
        if (zub::test::Run({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", whole, "-c", "copy", "-movflags", "+faststart",
                            dir + "/fast.mp4"}) == 0) {
            const std::string fast = Slurp(dir + "/fast.mp4");
            const auto fb = Children(fast, 0, fast.size());
            const Box* fm = Find(fb, "mdat");
            if (fm) {
                WriteBytes(dir + "/cut-data.mp4", fast.substr(0, fm->at + fm->size / 2));
                add("MP4 cut in its media data", dir + "/cut-data.mp4", false);
            } else {
                ADD_FAILURE() << "no media data in the faststart copy";
            }
            fs::remove(dir + "/fast.mp4");
        }
        fs::remove(whole);

        // A movie whose sound track has no samples.
        const std::string mov = MakeMovie(dir + "/silent-track.mov", "mov_twos", 8);
        std::string movBytes = Slurp(mov);
        if (EmptySoundTrack(movBytes)) {
            WriteBytes(mov, movBytes);
            add("MOV with a sound track but no samples", mov, false);
        } else {
            ADD_FAILURE() << "could not empty the sound track";
        }

        // WAVE files whose sizes lie.
        std::string error;
        const std::string tone = dir + "/tone.wav";
        if (testmedia::MakeWave(tone, 16, 48000, 2, 1.0, 1000.0, 0.5, &error)) {
            const std::string w = Slurp(tone);
            const auto data = w.find("data");
            auto put32 = [](std::string& s, std::size_t at, std::uint32_t v) {
                for (int i = 0; i < 4; ++i) s[at + i] = char((v >> (8 * i)) & 0xFF);
            };
            std::string big = w;
            put32(big, 4, 0x7FFFFFF0u);
            put32(big, data + 4, 0x7FFFFF00u);
            WriteBytes(dir + "/sizes-too-big.wav", big);
            add("WAVE whose sizes claim more than the file", dir + "/sizes-too-big.wav", false);
            std::string odd = w;
            put32(odd, 4, 12);
            put32(odd, data + 4, 3);  // not a whole sample frame
            WriteBytes(dir + "/sizes-too-small.wav", odd);
            // Its sound is the three bytes the data chunk claims: no sample frame to convert.
            add("WAVE whose data chunk holds less than one sample frame", dir + "/sizes-too-small.wav", true);
            std::string fmt = w;
            put32(fmt, w.find("fmt ") + 4, 0xFFFFFFF0u);
            WriteBytes(dir + "/fmt-size-lies.wav", fmt);
            add("WAVE whose format chunk size runs past the end", dir + "/fmt-size-lies.wav", true);
            fs::remove(tone);
        } else {
            ADD_FAILURE() << error;
        }
    }
    static void TearDownTestSuite()
    {
        delete sources_;
        delete media_;
        sources_ = nullptr;
        media_ = nullptr;
    }

    static std::vector<std::string> SourcePaths()
    {
        std::vector<std::string> v;
        for (const auto& s : *sources_) v.push_back(s.path);
        return v;
    }

    static TempDir* media_;
    static std::vector<Source>* sources_;
};

TempDir* Corpus::media_ = nullptr;
std::vector<Source>* Corpus::sources_ = nullptr;

}  // namespace

TEST_F(Corpus, ConversionAskedAndInBatchMode)
{
    const auto snapshot = Snapshot(SourcePaths());
    for (const Source& s : *sources_) {
        for (bool batch : {false, true}) {
            for (bool audioOnly : {false, true}) {
                // Audio-only runs for the sound files; batch lists take the rest as audio rows.
                if (audioOnly != (fs::path(s.path).extension() == ".wav")) continue;
                SCOPED_TRACE(s.name + (batch ? ", batch" : ", asked") + (audioOnly ? ", audio only" : ""));
                Volume vol;
                ConvertJob job;
                job.setup = SetupFor(vol);
                job.source = s.path;
                job.batch = batch;
                job.audioOnly = audioOnly;
                const auto t0 = std::chrono::steady_clock::now();
                const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(job); });
                std::cout << "[ time ] " << s.name << (batch ? " batch " : " asked ")
                          << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count()
                          << " ms\n";
                CheckInvariants(o, vol, snapshot);
                if (s.unreadable) {
                    EXPECT_EQ(o.endCode, 2) << o.Describe();
                    ASSERT_FALSE(o.prompts.empty()) << o.Describe();
                    EXPECT_EQ(o.prompts.back(), kUnsupported);
                    continue;
                }
                if (o.endCode == 2) {
                    // Refused: the user was told why. In batch mode only the messages shown in
                    // any mode come as boxes; the others are in the report.
                    EXPECT_FALSE(o.prompts.empty() && !(batch && !o.message.empty())) << o.Describe();
                    continue;
                }
                // Converted: a clip holds its frames in order, from the first, and no more than
                // the source has.
                for (const auto& p : o.paths) {
                    if (fs::path(p).extension() != ".zub") continue;
                    const ClipRead r = ReadClip(p);
                    EXPECT_GT(r.readable, 0) << r.text;
                    EXPECT_EQ(ClipNumbers(p, vol.Root() + "/png"), Sequence(r.readable)) << o.Describe();
                }
                std::cout << "[ case ] " << s.name << (batch ? " batch" : "") << (audioOnly ? " audio-only" : "") << ": "
                          << o.Describe() << "\n";
            }
        }
    }
}

TEST_F(Corpus, BatchListOfBrokenFilesFailsEachRowAndGoesOn)
{
    const auto snapshot = Snapshot(SourcePaths());
    Volume vol;
    BatchJob job;
    job.setup = SetupFor(vol);
    job.moduleFolder = vol.ModuleDir();
    std::vector<const Source*> used;
    for (const Source& s : *sources_) {
        // One of each kind: a batch run is one child, and a long one.
        if (s.name.rfind("zero-length .mov", 0) == 0 || s.name.rfind("random bytes .wav", 0) == 0 ||
            s.name.rfind("zero-length .wav", 0) == 0 || s.name.rfind("random bytes .mp4", 0) == 0)
            continue;
        used.push_back(&s);
        batch::BatchRow row;
        row.fileName = s.path;
        const std::string ext = fs::path(s.path).extension().string();
        row.type = ext == ".wav" ? batch::kTypeAudio : ext == ".tga" ? batch::kTypeImages : batch::kTypeVideo;
        job.rows.push_back(row);
    }
    // A good row last: the broken ones before it do not stop it.
    const std::string good = MakeMovie(vol.Root() + "/good.avi", "avi_mpeg4_pcm", 5);
    batch::BatchRow row;
    row.fileName = good;
    job.rows.push_back(row);
    const Outcome o = RunGuarded(4 * kLimit, [&] { return RunBatchJob(job); });
    std::cout << o.message;
    CheckInvariants(o, vol, snapshot, {.nothingOnFailure = false});
    EXPECT_EQ(o.endCode, 2);
    std::istringstream lines(o.message);
    std::size_t i = 0;
    for (std::string line; std::getline(lines, line); ++i) {
        ASSERT_LT(i, job.rows.size());
        const bool isGood = i + 1 == job.rows.size();
        const Source* s = isGood ? nullptr : used[i];
        SCOPED_TRACE(line);
        if (isGood) {
            EXPECT_NE(line.find(": ok "), std::string::npos);
        } else if (s->unreadable) {
            EXPECT_NE(line.find(": FAILED "), std::string::npos);
            // The Result column is never empty for a failed row.
            EXPECT_NE(line.substr(line.find(": FAILED ") + 9), "");
        }
    }
    EXPECT_EQ(i, job.rows.size());
    EXPECT_TRUE(Listing(vol.VideoDir()).count("good.zub")) << ::testing::PrintToString(vol.Made());
}

TEST(CorpusImages, OneTruncatedAndOneZeroLengthImage)
{
    Volume vol;
    const std::string dir = vol.Root() + "/images";
    fs::create_directories(dir);
    const auto files = MakeStills(dir, "shot", 6);
    ASSERT_EQ(files.size(), 6u);
    const std::string head = Slurp(files[2]);
    WriteBytes(files[2], head.substr(0, head.size() / 3));
    WriteBytes(files[4], "");
    const auto snapshot = Snapshot(files);

    {
        SCOPED_TRACE("asked, every question answered Yes");
        ImgSeqJob job;
        job.setup = SetupFor(vol);
        job.setup.answers = std::vector<Answer>(8, Answer::Yes);
        job.files = files;
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
        std::cout << "[ case ] images Yes: " << o.Describe() << "\n";
        // The recorder refuses the frames whose images did not load: the clip keeps those holes.
        CheckInvariants(o, vol, snapshot, {.wholeFramesOnly = false});
        EXPECT_EQ(o.endCode, 1);
        // The zero-length image cannot load; the question names it.
        EXPECT_NE(std::find(o.prompts.begin(), o.prompts.end(), LoadFailed(files[4])), o.prompts.end()) << o.Describe();
        ASSERT_EQ(o.paths.size(), 1u);
        const ClipRead r = ReadClip(o.paths[0]);
        EXPECT_GE(r.readable, 2) << r.text;  // the frames before the first damaged image
        vol.Clear();
    }
    {
        SCOPED_TRACE("asked, the first question answered No");
        ImgSeqJob job;
        job.setup = SetupFor(vol);
        job.setup.answers = {Answer::No};
        job.files = files;
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
        std::cout << "[ case ] images No: " << o.Describe() << "\n";
        CheckInvariants(o, vol, snapshot);
        EXPECT_EQ(o.endCode, 2);
        ASSERT_EQ(o.prompts.size(), 1u);
        EXPECT_TRUE(o.prompts[0] == LoadFailed(files[2]) || o.prompts[0] == kImportFailedText ||
                    o.prompts[0] == LoadFailed(files[4]))
            << o.prompts[0];
        EXPECT_TRUE(vol.Made().empty());
    }
    {
        SCOPED_TRACE("batch mode");
        ImgSeqJob job;
        job.setup = SetupFor(vol);
        job.files = files;
        job.batch = true;
        const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
        std::cout << "[ case ] images batch: " << o.Describe() << "\n";
        CheckInvariants(o, vol, snapshot);
        EXPECT_EQ(o.endCode, 2);
        EXPECT_TRUE(o.prompts.empty()) << o.Describe();
        EXPECT_FALSE(o.message.empty());
        EXPECT_TRUE(vol.Made().empty());
    }
}

TEST_F(Corpus, ImageSequenceOfSingleBrokenImages)
{
    const auto snapshot = Snapshot(SourcePaths());
    for (const Source& s : *sources_) {
        for (bool batch : {false, true}) {
            SCOPED_TRACE(s.name + (batch ? ", batch" : ", asked"));
            Volume vol;
            ImgSeqJob job;
            job.setup = SetupFor(vol);
            job.files = {s.path};
            job.batch = batch;
            job.setup.answers = {Answer::No};
            const Outcome o = RunGuarded(kLimit, [&] { return RunImgSeq(job); });
            CheckInvariants(o, vol, snapshot);
            EXPECT_EQ(o.endCode, 2) << o.Describe();
            EXPECT_EQ(o.message, LoadFailed(s.path)) << o.Describe();
            EXPECT_EQ(o.prompts.size(), batch ? 0u : 1u) << o.Describe();
        }
    }
}

// A WAVE whose data chunk holds less than one sample frame has no sound to convert: the job
// ends as for any file with nothing to open, and the report says which file and why, since
// the unsupported-format text names neither. Left to the writer, its header kept the writer's
// made-up sizes (2 GB promised, nothing held).
TEST_F(Corpus, WaveWithLessThanOneSampleFrameIsRefusedWithItsReason)
{
    const auto snapshot = Snapshot(SourcePaths());
    const Source* odd = nullptr;
    for (const Source& s : *sources_)
        if (fs::path(s.path).filename() == "sizes-too-small.wav") odd = &s;
    ASSERT_NE(odd, nullptr);
    for (bool batch : {false, true}) {
        SCOPED_TRACE(batch ? "batch" : "asked");
        Volume vol;
        ConvertJob job;
        job.setup = SetupFor(vol);
        job.source = odd->path;
        job.audioOnly = true;
        job.batch = batch;
        const Outcome o = RunGuarded(kLimit, [&] { return RunConvert(job); });
        CheckInvariants(o, vol, snapshot);
        EXPECT_EQ(o.endCode, 2) << o.Describe();
        EXPECT_EQ(o.prompts, std::vector<std::string>{kUnsupported}) << o.Describe();
        EXPECT_NE(o.message.find(odd->path + ": the audio stream holds no whole sample frame"), std::string::npos)
            << o.Describe();
        EXPECT_TRUE(vol.Made().empty()) << ::testing::PrintToString(vol.Made());
    }
}
