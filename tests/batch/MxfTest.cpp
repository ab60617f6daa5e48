#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "TempDir.h"
#include "Tool.h"
#include "batch/MxfUnwrap.h"
#include "mxfwrap/MXFWrap.h"

using namespace zub::batch;
namespace fs = std::filesystem;

namespace {

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Files the unwrapper made in a folder.
int UnwrappedCopies(const fs::path& folder)
{
    int n = 0;
    for (const auto& e : fs::directory_iterator(folder))
        if (e.path().filename().string().rfind("mxfunwrap-", 0) == 0) ++n;
    return n;
}

std::string Probe(const std::string& path, const std::string& entries, const std::string& select = {})
{
    const std::string raw =
        zub::test::CaptureLine("ffprobe -v error -count_packets " + (select.empty() ? "" : "-select_streams " + select + " ") +
                               "-show_entries " + entries + " -of csv=p=0 '" + path + "'");
    // Matroska streams carry an extra (empty) tag field: drop empty trailing fields.
    std::string out;
    std::istringstream lines(raw);
    for (std::string l; std::getline(lines, l);) {
        while (!l.empty() && l.back() == ',') l.pop_back();
        if (l.empty()) continue;
        out += (out.empty() ? "" : "\n") + l;
    }
    return out;
}

// MD5 of a stream's packets as they are, without decoding: equal for a true stream copy.
std::string PacketMd5(const std::string& path, const std::string& map)
{
    return zub::test::CaptureLine("ffmpeg -v error -i '" + path + "' -map " + map + " -c copy -f md5 -");
}

class MxfTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* t = std::getenv("TMPDIR");
        if (t) oldTmp_ = t;
        hadTmp_ = t != nullptr;
        // The unwrapper writes into $TMPDIR: point it at the test's own folder to see what is left.
        ::setenv("TMPDIR", tmp_.Path().c_str(), 1);
    }
    void TearDown() override
    {
        if (hadTmp_)
            ::setenv("TMPDIR", oldTmp_.c_str(), 1);
        else
            ::unsetenv("TMPDIR");
    }

    std::string MakeOp1a(const std::string& name)
    {
        const std::string path = dir_ / name;
        EXPECT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25",
                                  "-f", "lavfi", "-i", "sine=frequency=1000:sample_rate=48000", "-t", "1",
                                  "-c:v", "mpeg2video", "-c:a", "pcm_s16le", "-f", "mxf", path}),
                  0);
        return path;
    }

    zub::test::TempDir dir_, tmp_;
    std::string oldTmp_;
    bool hadTmp_ = false;
};

}  // namespace

TEST_F(MxfTest, Op1aVideoAndAudioAreCopiedNotReencoded)
{
    const std::string src = MakeOp1a("op1a.mxf");
    const std::string before = Slurp(src);
    const auto mtime = fs::last_write_time(src);

    void* lib = ::dlopen(ZUB_TEST_MXFWRAP, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << ::dlerror();
    auto entry = reinterpret_cast<G_LaunchMXFUnwrapFn>(::dlsym(lib, "G_LaunchMXFUnwrap"));
    ASSERT_NE(entry, nullptr);
    char buffer[4096] = {};
    src.copy(buffer, src.size());
    ASSERT_NE(entry(nullptr, buffer, sizeof buffer), 0) << reinterpret_cast<G_MXFUnwrapErrorFn>(::dlsym(lib, "G_MXFUnwrapError"))();
    ::dlclose(lib);

    const std::string out = buffer;
    EXPECT_NE(out, src);
    // Named after the source, in a folder of the unwrapper's own under $TMPDIR.
    EXPECT_EQ(fs::path(out).parent_path().parent_path(), tmp_.Path());
    EXPECT_EQ(fs::path(out).filename(), "op1a.mkv");
    EXPECT_EQ(Probe(out, "stream=codec_type,codec_name,nb_read_packets"),
              "mpeg2video,video,25\npcm_s16le,audio," + Probe(src, "stream=nb_read_packets", "a"));
    EXPECT_EQ(PacketMd5(out, "0:v"), PacketMd5(src, "0:v"));
    EXPECT_EQ(zub::test::CaptureLine("ffmpeg -v error -i '" + out + "' -map 0:a -f md5 -"),
              zub::test::CaptureLine("ffmpeg -v error -i '" + src + "' -map 0:a -f md5 -"));
    EXPECT_EQ(Slurp(src), before);
    EXPECT_EQ(fs::last_write_time(src), mtime);
    RemoveUnwrappedCopy(out);
    EXPECT_TRUE(fs::is_empty(tmp_.Path()));
}

TEST_F(MxfTest, UpperCaseNameAndBatchLoader)
{
    EXPECT_TRUE(IsMxfName("/a/clip.MXF"));
    EXPECT_TRUE(IsMxfName("clip.mXf"));
    EXPECT_FALSE(IsMxfName("clip.mxf.mov"));
    EXPECT_FALSE(IsMxfName("mxf"));
    const std::string src = MakeOp1a("clip.MXF");
    const std::string before = Slurp(src);
    const MxfUnwrapResult r = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, src);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_TRUE(r.copied);
    EXPECT_EQ(Probe(r.path, "stream=codec_type", "v"), "video");
    EXPECT_EQ(fs::path(r.path).filename(), "clip.mkv");
    EXPECT_EQ(Slurp(src), before);
    RemoveUnwrappedCopy(r.path);
}

