// The device object over scripted back-ends: the slot behaviour, both result conventions and
// the records each operation hands over.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/device/FakeBackends.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "TempDir.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Prompt.h"

using namespace zub;
using zub::test::Fake;

namespace zub {
// Failures name the kind instead of showing its bytes.
void PrintTo(RecorderKind kind, std::ostream* os)
{
    *os << (kind == RecorderKind::Zub ? "Zub" : kind == RecorderKind::Tbx ? "Tbx" : "Closed");
}
}  // namespace zub

namespace {

class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Fake() = test::FakeRecorder{};
        SetZubBackendForTesting(&test::FakeZubApi());
        SetTbxBackendForTesting(&test::FakeTbxApi());
    }
    void TearDown() override
    {
        if (TheRecorder().handle != -1) TheRecorder().CloseDevice();
        SetZubBackendForTesting(nullptr);
        SetTbxBackendForTesting(nullptr);
    }
    CRecorderDeviceInfo dev;
};

TEST_F(DeviceTest, OpeningTwiceFailsAndKeepsTheFirst)
{
    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    EXPECT_EQ(dev.kind, RecorderKind::Zub);
    EXPECT_EQ(dev.handle, 41);
    Fake().handleToGive = 99;
    EXPECT_EQ(dev.OpenDevice(0, 0, 0), 0);
    EXPECT_EQ(dev.OpenDeviceWithInfo(1, 0, 0), 0);
    EXPECT_EQ(dev.kind, RecorderKind::Zub);
    EXPECT_EQ(dev.handle, 41);
    EXPECT_EQ(Fake().Count("ZubDdrOpenDevice"), 1);
    EXPECT_EQ(Fake().Count("TbxDcOpenEx"), 0);
    EXPECT_NE(CRecorderDevice::GetError().find("already open"), std::string::npos);
}

TEST(DeviceKind, KeepsTheValuesHostsKnow)
{
    EXPECT_EQ(static_cast<int>(RecorderKind::Tbx), 0);
    EXPECT_EQ(static_cast<int>(RecorderKind::Zub), 1);
    EXPECT_EQ(static_cast<int>(RecorderKind::Closed), -1);
    CRecorderDeviceInfo closed;
    EXPECT_EQ(closed.kind, RecorderKind::Closed);
    EXPECT_EQ(closed.handle, kNoDevice);
    EXPECT_FALSE(closed.IsOpen());
}

TEST_F(DeviceTest, AdoptedHandles)
{
    // Tbx: the host's device is used and never closed from here.
    ASSERT_EQ(dev.OpenDevice(0, 0, 1234), 1);
    EXPECT_EQ(dev.kind, RecorderKind::Tbx);
    EXPECT_FALSE(dev.owned);
    EXPECT_EQ(dev.handle, 1234);
    EXPECT_FALSE(dev.IsZub());
    dev.CloseDevice();
    EXPECT_EQ(Fake().Count("TbxDcClose"), 0);
    EXPECT_EQ(Fake().Count("TbxDcOpenEx"), 0);
    EXPECT_EQ(dev.handle, -1);
    EXPECT_EQ(dev.kind, RecorderKind::Closed);
    EXPECT_TRUE(dev.IsZub());  // a closed object answers as ZUB

    // ZUB: a reference is taken, and given back on close.
    Fake().calls.clear();
    ASSERT_EQ(dev.OpenDevice(1, 0, 555), 1);
    EXPECT_EQ(dev.handle, 555);
    dev.CloseDevice();
    EXPECT_EQ(Fake().calls, (std::vector<std::string>{"ZubObjReference 555", "ZubDdrGetSystemInfo 555",
                                                      "ZubDdrQueryDeviceCaps 555", "ZubObjDereference 555"}));

    // A handle the back-end does not know is not adopted.
    Fake().referenceResult = -2;
    EXPECT_EQ(dev.OpenDevice(1, 0, 556), 0);
    EXPECT_EQ(dev.handle, -1);
}

