// The graph utilities over GStreamer. Iterators can ask for a resync when a pad or an element
// is added while we walk; the walk then starts over from a clean state.
#include "zubimport/DSUtility.h"

#include <gst/audio/audio.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "graph/GstSupport.h"

static_assert(sizeof(zub::REFGUID) == sizeof(GType), "an interface identifier is a GType");

namespace zub {
namespace {

using gst::Ref;

// Walks an iterator of objects; `visit` returns true to stop. `restart` clears whatever the
// walk gathered when the iterator resyncs. S_OK when stopped by `visit`, S_FALSE when the
// items ran out, E_FAIL when the iterator failed.
HRESULT Walk(GstIterator* raw, const std::function<bool(gpointer)>& visit, const std::function<void()>& restart = {})
{
    if (!raw) return E_FAIL;
    gst::IteratorPtr it(raw);
    GValue item = G_VALUE_INIT;
    for (;;) {
        switch (gst_iterator_next(it.get(), &item)) {
        case GST_ITERATOR_OK: {
            const bool stop = visit(g_value_get_object(&item));
            g_value_unset(&item);
            if (stop) return S_OK;
            break;
        }
        case GST_ITERATOR_RESYNC:
            gst_iterator_resync(it.get());
            if (restart) restart();
            break;
        case GST_ITERATOR_DONE: return S_FALSE;
        case GST_ITERATOR_ERROR: return E_FAIL;
        }
    }
}

bool IsDibOrder(GstVideoFormat f)
{
    return f == GST_VIDEO_FORMAT_BGR || f == GST_VIDEO_FORMAT_BGRx || f == GST_VIDEO_FORMAT_BGRA;
}

WORD BitsPerPixel(const GstVideoFormatInfo* finfo)
{
    // Each plane once, at its own subsampling: I420 gives 8 + 2 + 2, NV12 8 + 4.
    unsigned bits = 0;
    bool seen[GST_VIDEO_MAX_PLANES] = {};
    for (guint c = 0; c < GST_VIDEO_FORMAT_INFO_N_COMPONENTS(finfo); ++c) {
        const guint plane = GST_VIDEO_FORMAT_INFO_PLANE(finfo, c);
        if (plane >= GST_VIDEO_MAX_PLANES || seen[plane]) continue;
        seen[plane] = true;
        const int pstride = GST_VIDEO_FORMAT_INFO_PSTRIDE(finfo, c);
        bits += static_cast<unsigned>(pstride * 8) >> (GST_VIDEO_FORMAT_INFO_W_SUB(finfo, c) + GST_VIDEO_FORMAT_INFO_H_SUB(finfo, c));
    }
    return static_cast<WORD>(bits);
}

DWORD CompressionOf(const GstVideoInfo& info)
{
    const GstVideoFormat f = GST_VIDEO_INFO_FORMAT(&info);
    if (IsDibOrder(f)) return BI_RGB;
    if (const guint32 fourcc = gst_video_format_to_fourcc(f)) return fourcc;
    // Other byte orders have no registered code: name them by their format string ("RGBA", "ARGB").
    const char* name = gst_video_format_to_string(f);
    char code[4] = {' ', ' ', ' ', ' '};
    for (int i = 0; i < 4 && name && name[i]; ++i) code[i] = name[i];
    return MakeFourCC(code[0], code[1], code[2], code[3]);
}

// Properties that every element inherits from the framework's own classes do not belong on
// an element's page.
bool BaseClassType(GType owner)
{
    return owner == G_TYPE_OBJECT || owner == G_TYPE_INITIALLY_UNOWNED || owner == GST_TYPE_OBJECT ||
           owner == GST_TYPE_ELEMENT || owner == GST_TYPE_BIN || owner == GST_TYPE_PIPELINE;
}

std::string HelpFileOf(GObject* object)
{
    if (!GST_IS_ELEMENT(object)) return {};
    GstElementFactory* factory = gst_element_get_factory(GST_ELEMENT(object));  // borrowed
    if (!factory) return {};
    if (const gchar* doc = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_DOC_URI)) return doc;
    Ref<GstPlugin> plugin(gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(factory)));
    if (plugin && gst_plugin_get_origin(plugin.get())) return gst_plugin_get_origin(plugin.get());
    return {};
}

}  // namespace

