#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>

#include "dva/MmioFile.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "tests/dva/WaveFiles.h"
#include "zubimport/Dva.h"

using namespace zub;
using namespace zub::test;

namespace {

FOURCC Id(const char* s) { return MakeFourCC(s[0], s[1], s[2], s[3]); }

}  // namespace

TEST(MmioFile, WrittenChunksGetSizesAndPaddingAndReadBack)
{
    TempDir dir;
    const std::string path = dir / "nested.riff";
    {
        CMmioFile f(path.c_str(), nullptr, MMIO_CREATE | MMIO_WRITE);
        ASSERT_TRUE(f.IsOpen()) << f.GetError();
        MMCKINFO riff{}, list{}, odd{}, fixed{};
        riff.fccType = Id("TEST");
        ASSERT_TRUE(f.CreateChunk(riff, MMIO_CREATERIFF));
        list.fccType = Id("INFO");
        ASSERT_TRUE(f.CreateChunk(list, MMIO_CREATELIST));
        odd.ckid = Id("odd ");
        ASSERT_TRUE(f.CreateChunk(odd, 0));
        ASSERT_EQ(f.Write("abc", 3), 3);
        ASSERT_TRUE(f.Ascend(odd));
        ASSERT_TRUE(f.Ascend(list));
        fixed.ckid = Id("fix ");
        fixed.cksize = 4;  // declared right away: ascend leaves it alone
        ASSERT_TRUE(f.CreateChunk(fixed, 0));
        ASSERT_EQ(f.Write("wxyz", 4), 4);
        ASSERT_TRUE(f.Ascend(fixed));
        ASSERT_TRUE(f.Ascend(riff));
        EXPECT_EQ(riff.cksize, 4u + 12 + 8 + 4 + 8 + 4);
        ASSERT_TRUE(f.Close());
    }
    const std::string expect = "RIFF" + Le32(40) + "TEST" + "LIST" + Le32(16) + "INFO" + "odd " + Le32(3) +
                               std::string("abc\0", 4) + "fix " + Le32(4) + "wxyz";
    EXPECT_EQ(ReadFile(path), expect);

    CMmioFile f(path.c_str(), nullptr, MMIO_READ);
    MMCKINFO riff{}, list{}, ck{};
    riff.fccType = Id("TEST");
    ASSERT_TRUE(f.Descend(riff, nullptr, MMIO_FINDRIFF));
    EXPECT_EQ(riff.dwDataOffset, 8u);
    ck.ckid = Id("fix ");
    ASSERT_TRUE(f.Descend(ck, &riff, MMIO_FINDCHUNK)) << "search steps over the LIST by its padded size";
    char buf[8] = {};
    EXPECT_EQ(f.Read(buf, 8), 4) << "reads stop at the end of the file";
    EXPECT_STREQ(buf, "wxyz");
    ASSERT_TRUE(f.Seek(12, SEEK_SET) == 12);
    list.fccType = Id("INFO");
    ASSERT_TRUE(f.Descend(list, &riff, MMIO_FINDLIST));
    ck = {};
    ck.ckid = Id("fix ");
    EXPECT_FALSE(f.Descend(ck, &list, MMIO_FINDCHUNK)) << "a child search stays inside its parent";
    EXPECT_NE(f.GetError().find(path), std::string::npos);
    ck.ckid = Id("odd ");
    ASSERT_TRUE(f.Descend(ck, &list, MMIO_FINDCHUNK));
    EXPECT_EQ(ck.cksize, 3u);
    ASSERT_TRUE(f.Ascend(ck));
    EXPECT_EQ(f.Seek(0, SEEK_CUR), 36) << "ascend moves past the pad byte";
}