TEST_F(DeviceTest, TbxInitialisation)
{
    Fake().init0Result = -5;
    Fake().init1Result = 0;
    ASSERT_EQ(dev.OpenDevice(0, 3, 0), 1);
    EXPECT_EQ(dev.kind, RecorderKind::Tbx);
    EXPECT_TRUE(dev.owned);
    EXPECT_EQ(dev.handle, 41);
    EXPECT_EQ(Fake().Count("TbxDcInitialize 41 0"), 1);
    EXPECT_EQ(Fake().Count("TbxDcInitialize 41 1"), 1);
    dev.CloseDevice();
    EXPECT_EQ(Fake().Count("TbxDcClose 41"), 1);

    // Both initialisations failing: the fresh device is closed again through the table, so
    // the derived close clears the information as well.
    Fake() = test::FakeRecorder{};
    Fake().init0Result = -5;
    Fake().init1Result = 1;
    dev.lines = 99;
    dev.frameWidth = 1;
    dev.mode24p = 1;
    EXPECT_EQ(dev.OpenDevice(0, 0, 0), 0);
    EXPECT_EQ(Fake().Count("TbxDcClose 41"), 1);
    EXPECT_EQ(dev.handle, -1);
    EXPECT_EQ(dev.lines, 0);
    EXPECT_EQ(dev.frameWidth, 0);
    EXPECT_EQ(dev.mode24p, 0);

    // An open that fails is not an open.
    Fake() = test::FakeRecorder{};
    Fake().openResult = 1;
    EXPECT_EQ(dev.OpenDevice(0, 0, 0), 0);
    EXPECT_EQ(dev.handle, -1);
    EXPECT_EQ(Fake().Count("TbxDcInitialize"), 0);
}

TEST_F(DeviceTest, FrameSizeFromTheStandard)
{
    Fake().versionLines = 525;
    ASSERT_EQ(dev.OpenDeviceWithInfo(0, 0, 0), 1);
    EXPECT_EQ(dev.lines, 525);
    EXPECT_EQ(dev.frameWidth, 720);
    EXPECT_EQ(dev.frameHeight, 486);
    dev.CloseDevice();
    EXPECT_EQ(dev.frameHeight, 0);
    Fake().versionLines = 625;
    ASSERT_EQ(dev.OpenDeviceWithInfo(0, 0, 0), 1);
    EXPECT_EQ(dev.frameWidth, 720);
    EXPECT_EQ(dev.frameHeight, 576);
    dev.CloseDevice();
    // ZUB reports its size itself.
    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    EXPECT_EQ(dev.lines, 625);
    EXPECT_EQ(dev.frameHeight, 576);
    EXPECT_EQ(Fake().Count("ZubDdrQueryDeviceCaps 41"), 1);
}

TEST_F(DeviceTest, ReleaseOfNoItemCallsNothing)
{
    for (int useZub : {0, 1}) {
        ASSERT_EQ(dev.OpenDevice(useZub, 0, 0), 1);
        Fake().calls.clear();
        EXPECT_EQ(dev.ReleaseItem(0), 1);
        EXPECT_EQ(dev.ReleaseItem(-1), 1);
        EXPECT_TRUE(Fake().calls.empty());
        EXPECT_EQ(dev.ReleaseItem(501), 1);
        EXPECT_EQ(Fake().calls.back(), useZub ? "ZubObjDereference 501" : "TbxDereferenceObject 501");
        dev.CloseDevice();
    }
}

TEST_F(DeviceTest, CreationResultsStayApart)
{
    ClipSpec spec;
    spec.path = "/vol/clip.zub";
    spec.frames = 10;
    spec.videoRate = 5242880;
    ClipItems items;
    struct Case {
        int useZub;
        std::int32_t code;
        ClipStatus status;
    };
    const Case cases[] = {
        {0, rec::kTbxNoSpace, ClipStatus::NoSpace}, {0, rec::kTbxFileExists, ClipStatus::Exists},
        {0, -29, ClipStatus::Failed},               {0, 5, ClipStatus::Ok},
        {1, -29, ClipStatus::NoSpace},              {1, -28, ClipStatus::Exists},
        {1, rec::kTbxNoSpace, ClipStatus::Failed},  {1, 1, ClipStatus::Failed},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(dev.OpenDevice(c.useZub, 0, 0), 1);
        Fake().createResult = c.code;
        EXPECT_EQ(dev.CreateClipItem(spec, items), c.status) << c.useZub << " " << c.code;
        EXPECT_EQ(items.code, c.code);
        EXPECT_EQ(items.video, c.status == ClipStatus::Ok ? 601 : -1);
        dev.CloseDevice();
    }
}

