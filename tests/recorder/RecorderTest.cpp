// Round trips through the substitute recorder: the device object writes clips through the
// real back-end libraries, zubclip reads them back, and ffmpeg decodes what zubclip wrote.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <algorithm>
#include <random>
#include <thread>

#include "recorder/ClipFile.h"
#include "device/RecorderAbi.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "tests/recorder/RecorderTestSupport.h"
#include "TempDir.h"

using namespace zub;
using namespace zub::test;

namespace {

// Nobody's own recorder configuration may leak into the tests.
const TempDir& ConfigHome()
{
    static TempDir dir;
    return dir;
}
const bool g_environment = [] {
    setenv(kRecorderDirVariable, ZUB_TEST_LIB_DIR, 1);
    setenv("XDG_CONFIG_HOME", ConfigHome().Path().c_str(), 1);
    setenv("ZUBREC_MONITOR", "off", 1);
    return true;
}();

constexpr std::int32_t kRate = 5 * 1024 * 1024;

class RecorderTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        setenv("ZUBREC_VOLUME", vol.Path().c_str(), 1);
        unsetenv("ZUBREC_LIMIT");
        unsetenv("ZUBREC_LINES");
        ASSERT_EQ(dev.OpenDeviceWithInfo(GetParam(), 0, 0), 1) << CRecorderDevice::GetError();
    }
    void TearDown() override { dev.CloseDevice(); }

    std::string Clip(const std::string& name) const { return vol / name; }

    // Creates a clip and imports `frames` test pictures.
    ClipItems Record(const ClipSpec& spec, int frames, int noise = 0)
    {
        ClipItems items;
        EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok) << CRecorderDevice::GetError();
        for (int i = 0; i < frames; ++i) {
            const auto holder = Holder(TestPicture(i, 720, 486, noise));
            EXPECT_EQ(dev.ImportFrame(FrameFor(spec, items, i, holder.data())), 1) << CRecorderDevice::GetError();
        }
        return items;
    }
    void Release(const ClipItems& items)
    {
        EXPECT_EQ(dev.ReleaseItem(items.video), 1);
        EXPECT_EQ(dev.ReleaseItem(items.alpha), 1);
    }
    std::string Export(const std::string& clip, const std::string& track = "video")
    {
        int status = -1;
        Shell(std::string(ZUBCLIP) + " export '" + clip + "' -o '" + (out / "") + "' --track " + track + " >/dev/null",
            &status);
        EXPECT_EQ(status, 0);
        return out / (std::filesystem::path(clip).stem().string() + "-");
    }

    TempDir vol, out;
    CRecorderDeviceInfo dev;
};

std::vector<std::uint8_t> SourceBgra(int frame)
{
    return TestPicture(frame).bgra;
}

std::string Name(const std::string& prefix, const char* kind, int frame)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%s-%06d.png", kind, frame);
    return prefix + buf;
}

