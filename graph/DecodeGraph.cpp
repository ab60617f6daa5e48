#include "graph/DecodeGraph.h"
#include "platform/DecoderThreads.h"
#include "platform/Error.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace zub::gst {
namespace {

constexpr GstClockTime kPrerollTimeout = 30 * GST_SECOND;
constexpr GstClockTime kStallPoll = 100 * GST_MSECOND;

std::string TextOf(GstMessage* msg)
{
    GError* raw = nullptr;
    gchar* debugRaw = nullptr;
    gst_message_parse_error(msg, &raw, &debugRaw);
    ErrorPtr err(raw);
    CharPtr debug(debugRaw);
    return err ? err->message : "unknown error";
}

const char* MediaTypeOf(GstCaps* caps)
{
    if (!caps || gst_caps_get_size(caps) == 0) return "";
    return gst_structure_get_name(gst_caps_get_structure(caps, 0));
}

// AIFF's parser, reading the file itself, starts pushing sound the moment it is activated,
// before the decoder bin has blocked its always-present output: the first buffer then meets
// an unlinked pad, the parser stops, and the bin keeps that error to itself, so the graph
// never prerolls (about one open in two). Fed through a queue instead, the parser receives
// data only after the bin has finished plugging it.
bool NeedsPushedInput(const std::string& path)
{
    char head[12] = {};
    std::ifstream in(path, std::ios::binary);
    if (!in.read(head, sizeof head)) return false;
    return std::memcmp(head, "FORM", 4) == 0 && (std::memcmp(head + 8, "AIFF", 4) == 0 || std::memcmp(head + 8, "AIFC", 4) == 0);
}

// A demuxer reading the file itself runs a task on its sink pad; it pauses that task only at
// the end or on an error. Paused before exposing any stream means it has given up. Its error
// does not always say so: the decoder bin drops errors an element posts while the bin is still
// bringing it up to PAUSED, and a cut MP4 index fails exactly then about one open in six, which
// left the graph waiting out the whole preroll time.
bool DemuxerGaveUp(GstBin* pipeline)
{
    bool gaveUp = false;
    IteratorPtr it(gst_bin_iterate_recurse(pipeline));
    GValue item = G_VALUE_INIT;
    while (!gaveUp && gst_iterator_next(it.get(), &item) == GST_ITERATOR_OK) {
        auto* element = GST_ELEMENT(g_value_get_object(&item));
        GstElementFactory* factory = gst_element_get_factory(element);
        const gchar* klass = factory ? gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS) : nullptr;
        if (klass && std::strstr(klass, "Demux")) {
            GST_OBJECT_LOCK(element);
            const bool noStreams = element->numsrcpads == 0;
            GstPad* sink = element->sinkpads ? GST_PAD(gst_object_ref(element->sinkpads->data)) : nullptr;
            GST_OBJECT_UNLOCK(element);
            if (sink && noStreams) {
                GST_OBJECT_LOCK(sink);
                GstTask* task = GST_PAD_MODE(sink) == GST_PAD_MODE_PULL && GST_PAD_TASK(sink)
                                    ? GST_TASK(gst_object_ref(GST_PAD_TASK(sink)))
                                    : nullptr;
                GST_OBJECT_UNLOCK(sink);
                if (task) {
                    gaveUp = gst_task_get_state(task) == GST_TASK_PAUSED;
                    gst_object_unref(task);
                }
            }
            if (sink) gst_object_unref(sink);
        }
        g_value_reset(&item);
    }
    g_value_unset(&item);
    return gaveUp;
}

}  // namespace

DecodeGraph::~DecodeGraph() { Shutdown(); }

void DecodeGraph::SetError(const std::string& why)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (error_.empty()) error_ = path_ + ": " + why;
}

std::string DecodeGraph::Error() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

namespace {

// gst-libav gives a frame-threaded video decoder as many threads as there are cores; ours get
// the movie route's count (platform/DecoderThreads.h), which depends on the picture size. The
// decoder opens its codec when its caps arrive, so the count is set as they pass its sink pad.
GstPadProbeReturn SizeThreadsOnCaps(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (!event || GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    int width = 0, height = 0;
    if (caps && gst_caps_get_size(caps) > 0) {
        const GstStructure* s = gst_caps_get_structure(caps, 0);
        gst_structure_get_int(s, "width", &width);
        gst_structure_get_int(s, "height", &height);
    }
    g_object_set(static_cast<GstElement*>(data), "max-threads", zub::av::DecoderFrameThreads(width, height), nullptr);
    return GST_PAD_PROBE_OK;
}

void SizeDecoderThreads(GstBin*, GstBin*, GstElement* element, gpointer)
{
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), "max-threads");
    if (!spec || spec->value_type != G_TYPE_INT) return;
    g_object_set(element, "max-threads", zub::av::DecoderFrameThreads(0, 0), nullptr);
    GstPad* sink = gst_element_get_static_pad(element, "sink");
    if (!sink) return;
    // The probe holds the element unreferenced: it lives on the element's own pad.
    gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, &SizeThreadsOnCaps, element, nullptr);
    gst_object_unref(sink);
}