TEST_F(DeviceTest, CreationRecords)
{
    ClipSpec spec;
    spec.path = "/vol/a.zub";
    spec.frames = 25;
    spec.videoRate = -1;
    spec.videoUncompressed = true;
    spec.createAlpha = true;
    spec.alphaRate = 3000000;
    spec.fixedFieldSize = true;
    ClipItems items;
    ASSERT_EQ(dev.OpenDevice(0, 0, 0), 1);
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok);
    const auto& t = Fake().tbxCreate;
    EXPECT_STREQ(t.path, "/vol/a.zub");
    EXPECT_EQ(t.frames, 25);
    EXPECT_EQ(t.videoType, 3);
    EXPECT_EQ(t.alphaType, 1);
    EXPECT_EQ(t.reserved[0] | t.reserved[1], 0);
    EXPECT_EQ(t.videoRate, -1);
    EXPECT_EQ(t.alphaRate, 3000000);
    EXPECT_EQ(t.flags, 3);
    EXPECT_EQ(items.alpha, 602);
    spec.alphaSameAsVideo = true;
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok);
    EXPECT_EQ(Fake().tbxCreate.alphaType, 3);
    dev.CloseDevice();

    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok);
    const auto& z = Fake().zubCreate;
    EXPECT_EQ(z.frames, 25);
    EXPECT_EQ(z.flags, 1 | 4);
    EXPECT_EQ(z.videoItem, -1);  // preset before the call
    EXPECT_EQ(z.alphaItem, -1);
    EXPECT_EQ(items.video, 501);
    EXPECT_EQ(items.alpha, 502);
}

TEST_F(DeviceTest, ImportAndOutputRecords)
{
    const char frame[64] = {};
    FrameImport f;
    f.videoItem = 11;
    f.alphaItem = 12;
    f.frame = 7;
    f.data = frame;
    f.source = FrameSource::Server;
    f.videoRate = 100;
    f.alphaRate = -1;
    f.videoType = 1;
    f.alphaType = 3;
    f.alphaOption = true;
    ASSERT_EQ(dev.OpenDevice(0, 0, 0), 1);
    EXPECT_EQ(dev.ImportFrame(f), 1);
    const auto& t = Fake().tbxImport;
    EXPECT_EQ(t.videoField, 14);
    EXPECT_EQ(t.alphaField, 14);
    EXPECT_EQ(t.data, frame);
    EXPECT_EQ(t.pixelFormat, 16);
    EXPECT_EQ(t.frameCount, 1);
    EXPECT_EQ(t.repeatCount, 1);
    EXPECT_EQ(t.reserved[0] | t.reserved[1], 0);
    EXPECT_EQ(t.videoOption, 0);
    EXPECT_EQ(t.alphaOption, 1);
    f.source = FrameSource::Bits24;
    dev.ImportFrame(f);
    EXPECT_EQ(Fake().tbxImport.pixelFormat, 1);
    Fake().importResult = 1;  // non-negative: success on Tbx
    EXPECT_EQ(dev.ImportFrame(f), 1);
    Fake().importResult = -1;
    EXPECT_EQ(dev.ImportFrame(f), 0);
    EXPECT_EQ(dev.ShowImage(frame, FrameSource::Pipeline, false, 100), 0);  // no output on Tbx
    EXPECT_EQ(Fake().Count("ZubGfxLoadImage"), 0);
    dev.CloseDevice();

    Fake().importResult = 0;
    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    f.source = FrameSource::Server;
    EXPECT_EQ(dev.ImportFrame(f), 1);
    const auto& z = Fake().zubImport;
    EXPECT_EQ(z.videoField, 14);
    EXPECT_EQ(z.alphaField, 14);
    EXPECT_EQ(z.reserved1 | z.reserved2 | z.reserved3 | z.reserved4[0] | z.reserved4[1], 0);
    EXPECT_EQ(z.pixelFormat, 6);
    EXPECT_EQ(z.videoType, 1);
    EXPECT_EQ(z.alphaType, 3);
    EXPECT_EQ(z.alphaRate, -1);
    Fake().importResult = 1;  // ZUB: only 0 is success
    EXPECT_EQ(dev.ImportFrame(f), 0);
    EXPECT_EQ(dev.ShowImage(frame, FrameSource::Bits24, true, 200), 1);
    const auto& g = Fake().gfx;
    EXPECT_EQ(g.channel, 1);
    EXPECT_EQ(g.frameCount, 1);
    EXPECT_EQ(g.layer, 0);
    EXPECT_EQ(g.scaleMode, 3);
    EXPECT_EQ(g.reserved1[0] | g.reserved1[1] | g.reserved1[2], 0);
    EXPECT_EQ(g.showNow, 1);
    EXPECT_EQ(g.pixelFormat, 2);
    EXPECT_EQ(g.uncompressed, 1);
    EXPECT_EQ(g.videoRate, 200);
    EXPECT_EQ(g.data, frame);
}

