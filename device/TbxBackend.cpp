// The Tbx library behind the device: calls succeed on any non-negative result; 0xE0040215 is
// the volume without space and 0xE0040208 the file that exists already. A device opened here
// must be initialised before use, and only a device opened here is closed from here.
#include <cstring>

#include "device/BackendLibrary.h"
#include "device/RecorderBackend.h"

namespace zub {

namespace {

void Resolve(Resolver& r, rec::TbxApi& api)
{
    r.Need(api.TbxDcOpenEx, "TbxDcOpenEx");
    r.Need(api.TbxDcInitialize, "TbxDcInitialize");
    r.Need(api.TbxDcClose, "TbxDcClose");
    r.Need(api.TbxDcGetVersionInfo, "TbxDcGetVersionInfo");
    r.Need(api.TbxDcQueryVolumeSpace, "TbxDcQueryVolumeSpace");
    r.Need(api.TbxPlyCreateClipItem, "TbxPlyCreateClipItem");
    r.Need(api.TbxPlyImport, "TbxPlyImport");
    r.Need(api.TbxDereferenceObject, "TbxDereferenceObject");
    r.Need(api.TbxDcSetAppInfo, "TbxDcSetAppInfo");
    r.Need(api.TbxMixSetPreview, "TbxMixSetPreview");
    r.Need(api.TbxDcSetM2Routing, "TbxDcSetM2Routing");
    r.Need(api.TbxDcGetFileInfo, "TbxDcGetFileInfo");
    r.Need(api.TbxPlyOpenClipItem, "TbxPlyOpenClipItem");
    r.Need(api.TbxPlyItemQuery, "TbxPlyItemQuery");
    r.Need(api.TbxDcGetSystemPrefs, "TbxDcGetSystemPrefs");
    r.Optional(api.LastError, "TbxRecorderLastError");
}

using Library = BackendLibrary<rec::TbxApi>;

constexpr int kFrameWidth = 720;

bool Succeeded(std::int32_t result)
{
    return result >= 0;
}

std::int32_t PixelWord(FrameSource source)
{
    switch (source) {
    case FrameSource::Server: return rec::kTbxPixelsServer;
    case FrameSource::Bits24: return rec::kTbxPixels24;
    case FrameSource::Pipeline: break;
    }
    return rec::kTbxPixelsPipeline;
}

class TbxRecorderBackend final : public BackendOn<rec::TbxApi, TbxLibrary> {
public:
    RecorderKind Kind() const override { return RecorderKind::Tbx; }

    bool Open(int deviceName, std::int32_t existingHandle, std::int32_t& handle, bool& owned,
              std::string& why) override
    {
        if (existingHandle != 0 && existingHandle != -1) {
            // The host keeps its device; it is never closed from here.
            handle = existingHandle;
            owned = false;
            return true;
        }
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        std::int32_t h = -1;
        const std::int32_t r = api->TbxDcOpenEx(deviceName, &h);
        if (r != rec::kTbxOk) return Failed(why, "recorder: ", api, "TbxDcOpenEx", r);
        handle = h;
        owned = true;
        if (!Succeeded(api->TbxDcInitialize(handle, 0))) {
            const std::int32_t r2 = api->TbxDcInitialize(handle, 1);
            // `handle` stays set: the caller closes the fresh device through its own close.
            if (r2 != rec::kTbxOk) return Failed(why, "recorder: ", api, "TbxDcInitialize", r2);
        }
        return true;
    }

    void Close(std::int32_t handle, bool owned) override
    {
        if (!owned) return;
        std::string ignored;
        if (const rec::TbxApi* api = Load(ignored)) api->TbxDcClose(handle);
    }

    bool DeviceInfo(std::int32_t handle, int& lines, int& width, int& height, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        auto v = rec::Zeroed<rec::TbxVersionInfo>();
        const std::int32_t r = api->TbxDcGetVersionInfo(handle, &v);
        if (!Succeeded(r)) return Failed(why, "recorder: ", api, "TbxDcGetVersionInfo", r);
        // The Tbx device tells only its standard; the frame follows from it.
        lines = v.lines;
        width = kFrameWidth;
        height = lines == 525 ? 486 : 576;
        return true;
    }

    bool FramesFit(std::int32_t handle, const std::string& folder, std::int32_t videoRate, std::int32_t alphaRate,
                   std::int32_t& frames, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        auto r = rec::Zeroed<rec::TbxVolumeSpace>();
        r.folder = folder.c_str();
        r.videoRate = videoRate;
        r.alphaRate = alphaRate;
        const std::int32_t res = api->TbxDcQueryVolumeSpace(handle, &r);
        if (!Succeeded(res)) return Failed(why, Named(folder.c_str()), api, "TbxDcQueryVolumeSpace", res);
        frames = r.framesFit;
        return true;
    }

