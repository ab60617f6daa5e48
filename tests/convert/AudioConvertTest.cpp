// The audio conversion end to end: format checks and their messages, the header rewrite, width
// and channel conversion, blocked conversion against a one-block pass, the result read back by
// sox after the clean copy, and the accuracy of a resampled sine.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "convert/audio/AudioConverter.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Dva.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"
#include "Tool.h"

namespace zub::audio {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes ReadFile(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

void Put(Bytes& b, std::uint32_t v, int n)
{
    for (int i = 0; i < n; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

// A canonical WAVE file with the given fmt fields and raw audio bytes.
void WriteWave(const std::string& path, unsigned tag, unsigned channels, std::uint32_t rate, unsigned bits,
               const Bytes& audio, unsigned fmtSize = 16)
{
    Bytes b{'R', 'I', 'F', 'F'};
    Put(b, static_cast<std::uint32_t>(4 + 8 + fmtSize + 8 + audio.size()), 4);
    b.insert(b.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    Put(b, fmtSize, 4);
    Bytes fmt;
    Put(fmt, tag, 2);
    Put(fmt, channels, 2);
    Put(fmt, rate, 4);
    Put(fmt, rate * channels * bits / 8, 4);
    Put(fmt, channels * bits / 8, 2);
    Put(fmt, bits, 2);
    fmt.resize(fmtSize, 0);
    b.insert(b.end(), fmt.begin(), fmt.end());
    b.insert(b.end(), {'d', 'a', 't', 'a'});
    Put(b, static_cast<std::uint32_t>(audio.size()), 4);
    b.insert(b.end(), audio.begin(), audio.end());
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

Bytes Samples16(const std::vector<std::int16_t>& s)
{
    Bytes b;
    for (auto v : s) Put(b, static_cast<std::uint16_t>(v), 2);
    return b;
}

std::vector<std::int16_t> AudioOf(const Bytes& file)
{
    std::vector<std::int16_t> s;
    for (std::size_t i = 44; i + 1 < file.size(); i += 2)
        s.push_back(static_cast<std::int16_t>(file[i] | (file[i + 1] << 8)));
    return s;
}

std::uint32_t Field(const Bytes& b, std::size_t at, int n)
{
    std::uint32_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = (v << 8) | b.at(at + static_cast<std::size_t>(i));
    return v;
}

std::string Sox(const std::string& option, const std::string& file)
{
    return test::CaptureLine("sox --i " + option + " '" + file + "' 2>&1");
}

std::string MakeTone(const test::TempDir& dir, const std::string& name, int bits, int rate, int channels, double seconds)
{
    std::string err;
    const std::string path = dir / name;
    if (!testmedia::MakeWave(path, bits, rate, channels, seconds, 1000.0, 0.5, &err)) ADD_FAILURE() << err;
    return path;
}

// Puts the module's settings back after each test.
class AudioConvert : public ::testing::Test {
protected:
    void SetUp() override { saved_ = CurrentSettings(); }
    void TearDown() override { CurrentSettings() = saved_; }
    void Target(int rateIndex, int channels, int sampleSize)
    {
        CurrentSettings().audioRateIndex = rateIndex;
        CurrentSettings().audioChannels = channels;
        CurrentSettings().audioSampleSize = sampleSize;
    }
    test::TempDir dir_;
    std::shared_ptr<ScriptedPrompt> prompt_ = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope_{prompt_};

private:
    ImportSettings saved_;
};

TEST_F(AudioConvert, RefusedFormatsShowTheirMessagesAndTouchNothing)
{
    CConvertDlg dlg;
    const std::string s44 = MakeTone(dir_, "s44.wav", 16, 44100, 2, 0.2);
    const Bytes before = ReadFile(s44);
    const std::string tmp = dir_ / "tmp";

    Target(0, 0, 0);  // 48 kHz stereo 16: above the source's rate
    EXPECT_EQ(dlg.ConvertAudioFile(s44.c_str(), tmp.c_str()), 0);
    EXPECT_EQ(prompt_->Texts(), (std::vector<std::string>{"Inappropriate setting of target audio format",
                                                          "Target audio format is now same as source"}));
    EXPECT_FALSE(std::filesystem::exists(tmp));
    EXPECT_EQ(ReadFile(s44), before);

    const std::string u8 = MakeTone(dir_, "u8.wav", 8, 48000, 2, 0.2);
    prompt_ = std::make_shared<ScriptedPrompt>();
    ScopedPrompter again(prompt_);
    Target(1, 0, 1);  // 44.1 kHz, stereo, 8 bits
    EXPECT_EQ(dlg.ConvertAudioFile(u8.c_str(), tmp.c_str()), 0);
    EXPECT_EQ(prompt_->Texts(), (std::vector<std::string>{"The source sample rate must be 16 bit for any conversion to be done",
                                                          "Target audio format is now same as source"}));
    // A 16-bit target from an 8-bit source is "raising the width": the first pair of messages.
    Target(1, 0, 0);
    EXPECT_EQ(dlg.ConvertAudioFile(u8.c_str(), tmp.c_str()), 0);
    EXPECT_EQ(prompt_->Texts().at(2), "Inappropriate setting of target audio format");

    // Already in the target format: nothing to do, nothing said.
    const std::string s48 = MakeTone(dir_, "s48.wav", 16, 48000, 2, 0.2);
    Target(7, 0, 0);  // an index off the list means 48 kHz
    const auto said = prompt_->Texts().size();
    EXPECT_EQ(dlg.ConvertAudioFile(s48.c_str(), tmp.c_str()), 0);
    EXPECT_EQ(prompt_->Texts().size(), said);
    EXPECT_FALSE(std::filesystem::exists(tmp));

    // Not a WAVE file: 0 without a message.
    const std::string junk = dir_ / "junk.wav";
    std::ofstream(junk) << "not a wave file at all, just text long enough to have a header";
    EXPECT_EQ(dlg.ConvertAudioFile(junk.c_str(), tmp.c_str()), 0);
    EXPECT_EQ(prompt_->Texts().size(), said);
}

TEST_F(AudioConvert, RateIndexOffTheListMeans48000)
{
    CurrentSettings().audioRateIndex = 7;
    EXPECT_EQ(TargetFromSettings(CurrentSettings()).rate, 48000);
    CurrentSettings().audioRateIndex = -1;
    EXPECT_EQ(TargetFromSettings(CurrentSettings()).rate, 48000);
    const long rates[] = {48000, 44100, 32000, 22050, 11025};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(RateForIndex(i), rates[i]);

    // 48 kHz stereo -> index 7, mono: the header says 48000 Hz, one channel.
    const std::string src = MakeTone(dir_, "s48.wav", 16, 48000, 2, 0.1);
    const std::string tmp = dir_ / "tmp";
    Target(7, 1, 0);
    CConvertDlg dlg;
    ASSERT_EQ(dlg.ConvertAudioFile(src.c_str(), tmp.c_str()), 1);
    const Bytes out = ReadFile(tmp);
    EXPECT_EQ(Field(out, 24, 4), 48000u);
    EXPECT_EQ(Field(out, 22, 2), 1u);
}

TEST_F(AudioConvert, HeaderRewriteAndLeftChannelKeptExactly)
{
    // Distinct random left and right channels, so a mix or a swap shows at once.
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<std::int16_t> stereo(2 * 3001);
    for (auto& v : stereo) v = static_cast<std::int16_t>(dist(rng));
    const std::string src = dir_ / "src.wav";
    WriteWave(src, 1, 2, 22050, 16, Samples16(stereo));
    const Bytes srcBytes = ReadFile(src);

    const std::string tmp = dir_ / "tmp";
    Target(3, 1, 0);  // 22.05 kHz mono 16: same rate, left channel only
    CConvertDlg dlg;
    ASSERT_EQ(dlg.ConvertAudioFile(src.c_str(), tmp.c_str()), 1);
    const Bytes out = ReadFile(tmp);
    ASSERT_EQ(out.size(), 44u + 3001u * 2u);
    EXPECT_EQ(Field(out, 22, 2), 1u);
    EXPECT_EQ(Field(out, 24, 4), 22050u);
    EXPECT_EQ(Field(out, 28, 4), 44100u);
    EXPECT_EQ(Field(out, 32, 2), 2u);
    EXPECT_EQ(Field(out, 34, 2), 16u);
    // Chunk sizes stay the source's until the clean copy fixes them.
    EXPECT_EQ(Field(out, 4, 4), Field(srcBytes, 4, 4));
    EXPECT_EQ(Field(out, 40, 4), Field(srcBytes, 40, 4));
    const auto left = AudioOf(out);
    for (std::size_t i = 0; i < 3001; ++i) ASSERT_EQ(left[i], stereo[2 * i]) << i;

    // 8 bits mono from the same source: every left sample through the byte mapping.
    Target(3, 1, 1);
    ASSERT_EQ(dlg.ConvertAudioFile(src.c_str(), tmp.c_str()), 1);
    const Bytes out8 = ReadFile(tmp);
    ASSERT_EQ(out8.size(), 44u + 3001u);
    EXPECT_EQ(Field(out8, 32, 2), 1u);
    EXPECT_EQ(Field(out8, 28, 4), 22050u);
    for (std::size_t i = 0; i < 3001; ++i) ASSERT_EQ(out8[44 + i], SampleTo8Bit(stereo[2 * i])) << i;
}

TEST_F(AudioConvert, WidthAndChannelConversion)
{
    CConvertDlg dlg;
    short in[] = {32767, -32768, 127, 128, 32639, 32640, -129, 0};
    // Stereo source -> 8-bit stereo: each sample mapped.
    ASSERT_EQ(dlg.ConvertStereoWaveData(in, 8, 8, 1), 8u);
    const unsigned char expect[] = {255, 0, 128, 129, 255, 255, 127, 128};
    Bytes got(8);
    ConvertStereoFrames(in, got.data(), 8, 8, 1);
    EXPECT_EQ(got, Bytes(std::begin(expect), std::end(expect)));

    // Mono source -> stereo 16: each sample twice; -> stereo 8: each byte twice.
    Bytes b16(8), b8(6);
    ConvertMonoFrames(in, b16.data(), 8, 16, 1);
    EXPECT_EQ(b16, (Bytes{0xFF, 0x7F, 0xFF, 0x7F, 0x00, 0x80, 0x00, 0x80}));
    ConvertMonoFrames(in, b8.data(), 6, 8, 1);
    EXPECT_EQ(b8, (Bytes{255, 255, 0, 0, 128, 128}));
    // Stereo -> mono 16 keeps the left samples; a length inside a frame stops exactly there.
    Bytes m(5, 0xEE);
    EXPECT_EQ(ConvertStereoFrames(in, m.data(), 5, 16, 0), 5u);
    EXPECT_EQ(m, (Bytes{0xFF, 0x7F, 0x7F, 0x00, 0x7F}));
}

TEST_F(AudioConvert, BlockedConversionEqualsOnePass)
{
    // A tone with noise on it, so every tap of every kernel matters.
    std::mt19937 rng(3);
    std::normal_distribution<double> noise(0.0, 3000.0);
    const int frames = 48000 / 2 + 37;
    std::vector<std::int16_t> s(2 * frames);
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < 2; ++c)
            s[static_cast<std::size_t>(2 * i + c)] = static_cast<std::int16_t>(
                std::clamp(20000.0 * std::sin(0.05 * i * (c + 1)) + noise(rng), -32768.0, 32767.0));
    const std::string src = dir_ / "src.wav";
    WriteWave(src, 1, 2, 48000, 16, Samples16(s));

    struct Case {
        long rate;
        int bits, stereo;
    } cases[] = {{44100, 16, 1}, {11025, 8, 0}, {32000, 16, 0}, {22050, 16, 1}, {12000, 16, 1}};
    for (const auto& c : cases) {
        AudioConverter whole;
        whole.SetBlockFrames(0);
        const std::string one = dir_ / "one.wav";
        ASSERT_EQ(whole.Convert(src.c_str(), one.c_str(), {c.rate, c.bits, c.stereo}, *prompt_), 1) << whole.LastError();
        const Bytes reference = ReadFile(one);
        ASSERT_EQ(reference.size(), 44 + whole.OutBytes());
        // Block sizes of 1 and 7 put a boundary inside the kernel's reach of every output;
        // 146/147/148 straddle the 44.1 kHz cycle.
        for (std::size_t block : {1u, 7u, 146u, 147u, 148u, 1000u, 65536u}) {
            AudioConverter blocked;
            blocked.SetBlockFrames(block);
            const std::string part = dir_ / "part.wav";
            ASSERT_EQ(blocked.Convert(src.c_str(), part.c_str(), {c.rate, c.bits, c.stereo}, *prompt_), 1);
            ASSERT_EQ(ReadFile(part), reference) << c.rate << " Hz, block " << block;
        }
    }
    EXPECT_TRUE(prompt_->Texts().empty());
}

TEST_F(AudioConvert, CleanCopyReadsBackInSoxWithTheExpectedFormat)
{
    if (std::system("sox --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "sox is not installed";
    const std::string stereo48 = MakeTone(dir_, "st48.wav", 16, 48000, 2, 1.0);
    const std::string mono32 = MakeTone(dir_, "mo32.wav", 16, 32000, 1, 1.0);
    struct Case {
        std::string src;
        int rateIndex, channels, size;
        long rate;
        int bits, ch;
    } cases[] = {
        {stereo48, 1, 0, 0, 44100, 16, 2}, {stereo48, 4, 1, 1, 11025, 8, 1}, {stereo48, 2, 1, 0, 32000, 16, 1},
        {stereo48, 3, 0, 1, 22050, 8, 2},  {mono32, 3, 0, 0, 22050, 16, 2},  {mono32, 4, 1, 1, 11025, 8, 1},
    };
    CConvertDlg dlg;
    for (const auto& c : cases) {
        Target(c.rateIndex, c.channels, c.size);
        const std::string tmp = dir_ / "tmp";
        const std::string audio = dir_ / "audio.wav";
        ASSERT_EQ(dlg.ConvertAudioFile(c.src.c_str(), tmp.c_str()), 1);
        const auto outBytes = std::filesystem::file_size(tmp) - 44;
        ASSERT_EQ(CDva::CopyCleanWavFile(tmp.c_str(), audio.c_str()), 1) << CDva::GetLastError();
        const std::string what = c.src + " -> " + std::to_string(c.rate);
        EXPECT_EQ(Sox("-r", audio), std::to_string(c.rate)) << what;
        EXPECT_EQ(Sox("-b", audio), std::to_string(c.bits)) << what;
        EXPECT_EQ(Sox("-c", audio), std::to_string(c.ch)) << what;
        EXPECT_EQ(Sox("-s", audio), std::to_string(outBytes / static_cast<unsigned>(c.ch * c.bits / 8))) << what;
        // One second of source gives one second of target, give or take a sample.
        EXPECT_NEAR(static_cast<double>(outBytes) / (c.ch * c.bits / 8), static_cast<double>(c.rate), 1.0) << what;
    }
    EXPECT_TRUE(prompt_->Texts().empty());
}

TEST_F(AudioConvert, SineKeepsFrequencyAndLevelAt44100)
{
    const std::string src = MakeTone(dir_, "st48.wav", 16, 48000, 2, 2.0);
    const std::string tmp = dir_ / "tmp";
    Target(1, 0, 0);
    CConvertDlg dlg;
    ASSERT_EQ(dlg.ConvertAudioFile(src.c_str(), tmp.c_str()), 1);
    const auto out = AudioOf(ReadFile(tmp));
    const std::size_t frames = out.size() / 2;
    ASSERT_EQ(frames, 88200u);

    // Away from the ends (where the kernel reaches past the file), compare with the ideal
    // sine the generator wrote: 1 kHz, half scale, phase 0 at the first sample.
    double errSq = 0, maxErr = 0, sigSq = 0;
    for (std::size_t i = 100; i + 100 < frames; ++i) {
        const double ideal = 0.5 * 32767.0 * std::sin(2 * std::numbers::pi * 1000.0 * static_cast<double>(i) / 44100.0);
        for (int c = 0; c < 2; ++c) {
            const double e = out[2 * i + static_cast<std::size_t>(c)] - ideal;
            errSq += e * e;
            sigSq += ideal * ideal;
            maxErr = std::max(maxErr, std::abs(e));
        }
    }
    const double snr = 10 * std::log10(sigSq / errSq);
    std::printf("48000 -> 44100, 1 kHz at -6 dBFS: error against the ideal sine %.1f dB below the signal, "
                "largest %.1f LSB\n", snr, maxErr);
    EXPECT_GT(snr, 60.0);
    EXPECT_LT(maxErr, 40.0);

    const auto tone = testmedia::AnalyzeTone(out.data() + 200, frames - 400, 2, 0, 44100, 1000.0);
    EXPECT_NEAR(tone.amplitude, 0.5, 0.005);
    EXPECT_GT(tone.snrDb, 60.0);
}

TEST_F(AudioConvert, OpenAndWriteFailures)
{
    const std::string src = MakeTone(dir_, "s48.wav", 16, 48000, 2, 0.1);
    Target(1, 0, 0);
    CConvertDlg dlg;

    const std::string missingDir = dir_ / "no/such/dir/tmp";
    EXPECT_EQ(dlg.ConvertAudioFile(src.c_str(), missingDir.c_str()), 0);
    EXPECT_EQ(prompt_->Texts(), std::vector<std::string>{"Error when writing target audio file"});

    // A device that takes the open but no data: the deliberate non-zero write failure.
    if (std::filesystem::exists("/dev/full")) {
        EXPECT_EQ(dlg.ConvertAudioFile(src.c_str(), "/dev/full"), static_cast<int>(0xE0040200u));
        EXPECT_EQ(prompt_->Texts().size(), 1u);
    }

    // An unreadable source after its format was read cannot be arranged from here; a source
    // that cannot be opened at all never gets past the format check.
    const std::string gone = dir_ / "gone.wav";
    EXPECT_EQ(dlg.ConvertAudioFile(gone.c_str(), (dir_ / "tmp").c_str()), 0);
    EXPECT_EQ(prompt_->Texts().size(), 1u);

    // A RIFF header and fmt chunk with no room for the data: the reader cannot open it, and
    // the target keeps the header already written.
    const std::string shortFile = dir_ / "short.wav";
    WriteWave(shortFile, 1, 2, 48000, 16, {});
    std::filesystem::resize_file(shortFile, 36);
    const std::string tmp = dir_ / "tmp2";
    EXPECT_EQ(dlg.ConvertAudioFile(shortFile.c_str(), tmp.c_str()), 0);
    EXPECT_EQ(prompt_->Texts().back(), "Failed to open audio item.");
    EXPECT_EQ(std::filesystem::file_size(tmp), 44u);
}

// Sets the immutable attribute, which refuses opening for writing even to root, and clears it
// again however the test ends.
class Immutable {
public:
    explicit Immutable(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (fd_ < 0 || ::ioctl(fd_, FS_IOC_GETFLAGS, &flags_) != 0) return;
        int on = flags_ | FS_IMMUTABLE_FL;
        set_ = ::ioctl(fd_, FS_IOC_SETFLAGS, &on) == 0;
    }
    ~Immutable()
    {
        if (set_) ::ioctl(fd_, FS_IOC_SETFLAGS, &flags_);
        if (fd_ >= 0) ::close(fd_);
    }
    Immutable(const Immutable&) = delete;
    Immutable& operator=(const Immutable&) = delete;
    bool Set() const { return set_; }

private:
    int fd_ = -1;
    int flags_ = 0;
    bool set_ = false;
};

TEST_F(AudioConvert, SourceIsOnlyEverRead)
{
    const std::string src = MakeTone(dir_, "s48.wav", 16, 48000, 2, 0.3);
    const Bytes before = ReadFile(src);
    const std::string tmp = dir_ / "tmp";
    {
        Immutable frozen(src);
        if (!frozen.Set()) {
            // Without the attribute, a mode of read-only is the next best check (not for root).
            if (geteuid() == 0) GTEST_SKIP() << "cannot make a file unwritable here";
            std::filesystem::permissions(src, std::filesystem::perms::owner_read);
        }
        EXPECT_EQ(::open(src.c_str(), O_RDWR | O_CLOEXEC), -1) << "the source should be unwritable now";
        Target(1, 0, 0);
        CConvertDlg dlg;
        ASSERT_EQ(dlg.ConvertAudioFile(src.c_str(), tmp.c_str()), 1);
    }
    EXPECT_EQ(ReadFile(src), before);
    EXPECT_EQ(std::filesystem::file_size(tmp), 44u + static_cast<std::uintmax_t>(0.3 * 44100) * 4u);
    EXPECT_TRUE(prompt_->Texts().empty());
}

TEST_F(AudioConvert, ProgressRisesToOneAndCancelLeavesNoTarget)
{
    const std::string src = MakeTone(dir_, "s48.wav", 16, 48000, 2, 1.0);
    const Bytes before = ReadFile(src);
    const std::string tmp = dir_ / "tmp";

    // Every block reports; the fractions rise strictly and end at exactly 1.
    AudioConverter conv;
    conv.SetBlockFrames(4096);
    std::vector<double> seen;
    ASSERT_EQ(conv.Convert(src.c_str(), tmp.c_str(), {44100, 16, 1}, *prompt_, [&](double f) { seen.push_back(f); }),
              1);
    ASSERT_EQ(seen.size(), (44100u + 4095u) / 4096u);
    for (std::size_t i = 1; i < seen.size(); ++i) EXPECT_GT(seen[i], seen[i - 1]) << i;
    EXPECT_GT(seen.front(), 0.0);
    EXPECT_EQ(seen.back(), 1.0);
    const Bytes full = ReadFile(tmp);

    // Cancelled half-way: 0, no target left behind, nothing said, the source untouched.
    std::atomic<bool> cancel{false};
    int calls = 0;
    auto stopHalfWay = [&](double f) {
        ++calls;
        if (f >= 0.5) cancel = true;
    };
    EXPECT_EQ(conv.Convert(src.c_str(), tmp.c_str(), {44100, 16, 1}, *prompt_, stopHalfWay, &cancel), 0);
    EXPECT_TRUE(conv.Cancelled());
    EXPECT_NE(conv.LastError().find(tmp), std::string::npos) << conv.LastError();
    EXPECT_LT(calls, static_cast<int>(seen.size()));
    EXPECT_FALSE(std::filesystem::exists(tmp));
    EXPECT_EQ(ReadFile(src), before);

    // Cancelled before it starts: a file already at the target's name is not touched.
    std::ofstream(tmp, std::ios::binary) << "earlier";
    EXPECT_EQ(conv.Convert(src.c_str(), tmp.c_str(), {44100, 16, 1}, *prompt_, {}, &cancel), 0);
    EXPECT_TRUE(conv.Cancelled());
    EXPECT_EQ(ReadFile(tmp), (Bytes{'e', 'a', 'r', 'l', 'i', 'e', 'r'}));

    // The flag cleared again: the same converter produces the same bytes as before.
    cancel = false;
    ASSERT_EQ(conv.Convert(src.c_str(), tmp.c_str(), {44100, 16, 1}, *prompt_, {}, &cancel), 1);
    EXPECT_FALSE(conv.Cancelled());
    EXPECT_EQ(ReadFile(tmp), full);
    EXPECT_TRUE(prompt_->Texts().empty());
}

TEST_F(AudioConvert, DamagedSourcesNeverCrashOrChange)
{
    // Valid files with header bytes overwritten and tails cut off: whatever the sizes and
    // fields say, the conversion reads inside the file, writes a target of 44 + outBytes bytes
    // when it succeeds, and leaves the source as it was.
    std::mt19937 rng(11);
    std::vector<std::int16_t> audio(2 * 500);
    for (auto& v : audio) v = static_cast<std::int16_t>(rng());
    const std::string src = dir_ / "damaged.wav";
    const std::string tmp = dir_ / "tmp";
    int converted = 0;
    for (int round = 0; round < 400; ++round) {
        const long rates[] = {48000, 44100, 96000, 11025, 22050};
        WriteWave(src, 1, 1 + round % 2, static_cast<std::uint32_t>(rates[round % 5]), 16, Samples16(audio));
        Bytes b = ReadFile(src);
        const int flips = 1 + static_cast<int>(rng() % 4);
        for (int f = 0; f < flips; ++f) b[rng() % 48] = static_cast<unsigned char>(rng());
        b.resize(rng() % 3 == 0 ? rng() % b.size() : b.size());
        std::ofstream(src, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));

        AudioConverter conv;
        conv.SetBlockFrames(1 + rng() % 300);
        std::filesystem::remove(tmp);
        const int result = conv.Convert(src.c_str(), tmp.c_str(), {11025, 8 + 8 * static_cast<int>(rng() % 2), static_cast<int>(rng() % 2)}, *prompt_);
        ASSERT_TRUE(result == 0 || result == 1) << round << ": " << result;
        if (result == 1) {
            ++converted;
            EXPECT_EQ(std::filesystem::file_size(tmp), 44 + conv.OutBytes()) << round;
        }
        EXPECT_EQ(ReadFile(src), b) << round;
    }
    EXPECT_GT(converted, 50);
}

TEST_F(AudioConvert, AudioDetailsAcceptOnlyPlainPcm)
{
    CConvertDlg dlg;
    struct Case {
        unsigned tag, channels;
        std::uint32_t rate;
        unsigned bits, fmtSize;
        bool ok;
    } cases[] = {
        {1, 2, 48000, 16, 16, true},   {1, 1, 1000, 8, 16, true},    {1, 2, 384000, 16, 18, true},
        {1, 2, 48000, 16, 14, false},  {3, 2, 48000, 16, 16, false}, {1, 3, 48000, 16, 16, false},
        {1, 0, 48000, 16, 16, false},  {1, 2, 999, 16, 16, false},   {1, 2, 384001, 16, 16, false},
        {1, 2, 48000, 24, 16, false},  {1, 2, 48000, 12, 16, false},
    };
    for (const auto& c : cases) {
        const std::string path = dir_ / "f.wav";
        WriteWave(path, c.tag, c.channels, c.rate, c.bits, Bytes(64, 0), c.fmtSize);
        long rate = -5;
        int bits = -5, stereo = -5;
        EXPECT_EQ(dlg.GetAudioDetails(path, rate, bits, stereo), c.ok ? 1 : 0)
            << c.tag << " " << c.channels << " " << c.rate << " " << c.bits << " " << c.fmtSize;
        if (c.ok) {
            EXPECT_EQ(rate, static_cast<long>(c.rate));
            EXPECT_EQ(bits, static_cast<int>(c.bits));
            EXPECT_EQ(stereo, c.channels == 2 ? 1 : 0);
        } else {
            EXPECT_EQ(rate, -5);
            EXPECT_EQ(bits, -5);
            EXPECT_EQ(stereo, -5);
        }
    }
    long rate = 0;
    int bits = 0, stereo = 0;
    EXPECT_EQ(dlg.GetAudioDetails((dir_ / "missing.wav"), rate, bits, stereo), 0);
}

}  // namespace
}  // namespace zub::audio