// True when some demuxer takes these caps in. The list of demuxers is read from the registry
// once; the filter runs per stream, which is a handful of caps checks.
bool IsContainer(GstCaps* caps)
{
    static GList* const demuxers = gst_element_factory_list_get_elements(GST_ELEMENT_FACTORY_TYPE_DEMUXER,
                                                                         GST_RANK_MARGINAL);
    GList* taking = gst_element_factory_list_filter(demuxers, caps, GST_PAD_SINK, FALSE);
    const bool any = taking != nullptr;
    gst_plugin_feature_list_free(taking);
    return any;
}

}  // namespace

bool DecodeGraph::Wanted(const char* mediaType) const
{
    if (kind_ == StreamKind::Audio) return std::strncmp(mediaType, "audio/", 6) == 0;
    return std::strncmp(mediaType, "video/", 6) == 0 || std::strncmp(mediaType, "image/", 6) == 0;
}

bool DecodeGraph::Build(const std::string& path, StreamKind kind, ChainBuilder builder, std::string* error)
{
    Shutdown();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        error_.clear();
    }
    ended_ = false;
    path_ = path;
    kind_ = kind;
    builder_ = std::move(builder);
    std::string why;
    if (!EnsureInitialised(&why)) {
        return Fail(error, zub::Error{path, why});
    }
    GstElement* pipeline = gst_pipeline_new(nullptr);
    gst_object_ref_sink(pipeline);
    pipeline_.reset(pipeline);
    GstElement* src = gst_element_factory_make("filesrc", nullptr);
    GstElement* dec = gst_element_factory_make("decodebin", nullptr);
    // Whatever was made belongs to the pipeline from here on, so nothing leaks on failure.
    if (src) gst_bin_add(GST_BIN(pipeline), src);
    if (dec) gst_bin_add(GST_BIN(pipeline), dec);
    if (!src || !dec) {
        Shutdown();
        return Fail(error, zub::Error{path, std::string("the media framework's element \"") +
                                                (src ? "decodebin" : "filesrc") + "\" is missing"});
    }
    g_object_set(src, "location", path.c_str(), nullptr);
    GstElement* queue = nullptr;
    if (NeedsPushedInput(path)) {
        queue = gst_element_factory_make("queue", nullptr);
        if (!queue) {
            Shutdown();
            return Fail(error, zub::Error{path, "the media framework's element \"queue\" is missing"});
        }
        gst_bin_add(GST_BIN(pipeline), queue);
    }
    if (queue ? !gst_element_link_many(src, queue, dec, nullptr) : !gst_element_link(src, dec)) {
        Shutdown();
        return Fail(error, zub::Error{path, "cannot link the file source to the decoder"});
    }
    g_signal_connect(dec, "pad-added", G_CALLBACK(&DecodeGraph::OnPadAdded), this);
    g_signal_connect(dec, "autoplug-continue", G_CALLBACK(&DecodeGraph::OnAutoplugContinue), this);
    g_signal_connect(dec, "unknown-type", G_CALLBACK(&DecodeGraph::OnUnknownType), this);
    if (kind == StreamKind::Video) g_signal_connect(dec, "deep-element-added", G_CALLBACK(&SizeDecoderThreads), nullptr);
    return true;
}

void DecodeGraph::Park(GstBin* pipeline, GstPad* pad)
{
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    if (!sink) return;  // an unlinked stream is tolerated by the demuxers
    g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add(pipeline, sink);
    gst_element_sync_state_with_parent(sink);
    Ref<GstPad> sinkPad(gst_element_get_static_pad(sink, "sink"));
    gst_pad_link(pad, sinkPad.get());
}

void DecodeGraph::OnPadAdded(GstElement* decodebin, GstPad* pad, gpointer data)
{
    auto* self = static_cast<DecodeGraph*>(data);
    const CallbackMark mark;
    // The pipeline is reached through the element, never through pipeline_, which the owner's
    // thread may be clearing while it takes the graph down.
    Ref<GstObject> parent(gst_object_get_parent(GST_OBJECT(decodebin)));
    if (!parent) return;
    GstBin* pipeline = GST_BIN(parent.get());
    CapsPtr caps(gst_pad_get_current_caps(pad));
    if (!caps) caps.reset(gst_pad_query_caps(pad, nullptr));
    const char* type = MediaTypeOf(caps.get());
    const char* raw = self->kind_ == StreamKind::Video ? "video/x-raw" : "audio/x-raw";
    if (std::strcmp(type, raw) != 0 || self->linked_.exchange(true)) {
        self->Park(pipeline, pad);
        return;
    }
    std::string why;
    GstElement* head = self->builder_(pipeline, caps.get(), &why);
    if (!head) {
        self->SetError(why);
        self->Park(pipeline, pad);
        return;
    }
    Ref<GstPad> sinkPad(gst_element_get_static_pad(head, "sink"));
    const GstPadLinkReturn rc = gst_pad_link(pad, sinkPad.get());
    if (rc != GST_PAD_LINK_OK) self->SetError(std::string("cannot link the decoded stream: ") + gst_pad_link_get_name(rc));
}

