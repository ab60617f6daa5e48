// The association writer against scripted recorder back-ends: what it asks the recorder, how
// it pads the audio, and the chunk and sizes it leaves for the outside tools to read.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>

#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "TempDir.h"
#include "tests/dva/WaveFiles.h"
#include "zubimport/Dva.h"

using namespace zub;
using namespace zub::test;

namespace {

// One scripted recorder for both back-ends.
struct Script {
    int lines = 625, width = 720, height = 576;
    std::int32_t keyFlags = 0;
    std::int32_t frames = 250;
    std::int32_t openResult = 0;
    std::int32_t queryResult = 0;
    int opens = 0, closes = 0;
    std::string queried;
} g;

namespace fz {
std::int32_t Open(std::int32_t, std::int32_t* h)
{
    ++g.opens;
    *h = 42;
    return g.openResult;
}
std::int32_t Ref(std::int32_t) { return 0; }
std::int32_t Deref(std::int32_t)
{
    ++g.closes;
    return 0;
}
std::int32_t SysInfo(std::int32_t, rec::ZubSystemInfo* s)
{
    s->lines = g.lines;
    s->width = g.width;
    s->height = g.height;
    return 0;
}
std::int32_t Caps(std::int32_t, rec::ZubDeviceCaps*) { return 0; }
std::int32_t FileInfo(std::int32_t, const char* path, rec::ZubFileInfo* info)
{
    g.queried = path;
    info->flags = g.keyFlags;
    info->frames = g.frames;
    return g.queryResult;
}
}  // namespace fz

namespace ft {
std::int32_t Open(std::int32_t, std::int32_t* h)
{
    ++g.opens;
    *h = 9;
    return g.openResult;
}
std::int32_t Init(std::int32_t, std::int32_t) { return 0; }
std::int32_t Close(std::int32_t)
{
    ++g.closes;
    return 0;
}
std::int32_t Version(std::int32_t, rec::TbxVersionInfo* v)
{
    v->lines = g.lines;
    return 0;
}
std::int32_t FileInfo(std::int32_t, const char* path, rec::TbxFileInfo* info)
{
    g.queried = path;
    info->flags = g.keyFlags;
    return g.queryResult < 0 ? g.queryResult : 0;
}
std::int32_t OpenItem(std::int32_t, const char*, std::int32_t* item)
{
    *item = 77;
    return g.queryResult < 0 ? g.queryResult : 0;
}
std::int32_t ItemQuery(std::int32_t, rec::TbxItemInfo* info)
{
    info->frames = g.frames;
    return 0;
}
std::int32_t Deref(std::int32_t) { return 0; }
}  // namespace ft

// A WAVE file with the canonical 44-byte header and `dataBytes` of audio, no pad byte.
std::string CanonicalWave(std::uint16_t channels, std::uint16_t bits, std::uint32_t dataBytes, std::uint32_t rate = 8000)
{
    const std::uint16_t align = static_cast<std::uint16_t>(channels * bits / 8);
    return "RIFF" + Le32(36 + dataBytes) + "WAVE" + "fmt " + Le32(16) + Fmt(1, channels, rate, align, bits) + "data" +
           Le32(dataBytes) + Samples(dataBytes);
}

float FloatAt(const std::string& s, std::size_t at)
{
    const std::uint32_t bits = GetLe32(s, at);
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

class WriteNew : public ::testing::Test {
protected:
    void SetUp() override
    {
        g = Script{};
        zub_.ZubDdrOpenDevice = fz::Open;
        zub_.ZubObjReference = fz::Ref;
        zub_.ZubObjDereference = fz::Deref;
        zub_.ZubDdrGetSystemInfo = fz::SysInfo;
        zub_.ZubDdrQueryDeviceCaps = fz::Caps;
        zub_.ZubFileQueryInfo = fz::FileInfo;
        tbx_.TbxDcOpenEx = ft::Open;
        tbx_.TbxDcInitialize = ft::Init;
        tbx_.TbxDcClose = ft::Close;
        tbx_.TbxDcGetVersionInfo = ft::Version;
        tbx_.TbxDcGetFileInfo = ft::FileInfo;
        tbx_.TbxPlyOpenClipItem = ft::OpenItem;
        tbx_.TbxPlyItemQuery = ft::ItemQuery;
        tbx_.TbxDereferenceObject = ft::Deref;
        SetZubBackendForTesting(&zub_);
        SetTbxBackendForTesting(&tbx_);
        CDva::SetupDevice(0, nullptr, 0, 1);
    }
    void TearDown() override
    {
        TheRecorder().CloseDevice();
        SetZubBackendForTesting(nullptr);
        SetTbxBackendForTesting(nullptr);
    }
    std::string Make(const std::string& name, const std::string& bytes)
    {
        const std::string p = dir / name;
        WriteFile(p, bytes);
        return p;
    }

    TempDir dir;
    rec::ZubApi zub_;
    rec::TbxApi tbx_;
};

}  // namespace

TEST_F(WriteNew, AppendsChunkThatToolsStepOverAndReadersFind)
{
    g.keyFlags = 4;
    const std::string wav = CanonicalWave(2, 16, 48000 * 4, 48000);
    const std::string path = Make("clip.dva", wav);
    CDva dva;
    ASSERT_EQ(dva.WriteNew(path.c_str(), "/vol/clip.zub", "", "00:00:00:00"), 1) << CDva::GetLastError();
    EXPECT_EQ(dva.m_strFile, path);
    EXPECT_EQ(g.queried, "/vol/clip.zub");
    EXPECT_EQ(g.opens, 1);
    EXPECT_EQ(g.closes, 1) << "a recorder opened for the association is closed again";
    EXPECT_EQ(TheRecorder().handle, -1);

    const std::string out = ReadFile(path);
    ASSERT_EQ(out.size(), wav.size() + 8 + 648);
    EXPECT_TRUE(out.compare(8, wav.size() - 8, wav, 8, wav.size() - 8) == 0) << "audio untouched";
    EXPECT_EQ(GetLe32(out, 4), GetLe32(wav, 4) + 324);
    const std::size_t c = wav.size();
    EXPECT_EQ(out.substr(c, 4), "BD11");
    EXPECT_EQ(GetLe32(out, c + 4), 648u);
    const std::size_t d = c + 8;
    EXPECT_EQ(out.substr(d, 32), std::string("Head - Rva Tape and Timecode 01\0", 32));
    EXPECT_EQ(out.substr(d + 288, 12), std::string("00:00:00:00\0", 12));
    EXPECT_EQ(out.substr(d + 300, 32), std::string("Tail - Rva Tape and Timecode 01\0", 32));
    const std::size_t h = d + 332;
    EXPECT_EQ(out.substr(h, 4), "BDID");
    EXPECT_EQ(GetLe32(out, h + 4), 720u);
    EXPECT_EQ(GetLe32(out, h + 8), 576u);
    EXPECT_EQ(FloatAt(out, h + 12), 25.0f);
    EXPECT_EQ(GetLe32(out, h + 16), 24u);
    EXPECT_EQ(GetLe32(out, h + 20), 250u);
    EXPECT_EQ(out.substr(h + 24, 12), std::string(12, '\0'));
    EXPECT_EQ(GetLe32(out, h + 36), 1u) << "key flag";
    EXPECT_EQ(GetLe32(out, h + 40), 0u);
    EXPECT_EQ(GetLe32(out, h + 44), 1u) << "entry count";
    EXPECT_EQ(GetLe32(out, h + 48), 0u);
    EXPECT_EQ(GetLe32(out, h + 52), 249u);
    EXPECT_EQ(out.substr(h + 56, 14), std::string("/vol/clip.zub\0", 14));

    // Still plain WAVE to the outside tools, with the audio it had.
    ExpectWave(path, 48000, 2, 16, 48000);
    CDva reader;
    ASSERT_EQ(reader.ReadPlayList(path.c_str()), 1) << CDva::GetLastError();
    EXPECT_EQ(reader.GetPlayList()->lLastFrame, 249);
    EXPECT_STREQ(reader.GetPlayList()->szPath, "/vol/clip.zub");
    ASSERT_EQ(reader.ReadTapeNameTc(nullptr), 1);
    EXPECT_EQ(reader.GetTapeName(), "");
    EXPECT_EQ(reader.GetTc(), "00:00:00:00");
    EXPECT_EQ(CDva::IsMutedDva(path.c_str()), 0);

    // The updaters work on what WriteNew made, and the tools still agree.
    ASSERT_EQ(reader.WriteTapeNameTc(path.c_str(), "REEL 12", "10:00:00:00"), 1);
    CSMSBDPlayList node{};
    std::strcpy(node.szPath, "/vol/renamed.zub");
    ASSERT_EQ(reader.WritePlayList(path.c_str(), node), 1) << CDva::GetLastError();
    ASSERT_EQ(reader.ReadPlayList(path.c_str()), 1);
    EXPECT_STREQ(reader.GetPlayList()->szPath, "/vol/renamed.zub");
    EXPECT_EQ(reader.GetPlayList()->lLastFrame, 249);
    ASSERT_EQ(reader.ReadTapeNameTc(nullptr), 1);
    EXPECT_EQ(reader.GetTapeName(), "REEL 12");
    ExpectWave(path, 48000, 2, 16, 48000);
}

TEST_F(WriteNew, PadsRiffSizeToMultipleOfFourWithSilence)
{
    struct Case {
        const char* name;
        std::uint16_t bits;
        std::uint32_t data;  // RIFF size is 36 + data
        std::uint32_t added;
        char fill;
    } cases[] = {{"riff4n.dva", 16, 8, 0, 0},
                 {"riff4n1-8bit.dva", 8, 5, 3, char(0x80)},
                 {"riff4n2-16bit.dva", 16, 6, 2, 0},
                 {"riff4n3-8bit.dva", 8, 7, 1, char(0x80)}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string wav = CanonicalWave(1, c.bits, c.data);
        const std::string path = Make(c.name, wav);
        CDva dva;
        ASSERT_EQ(dva.WriteNew(path.c_str(), "/v/a.zub", "T", "01:00:00:00"), 1) << CDva::GetLastError();
        const std::string out = ReadFile(path);
        ASSERT_EQ(out.size(), wav.size() + c.added + 656);
        EXPECT_EQ(GetLe32(out, 4), 36 + c.data + c.added + 324);
        EXPECT_EQ(GetLe32(out, 40), c.data + c.added);
        EXPECT_EQ(out.substr(wav.size(), c.added), std::string(c.added, c.fill));
        EXPECT_EQ(out.substr(wav.size() + c.added, 4), "BD11");
        CDva reader;
        EXPECT_EQ(reader.ReadPlayList(path.c_str()), 1);
    }
}

TEST_F(WriteNew, AsksWhicheverBackEndIsOpenAndLeavesHostDeviceOpen)
{
    // Tbx, 525 lines, opened by WriteNew from SetupDevice's values.
    g.lines = 525;
    g.keyFlags = 2;
    g.frames = 30;
    CDva::SetupDevice(3, nullptr, 0, 0);
    const std::string a = Make("tbx.dva", CanonicalWave(2, 16, 400));
    CDva dva;
    ASSERT_EQ(dva.WriteNew(a.c_str(), "C:\\clips\\t.zub", "", "00:00:00:00"), 1) << CDva::GetLastError();
    std::string out = ReadFile(a);
    std::size_t h = 444 + 8 + 332;
    EXPECT_EQ(GetLe32(out, h + 4), 720u);
    EXPECT_EQ(GetLe32(out, h + 8), 486u);
    EXPECT_EQ(FloatAt(out, h + 12), 29.97f);
    EXPECT_EQ(GetLe32(out, h + 20), 30u);
    EXPECT_EQ(GetLe32(out, h + 36), 1u);
    EXPECT_EQ(g.closes, 1);

    // The 24-frame flag, and a ZUB device the host opened: it stays open.
    g = Script{};
    g.keyFlags = 2;  // a Tbx key value means nothing to ZUB
    ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(1, 0, 0), 1);
    TheRecorder().mode24p = 1;
    const std::string b = Make("zub24.dva", CanonicalWave(2, 16, 400));
    ASSERT_EQ(dva.WriteNew(b.c_str(), "/v/b.zub", "", "00:00:00:00"), 1) << CDva::GetLastError();
    out = ReadFile(b);
    EXPECT_EQ(FloatAt(out, h + 12), 24.0f);
    EXPECT_EQ(GetLe32(out, h + 36), 0u);
    EXPECT_EQ(g.opens, 1);
    EXPECT_EQ(g.closes, 0);
    EXPECT_NE(TheRecorder().handle, -1);
    TheRecorder().CloseDevice();