// ---- property page ----

CPropertyPage::CPropertyPage(GObject* object, std::vector<GParamSpec*> props, std::string title, std::string helpFile)
    : object_(G_OBJECT(g_object_ref(object))), props_(std::move(props)), title_(std::move(title)),
      helpFile_(std::move(helpFile))
{
    for (GParamSpec* p : props_) g_param_spec_ref(p);
}

CPropertyPage::~CPropertyPage()
{
    for (GParamSpec* p : props_) g_param_spec_unref(p);
    g_object_unref(object_);
}

void CPropertyPage::AddRef() { refs_.fetch_add(1, std::memory_order_relaxed); }

void CPropertyPage::Release()
{
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

CSize CPropertyPage::Size() const
{
    // A row of 24 pixels per property: its name at 8 pixels a character, then a value field
    // of 200 pixels, with 12-pixel margins.
    std::size_t longest = 0;
    for (GParamSpec* p : props_) longest = std::max(longest, std::strlen(g_param_spec_get_name(p)));
    CSize s;
    s.cx = static_cast<LONG>(12 + 8 * longest + 12 + 200 + 12);
    s.cy = static_cast<LONG>(12 + 24 * props_.size() + 12);
    return s;
}

std::string CPropertyPage::Name(int index) const
{
    if (index < 0 || index >= Count()) return {};
    return g_param_spec_get_name(props_[index]);
}

std::string CPropertyPage::Blurb(int index) const
{
    if (index < 0 || index >= Count()) return {};
    const gchar* b = g_param_spec_get_blurb(props_[index]);
    return b ? b : "";
}

bool CPropertyPage::Writable(int index) const
{
    if (index < 0 || index >= Count()) return false;
    const GParamFlags f = props_[index]->flags;
    return (f & G_PARAM_WRITABLE) && !(f & G_PARAM_CONSTRUCT_ONLY);
}

std::string CPropertyPage::Value(int index) const
{
    if (index < 0 || index >= Count() || !(props_[index]->flags & G_PARAM_READABLE)) return {};
    GValue v = G_VALUE_INIT;
    g_value_init(&v, props_[index]->value_type);
    std::unique_ptr<GValue, gst::ValueUnset> guard(&v);
    g_object_get_property(object_, g_param_spec_get_name(props_[index]), &v);
    gst::CharPtr text(gst_value_serialize(&v));
    return text ? text.get() : "";
}

bool CPropertyPage::SetValue(int index, const std::string& text)
{
    if (!Writable(index)) return false;
    GValue v = G_VALUE_INIT;
    g_value_init(&v, props_[index]->value_type);
    std::unique_ptr<GValue, gst::ValueUnset> guard(&v);
    if (!gst_value_deserialize(&v, text.c_str())) return false;
    if (g_param_value_validate(props_[index], &v)) return false;  // out of range: refused, not clamped
    g_object_set_property(object_, g_param_spec_get_name(props_[index]), &v);
    return true;
}

// ---- utilities ----

IPin* CDSUtility::GetFirstPin(IBaseFilter* filter)
{
    if (!filter) return nullptr;
    IPin* first = nullptr;
    Walk(gst_element_iterate_pads(filter), [&](gpointer pad) {
        first = GST_PAD(gst_object_ref(pad));
        return true;
    });
    return first;
}

HRESULT CDSUtility::GetPins(IBaseFilter* filter, IPin** input, IPin** output)
{
    if (input) *input = nullptr;
    if (output) *output = nullptr;
    if (!filter) return E_POINTER;
    if (!input && !output) return S_OK;
    Ref<GstPad> in, out;
    const HRESULT hr = Walk(
        gst_element_iterate_pads(filter),
        [&](gpointer p) {
            GstPad* pad = GST_PAD(p);
            if (GST_PAD_DIRECTION(pad) == GST_PAD_SINK && input && !in) in.reset(GST_PAD(gst_object_ref(pad)));
            if (GST_PAD_DIRECTION(pad) == GST_PAD_SRC && output && !out) out.reset(GST_PAD(gst_object_ref(pad)));
            return (!input || in) && (!output || out);
        },
        [&] {
            in.reset();
            out.reset();
        });
    // Whatever was found goes out, also when the pads ran out with a direction unfilled.
    if (input) *input = in.release();
    if (output) *output = out.release();
    return hr;
}

HRESULT CDSUtility::GetConnectionFormat(IPin* pin, ConnectionFormat* format)
{
    if (!pin || !format) return E_POINTER;
    *format = ConnectionFormat{};
    gst::CapsPtr caps(gst_pad_get_current_caps(pin));
    if (!caps) return VFW_E_NOT_CONNECTED;
    if (gst_caps_get_size(caps.get()) == 0) return E_FAIL;
    const GstStructure* s = gst_caps_get_structure(caps.get(), 0);
    if (gst_structure_has_name(s, "video/x-raw")) {
        GstVideoInfo info;
        if (!gst_video_info_from_caps(&info, caps.get())) return E_FAIL;
        const bool rgb = GST_VIDEO_INFO_IS_RGB(&info);
        const bool plainAspect = GST_VIDEO_INFO_PAR_N(&info) == GST_VIDEO_INFO_PAR_D(&info);
        format->formatType =
            GST_VIDEO_INFO_IS_INTERLACED(&info) || !plainAspect ? FORMAT_VideoInfo2 : FORMAT_VideoInfo;
        if (GST_VIDEO_INFO_FPS_N(&info) > 0 && GST_VIDEO_INFO_FPS_D(&info) > 0)
            format->avgTimePerFrame = static_cast<std::int64_t>(
                gst_util_uint64_scale_round(10000000, GST_VIDEO_INFO_FPS_D(&info), GST_VIDEO_INFO_FPS_N(&info)));
        BITMAPINFOHEADER& h = format->video;
        h.biSize = sizeof(BITMAPINFOHEADER);
        h.biWidth = GST_VIDEO_INFO_WIDTH(&info);
        // Rows arrive top-down; for RGB the framework says so with a negative height.
        h.biHeight = rgb ? -GST_VIDEO_INFO_HEIGHT(&info) : GST_VIDEO_INFO_HEIGHT(&info);
        h.biPlanes = 1;
        h.biBitCount = BitsPerPixel(info.finfo);
        h.biCompression = CompressionOf(info);
        h.biSizeImage = static_cast<DWORD>(GST_VIDEO_INFO_SIZE(&info));
        return S_OK;
    }
    if (gst_structure_has_name(s, "audio/x-raw")) {
        GstAudioInfo info;
        if (!gst_audio_info_from_caps(&info, caps.get())) return E_FAIL;
        format->formatType = FORMAT_WaveFormatEx;
        WAVEFORMATEX& w = format->audio;
        w.wFormatTag = GST_AUDIO_INFO_IS_FLOAT(&info) ? 3 /* IEEE float */ : WAVE_FORMAT_PCM;
        w.nChannels = static_cast<WORD>(GST_AUDIO_INFO_CHANNELS(&info));
        w.nSamplesPerSec = static_cast<DWORD>(GST_AUDIO_INFO_RATE(&info));
        w.nBlockAlign = static_cast<WORD>(GST_AUDIO_INFO_BPF(&info));
        w.nAvgBytesPerSec = w.nSamplesPerSec * w.nBlockAlign;
        w.wBitsPerSample = static_cast<WORD>(GST_AUDIO_INFO_WIDTH(&info));
        w.cbSize = 0;
        return S_OK;
    }
    return E_FAIL;
}

HRESULT CDSUtility::GetConnectionVideoInfo(IPin* pin, std::int64_t* avgTimePerFrame, BITMAPINFOHEADER* header)
{
    ConnectionFormat f;
    const HRESULT hr = GetConnectionFormat(pin, &f);
    if (Failed(hr)) return hr;
    if (!(f.formatType == FORMAT_VideoInfo) && !(f.formatType == FORMAT_VideoInfo2)) return E_FAIL;
    if (avgTimePerFrame) *avgTimePerFrame = f.avgTimePerFrame;
    if (header) *header = f.video;
    return S_OK;
}

HRESULT CDSUtility::GetConnectionWaveFormat(IPin* pin, WAVEFORMATEX* format)
{
    ConnectionFormat f;
    const HRESULT hr = GetConnectionFormat(pin, &f);
    if (Failed(hr)) return hr;
    if (!(f.formatType == FORMAT_WaveFormatEx)) return E_FAIL;
    if (format) *format = f.audio;
    return S_OK;
}

HRESULT CDSUtility::CreateFirstPropPage(IUnknown* object, IPropertyPage** page)
{
    if (!page) return E_POINTER;
    *page = nullptr;
    if (!object || !G_IS_OBJECT(object)) return E_POINTER;
    guint n = 0;
    std::unique_ptr<GParamSpec*, gst::GFree> all(g_object_class_list_properties(G_OBJECT_GET_CLASS(object), &n));
    // Pages go from the most derived class that declares properties towards the base classes;
    // the first page is that most derived one.
    GType pageOwner = 0;
    for (GType t = G_OBJECT_TYPE(object); t && !BaseClassType(t) && !pageOwner; t = g_type_parent(t)) {
        for (guint i = 0; i < n; ++i) {
            if (all.get()[i]->owner_type == t) {
                pageOwner = t;
                break;
            }
        }
    }
    if (!pageOwner) return E_FAIL;
    std::vector<GParamSpec*> props;
    for (guint i = 0; i < n; ++i)
        if (all.get()[i]->owner_type == pageOwner) props.push_back(all.get()[i]);
    std::string title = g_type_name(pageOwner);
    if (pageOwner == G_OBJECT_TYPE(object) && GST_IS_ELEMENT(object)) {
        if (GstElementFactory* factory = gst_element_get_factory(GST_ELEMENT(object)))
            if (const gchar* longName = gst_element_factory_get_longname(factory)) title = longName;
    }
    *page = new CPropertyPage(object, std::move(props), std::move(title), HelpFileOf(object));
    return S_OK;
}

HRESULT CDSUtility::GetPageInfo(IPropertyPage* page, std::string* title, CSize* size, std::string* helpFile,
                                DWORD* helpContext)
{
    if (!page) return E_POINTER;
    if (title) *title = page->Title();
    if (size) *size = page->Size();
    if (helpFile) *helpFile = page->HelpFile();
    if (helpContext) *helpContext = page->HelpContext();
    return S_OK;
}

HRESULT CDSUtility::FindFilterInterface(IGraphBuilder* graph, REFGUID iid, void** result)
{
    if (!graph || !result) return E_POINTER;
    *result = nullptr;
    HRESULT hr = E_FAIL;
    Walk(
        gst_bin_iterate_recurse(graph),
        [&](gpointer element) {
            if (G_TYPE_CHECK_INSTANCE_TYPE(element, static_cast<GType>(iid))) {
                *result = gst_object_ref(element);
                hr = S_OK;
                return true;
            }
            hr = E_NOINTERFACE;
            return false;
        },
        [&] { hr = E_FAIL; });
    return hr;
}

HRESULT CDSUtility::QueryAccept(IPin* pin, AM_MEDIA_TYPE* type)
{
    if (!pin) return E_POINTER;
    if (!type) return S_OK;
    gst::QueryPtr q(gst_query_new_accept_caps(type));
    if (!gst_pad_query(pin, q.get())) return E_FAIL;
    gboolean accepted = FALSE;
    gst_query_parse_accept_caps_result(q.get(), &accepted);
    return accepted ? S_OK : S_FALSE;
}

IPin* CDSUtility::GetPin(IBaseFilter* filter, PIN_DIRECTION direction, AM_MEDIA_TYPE* type)
{
    if (!filter) return nullptr;
    const GstPadDirection wanted = direction == PINDIR_INPUT ? GST_PAD_SINK : GST_PAD_SRC;
    IPin* found = nullptr;
    Walk(gst_element_iterate_pads(filter), [&](gpointer p) {
        GstPad* pad = GST_PAD(p);
        if (GST_PAD_DIRECTION(pad) != wanted) return false;
        // A refusal (S_FALSE) still takes the pad; only a pad that cannot answer is passed over.
        if (Failed(QueryAccept(pad, type))) return false;
        found = GST_PAD(gst_object_ref(pad));
        return true;
    });
    return found;
}

HRESULT CDSUtility::ConnectDirect(IGraphBuilder* graph, IPin* output, IPin* input, AM_MEDIA_TYPE* type)
{
    if (!graph || !output || !input) return E_POINTER;
    for (GstPad* pad : {output, input}) {
        Ref<GstElement> owner(gst_pad_get_parent_element(pad));
        if (!owner || !gst_object_has_as_ancestor(GST_OBJECT(owner.get()), GST_OBJECT(graph))) return VFW_E_NOT_IN_GRAPH;
    }
    if (type && (QueryAccept(output, type) != S_OK || QueryAccept(input, type) != S_OK)) return VFW_E_NO_ACCEPTABLE_TYPES;
    switch (gst_pad_link(output, input)) {
    case GST_PAD_LINK_OK: return S_OK;
    case GST_PAD_LINK_WAS_LINKED: return VFW_E_ALREADY_CONNECTED;
    case GST_PAD_LINK_NOFORMAT: return VFW_E_NO_ACCEPTABLE_TYPES;
    case GST_PAD_LINK_WRONG_HIERARCHY: return VFW_E_NOT_IN_GRAPH;
    default: return E_FAIL;
    }
}

HRESULT CDSUtility::ConnectTwoFilter(IGraphBuilder* graph, IBaseFilter* upstream, IBaseFilter* downstream,
                                     AM_MEDIA_TYPE* type)
{
    Ref<GstPad> output(GetPin(upstream, PINDIR_OUTPUT, type));
    if (!output) return E_FAIL;
    Ref<GstPad> input(GetPin(downstream, PINDIR_INPUT, type));
    // The output pad is tested again here, not the input pad: a missing input pad goes on to
    // the link request, which answers for itself. Callers rely on that answer.
    if (!output) return E_FAIL;
    return ConnectDirect(graph, output.get(), input.get(), nullptr);
}

}  // namespace zub

