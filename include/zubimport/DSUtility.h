// Media graph utilities over GStreamer: element = filter, pad = pin, caps = media type,
// bin = graph. The operations keep the graph framework's conventions: status codes (negative
// on failure), first match wins, and every returned object carries one reference that the
// caller releases (gst_object_unref for pads and elements, Release for property pages).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "zubimport/Platform.h"

// GStreamer's own handle types, declared here so that a host need not include its headers.
typedef struct _GstElement GstElement;
typedef struct _GstPad GstPad;
typedef struct _GstCaps GstCaps;
typedef struct _GstBin GstBin;
typedef struct _GObject GObject;
typedef struct _GParamSpec GParamSpec;

namespace zub {

// Status codes of the graph framework that these operations can answer.
inline constexpr HRESULT VFW_E_NOT_CONNECTED = static_cast<HRESULT>(0x80040209u);
inline constexpr HRESULT VFW_E_ALREADY_CONNECTED = static_cast<HRESULT>(0x80040204u);
inline constexpr HRESULT VFW_E_NO_ACCEPTABLE_TYPES = static_cast<HRESULT>(0x80040207u);
inline constexpr HRESULT VFW_E_NOT_IN_GRAPH = static_cast<HRESULT>(0x8004025Fu);

// Identifiers of the format blocks the connection readers understand.
inline constexpr GUID FORMAT_VideoInfo = {0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};
inline constexpr GUID FORMAT_VideoInfo2 = {0xF72A76A0, 0xEB0A, 0x11D0, {0xAC, 0xE4, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}};
inline constexpr GUID FORMAT_WaveFormatEx = {0x05589F81, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

using IBaseFilter = GstElement;
using IPin = GstPad;
using AM_MEDIA_TYPE = GstCaps;
using IGraphBuilder = GstBin;
using IUnknown = GObject;
// An interface is asked for by its GType (an element class or an interface type).
using REFGUID = unsigned long;

enum PIN_DIRECTION { PINDIR_INPUT = 0, PINDIR_OUTPUT = 1 };

struct CSize {
    LONG cx = 0;
    LONG cy = 0;
};

// The format block a connection reader finds for a negotiated raw video or audio connection.
// Exposed for callers that need more than the bitmap header: which block it is and the frame
// rate behind the average time per frame.
struct ConnectionFormat {
    GUID formatType{};
    std::int64_t avgTimePerFrame = 0;  // 100 ns units; 0 when the rate is unknown (variable)
    BITMAPINFOHEADER video{};
    WAVEFORMATEX audio{};
};

// An element's first property page: the properties its own class declares (those it inherits
// from the framework's base classes - name, parent - are not on the page), presented as rows
// of "name: value" with a title and a size in dialog units. Reference counted: the creator's
// reference is released with Release().
class CPropertyPage {
public:
    void AddRef();
    void Release();

    const std::string& Title() const { return title_; }
    CSize Size() const;
    const std::string& HelpFile() const { return helpFile_; }
    DWORD HelpContext() const { return 0; }

    int Count() const { return static_cast<int>(props_.size()); }
    std::string Name(int index) const;
    std::string Blurb(int index) const;
    bool Writable(int index) const;
    // The property's value as the framework serialises it; empty when the index is out of range.
    std::string Value(int index) const;
    // Sets a property from its serialised text; false when the text does not parse or the
    // property is read-only.
    bool SetValue(int index, const std::string& text);

private:
    friend class CDSUtility;
    CPropertyPage(GObject* object, std::vector<GParamSpec*> props, std::string title, std::string helpFile);
    ~CPropertyPage();

    std::atomic<int> refs_{1};
    GObject* object_;
    std::vector<GParamSpec*> props_;
    std::string title_;
    std::string helpFile_;
};
using IPropertyPage = CPropertyPage;

class CDSUtility {
public:
    CDSUtility& operator=(const CDSUtility&) = default;

    // The first pad the element's pad iterator yields, or null.
    static IPin* GetFirstPin(IBaseFilter* filter);
    // First input pad into *input and first output pad into *output (either may be null: that
    // direction is not wanted); stops as soon as every wanted direction is filled. Returns the
    // last iteration result: S_OK when it stopped on a pad, S_FALSE when the pads ran out.
    static HRESULT GetPins(IBaseFilter* filter, IPin** input, IPin** output);
    // The negotiated raw video format of the pad's connection as a 40-byte bitmap header
    // (top-down RGB has a negative height, as the framework describes it) and the average
    // time per frame in 100 ns units from the frame rate. E_FAIL for any other media type.
    static HRESULT GetConnectionVideoInfo(IPin* pin, std::int64_t* avgTimePerFrame, BITMAPINFOHEADER* header);
    // The negotiated raw audio format as the 18-byte wave format. E_FAIL for anything else.
    static HRESULT GetConnectionWaveFormat(IPin* pin, WAVEFORMATEX* format);
    // Both readers share this: the whole format block of the connection.
    static HRESULT GetConnectionFormat(IPin* pin, ConnectionFormat* format);
    // The object's first property page; E_FAIL when it has no page (no properties of its own).
    static HRESULT CreateFirstPropPage(IUnknown* object, IPropertyPage** page);
    static HRESULT GetPageInfo(IPropertyPage* page, std::string* title, CSize* size, std::string* helpFile,
                               DWORD* helpContext);
    // The first element anywhere in the bin (nested bins included) that is of type `iid`.
    // E_POINTER for null arguments, E_FAIL for an empty bin, E_NOINTERFACE when none has it.
    static HRESULT FindFilterInterface(IGraphBuilder* graph, REFGUID iid, void** result);
    // The first pad of `direction` whose accept-caps answer is not an error (a refusal still
    // counts); null type: every pad of that direction answers yes.
    static IPin* GetPin(IBaseFilter* filter, PIN_DIRECTION direction, AM_MEDIA_TYPE* type);
    // Links the first fitting output pad of `upstream` to the first fitting input pad of
    // `downstream`, both elements of `graph`. The result of the link is returned.
    static HRESULT ConnectTwoFilter(IGraphBuilder* graph, IBaseFilter* upstream, IBaseFilter* downstream,
                                    AM_MEDIA_TYPE* type);

    // The accept-caps query as the framework's QueryAccept: S_OK accepted, S_FALSE refused,
    // E_FAIL when the pad does not answer.
    static HRESULT QueryAccept(IPin* pin, AM_MEDIA_TYPE* type);
    // A direct link of two pads: E_POINTER for a null pad, VFW_E_NOT_IN_GRAPH when a pad's
    // element is not inside `graph`, otherwise the link's result.
    static HRESULT ConnectDirect(IGraphBuilder* graph, IPin* output, IPin* input, AM_MEDIA_TYPE* type);
};

}  // namespace zub

// Identifiers of the module's own filters and of a decoder it knows of.
extern "C" {
const zub::GUID& Get_REFIID_IID_IAudioDumpInfo();
const zub::GUID& Get_REFCLSID_CLSID_AudioDump();
const zub::GUID& Get_REFIID_IID_IAudioDumpFileInfo();
const zub::GUID& Get_REFCLSID_CLSID_AudioDumpFile();
zub::GUID Get_CLSID_IID_ILigosMpegVideoDecoder();
}
