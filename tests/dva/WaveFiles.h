// Hand-built RIFF files for the WAVE tests, and the outside tools that judge what we write.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include "Tool.h"

namespace zub::test {

inline std::string Le16(std::uint16_t v) { return {char(v & 0xFF), char(v >> 8)}; }
inline std::string Le32(std::uint32_t v)
{
    return {char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char((v >> 24) & 0xFF)};
}
inline std::uint32_t GetLe32(const std::string& s, std::size_t at)
{
    return std::uint8_t(s.at(at)) | (std::uint8_t(s.at(at + 1)) << 8) | (std::uint8_t(s.at(at + 2)) << 16) |
           (std::uint32_t(std::uint8_t(s.at(at + 3))) << 24);
}
inline std::uint16_t GetLe16(const std::string& s, std::size_t at)
{
    return static_cast<std::uint16_t>(std::uint8_t(s.at(at)) | (std::uint8_t(s.at(at + 1)) << 8));
}

// A chunk with the given payload; the declared size defaults to the payload's, odd payloads
// get their pad byte.
inline std::string Chunk(const std::string& id, const std::string& payload, long declared = -1)
{
    std::string c = id + Le32(declared < 0 ? std::uint32_t(payload.size()) : std::uint32_t(declared)) + payload;
    if (payload.size() % 2) c += '\0';
    return c;
}
inline std::string Riff(const std::string& body, long declared = -1)
{
    return "RIFF" + Le32(declared < 0 ? std::uint32_t(body.size() + 4) : std::uint32_t(declared)) + "WAVE" + body;
}
// A "fmt " payload of `size` bytes (the 16-byte PCM record, cut or zero-extended).
inline std::string Fmt(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t align,
                       std::uint16_t bits, std::size_t size = 16)
{
    std::string f = Le16(tag) + Le16(channels) + Le32(rate) + Le32(rate * align) + Le16(align) + Le16(bits);
    f.resize(size, '\0');
    return f;
}
inline std::string Samples(std::size_t n, unsigned seed = 1)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i) s[i] = char((i * 37 + seed * 11) & 0xFF);
    return s;
}

inline void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}
inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline bool Exists(const std::string& path) { return std::ifstream(path).good(); }

// Output of a command line (paths in tests are made by TempDir and need no quoting).
inline std::string Run(const std::string& cmd)
{
    return zub::test::Capture(cmd + " 2>&1");
}

// ffprobe's view of the first audio stream: key=value pairs.
inline std::map<std::string, std::string> Probe(const std::string& path)
{
    std::map<std::string, std::string> kv;
    std::istringstream in(Run("ffprobe -v error -count_packets -select_streams a:0 -show_entries "
                              "stream=codec_name,sample_rate,channels,bits_per_sample,duration_ts -of default=nw=1 " +
                              path));
    for (std::string line; std::getline(in, line);) {
        const auto eq = line.find('=');
        if (eq != std::string::npos) kv[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return kv;
}

// One field of `sox --i`: "r" rate, "c" channels, "b" bits, "s" samples.
inline std::string SoxInfo(const std::string& path, char field)
{
    std::string out = Run(std::string("sox --i -") + field + " " + path);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

// Both tools agree that path is PCM audio of this shape.
inline void ExpectWave(const std::string& path, int rate, int channels, int bits, long samples)
{
    SCOPED_TRACE(path);
    const auto p = Probe(path);
    EXPECT_EQ(p.count("codec_name") ? p.at("codec_name") : "", bits == 8 ? "pcm_u8" : "pcm_s" + std::to_string(bits) + "le");
    EXPECT_EQ(p.count("sample_rate") ? p.at("sample_rate") : "", std::to_string(rate));
    EXPECT_EQ(p.count("channels") ? p.at("channels") : "", std::to_string(channels));
    EXPECT_EQ(p.count("duration_ts") ? p.at("duration_ts") : "", std::to_string(samples));
    EXPECT_EQ(SoxInfo(path, 'r'), std::to_string(rate));
    EXPECT_EQ(SoxInfo(path, 'c'), std::to_string(channels));
    EXPECT_EQ(SoxInfo(path, 'b'), std::to_string(bits));
    EXPECT_EQ(SoxInfo(path, 's'), std::to_string(samples));
}

}  // namespace zub::test
