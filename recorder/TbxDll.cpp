// libTbxDll.so: the Tbx interface of the substitute recorder. Calls succeed on a non-negative
// result; 0xE0040208 means the file exists, 0xE0040215 that the volume has no space; other
// failures are 0xE004.... codes, and TbxRecorderLastError() tells why. A device must be
// initialised (TbxDcInitialize) before use.
#include "device/RecorderAbi.h"
#include "recorder/BackendEntry.h"

using namespace zub::rec;

namespace {

// In the order of Status.
constexpr ResultCodes kCodes = {kTbxOk,      kTbxFailed,      kTbxBadHandle,  kTbxBadArgument, kTbxIoError,
                                kTbxBadFile, kTbxFrameTooBig, kTbxFileExists, kTbxNoSpace,     kTbxNotInitialised};

BackendEntry& Entry()
{
    static BackendEntry entry(0x7B0001, kCodes, PixelWords{kTbxPixelsPipeline, kTbxPixels24, kTbxPixelsServer});
    return entry;
}

}  // namespace

RECORDER_EXPORT const char* TbxRecorderLastError()
{
    return SubstituteRecorder::LastError();
}

RECORDER_EXPORT std::int32_t TbxDcOpenEx(std::int32_t deviceName, std::int32_t* handle)
{
    return Entry().Code(Entry().Recorder().OpenDevice(deviceName, false, handle));
}

RECORDER_EXPORT std::int32_t TbxDcInitialize(std::int32_t device, std::int32_t mode)
{
    if (mode != 0 && mode != 1) return kTbxBadArgument;
    return Entry().Code(Entry().Recorder().Initialise(device));
}

RECORDER_EXPORT std::int32_t TbxDcClose(std::int32_t device)
{
    return Entry().Code(Entry().Recorder().CloseDevice(device));
}

RECORDER_EXPORT std::int32_t TbxDcGetVersionInfo(std::int32_t device, TbxVersionInfo* info)
{
    if (!info) return kTbxBadArgument;
    auto v = Zeroed<TbxVersionInfo>();
    std::int32_t width = 0, height = 0;
    const std::int32_t r = Entry().Standard(device, v.lines, width, height);
    if (r != kTbxOk) return r;
    v.major = 1;
    v.minor = 0;
    *info = v;
    return kTbxOk;
}

RECORDER_EXPORT std::int32_t TbxDcQueryVolumeSpace(std::int32_t device, TbxVolumeSpace* r)
{
    if (!r) return kTbxBadArgument;
    return Entry().FramesFit(device, r->folder, r->videoRate, r->alphaRate, r->framesFit);
}

RECORDER_EXPORT std::int32_t TbxPlyCreateClipItem(std::int32_t device, const TbxClipCreateIn* in, TbxClipCreateOut* out)
{
    if (!in || !out) return kTbxBadArgument;
    const bool alpha = (in->flags & kTbxCreateAlpha) != 0;
    if (alpha != (in->alphaType != kTypeNone)) return kTbxBadArgument;
    ClipRequest q;
    q.path = in->path;
    q.frames = in->frames;
    q.videoType = in->videoType;
    q.alphaType = in->alphaType;
    q.videoRate = in->videoRate;
    q.alphaRate = in->alphaRate;
    q.fixedFieldSize = (in->flags & kTbxCreateFixedFieldSize) != 0;
    return Entry().CreateClip(device, q, out->videoItem, out->alphaItem);
}

RECORDER_EXPORT std::int32_t TbxPlyImport(std::int32_t device, const TbxImportRecord* r)
{
    if (!r) return kTbxBadArgument;
    return Entry().Import(device, r->videoItem, r->alphaItem, r->videoField, r->alphaField, r->data, r->pixelFormat);
}

RECORDER_EXPORT std::int32_t TbxDereferenceObject(std::int32_t object)
{
    return Entry().Code(Entry().Recorder().Dereference(object));
}

RECORDER_EXPORT std::int32_t TbxDcSetAppInfo(std::int32_t device, const char* path, const std::uint8_t* block)
{
    return Entry().Code(Entry().Recorder().SetAppInfo(device, path, block));
}

RECORDER_EXPORT std::int32_t TbxMixSetPreview(std::int32_t device, const TbxPreview* r)
{
    TbxPreview copy = r ? *r : TbxPreview{};
    return Entry().Bus(device, BusKind::Preview, r ? &copy : nullptr, true);
}

RECORDER_EXPORT std::int32_t TbxDcSetM2Routing(std::int32_t device, const TbxM2Routing* r)
{
    TbxM2Routing copy = r ? *r : TbxM2Routing{};
    return Entry().Bus(device, BusKind::Routing, r ? &copy : nullptr, true);
}

RECORDER_EXPORT std::int32_t TbxDcGetFileInfo(std::int32_t device, const char* path, TbxFileInfo* info)
{
    if (!info) return kTbxBadArgument;
    ClipFacts f;
    Status s = Entry().Recorder().FileFacts(device, path, f);
    if (s != Status::Ok) return Entry().Code(s);
    *info = Zeroed<TbxFileInfo>();
    s = Entry().Recorder().GetAppInfo(device, path, info->appInfo);
    if (s != Status::Ok) return Entry().Code(s);
    info->flags = f.hasKey ? kTbxFileHasKey : 0;
    info->frames = f.frames;
    info->videoType = f.videoType;
    info->alphaType = f.alphaType;
    info->videoRate = f.videoRate;
    info->alphaRate = f.alphaRate;
    info->width = f.width;
    info->height = f.height;
    return kTbxOk;
}

RECORDER_EXPORT std::int32_t TbxPlyOpenClipItem(std::int32_t device, const char* path, std::int32_t* item)
{
    if (!item) return kTbxBadArgument;
    return Entry().Code(Entry().Recorder().OpenClipItem(device, path, *item));
}

RECORDER_EXPORT std::int32_t TbxPlyItemQuery(std::int32_t item, TbxItemInfo* info)
{
    if (!info) return kTbxBadArgument;
    ClipFacts f;
    Track t = kVideo;
    const Status s = Entry().Recorder().ItemFacts(item, f, t);
    if (s != Status::Ok) return Entry().Code(s);
    *info = Zeroed<TbxItemInfo>();
    info->frames = f.frames;
    info->capacity = f.capacity;
    info->type = t == kVideo ? f.videoType : f.alphaType;
    info->rate = t == kVideo ? f.videoRate : f.alphaRate;
    return kTbxOk;
}

RECORDER_EXPORT std::int32_t TbxDcGetSystemPrefs(std::int32_t device, TbxSystemPrefs* prefs)
{
    return Entry().SystemPrefs(device, prefs);
}