TEST_F(DeviceTest, LastResultTellsNoSpaceApartPerBackEnd)
{
    FrameImport f;
    f.videoItem = 11;
    struct Case {
        int useZub;
        std::int32_t code;
        bool noSpace;
    };
    const Case cases[] = {{1, rec::kZubNoSpace, true},  {1, rec::kTbxNoSpace, false}, {1, -5, false},
                          {0, rec::kTbxNoSpace, true},  {0, rec::kZubNoSpace, false}, {0, rec::kTbxIoError, false}};
    for (const Case& c : cases) {
        ASSERT_EQ(dev.OpenDevice(c.useZub, 0, 0), 1);
        Fake().importResult = c.code;
        EXPECT_EQ(dev.ImportFrame(f), 0);
        EXPECT_EQ(CRecorderDevice::GetLastResult(), c.code);
        EXPECT_EQ(dev.LastFailureIsNoSpace(), c.noSpace) << c.useZub << " " << c.code;
        // A failure of the device itself carries no library result.
        EXPECT_EQ(dev.OpenDevice(c.useZub, 0, 0), 0);
        EXPECT_EQ(CRecorderDevice::GetLastResult(), 0);
        EXPECT_FALSE(dev.LastFailureIsNoSpace());
        dev.CloseDevice();
    }
    EXPECT_EQ(dev.ImportFrame(f), 0);
    EXPECT_EQ(CRecorderDevice::GetLastResult(), 0);
}

TEST_F(DeviceTest, VolumeSpace)
{
    Fake().framesFit = 321;
    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    EXPECT_EQ(dev.QueryVolumeSpace("/vol/clips/a.zub", 5000000, 2000, true, false), 321);
    EXPECT_EQ(Fake().spaceFolder, "/vol/clips/");
    EXPECT_EQ(Fake().zubSpace.videoRate, -1);
    EXPECT_EQ(Fake().zubSpace.alphaRate, 2000);
    Fake().framesFit = -1;
    EXPECT_EQ(dev.QueryVolumeSpace("C:\\vol\\b.zub", 1, 1, false, false), 0);
    EXPECT_EQ(Fake().spaceFolder, "C:\\vol\\");
    dev.CloseDevice();
    Fake().framesFit = 12;
    ASSERT_EQ(dev.OpenDevice(0, 0, 0), 1);
    EXPECT_EQ(dev.QueryVolumeSpace("/v/a.zub", 7, 0, false, false), 12);
    EXPECT_EQ(Fake().tbxSpace.videoRate, 7);
}

