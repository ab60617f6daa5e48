// The module's one seam to the disk recorder: a device object that knows which back-end is
// open (ZUB or Tbx), and the operations every clip goes through, each picking its back-end's
// call, filling that call's record and turning its result into success or failure. The
// back-end libraries are loaded on first use (RecorderBackends.h).
//
// The object is global and unlocked, like the device it stands for: opened and closed on the
// host's thread; frame import and output calls may come from a media streaming thread while
// the host's thread only reads `kind`. Failures are returned, never shown; GetError() gives
// the calling thread's last failure text.
//
// Behind the object stands one RecorderBackend per library (device/RecorderBackend.h): open
// picks one, and every later operation is one call to it.
#pragma once

#include <cstdint>
#include <string>

namespace zub {

class RecorderBackend;

// Which library the device object has open. The values are the ones the host's records and
// the device's callers have always seen.
enum class RecorderKind : int { Closed = -1, Tbx = 0, Zub = 1 };

inline constexpr std::int32_t kNoDevice = -1;  // `handle` of a closed device object

// How the frame handed to ImportFrame / ShowImage is laid out (the pixel-format word of the
// records, whose values differ by back-end).
enum class FrameSource {
    Pipeline,  // 40-byte bitmap header, 32-bit BGRA rows bottom-up (the frame holder)
    Server,    // 40-byte bitmap header, 16-bit 4:2:2 (UYVY) rows (server mode)
    Bits24,    // 40-byte bitmap header, 24-bit BGR rows padded to 4 bytes, bottom-up
};

enum class ClipStatus { Ok, NoSpace, Exists, Failed };

struct ClipSpec {
    std::string path;             // the clip file, NAME.zub
    std::int32_t frames = 0;      // capacity
    std::int32_t videoRate = 0;   // bytes per second; -1 uncompressed
    std::int32_t alphaRate = 0;   // bytes per second; -1 uncompressed; 0 without alpha
    bool videoUncompressed = false;
    bool createAlpha = false;
    bool alphaSameAsVideo = false;
    bool alphaUncompressed = false;
    bool fixedFieldSize = false;  // "Use &fixed field size"
};

struct ClipItems {
    std::int32_t video = -1;
    std::int32_t alpha = -1;
    std::int32_t code = 0;  // the back-end's own result
};

struct FrameImport {
    std::int32_t videoItem = -1;
    std::int32_t alphaItem = -1;
    std::int32_t frame = 0;  // written at field index frame << 1
    const void* data = nullptr;
    FrameSource source = FrameSource::Pipeline;
    std::int32_t videoRate = 0;
    std::int32_t alphaRate = 0;
    std::int32_t videoType = 1;  // ZUB only: 3 uncompressed, 1 compressed
    std::int32_t alphaType = 0;  // ZUB only: 0 without alpha
    bool videoOption = false;    // adaptive contour words
    bool alphaOption = false;
};

// Stream types of the creation record: 3 uncompressed, 1 compressed; the alpha's is 0
// without alpha and follows the video under "Same as Video".
std::int32_t VideoTypeFor(bool videoUncompressed);
std::int32_t AlphaTypeFor(bool createAlpha, bool sameAsVideo, bool alphaUncompressed, bool videoUncompressed);

class CRecorderDevice {
public:
    CRecorderDevice() = default;
    virtual ~CRecorderDevice();
    CRecorderDevice(const CRecorderDevice&) = delete;
    CRecorderDevice& operator=(const CRecorderDevice&) = delete;

    // 1 on success. Fails when already open. useZub 0: Tbx, adopting existingHandle when it
    // is neither 0 nor -1; 1: ZUB, taking a reference on existingHandle likewise.
    virtual int OpenDevice(int useZub, int deviceName, int existingHandle);
    // Tbx: closes only a device this object opened; ZUB: releases its reference.
    virtual void CloseDevice();

