// Plain data types of the host platform's ABI, kept layout-identical so that records
// written to files and handed to the recorder back-ends match byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zub {

using HRESULT = std::int32_t;
using DWORD = std::uint32_t;
using WORD = std::uint16_t;
using BYTE = std::uint8_t;
using LONG = std::int32_t;
using FOURCC = std::uint32_t;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
inline constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);

constexpr bool Succeeded(HRESULT hr) { return hr >= 0; }
constexpr bool Failed(HRESULT hr) { return hr < 0; }

// Four-character code in file order: 'R','I','F','F' -> bytes "RIFF" on disk.
constexpr FOURCC MakeFourCC(char a, char b, char c, char d)
{
    return static_cast<FOURCC>(static_cast<BYTE>(a)) | (static_cast<FOURCC>(static_cast<BYTE>(b)) << 8) |
           (static_cast<FOURCC>(static_cast<BYTE>(c)) << 16) | (static_cast<FOURCC>(static_cast<BYTE>(d)) << 24);
}

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16);

inline bool operator==(const GUID& a, const GUID& b)
{
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
    for (int i = 0; i < 8; ++i)
        if (a.Data4[i] != b.Data4[i]) return false;
    return true;
}

struct BITMAPINFOHEADER {
    DWORD biSize;
    LONG biWidth;
    LONG biHeight;  // positive: rows stored bottom-up
    WORD biPlanes;
    WORD biBitCount;
    DWORD biCompression;
    DWORD biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    DWORD biClrUsed;
    DWORD biClrImportant;
};
static_assert(sizeof(BITMAPINFOHEADER) == 40);
static_assert(offsetof(BITMAPINFOHEADER, biBitCount) == 14);

inline constexpr DWORD BI_RGB = 0;

#pragma pack(push, 2)
struct WAVEFORMATEX {
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
    WORD cbSize;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18);
static_assert(offsetof(WAVEFORMATEX, nAvgBytesPerSec) == 8);

inline constexpr WORD WAVE_FORMAT_PCM = 1;

// Maximum path length of the host's 8-bit path fields, terminator included.
inline constexpr std::size_t MAX_PATH = 260;

}  // namespace zub
