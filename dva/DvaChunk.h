// Layout of the association chunk "BD11" and the reading steps every reader and updater
// shares.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "dva/DvaInternal.h"
#include "zubimport/Dva.h"

namespace zub::dva {

static_assert(std::endian::native == std::endian::little, "chunk records are stored little-endian");

inline constexpr char kHeadMarker[32] = "Head - Rva Tape and Timecode 01";
inline constexpr char kTailMarker[32] = "Tail - Rva Tape and Timecode 01";
inline constexpr std::size_t kTapeNameBytes = 256;
inline constexpr std::size_t kTimecodeBytes = 12;
inline constexpr char kZeroTimecode[] = "00:00:00:00";

struct TapeBlock {
    char head[32];
    char tapeName[kTapeNameBytes];
    char timecode[kTimecodeBytes];
    char tail[32];
};
static_assert(sizeof(TapeBlock) == 332);

struct VideoDescription {
    char magic[4];  // "BDID"
    std::int32_t width;
    std::int32_t height;
    float frameRate;
    std::int32_t always24;
    std::int32_t length;
    std::int32_t zero;
    std::uint32_t reserved1[2];
    std::uint32_t flags;  // bit 0: the video file has a key
    std::uint32_t reserved2;
};
static_assert(sizeof(VideoDescription) == 44);
static_assert(offsetof(VideoDescription, flags) == 36);

struct PlayListEntry {
    std::int32_t firstFrame;
    std::int32_t lastFrame;
    char path[MAX_PATH];
};
static_assert(sizeof(PlayListEntry) == 268);

// Chunk data of a file written by WriteNew: tape block, description, count, one entry.
inline constexpr DWORD kNewChunkSize = sizeof(TapeBlock) + sizeof(VideoDescription) + 4 + sizeof(PlayListEntry);
static_assert(kNewChunkSize == 648);
// The older layout's chunk with its header; WriteNew raises the RIFF size by this much.
inline constexpr DWORD kRiffGrowth = 8 + sizeof(VideoDescription) + 4 + sizeof(PlayListEntry);
static_assert(kRiffGrowth == 324);

struct PlayListFree {
    void operator()(CSMSBDPlayList* head) const { CSMSBDPlayList::Free(head); }
};
using PlayListPtr = std::unique_ptr<CSMSBDPlayList, PlayListFree>;

// Opens file and descends into RIFF "WAVE" and its "BD11" chunk.
bool OpenAssociation(const char* file, bool readWrite, CMmioFile& f, MMCKINFO& riff, MMCKINFO& chunk);

// Reads the tape block if the chunk has one; leaves the position at the video description.
// Older-layout chunks give "" and "00:00:00:00".
bool ReadTapeBlock(CMmioFile& f, char* tapeName, std::size_t tapeNameSize, char* tc, std::size_t tcSize);

// Reads tape block, description and play list. Null on failure.
PlayListPtr ReadPlayListFrom(CMmioFile& f, VideoDescription* description);

}  // namespace zub::dva