    // A video file the recorder cannot tell about: no key, length 0, last frame -1.
    g = Script{};
    g.keyFlags = 4;
    g.queryResult = -6;
    const std::string c = Make("unknown.dva", CanonicalWave(2, 16, 400));
    ASSERT_EQ(dva.WriteNew(c.c_str(), "/v/missing.zub", "", "00:00:00:00"), 1);
    out = ReadFile(c);
    EXPECT_EQ(GetLe32(out, h + 20), 0u);
    EXPECT_EQ(GetLe32(out, h + 36), 0u);
    EXPECT_EQ(GetLe32(out, h + 52), 0xFFFFFFFFu);
}

TEST_F(WriteNew, RefusesWithoutTouchingTheFile)
{
    const std::string good = CanonicalWave(2, 16, 400);
    std::string withList = good;  // a LIST chunk before the audio: not the canonical layout
    withList = "RIFF" + Le32(36 + 12 + 400) + "WAVE" + "fmt " + Le32(16) + Fmt(1, 2, 8000, 4, 16) + Chunk("LIST", "INFO") +
               "data" + Le32(400) + Samples(400);
    const std::map<std::string, std::string> files = {
        {"empty.dva", ""}, {"short.dva", "RIFF"}, {"list.dva", withList}, {"text.dva", std::string(100, 'x')}};
    CDva dva;
    for (const auto& [name, bytes] : files) {
        SCOPED_TRACE(name);
        const std::string path = Make(name, bytes);
        EXPECT_EQ(dva.WriteNew(path.c_str(), "/v/a.zub", "", "00:00:00:00"), 0);
        EXPECT_NE(CDva::GetLastError().find(name), std::string::npos) << CDva::GetLastError();
        EXPECT_TRUE(ReadFile(path) == bytes);
        EXPECT_EQ(dva.m_strFile, "");
    }
    const std::string path = Make("twice.dva", good);
    ASSERT_EQ(dva.WriteNew(path.c_str(), "/v/a.zub", "", "00:00:00:00"), 1);
    const std::string once = ReadFile(path);
    EXPECT_EQ(dva.WriteNew(path.c_str(), "/v/a.zub", "", "00:00:00:00"), 0) << "already associated";
    EXPECT_TRUE(ReadFile(path) == once);

    const std::string fresh = Make("fresh.dva", good);
    EXPECT_EQ(dva.WriteNew(fresh.c_str(), std::string(260, 'v').c_str(), "", "00:00:00:00"), 0);
    EXPECT_NE(CDva::GetLastError().find("260"), std::string::npos);
    EXPECT_EQ(dva.WriteNew(fresh.c_str(), "/v/a.zub", std::string(256, 't').c_str(), "00:00:00:00"), 0);
    EXPECT_EQ(dva.WriteNew(fresh.c_str(), "/v/a.zub", "", "00:00:00:00:0"), 0);
    EXPECT_EQ(dva.WriteNew((dir / "missing.dva").c_str(), "/v/a.zub", "", "00:00:00:00"), 0);
    g.openResult = -1;
    EXPECT_EQ(dva.WriteNew(fresh.c_str(), "/v/a.zub", "", "00:00:00:00"), 0);
    EXPECT_NE(CDva::GetLastError().find("recorder"), std::string::npos) << CDva::GetLastError();
    EXPECT_TRUE(ReadFile(fresh) == good);
    EXPECT_EQ(g.opens, g.closes + 1) << "only the failed open was not closed";
}

TEST_F(WriteNew, FailedChunkWriteLeavesPlainPaddedWave)
{
    const std::string wav = CanonicalWave(1, 8, 5);  // 3 bytes of padding, then the chunk
    const std::string path = Make("full.dva", wav);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    rlimit small = old;
    small.rlim_cur = wav.size() + 3 + 100;  // room for the padding, not for the chunk
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    CDva dva;
    const int ok = dva.WriteNew(path.c_str(), "/v/a.zub", "", "00:00:00:00");
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(ok, 0);
    const std::string out = ReadFile(path);
    ASSERT_EQ(out.size(), wav.size() + 3);
    EXPECT_EQ(GetLe32(out, 4), 44u);
    EXPECT_EQ(dva.ReadPlayList(path.c_str()), 0);
    ExpectWave(path, 8000, 1, 8, 8);
}
