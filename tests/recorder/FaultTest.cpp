// Recorder faults on demand: each is set the way its users set it (an environment variable
// or the configuration file), reached through the device object and the real back-end
// libraries of both interfaces, and what it leaves on the volume is read back by zubclip.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "device/RecorderAbi.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "recorder/ClipFile.h"
#include "tests/recorder/RecorderTestSupport.h"
#include "TempDir.h"

using namespace zub;
using namespace zub::test;

namespace {

constexpr std::int32_t kRate = 5 * 1024 * 1024;  // 174762-byte frames at 30 per second

const char* const kFaultVariables[] = {"ZUBREC_FAIL_CREATE", "ZUBREC_FAIL_IMPORT", "ZUBREC_FULL_AFTER",
                                       "ZUBREC_FAIL_APPINFO", "ZUBREC_WRITE_DELAY", "ZUBREC_RESERVE",
                                       "ZUBREC_LIMIT",        "ZUBREC_LINES",       "ZUBREC_CONFIG"};

std::string FileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Each test sets its faults, then opens the device (the recorder reads them at open).
class RecorderFault : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        setenv(kRecorderDirVariable, ZUB_TEST_LIB_DIR, 1);
        setenv("XDG_CONFIG_HOME", config.Path().c_str(), 1);
        setenv("ZUBREC_MONITOR", "off", 1);
        setenv("ZUBREC_VOLUME", vol.Path().c_str(), 1);
        for (const char* v : kFaultVariables) unsetenv(v);
    }
    void TearDown() override
    {
        dev.CloseDevice();
        for (const char* v : kFaultVariables) unsetenv(v);
    }

    void Open() { ASSERT_EQ(dev.OpenDeviceWithInfo(GetParam(), 0, 0), 1) << CRecorderDevice::GetError(); }
    // Sets one fault's variable, then opens.
    void OpenWith(const char* variable, const char* value)
    {
        setenv(variable, value, 1);
        Open();
    }
    bool Zub() const { return GetParam() != 0; }
    std::int32_t NoSpaceCode() const { return Zub() ? rec::kZubNoSpace : rec::kTbxNoSpace; }
    std::int32_t IoErrorCode() const { return Zub() ? rec::kZubIoError : rec::kTbxIoError; }

    ClipSpec Spec(const std::string& name, int frames) const
    {
        ClipSpec spec;
        spec.path = vol / name;
        spec.frames = frames;
        spec.videoRate = kRate;
        return spec;
    }
    ClipItems Create(const ClipSpec& spec)
    {
        ClipItems items;
        EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok) << CRecorderDevice::GetError();
        return items;
    }
    // Releases a clip's items; then how many frames zubclip reads in it.
    std::string Release(const ClipItems& items, const std::string& clip)
    {
        EXPECT_EQ(dev.ReleaseItem(items.video), 1) << CRecorderDevice::GetError();
        EXPECT_EQ(dev.ReleaseItem(items.alpha), 1) << CRecorderDevice::GetError();
        return Readable(clip);
    }
    // Imports frames first..last-1; the number that succeeded before the first failure.
    int Import(const ClipSpec& spec, const ClipItems& items, int first, int last)
    {
        for (int i = first; i < last; ++i) {
            const auto holder = Holder(TestPicture(i));
            if (!dev.ImportFrame(FrameFor(spec, items, i, holder.data()))) return i - first;
        }
        return last - first;
    }
    // "frames readable: video N" as zubclip reads the file.
    std::string Readable(const std::string& clip)
    {
        int status = -1;
        const std::string info = Shell(std::string(ZUBCLIP) + " info '" + clip + "'", &status);
        EXPECT_EQ(status, 0) << info;
        const std::size_t at = info.find("frames readable: ");
        return at == std::string::npos ? info : info.substr(at, info.find('\n', at) - at);
    }

    TempDir vol, config;
    CRecorderDeviceInfo dev;
};