TEST_F(MxfTest, OpAtomVideoAndAudio)
{
    const std::string v = dir_ / "atom_v.mxf", a = dir_ / "atom_a.mxf";
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25", "-t", "1",
                              "-c:v", "mpeg2video", "-f", "mxf_opatom", v}),
              0);
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", "1", "-ac", "1",
                              "-c:a", "pcm_s16le", "-f", "mxf_opatom", a}),
              0);
    const MxfUnwrapResult rv = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, v);
    ASSERT_TRUE(rv.ok) << rv.error;
    EXPECT_EQ(Probe(rv.path, "stream=codec_name,nb_read_packets"), "mpeg2video,25");
    EXPECT_EQ(PacketMd5(rv.path, "0:v"), PacketMd5(v, "0:v"));
    const MxfUnwrapResult ra = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, a);
    ASSERT_TRUE(ra.ok) << ra.error;
    EXPECT_EQ(Probe(ra.path, "stream=codec_name,sample_rate,channels"), "pcm_s16le,48000,1");
    // sox reads the sound back as one second at 48 kHz.
    const std::string wav = dir_ / "a.wav";
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-i", ra.path, "-c:a", "copy", wav}), 0);
    EXPECT_EQ(zub::test::CaptureLine("sox --i -s '" + wav + "'"), "48000");
    RemoveUnwrappedCopy(rv.path);
    RemoveUnwrappedCopy(ra.path);
    EXPECT_TRUE(fs::is_empty(tmp_.Path()));
}

TEST_F(MxfTest, CorruptAndForeignFilesFailWithTheReasonAndLeaveNothing)
{
    const std::string good = MakeOp1a("good.mxf");
    // The partition header survives, the rest is noise.
    std::string bytes = Slurp(good);
    for (std::size_t i = 200; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 7919u) >> 3);
    const std::string bad = dir_ / "broken.mxf";
    std::ofstream(bad, std::ios::binary) << bytes;
    const std::string before = Slurp(bad);
    MxfUnwrapResult r = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, bad);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.error.rfind(bad + ": ", 0), 0u) << r.error;
    EXPECT_EQ(Slurp(bad), before);

    const std::string empty = dir_ / "empty.mxf";
    std::ofstream(empty).close();
    r = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, empty);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.error.rfind(empty + ": ", 0), 0u) << r.error;

    const std::string wav = dir_ / "tone.mxf";
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine", "-t", "0.2", "-f", "wav", wav}), 0);
    r = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, wav);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("not an MXF file"), std::string::npos) << r.error;

    r = UnwrapMxf(ZUB_TEST_MXFWRAP, nullptr, dir_ / "missing.mxf");
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("missing.mxf: cannot be opened"), std::string::npos) << r.error;
    EXPECT_EQ(UnwrappedCopies(tmp_.Path()), 0);
}

TEST_F(MxfTest, MissingLibraryAndLibraryWithoutEntry)
{
    const std::string src = MakeOp1a("a.mxf");
    MxfUnwrapResult r = UnwrapMxf((dir_ / "libMXFWrap.so"), nullptr, src);
    EXPECT_FALSE(r.ok);
    EXPECT_FALSE(r.loaded);
    EXPECT_EQ(r.error.rfind("Failed to load MXFWrap.dll!", 0), 0u) << r.error;

    r = UnwrapMxf(ZUB_TEST_NOENTRY_LIBRARY, nullptr, src);
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(r.loaded);
    EXPECT_NE(r.error.find("no entry G_LaunchMXFUnwrap"), std::string::npos) << r.error;
    EXPECT_EQ(UnwrappedCopies(tmp_.Path()), 0);
}

TEST_F(MxfTest, BufferTooSmallForTheNewNameFailsCleanly)
{
    const std::string src = MakeOp1a("s.mxf");
    std::vector<char> buffer(src.size() + 1);
    src.copy(buffer.data(), src.size());
    EXPECT_EQ(G_LaunchMXFUnwrap(nullptr, buffer.data(), buffer.size()), 0);
    EXPECT_NE(std::string(G_MXFUnwrapError()).find("does not fit"), std::string::npos) << G_MXFUnwrapError();
    EXPECT_EQ(std::string(buffer.data()), src);
    EXPECT_EQ(UnwrappedCopies(tmp_.Path()), 0);
    EXPECT_EQ(G_LaunchMXFUnwrap(nullptr, nullptr, 0), 0);
}
