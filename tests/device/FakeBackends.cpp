#include "tests/device/FakeBackends.h"

namespace zub::test {

FakeRecorder& Fake()
{
    static FakeRecorder fake;
    return fake;
}

namespace {

std::string N(const char* name, std::int32_t a)
{
    return std::string(name) + " " + std::to_string(a);
}

}  // namespace

const rec::ZubApi& FakeZubApi()
{
    static const rec::ZubApi api = [] {
        rec::ZubApi a;
        a.ZubDdrOpenDevice = [](std::int32_t name, std::int32_t* h) {
            Fake().Log(N("ZubDdrOpenDevice", name));
            if (Fake().openResult == 0) *h = Fake().handleToGive;
            return Fake().openResult;
        };
        a.ZubObjReference = [](std::int32_t o) {
            Fake().Log(N("ZubObjReference", o));
            return Fake().referenceResult;
        };
        a.ZubObjDereference = [](std::int32_t o) {
            Fake().Log(N("ZubObjDereference", o));
            return std::int32_t{0};
        };
        a.ZubDdrGetSystemInfo = [](std::int32_t d, rec::ZubSystemInfo* i) {
            Fake().Log(N("ZubDdrGetSystemInfo", d));
            *i = Fake().systemInfo;
            return std::int32_t{0};
        };
        a.ZubDdrQueryDeviceCaps = [](std::int32_t d, rec::ZubDeviceCaps*) {
            Fake().Log(N("ZubDdrQueryDeviceCaps", d));
            return std::int32_t{0};
        };
        a.ZubDdrQueryVolumeSpace = [](std::int32_t d, const rec::ZubVolumeQuery* in, rec::ZubVolumeSpace* out) {
            Fake().Log(N("ZubDdrQueryVolumeSpace", d));
            Fake().zubSpace = *in;
            Fake().spaceFolder = in->folder;
            out->framesFit = Fake().framesFit;
            return Fake().framesFit < 0 ? std::int32_t{-1} : std::int32_t{0};
        };
        a.ZubVideoCreateClipItem = [](std::int32_t d, rec::ZubClipCreate* r) {
            Fake().Log(N("ZubVideoCreateClipItem", d));
            Fake().zubCreate = *r;
            if (Fake().createResult == 0) {
                r->videoItem = 501;
                r->alphaItem = 502;
            }
            return Fake().createResult;
        };
        a.ZubVideoImport = [](std::int32_t d, const rec::ZubImportRecord* r) {
            Fake().Log(N("ZubVideoImport", d));
            Fake().zubImport = *r;
            return Fake().importResult;
        };
        a.ZubGfxLoadImage = [](std::int32_t d, const rec::ZubGfxImage* r) {
            Fake().Log(N("ZubGfxLoadImage", d));
            Fake().gfx = *r;
            return std::int32_t{0};
        };
        a.ZubDdrSetFileAppInfo = [](std::int32_t d, const char*, const std::uint8_t* b) {
            Fake().Log(N("ZubDdrSetFileAppInfo", d));
            std::memcpy(Fake().block, b, 256);
            Fake().haveBlock = true;
            return std::int32_t{0};
        };
        a.ZubDdrGetFileInfo = [](std::int32_t d, const char*, rec::ZubDdrFileInfo* i) {
            Fake().Log(N("ZubDdrGetFileInfo", d));
            if (!Fake().haveBlock) return std::int32_t{-6};
            std::memcpy(i->appInfo, Fake().block, 256);
            i->size = 256;
            return std::int32_t{0};
        };
        a.ZubFileQueryInfo = [](std::int32_t d, const char*, rec::ZubFileInfo* i) {
            Fake().Log(N("ZubFileQueryInfo", d));
            i->flags = Fake().fileFlags;
            i->frames = Fake().fileFrames;
            return Fake().fileFrames < 0 ? std::int32_t{-6} : std::int32_t{0};
        };
        a.ZubMixSetPreviewBusCtrl = [](std::int32_t d, const rec::ZubPreviewBus* r) {
            Fake().Log(N("ZubMixSetPreviewBusCtrl", d));
            Fake().zubPreview = *r;
            return std::int32_t{0};
        };
        a.ZubMixGetOutputBusCtrl = [](std::int32_t d, rec::ZubOutputBus* r) {
            Fake().Log(N("ZubMixGetOutputBusCtrl", d));
            *r = Fake().bus;
            return std::int32_t{0};
        };
        a.ZubMixSetOutputBusCtrl = [](std::int32_t d, const rec::ZubOutputBus* r) {
            Fake().Log(N("ZubMixSetOutputBusCtrl", d));
            Fake().zubBusSet = *r;
            return std::int32_t{0};
        };
        a.ZubDdrGetFileSystemPrefs = [](std::int32_t d, rec::ZubFileSystemPrefs*) {
            Fake().Log(N("ZubDdrGetFileSystemPrefs", d));
            return std::int32_t{0};
        };
        return a;
    }();
    return api;
}

const rec::TbxApi& FakeTbxApi()
{
    static const rec::TbxApi api = [] {
        rec::TbxApi a;
        a.TbxDcOpenEx = [](std::int32_t name, std::int32_t* h) {
            Fake().Log(N("TbxDcOpenEx", name));
            if (Fake().openResult == 0) *h = Fake().handleToGive;
            return Fake().openResult;
        };
        a.TbxDcInitialize = [](std::int32_t d, std::int32_t mode) {
            Fake().Log(N("TbxDcInitialize", d) + " " + std::to_string(mode));
            return mode == 0 ? Fake().init0Result : Fake().init1Result;
        };
        a.TbxDcClose = [](std::int32_t d) {
            Fake().Log(N("TbxDcClose", d));
            return std::int32_t{0};
        };
        a.TbxDcGetVersionInfo = [](std::int32_t d, rec::TbxVersionInfo* v) {
            Fake().Log(N("TbxDcGetVersionInfo", d));
            v->lines = Fake().versionLines;
            return std::int32_t{0};
        };
        a.TbxDcQueryVolumeSpace = [](std::int32_t d, rec::TbxVolumeSpace* r) {
            Fake().Log(N("TbxDcQueryVolumeSpace", d));
            Fake().tbxSpace = *r;
            Fake().spaceFolder = r->folder;
            r->framesFit = Fake().framesFit;
            return Fake().framesFit < 0 ? rec::kTbxFailed : std::int32_t{0};
        };
        a.TbxPlyCreateClipItem = [](std::int32_t d, const rec::TbxClipCreateIn* in, rec::TbxClipCreateOut* out) {
            Fake().Log(N("TbxPlyCreateClipItem", d));
            Fake().tbxCreate = *in;
            out->videoItem = 601;
            out->alphaItem = 602;
            return Fake().createResult;
        };
        a.TbxPlyImport = [](std::int32_t d, const rec::TbxImportRecord* r) {
            Fake().Log(N("TbxPlyImport", d));
            Fake().tbxImport = *r;
            return Fake().importResult;
        };
        a.TbxDereferenceObject = [](std::int32_t o) {
            Fake().Log(N("TbxDereferenceObject", o));
            return std::int32_t{0};
        };
        a.TbxDcSetAppInfo = [](std::int32_t d, const char*, const std::uint8_t* b) {
            Fake().Log(N("TbxDcSetAppInfo", d));
            std::memcpy(Fake().block, b, 256);
            Fake().haveBlock = true;
            return std::int32_t{0};
        };
        a.TbxMixSetPreview = [](std::int32_t d, const rec::TbxPreview* r) {
            Fake().Log(N("TbxMixSetPreview", d));
            Fake().tbxPreview = *r;
            return std::int32_t{0};
        };
        a.TbxDcSetM2Routing = [](std::int32_t d, const rec::TbxM2Routing* r) {
            Fake().Log(N("TbxDcSetM2Routing", d));
            Fake().tbxRouting = *r;
            return std::int32_t{0};
        };
        a.TbxDcGetFileInfo = [](std::int32_t d, const char*, rec::TbxFileInfo* i) {
            Fake().Log(N("TbxDcGetFileInfo", d));
            if (Fake().fileFrames < 0) return rec::kTbxBadFile;
            i->flags = Fake().fileFlags;
            i->frames = Fake().fileFrames;
            if (Fake().haveBlock) std::memcpy(i->appInfo, Fake().block, 256);
            return std::int32_t{0};
        };
        a.TbxPlyOpenClipItem = [](std::int32_t d, const char*, std::int32_t* item) {
            Fake().Log(N("TbxPlyOpenClipItem", d));
            *item = 777;
            return Fake().fileFrames < 0 ? rec::kTbxBadFile : std::int32_t{0};
        };
        a.TbxPlyItemQuery = [](std::int32_t item, rec::TbxItemInfo* i) {
            Fake().Log(N("TbxPlyItemQuery", item));
            i->frames = Fake().fileFrames;
            return std::int32_t{0};
        };
        a.TbxDcGetSystemPrefs = [](std::int32_t d, rec::TbxSystemPrefs*) {
            Fake().Log(N("TbxDcGetSystemPrefs", d));
            return std::int32_t{0};
        };
        return a;
    }();
    return api;
}

}  // namespace zub::test
