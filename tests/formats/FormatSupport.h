// Helpers of the format tests: making sources with the ffmpeg command-line tool, asking
// ffprobe/ffmpeg what a file holds, reading the WAVE files the readers write, and driving
// both routes' readers to the end.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/formats/FormatList.h"
#include "graph/GraphAudioReader.h"
#include "graph/GraphVideoReader.h"
#include "quicktime/QuickTimeSource.h"
#include "Tool.h"

namespace zub::formats {

inline bool HaveEncoder(const std::string& name)
{
    static const std::string list = test::Capture("ffmpeg -hide_banner -encoders 2>/dev/null");
    return list.find(" " + name + " ") != std::string::npos;
}

// Runs ffmpeg quietly with the given arguments (a shell line); "" on success, else its errors.
inline std::string Ffmpeg(const std::string& args)
{
    int status = 0;
    const std::string out = test::Capture("ffmpeg -nostdin -hide_banner -v error -y " + args + " 2>&1", &status);
    return status == 0 ? std::string() : (out.empty() ? "ffmpeg failed" : out);
}

// Makes `f` into dir/<id><ext>; "" on success, else why.
inline std::string MakeFormat(const Format& f, const std::string& path)
{
    std::string in;
    if (f.width > 0) {
        in += "-f lavfi -i testsrc2=size=" + std::to_string(f.width) + "x" + std::to_string(f.height) +
              ":rate=" + std::to_string(f.rateNum) + "/" + std::to_string(f.rateDen) + ":duration=" + std::to_string(f.seconds) + " ";
    }
    std::string out = f.args;
    if (f.channels > 0) {
        in += "-f lavfi -i sine=frequency=1000:sample_rate=48000:duration=" + std::to_string(f.seconds) + " ";
        out += " -ac " + std::to_string(f.channels);
    }
    return Ffmpeg(in + out + " '" + path + "'");
}

inline std::int64_t ProbeFrames(const std::string& path)
{
    const std::string s = test::CaptureLine("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                                            "stream=nb_read_frames -of csv=p=0 '" + path + "'");
    return s.empty() ? -1 : std::atoll(s.c_str());
}

inline void ProbeSize(const std::string& path, int* w, int* h)
{
    const std::string s = test::CaptureLine("ffprobe -v error -select_streams v:0 -show_entries stream=width,height "
                                            "-of csv=p=0:s=x '" + path + "'");
    *w = *h = 0;
    std::sscanf(s.c_str(), "%dx%d", w, h);
}

// Sample frames ffmpeg decodes from the first sound stream (it honours the container's
// priming and padding notes), at the stream's own rate.
inline std::int64_t FfmpegSoundFrames(const std::string& path)
{
    const std::string s =
        test::CaptureLine("ffmpeg -nostdin -v error -i '" + path + "' -map 0:a:0 -f s16le -ac 1 - | wc -c");
    return s.empty() ? -1 : std::atoll(s.c_str()) / 2;
}

// Marks the first track of an MP4/MOV as to be shown turned `clockwise` degrees (90, 180,
// 270) by writing its header's display matrix, as phone cameras do. The ffmpeg tool of
// Debian 12 no longer turns a "rotate" tag into the matrix, so the test writes it itself.
inline bool SetTrackRotation(const std::string& path, int clockwise, std::string* why)
{
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    std::vector<char> d((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const std::string tag = "tkhd";
    const auto at = std::search(d.begin(), d.end(), tag.begin(), tag.end());
    if (at == d.end() || at - d.begin() < 4) {
        *why = path + ": no track header";
        return false;
    }
    const std::size_t box = static_cast<std::size_t>(at - d.begin()) - 4;
    const std::size_t matrix = box + (d[box + 8] == 1 ? 60 : 48);
    if (matrix + 36 > d.size()) {
        *why = path + ": track header cut short";
        return false;
    }
    // 16.16 fixed point a, b, c, d of the row-vector transform; turning clockwise by t is
    // a = cos t, b = sin t, c = -sin t, d = cos t.
    const int s = clockwise == 90 ? 1 : clockwise == 270 ? -1 : 0;
    const int c = clockwise == 0 ? 1 : clockwise == 180 ? -1 : 0;
    const std::int32_t m[9] = {c * 0x10000, s * 0x10000, 0, -s * 0x10000, c * 0x10000, 0, 0, 0, 0x40000000};
    for (int i = 0; i < 9; ++i) {
        const auto v = static_cast<std::uint32_t>(m[i]);
        for (int b = 0; b < 4; ++b) d[matrix + static_cast<std::size_t>(i * 4 + b)] = static_cast<char>(v >> (24 - 8 * b));
    }
    f.seekp(0);
    f.write(d.data(), static_cast<std::streamsize>(d.size()));
    if (!f) {
        *why = path + ": cannot be rewritten";
        return false;
    }
    return true;
}

struct Wave {
    int format = 0, channels = 0, rate = 0, bits = 0;
    std::int64_t dataBytes = 0;
    std::vector<std::int16_t> samples;  // interleaved, 16-bit files only
    std::int64_t Frames() const { return channels && bits >= 8 ? dataBytes / (channels * (bits / 8)) : 0; }
};

// A plain RIFF WAVE reader, independent of the module's own.
inline bool ReadWave(const std::string& path, Wave* w, std::string* why)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<char> d((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto u32 = [&](std::size_t o) {
        return std::uint32_t(std::uint8_t(d[o])) | std::uint32_t(std::uint8_t(d[o + 1])) << 8 |
               std::uint32_t(std::uint8_t(d[o + 2])) << 16 | std::uint32_t(std::uint8_t(d[o + 3])) << 24;
    };
    auto u16 = [&](std::size_t o) { return int(std::uint8_t(d[o])) | int(std::uint8_t(d[o + 1])) << 8; };
    if (d.size() < 12 || std::memcmp(d.data(), "RIFF", 4) || std::memcmp(d.data() + 8, "WAVE", 4)) {
        *why = path + ": not a RIFF WAVE file (" + std::to_string(d.size()) + " bytes)";
        return false;
    }
    bool haveFmt = false;
    for (std::size_t o = 12; o + 8 <= d.size();) {
        const std::uint32_t size = u32(o + 4);
        const std::size_t body = o + 8;
        if (!std::memcmp(d.data() + o, "fmt ", 4) && body + 16 <= d.size()) {
            w->format = u16(body);
            w->channels = u16(body + 2);
            w->rate = static_cast<int>(u32(body + 4));
            w->bits = u16(body + 14);
            haveFmt = true;
        } else if (!std::memcmp(d.data() + o, "data", 4)) {
            w->dataBytes = static_cast<std::int64_t>(std::min<std::size_t>(size, d.size() - body));
            const std::size_t n = static_cast<std::size_t>(w->dataBytes) / 2;
            w->samples.resize(n);
            std::memcpy(w->samples.data(), d.data() + body, n * 2);
        }
        o = body + size + (size & 1);
    }
    if (!haveFmt) *why = path + ": no format chunk";
    return haveFmt;
}

class FrameCounter : public IVideoFrameSink {
public:
    int VideoCallback(const VideoSample& s) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++frames;
        if (!s.data) ++unreadable;
        sizes.insert({s.width, s.height});
        if (keep) {
            last.assign(s.data, s.data + (s.data ? s.size : 0));
            pictures.push_back(last);
            strides.push_back(s.stride);
        }
        times.push_back(s.time);
        return 1;
    }
    std::mutex mutex;
    bool keep = false;
    std::int64_t frames = 0, unreadable = 0;
    std::set<std::pair<int, int>> sizes;
    std::vector<std::uint8_t> last;
    std::vector<std::vector<std::uint8_t>> pictures;
    std::vector<std::ptrdiff_t> strides;
    std::vector<std::int64_t> times;
};

inline bool RunToEnd(CGraphVideoReader& reader, IVideoFrameSink* sink, std::string* error)
{
    using namespace std::chrono_literals;
    reader.SetFrameSink(sink);
    if (!reader.Run(error)) return false;
    for (int i = 0; i < 12000; ++i) {
        if (reader.Finished()) {
            *error = reader.Error();
            reader.Stop();
            return error->empty();
        }
        std::this_thread::sleep_for(10ms);
    }
    *error = "timed out";
    reader.Stop();
    return false;
}

inline bool WriteGraphWave(const std::string& source, const std::string& wave, CGraphAudioReader* reader, std::string* error)
{
    using namespace std::chrono_literals;
    if (!reader->OpenAudio(source, error) || !reader->Start(wave, error)) return false;
    for (int i = 0; i < 12000; ++i) {
        if (reader->Finished()) {
            *error = reader->Error();
            return error->empty();
        }
        std::this_thread::sleep_for(10ms);
    }
    *error = "timed out";
    reader->Stop();
    return false;
}

inline bool WriteMovieWave(const std::string& source, const std::string& wave, std::string* error)
{
    CQuickTimeAudioSource audio;
    if (!audio.Open(source.c_str())) {
        *error = audio.LastError();
        return false;
    }
    bool more = true;
    for (int guard = 0; more && guard < 100000; ++guard) {
        if (!audio.ConvertChunk(wave.c_str(), more)) {
            *error = audio.LastError();
            audio.Finish(true);
            return false;
        }
    }
    if (!audio.Finish(true)) {
        *error = audio.LastError();
        return false;
    }
    return true;
}

}  // namespace zub::formats
