// libTbxDll.so: the Tbx interface of the substitute recorder. Calls succeed on a non-negative
// result; 0xE0040208 means the file exists, 0xE0040215 that the volume has no space; other
// failures are 0xE004.... codes, and TbxRecorderLastError() tells why. A device must be
// initialised (TbxDcInitialize) before use.
#include <cstring>

#include "RecorderAbi.h"
#include "SubstituteRecorder.h"

#define TBX_EXPORT extern "C" __attribute__((visibility("default")))

using namespace zub::rec;

namespace {

SubstituteRecorder& Recorder()
{
    static SubstituteRecorder recorder(0x7B0001);
    return recorder;
}

std::int32_t Code(Status s)
{
    switch (s) {
    case Status::Ok: return kTbxOk;
    case Status::BadHandle: return kTbxBadHandle;
    case Status::BadArgument: return kTbxBadArgument;
    case Status::IoError: return kTbxIoError;
    case Status::BadFile: return kTbxBadFile;
    case Status::FrameTooBig: return kTbxFrameTooBig;
    case Status::Exists: return kTbxFileExists;
    case Status::NoSpace: return kTbxNoSpace;
    case Status::NotInitialised: return kTbxNotInitialised;
    case Status::Failed: break;
    }
    return kTbxFailed;
}

PixelKind Kind(std::int32_t word)
{
    switch (word) {
    case kTbxPixelsPipeline: return PixelKind::Pipeline;
    case kTbxPixels24: return PixelKind::Bits24;
    case kTbxPixelsServer: return PixelKind::Server;
    default: return PixelKind::Unknown;
    }
}

}  // namespace

TBX_EXPORT const char* TbxRecorderLastError()
{
    return SubstituteRecorder::LastError();
}

TBX_EXPORT std::int32_t TbxDcOpenEx(std::int32_t deviceName, std::int32_t* handle)
{
    return Code(Recorder().OpenDevice(deviceName, false, handle));
}

TBX_EXPORT std::int32_t TbxDcInitialize(std::int32_t device, std::int32_t mode)
{
    if (mode != 0 && mode != 1) return kTbxBadArgument;
    return Code(Recorder().Initialise(device));
}

TBX_EXPORT std::int32_t TbxDcClose(std::int32_t device)
{
    return Code(Recorder().CloseDevice(device));
}

TBX_EXPORT std::int32_t TbxDcGetVersionInfo(std::int32_t device, TbxVersionInfo* info)
{
    RecorderConfig c;
    if (!info) return kTbxBadArgument;
    if (const Status s = Recorder().Config(device, c); s != Status::Ok) return Code(s);
    *info = Zeroed<TbxVersionInfo>();
    info->major = 1;
    info->minor = 0;
    info->lines = c.lines;
    return kTbxOk;
}

TBX_EXPORT std::int32_t TbxDcQueryVolumeSpace(std::int32_t device, TbxVolumeSpace* r)
{
    if (!r) return kTbxBadArgument;
    std::int32_t frames = 0;
    const Status s = Recorder().FramesFit(device, r->folder, r->videoRate, r->alphaRate, frames);
    if (s != Status::Ok) return Code(s);
    r->framesFit = frames;
    return kTbxOk;
}

TBX_EXPORT std::int32_t TbxPlyCreateClipItem(std::int32_t device, const TbxClipCreateIn* in, TbxClipCreateOut* out)
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
    std::int32_t video = -1, alphaItem = -1;
    const Status s = Recorder().CreateClip(device, q, video, alphaItem);
    if (s != Status::Ok) return Code(s);
    out->videoItem = video;
    out->alphaItem = alphaItem;
    return kTbxOk;
}

TBX_EXPORT std::int32_t TbxPlyImport(std::int32_t device, const TbxImportRecord* r)
{
    if (!r) return kTbxBadArgument;
    return Code(Recorder().Import(device, r->videoItem, r->alphaItem, r->videoField, r->alphaField, r->data,
                                  Kind(r->pixelFormat)));
}

TBX_EXPORT std::int32_t TbxDereferenceObject(std::int32_t object)
{
    return Code(Recorder().Dereference(object));
}

TBX_EXPORT std::int32_t TbxDcSetAppInfo(std::int32_t device, const char* path, const std::uint8_t* block)
{
    return Code(Recorder().SetAppInfo(device, path, block));
}

TBX_EXPORT std::int32_t TbxMixSetPreview(std::int32_t device, const TbxPreview* r)
{
    if (!r) return kTbxBadArgument;
    std::int32_t words[2] = {r->source, r->mode};
    return Code(Recorder().Bus(device, 0, words, 2, true));
}

TBX_EXPORT std::int32_t TbxDcSetM2Routing(std::int32_t device, const TbxM2Routing* r)
{
    if (!r) return kTbxBadArgument;
    TbxM2Routing copy = *r;
    return Code(Recorder().Bus(device, 2, copy.word, 5, true));
}

TBX_EXPORT std::int32_t TbxDcGetFileInfo(std::int32_t device, const char* path, TbxFileInfo* info)
{
    if (!info) return kTbxBadArgument;
    ClipFacts f;
    Status s = Recorder().FileFacts(device, path, f);
    if (s != Status::Ok) return Code(s);
    *info = Zeroed<TbxFileInfo>();
    s = Recorder().GetAppInfo(device, path, info->appInfo);
    if (s != Status::Ok) return Code(s);
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

TBX_EXPORT std::int32_t TbxPlyOpenClipItem(std::int32_t device, const char* path, std::int32_t* item)
{
    if (!item) return kTbxBadArgument;
    return Code(Recorder().OpenClipItem(device, path, *item));
}

TBX_EXPORT std::int32_t TbxPlyItemQuery(std::int32_t item, TbxItemInfo* info)
{
    if (!info) return kTbxBadArgument;
    ClipFacts f;
    Track t = kVideo;
    const Status s = Recorder().ItemFacts(item, f, t);
    if (s != Status::Ok) return Code(s);
    *info = Zeroed<TbxItemInfo>();
    info->frames = f.frames;
    info->capacity = f.capacity;
    info->type = t == kVideo ? f.videoType : f.alphaType;
    info->rate = t == kVideo ? f.videoRate : f.alphaRate;
    return kTbxOk;
}

TBX_EXPORT std::int32_t TbxDcGetSystemPrefs(std::int32_t device, TbxSystemPrefs* prefs)
{
    RecorderConfig c;
    if (!prefs) return kTbxBadArgument;
    if (const Status s = Recorder().Config(device, c); s != Status::Ok) return Code(s);
    *prefs = Zeroed<TbxSystemPrefs>();
    prefs->lines = c.lines;
    prefs->width = c.Width();
    prefs->height = c.Height();
    std::strncpy(prefs->videoFolder, c.volume.c_str(), sizeof prefs->videoFolder - 1);
    return kTbxOk;
}