TEST_P(RecorderFault, CreationRefusedForWantOfSpace)
{
    OpenWith("ZUBREC_FAIL_CREATE", "nospace");
    // The space query still answers: the fault is in the creation alone.
    EXPECT_GT(dev.QueryVolumeSpace((vol / "a.zub").c_str(), kRate, 0, false, false), 100);
    ClipItems items;
    const ClipSpec spec = Spec("a.zub", 10);
    EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::NoSpace);
    EXPECT_EQ(items.code, NoSpaceCode());
    EXPECT_EQ(items.video, -1);
    EXPECT_EQ(CRecorderDevice::GetLastResult(), NoSpaceCode());
    EXPECT_NE(CRecorderDevice::GetError().find(spec.path), std::string::npos) << CRecorderDevice::GetError();
    EXPECT_FALSE(std::filesystem::exists(spec.path));
}

TEST_P(RecorderFault, CreationRefusedAsExisting)
{
    OpenWith("ZUBREC_FAIL_CREATE", "exists");
    ClipItems items;
    const ClipSpec spec = Spec("b.zub", 10);
    EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Exists);
    EXPECT_EQ(items.code, Zub() ? rec::kZubFileExists : rec::kTbxFileExists);
    EXPECT_FALSE(std::filesystem::exists(spec.path));
    EXPECT_FALSE(dev.LastFailureIsNoSpace());
}

TEST_P(RecorderFault, NthFrameImportFailsOnce)
{
    OpenWith("ZUBREC_FAIL_IMPORT", "3");
    const ClipSpec spec = Spec("c.zub", 6);
    const ClipItems items = Create(spec);
    EXPECT_EQ(Import(spec, items, 0, 6), 2);  // the third import, frame 2, fails
    EXPECT_EQ(CRecorderDevice::GetLastResult(), IoErrorCode());
    EXPECT_FALSE(dev.LastFailureIsNoSpace());
    EXPECT_NE(CRecorderDevice::GetError().find("frame 2"), std::string::npos) << CRecorderDevice::GetError();
    // Only that one: the frames after it are taken.
    EXPECT_EQ(Import(spec, items, 3, 6), 3);
    EXPECT_EQ(dev.ReleaseItem(items.video), 1);
    // The clip reads back to its last whole frame before the gap.
    EXPECT_EQ(dev.QueryFileLength(spec.path.c_str()), 2u);
    EXPECT_EQ(Readable(spec.path), "frames readable: video 2");
}

TEST_P(RecorderFault, VolumeFullAfterNFramesAcrossClips)
{
    OpenWith("ZUBREC_FULL_AFTER", "5");
    const ClipSpec first = Spec("d1.zub", 3), second = Spec("d2.zub", 10);
    const ClipItems a = Create(first);
    EXPECT_EQ(Import(first, a, 0, 3), 3);
    EXPECT_EQ(Release(a, first.path), "frames readable: video 3");
    // Space was asked for before the volume filled, and it still looks free: the second clip
    // is made, and fills the volume at its third frame.
    EXPECT_GT(dev.QueryVolumeSpace(second.path.c_str(), kRate, 0, false, false), 10);
    const ClipItems b = Create(second);
    EXPECT_EQ(Import(second, b, 0, 10), 2);
    EXPECT_EQ(CRecorderDevice::GetLastResult(), NoSpaceCode());
    EXPECT_TRUE(dev.LastFailureIsNoSpace());
    EXPECT_NE(CRecorderDevice::GetError().find(second.path), std::string::npos);
    EXPECT_EQ(Import(second, b, 2, 3), 0);  // and stays full
    EXPECT_EQ(Release(b, second.path), "frames readable: video 2");
    // Full now for every question.
    EXPECT_EQ(dev.QueryVolumeSpace(second.path.c_str(), kRate, 0, false, false), 0);
    ClipItems c;
    EXPECT_EQ(dev.CreateClipItem(Spec("d3.zub", 1), c), ClipStatus::NoSpace);
    EXPECT_EQ(c.code, NoSpaceCode());
    // A fresh open counts from nothing.
    dev.CloseDevice();
    Open();
    EXPECT_GT(dev.QueryVolumeSpace(second.path.c_str(), kRate, 0, false, false), 10);
}