TEST(MmioFile, LyingSizesAndBadOpensFailCleanly)
{
    TempDir dir;
    // A chunk claiming 4 GiB inside a RIFF claiming more than the file holds.
    const std::string path = dir / "liar.wav";
    WriteFile(path, Riff(Chunk("junk", "xy", 0xFFFFFFF0) + Chunk("data", "1234"), 0x7FFFFFFF));
    CMmioFile f(path.c_str(), nullptr, MMIO_ALLOCBUF);
    MMCKINFO riff{}, ck{};
    riff.fccType = Id("WAVE");
    ASSERT_TRUE(f.Descend(riff, nullptr, MMIO_FINDRIFF));
    ck.ckid = Id("data");
    EXPECT_FALSE(f.Descend(ck, &riff, MMIO_FINDCHUNK));
    EXPECT_EQ(f.Seek(0, SEEK_CUR), 12) << "a failed search leaves the position where it was";

    // A RIFF size never filled in (0) is taken as "to the end of the file".
    const std::string streamed = dir / "streamed.wav";
    WriteFile(streamed, Riff(Chunk("fmt ", Fmt(1, 1, 8000, 1, 8)) + Chunk("data", "1234"), 0));
    CMmioFile s(streamed.c_str(), nullptr, MMIO_READ);
    riff = {};
    riff.fccType = Id("WAVE");
    ASSERT_TRUE(s.Descend(riff, nullptr, MMIO_FINDRIFF));
    ck = {};
    ck.ckid = Id("data");
    EXPECT_TRUE(s.Descend(ck, &riff, MMIO_FINDCHUNK)) << s.GetError();

    CMmioFile missing((dir / "none.wav").c_str(), nullptr, MMIO_READ);
    EXPECT_FALSE(missing.IsOpen());
    EXPECT_NE(missing.GetError().find("none.wav"), std::string::npos);
    CMmioFile folder(dir.Path().c_str(), nullptr, MMIO_READ);
    EXPECT_FALSE(folder.IsOpen());
    CMmioFile readOnly(path.c_str(), nullptr, MMIO_READ);
    EXPECT_EQ(readOnly.Write("x", 1), -1);
    EXPECT_TRUE(readOnly.Close());
    EXPECT_FALSE(readOnly.Close()) << "closing twice reports the second";
}

TEST(MmioFile, ReadWriteSwitchesDirectionInPlace)
{
    TempDir dir;
    const std::string path = dir / "rw.bin";
    WriteFile(path, "0123456789");
    CMmioFile f(path.c_str(), nullptr, MMIO_READWRITE);
    char b[3] = {};
    ASSERT_EQ(f.Read(b, 2), 2);
    ASSERT_EQ(f.Write("ab", 2), 2);
    ASSERT_EQ(f.Read(b, 2), 2);
    EXPECT_EQ(std::string(b, 2), "45");
    ASSERT_EQ(f.Seek(-1, SEEK_END), 9);
    ASSERT_EQ(f.Write("Z!", 2), 2);
    ASSERT_TRUE(f.Close());
    EXPECT_EQ(ReadFile(path), "01ab45678Z!");
}

class WavCopy : public ::testing::Test {
protected:
    TempDir dir;
    std::string Make(const std::string& name, const std::string& bytes)
    {
        const std::string p = dir / name;
        WriteFile(p, bytes);
        return p;
    }
    // A source made by the project's media generator (libavformat's WAVE writer).
    std::string Generated(const std::string& name, int rate, int channels, int bits, double seconds)
    {
        const std::string p = dir / name;
        std::string error;
        EXPECT_TRUE(testmedia::MakeWave(p, bits, rate, channels, seconds, 1000.0, 0.5, &error)) << error;
        return p;
    }
    // A source made by an outside tool.
    std::string SoxSine(const std::string& name, int rate, int channels, int bits, const char* seconds)
    {
        const std::string p = dir / name;
        zub::test::Run("sox -n -r " + std::to_string(rate) + " -c " + std::to_string(channels) + " -b " + std::to_string(bits) +
            " " + p + " synth " + seconds + " sine 440");
        return p;
    }
};

