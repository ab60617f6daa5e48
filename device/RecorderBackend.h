// The device's view of one recorder library: every operation of the device object as one
// call, whichever library is behind it. Each implementation owns its library (loaded on first
// use, see RecorderBackends.h), its records and its result convention, and turns them into
// plain success or failure with a reason that names the file and the library's call.
//
// Internal to the device layer: the module reaches the recorder through CRecorderDevice.
#pragma once

#include <cstdint>
#include <string>

#include "device/RecorderDevice.h"

namespace zub {

class RecorderBackend {
public:
    virtual ~RecorderBackend() = default;

    virtual RecorderKind Kind() const = 0;

    // Opens (or adopts) a device. On failure `handle` stays -1 unless a device was opened
    // but could not be brought up: the caller then closes it through the device object.
    virtual bool Open(int deviceName, std::int32_t existingHandle, std::int32_t& handle, bool& owned,
                      std::string& why) = 0;
    virtual void Close(std::int32_t handle, bool owned) = 0;
    virtual bool DeviceInfo(std::int32_t handle, int& lines, int& width, int& height, std::string& why) = 0;

    // Rates are as the records take them: -1 for an uncompressed stream.
    virtual bool FramesFit(std::int32_t handle, const std::string& folder, std::int32_t videoRate,
                           std::int32_t alphaRate, std::int32_t& frames, std::string& why) = 0;
    virtual ClipStatus CreateClip(std::int32_t handle, const ClipSpec& spec, ClipItems& items, std::string& why) = 0;
    virtual bool Import(std::int32_t handle, const FrameImport& frame, std::string& why) = 0;
    virtual bool ShowImage(std::int32_t handle, const void* data, FrameSource source, bool videoUncompressed,
                           std::int32_t videoRate, std::string& why) = 0;
    virtual bool Release(std::int32_t item, std::string& why) = 0;
    virtual bool GetAppInfo(std::int32_t handle, const char* path, std::uint8_t block[256], std::string& why) = 0;
    virtual bool SetAppInfo(std::int32_t handle, const char* path, const std::uint8_t block[256], std::string& why) = 0;
    virtual bool SetRouting(std::int32_t handle, std::string& why) = 0;
    virtual bool FileKey(std::int32_t handle, const char* path, bool& key, std::string& why) = 0;
    virtual bool FileLength(std::int32_t handle, const char* path, std::int32_t& frames, std::string& why) = 0;
    virtual bool SystemPrefs(std::int32_t handle, std::string& videoFolder, int& lines, int& width, int& height,
                             std::string& why) = 0;
};

// Called by a back-end with a failing call's result, for CRecorderDevice::GetLastResult.
void NoteLibraryResult(std::int32_t result);

// The one instance of each; BackendFor gives nullptr for RecorderKind::Closed.
RecorderBackend& ZubRecorder();
RecorderBackend& TbxRecorder();
RecorderBackend* BackendFor(RecorderKind kind);

}  // namespace zub