    ClipStatus CreateClip(std::int32_t handle, const ClipSpec& spec, ClipItems& items, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return ClipStatus::Failed;
        auto in = rec::Zeroed<rec::TbxClipCreateIn>();
        auto out = rec::Zeroed<rec::TbxClipCreateOut>();
        in.path = spec.path.c_str();
        in.frames = spec.frames;
        in.videoType = VideoTypeFor(spec.videoUncompressed);
        in.alphaType =
            AlphaTypeFor(spec.createAlpha, spec.alphaSameAsVideo, spec.alphaUncompressed, spec.videoUncompressed);
        in.videoRate = spec.videoRate;
        in.alphaRate = spec.alphaRate;
        in.flags = (spec.createAlpha ? rec::kTbxCreateAlpha : 0) | (spec.fixedFieldSize ? rec::kTbxCreateFixedFieldSize : 0);
        const std::int32_t r = api->TbxPlyCreateClipItem(handle, &in, &out);
        items.code = r;
        if (Succeeded(r)) {
            items.video = out.videoItem;
            items.alpha = out.alphaItem;
        } else {
            Failed(why, Named(spec.path.c_str()), api, "TbxPlyCreateClipItem", r);
        }
        return Created(Succeeded(r), r, rec::kTbxNoSpace, rec::kTbxFileExists);
    }

    bool Import(std::int32_t handle, const FrameImport& f, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        auto r = rec::Zeroed<rec::TbxImportRecord>();
        FillImport(r, f, PixelWord(f.source));
        r.frameCount = 1;
        r.repeatCount = 1;
        const std::int32_t res = api->TbxPlyImport(handle, &r);
        if (!Succeeded(res))
            return Failed(why, "recorder: frame " + std::to_string(f.frame) + ": ", api, "TbxPlyImport", res);
        return true;
    }

    bool ShowImage(std::int32_t, const void*, FrameSource, bool, std::int32_t, std::string& why) override
    {
        why = "recorder: the Tbx back-end has no image output";
        NoteLibraryResult(0);
        return false;
    }

    bool Release(std::int32_t item, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        const std::int32_t r = api->TbxDereferenceObject(item);
        if (!Succeeded(r)) return Failed(why, "recorder: ", api, "TbxDereferenceObject", r);
        return true;
    }

    bool GetAppInfo(std::int32_t handle, const char* path, std::uint8_t block[256], std::string& why) override
    {
        rec::TbxFileInfo info;
        if (!FileInfo(handle, path, info, why)) return false;
        std::memcpy(block, info.appInfo, rec::kAppInfoBytes);
        return true;
    }

    bool SetAppInfo(std::int32_t handle, const char* path, const std::uint8_t block[256], std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        const std::int32_t r = api->TbxDcSetAppInfo(handle, path, block);
        if (!Succeeded(r)) return Failed(why, Named(path), api, "TbxDcSetAppInfo", r);
        return true;
    }

    bool SetRouting(std::int32_t handle, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        auto preview = rec::Zeroed<rec::TbxPreview>();
        preview.source = 2;
        preview.mode = 0;
        std::int32_t r = api->TbxMixSetPreview(handle, &preview);
        if (!Succeeded(r)) return Failed(why, "recorder: ", api, "TbxMixSetPreview", r);
        auto routing = rec::Zeroed<rec::TbxM2Routing>();
        routing.videoToOutput = 1;
        routing.keyToOutput = 1;
        routing.enabled = 1;
        r = api->TbxDcSetM2Routing(handle, &routing);
        if (!Succeeded(r)) return Failed(why, "recorder: ", api, "TbxDcSetM2Routing", r);
        return true;
    }

    bool FileKey(std::int32_t handle, const char* path, bool& key, std::string& why) override
    {
        rec::TbxFileInfo info;
        if (!FileInfo(handle, path, info, why)) return false;
        key = (info.flags & rec::kTbxFileHasKey) != 0;
        return true;
    }

    bool FileLength(std::int32_t handle, const char* path, std::int32_t& frames, std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        std::int32_t item = -1;
        std::int32_t r = api->TbxPlyOpenClipItem(handle, path, &item);
        if (!Succeeded(r)) return Failed(why, Named(path), api, "TbxPlyOpenClipItem", r);
        auto info = rec::Zeroed<rec::TbxItemInfo>();
        r = api->TbxPlyItemQuery(item, &info);
        if (!Succeeded(r)) Failed(why, Named(path), api, "TbxPlyItemQuery", r);
        api->TbxDereferenceObject(item);
        frames = info.frames;
        return Succeeded(r);
    }

    bool SystemPrefs(std::int32_t handle, std::string& videoFolder, int& lines, int& width, int& height,
                     std::string& why) override
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        auto p = rec::Zeroed<rec::TbxSystemPrefs>();
        const std::int32_t r = api->TbxDcGetSystemPrefs(handle, &p);
        if (!Succeeded(r)) return Failed(why, "recorder: ", api, "TbxDcGetSystemPrefs", r);
        return TakePrefs(p, videoFolder, lines, width, height);
    }

private:
    bool FileInfo(std::int32_t handle, const char* path, rec::TbxFileInfo& info, std::string& why)
    {
        const rec::TbxApi* api = Load(why);
        if (!api) return false;
        info = rec::Zeroed<rec::TbxFileInfo>();
        const std::int32_t r = api->TbxDcGetFileInfo(handle, path, &info);
        if (!Succeeded(r)) return Failed(why, Named(path), api, "TbxDcGetFileInfo", r);
        return true;
    }
};

}  // namespace

BackendLibrary<rec::TbxApi>& TbxLibrary()
{
    static Library library(kTbxLibraryName, Resolve);
    return library;
}

RecorderBackend& TbxRecorder()
{
    static TbxRecorderBackend backend;
    return backend;
}

}  // namespace zub