TEST_P(RecorderTest, CompressedClipRoundTripsWithinItsBudget)
{
    for (bool fixed : {false, true}) {
        ClipSpec spec;
        spec.path = Clip(fixed ? "fixed.zub" : "plain.zub");
        spec.frames = 6;
        spec.videoRate = kRate;
        spec.fixedFieldSize = fixed;
        Release(Record(spec, 6));

        std::string error;
        auto r = rec::ClipReader::Open(spec.path, &error);
        ASSERT_TRUE(r) << error;
        const std::uint32_t budget = static_cast<std::uint32_t>(kRate) / (fixed ? 24 : 30);
        ASSERT_EQ(r->FramesReadable(rec::kVideo), 6u);
        EXPECT_EQ(r->Header().framesWritten, 6u);
        for (std::uint32_t i = 0; i < 6; ++i) {
            rec::IndexEntry e;
            ASSERT_TRUE(r->Entry(rec::kVideo, i, e));
            if (fixed)
                EXPECT_EQ(e.field1 + e.field2, budget) << "frame " << i;
            else
                EXPECT_LE(e.field1 + e.field2, budget) << "frame " << i;
        }
        EXPECT_EQ(dev.QueryFileLength(spec.path.c_str()), 6u);
        EXPECT_EQ(dev.QueryFileKey(spec.path.c_str()), 0);

        const std::string prefix = Export(spec.path);
        double worst = 99;
        for (int i = 0; i < 6; ++i) {
            const auto png = ReadPng(Name(prefix, "frame", i));
            ASSERT_EQ(png.size(), SourceBgra(i).size()) << "frame " << i;
            worst = std::min(worst, Psnr(png, SourceBgra(i), 4, 3));
        }
        // Measured 47.8 dB at 5 MB/s; a field or line mix-up falls far below.
        EXPECT_GT(worst, 42.0);
        RecordProperty(fixed ? "psnr_fixed" : "psnr", std::to_string(worst));
        std::printf("lowest PSNR %s: %.2f dB\n", fixed ? "(fixed field size)" : "", worst);
    }
}

// Pictures whose every colour is representable in 8-bit 4:2:2: pairs of pixels share one
// (Y, Cb, Cr), converted to RGB with the exact BT.601 formulas.
Picture Representable(std::uint32_t seed)
{
    Picture p;
    p.bgra.resize(static_cast<std::size_t>(p.width) * p.height * 4);
    std::mt19937 rng(seed);
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; x += 2) {
            double rgb[3];
            for (;;) {
                const int Y = 16 + static_cast<int>(rng() % 220), Cb = 16 + static_cast<int>(rng() % 225),
                          Cr = 16 + static_cast<int>(rng() % 225);
                const double l = (Y - 16) * 255.0 / 219.0, b = (Cb - 128) * 255.0 / 224.0, r = (Cr - 128) * 255.0 / 224.0;
                rgb[0] = l + 1.402 * r;
                rgb[1] = l - 0.344136 * b - 0.714136 * r;
                rgb[2] = l + 1.772 * b;
                bool ok = true;
                for (double c : rgb) {
                    const double frac = c - std::floor(c);
                    ok = ok && c >= 0 && c <= 255 && std::fabs(frac - 0.5) > 0.02;  // no rounding tie
                }
                if (ok) break;
            }
            for (int k = 0; k < 2; ++k) {
                std::uint8_t* px = p.At(x + k, y);
                px[0] = static_cast<std::uint8_t>(std::lround(rgb[2]));
                px[1] = static_cast<std::uint8_t>(std::lround(rgb[1]));
                px[2] = static_cast<std::uint8_t>(std::lround(rgb[0]));
                px[3] = static_cast<std::uint8_t>(rng());
            }
        }
    return p;
}

TEST_P(RecorderTest, TightBudgetLowersTheQuality)
{
    // 50,000 bytes a frame: far less than this grainy picture takes at the starting quality.
    ClipSpec spec;
    spec.path = Clip("tight.zub");
    spec.frames = 4;
    spec.videoRate = 1500000;
    Release(Record(spec, 4, 40));
    std::string error;
    auto r = rec::ClipReader::Open(spec.path, &error);
    ASSERT_TRUE(r) << error;
    ASSERT_EQ(r->FramesReadable(rec::kVideo), 4u);
    for (std::uint32_t i = 0; i < 4; ++i) {
        rec::IndexEntry e;
        ASSERT_TRUE(r->Entry(rec::kVideo, i, e));
        EXPECT_LE(e.field1 + e.field2, 50000u);
        EXPECT_GT(e.field1 + e.field2, 35000u);  // the budget is used, not wasted
    }
    const std::string prefix = Export(spec.path);
    const double psnr = Psnr(ReadPng(Name(prefix, "frame", 3)), TestPicture(3, 720, 486, 40).bgra, 4, 3);
    std::printf("PSNR of grainy frames at 50000 bytes a frame: %.2f dB\n", psnr);
    EXPECT_GT(psnr, 20.0);
}