TEST_P(RecorderFault, FullAfterZeroRefusesTheFirstFrame)
{
    OpenWith("ZUBREC_FULL_AFTER", "0");
    const ClipSpec spec = Spec("e.zub", 4);
    const ClipItems items = Create(spec);
    EXPECT_EQ(Import(spec, items, 0, 4), 0);
    EXPECT_TRUE(dev.LastFailureIsNoSpace());
    EXPECT_EQ(Release(items, spec.path), "frames readable: video 0");
}

TEST_P(RecorderFault, ConfiguredLimitReachedMidClip)
{
    setenv("ZUBREC_LIMIT", "2M", 1);
    setenv("ZUBREC_RESERVE", "0", 1);
    Open();
    const ClipSpec spec = Spec("f.zub", 30);  // 5 MB at full size, more than the volume holds
    const ClipItems items = Create(spec);
    // The frames that fit between the clip's header and index and the limit.
    rec::ClipParams p;
    p.capacity = 30;
    p.videoRate = kRate;
    rec::ClipHeader h;
    std::string error;
    ASSERT_TRUE(rec::MakeHeader(p, h, &error)) << error;
    const int fit = static_cast<int>(((2u << 20) - h.dataOffset) / h.videoSlot);
    ASSERT_GT(fit, 5);
    EXPECT_EQ(Import(spec, items, 0, 30), fit);
    EXPECT_TRUE(dev.LastFailureIsNoSpace()) << CRecorderDevice::GetError();
    EXPECT_NE(CRecorderDevice::GetError().find(spec.path), std::string::npos);
    EXPECT_EQ(Release(items, spec.path), "frames readable: video " + std::to_string(fit));
    EXPECT_LE(std::filesystem::file_size(spec.path), 2u << 20);
    // The frames it holds are whole pictures for a decoder we did not write.
    TempDir out;
    int status = -1;
    Shell(std::string(ZUBCLIP) + " export '" + spec.path + "' -o '" + (out / "") + "' >/dev/null", &status);
    ASSERT_EQ(status, 0);
    const auto last = ReadPng(out / ("f-frame-" + std::string(6 - std::to_string(fit - 1).size(), '0') +
                                     std::to_string(fit - 1) + ".png"));
    EXPECT_GT(Psnr(last, TestPicture(fit - 1).bgra, 4, 3), 40.0);

    // With the size reserved (the default), the same clip is refused at creation instead.
    dev.CloseDevice();
    setenv("ZUBREC_RESERVE", "1", 1);
    std::filesystem::remove(spec.path);
    Open();
    ClipItems refused;
    EXPECT_EQ(dev.CreateClipItem(spec, refused), ClipStatus::NoSpace);
    EXPECT_EQ(refused.code, NoSpaceCode());
}

TEST_P(RecorderFault, ApplicationInformationWriteFails)
{
    OpenWith("ZUBREC_FAIL_APPINFO", "1");
    const ClipSpec spec = Spec("g.zub", 2);
    const ClipItems items = Create(spec);
    EXPECT_EQ(Import(spec, items, 0, 2), 2);
    EXPECT_EQ(dev.ReleaseItem(items.video), 1);
    const std::string before = FileBytes(spec.path);
    std::uint8_t data[116];
    for (int i = 0; i < 116; ++i) data[i] = static_cast<std::uint8_t>(200 - i);
    EXPECT_EQ(dev.SetFileAppInfo(spec.path.c_str(), data), 0);
    EXPECT_EQ(CRecorderDevice::GetLastResult(), IoErrorCode());
    EXPECT_NE(CRecorderDevice::GetError().find(spec.path), std::string::npos) << CRecorderDevice::GetError();
    EXPECT_EQ(FileBytes(spec.path), before);  // untouched
    EXPECT_EQ(Readable(spec.path), "frames readable: video 2");

    // The same write goes through without the fault.
    dev.CloseDevice();
    unsetenv("ZUBREC_FAIL_APPINFO");
    Open();
    ASSERT_EQ(dev.SetFileAppInfo(spec.path.c_str(), data), 1) << CRecorderDevice::GetError();
    std::uint8_t block[256], back[116];
    ASSERT_EQ(dev.GetFileAppInfo(spec.path.c_str(), block), 1);
    ASSERT_TRUE(GetZubvChunk(block, back));
    EXPECT_EQ(std::memcmp(back, data, 116), 0);
}

