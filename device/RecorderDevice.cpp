#include "RecorderDevice.h"

#include <cstdio>
#include <cstring>

#include "RecorderAbi.h"
#include "RecorderBackends.h"
#include "zubimport/Paths.h"

namespace zub {

namespace {

thread_local std::string t_error;

std::string Code(std::int32_t r)
{
    char buf[32];
    // Tbx codes read as hex (0xE0040215), ZUB's small negatives as decimal (-29).
    if (r < -65536)
        std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(r));
    else
        std::snprintf(buf, sizeof buf, "%d", static_cast<int>(r));
    return buf;
}

// "<what> failed (<code>): <library's own words>"
template <class Api>
std::string Why(const Api* api, const char* call, std::int32_t r)
{
    std::string s = std::string(call) + " failed (" + Code(r) + ")";
    if (api && api->LastError) {
        const char* text = api->LastError();
        if (text && *text) s += std::string(": ") + text;
    }
    return s;
}

std::string Named(const char* path)
{
    return std::string(path && *path ? path : "(no path)") + ": ";
}

constexpr std::int32_t kFrameWidth = 720;

std::uint32_t Get32(const std::uint8_t* p)
{
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

void Put32(std::uint8_t* p, std::uint32_t v)
{
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
    p[2] = static_cast<std::uint8_t>(v >> 16);
    p[3] = static_cast<std::uint8_t>(v >> 24);
}

// Offset of the "ZUBV" chunk header inside the "TBX " form, -1 when there is none; the
// chunk's declared size in *size. Sizes are bounded by the block, never trusted.
int FindZubv(const std::uint8_t* block, std::uint32_t* size)
{
    if (std::memcmp(block, "RIFF", 4) != 0 || std::memcmp(block + 8, "TBX ", 4) != 0) return -1;
    std::uint64_t end = 8 + static_cast<std::uint64_t>(Get32(block + 4));
    if (end > rec::kAppInfoBytes) end = rec::kAppInfoBytes;
    std::uint64_t pos = 12;
    while (pos + 8 <= end) {
        const std::uint32_t chunkSize = Get32(block + pos + 4);
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
    Put32(block + 4, 4 + 8 + rec::kZubvBytes);
    std::memcpy(block + 8, "TBX ", 4);
    std::memcpy(block + 12, "ZUBV", 4);
    Put32(block + 16, rec::kZubvBytes);
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

int CRecorderDevice::Fail(std::string message)
{
    t_error = std::move(message);
    return 0;
}

std::string CRecorderDevice::GetError()
{
    return t_error;
}

CRecorderDevice::~CRecorderDevice()
{
    // Only the base close can run here: the derived part is already gone.
    if (handle != -1) CRecorderDevice::CloseDevice();
}

int CRecorderDevice::OpenDevice(int useZub, int deviceName, int existingHandle)
{
    if (handle != -1) return Fail("recorder: the device is already open");
    std::string err;
    const bool adopt = existingHandle != 0 && existingHandle != -1;
    if (!useZub) {
        if (adopt) {
            // The host keeps its device; it is never closed from here.
            handle = existingHandle;
            kind = 0;
            owned = 0;
            return 1;
        }
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        std::int32_t h = -1;
        const std::int32_t r = api->TbxDcOpenEx(deviceName, &h);
        if (r != 0) return Fail("recorder: " + Why(api, "TbxDcOpenEx", r));
        handle = h;
        kind = 0;
        owned = 1;
        if (api->TbxDcInitialize(handle, 0) < 0) {
            const std::int32_t r2 = api->TbxDcInitialize(handle, 1);
            if (r2 != 0) {
                const std::string why = Why(api, "TbxDcInitialize", r2);
                CloseDevice();  // through the table: the derived close clears its information too
                return Fail("recorder: " + why);
            }
        }
        return 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    if (adopt) {
        const std::int32_t r = api->ZubObjReference(existingHandle);
        if (r != 0) return Fail("recorder: " + Why(api, "ZubObjReference", r));
        handle = existingHandle;
        kind = 1;
        owned = 0;
        return 1;
    }
    std::int32_t h = -1;
    const std::int32_t r = api->ZubDdrOpenDevice(deviceName, &h);
    if (r != 0) return Fail("recorder: " + Why(api, "ZubDdrOpenDevice", r));
    handle = h;
    kind = 1;
    owned = 0;
    return 1;
}

void CRecorderDevice::CloseDevice()
{
    if (handle != -1) {
        if (kind == 0) {
            if (owned) {
                if (const rec::TbxApi* api = TbxBackend()) api->TbxDcClose(handle);
            }
        } else if (const rec::ZubApi* api = ZubBackend()) {
            api->ZubObjDereference(handle);
        }
    }
    kind = -1;
    handle = -1;
    owned = 0;
}

std::int32_t CRecorderDevice::QueryVolumeSpace(const char* path, std::int32_t videoRate, std::int32_t alphaRate,
                                               bool videoUncompressed, bool alphaUncompressed)
{
    if (handle == -1) return Fail(Named(path) + "the recorder is not open");
    const std::string folder = DirectoryPart(path ? path : "");
    const std::int32_t v = videoUncompressed ? -1 : videoRate;
    const std::int32_t a = alphaUncompressed ? -1 : alphaRate;
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        auto r = rec::Zeroed<rec::TbxVolumeSpace>();
        r.folder = folder.c_str();
        r.videoRate = v;
        r.alphaRate = a;
        const std::int32_t res = api->TbxDcQueryVolumeSpace(handle, &r);
        if (res < 0) return Fail(Named(folder.c_str()) + Why(api, "TbxDcQueryVolumeSpace", res));
        return r.framesFit > 0 ? r.framesFit : 0;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto in = rec::Zeroed<rec::ZubVolumeQuery>();
    auto out = rec::Zeroed<rec::ZubVolumeSpace>();
    in.folder = folder.c_str();
    in.videoRate = v;
    in.alphaRate = a;
    const std::int32_t res = api->ZubDdrQueryVolumeSpace(handle, &in, &out);
    if (res != 0) return Fail(Named(folder.c_str()) + Why(api, "ZubDdrQueryVolumeSpace", res));
    return out.framesFit > 0 ? out.framesFit : 0;
}

ClipStatus CRecorderDevice::CreateClipItem(const ClipSpec& spec, ClipItems& items)
{
    items = ClipItems{};
    if (handle == -1) {
        Fail(Named(spec.path.c_str()) + "the recorder is not open");
        return ClipStatus::Failed;
    }
    const std::int32_t videoType = VideoTypeFor(spec.videoUncompressed);
    const std::int32_t alphaType =
        AlphaTypeFor(spec.createAlpha, spec.alphaSameAsVideo, spec.alphaUncompressed, spec.videoUncompressed);
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) {
            Fail(err);
            return ClipStatus::Failed;
        }
        auto in = rec::Zeroed<rec::TbxClipCreateIn>();
        auto out = rec::Zeroed<rec::TbxClipCreateOut>();
        in.path = spec.path.c_str();
        in.frames = spec.frames;
        in.videoType = videoType;
        in.alphaType = alphaType;
        in.videoRate = spec.videoRate;
        in.alphaRate = spec.alphaRate;
        in.flags = (spec.createAlpha ? rec::kTbxCreateAlpha : 0) | (spec.fixedFieldSize ? rec::kTbxCreateFixedFieldSize : 0);
        const std::int32_t r = api->TbxPlyCreateClipItem(handle, &in, &out);
        items.code = r;
        if (r < 0) {
            Fail(Named(spec.path.c_str()) + Why(api, "TbxPlyCreateClipItem", r));
            if (r == rec::kTbxNoSpace) return ClipStatus::NoSpace;
            if (r == rec::kTbxFileExists) return ClipStatus::Exists;
            return ClipStatus::Failed;
        }
        items.video = out.videoItem;
        items.alpha = out.alphaItem;
        return ClipStatus::Ok;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) {
        Fail(err);
        return ClipStatus::Failed;
    }
    auto r = rec::Zeroed<rec::ZubClipCreate>();
    r.path = spec.path.c_str();
    r.frames = spec.frames;
    r.videoRate = spec.videoRate;
    r.alphaRate = spec.alphaRate;
    r.flags = (spec.fixedFieldSize ? rec::kZubCreateFixedFieldSize : 0) | (spec.createAlpha ? rec::kZubCreateAlpha : 0);
    r.videoItem = -1;
    r.alphaItem = -1;
    const std::int32_t res = api->ZubVideoCreateClipItem(handle, &r);
    items.code = res;
    if (res != 0) {
        Fail(Named(spec.path.c_str()) + Why(api, "ZubVideoCreateClipItem", res));
        if (res == rec::kZubNoSpace) return ClipStatus::NoSpace;
        if (res == rec::kZubFileExists) return ClipStatus::Exists;
        return ClipStatus::Failed;
    }
    items.video = r.videoItem;
    items.alpha = r.alphaItem;
    return ClipStatus::Ok;
}

int CRecorderDevice::ImportFrame(const FrameImport& f)
{
    if (handle == -1) return Fail("recorder: the device is not open");
    const std::int32_t field = f.frame << 1;
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        auto r = rec::Zeroed<rec::TbxImportRecord>();
        r.videoItem = f.videoItem;
        r.alphaItem = f.alphaItem;
        r.videoField = field;
        r.alphaField = field;
        r.data = f.data;
        r.pixelFormat = f.source == FrameSource::Server ? rec::kTbxPixelsServer
                        : f.source == FrameSource::Bits24 ? rec::kTbxPixels24
                                                          : rec::kTbxPixelsPipeline;
        r.one1 = 1;
        r.one2 = 1;
        r.videoRate = f.videoRate;
        r.alphaRate = f.alphaRate;
        r.videoOption = f.videoOption ? 1 : 0;
        r.alphaOption = f.alphaOption ? 1 : 0;
        const std::int32_t res = api->TbxPlyImport(handle, &r);
        if (res < 0) return Fail("recorder: frame " + std::to_string(f.frame) + ": " + Why(api, "TbxPlyImport", res));
        return 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto r = rec::Zeroed<rec::ZubImportRecord>();
    r.videoItem = f.videoItem;
    r.alphaItem = f.alphaItem;
    r.videoField = field;
    r.alphaField = field;
    r.pixelFormat = f.source == FrameSource::Server ? rec::kZubPixelsServer
                    : f.source == FrameSource::Bits24 ? rec::kZubPixels24
                                                      : rec::kZubPixelsPipeline;
    r.data = f.data;
    r.videoType = f.videoType;
    r.alphaType = f.alphaType;
    r.videoRate = f.videoRate;
    r.alphaRate = f.alphaRate;
    r.videoOption = f.videoOption ? 1 : 0;
    r.alphaOption = f.alphaOption ? 1 : 0;
    const std::int32_t res = api->ZubVideoImport(handle, &r);
    if (res != 0) return Fail("recorder: frame " + std::to_string(f.frame) + ": " + Why(api, "ZubVideoImport", res));
    return 1;
}

int CRecorderDevice::ShowImage(const void* data, FrameSource source, bool videoUncompressed, std::int32_t videoRate)
{
    if (handle == -1) return Fail("recorder: the device is not open");
    if (!IsZub()) return Fail("recorder: the Tbx back-end has no image output");
    std::string err;
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto r = rec::Zeroed<rec::ZubGfxImage>();
    r.word0 = 1;
    r.word1 = 1;
    r.word2 = 0;
    r.word3 = 3;
    r.word7 = 1;
    r.pixelFormat = source == FrameSource::Server ? rec::kZubPixelsServer
                    : source == FrameSource::Bits24 ? rec::kZubPixels24
                                                    : rec::kZubPixelsPipeline;
    r.uncompressed = videoUncompressed ? 1 : 0;
    r.videoRate = videoRate;
    r.data = data;
    const std::int32_t res = api->ZubGfxLoadImage(handle, &r);
    if (res != 0) return Fail("recorder: " + Why(api, "ZubGfxLoadImage", res));
    return 1;
}

int CRecorderDevice::ReleaseItem(std::int32_t item)
{
    if (item == 0 || item == -1) return 1;
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        const std::int32_t r = api->TbxDereferenceObject(item);
        return r < 0 ? Fail("recorder: " + Why(api, "TbxDereferenceObject", r)) : 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    const std::int32_t r = api->ZubObjDereference(item);
    return r != 0 ? Fail("recorder: " + Why(api, "ZubObjDereference", r)) : 1;
}

int CRecorderDevice::GetFileAppInfo(const char* path, std::uint8_t block[256])
{
    if (handle == -1) return Fail(Named(path) + "the recorder is not open");
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        auto info = rec::Zeroed<rec::TbxFileInfo>();
        const std::int32_t r = api->TbxDcGetFileInfo(handle, path, &info);
        if (r < 0) return Fail(Named(path) + Why(api, "TbxDcGetFileInfo", r));
        std::memcpy(block, info.appInfo, rec::kAppInfoBytes);
        return 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto info = rec::Zeroed<rec::ZubDdrFileInfo>();
    const std::int32_t r = api->ZubDdrGetFileInfo(handle, path, &info);
    if (r != 0) return Fail(Named(path) + Why(api, "ZubDdrGetFileInfo", r));
    std::memcpy(block, info.appInfo, rec::kAppInfoBytes);
    return 1;
}

int CRecorderDevice::SetFileAppInfo(const char* path, const void* data116)
{
    if (handle == -1) return Fail(Named(path) + "the recorder is not open");
    if (!data116) return Fail(Named(path) + "no information to store");
    // Start from the file's present block so that an existing form keeps its other bytes; a
    // file without one gets a new block.
    std::uint8_t block[rec::kAppInfoBytes] = {};
    if (!GetFileAppInfo(path, block)) std::memset(block, 0, sizeof block);
    std::string why;
    if (!PutZubvChunk(block, data116, &why)) return Fail(Named(path) + why);
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        const std::int32_t r = api->TbxDcSetAppInfo(handle, path, block);
        return r < 0 ? Fail(Named(path) + Why(api, "TbxDcSetAppInfo", r)) : 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    const std::int32_t r = api->ZubDdrSetFileAppInfo(handle, path, block);
    return r != 0 ? Fail(Named(path) + Why(api, "ZubDdrSetFileAppInfo", r)) : 1;
}

int CRecorderDevice::SetOutputRouting()
{
    if (handle == -1) return Fail("recorder: the device is not open");
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        auto preview = rec::Zeroed<rec::TbxPreview>();
        preview.source = 2;
        preview.mode = 0;
        std::int32_t r = api->TbxMixSetPreview(handle, &preview);
        if (r < 0) return Fail("recorder: " + Why(api, "TbxMixSetPreview", r));
        auto routing = rec::Zeroed<rec::TbxM2Routing>();
        routing.word[0] = 1;
        routing.word[1] = 1;
        routing.word[4] = 1;
        r = api->TbxDcSetM2Routing(handle, &routing);
        return r < 0 ? Fail("recorder: " + Why(api, "TbxDcSetM2Routing", r)) : 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto preview = rec::Zeroed<rec::ZubPreviewBus>();
    preview.word[0] = 1;
    std::int32_t r = api->ZubMixSetPreviewBusCtrl(handle, &preview);
    if (r != 0) return Fail("recorder: " + Why(api, "ZubMixSetPreviewBusCtrl", r));
    auto bus = rec::Zeroed<rec::ZubOutputBus>();
    r = api->ZubMixGetOutputBusCtrl(handle, &bus);
    if (r != 0) return Fail("recorder: " + Why(api, "ZubMixGetOutputBusCtrl", r));
    bus.word[0] = 1;
    bus.word[1] = 1;
    bus.word[3] = 0;
    bus.word[5] |= 2;
    r = api->ZubMixSetOutputBusCtrl(handle, &bus);
    return r != 0 ? Fail("recorder: " + Why(api, "ZubMixSetOutputBusCtrl", r)) : 1;
}

int CRecorderDevice::QueryFileKey(const char* path)
{
    if (handle == -1) return Fail(Named(path) + "the recorder is not open");
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        auto info = rec::Zeroed<rec::TbxFileInfo>();
        const std::int32_t r = api->TbxDcGetFileInfo(handle, path, &info);
        if (r < 0) return Fail(Named(path) + Why(api, "TbxDcGetFileInfo", r));
        return (info.flags & rec::kTbxFileHasKey) ? 1 : 0;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto info = rec::Zeroed<rec::ZubFileInfo>();
    const std::int32_t r = api->ZubFileQueryInfo(handle, path, &info);
    if (r != 0) return Fail(Named(path) + Why(api, "ZubFileQueryInfo", r));
    return (info.flags & rec::kZubFileHasKey) ? 1 : 0;
}

unsigned CRecorderDevice::QueryFileLength(const char* path)
{
    if (handle == -1) return Fail(Named(path) + "the recorder is not open");
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        std::int32_t item = -1;
        std::int32_t r = api->TbxPlyOpenClipItem(handle, path, &item);
        if (r < 0) return Fail(Named(path) + Why(api, "TbxPlyOpenClipItem", r));
        auto info = rec::Zeroed<rec::TbxItemInfo>();
        r = api->TbxPlyItemQuery(item, &info);
        const std::string why = r < 0 ? Why(api, "TbxPlyItemQuery", r) : std::string();
        api->TbxDereferenceObject(item);
        if (r < 0) return Fail(Named(path) + why);
        return info.frames > 0 ? static_cast<unsigned>(info.frames) : 0u;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto info = rec::Zeroed<rec::ZubFileInfo>();
    const std::int32_t r = api->ZubFileQueryInfo(handle, path, &info);
    if (r != 0) return Fail(Named(path) + Why(api, "ZubFileQueryInfo", r));
    return info.frames > 0 ? static_cast<unsigned>(info.frames) : 0u;
}

int CRecorderDevice::QuerySystemPrefs(std::string& videoFolder, int& lines, int& width, int& height)
{
    if (handle == -1) return Fail("recorder: the device is not open");
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) return Fail(err);
        auto p = rec::Zeroed<rec::TbxSystemPrefs>();
        const std::int32_t r = api->TbxDcGetSystemPrefs(handle, &p);
        if (r < 0) return Fail("recorder: " + Why(api, "TbxDcGetSystemPrefs", r));
        videoFolder.assign(p.videoFolder, strnlen(p.videoFolder, sizeof p.videoFolder));
        lines = p.lines;
        width = p.width;
        height = p.height;
        return 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) return Fail(err);
    auto p = rec::Zeroed<rec::ZubFileSystemPrefs>();
    const std::int32_t r = api->ZubDdrGetFileSystemPrefs(handle, &p);
    if (r != 0) return Fail("recorder: " + Why(api, "ZubDdrGetFileSystemPrefs", r));
    videoFolder.assign(p.videoFolder, strnlen(p.videoFolder, sizeof p.videoFolder));
    lines = p.lines;
    width = p.width;
    height = p.height;
    return 1;
}

CRecorderDeviceInfo::~CRecorderDeviceInfo()
{
    if (handle != -1) CRecorderDeviceInfo::CloseDevice();
}

int CRecorderDeviceInfo::OpenDeviceWithInfo(int useZub, int deviceName, int existingHandle)
{
    if (!CRecorderDevice::OpenDevice(useZub, deviceName, existingHandle)) return 0;
    std::string err;
    if (!IsZub()) {
        const rec::TbxApi* api = TbxBackend(&err);
        if (!api) {
            CloseDevice();
            return Fail(err);
        }
        auto v = rec::Zeroed<rec::TbxVersionInfo>();
        const std::int32_t r = api->TbxDcGetVersionInfo(handle, &v);
        if (r < 0) {
            const std::string why = Why(api, "TbxDcGetVersionInfo", r);
            CloseDevice();
            return Fail("recorder: " + why);
        }
        lines = v.lines;
        frameWidth = kFrameWidth;
        frameHeight = lines == 525 ? 486 : 576;
        return 1;
    }
    const rec::ZubApi* api = ZubBackend(&err);
    if (!api) {
        CloseDevice();
        return Fail(err);
    }
    auto s = rec::Zeroed<rec::ZubSystemInfo>();
    const std::int32_t r = api->ZubDdrGetSystemInfo(handle, &s);
    if (r != 0) {
        const std::string why = Why(api, "ZubDdrGetSystemInfo", r);
        CloseDevice();
        return Fail("recorder: " + why);
    }
    lines = s.lines;
    frameWidth = s.width;
    frameHeight = s.height;
    auto caps = rec::Zeroed<rec::ZubDeviceCaps>();
    api->ZubDdrQueryDeviceCaps(handle, &caps);  // asked as the device expects; nothing here uses it
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