TEST_P(RecorderTest, UncompressedClipAndKeyAreExact)
{
    ClipSpec spec;
    spec.path = Clip("raw.zub");
    spec.frames = 3;
    spec.videoRate = -1;
    spec.videoUncompressed = true;
    spec.createAlpha = true;
    spec.alphaRate = -1;
    spec.alphaUncompressed = true;
    ClipItems items;
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok) << CRecorderDevice::GetError();
    std::vector<Picture> pictures;
    for (int i = 0; i < 3; ++i) {
        pictures.push_back(Representable(static_cast<std::uint32_t>(i + 1)));
        const auto holder = Holder(pictures.back());
        FrameImport f;
        f.videoItem = items.video;
        f.alphaItem = items.alpha;
        f.frame = i;
        f.data = holder.data();
        f.videoRate = -1;
        f.alphaRate = -1;
        f.videoType = 3;
        f.alphaType = 3;
        ASSERT_EQ(dev.ImportFrame(f), 1) << CRecorderDevice::GetError();
    }
    Release(items);
    EXPECT_EQ(dev.QueryFileKey(spec.path.c_str()), 1);
    const std::string prefix = Export(spec.path, "both");
    for (int i = 0; i < 3; ++i) {
        const auto png = ReadPng(Name(prefix, "frame", i));
        const auto& src = pictures[i].bgra;
        ASSERT_EQ(png.size(), src.size());
        std::size_t differ = 0;
        for (std::size_t k = 0; k < src.size(); k += 4)
            differ += png[k] != src[k] || png[k + 1] != src[k + 1] || png[k + 2] != src[k + 2];
        EXPECT_EQ(differ, 0u) << "frame " << i;
        const auto key = ReadPng(Name(prefix, "key", i), true);
        ASSERT_EQ(key.size(), src.size() / 4);
        differ = 0;
        for (std::size_t k = 0; k < key.size(); ++k) differ += key[k] != src[4 * k + 3];
        EXPECT_EQ(differ, 0u) << "key " << i;
    }
}

TEST_P(RecorderTest, CompressedKeyTrack)
{
    ClipSpec spec;
    spec.path = Clip("keyed.zub");
    spec.frames = 4;
    spec.videoRate = kRate;
    spec.createAlpha = true;
    spec.alphaSameAsVideo = true;
    spec.alphaRate = kRate;
    Release(Record(spec, 4));
    EXPECT_EQ(dev.QueryFileKey(spec.path.c_str()), 1);
    std::string error;
    auto r = rec::ClipReader::Open(spec.path, &error);
    ASSERT_TRUE(r) << error;
    EXPECT_EQ(r->FramesReadable(rec::kAlpha), 4u);
    const std::string prefix = Export(spec.path, "key");
    for (int i = 0; i < 4; ++i) {
        const auto key = ReadPng(Name(prefix, "key", i), true);
        const auto src = SourceBgra(i);
        std::vector<std::uint8_t> alpha(src.size() / 4);
        for (std::size_t k = 0; k < alpha.size(); ++k) alpha[k] = src[4 * k + 3];
        EXPECT_GT(Psnr(key, alpha, 1, 1), 36.0) << "key " << i;
    }
}