TEST_P(RecorderFault, EveryWriteIsSlowed)
{
    OpenWith("ZUBREC_WRITE_DELAY", "40");
    const ClipSpec spec = Spec("h.zub", 3);
    const ClipItems items = Create(spec);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Import(spec, items, 0, 3), 3);
    std::uint8_t data[116] = {1};
    EXPECT_EQ(dev.SetFileAppInfo(spec.path.c_str(), data), 1);
    // A lower bound only: the waits are at least what was asked for, whatever the machine.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4 * 40));
    EXPECT_EQ(Release(items, spec.path), "frames readable: video 3");
}

TEST_P(RecorderFault, FaultsFromTheConfigurationFile)
{
    std::filesystem::create_directories(config.Path() / "zubrecorder");
    std::ofstream(config / "zubrecorder/recorder.ini") << "[recorder]\nfail_import = 1\nfull_after = 2\n";
    Open();
    const ClipSpec spec = Spec("i.zub", 5);
    const ClipItems items = Create(spec);
    EXPECT_EQ(Import(spec, items, 0, 5), 0);
    EXPECT_EQ(CRecorderDevice::GetLastResult(), IoErrorCode());
    EXPECT_EQ(Import(spec, items, 1, 5), 2);  // frames 1 and 2 fill the volume
    EXPECT_TRUE(dev.LastFailureIsNoSpace());
    dev.CloseDevice();
    // The environment wins over the file.
    setenv("ZUBREC_FAIL_IMPORT", "0", 1);
    setenv("ZUBREC_FULL_AFTER", "100", 1);
    Open();
    const ClipSpec other = Spec("j.zub", 3);
    EXPECT_EQ(Import(other, Create(other), 0, 3), 3);
}

TEST_P(RecorderFault, BadFaultSettingsFailTheOpenAndSayWhich)
{
    const std::pair<const char*, const char*> bad[] = {{"ZUBREC_FAIL_CREATE", "full"},
                                                       {"ZUBREC_FAIL_IMPORT", "-1"},
                                                       {"ZUBREC_FULL_AFTER", "3x"},
                                                       {"ZUBREC_FAIL_APPINFO", "yes"},
                                                       {"ZUBREC_WRITE_DELAY", "999999"},
                                                       {"ZUBREC_RESERVE", "2"}};
    for (const auto& [variable, value] : bad) {
        setenv(variable, value, 1);
        EXPECT_EQ(dev.OpenDeviceWithInfo(GetParam(), 0, 0), 0) << variable;
        EXPECT_NE(CRecorderDevice::GetError().find(variable), std::string::npos) << CRecorderDevice::GetError();
        EXPECT_NE(CRecorderDevice::GetError().find(value), std::string::npos) << CRecorderDevice::GetError();
        unsetenv(variable);
    }
    std::filesystem::create_directories(config.Path() / "zubrecorder");
    std::ofstream(config / "zubrecorder/recorder.ini") << "[recorder]\nfail_create = sometimes\n";
    EXPECT_EQ(dev.OpenDeviceWithInfo(GetParam(), 0, 0), 0);
    EXPECT_NE(CRecorderDevice::GetError().find("fail_create"), std::string::npos) << CRecorderDevice::GetError();
}

INSTANTIATE_TEST_SUITE_P(BothBackEnds, RecorderFault, ::testing::Values(1, 0),
                         [](const auto& info) { return info.param ? std::string("Zub") : std::string("Tbx"); });

}  // namespace
