// One substitute recorder: the state behind one back-end library (its open devices and clip
// items, each a numbered object with a reference count) over the shared, file-backed volume.
// The ZUB and Tbx libraries each hold one and translate its Status into their own codes.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "device/RecorderAbi.h"
#include "recorder/ClipFile.h"
#include "recorder/RecorderConfig.h"

namespace zub::rec {

enum class Status { Ok, Failed, BadHandle, BadArgument, IoError, BadFile, FrameTooBig, Exists, NoSpace, NotInitialised };
inline constexpr std::size_t kStatusCount = 10;

// The device's routing records the libraries keep: the preview bus, the output bus and the
// Tbx second-monitor routing.
enum class BusKind { Preview, Output, Routing };

// How the frame data of an import or output call is laid out.
enum class PixelKind { Pipeline, Bits24, Server, Unknown };

struct ClipRequest {
    const char* path = nullptr;
    std::int32_t frames = 0;
    std::int32_t videoType = kTypeCompressed;
    std::int32_t alphaType = kTypeNone;
    std::int32_t videoRate = 0;
    std::int32_t alphaRate = 0;
    bool fixedFieldSize = false;
};

struct ClipFacts {
    bool hasKey = false;
    std::int32_t frames = 0;    // readable frames of the video track
    std::int32_t capacity = 0;
    std::int32_t videoType = 0, alphaType = 0;
    std::int32_t videoRate = 0, alphaRate = 0;
    std::int32_t width = 0, height = 0;
    std::int32_t rateNumerator = 0, rateDenominator = 0;
};

// Bytes free for clips in a folder: the file system's, bounded by the configured limit less
// what the folder's clip files already take.
bool VolumeFreeBytes(const std::string& folder, const RecorderConfig& config, std::uint64_t& bytes, std::string* error);
// Frames of the given rates (-1 uncompressed; alpha 0: none) that fit in the folder.
bool FramesThatFit(const std::string& folder, const RecorderConfig& config, std::int32_t videoRate,
                   std::int32_t alphaRate, std::int64_t& frames, std::string* error);

class SubstituteRecorder {
public:
    // Handles of this recorder start at `firstHandle`, so the two libraries' never meet.
    explicit SubstituteRecorder(std::int32_t firstHandle);
    ~SubstituteRecorder();

    Status OpenDevice(std::int32_t deviceName, bool initialised, std::int32_t* handle);
    Status Initialise(std::int32_t device);
    Status Reference(std::int32_t object);
    Status Dereference(std::int32_t object);
    Status CloseDevice(std::int32_t device);  // Tbx: the device goes whatever its references
    Status Config(std::int32_t device, RecorderConfig& config);

    Status FramesFit(std::int32_t device, const char* folder, std::int32_t videoRate, std::int32_t alphaRate,
                     std::int32_t& frames);
    Status CreateClip(std::int32_t device, const ClipRequest& request, std::int32_t& videoItem,
                      std::int32_t& alphaItem);
    Status Import(std::int32_t device, std::int32_t videoItem, std::int32_t alphaItem, std::int32_t videoField,
                  std::int32_t alphaField, const void* data, PixelKind kind);
    Status ShowImage(std::int32_t device, const void* data, PixelKind kind);
    Status GetAppInfo(std::int32_t device, const char* path, std::uint8_t block[256]);
    Status SetAppInfo(std::int32_t device, const char* path, const std::uint8_t block[256]);
    Status FileFacts(std::int32_t device, const char* path, ClipFacts& facts);
    Status OpenClipItem(std::int32_t device, const char* path, std::int32_t& item);
    Status ItemFacts(std::int32_t item, ClipFacts& facts, Track& track);
    Status Bus(std::int32_t device, BusKind which, std::int32_t* words, int count, bool set);

    // The calling thread's last failure.
    static const char* LastError();

private:
    struct Device;
    struct Item;
    struct Object;
    Status Fail(Status s, std::string text);
    Status WriteFrames(Device& device, Item& video, Item* alpha, std::uint32_t frame, std::uint32_t alphaFrame,
                       const FrameView& view);
    std::shared_ptr<Object> Find(std::int32_t handle);
    std::shared_ptr<Device> FindDevice(std::int32_t handle, Status& s);
    std::int32_t Add(std::shared_ptr<Object> object);

    std::mutex mutex_;
    std::map<std::int32_t, std::shared_ptr<Object>> objects_;
    std::int32_t next_;
};

}  // namespace zub::rec