TEST_P(RecorderTest, LimitedVolumeAnswersWhatFitsAndRefusesMore)
{
    setenv("ZUBREC_LIMIT", "8M", 1);
    dev.CloseDevice();
    ASSERT_EQ(dev.OpenDeviceWithInfo(GetParam(), 0, 0), 1);
    const std::string path = Clip("big.zub");
    const std::int32_t fit = dev.QueryVolumeSpace(path.c_str(), kRate, 0, false, false);
    // 8 MiB of 174762-byte frames, less the header and index.
    EXPECT_GE(fit, 45);
    EXPECT_LE(fit, 48);
    ClipSpec spec;
    spec.path = path;
    spec.videoRate = kRate;
    spec.frames = fit + 1;
    ClipItems items;
    EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::NoSpace);
    EXPECT_EQ(items.code, GetParam() ? rec::kZubNoSpace : rec::kTbxNoSpace);
    EXPECT_FALSE(std::filesystem::exists(path));
    spec.frames = fit;
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok) << CRecorderDevice::GetError();
    Release(items);
    // The clip's reservation counts against the limit.
    EXPECT_EQ(dev.QueryVolumeSpace(path.c_str(), kRate, 0, false, false), 0);
    spec.path = Clip("more.zub");
    spec.frames = 1;
    EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::NoSpace);
    // Uncompressed frames are bigger: fewer fit.
    std::filesystem::remove(path);
    EXPECT_EQ(dev.QueryVolumeSpace(path.c_str(), 0, 0, true, false), 11);
}

TEST_P(RecorderTest, ExistingFileIsRefusedAndKept)
{
    const std::string path = Clip("taken.zub");
    std::ofstream(path) << "someone else's";
    ClipSpec spec;
    spec.path = path;
    spec.frames = 2;
    spec.videoRate = kRate;
    ClipItems items;
    EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Exists);
    EXPECT_EQ(items.code, GetParam() ? rec::kZubFileExists : rec::kTbxFileExists);
    EXPECT_EQ(std::filesystem::file_size(path), 14u);
}

TEST_P(RecorderTest, ClipCutShortReadsBackItsWholeFrames)
{
    const std::string path = Clip("crash.zub");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The writer dies after four frames without releasing anything.
        ClipSpec spec;
        spec.path = path;
        spec.frames = 10;
        spec.videoRate = kRate;
        spec.createAlpha = true;
        spec.alphaRate = -1;
        spec.alphaUncompressed = true;
        Record(spec, 4);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(dev.QueryFileLength(path.c_str()), 4u);
    const std::string info = Shell(std::string(ZUBCLIP) + " info '" + path + "'");
    EXPECT_NE(info.find("frames readable: video 4, key 4"), std::string::npos) << info;
    EXPECT_NE(info.find("capacity: 10 frames"), std::string::npos) << info;
    const std::string prefix = Export(path, "both");
    EXPECT_TRUE(std::filesystem::exists(Name(prefix, "frame", 3)));
    EXPECT_TRUE(std::filesystem::exists(Name(prefix, "key", 3)));
    EXPECT_FALSE(std::filesystem::exists(Name(prefix, "frame", 4)));
    EXPECT_GT(Psnr(ReadPng(Name(prefix, "frame", 3)), SourceBgra(3), 4, 3), 36.0);
}

TEST_P(RecorderTest, RateRecordThroughZubclip)
{
    ClipSpec spec;
    spec.path = Clip("rated.zub");
    spec.frames = 1;
    spec.videoRate = 3000000;
    Release(Record(spec, 1));
    std::uint8_t record[116] = {};
    record[24] = 195;  // (3,000,000 / 30) >> 9
    ASSERT_EQ(dev.SetFileAppInfo(spec.path.c_str(), record), 1) << CRecorderDevice::GetError();
    const std::string info = Shell(std::string(ZUBCLIP) + " info '" + spec.path + "'");
    EXPECT_NE(info.find("sectors per frame 195"), std::string::npos) << info;
    std::uint8_t block[256];
    ASSERT_EQ(dev.GetFileAppInfo(spec.path.c_str(), block), 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(block) + 8, 8), "TBX ZUBV");
    EXPECT_EQ(dev.SetFileAppInfo(Clip("absent.zub").c_str(), record), 0);
}

