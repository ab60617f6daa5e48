// Uncompressed sound whose media samples are larger than the converter's output buffer, or
// end inside a sample frame, written by a small movie writer of our own so the sample sizes
// are exactly what the test asks for; the WAVE is compared byte for byte with ffmpeg's
// decoding of the same movie, or with the movie's own sound bytes where ffmpeg drops a
// partial frame.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "quicktime/QuickTimeSource.h"
#include "TempDir.h"
#include "Tool.h"

namespace zub {
namespace {

using test::Capture;

void Be32(std::string& b, std::uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<char>((v >> s) & 0xFF));
}
void Be16(std::string& b, std::uint16_t v)
{
    b.push_back(static_cast<char>(v >> 8));
    b.push_back(static_cast<char>(v & 0xFF));
}
std::string Atom(const char* type, const std::string& body)
{
    std::string a;
    Be32(a, static_cast<std::uint32_t>(8 + body.size()));
    a.append(type, 4);
    return a + body;
}

struct PcmMovie {
    const char* format = "twos";  // 'twos' (signed big-endian) or 'raw ' (8-bit offset binary)
    int channels = 2;
    int bits = 16;
    int rate = 48000;
    std::uint32_t frames = 0;  // sample frames the tables describe
    // The version 1 description's sizes: samples of this many frames and bytes each.
    std::uint32_t framesPerPacket = 0;
    std::uint32_t bytesPerPacket = 0;
    std::string data;  // the media data as stored
};

// A sound-only QuickTime movie: one track, one chunk, a version 1 sound description.
void WriteMovie(const std::string& path, const PcmMovie& m)
{
    std::string matrix;
    for (std::uint32_t v : {0x10000u, 0u, 0u, 0u, 0x10000u, 0u, 0u, 0u, 0x40000000u}) Be32(matrix, v);
    const std::string ftyp = Atom("ftyp", std::string("qt  ") + std::string(4, '\0') + "qt  ");
    const std::string mdat = Atom("mdat", m.data);
    const std::uint32_t dataAt = static_cast<std::uint32_t>(ftyp.size() + 8);

    std::string mvhd(4, '\0');
    for (std::uint32_t v : {0u, 0u, std::uint32_t(m.rate), m.frames, 0x10000u}) Be32(mvhd, v);
    Be16(mvhd, 0x100);
    mvhd += std::string(10, '\0') + matrix + std::string(24, '\0');
    Be32(mvhd, 2);

    std::string tkhd;
    for (std::uint32_t v : {0xFu, 0u, 0u, 1u, 0u, m.frames, 0u, 0u}) Be32(tkhd, v);
    for (std::uint16_t v : {0, 0, 0x100, 0}) Be16(tkhd, v);
    tkhd += matrix + std::string(8, '\0');

    std::string mdhd;
    for (std::uint32_t v : {0u, 0u, 0u, std::uint32_t(m.rate), m.frames, 0u}) Be32(mdhd, v);
    const std::string hdlr = Atom("hdlr", std::string(4, '\0') + "mhlrsoun" + std::string(13, '\0'));
    const std::string smhd = Atom("smhd", std::string(8, '\0'));
    std::string dref(4, '\0');
    Be32(dref, 1);
    std::string alis;
    Be32(alis, 1);  // the data is in this file
    const std::string dinf = Atom("dinf", Atom("dref", dref + Atom("alis", alis)));

    std::string desc = std::string(m.format, 4) + std::string(6, '\0');
    Be16(desc, 1);  // data reference
    Be16(desc, 1);  // version 1
    Be16(desc, 0);
    Be32(desc, 0);
    Be16(desc, static_cast<std::uint16_t>(m.channels));
    Be16(desc, static_cast<std::uint16_t>(m.bits));
    Be16(desc, 0);
    Be16(desc, 0);
    Be32(desc, static_cast<std::uint32_t>(m.rate) << 16);
    for (std::uint32_t v : {m.framesPerPacket, std::uint32_t(m.bits / 8), m.bytesPerPacket, std::uint32_t(m.bits / 8)})
        Be32(desc, v);
    std::string stsd(4, '\0');
    Be32(stsd, 1);
    Be32(stsd, static_cast<std::uint32_t>(4 + desc.size()));
    stsd += desc;
    std::string stts(4, '\0'), stsc(4, '\0'), stsz(4, '\0'), stco(4, '\0');
    for (std::uint32_t v : {1u, m.frames, 1u}) Be32(stts, v);
    for (std::uint32_t v : {1u, 1u, m.frames, 1u}) Be32(stsc, v);
    for (std::uint32_t v : {1u, m.frames}) Be32(stsz, v);
    for (std::uint32_t v : {1u, dataAt}) Be32(stco, v);
    const std::string stbl =
        Atom("stbl", Atom("stsd", stsd) + Atom("stts", stts) + Atom("stsc", stsc) + Atom("stsz", stsz) + Atom("stco", stco));
    const std::string trak =
        Atom("trak", Atom("tkhd", tkhd) + Atom("mdia", Atom("mdhd", mdhd) + hdlr + Atom("minf", smhd + dinf + stbl)));
    const std::string moov = Atom("moov", Atom("mvhd", mvhd) + trak);
    std::ofstream(path, std::ios::binary) << ftyp << mdat << moov;
}

// Tones of a different pitch on every channel, so a frame that loses its place shows.
std::string Tones(int channels, int bits, int rate, std::uint32_t frames)
{
    std::string d;
    d.reserve(static_cast<std::size_t>(frames) * channels * (bits / 8));
    for (std::uint32_t n = 0; n < frames; ++n) {
        for (int c = 0; c < channels; ++c) {
            const double v = std::sin(2 * M_PI * (300.0 + 170.0 * c) * n / rate);
            if (bits == 16) {
                Be16(d, static_cast<std::uint16_t>(static_cast<std::int16_t>(std::lround(12000 * v))));
            } else {
                d.push_back(static_cast<char>(128 + std::lround(100 * v)));
            }
        }
    }
    return d;
}

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

int PacketBytes(const std::string& movie)
{
    return std::atoi(Capture("ffprobe -v error -select_streams a:0 -show_entries packet=size -of csv=p=0 '" + movie +
                             "' | head -1")
                         .c_str());
}

bool ConvertAll(CQuickTimeAudioSource& audio, const std::string& wav)
{
    bool more = true;
    for (int steps = 0; more; ++steps) {
        if (steps > 100000 || !audio.ConvertChunk(wav.c_str(), more)) return false;
    }
    return audio.Finish(true);
}

std::string SoxData(const std::string& wav) { return Capture("sox '" + wav + "' -t raw - 2>/dev/null"); }

TEST(QuickTimeBigSamples, SamplesLargerThanTheOutputBufferArriveWhole)
{
    test::TempDir dir;
    struct Case {
        const char* name;
        PcmMovie movie;
        const char* ffmpegFormat;
    };
    std::vector<Case> cases;
    {
        PcmMovie m;  // 20,000 frames of 16-bit stereo: 80,000 bytes a sample
        m.frames = 140000;
        m.framesPerPacket = 20000;
        m.bytesPerPacket = 80000;
        m.data = Tones(2, 16, m.rate, m.frames);
        cases.push_back({"twos-stereo", m, "s16le"});
    }
    {
        PcmMovie m;  // 8-bit mono in 100,000-byte samples
        m.format = "raw ";
        m.channels = 1;
        m.bits = 8;
        m.rate = 44100;
        m.frames = 500000;
        m.framesPerPacket = 100000;
        m.bytesPerPacket = 100000;
        m.data = Tones(1, 8, m.rate, m.frames);
        cases.push_back({"raw-mono", m, "u8"});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string movie = dir / (std::string(c.name) + ".mov");
        const std::string wav = dir / (std::string(c.name) + ".wav");
        WriteMovie(movie, c.movie);
        ASSERT_GT(PacketBytes(movie), static_cast<int>(CQuickTimeAudioSource::kOutputBufferBytes))
            << "the movie must hold samples larger than the output buffer";

        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(movie.c_str())) << audio.LastError();
        ASSERT_TRUE(audio.PassingThrough());
        ASSERT_TRUE(ConvertAll(audio, wav)) << audio.LastError();

        const std::string expected = Capture("ffmpeg -v error -i '" + movie + "' -f " + c.ffmpegFormat + " -");
        ASSERT_EQ(expected.size(), c.movie.data.size());
        const std::string got = SoxData(wav);
        ASSERT_EQ(got.size(), expected.size());
        EXPECT_TRUE(got == expected) << "the WAVE differs from the source's sound";
        EXPECT_EQ(Capture("sox --i -c '" + wav + "'"), std::to_string(c.movie.channels) + "\n");
    }
}