    // A closed object answers as ZUB; callers only ask while a device is open.
    bool IsZub() const { return kind != RecorderKind::Tbx; }
    bool IsOpen() const { return handle != kNoDevice; }

    // Frames of the given rates that fit in the folder of `path` (everything up to and
    // including its last separator); 0 on any failure.
    std::int32_t QueryVolumeSpace(const char* path, std::int32_t videoRate, std::int32_t alphaRate,
                                  bool videoUncompressed, bool alphaUncompressed);
    ClipStatus CreateClipItem(const ClipSpec& spec, ClipItems& items);
    int ImportFrame(const FrameImport& frame);
    // ZUB only (the Tbx back-end has no image output: 0 without a call).
    int ShowImage(const void* data, FrameSource source, bool videoUncompressed, std::int32_t videoRate);
    // 0 and -1 succeed without a call.
    int ReleaseItem(std::int32_t item);
    // Stores 116 bytes as the file's "ZUBV" chunk inside its 256-byte "TBX " RIFF block.
    int SetFileAppInfo(const char* path, const void* data116);
    int SetOutputRouting();

    // Per-file information for the association writer: 1 when the clip has a key (ZUB flag 4,
    // Tbx flag 2), 0 otherwise or on failure; the length in frames, 0 on failure.
    int QueryFileKey(const char* path);
    unsigned QueryFileLength(const char* path);
    // The file's 256-byte application-information block; 1 on success.
    int GetFileAppInfo(const char* path, std::uint8_t block[256]);
    // The recorder's recording folder (ends with '/') and video standard; 1 on success.
    int QuerySystemPrefs(std::string& videoFolder, int& lines, int& width, int& height);

    // The calling thread's last failure, e.g. "clip.zub: the volume has no space (-29)".
    static std::string GetError();
    // The library's own result of the calling thread's last failure, 0 when that failure was
    // not a library's answer (the device was not open, the library could not be loaded).
    static std::int32_t GetLastResult();
    // Whether that result is this object's library's no-space code (ZUB -29, Tbx 0xE0040215):
    // a frame import refused because the volume filled up.
    bool LastFailureIsNoSpace() const;

    RecorderKind kind = RecorderKind::Closed;
    std::int32_t handle = kNoDevice;
    bool owned = false;  // this object opened the Tbx device and closes it; false for an adopted one

protected:
    static int Fail(std::string message);
    // A failure the library reported: keeps the result it noted (NoteLibraryResult).
    static int LibraryFailed(std::string message);

private:
    RecorderBackend* backend_ = nullptr;  // the library `kind` names, while open
};

class CRecorderDeviceInfo : public CRecorderDevice {
public:
    CRecorderDeviceInfo() = default;
    ~CRecorderDeviceInfo() override;

    // The open slot: the base open, then the device information.
    int OpenDevice(int useZub, int deviceName, int existingHandle) override
    {
        return OpenDeviceWithInfo(useZub, deviceName, existingHandle);
    }
    int OpenDeviceWithInfo(int useZub, int deviceName, int existingHandle);
    // The base close, then the device information is cleared.
    void CloseDevice() override;

    int lines = 0;        // 525, or another value taken as 625
    int frameWidth = 0;
    int frameHeight = 0;
    int mode24p = 0;      // kept for the association writer; nothing here reads it
};

// The module's one device object.
CRecorderDeviceInfo& TheRecorder();

// The 256-byte application-information block: a RIFF form "TBX " holding a "ZUBV" chunk of
// 116 bytes. An existing form and chunk are updated in place, and a chunk of another size
// fails; anything else is replaced by a new form and chunk. false with *error on failure.
bool PutZubvChunk(std::uint8_t block[256], const void* data116, std::string* error);
// The 116 bytes of the block's "ZUBV" chunk; false when the block holds none of that size.
bool GetZubvChunk(const std::uint8_t block[256], std::uint8_t data116[116]);

}  // namespace zub