TEST_P(RecorderTest, RefusesFramesItCannotTake)
{
    ClipSpec spec;
    spec.path = Clip("strict.zub");
    spec.frames = 2;
    spec.videoRate = kRate;
    ClipItems items;
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok);
    Picture small = TestPicture(0, 640, 480);
    auto holder = Holder(small);
    FrameImport f;
    f.videoItem = items.video;
    f.data = holder.data();
    f.videoRate = kRate;
    EXPECT_EQ(dev.ImportFrame(f), 0);
    EXPECT_NE(CRecorderDevice::GetError().find("640 x 480"), std::string::npos) << CRecorderDevice::GetError();
    holder = Holder(TestPicture(0));
    f.data = holder.data();
    f.frame = 2;  // beyond the capacity
    EXPECT_EQ(dev.ImportFrame(f), 0);
    f.frame = 1;
    EXPECT_EQ(dev.ImportFrame(f), 1);
    f.videoItem = 12345;
    EXPECT_EQ(dev.ImportFrame(f), 0);
    Release(items);
    // A rate too low for any frame is refused at creation.
    spec.path = Clip("tiny.zub");
    spec.videoRate = 1000;
    EXPECT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Failed);
    EXPECT_FALSE(std::filesystem::exists(spec.path));
}

TEST_P(RecorderTest, ServerAnd24BitFrames)
{
    ClipSpec spec;
    spec.path = Clip("layouts.zub");
    spec.frames = 3;
    spec.videoRate = -1;
    spec.videoUncompressed = true;
    ClipItems items;
    ASSERT_EQ(dev.CreateClipItem(spec, items), ClipStatus::Ok);
    FrameImport f;
    f.videoItem = items.video;
    f.videoRate = -1;
    f.videoType = 3;

    // Server mode: 4:2:2 rows in picture order, stored as they come.
    std::vector<std::uint8_t> server(40 + 720 * 486 * 2);
    BITMAPINFOHEADER bi{};
    bi.biSize = 40;
    bi.biWidth = 720;
    bi.biHeight = 486;
    bi.biPlanes = 1;
    bi.biBitCount = 16;
    std::memcpy(server.data(), &bi, 40);
    std::mt19937 rng(7);
    for (std::size_t i = 40; i < server.size(); ++i) server[i] = static_cast<std::uint8_t>(16 + rng() % 220);
    f.frame = 0;
    f.data = server.data();
    f.source = FrameSource::Server;
    ASSERT_EQ(dev.ImportFrame(f), 1) << CRecorderDevice::GetError();

    // 24 bits: rows of 2160 bytes (already a multiple of 4), bottom-up.
    const Picture pic = Representable(9);
    std::vector<std::uint8_t> rgb(40 + 720 * 486 * 3);
    bi.biBitCount = 24;
    std::memcpy(rgb.data(), &bi, 40);
    for (int y = 0; y < 486; ++y)
        for (int x = 0; x < 720; ++x)
            std::memcpy(&rgb[40 + (static_cast<std::size_t>(485 - y) * 720 + x) * 3], pic.At(x, y), 3);
    f.frame = 1;
    f.data = rgb.data();
    f.source = FrameSource::Bits24;
    ASSERT_EQ(dev.ImportFrame(f), 1) << CRecorderDevice::GetError();
    Release(items);

    std::string error;
    auto r = rec::ClipReader::Open(spec.path, &error);
    ASSERT_TRUE(r) << error;
    std::vector<std::uint8_t> f1, f2;
    ASSERT_TRUE(r->ReadStored(rec::kVideo, 0, f1, f2, &error)) << error;
    EXPECT_TRUE(std::equal(f1.begin(), f1.end(), server.begin() + 40));
    const auto png = ReadPng(Name(Export(spec.path), "frame", 1));
    ASSERT_EQ(png.size(), pic.bgra.size());
    std::size_t differ = 0;
    for (std::size_t k = 0; k < png.size(); k += 4)
        differ += png[k] != pic.bgra[k] || png[k + 1] != pic.bgra[k + 1] || png[k + 2] != pic.bgra[k + 2];
    EXPECT_EQ(differ, 0u);
}