TEST_F(WavCopy, CleanCopyOfToolMadeFilesIsReadByBothTools)
{
    struct Case {
        int rate, channels, bits;
        long samples;
    } cases[] = {{48000, 2, 16, 24000}, {44100, 1, 16, 300000}, {22050, 1, 8, 4410}, {8000, 2, 8, 801}};
    for (const Case& c : cases) {
        const std::string src = Generated("src.wav", c.rate, c.channels, c.bits, double(c.samples) / c.rate);
        ASSERT_EQ(SoxInfo(src, 's'), std::to_string(c.samples));
        const std::string dst = dir / "clean.wav";
        ASSERT_EQ(CDva::CopyCleanWavFile(src.c_str(), dst.c_str()), 1) << CDva::GetLastError();
        EXPECT_EQ(CDva::GetLastError(), "");
        ExpectWave(dst, c.rate, c.channels, c.bits, c.samples);
        const std::string in = ReadFile(src), out = ReadFile(dst);
        const std::size_t audio = std::size_t(c.samples) * c.channels * c.bits / 8;
        ASSERT_GE(out.size(), 44 + audio);
        EXPECT_EQ(GetLe32(out, 16), 16u) << "normalised 16-byte format chunk";
        EXPECT_TRUE(out.substr(44, audio) == in.substr(in.find("data") + 8, audio)) << "audio copied unchanged";
    }
    // sox writes 24-bit audio with the extensible format tag, which is not plain PCM.
    const std::string ext = SoxSine("ext.wav", 32000, 2, 24, "0.1");
    EXPECT_EQ(CDva::CopyCleanWavFile(ext.c_str(), (dir / "ext-out.wav").c_str()), 0);
    EXPECT_NE(CDva::GetLastError().find("not PCM"), std::string::npos);
}

TEST_F(WavCopy, OddAudioGetsPadByteAndEvenSizes)
{
    const std::string src = Make("odd.wav", Riff(Chunk("fmt ", Fmt(1, 1, 8000, 1, 8)) + Chunk("data", Samples(7))));
    std::string mem = Samples(7, 5);
    const std::string dst = dir / "odd-out.wav";
    ASSERT_EQ(CDva::CopyPartialWavFile(src.c_str(), dst.c_str(), mem.data(), 7, 0), 1) << CDva::GetLastError();
    const std::string out = ReadFile(dst);
    EXPECT_EQ(out.size(), 44u + 8);
    EXPECT_EQ(GetLe32(out, 40), 7u);
    EXPECT_EQ(GetLe32(out, 4), out.size() - 8);
    EXPECT_EQ(out.back(), '\0');
    ExpectWave(dst, 8000, 1, 8, 7);

    // The clean copy runs to the end of the source file, so the source's pad byte comes along.
    const std::string dst2 = dir / "odd-clean.wav";
    ASSERT_EQ(CDva::CopyCleanWavFile(src.c_str(), dst2.c_str()), 1) << CDva::GetLastError();
    EXPECT_EQ(GetLe32(ReadFile(dst2), 40), 8u);
}

TEST_F(WavCopy, FormatChunkOf14BytesDerivesBitsOf12BytesFails)
{
    const std::string audio = Samples(400);
    const std::string f14 =
        Make("f14.wav", Riff(Chunk("fmt ", Fmt(1, 2, 11025, 4, 0, 14)) + Chunk("data", audio)));
    const std::string dst = dir / "f14-out.wav";
    ASSERT_EQ(CDva::CopyCleanWavFile(f14.c_str(), dst.c_str()), 1) << CDva::GetLastError();
    EXPECT_EQ(GetLe16(ReadFile(dst), 34), 16);
    ExpectWave(dst, 11025, 2, 16, 100);

    const std::string f12 = Make("f12.wav", Riff(Chunk("fmt ", Fmt(1, 2, 11025, 4, 16, 12)) + Chunk("data", audio)));
    const std::string dst12 = dir / "f12-out.wav";
    EXPECT_EQ(CDva::CopyCleanWavFile(f12.c_str(), dst12.c_str()), 0);
    EXPECT_NE(CDva::GetLastError().find("f12.wav"), std::string::npos);
    EXPECT_FALSE(Exists(dst12));
}