// Samples of 80,001 bytes in 16-bit stereo: every sample ends inside a frame. ffmpeg's own
// decoder drops each sample's stray byte, so the reference is the movie's sound bytes,
// exchanged into little-endian, the last frame completed with silence.
TEST(QuickTimeBigSamples, SamplesEndingInsideAFrameLoseNoByte)
{
    test::TempDir dir;
    PcmMovie m;
    m.frames = 140000;
    m.framesPerPacket = 20000;
    m.bytesPerPacket = 80001;
    m.data = Tones(2, 16, m.rate, m.frames) + std::string("\x12\x34\x56\x78\x9a\xbc\xde", 7);
    const std::string movie = dir / "odd.mov";
    const std::string wav = dir / "odd.wav";
    WriteMovie(movie, m);
    ASSERT_EQ(PacketBytes(movie), 80001);

    CQuickTimeAudioSource audio;
    ASSERT_TRUE(audio.Open(movie.c_str())) << audio.LastError();
    ASSERT_TRUE(audio.PassingThrough());
    ASSERT_TRUE(ConvertAll(audio, wav)) << audio.LastError();

    std::string expected = m.data.substr(0, 7 * 80001);
    expected.resize((expected.size() + 3) / 4 * 4, '\0');
    for (std::size_t i = 0; i + 1 < expected.size(); i += 2) std::swap(expected[i], expected[i + 1]);
    const std::string got = SoxData(wav);
    ASSERT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
    // The WAVE's own data size agrees with the bytes written.
    const std::string whole = ReadAll(wav);
    EXPECT_EQ(audio.BytesWritten(), expected.size());
    EXPECT_EQ(whole.size(), 44 + expected.size());
}