TEST_P(RecorderTest, ContactSheet)
{
    ClipSpec spec;
    spec.path = Clip("sheet.zub");
    spec.frames = 6;
    spec.videoRate = kRate;
    Release(Record(spec, 6));
    const std::string sheet = out / "sheet.png";
    int status = -1;
    Shell(std::string(ZUBCLIP) + " sheet '" + spec.path + "' -o '" + sheet + "' --count 6 --columns 3 >/dev/null",
          &status);
    ASSERT_EQ(status, 0);
    // Three 180 x 121 tiles a row, two rows, 4-pixel gaps.
    EXPECT_EQ(Shell("ffprobe -v error -show_entries stream=width,height -of csv=p=0 '" + sheet + "'"), "556,254\n");
    // The last tile is the last frame: its mean colour matches the frame's.
    const auto png = ReadPng(sheet);
    ASSERT_EQ(png.size(), 556u * 254 * 4);
    const auto src = SourceBgra(5);
    for (int c = 0; c < 3; ++c) {
        double tile = 0, frame = 0;
        for (int y = 0; y < 121; ++y)
            for (int x = 0; x < 180; ++x) tile += png[((129 + y) * 556 + 372 + x) * 4 + c];
        for (std::size_t k = 0; k < src.size(); k += 4) frame += src[k + c];
        EXPECT_NEAR(tile / (121 * 180), frame / (src.size() / 4), 4.0) << "channel " << c;
    }
}

TEST_P(RecorderTest, ImportsFromSeveralThreads)
{
    // Frames arrive on streaming threads: two clips written at once, plus the same clip's
    // video from two threads taking alternate frames.
    ClipSpec a, b;
    a.path = Clip("a.zub");
    b.path = Clip("b.zub");
    a.frames = b.frames = 6;
    a.videoRate = kRate;
    b.videoRate = -1;
    b.videoUncompressed = true;
    ClipItems ia, ib;
    ASSERT_EQ(dev.CreateClipItem(a, ia), ClipStatus::Ok);
    ASSERT_EQ(dev.CreateClipItem(b, ib), ClipStatus::Ok);
    const auto holder = Holder(TestPicture(1));
    auto writer = [&](std::int32_t item, std::int32_t rate, int first, int step) {
        for (int i = first; i < 6; i += step) {
            FrameImport f;
            f.videoItem = item;
            f.frame = i;
            f.data = holder.data();
            f.videoRate = rate;
            f.videoType = rate == -1 ? 3 : 1;
            EXPECT_EQ(dev.ImportFrame(f), 1) << CRecorderDevice::GetError();
        }
    };
    std::thread t1(writer, ia.video, kRate, 0, 2), t2(writer, ia.video, kRate, 1, 2), t3(writer, ib.video, -1, 0, 1);
    t1.join();
    t2.join();
    t3.join();
    Release(ia);
    Release(ib);
    EXPECT_EQ(dev.QueryFileLength(a.path.c_str()), 6u);
    EXPECT_EQ(dev.QueryFileLength(b.path.c_str()), 6u);
}

INSTANTIATE_TEST_SUITE_P(BothBackEnds, RecorderTest, ::testing::Values(1, 0),
                         [](const auto& info) { return info.param ? std::string("Zub") : std::string("Tbx"); });

