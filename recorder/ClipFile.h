// The substitute recorder's native clip file, NAME.zub:
//
//   0      "ZUB0", then the rest of the 128-byte header (ClipHeader)
//   128    the 256-byte application-information block ("TBX " RIFF form, "ZUBV" chunk)
//   384    the index: `capacity` 16-byte entries of the video track, then as many of the alpha
//          (key) track
//   data   (4096-aligned) frame i at data + i * (videoSlot + alphaSlot): its video slot, then
//          its alpha slot
//
// A compressed track (type 1) stores two JPEG fields per frame (TurboJPEG, 4:2:2, BT.601; the
// key as greyscale), the first field (even lines) at the start of the slot and the second at
// its middle; the slot is the frame budget, data rate / frame divisor. An uncompressed track
// (type 3) stores 8-bit 4:2:2 (UYVY, BT.601 studio range; the key's luma is the key value
// itself, 0-255). A frame's index entry is written only after its data, so a file cut short
// by a crash reads back to its last whole frame. The file is sized to its full capacity when
// it is created; the volume counts that reservation.
#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zub::rec {

static_assert(std::endian::native == std::endian::little, "clip files are little-endian");

inline constexpr char kClipMagic[4] = {'Z', 'U', 'B', '0'};
inline constexpr std::uint32_t kClipVersion = 1;
inline constexpr std::uint32_t kClipHasAlpha = 1u << 0;
inline constexpr std::uint32_t kClipFixedFieldSize = 1u << 1;
inline constexpr std::uint32_t kMaxFrameSide = 4096;
inline constexpr std::uint32_t kMaxCapacity = 1u << 24;
inline constexpr std::uint32_t kMaxSlotBytes = 64u << 20;
inline constexpr std::uint32_t kMinCompressedSlot = 4096;

struct ClipHeader {
    char magic[4];
    std::uint32_t headerBytes;
    std::uint32_t version;
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t lines;
    std::uint32_t capacity;       // frames the file has room for
    std::uint32_t framesWritten;  // as of the last release; the index is the authority
    std::int32_t videoType;       // 1 compressed, 3 uncompressed
    std::int32_t alphaType;       // 0 none, 1, 3
    std::int32_t videoRate;       // bytes per second, -1 uncompressed
    std::int32_t alphaRate;
    std::uint32_t flags;          // kClip...
    std::uint32_t rateNumerator;  // frame rate
    std::uint32_t rateDenominator;
    std::uint32_t videoSlot;      // bytes per frame of each track
    std::uint32_t alphaSlot;
    std::uint32_t divisor;        // frame divisor of the budget: 24, 30 or 25
    std::uint64_t appInfoOffset;
    std::uint64_t indexOffset;
    std::uint64_t dataOffset;
    std::uint8_t reserved[32];
};
static_assert(sizeof(ClipHeader) == 128);

struct IndexEntry {
    std::uint32_t magic;   // kEntryMagic once the frame is whole
    std::uint32_t field1;  // bytes of the first field (the whole frame when uncompressed)
    std::uint32_t field2;  // bytes of the second field (0 when uncompressed)
    std::uint32_t check;
};
static_assert(sizeof(IndexEntry) == 16);

enum Track { kVideo = 0, kAlpha = 1 };

// What a new clip is made of.
struct ClipParams {
    std::uint32_t width = 720;
    std::uint32_t height = 486;
    std::uint32_t lines = 525;
    std::uint32_t capacity = 0;
    std::int32_t videoType = 1;
    std::int32_t alphaType = 0;
    std::int32_t videoRate = 0;
    std::int32_t alphaRate = 0;
    bool fixedFieldSize = false;
};

// The budget's divisor: 24 with fixed field size, else 30 for 525 lines, else 25.
std::uint32_t FrameDivisor(bool fixedFieldSize, std::uint32_t lines);
// Bytes of one frame of a track; 0 with *error when the type and rate make no frame.
std::uint32_t SlotBytes(std::int32_t type, std::int32_t rate, std::uint32_t divisor, std::uint32_t width,
                        std::uint32_t height, std::string* error);
// Header filled for `p`; false with *error when the clip cannot be made.
bool MakeHeader(const ClipParams& p, ClipHeader& h, std::string* error);
// Bytes the whole file takes.
std::uint64_t ClipFileBytes(const ClipHeader& h);

// A frame as the back-ends receive it: a 40-byte bitmap header, then rows of 32-bit BGRA or
// 24-bit BGR (bottom-up for a positive height, padded to 4 bytes) or 16-bit UYVY (top-down).
struct FrameView {
    int width = 0;
    int height = 0;
    int bits = 0;                    // 32, 24 or 16
    const std::uint8_t* top = nullptr;  // first byte of the top row
    std::ptrdiff_t stride = 0;      // from one row to the one below (negative when bottom-up)
};
bool ParseFrame(const void* data, std::uint32_t width, std::uint32_t height, FrameView& view, std::string* error);

