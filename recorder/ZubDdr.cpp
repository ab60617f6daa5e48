// libZUBDDR.so: the ZUB interface of the substitute recorder. Calls succeed on 0; -28 means
// the file exists, -29 that the volume has no space; other failures are small negatives, and
// ZubRecorderLastError() tells why.
#include <cstring>

#include "RecorderAbi.h"
#include "SubstituteRecorder.h"

#define ZUB_EXPORT extern "C" __attribute__((visibility("default")))

using namespace zub::rec;

namespace {

SubstituteRecorder& Recorder()
{
    static SubstituteRecorder recorder(0x5A0001);
    return recorder;
}

std::int32_t Code(Status s)
{
    switch (s) {
    case Status::Ok: return kZubOk;
    case Status::BadHandle: return kZubBadHandle;
    case Status::BadArgument: return kZubBadArgument;
    case Status::IoError: return kZubIoError;
    case Status::BadFile: return kZubBadFile;
    case Status::FrameTooBig: return kZubFrameTooBig;
    case Status::Exists: return kZubFileExists;
    case Status::NoSpace: return kZubNoSpace;
    case Status::NotInitialised:
    case Status::Failed: break;
    }
    return kZubFailed;
}

PixelKind Kind(std::int32_t word)
{
    switch (word) {
    case kZubPixelsPipeline: return PixelKind::Pipeline;
    case kZubPixels24: return PixelKind::Bits24;
    case kZubPixelsServer: return PixelKind::Server;
    default: return PixelKind::Unknown;
    }
}

void CopyFolder(char (&dst)[kPathBytes], const std::string& folder)
{
    std::memset(dst, 0, sizeof dst);
    std::strncpy(dst, folder.c_str(), sizeof dst - 1);
}

}  // namespace

ZUB_EXPORT const char* ZubRecorderLastError()
{
    return SubstituteRecorder::LastError();
}

ZUB_EXPORT std::int32_t ZubDdrOpenDevice(std::int32_t deviceName, std::int32_t* handle)
{
    return Code(Recorder().OpenDevice(deviceName, true, handle));
}

ZUB_EXPORT std::int32_t ZubObjReference(std::int32_t object)
{
    return Code(Recorder().Reference(object));
}

ZUB_EXPORT std::int32_t ZubObjDereference(std::int32_t object)
{
    return Code(Recorder().Dereference(object));
}

ZUB_EXPORT std::int32_t ZubDdrGetSystemInfo(std::int32_t device, ZubSystemInfo* info)
{
    RecorderConfig c;
    if (!info) return kZubBadArgument;
    if (const Status s = Recorder().Config(device, c); s != Status::Ok) return Code(s);
    *info = Zeroed<ZubSystemInfo>();
    info->lines = c.lines;
    info->width = c.Width();
    info->height = c.Height();
    return kZubOk;
}

ZUB_EXPORT std::int32_t ZubDdrQueryDeviceCaps(std::int32_t device, ZubDeviceCaps* caps)
{
    RecorderConfig c;
    if (!caps) return kZubBadArgument;
    if (const Status s = Recorder().Config(device, c); s != Status::Ok) return Code(s);
    *caps = Zeroed<ZubDeviceCaps>();
    caps->word[0] = 1;  // one video channel
    caps->word[1] = 1;  // with a key channel
    return kZubOk;
}

ZUB_EXPORT std::int32_t ZubDdrQueryVolumeSpace(std::int32_t device, const ZubVolumeQuery* in, ZubVolumeSpace* out)
{
    if (!in || !out) return kZubBadArgument;
    std::int32_t frames = 0;
    const Status s = Recorder().FramesFit(device, in->folder, in->videoRate, in->alphaRate, frames);
    if (s != Status::Ok) return Code(s);
    *out = Zeroed<ZubVolumeSpace>();
    out->framesFit = frames;
    return kZubOk;
}

ZUB_EXPORT std::int32_t ZubVideoCreateClipItem(std::int32_t device, ZubClipCreate* r)
{
    if (!r) return kZubBadArgument;
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
    std::int32_t video = -1, alpha = -1;
    const Status s = Recorder().CreateClip(device, q, video, alpha);
    if (s != Status::Ok) return Code(s);
    r->videoItem = video;
    r->alphaItem = alpha;
    return kZubOk;
}

ZUB_EXPORT std::int32_t ZubVideoImport(std::int32_t device, const ZubImportRecord* r)
{
    if (!r) return kZubBadArgument;
    return Code(Recorder().Import(device, r->videoItem, r->alphaItem, r->videoField, r->alphaField, r->data,
                                  Kind(r->pixelFormat)));
}

ZUB_EXPORT std::int32_t ZubGfxLoadImage(std::int32_t device, const ZubGfxImage* r)
{
    if (!r) return kZubBadArgument;
    return Code(Recorder().ShowImage(device, r->data, Kind(r->pixelFormat)));
}

ZUB_EXPORT std::int32_t ZubDdrSetFileAppInfo(std::int32_t device, const char* path, const std::uint8_t* block)
{
    return Code(Recorder().SetAppInfo(device, path, block));
}

ZUB_EXPORT std::int32_t ZubDdrGetFileInfo(std::int32_t device, const char* path, ZubDdrFileInfo* info)
{
    if (!info) return kZubBadArgument;
    *info = Zeroed<ZubDdrFileInfo>();
    const Status s = Recorder().GetAppInfo(device, path, info->appInfo);
    if (s != Status::Ok) return Code(s);
    info->size = static_cast<std::int32_t>(kAppInfoBytes);
    return kZubOk;
}

ZUB_EXPORT std::int32_t ZubFileQueryInfo(std::int32_t device, const char* path, ZubFileInfo* info)
{
    if (!info) return kZubBadArgument;
    ClipFacts f;
    const Status s = Recorder().FileFacts(device, path, f);
    if (s != Status::Ok) return Code(s);
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

ZUB_EXPORT std::int32_t ZubMixSetPreviewBusCtrl(std::int32_t device, const ZubPreviewBus* r)
{
    if (!r) return kZubBadArgument;
    ZubPreviewBus copy = *r;
    return Code(Recorder().Bus(device, 0, copy.word, 3, true));
}

ZUB_EXPORT std::int32_t ZubMixGetOutputBusCtrl(std::int32_t device, ZubOutputBus* r)
{
    if (!r) return kZubBadArgument;
    return Code(Recorder().Bus(device, 1, r->word, 6, false));
}

ZUB_EXPORT std::int32_t ZubMixSetOutputBusCtrl(std::int32_t device, const ZubOutputBus* r)
{
    if (!r) return kZubBadArgument;
    ZubOutputBus copy = *r;
    return Code(Recorder().Bus(device, 1, copy.word, 6, true));
}

ZUB_EXPORT std::int32_t ZubDdrGetFileSystemPrefs(std::int32_t device, ZubFileSystemPrefs* prefs)
{
    RecorderConfig c;
    if (!prefs) return kZubBadArgument;
    if (const Status s = Recorder().Config(device, c); s != Status::Ok) return Code(s);
    *prefs = Zeroed<ZubFileSystemPrefs>();
    prefs->lines = c.lines;
    prefs->width = c.Width();
    prefs->height = c.Height();
    CopyFolder(prefs->videoFolder, c.volume);
    return kZubOk;
}