TEST(RecorderConfiguration, StandardAndMonitorFromTheConfiguration)
{
    TempDir vol, home;
    std::filesystem::create_directories(home.Path() / "zubrecorder");
    const std::string monitor = vol / "monitor.jpg";
    std::ofstream(home / "zubrecorder/recorder.ini") << "[Recorder]\nLines = 625\nMonitor = " << monitor << "\n";
    setenv("XDG_CONFIG_HOME", home.Path().c_str(), 1);
    unsetenv("ZUBREC_MONITOR");
    setenv("ZUBREC_VOLUME", vol.Path().c_str(), 1);
    CRecorderDeviceInfo dev;
    ASSERT_EQ(dev.OpenDeviceWithInfo(0, 0, 0), 1) << CRecorderDevice::GetError();
    EXPECT_EQ(dev.lines, 625);
    EXPECT_EQ(dev.frameWidth, 720);
    EXPECT_EQ(dev.frameHeight, 576);
    dev.CloseDevice();
    ASSERT_EQ(dev.OpenDeviceWithInfo(1, 0, 0), 1) << CRecorderDevice::GetError();
    EXPECT_EQ(dev.frameHeight, 576);
    const auto holder = Holder(TestPicture(2, 720, 576));
    ASSERT_EQ(dev.ShowImage(holder.data(), FrameSource::Pipeline, false, kRate), 1) << CRecorderDevice::GetError();
    const std::string probe = Shell("ffprobe -v error -show_entries stream=width,height -of csv=p=0 '" + monitor + "'");
    EXPECT_EQ(probe, "720,576\n");
    std::string folder;
    int lines = 0, w = 0, h = 0;
    ASSERT_EQ(dev.QuerySystemPrefs(folder, lines, w, h), 1);
    EXPECT_EQ(folder, vol.Path().string() + "/");
    dev.CloseDevice();
    // The environment wins over the file.
    setenv("ZUBREC_LINES", "525", 1);
    ASSERT_EQ(dev.OpenDeviceWithInfo(1, 0, 0), 1);
    EXPECT_EQ(dev.frameHeight, 486);
    dev.CloseDevice();
    setenv("ZUBREC_LINES", "600", 1);
    EXPECT_EQ(dev.OpenDeviceWithInfo(1, 0, 0), 0);
    EXPECT_NE(CRecorderDevice::GetError().find("ZUBREC_LINES"), std::string::npos);
    unsetenv("ZUBREC_LINES");
    setenv("XDG_CONFIG_HOME", ConfigHome().Path().c_str(), 1);
    setenv("ZUBREC_MONITOR", "off", 1);
}

TEST(ClipReading, DamagedFilesAreRefused)
{
    TempDir dir;
    const std::string path = dir / "bad.zub";
    std::string error;
    std::ofstream(path) << "ZUB0 but nothing else";
    EXPECT_FALSE(rec::ClipReader::Open(path, &error));
    EXPECT_NE(error.find(path), std::string::npos);

    // A real header with each size field broken in turn.
    rec::ClipParams p;
    p.capacity = 3;
    p.videoRate = kRate;
    rec::ClipHeader good;
    ASSERT_TRUE(rec::MakeHeader(p, good, &error));
    auto writeWith = [&](auto change) {
        rec::ClipHeader h = good;
        change(h);
        std::filesystem::remove(path);
        bool exists = false;
        auto w = rec::ClipWriter::Create(path, good, false, &exists, &error);
        ASSERT_TRUE(w);
        w.reset();
        std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
        f.write(reinterpret_cast<const char*>(&h), sizeof h);
    };
    writeWith([](rec::ClipHeader&) {});
    EXPECT_TRUE(rec::ClipReader::Open(path, &error)) << error;
    writeWith([](rec::ClipHeader& h) { h.capacity = 0xFFFFFFFF; });
    EXPECT_FALSE(rec::ClipReader::Open(path, &error));
    writeWith([](rec::ClipHeader& h) { h.dataOffset = 1ull << 40; });
    EXPECT_FALSE(rec::ClipReader::Open(path, &error));
    writeWith([](rec::ClipHeader& h) { h.videoSlot = 0xFFFFFFF0; });
    EXPECT_FALSE(rec::ClipReader::Open(path, &error));
    writeWith([](rec::ClipHeader& h) { h.width = 0; });
    EXPECT_FALSE(rec::ClipReader::Open(path, &error));
    int status = 0;
    Shell(std::string(ZUBCLIP) + " info '" + path + "' 2>/dev/null", &status);
    EXPECT_EQ(status, 1);
}

}  // namespace