gboolean DecodeGraph::OnAutoplugContinue(GstElement*, GstPad*, GstCaps* caps, gpointer data)
{
    auto* self = static_cast<DecodeGraph*>(data);
    const CallbackMark mark;
    if (self->Wanted(MediaTypeOf(caps))) return TRUE;
    // A stream of the other kind is left undecoded (and parked); only what some demuxer takes
    // in (the file itself, a container inside a container, a DV stream holding both) is still
    // unpacked. The decoder bin names neither the stream's demuxer nor any element here (the
    // pad it offers is its own, not yet placed), so the caps decide. Decoding the picture in
    // the sound's graph, or the reverse, costs a whole decoder for nothing.
    return IsContainer(caps) ? TRUE : FALSE;
}

void DecodeGraph::OnUnknownType(GstElement*, GstPad*, GstCaps* caps, gpointer data)
{
    auto* self = static_cast<DecodeGraph*>(data);
    const CallbackMark mark;
    if (!self->Wanted(MediaTypeOf(caps))) return;
    CharPtr text(gst_caps_to_string(caps));
    self->SetError(std::string("no decoder installed for ") + (text ? text.get() : "this stream"));
}

bool DecodeGraph::TakeMessage(GstMessage* msg)
{
    switch (GST_MESSAGE_TYPE(msg)) {
    case GST_MESSAGE_ERROR:
        SetError(TextOf(msg));
        ended_ = true;
        return true;
    case GST_MESSAGE_EOS: ended_ = true; return true;
    default: return false;
    }
}

bool DecodeGraph::Preroll(std::string* error)
{
    auto fail = [&](const std::string& fallback) {
        const std::string why = Error();
        return why.empty() ? Fail(error, zub::Error{path_, fallback}) : Fail(error, why);
    };
    if (!pipeline_) return fail("nothing to open");
    HandOver();
    Ref<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    const GstStateChangeReturn rc = gst_element_set_state(pipeline_.get(), GST_STATE_PAUSED);
    if (rc == GST_STATE_CHANGE_FAILURE) {
        MessagePtr msg(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
        if (msg) TakeMessage(msg.get());
        return fail("cannot be opened");
    }
    if (rc == GST_STATE_CHANGE_ASYNC) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(kPrerollTimeout);
        int stalled = 0;
        for (;;) {
            MessagePtr msg(gst_bus_timed_pop_filtered(
                bus.get(), kStallPoll,
                static_cast<GstMessageType>(GST_MESSAGE_ASYNC_DONE | GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
            if (!msg) {
                // Seen twice in a row, so a demuxer caught between two states is not taken for one.
                stalled = DemuxerGaveUp(GST_BIN(pipeline_.get())) ? stalled + 1 : 0;
                if (stalled >= 2) return fail("the demuxer stopped before it found a stream: the file is damaged or incomplete");
                if (std::chrono::steady_clock::now() >= deadline) return fail("timed out while opening");
                continue;
            }
            if (GST_MESSAGE_TYPE(msg.get()) == GST_MESSAGE_ASYNC_DONE) break;
            TakeMessage(msg.get());
            if (!Error().empty()) return fail("");
            if (ended_) break;
        }
    }
    if (!Error().empty()) return fail("");
    if (!linked_) return fail(kind_ == StreamKind::Video ? "has no video stream" : "has no audio stream");
    return true;
}

bool DecodeGraph::Play(std::string* error)
{
    HandOver();
    if (!pipeline_ || gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        PollEnd();
        const std::string why = Error();
        return why.empty() ? Fail(error, zub::Error{path_, "cannot start decoding"}) : Fail(error, why);
    }
    return true;
}

bool DecodeGraph::PollEnd()
{
    if (!pipeline_) return ended_;
    Ref<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    while (MessagePtr msg{gst_bus_pop_filtered(bus.get(), static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR))})
        TakeMessage(msg.get());
    return ended_;
}

bool DecodeGraph::Drain(int timeoutMs)
{
    if (!pipeline_ || PollEnd()) return ended_;
    gst_element_send_event(pipeline_.get(), gst_event_new_eos());
    Ref<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    MessagePtr msg(gst_bus_timed_pop_filtered(bus.get(), static_cast<GstClockTime>(timeoutMs) * GST_MSECOND,
                                              static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (msg) TakeMessage(msg.get());
    return ended_;
}

void DecodeGraph::Shutdown()
{
    // Down to NULL first, joining the streaming threads, and only then let go of the pointer.
    if (pipeline_) gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    pipeline_.reset();
    HandOver();
    linked_ = false;
}

std::int64_t DecodeGraph::DurationNs() const
{
    gint64 d = -1;
    if (!pipeline_ || !gst_element_query_duration(pipeline_.get(), GST_FORMAT_TIME, &d)) return -1;
    return d;
}

std::int64_t DecodeGraph::PositionNs() const
{
    gint64 p = -1;
    if (!pipeline_ || !gst_element_query_position(pipeline_.get(), GST_FORMAT_TIME, &p)) return -1;
    return p;
}

}  // namespace zub::gst