// ---- the pass-through converter on its own ----

struct Records {
    std::vector<std::vector<std::uint8_t>> chunks;
    std::size_t next = 0;
    qt::ExtendedSoundComponentData rec{};
    int calls = 0;
};

// A sound description of uncompressed samples.
qt::SoundComponentData Uncompressed(const char (&format)[5], int channels, int bits, unsigned rate)
{
    qt::SoundComponentData d{};
    d.format = qt::MakeOSType(format);
    d.numChannels = static_cast<decltype(d.numChannels)>(channels);
    d.sampleSize = static_cast<decltype(d.sampleSize)>(bits);
    d.sampleRate = rate << 16;
    return d;
}

bool NextRecord(qt::ExtendedSoundComponentData** out, void* refCon)
{
    auto* r = static_cast<Records*>(refCon);
    ++r->calls;
    r->rec.desc.flags = qt::kExtendedSoundData;
    r->rec.extendedFlags = qt::kExtendedSoundBufferSizeValid | qt::kExtendedSoundSampleCountNotValid;
    if (r->next < r->chunks.size()) {
        auto& c = r->chunks[r->next++];
        r->rec.desc.buffer = c.data();
        r->rec.bufferSize = static_cast<std::int32_t>(c.size());
        r->rec.desc.sampleCount = 1;  // not valid: the buffer size rules
    } else {
        r->rec.desc.buffer = nullptr;
        r->rec.bufferSize = 0;
        r->rec.desc.sampleCount = 0;
    }
    *out = &r->rec;
    return r->rec.desc.buffer != nullptr;
}