// Encodes frames of one track into their stored form, holding the rate control's quality
// from frame to frame.
class TrackEncoder {
public:
    TrackEncoder(Track track, std::int32_t type, std::uint32_t slot, bool fixedFieldSize);
    ~TrackEncoder();
    TrackEncoder(const TrackEncoder&) = delete;
    TrackEncoder& operator=(const TrackEncoder&) = delete;

    // Fills `out` with the slot's bytes and the entry's field sizes.
    bool Encode(const FrameView& frame, std::vector<std::uint8_t>& out, IndexEntry& entry, std::string* error);
    int Quality() const { return quality_; }

private:
    struct Jpeg;
    bool CompressField(const FrameView& frame, int field, std::uint32_t target, std::uint8_t* dst,
                       std::uint32_t& size, std::string* error);
    Track track_;
    std::int32_t type_;
    std::uint32_t slot_;
    bool fixed_;
    int quality_ = 85;
    std::unique_ptr<Jpeg> jpeg_;
    std::vector<std::uint8_t> scratch_;
};

// Writes one clip file. Safe to call from several threads: frames are written under a lock.
class ClipWriter {
public:
    ~ClipWriter();
    // Creates the file (it must not exist: *exists is set then). With `reserve` the file takes
    // its whole size at once; without, it holds the header and index and grows with frames.
    static std::unique_ptr<ClipWriter> Create(const std::string& path, const ClipHeader& header, bool sync,
                                              bool* exists, std::string* error, bool reserve = true);
    const ClipHeader& Header() const { return header_; }
    const std::string& Path() const { return path_; }
    // Encodes and stores the frame at `frame` of the track; *noSpace tells a failure for want
    // of space on the file system.
    bool WriteFrame(Track track, std::uint32_t frame, const FrameView& view, std::string* error,
                    bool* noSpace = nullptr);
    // Bytes the file takes now, and would take once `frame` (and those before it) is written.
    std::uint64_t FileBytes() const;
    std::uint64_t BytesThrough(std::uint32_t frame) const;
    // Stores already encoded bytes (tests and tools).
    bool WriteEncoded(Track track, std::uint32_t frame, const std::vector<std::uint8_t>& bytes, IndexEntry entry,
                      std::string* error);
    // Records the frames written so far in the header.
    bool Finish(std::string* error);

private:
    ClipWriter() = default;
    bool WriteLocked(Track track, std::uint32_t frame, const std::vector<std::uint8_t>& bytes, IndexEntry entry,
                     std::string* error, bool* noSpace = nullptr);
    std::mutex mutex_;
    std::string path_;
    int fd_ = -1;
    bool sync_ = false;
    bool reserve_ = true;
    ClipHeader header_{};
    std::unique_ptr<TrackEncoder> encoders_[2];
    std::vector<std::uint8_t> buffer_;
    std::uint32_t written_[2] = {0, 0};
};

// Reads a clip file; every size in it is checked against the file before use.
class ClipReader {
public:
    ~ClipReader();
    static std::unique_ptr<ClipReader> Open(const std::string& path, std::string* error);
    const ClipHeader& Header() const { return header_; }
    const std::uint8_t* AppInfo() const { return appInfo_; }
    bool HasTrack(Track t) const { return t == kVideo || header_.alphaType != 0; }
    // Whole frames from the start of the track (the index's unbroken run of entries).
    std::uint32_t FramesReadable(Track t) const;
    bool Entry(Track t, std::uint32_t frame, IndexEntry& e) const;
    // The stored bytes of a frame (both fields, as in its slot, trimmed to the entry's sizes).
    bool ReadStored(Track t, std::uint32_t frame, std::vector<std::uint8_t>& field1, std::vector<std::uint8_t>& field2,
                    std::string* error) const;
    // Decoded frame: video as top-down BGRA (alpha 255), key as top-down 8-bit grey.
    bool Decode(Track t, std::uint32_t frame, std::vector<std::uint8_t>& pixels, std::string* error) const;

private:
    ClipReader() = default;
    std::string path_;
    int fd_ = -1;
    std::uint64_t fileBytes_ = 0;
    ClipHeader header_{};
    std::uint8_t appInfo_[256] = {};
    std::vector<IndexEntry> index_[2];
};

// Rewrites the application-information block of an existing clip.
bool WriteAppInfo(const std::string& path, const std::uint8_t block[256], std::string* error);

// Frame-holder conversions used by the encoder and by tools.
void BgraToUyvy(const FrameView& v, std::uint8_t* uyvy);
void UyvyToBgra(const std::uint8_t* uyvy, int width, int height, std::uint8_t* bgra);
// A whole frame as one JPEG (the output monitor).
bool FrameToJpeg(const FrameView& v, int quality, std::vector<std::uint8_t>& jpeg, std::string* error);

}  // namespace zub::rec
