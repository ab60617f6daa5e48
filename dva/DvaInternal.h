// Pieces shared by the WAVE utilities and the association code.
#pragma once

#include <string>

#include "dva/MmioFile.h"
#include "zubimport/Platform.h"

namespace zub::dva {

inline constexpr FOURCC kWave = MakeFourCC('W', 'A', 'V', 'E');
inline constexpr FOURCC kFmt = MakeFourCC('f', 'm', 't', ' ');
inline constexpr FOURCC kData = MakeFourCC('d', 'a', 't', 'a');
inline constexpr FOURCC kBd11 = MakeFourCC('B', 'D', '1', '1');

// The 16-byte PCM form of a "fmt " chunk.
#pragma pack(push, 2)
struct PcmWaveFormat {
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
};
#pragma pack(pop)
static_assert(sizeof(PcmWaveFormat) == 16);

// The per-thread reason behind CDva::GetLastError().
void ClearError();
const std::string& LastError();
void SetError(std::string text);
// Sets the error from the file's own message; returns false so callers can `return Fail(f)`.
bool FailFrom(const CMmioFile& file);
bool FailWith(const std::string& file, const std::string& why);

// An open source positioned after its "fmt " chunk was read.
struct WaveSource {
    CMmioFile file;
    MMCKINFO riff;
    MMCKINFO fmt;
    PcmWaveFormat format;
};

// Opens src, finds RIFF "WAVE" and "fmt " (at least 14 bytes) and reads its format record.
bool OpenWaveFormat(const char* src, WaveSource& out);

}  // namespace zub::dva