// Records of awkward sizes through a small output buffer: the output is the input stream,
// pairs exchanged, in whole frames, and nothing is reported that was not written.
TEST(PassThroughSoundConverter, HandsOutEveryByteInWholeFramesWhateverTheRecordSizes)
{
    qt::SoundComponentData d = Uncompressed("twos", 3, 16, 32000);
    qt::CPassThroughSoundConverter c;
    ASSERT_EQ(c.Open(&d, &d), qt::noErr);
    ASSERT_EQ(c.BeginConversion(), qt::noErr);

    Records src;
    std::vector<std::uint8_t> stream;
    std::uint8_t value = 1;
    for (std::size_t size : {1u, 5u, 6u, 97u, 4096u, 13u, 2u, 7u}) {
        std::vector<std::uint8_t> chunk(size);
        for (auto& b : chunk) b = value++;
        stream.insert(stream.end(), chunk.begin(), chunk.end());
        src.chunks.push_back(std::move(chunk));
    }
    std::vector<std::uint8_t> got;
    std::uint8_t out[64];  // ten frames of six bytes, and four bytes no frame fits in
    for (int i = 0; i < 1000; ++i) {
        std::uint32_t bytes = 0, frames = 0, flags = 0;
        std::memset(out, 0xEE, sizeof out);
        ASSERT_EQ(c.FillBuffer(NextRecord, &src, out, sizeof out, &bytes, &frames, &flags), qt::noErr);
        ASSERT_EQ(bytes, frames * 6u);
        ASSERT_LE(bytes, 60u);
        if (bytes < sizeof out) {
            EXPECT_EQ(out[bytes], 0xEE) << "wrote past what it reported";
        }
        got.insert(got.end(), out, out + bytes);
        if (!(flags & qt::kSoundConverterHasLeftOverData)) break;
        ASSERT_GT(bytes, 0u) << "more promised but nothing handed out";
    }
    // 4,227 bytes: the last frame is completed with silence.
    std::vector<std::uint8_t> want = stream;
    want.resize((want.size() + 5) / 6 * 6, 0);
    for (std::size_t i = 0; i + 1 < want.size(); i += 2) std::swap(want[i], want[i + 1]);
    EXPECT_EQ(got, want);
    std::uint32_t frames = 9, bytes = 9;
    EXPECT_EQ(c.EndConversion(out, &frames, &bytes), qt::noErr);
    EXPECT_EQ(frames + bytes, 0u);
}

TEST(PassThroughSoundConverter, EightBitOffsetSoundIsPaddedWithItsOwnSilenceAndCountsBoundUnflaggedRecords)
{
    qt::SoundComponentData d = Uncompressed("raw ", 2, 8, 22050);
    qt::CPassThroughSoundConverter c;
    ASSERT_EQ(c.Open(&d, &d), qt::noErr);
    Records src;
    src.chunks.push_back({10, 20, 30});
    std::uint8_t out[16] = {};
    std::uint32_t bytes = 0, frames = 0, flags = 0;
    ASSERT_EQ(c.FillBuffer(NextRecord, &src, out, sizeof out, &bytes, &frames, &flags), qt::noErr);
    ASSERT_EQ(bytes, 2u);
    ASSERT_EQ(c.FillBuffer(NextRecord, &src, out + 2, sizeof out - 2, &bytes, &frames, &flags), qt::noErr);
    ASSERT_EQ(bytes, 2u);
    EXPECT_EQ(flags & qt::kSoundConverterHasLeftOverData, 0u);
    const std::uint8_t want[4] = {10, 20, 30, 0x80};
    EXPECT_EQ(std::memcmp(out, want, 4), 0);

    // A record without the extended flags is read no further than the frames it claims, nor
    // past its buffer.
    qt::CPassThroughSoundConverter plain;
    ASSERT_EQ(plain.Open(&d, &d), qt::noErr);
    std::vector<std::uint8_t> buf(100, 7);
    struct One {
        qt::ExtendedSoundComponentData rec{};
        bool given = false;
    } one;
    one.rec.desc.buffer = buf.data();
    one.rec.bufferSize = 100;
    one.rec.desc.sampleCount = 5;  // ten bytes of stereo
    auto proc = [](qt::ExtendedSoundComponentData** o, void* ref) {
        auto* s = static_cast<One*>(ref);
        *o = s->given ? nullptr : &s->rec;
        s->given = true;
        return false;
    };
    std::uint8_t big[256] = {};
    ASSERT_EQ(plain.FillBuffer(proc, &one, big, sizeof big, &bytes, &frames, &flags), qt::noErr);
    EXPECT_EQ(frames, 5u);
    EXPECT_EQ(bytes, 10u);
    EXPECT_EQ(big[10], 0);
    one.rec.desc.sampleCount = 1000;  // more than the buffer holds
    one.rec.bufferSize = 5;
    one.given = false;
    ASSERT_EQ(plain.BeginConversion(), qt::noErr);  // a new conversion: the source starts again
    ASSERT_EQ(plain.FillBuffer(proc, &one, big, sizeof big, &bytes, &frames, &flags), qt::noErr);
    EXPECT_EQ(bytes, 6u);  // five bytes, the last frame completed
    EXPECT_EQ(big[5], 0x80);
}

}  // namespace
}  // namespace zub

