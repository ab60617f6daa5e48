// The C ABI of the two disk-recorder libraries, libZUBDDR.so (functions `Zub...`) and
// libTbxDll.so (functions `Tbx...`): their records, result codes and function types. The
// device layer fills these records; the substitute recorders in recorder/ implement them; a
// real driver with the same ABI can replace either library.
//
// Every record is a plain struct of 32-bit words and data pointers, zero-filled before use.
// The sizes the host platform knew are those of a 32-bit process; on LP64 each pointer takes
// eight bytes and is aligned, so each record's size is asserted for both.
#pragma once

#include <cstdint>
#include <cstring>

namespace zub::rec {

// A record's size: the 32-bit layout's and the LP64 layout's.
#define ZUB_RECORD_SIZE(type, size32, size64) \
    static_assert(sizeof(type) == (sizeof(void*) == 4 ? (size32) : (size64)), #type " layout")

// Zero-filled record, padding included.
template <class T>
T Zeroed()
{
    T t;
    std::memset(static_cast<void*>(&t), 0, sizeof t);
    return t;
}

// ---- result codes ---------------------------------------------------------------------
// ZUB calls succeed on 0; Tbx calls succeed on any non-negative result.
inline constexpr std::int32_t kZubOk = 0;
inline constexpr std::int32_t kZubFailed = -1;
inline constexpr std::int32_t kZubBadHandle = -2;
inline constexpr std::int32_t kZubBadArgument = -3;
inline constexpr std::int32_t kZubIoError = -5;
inline constexpr std::int32_t kZubBadFile = -6;
inline constexpr std::int32_t kZubFrameTooBig = -7;
inline constexpr std::int32_t kZubFileExists = -28;
inline constexpr std::int32_t kZubNoSpace = -29;

inline constexpr std::int32_t kTbxOk = 0;
inline constexpr std::int32_t kTbxFailed = static_cast<std::int32_t>(0xE0040001u);
inline constexpr std::int32_t kTbxBadHandle = static_cast<std::int32_t>(0xE0040002u);
inline constexpr std::int32_t kTbxBadArgument = static_cast<std::int32_t>(0xE0040003u);
inline constexpr std::int32_t kTbxIoError = static_cast<std::int32_t>(0xE0040005u);
inline constexpr std::int32_t kTbxBadFile = static_cast<std::int32_t>(0xE0040006u);
inline constexpr std::int32_t kTbxFrameTooBig = static_cast<std::int32_t>(0xE0040007u);
inline constexpr std::int32_t kTbxNotInitialised = static_cast<std::int32_t>(0xE0040010u);
inline constexpr std::int32_t kTbxFileExists = static_cast<std::int32_t>(0xE0040208u);
inline constexpr std::int32_t kTbxNoSpace = static_cast<std::int32_t>(0xE0040215u);

// Stream types of a clip item: 0 none (alpha only), 1 compressed (two JPEG fields per frame),
// 3 uncompressed 8-bit 4:2:2.
inline constexpr std::int32_t kTypeNone = 0;
inline constexpr std::int32_t kTypeCompressed = 1;
inline constexpr std::int32_t kTypeUncompressed = 3;

// Pixel-format words of a frame handed to the import and output calls.
inline constexpr std::int32_t kZubPixelsPipeline = 0;  // 32-bit BGRA bitmap
inline constexpr std::int32_t kZubPixels24 = 2;        // 24-bit BGR bitmap
inline constexpr std::int32_t kZubPixelsServer = 6;    // 4:2:2 (UYVY) rows of the server buffer
inline constexpr std::int32_t kTbxPixelsPipeline = 0;
inline constexpr std::int32_t kTbxPixels24 = 1;
inline constexpr std::int32_t kTbxPixelsServer = 16;

// Flag bits of the clip creation records.
inline constexpr std::int32_t kTbxCreateAlpha = 1 << 0;
inline constexpr std::int32_t kTbxCreateFixedFieldSize = 1 << 1;
inline constexpr std::int32_t kZubCreateFixedFieldSize = 1 << 0;
inline constexpr std::int32_t kZubCreateAlpha = 1 << 2;

// Flag bits of the output bus record.
inline constexpr std::int32_t kZubBusPlayback = 1 << 1;  // the bus follows the played clip

// How the output call fits the image to the frame.
inline constexpr std::int32_t kZubGfxScaleToFrame = 3;

// Key flag values of the per-file information queries.
inline constexpr std::int32_t kZubFileHasKey = 4;
inline constexpr std::int32_t kTbxFileHasKey = 2;

inline constexpr std::size_t kAppInfoBytes = 256;
inline constexpr std::size_t kZubvBytes = 116;
inline constexpr std::size_t kPathBytes = 260;

// ---- Tbx records ------------------------------------------------------------------------

struct TbxVolumeSpace {        // TbxDcQueryVolumeSpace, in and out
    const char* folder;        // up to and including the last separator
    std::int32_t videoRate;
    std::int32_t alphaRate;
    std::int32_t framesFit;    // out
    std::int32_t reserved[4];
};
ZUB_RECORD_SIZE(TbxVolumeSpace, 32, 40);

struct TbxClipCreateIn {       // TbxPlyCreateClipItem input
    const char* path;
    std::int32_t frames;
    std::int32_t videoType;
    std::int32_t alphaType;
    std::int32_t reserved[2];
    std::int32_t videoRate;
    std::int32_t alphaRate;
    std::int32_t flags;        // kTbxCreate...
};
ZUB_RECORD_SIZE(TbxClipCreateIn, 36, 40);

struct TbxClipCreateOut {
    std::int32_t videoItem;
    std::int32_t alphaItem;
};
ZUB_RECORD_SIZE(TbxClipCreateOut, 8, 8);

struct TbxImportRecord {       // TbxPlyImport
    std::int32_t videoItem;
    std::int32_t alphaItem;
    std::int32_t videoField;   // frame << 1
    std::int32_t alphaField;
    const void* data;          // 40-byte bitmap header, then the rows
    std::int32_t pixelFormat;
    std::int32_t frameCount;   // frames handed over by this call: 1
    std::int32_t repeatCount;  // times each frame is laid down: 1
    std::int32_t reserved[2];
    std::int32_t videoRate;
    std::int32_t alphaRate;
    std::int32_t videoOption;
    std::int32_t alphaOption;
};
ZUB_RECORD_SIZE(TbxImportRecord, 56, 64);

struct TbxVersionInfo {        // TbxDcGetVersionInfo
    std::int32_t major;
    std::int32_t minor;
    std::int32_t lines;        // 525, or another value taken as 625
    std::int32_t reserved[5];
};
ZUB_RECORD_SIZE(TbxVersionInfo, 32, 32);

struct TbxPreview {            // TbxMixSetPreview
    std::int32_t source;
    std::int32_t mode;
};
ZUB_RECORD_SIZE(TbxPreview, 8, 8);

struct TbxM2Routing {          // TbxDcSetM2Routing
    std::int32_t videoToOutput;  // the played clip's video on the output: 1
    std::int32_t keyToOutput;    // its key on the output: 1
    std::int32_t inputVideo;     // the live input's video passed through: 0
    std::int32_t inputKey;       // the live input's key passed through: 0
    std::int32_t enabled;        // the routing takes effect: 1
};
ZUB_RECORD_SIZE(TbxM2Routing, 20, 20);

struct TbxFileInfo {           // TbxDcGetFileInfo
    std::int32_t flags;        // kTbxFileHasKey
    std::int32_t frames;       // readable frames
    std::int32_t videoType;
    std::int32_t alphaType;
    std::int32_t videoRate;
    std::int32_t alphaRate;
    std::int32_t width;
    std::int32_t height;
    std::uint8_t appInfo[kAppInfoBytes];
};
ZUB_RECORD_SIZE(TbxFileInfo, 288, 288);

struct TbxItemInfo {           // TbxPlyItemQuery
    std::int32_t frames;       // length of the item in frames
    std::int32_t capacity;
    std::int32_t type;
    std::int32_t rate;
    std::int32_t reserved[4];
};
ZUB_RECORD_SIZE(TbxItemInfo, 32, 32);

struct TbxSystemPrefs {        // TbxDcGetSystemPrefs
    std::int32_t lines;
    std::int32_t width;
    std::int32_t height;
    std::int32_t reserved;
    char videoFolder[kPathBytes];  // the volume's recording folder, ends with '/'
};
ZUB_RECORD_SIZE(TbxSystemPrefs, 276, 276);

// ---- ZUB records ------------------------------------------------------------------------

struct ZubVolumeQuery {        // ZubDdrQueryVolumeSpace input
    const char* folder;
    std::int32_t videoRate;    // -1: uncompressed
    std::int32_t alphaRate;    // -1: uncompressed, 0: no alpha
};
ZUB_RECORD_SIZE(ZubVolumeQuery, 12, 16);

struct ZubVolumeSpace {        // ZubDdrQueryVolumeSpace output
    std::int32_t framesFit;
    std::int32_t reserved[7];
};
ZUB_RECORD_SIZE(ZubVolumeSpace, 32, 32);

struct ZubClipCreate {         // ZubVideoCreateClipItem, in and out
    const char* path;
    std::int32_t frames;
    std::int32_t videoRate;    // -1: uncompressed
    std::int32_t alphaRate;    // -1: uncompressed
    std::int32_t flags;        // kZubCreate...
    std::int32_t videoItem;    // out, preset to -1
    std::int32_t alphaItem;    // out, preset to -1
};
ZUB_RECORD_SIZE(ZubClipCreate, 28, 32);

struct ZubImportRecord {       // ZubVideoImport
    std::int32_t videoItem;
    std::int32_t alphaItem;
    std::int32_t reserved1;
    std::int32_t videoField;
    std::int32_t reserved2;
    std::int32_t alphaField;
    std::int32_t pixelFormat;
    const void* data;
    std::int32_t reserved3;
    std::int32_t videoType;
    std::int32_t alphaType;
    std::int32_t reserved4[2];
    std::int32_t videoRate;
    std::int32_t alphaRate;
    std::int32_t videoOption;
    std::int32_t alphaOption;
};
ZUB_RECORD_SIZE(ZubImportRecord, 68, 80);

struct ZubGfxImage {           // ZubGfxLoadImage
    std::int32_t channel;      // the output channel: 1
    std::int32_t frameCount;   // frames in this call: 1
    std::int32_t layer;        // 0: the video layer
    std::int32_t scaleMode;    // kZubGfxScaleToFrame
    std::int32_t reserved1[3];
    std::int32_t showNow;      // put on the output at once: 1
    std::int32_t pixelFormat;
    std::int32_t uncompressed;
    std::int32_t videoRate;
    const void* data;
    std::int32_t reserved2[6];
};
ZUB_RECORD_SIZE(ZubGfxImage, 72, 80);

struct ZubSystemInfo {         // ZubDdrGetSystemInfo
    std::int32_t lines;
    std::int32_t width;
    std::int32_t height;
    std::int32_t reserved[5];
};
ZUB_RECORD_SIZE(ZubSystemInfo, 32, 32);

struct ZubDeviceCaps {         // ZubDdrQueryDeviceCaps
    std::int32_t videoChannels;
    std::int32_t keyChannels;
    std::int32_t reserved[5];
};
ZUB_RECORD_SIZE(ZubDeviceCaps, 28, 28);

struct ZubPreviewBus {         // ZubMixSetPreviewBusCtrl
    std::int32_t source;       // 1: the played clip
    std::int32_t mode;
    std::int32_t reserved;
};
ZUB_RECORD_SIZE(ZubPreviewBus, 12, 12);

struct ZubOutputBus {          // ZubMixGetOutputBusCtrl / ZubMixSetOutputBusCtrl
    std::int32_t videoEnabled;
    std::int32_t keyEnabled;
    std::int32_t source;
    std::int32_t bypass;       // the input straight to the output
    std::int32_t reserved;
    std::int32_t flags;        // kZubBus...
};
ZUB_RECORD_SIZE(ZubOutputBus, 24, 24);

struct ZubFileInfo {           // ZubFileQueryInfo
    std::int32_t flags;        // kZubFileHasKey
    std::int32_t frames;
    std::int32_t capacity;
    std::int32_t videoType;
    std::int32_t alphaType;
    std::int32_t videoRate;
    std::int32_t alphaRate;
    std::int32_t width;
    std::int32_t height;
    std::int32_t rateNumerator;
    std::int32_t rateDenominator;
    std::int32_t reserved[5];
};
ZUB_RECORD_SIZE(ZubFileInfo, 64, 64);

struct ZubDdrFileInfo {        // ZubDdrGetFileInfo: the file's application-information block
    std::int32_t size;         // bytes in appInfo
    std::int32_t reserved[3];
    std::uint8_t appInfo[kAppInfoBytes];
};
ZUB_RECORD_SIZE(ZubDdrFileInfo, 272, 272);

struct ZubFileSystemPrefs {    // ZubDdrGetFileSystemPrefs
    std::int32_t lines;
    std::int32_t width;
    std::int32_t height;
    std::int32_t reserved;
    char videoFolder[kPathBytes];
};
ZUB_RECORD_SIZE(ZubFileSystemPrefs, 276, 276);

// ---- function types, looked up by these names ---------------------------------------------
extern "C" {
using ZubDdrOpenDeviceFn = std::int32_t (*)(std::int32_t deviceName, std::int32_t* handle);
using ZubObjReferenceFn = std::int32_t (*)(std::int32_t object);
using ZubObjDereferenceFn = std::int32_t (*)(std::int32_t object);
using ZubDdrGetSystemInfoFn = std::int32_t (*)(std::int32_t device, ZubSystemInfo* info);
using ZubDdrQueryDeviceCapsFn = std::int32_t (*)(std::int32_t device, ZubDeviceCaps* caps);
using ZubDdrQueryVolumeSpaceFn = std::int32_t (*)(std::int32_t device, const ZubVolumeQuery* in,
                                                  ZubVolumeSpace* out);
using ZubVideoCreateClipItemFn = std::int32_t (*)(std::int32_t device, ZubClipCreate* record);
using ZubVideoImportFn = std::int32_t (*)(std::int32_t device, const ZubImportRecord* record);
using ZubGfxLoadImageFn = std::int32_t (*)(std::int32_t device, const ZubGfxImage* record);
using ZubDdrSetFileAppInfoFn = std::int32_t (*)(std::int32_t device, const char* path, const std::uint8_t* block);
using ZubDdrGetFileInfoFn = std::int32_t (*)(std::int32_t device, const char* path, ZubDdrFileInfo* info);
using ZubFileQueryInfoFn = std::int32_t (*)(std::int32_t device, const char* path, ZubFileInfo* info);
using ZubMixSetPreviewBusCtrlFn = std::int32_t (*)(std::int32_t device, const ZubPreviewBus* record);
using ZubMixGetOutputBusCtrlFn = std::int32_t (*)(std::int32_t device, ZubOutputBus* record);
using ZubMixSetOutputBusCtrlFn = std::int32_t (*)(std::int32_t device, const ZubOutputBus* record);
using ZubDdrGetFileSystemPrefsFn = std::int32_t (*)(std::int32_t device, ZubFileSystemPrefs* prefs);

using TbxDcOpenExFn = std::int32_t (*)(std::int32_t deviceName, std::int32_t* handle);
using TbxDcInitializeFn = std::int32_t (*)(std::int32_t device, std::int32_t mode);
using TbxDcCloseFn = std::int32_t (*)(std::int32_t device);
using TbxDcGetVersionInfoFn = std::int32_t (*)(std::int32_t device, TbxVersionInfo* info);
using TbxDcQueryVolumeSpaceFn = std::int32_t (*)(std::int32_t device, TbxVolumeSpace* record);
using TbxPlyCreateClipItemFn = std::int32_t (*)(std::int32_t device, const TbxClipCreateIn* in, TbxClipCreateOut* out);
using TbxPlyImportFn = std::int32_t (*)(std::int32_t device, const TbxImportRecord* record);
using TbxDereferenceObjectFn = std::int32_t (*)(std::int32_t object);
using TbxDcSetAppInfoFn = std::int32_t (*)(std::int32_t device, const char* path, const std::uint8_t* block);
using TbxMixSetPreviewFn = std::int32_t (*)(std::int32_t device, const TbxPreview* record);
using TbxDcSetM2RoutingFn = std::int32_t (*)(std::int32_t device, const TbxM2Routing* record);
using TbxDcGetFileInfoFn = std::int32_t (*)(std::int32_t device, const char* path, TbxFileInfo* info);
using TbxPlyOpenClipItemFn = std::int32_t (*)(std::int32_t device, const char* path, std::int32_t* item);
using TbxPlyItemQueryFn = std::int32_t (*)(std::int32_t item, TbxItemInfo* info);
using TbxDcGetSystemPrefsFn = std::int32_t (*)(std::int32_t device, TbxSystemPrefs* prefs);

// Optional in a library: the text of the calling thread's last failure.
using RecorderLastErrorFn = const char* (*)();
}

// The tables the device calls through; filled by dlsym, or by a test's scripted back-end.
struct ZubApi {
    ZubDdrOpenDeviceFn ZubDdrOpenDevice = nullptr;
    ZubObjReferenceFn ZubObjReference = nullptr;
    ZubObjDereferenceFn ZubObjDereference = nullptr;
    ZubDdrGetSystemInfoFn ZubDdrGetSystemInfo = nullptr;
    ZubDdrQueryDeviceCapsFn ZubDdrQueryDeviceCaps = nullptr;
    ZubDdrQueryVolumeSpaceFn ZubDdrQueryVolumeSpace = nullptr;
    ZubVideoCreateClipItemFn ZubVideoCreateClipItem = nullptr;
    ZubVideoImportFn ZubVideoImport = nullptr;
    ZubGfxLoadImageFn ZubGfxLoadImage = nullptr;
    ZubDdrSetFileAppInfoFn ZubDdrSetFileAppInfo = nullptr;
    ZubDdrGetFileInfoFn ZubDdrGetFileInfo = nullptr;
    ZubFileQueryInfoFn ZubFileQueryInfo = nullptr;
    ZubMixSetPreviewBusCtrlFn ZubMixSetPreviewBusCtrl = nullptr;
    ZubMixGetOutputBusCtrlFn ZubMixGetOutputBusCtrl = nullptr;
    ZubMixSetOutputBusCtrlFn ZubMixSetOutputBusCtrl = nullptr;
    ZubDdrGetFileSystemPrefsFn ZubDdrGetFileSystemPrefs = nullptr;
    RecorderLastErrorFn LastError = nullptr;  // "ZubRecorderLastError", optional
};

struct TbxApi {
    TbxDcOpenExFn TbxDcOpenEx = nullptr;
    TbxDcInitializeFn TbxDcInitialize = nullptr;
    TbxDcCloseFn TbxDcClose = nullptr;
    TbxDcGetVersionInfoFn TbxDcGetVersionInfo = nullptr;
    TbxDcQueryVolumeSpaceFn TbxDcQueryVolumeSpace = nullptr;
    TbxPlyCreateClipItemFn TbxPlyCreateClipItem = nullptr;
    TbxPlyImportFn TbxPlyImport = nullptr;
    TbxDereferenceObjectFn TbxDereferenceObject = nullptr;
    TbxDcSetAppInfoFn TbxDcSetAppInfo = nullptr;
    TbxMixSetPreviewFn TbxMixSetPreview = nullptr;
    TbxDcSetM2RoutingFn TbxDcSetM2Routing = nullptr;
    TbxDcGetFileInfoFn TbxDcGetFileInfo = nullptr;
    TbxPlyOpenClipItemFn TbxPlyOpenClipItem = nullptr;
    TbxPlyItemQueryFn TbxPlyItemQuery = nullptr;
    TbxDcGetSystemPrefsFn TbxDcGetSystemPrefs = nullptr;
    RecorderLastErrorFn LastError = nullptr;  // "TbxRecorderLastError", optional
};

}  // namespace zub::rec