TEST_F(DeviceTest, AppInfoBlock)
{
    std::uint8_t data[116];
    for (int i = 0; i < 116; ++i) data[i] = static_cast<std::uint8_t>(i * 3 + 1);
    for (int useZub : {1, 0}) {
        Fake().haveBlock = false;
        ASSERT_EQ(dev.OpenDevice(useZub, 0, 0), 1);
        ASSERT_EQ(dev.SetFileAppInfo("/v/a.zub", data), 1);
        const std::uint8_t* b = Fake().block;
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(b), 4), "RIFF");
        EXPECT_EQ(b[4] | (b[5] << 8), 4 + 8 + 116);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(b + 8), 8), "TBX ZUBV");
        EXPECT_EQ(b[16], 116);
        std::uint8_t back[256], chunk[116];
        ASSERT_EQ(dev.GetFileAppInfo("/v/a.zub", back), 1);
        ASSERT_TRUE(GetZubvChunk(back, chunk));
        EXPECT_EQ(std::memcmp(chunk, data, 116), 0);

        // An existing chunk is updated in place, keeping the rest of the block.
        Fake().block[200] = 0xAB;
        data[24] = 195;
        ASSERT_EQ(dev.SetFileAppInfo("/v/a.zub", data), 1);
        EXPECT_EQ(Fake().block[200], 0xAB);
        EXPECT_EQ(Fake().block[20 + 24], 195);

        // A chunk of another size is refused and nothing is written.
        Fake().block[16] = 100;
        Fake().calls.clear();
        EXPECT_EQ(dev.SetFileAppInfo("/v/a.zub", data), 0);
        EXPECT_EQ(Fake().Count(useZub ? "ZubDdrSetFileAppInfo" : "TbxDcSetAppInfo"), 0);
        EXPECT_NE(CRecorderDevice::GetError().find("100 bytes"), std::string::npos);
        dev.CloseDevice();
    }
}

TEST_F(DeviceTest, OutputRouting)
{
    ASSERT_EQ(dev.OpenDevice(0, 0, 0), 1);
    ASSERT_EQ(dev.SetOutputRouting(), 1);
    EXPECT_EQ(Fake().tbxPreview.source, 2);
    EXPECT_EQ(Fake().tbxPreview.mode, 0);
    const auto& r = Fake().tbxRouting;
    EXPECT_EQ((std::vector<int>{r.videoToOutput, r.keyToOutput, r.inputVideo, r.inputKey, r.enabled}),
              (std::vector<int>{1, 1, 0, 0, 1}));
    dev.CloseDevice();
    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    ASSERT_EQ(dev.SetOutputRouting(), 1);
    const auto& p = Fake().zubPreview;
    EXPECT_EQ((std::vector<int>{p.source, p.mode, p.reserved}), (std::vector<int>{1, 0, 0}));
    // Words the module does not set keep what the device gave.
    const auto& b = Fake().zubBusSet;
    EXPECT_EQ((std::vector<int>{b.videoEnabled, b.keyEnabled, b.source, b.bypass, b.reserved, b.flags}),
              (std::vector<int>{1, 1, 9, 0, 0, 6}));
}

TEST_F(DeviceTest, PerFileInformation)
{
    ASSERT_EQ(dev.OpenDevice(1, 0, 0), 1);
    Fake().fileFlags = 4;
    Fake().fileFrames = 30;
    EXPECT_EQ(dev.QueryFileKey("/v/a.zub"), 1);
    EXPECT_EQ(dev.QueryFileLength("/v/a.zub"), 30u);
    Fake().fileFlags = 2;
    EXPECT_EQ(dev.QueryFileKey("/v/a.zub"), 0);
    Fake().fileFrames = -1;
    EXPECT_EQ(dev.QueryFileLength("/v/a.zub"), 0u);
    dev.CloseDevice();

    ASSERT_EQ(dev.OpenDevice(0, 0, 0), 1);
    Fake().fileFlags = 2;
    Fake().fileFrames = 12;
    EXPECT_EQ(dev.QueryFileKey("/v/a.zub"), 1);
    Fake().calls.clear();
    EXPECT_EQ(dev.QueryFileLength("/v/a.zub"), 12u);
    EXPECT_EQ(Fake().calls, (std::vector<std::string>{"TbxPlyOpenClipItem 41", "TbxPlyItemQuery 777",
                                                      "TbxDereferenceObject 777"}));
    Fake().fileFlags = 4;
    EXPECT_EQ(dev.QueryFileKey("/v/a.zub"), 0);
    Fake().fileFrames = -1;
    EXPECT_EQ(dev.QueryFileKey("/v/a.zub"), 0);
}