namespace zub {
namespace {

// ---- surround on the movie route ----

// RMS of one tone of one WAVE channel (1-based), as sox measures it through a band-pass filter.
double ToneRms(const std::string& wav, int channel, double hz)
{
    // A steep filter, and the filter's start and end left out of the measure.
    const std::string out = Capture("sox '" + wav + "' -n remix " + std::to_string(channel) + " sinc -t 40 " +
                                    std::to_string(hz - 60) + "-" + std::to_string(hz + 60) + " trim 0.2 1.6 stat 2>&1");
    const auto at = out.find("RMS     amplitude:");
    return at == std::string::npos ? -1 : std::atof(out.c_str() + at + 18);
}

struct SurroundCase {
    const char* name;
    const char* ext;
    const char* codec;
    int bits;  // of the WAVE
};

class MovieSurround : public ::testing::TestWithParam<SurroundCase> {};

// Six channels, each its own tone and level (FL, FR, FC, LFE, SL, SR), made by ffmpeg; the
// WAVE has two channels with fronts as they were, centre and surrounds at -3 dB, no LFE.
TEST_P(MovieSurround, FiveOneIsMixedToStereoWithCentreAndSurroundsAtMinusThreeDecibels)
{
    const SurroundCase& c = GetParam();
    test::TempDir dir;
    const double hz[6] = {500, 700, 1100, 150, 1300, 1700};
    const double level[6] = {0.5, 0.4, 0.3, 0.5, 0.25, 0.2};
    std::string in;
    for (int i = 0; i < 6; ++i)
        in += "-f lavfi -i \"aevalsrc=exprs='" + std::to_string(level[i]) + "*sin(2*PI*" + std::to_string(hz[i]) +
              "*t)':s=48000:d=2\" ";
    const std::string movie = dir / (std::string("surround") + c.ext);
    int status = 0;
    const std::string log = Capture("ffmpeg -v error -y " + in +
                                        "-filter_complex \"join=inputs=6:channel_layout=5.1(side):"
                                        "map=0.0-FL|1.0-FR|2.0-FC|3.0-LFE|4.0-SL|5.0-SR\" -c:a " +
                                        c.codec + " -b:a 640k '" + movie + "' 2>&1",
                                    &status);
    ASSERT_EQ(status, 0) << log;
    ASSERT_EQ(Capture("ffprobe -v error -select_streams a:0 -show_entries stream=channels -of csv=p=0 '" + movie + "'"),
              "6\n");

    const std::string wav = dir / "surround.wav";
    CQuickTimeAudioSource audio;
    ASSERT_TRUE(audio.Open(movie.c_str())) << audio.LastError();
    EXPECT_FALSE(audio.PassingThrough());
    ASSERT_TRUE(ConvertAll(audio, wav)) << audio.LastError();
    EXPECT_EQ(Capture("sox --i -c '" + wav + "'"), "2\n");
    EXPECT_EQ(Capture("sox --i -b '" + wav + "'"), std::to_string(c.bits) + "\n");
    EXPECT_EQ(Capture("sox --i -r '" + wav + "'"), "48000\n");

    const double g = 0.70710678;
    auto expect = [&](int channel, int source, double gain) {
        const double want = level[source] * gain / std::sqrt(2.0);
        const double got = ToneRms(wav, channel, hz[source]);
        if (gain == 0)
            EXPECT_LT(got, 0.01 * level[source]) << "channel " << channel << ", " << hz[source] << " Hz";
        else
            EXPECT_NEAR(got, want, want * 0.04) << "channel " << channel << ", " << hz[source] << " Hz";
    };
    expect(1, 0, 1);  // front left
    expect(2, 0, 0);
    expect(2, 1, 1);  // front right
    expect(1, 1, 0);
    expect(1, 2, g);  // centre into both
    expect(2, 2, g);
    expect(1, 3, 0);  // LFE left out
    expect(2, 3, 0);
    expect(1, 4, g);  // surround left
    expect(2, 4, 0);
    expect(2, 5, g);  // surround right
    expect(1, 5, 0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, MovieSurround,
                         ::testing::Values(SurroundCase{"aac_mp4", ".mp4", "aac", 16},
                                           SurroundCase{"twos_mov", ".mov", "pcm_s16be", 16},
                                           SurroundCase{"s24_mov", ".mov", "pcm_s24be", 24}),
                         [](const ::testing::TestParamInfo<SurroundCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zub
