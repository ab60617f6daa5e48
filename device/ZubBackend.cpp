// The ZUB library behind the device: calls succeed on 0; -29 is the volume without space and
// -28 the file that exists already.
#include <cstring>

#include "device/BackendLibrary.h"
#include "device/RecorderBackend.h"

namespace zub {

namespace {

void Resolve(Resolver& r, rec::ZubApi& api)
{
    r.Need(api.ZubDdrOpenDevice, "ZubDdrOpenDevice");
    r.Need(api.ZubObjReference, "ZubObjReference");
    r.Need(api.ZubObjDereference, "ZubObjDereference");
    r.Need(api.ZubDdrGetSystemInfo, "ZubDdrGetSystemInfo");
    r.Need(api.ZubDdrQueryDeviceCaps, "ZubDdrQueryDeviceCaps");
    r.Need(api.ZubDdrQueryVolumeSpace, "ZubDdrQueryVolumeSpace");
    r.Need(api.ZubVideoCreateClipItem, "ZubVideoCreateClipItem");
    r.Need(api.ZubVideoImport, "ZubVideoImport");
    r.Need(api.ZubGfxLoadImage, "ZubGfxLoadImage");
    r.Need(api.ZubDdrSetFileAppInfo, "ZubDdrSetFileAppInfo");
    r.Need(api.ZubDdrGetFileInfo, "ZubDdrGetFileInfo");
    r.Need(api.ZubFileQueryInfo, "ZubFileQueryInfo");
    r.Need(api.ZubMixSetPreviewBusCtrl, "ZubMixSetPreviewBusCtrl");
    r.Need(api.ZubMixGetOutputBusCtrl, "ZubMixGetOutputBusCtrl");
    r.Need(api.ZubMixSetOutputBusCtrl, "ZubMixSetOutputBusCtrl");
    r.Need(api.ZubDdrGetFileSystemPrefs, "ZubDdrGetFileSystemPrefs");
    r.Optional(api.LastError, "ZubRecorderLastError");
}

using Library = BackendLibrary<rec::ZubApi>;

std::int32_t PixelWord(FrameSource source)
{
    switch (source) {
    case FrameSource::Server: return rec::kZubPixelsServer;
    case FrameSource::Bits24: return rec::kZubPixels24;
    case FrameSource::Pipeline: break;
    }
    return rec::kZubPixelsPipeline;
}

class ZubRecorderBackend final : public BackendOn<rec::ZubApi, ZubLibrary> {
public:
    RecorderKind Kind() const override { return RecorderKind::Zub; }

    bool Open(int deviceName, std::int32_t existingHandle, std::int32_t& handle, bool& owned,
              std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        owned = false;  // ZUB devices are reference counted: close gives our reference back
        if (existingHandle != 0 && existingHandle != -1) {
            const std::int32_t r = api->ZubObjReference(existingHandle);
            if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubObjReference", r);
            handle = existingHandle;
            return true;
        }
        std::int32_t h = -1;
        const std::int32_t r = api->ZubDdrOpenDevice(deviceName, &h);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubDdrOpenDevice", r);
        handle = h;
        return true;
    }

    void Close(std::int32_t handle, bool) override
    {
        std::string ignored;
        if (const rec::ZubApi* api = Load(ignored)) api->ZubObjDereference(handle);
    }

    bool DeviceInfo(std::int32_t handle, int& lines, int& width, int& height, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto s = rec::Zeroed<rec::ZubSystemInfo>();
        const std::int32_t r = api->ZubDdrGetSystemInfo(handle, &s);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubDdrGetSystemInfo", r);
        lines = s.lines;
        width = s.width;
        height = s.height;
        auto caps = rec::Zeroed<rec::ZubDeviceCaps>();
        api->ZubDdrQueryDeviceCaps(handle, &caps);  // asked as the device expects; nothing here uses it
        return true;
    }

    bool FramesFit(std::int32_t handle, const std::string& folder, std::int32_t videoRate, std::int32_t alphaRate,
                   std::int32_t& frames, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto in = rec::Zeroed<rec::ZubVolumeQuery>();
        auto out = rec::Zeroed<rec::ZubVolumeSpace>();
        in.folder = folder.c_str();
        in.videoRate = videoRate;
        in.alphaRate = alphaRate;
        const std::int32_t r = api->ZubDdrQueryVolumeSpace(handle, &in, &out);
        if (r != rec::kZubOk) return Failed(why, Named(folder.c_str()), api, "ZubDdrQueryVolumeSpace", r);
        frames = out.framesFit;
        return true;
    }

    ClipStatus CreateClip(std::int32_t handle, const ClipSpec& spec, ClipItems& items, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return ClipStatus::Failed;
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
        if (res == rec::kZubOk) {
            items.video = r.videoItem;
            items.alpha = r.alphaItem;
        } else {
            Failed(why, Named(spec.path.c_str()), api, "ZubVideoCreateClipItem", res);
        }
        return Created(res == rec::kZubOk, res, rec::kZubNoSpace, rec::kZubFileExists);
    }

