#include "device/RecorderDevice.h"

#include <cstring>

#include "device/BackendLibrary.h"
#include "device/RecorderAbi.h"
#include "device/RecorderBackend.h"
#include "platform/Error.h"
#include "platform/ByteOrder.h"
#include "zubimport/Paths.h"

namespace zub {

namespace {

using Errors = LastError<struct RecorderDeviceErrors>;
thread_local std::int32_t t_result = 0;  // of the library call that failed last, if any

// Offset of the "ZUBV" chunk header inside the "TBX " form, -1 when there is none; the
// chunk's declared size in *size. Sizes are bounded by the block, never trusted.
int FindZubv(const std::uint8_t* block, std::uint32_t* size)
{
    if (std::memcmp(block, "RIFF", 4) != 0 || std::memcmp(block + 8, "TBX ", 4) != 0) return -1;
    std::uint64_t end = 8 + static_cast<std::uint64_t>(ReadLe32(block + 4));
    if (end > rec::kAppInfoBytes) end = rec::kAppInfoBytes;
    std::uint64_t pos = 12;
    while (pos + 8 <= end) {
        const std::uint32_t chunkSize = ReadLe32(block + pos + 4);
        if (std::memcmp(block + pos, "ZUBV", 4) == 0) {
            *size = chunkSize;
            return static_cast<int>(pos);
        }
        pos += 8 + static_cast<std::uint64_t>(chunkSize) + (chunkSize & 1);
    }
    return -1;
}

}  // namespace

std::int32_t VideoTypeFor(bool videoUncompressed)
{
    return videoUncompressed ? rec::kTypeUncompressed : rec::kTypeCompressed;
}

std::int32_t AlphaTypeFor(bool createAlpha, bool sameAsVideo, bool alphaUncompressed, bool videoUncompressed)
{
    if (!createAlpha) return rec::kTypeNone;
    if (sameAsVideo) return VideoTypeFor(videoUncompressed);
    return alphaUncompressed ? rec::kTypeUncompressed : rec::kTypeCompressed;
}

bool PutZubvChunk(std::uint8_t block[256], const void* data116, std::string* error)
{
    std::uint32_t size = 0;
    const int at = FindZubv(block, &size);
    if (at >= 0) {
        if (size != rec::kZubvBytes || at + 8 + rec::kZubvBytes > rec::kAppInfoBytes) {
            if (error) *error = "the file's ZUBV chunk has " + std::to_string(size) + " bytes, not 116";
            return false;
        }
        std::memcpy(block + at + 8, data116, rec::kZubvBytes);
        return true;
    }
    std::memset(block, 0, rec::kAppInfoBytes);
    std::memcpy(block, "RIFF", 4);
    WriteLe32(block + 4, 4 + 8 + rec::kZubvBytes);
    std::memcpy(block + 8, "TBX ", 4);
    std::memcpy(block + 12, "ZUBV", 4);
    WriteLe32(block + 16, rec::kZubvBytes);
    std::memcpy(block + 20, data116, rec::kZubvBytes);
    return true;
}

bool GetZubvChunk(const std::uint8_t block[256], std::uint8_t data116[116])
{
    std::uint32_t size = 0;
    const int at = FindZubv(block, &size);
    if (at < 0 || size != rec::kZubvBytes || at + 8 + rec::kZubvBytes > rec::kAppInfoBytes) return false;
    std::memcpy(data116, block + at + 8, rec::kZubvBytes);
    return true;
}

void NoteLibraryResult(std::int32_t result)
{
    t_result = result;
}

int CRecorderDevice::Fail(std::string message)
{
    Errors::Set(std::move(message));
    t_result = 0;
    return 0;
}

int CRecorderDevice::LibraryFailed(std::string message)
{
    Errors::Set(std::move(message));
    return 0;
}

std::string CRecorderDevice::GetError()
{
    return Errors::Get();
}

std::int32_t CRecorderDevice::GetLastResult()
{
    return t_result;
}

bool CRecorderDevice::LastFailureIsNoSpace() const
{
    switch (kind) {
    case RecorderKind::Zub: return t_result == rec::kZubNoSpace;
    case RecorderKind::Tbx: return t_result == rec::kTbxNoSpace;
    case RecorderKind::Closed: break;
    }
    return false;
}

RecorderBackend* BackendFor(RecorderKind kind)
{
    switch (kind) {
    case RecorderKind::Zub: return &ZubRecorder();
    case RecorderKind::Tbx: return &TbxRecorder();
    case RecorderKind::Closed: break;
    }
    return nullptr;
}

CRecorderDevice::~CRecorderDevice()
{
    // Only the base close can run here: the derived part is already gone.
    if (IsOpen()) CRecorderDevice::CloseDevice();
}

int CRecorderDevice::OpenDevice(int useZub, int deviceName, int existingHandle)
{
    if (IsOpen()) return Fail("recorder: the device is already open");
    RecorderBackend* backend = BackendFor(useZub ? RecorderKind::Zub : RecorderKind::Tbx);
    std::int32_t h = kNoDevice;
    bool own = false;
    std::string why;
    const bool ok = backend->Open(deviceName, existingHandle, h, own, why);
    if (h != kNoDevice) {
        kind = backend->Kind();
        handle = h;
        owned = own;
        backend_ = backend;
    }
    if (ok) return 1;
    // A device that opened but could not be brought up is closed through the table, so a
    // derived close clears its information as well.
    if (IsOpen()) CloseDevice();
    return LibraryFailed(why);
}

void CRecorderDevice::CloseDevice()
{
    if (IsOpen() && backend_) backend_->Close(handle, owned);
    kind = RecorderKind::Closed;
    handle = kNoDevice;
    owned = false;
    backend_ = nullptr;
}

std::int32_t CRecorderDevice::QueryVolumeSpace(const char* path, std::int32_t videoRate, std::int32_t alphaRate,
                                               bool videoUncompressed, bool alphaUncompressed)
{
    if (!IsOpen()) return Fail(Named(path) + "the recorder is not open");
    const std::string folder = DirectoryPart(path ? path : "");
    std::int32_t frames = 0;
    std::string why;
    if (!backend_->FramesFit(handle, folder, videoUncompressed ? -1 : videoRate, alphaUncompressed ? -1 : alphaRate,
                             frames, why))
        return LibraryFailed(why);
    return frames > 0 ? frames : 0;
}

ClipStatus CRecorderDevice::CreateClipItem(const ClipSpec& spec, ClipItems& items)
{
    items = ClipItems{};
    if (!IsOpen()) {
        Fail(Named(spec.path.c_str()) + "the recorder is not open");
        return ClipStatus::Failed;
    }
    std::string why;
    const ClipStatus status = backend_->CreateClip(handle, spec, items, why);
    if (status != ClipStatus::Ok) LibraryFailed(why);
    return status;
}

int CRecorderDevice::ImportFrame(const FrameImport& frame)
{
    if (!IsOpen()) return Fail("recorder: the device is not open");
    std::string why;
    return backend_->Import(handle, frame, why) ? 1 : LibraryFailed(why);
}

int CRecorderDevice::ShowImage(const void* data, FrameSource source, bool videoUncompressed, std::int32_t videoRate)
{
    if (!IsOpen()) return Fail("recorder: the device is not open");
    std::string why;
    return backend_->ShowImage(handle, data, source, videoUncompressed, videoRate, why) ? 1 : LibraryFailed(why);
}

int CRecorderDevice::ReleaseItem(std::int32_t item)
{
    if (item == 0 || item == -1) return 1;
    // A closed object answers as ZUB, here as everywhere.
    RecorderBackend* backend = BackendFor(IsZub() ? RecorderKind::Zub : RecorderKind::Tbx);
    std::string why;
    return backend->Release(item, why) ? 1 : LibraryFailed(why);
}

int CRecorderDevice::GetFileAppInfo(const char* path, std::uint8_t block[256])
{
    if (!IsOpen()) return Fail(Named(path) + "the recorder is not open");
    std::string why;
    return backend_->GetAppInfo(handle, path, block, why) ? 1 : LibraryFailed(why);
}

int CRecorderDevice::SetFileAppInfo(const char* path, const void* data116)
{
    if (!IsOpen()) return Fail(Named(path) + "the recorder is not open");
    if (!data116) return Fail(Named(path) + "no information to store");
    // Start from the file's present block so that an existing form keeps its other bytes; a
    // file without one gets a new block.
    std::uint8_t block[rec::kAppInfoBytes] = {};
    if (!GetFileAppInfo(path, block)) std::memset(block, 0, sizeof block);
    std::string why;
    if (!PutZubvChunk(block, data116, &why)) return Fail(Named(path) + why);
    return backend_->SetAppInfo(handle, path, block, why) ? 1 : LibraryFailed(why);
}

int CRecorderDevice::SetOutputRouting()
{
    if (!IsOpen()) return Fail("recorder: the device is not open");
    std::string why;
    return backend_->SetRouting(handle, why) ? 1 : LibraryFailed(why);
}

int CRecorderDevice::QueryFileKey(const char* path)
{
    if (!IsOpen()) return Fail(Named(path) + "the recorder is not open");
    bool key = false;
    std::string why;
    if (!backend_->FileKey(handle, path, key, why)) return LibraryFailed(why);
    return key ? 1 : 0;
}

unsigned CRecorderDevice::QueryFileLength(const char* path)
{
    if (!IsOpen()) return Fail(Named(path) + "the recorder is not open");
    std::int32_t frames = 0;
    std::string why;
    if (!backend_->FileLength(handle, path, frames, why)) return LibraryFailed(why);
    return frames > 0 ? static_cast<unsigned>(frames) : 0u;
}

int CRecorderDevice::QuerySystemPrefs(std::string& videoFolder, int& lines, int& width, int& height)
{
    if (!IsOpen()) return Fail("recorder: the device is not open");
    std::string why;
    return backend_->SystemPrefs(handle, videoFolder, lines, width, height, why) ? 1 : LibraryFailed(why);
}

CRecorderDeviceInfo::~CRecorderDeviceInfo()
{
    if (IsOpen()) CRecorderDeviceInfo::CloseDevice();
}

int CRecorderDeviceInfo::OpenDeviceWithInfo(int useZub, int deviceName, int existingHandle)
{
    if (!CRecorderDevice::OpenDevice(useZub, deviceName, existingHandle)) return 0;
    std::string why;
    if (!BackendFor(kind)->DeviceInfo(handle, lines, frameWidth, frameHeight, why)) {
        CloseDevice();
        return LibraryFailed(why);
    }
    return 1;
}

void CRecorderDeviceInfo::CloseDevice()
{
    CRecorderDevice::CloseDevice();
    lines = 0;
    frameWidth = 0;
    frameHeight = 0;
    mode24p = 0;
}

CRecorderDeviceInfo& TheRecorder()
{
    // Never destroyed: the back-end libraries may already be finalised at exit.
    static CRecorderDeviceInfo* device = new CRecorderDeviceInfo;
    return *device;
}

}  // namespace zub