// ---- exported identifiers ----

namespace {
constexpr zub::GUID kIID_IAudioDumpInfo = {0x45A7B24B, 0x9786, 0x11D3, {0x98, 0x22, 0x00, 0xE0, 0x81, 0x10, 0x2E, 0x92}};
constexpr zub::GUID kCLSID_AudioDump = {0xAEDD5683, 0x9454, 0x11D3, {0xA4, 0x51, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}};
constexpr zub::GUID kIID_IAudioDumpFileInfo = {0x6311AF39, 0x9BC4, 0x11D3, {0x98, 0x22, 0x00, 0xE0, 0x81, 0x10, 0x2E, 0x92}};
constexpr zub::GUID kCLSID_AudioDumpFile = {0xEAAB6C99, 0x9914, 0x11D3, {0x98, 0x22, 0x00, 0xE0, 0x81, 0x10, 0x2E, 0x92}};
constexpr zub::GUID kIID_ILigosMpegVideoDecoder = {0xCB51EFC2, 0x40D6, 0x11D3, {0xB2, 0x65, 0x00, 0xA0, 0xC9, 0xA3, 0xA5, 0x6F}};
}  // namespace

extern "C" {
const zub::GUID& Get_REFIID_IID_IAudioDumpInfo() { return kIID_IAudioDumpInfo; }
const zub::GUID& Get_REFCLSID_CLSID_AudioDump() { return kCLSID_AudioDump; }
const zub::GUID& Get_REFIID_IID_IAudioDumpFileInfo() { return kIID_IAudioDumpFileInfo; }
const zub::GUID& Get_REFCLSID_CLSID_AudioDumpFile() { return kCLSID_AudioDumpFile; }
zub::GUID Get_CLSID_IID_ILigosMpegVideoDecoder() { return kIID_ILigosMpegVideoDecoder; }
}