TEST_F(WavCopy, CopyRunsToEndOfSourceFileWhateverDataSizeSays)
{
    // Size 0 stands for "unknown": everything up to the end of the file is audio.
    const std::string zero = Make("zero.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 4, 16)) + "data" + Le32(0) + Samples(1000)));
    const std::string dst = dir / "zero-out.wav";
    ASSERT_EQ(CDva::CopyCleanWavFile(zero.c_str(), dst.c_str()), 1) << CDva::GetLastError();
    EXPECT_EQ(ReadFile(dst).substr(44), Samples(1000));

    // A chunk after the audio is copied as audio: sources are expected to end with "data".
    const std::string tail = Chunk("BD11", "association");
    const std::string trailing =
        Make("trail.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 4, 16)) + Chunk("data", Samples(400)) + tail));
    const std::string dst2 = dir / "trail-out.wav";
    ASSERT_EQ(CDva::CopyCleanWavFile(trailing.c_str(), dst2.c_str()), 1);
    const std::string out = ReadFile(dst2);
    EXPECT_EQ(GetLe32(out, 40), 400 + tail.size());
    EXPECT_EQ(out.substr(44), Samples(400) + tail);

    // More than one buffer's worth, with a tail that is not a whole block.
    const std::string big = Make("big.wav", Riff(Chunk("fmt ", Fmt(1, 2, 48000, 4, 16)) + Chunk("data", Samples(300002))));
    const std::string dst3 = dir / "big-out.wav";
    ASSERT_EQ(CDva::CopyCleanWavFile(big.c_str(), dst3.c_str()), 1);
    EXPECT_TRUE(ReadFile(dst3).substr(44) == Samples(300002));
}

TEST_F(WavCopy, PartialCopyWritesWholeBlocksFromMemory)
{
    const std::string src = Make("st.wav", Riff(Chunk("fmt ", Fmt(1, 2, 44100, 4, 16)) + Chunk("data", Samples(64))));
    std::string mem = Samples(10, 7);
    const std::string dst = dir / "part.wav";
    ASSERT_EQ(CDva::CopyPartialWavFile(src.c_str(), dst.c_str(), mem.data(), 10, 0), 1) << CDva::GetLastError();
    const std::string out = ReadFile(dst);
    EXPECT_EQ(GetLe16(out, 22), 1) << "channels";
    EXPECT_EQ(GetLe32(out, 28), 44100u * 2) << "average bytes per second";
    EXPECT_EQ(GetLe16(out, 32), 4) << "block alignment kept from the source";
    EXPECT_EQ(GetLe32(out, 40), 8u);
    EXPECT_EQ(out.substr(44), mem.substr(0, 8));

    // Stereo out of a mono source over several passes, read by the outside tools. The
    // source's data chunk announces less than the block holds; avail bounds each pass only.
    const std::string tiny = Make("tiny.wav", Riff(Chunk("fmt ", Fmt(1, 1, 48000, 2, 16)) + Chunk("data", Samples(2))));
    const std::string sq = Make("sq.wav", Riff(Chunk("fmt ", Fmt(1, 2, 48000, 4, 16)) + Chunk("data", Samples(0x100000))));
    std::string big = Samples(4 * 300000, 3);
    const std::string dst2 = dir / "part2.wav";
    ASSERT_EQ(CDva::CopyPartialWavFile(sq.c_str(), dst2.c_str(), big.data(), long(big.size()), 1), 1);
    ExpectWave(dst2, 48000, 2, 16, 300000);
    EXPECT_TRUE(ReadFile(dst2).substr(44) == big);
    // A source announcing one block of audio still lets the whole block through, a block per pass.
    const std::string dst3 = dir / "part3.wav";
    ASSERT_EQ(CDva::CopyPartialWavFile(tiny.c_str(), dst3.c_str(), big.data(), 4001, 0), 1);
    EXPECT_EQ(GetLe32(ReadFile(dst3), 40), 4000u);
}

TEST_F(WavCopy, MuteFlagIsFormatTagZeroWithData)
{
    const std::string pcm = Make("pcm.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 4, 16)) + Chunk("data", Samples(8))));
    const std::string muted = Make("muted.wav", Riff(Chunk("fmt ", Fmt(0, 2, 8000, 4, 16)) + Chunk("data", Samples(8))));
    const std::string noData = Make("nodata.wav", Riff(Chunk("fmt ", Fmt(0, 2, 8000, 4, 16)) + Chunk("junk", "x")));
    EXPECT_EQ(CDva::IsMutedDva(pcm.c_str()), 0);
    EXPECT_EQ(CDva::IsMutedDva(muted.c_str()), 1);
    EXPECT_EQ(CDva::IsMutedDva(noData.c_str()), 0);
    EXPECT_EQ(CDva::IsMutedDva((dir / "missing.wav").c_str()), 0);
    EXPECT_EQ(CDva::IsMutedDva(nullptr), 0);
}

TEST_F(WavCopy, BadSourcesFailBeforeTargetExistsAndStayUntouched)
{
    const std::string audio = Chunk("data", Samples(16));
    const std::map<std::string, std::string> bad = {
        {"float.wav", Riff(Chunk("fmt ", Fmt(3, 2, 8000, 8, 32)) + audio)},
        {"align0.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 0, 16)) + audio)},
        {"chan0.wav", Riff(Chunk("fmt ", Fmt(1, 0, 8000, 4, 0)) + audio)},
        {"indivisible.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 3, 0)) + audio)},
        {"nodata.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 4, 16)))},
        {"nofmt.wav", Riff(audio)},
        {"avi.wav", "RIFF" + Le32(4) + "AVI "},
        {"text.wav", "hello, not audio at all"},
        {"empty.wav", ""},
    };
    for (const auto& [name, bytes] : bad) {
        SCOPED_TRACE(name);
        const std::string src = Make(name, bytes);
        const std::string dst = dir / ("out-" + name);
        char mem[16] = {};
        EXPECT_EQ(CDva::CopyCleanWavFile(src.c_str(), dst.c_str()), 0);
        EXPECT_NE(CDva::GetLastError().find(name), std::string::npos) << CDva::GetLastError();
        EXPECT_EQ(CDva::CopyPartialWavFile(src.c_str(), dst.c_str(), mem, 16, 1), 0);
        EXPECT_FALSE(Exists(dst));
        EXPECT_EQ(ReadFile(src), bytes);
    }
    const std::string good = Make("good.wav", Riff(Chunk("fmt ", Fmt(1, 2, 8000, 4, 16)) + audio));
    const std::string before = ReadFile(good);
    EXPECT_EQ(CDva::CopyCleanWavFile(good.c_str(), good.c_str()), 0) << "a source is never its own target";
    EXPECT_EQ(ReadFile(good), before);
    const std::string inMissing = dir / "no/such/folder/out.wav";
    EXPECT_EQ(CDva::CopyCleanWavFile(good.c_str(), inMissing.c_str()), 0);
    EXPECT_FALSE(Exists(inMissing));
}

TEST_F(WavCopy, WriteFailureDeletesHalfWrittenTarget)
{
    const std::string src = Make("long.wav", Riff(Chunk("fmt ", Fmt(1, 2, 48000, 4, 16)) + Chunk("data", Samples(1 << 20))));
    const std::string dst = dir / "cut.wav";
    // The file size limit makes writes past 64 KiB fail as a full disk would.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    rlimit small = old;
    small.rlim_cur = 64 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int clean = CDva::CopyCleanWavFile(src.c_str(), dst.c_str());
    const std::string cleanError = CDva::GetLastError();
    std::string mem = Samples(1 << 20);
    const int partial = CDva::CopyPartialWavFile(src.c_str(), dst.c_str(), mem.data(), long(mem.size()), 1);
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(clean, 0);
    EXPECT_NE(cleanError.find("cut.wav"), std::string::npos) << cleanError;
    EXPECT_EQ(partial, 0);
    EXPECT_FALSE(Exists(dst));
}
