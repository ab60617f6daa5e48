// libZUBDDR.so: the ZUB interface of the substitute recorder. Calls succeed on 0; -28 means
// the file exists, -29 that the volume has no space; other failures are small negatives, and
// ZubRecorderLastError() tells why.
#include "device/RecorderAbi.h"
#include "recorder/BackendEntry.h"

using namespace zub::rec;

namespace {

// In the order of Status.
constexpr ResultCodes kCodes = {kZubOk,      kZubFailed,     kZubBadHandle,   kZubBadArgument, kZubIoError,
                                kZubBadFile, kZubFrameTooBig, kZubFileExists, kZubNoSpace,     kZubFailed};

BackendEntry& Entry()
{
    static BackendEntry entry(0x5A0001, kCodes, PixelWords{kZubPixelsPipeline, kZubPixels24, kZubPixelsServer});
    return entry;
}

}  // namespace

RECORDER_EXPORT const char* ZubRecorderLastError()
{
    return SubstituteRecorder::LastError();
}

RECORDER_EXPORT std::int32_t ZubDdrOpenDevice(std::int32_t deviceName, std::int32_t* handle)
{
    return Entry().Code(Entry().Recorder().OpenDevice(deviceName, true, handle));
}

RECORDER_EXPORT std::int32_t ZubObjReference(std::int32_t object)
{
    return Entry().Code(Entry().Recorder().Reference(object));
}

RECORDER_EXPORT std::int32_t ZubObjDereference(std::int32_t object)
{
    return Entry().Code(Entry().Recorder().Dereference(object));
}

RECORDER_EXPORT std::int32_t ZubDdrGetSystemInfo(std::int32_t device, ZubSystemInfo* info)
{
    if (!info) return kZubBadArgument;
    auto s = Zeroed<ZubSystemInfo>();
    const std::int32_t r = Entry().Standard(device, s.lines, s.width, s.height);
    if (r == kZubOk) *info = s;
    return r;
}

RECORDER_EXPORT std::int32_t ZubDdrQueryDeviceCaps(std::int32_t device, ZubDeviceCaps* caps)
{
    if (!caps) return kZubBadArgument;
    std::int32_t lines = 0, width = 0, height = 0;
    if (const std::int32_t r = Entry().Standard(device, lines, width, height); r != kZubOk) return r;
    *caps = Zeroed<ZubDeviceCaps>();
    caps->videoChannels = 1;
    caps->keyChannels = 1;
    return kZubOk;
}

RECORDER_EXPORT std::int32_t ZubDdrQueryVolumeSpace(std::int32_t device, const ZubVolumeQuery* in, ZubVolumeSpace* out)
{
    if (!in || !out) return kZubBadArgument;
    std::int32_t frames = 0;
    const std::int32_t r = Entry().FramesFit(device, in->folder, in->videoRate, in->alphaRate, frames);
    if (r != kZubOk) return r;
    *out = Zeroed<ZubVolumeSpace>();
    out->framesFit = frames;
    return kZubOk;
}

RECORDER_EXPORT std::int32_t ZubVideoCreateClipItem(std::int32_t device, ZubClipCreate* r)
{
    if (!r) return kZubBadArgument;
    // The ZUB record carries no stream types: a rate of -1 is an uncompressed stream.
    ClipRequest q;
    q.path = r->path;
    q.frames = r->frames;
    q.videoType = r->videoRate == -1 ? kTypeUncompressed : kTypeCompressed;
    q.alphaType = !(r->flags & kZubCreateAlpha) ? kTypeNone
                  : r->alphaRate == -1       ? kTypeUncompressed
                                             : kTypeCompressed;
    q.videoRate = r->videoRate;
    q.alphaRate = r->alphaRate;
    q.fixedFieldSize = (r->flags & kZubCreateFixedFieldSize) != 0;
    return Entry().CreateClip(device, q, r->videoItem, r->alphaItem);
}

RECORDER_EXPORT std::int32_t ZubVideoImport(std::int32_t device, const ZubImportRecord* r)
{
    if (!r) return kZubBadArgument;
    return Entry().Import(device, r->videoItem, r->alphaItem, r->videoField, r->alphaField, r->data, r->pixelFormat);
}

RECORDER_EXPORT std::int32_t ZubGfxLoadImage(std::int32_t device, const ZubGfxImage* r)
{
    if (!r) return kZubBadArgument;
    return Entry().Code(Entry().Recorder().ShowImage(device, r->data, Entry().Kind(r->pixelFormat)));
}

RECORDER_EXPORT std::int32_t ZubDdrSetFileAppInfo(std::int32_t device, const char* path, const std::uint8_t* block)
{
    return Entry().Code(Entry().Recorder().SetAppInfo(device, path, block));
}

RECORDER_EXPORT std::int32_t ZubDdrGetFileInfo(std::int32_t device, const char* path, ZubDdrFileInfo* info)
{
    if (!info) return kZubBadArgument;
    *info = Zeroed<ZubDdrFileInfo>();
    const Status s = Entry().Recorder().GetAppInfo(device, path, info->appInfo);
    if (s != Status::Ok) return Entry().Code(s);
    info->size = static_cast<std::int32_t>(kAppInfoBytes);
    return kZubOk;
}

RECORDER_EXPORT std::int32_t ZubFileQueryInfo(std::int32_t device, const char* path, ZubFileInfo* info)
{
    if (!info) return kZubBadArgument;
    ClipFacts f;
    const Status s = Entry().Recorder().FileFacts(device, path, f);
    if (s != Status::Ok) return Entry().Code(s);
    *info = Zeroed<ZubFileInfo>();
    info->flags = f.hasKey ? kZubFileHasKey : 0;
    info->frames = f.frames;
    info->capacity = f.capacity;
    info->videoType = f.videoType;
    info->alphaType = f.alphaType;
    info->videoRate = f.videoRate;
    info->alphaRate = f.alphaRate;
    info->width = f.width;
    info->height = f.height;
    info->rateNumerator = f.rateNumerator;
    info->rateDenominator = f.rateDenominator;
    return kZubOk;
}

RECORDER_EXPORT std::int32_t ZubMixSetPreviewBusCtrl(std::int32_t device, const ZubPreviewBus* r)
{
    ZubPreviewBus copy = r ? *r : ZubPreviewBus{};
    return Entry().Bus(device, BusKind::Preview, r ? &copy : nullptr, true);
}

RECORDER_EXPORT std::int32_t ZubMixGetOutputBusCtrl(std::int32_t device, ZubOutputBus* r)
{
    return Entry().Bus(device, BusKind::Output, r, false);
}

RECORDER_EXPORT std::int32_t ZubMixSetOutputBusCtrl(std::int32_t device, const ZubOutputBus* r)
{
    ZubOutputBus copy = r ? *r : ZubOutputBus{};
    return Entry().Bus(device, BusKind::Output, r ? &copy : nullptr, true);
}

RECORDER_EXPORT std::int32_t ZubDdrGetFileSystemPrefs(std::int32_t device, ZubFileSystemPrefs* prefs)
{
    return Entry().SystemPrefs(device, prefs);
}