TEST(DeviceLoading, MissingLibraryIsAFailedOpen)
{
    test::TempDir empty;
    const char* old = std::getenv(kRecorderDirVariable);
    const std::string saved = old ? old : "";
    setenv(kRecorderDirVariable, empty.Path().c_str(), 1);
    CRecorderDeviceInfo dev;
    EXPECT_EQ(dev.OpenDevice(1, 0, 0), 0);
    EXPECT_NE(CRecorderDevice::GetError().find("libZUBDDR.so"), std::string::npos);
    EXPECT_EQ(dev.OpenDevice(0, 0, 0), 0);
    EXPECT_NE(CRecorderDevice::GetError().find("libTbxDll.so"), std::string::npos);
    EXPECT_EQ(dev.handle, -1);
    if (old)
        setenv(kRecorderDirVariable, saved.c_str(), 1);
    else
        unsetenv(kRecorderDirVariable);
}

TEST_F(DeviceTest, CopyPrefsRoundTrip)
{
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(prompt);
    CConvertDlgPrefs in;
    in.useZub = 0;
    in.mode24p = 1;
    in.strSetting1 = "/vol/video/";
    in.strSetting2 = "/vol/audio/";
    std::int32_t* n[] = {&in.nSetting1,  &in.nSetting2,  &in.nSetting3,  &in.nSetting4,  &in.nSetting5,  &in.nSetting6,
                         &in.nSetting7,  &in.nSetting8,  &in.nSetting9,  &in.nSetting10, &in.nSetting11, &in.nSetting12,
                         &in.nSetting13, &in.nSetting14, &in.nSetting15, &in.nSetting16};
    for (int i = 0; i < 16; ++i) *n[i] = 1000 + i * 7;
    ASSERT_EQ(CConvertDlg::CopyPrefs(1, in), 1);
    EXPECT_EQ(TheRecorder().kind, RecorderKind::Tbx);
    EXPECT_EQ(TheRecorder().mode24p, 1);
    EXPECT_EQ(TheRecorder().frameHeight, 486);
    EXPECT_EQ(CurrentSettings().videoDir, "/vol/video/");

    CConvertDlgPrefs out;
    out.useZub = 0;
    ASSERT_EQ(CConvertDlg::CopyPrefs(0, out), 1);
    EXPECT_EQ(TheRecorder().handle, -1);
    EXPECT_EQ(TheRecorder().mode24p, 0);
    EXPECT_EQ(Fake().Count("TbxDcClose 41"), 1);
    EXPECT_EQ(out.strSetting1, in.strSetting1);
    EXPECT_EQ(out.strSetting2, in.strSetting2);
    std::int32_t* m[] = {&out.nSetting1,  &out.nSetting2,  &out.nSetting3,  &out.nSetting4,
                         &out.nSetting5,  &out.nSetting6,  &out.nSetting7,  &out.nSetting8,
                         &out.nSetting9,  &out.nSetting10, &out.nSetting11, &out.nSetting12,
                         &out.nSetting13, &out.nSetting14, &out.nSetting15, &out.nSetting16};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(*m[i], *n[i]) << "nSetting" << i + 1;
    EXPECT_TRUE(prompt->Texts().empty());
}

TEST_F(DeviceTest, CopyPrefsWhenTheDeviceCannotOpen)
{
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(prompt);
    const ImportSettings before = CurrentSettings();
    Fake().openResult = -6;
    CConvertDlgPrefs in;
    in.strSetting1 = "/elsewhere/";
    in.nSetting10 = 1;
    const CConvertDlgPrefs copy = in;
    EXPECT_EQ(CConvertDlg::CopyPrefs(1, in), 0);
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0],
              "Failed to open the ZUB Hardware device.\nPlease make sure all the drivers are started up properly.");
    EXPECT_EQ(in.strSetting1, copy.strSetting1);
    EXPECT_EQ(in.nSetting10, copy.nSetting10);
    EXPECT_TRUE(CurrentSettings() == before);
    EXPECT_EQ(TheRecorder().handle, -1);
}

}  // namespace