    bool Import(std::int32_t handle, const FrameImport& f, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto r = rec::Zeroed<rec::ZubImportRecord>();
        FillImport(r, f, PixelWord(f.source));
        r.videoType = f.videoType;
        r.alphaType = f.alphaType;
        const std::int32_t res = api->ZubVideoImport(handle, &r);
        if (res != rec::kZubOk)
            return Failed(why, "recorder: frame " + std::to_string(f.frame) + ": ", api, "ZubVideoImport", res);
        return true;
    }

    bool ShowImage(std::int32_t handle, const void* data, FrameSource source, bool videoUncompressed,
                   std::int32_t videoRate, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto r = rec::Zeroed<rec::ZubGfxImage>();
        r.channel = 1;
        r.frameCount = 1;
        r.layer = 0;
        r.scaleMode = rec::kZubGfxScaleToFrame;
        r.showNow = 1;
        r.pixelFormat = PixelWord(source);
        r.uncompressed = videoUncompressed ? 1 : 0;
        r.videoRate = videoRate;
        r.data = data;
        const std::int32_t res = api->ZubGfxLoadImage(handle, &r);
        if (res != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubGfxLoadImage", res);
        return true;
    }

    bool Release(std::int32_t item, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        const std::int32_t r = api->ZubObjDereference(item);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubObjDereference", r);
        return true;
    }

    bool GetAppInfo(std::int32_t handle, const char* path, std::uint8_t block[256], std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto info = rec::Zeroed<rec::ZubDdrFileInfo>();
        const std::int32_t r = api->ZubDdrGetFileInfo(handle, path, &info);
        if (r != rec::kZubOk) return Failed(why, Named(path), api, "ZubDdrGetFileInfo", r);
        std::memcpy(block, info.appInfo, rec::kAppInfoBytes);
        return true;
    }

    bool SetAppInfo(std::int32_t handle, const char* path, const std::uint8_t block[256], std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        const std::int32_t r = api->ZubDdrSetFileAppInfo(handle, path, block);
        if (r != rec::kZubOk) return Failed(why, Named(path), api, "ZubDdrSetFileAppInfo", r);
        return true;
    }

    bool SetRouting(std::int32_t handle, std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto preview = rec::Zeroed<rec::ZubPreviewBus>();
        preview.source = 1;
        std::int32_t r = api->ZubMixSetPreviewBusCtrl(handle, &preview);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubMixSetPreviewBusCtrl", r);
        auto bus = rec::Zeroed<rec::ZubOutputBus>();
        r = api->ZubMixGetOutputBusCtrl(handle, &bus);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubMixGetOutputBusCtrl", r);
        bus.videoEnabled = 1;
        bus.keyEnabled = 1;
        bus.bypass = 0;
        bus.flags |= rec::kZubBusPlayback;
        r = api->ZubMixSetOutputBusCtrl(handle, &bus);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubMixSetOutputBusCtrl", r);
        return true;
    }

    bool FileKey(std::int32_t handle, const char* path, bool& key, std::string& why) override
    {
        rec::ZubFileInfo info;
        if (!FileInfo(handle, path, info, why)) return false;
        key = (info.flags & rec::kZubFileHasKey) != 0;
        return true;
    }

    bool FileLength(std::int32_t handle, const char* path, std::int32_t& frames, std::string& why) override
    {
        rec::ZubFileInfo info;
        if (!FileInfo(handle, path, info, why)) return false;
        frames = info.frames;
        return true;
    }

    bool SystemPrefs(std::int32_t handle, std::string& videoFolder, int& lines, int& width, int& height,
                     std::string& why) override
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        auto p = rec::Zeroed<rec::ZubFileSystemPrefs>();
        const std::int32_t r = api->ZubDdrGetFileSystemPrefs(handle, &p);
        if (r != rec::kZubOk) return Failed(why, "recorder: ", api, "ZubDdrGetFileSystemPrefs", r);
        return TakePrefs(p, videoFolder, lines, width, height);
    }

private:
    bool FileInfo(std::int32_t handle, const char* path, rec::ZubFileInfo& info, std::string& why)
    {
        const rec::ZubApi* api = Load(why);
        if (!api) return false;
        info = rec::Zeroed<rec::ZubFileInfo>();
        const std::int32_t r = api->ZubFileQueryInfo(handle, path, &info);
        if (r != rec::kZubOk) return Failed(why, Named(path), api, "ZubFileQueryInfo", r);
        return true;
    }
};

}  // namespace

BackendLibrary<rec::ZubApi>& ZubLibrary()
{
    static Library library(kZubLibraryName, Resolve);
    return library;
}

RecorderBackend& ZubRecorder()
{
    static ZubRecorderBackend backend;
    return backend;
}

}  // namespace zub
