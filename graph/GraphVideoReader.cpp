#include "graph/GraphVideoReader.h"
#include "platform/Error.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <vector>

#include "graph/DecodeGraph.h"
#include "graph/GstSupport.h"
#include "zubimport/DSUtility.h"

namespace zub {
namespace {

struct FrameUnmap {
    void operator()(GstVideoFrame* f) const { gst_video_frame_unmap(f); }
};

// A decoded picture mapped for reading; the mapping holds a reference on the buffer, so the
// planes stay valid for as long as this lives, whichever thread lets it go.
struct HeldPicture {
    GstVideoFrame frame{};
    bool mapped = false;
    HeldPicture() = default;
    HeldPicture(const HeldPicture&) = delete;
    HeldPicture& operator=(const HeldPicture&) = delete;
    ~HeldPicture()
    {
        if (mapped) gst_video_frame_unmap(&frame);
    }
};

// GIF decoders hand out 32-bit pictures whether or not the file has a transparent colour,
// and later frames' transparent pixels only let the previous picture show through; the
// picture has see-through parts only when the first frame's graphic control block names a
// transparent colour. False for anything unreadable: such a file is not decoded anyway.
bool GifFirstFrameTransparent(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> d(64 * 1024);
    in.read(reinterpret_cast<char*>(d.data()), static_cast<std::streamsize>(d.size()));
    d.resize(static_cast<std::size_t>(in.gcount()));
    if (d.size() < 13 || std::memcmp(d.data(), "GIF8", 4) != 0) return false;
    std::size_t at = 13;
    if (d[10] & 0x80) at += 3u << ((d[10] & 7) + 1);  // global colour table
    while (at < d.size()) {
        if (d[at] == 0x2C || d[at] == 0x3B) return false;  // first image, or the end, reached
        if (d[at] != 0x21 || at + 2 >= d.size()) return false;
        const unsigned char label = d[at + 1];
        if (label == 0xF9 && at + 3 < d.size() && d[at + 2] >= 4) return (d[at + 3] & 1) != 0;
        at += 2;  // past the extension's introducer and label, then its sub-blocks
        while (at < d.size() && d[at] != 0) at += d[at] + 1u;
        ++at;
    }
    return false;
}

// Whether the file could be MXF: the SMPTE key of a partition pack within the run-in that
// may precede the header (at most 64 KiB). Only MXF can be OP-Atom, which the graph must not
// be given as it is.
bool MayBeMxf(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> d(64 * 1024 + 16);
    in.read(reinterpret_cast<char*>(d.data()), static_cast<std::streamsize>(d.size()));
    d.resize(static_cast<std::size_t>(in.gcount()));
    static constexpr unsigned char kPartitionKey[] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x05, 0x01, 0x01,
                                                      0x0D, 0x01, 0x02, 0x01, 0x01};
    return std::search(d.begin(), d.end(), std::begin(kPartitionKey), std::end(kPartitionKey)) != d.end();
}

}  // namespace

CGraphVideoReader::CGraphVideoReader() = default;

CGraphVideoReader::~CGraphVideoReader() { Close(); }

bool CGraphVideoReader::Init(std::string* error)
{
    initialised_ = gst::HaveElements({"filesrc", "decodebin", "videoconvert", "appsink", "fakesink"}, error);
    return initialised_;
}

bool CGraphVideoReader::OpenVideo(const std::string& path, std::string* error)
{
    Close();
    error_.clear();
    auto fail = [&](const std::string& why) {
        error_ = why;
        Fail(error, why);
        Close();
        return false;
    };
    std::string why;
    if (!initialised_ && !Init(&why)) return fail(why);
    path_ = path;
    // What libavformat can tell beyond the graph. Reading it decodes the first frames, as
    // the graph's own start does, so the two go side by side: the graph needs the facts only
    // once its decoder has a picture to hand over. A file libavformat cannot read is still
    // decoded by the graph with the graph's own numbers. A source the graph cannot read as it
    // is (MXF OP-Atom) is read from a copy of its streams, which must exist before the graph.
    std::shared_future<VideoFacts> facts = std::async(std::launch::async, [path] {
        VideoFacts f;
        ReadVideoFacts(path, &f, nullptr);
        return f;
    }).share();
    if (MayBeMxf(path)) {
        facts_ = facts.get();
        if (facts_.opAtom && !MakeGraphCopy(path, &facts_.graphCopy, &why)) return fail(why);
    }
    graph_ = std::make_unique<gst::DecodeGraph>();
    auto builder = [this, facts, path](GstBin* bin, GstCaps* decoded, std::string* reason) -> GstElement* {
        const VideoFacts& known = facts.get();
        const int rotation = known.rotation;
        const bool opaqueGif = known.known && known.codec == "gif" && !GifFirstFrameTransparent(path);
        GstVideoInfo info;
        const bool alpha = gst_video_info_from_caps(&info, decoded) && GST_VIDEO_INFO_HAS_ALPHA(&info) && !opaqueGif;
        decodedAlpha_ = alpha;
        GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
        GstElement* sink = gst_element_factory_make("appsink", nullptr);
        if (convert) gst_bin_add(bin, convert);
        if (sink) gst_bin_add(bin, sink);
        if (!convert || !sink) {
            *reason = "the video converter or the frame sink element is missing";
            return nullptr;
        }
        // The colour conversion costs more than the decoding: spread it over every core.
        g_object_set(convert, "n-threads", 0u, nullptr);
        const char* format = alpha ? "BGRA" : (planarWanted_ ? "I420" : "BGR");
        gst::CapsPtr want(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, format, nullptr));
        // Frames go out as fast as they decode: no clock, no preroll copy kept.
        g_object_set(sink, "caps", want.get(), "sync", FALSE, "enable-last-sample", FALSE, "qos", FALSE, nullptr);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = [](GstAppSink* appsink, gpointer self) -> GstFlowReturn {
            return static_cast<GstFlowReturn>(static_cast<CGraphVideoReader*>(self)->Deliver(appsink));
        };
        callbacks.eos = [](GstAppSink*, gpointer self) { static_cast<CGraphVideoReader*>(self)->DeliverEnd(); };
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        GstElement* flip = nullptr;
        if (rotation != 0) {
            flip = gst_element_factory_make("videoflip", nullptr);
            if (!flip) {
                *reason = "the source is rotated and the media framework's element \"videoflip\" is missing";
                return nullptr;
            }
            gst_bin_add(bin, flip);
            // 1: clockwise, 2: half turn, 3: counter-clockwise.
            g_object_set(flip, "video-direction", rotation == 90 ? 1 : rotation == 180 ? 2 : 3, nullptr);
        }
        if (flip ? !gst_element_link_many(convert, flip, sink, nullptr) : !gst_element_link(convert, sink)) {
            *reason = "the decoded video cannot be converted to BGR";
            return nullptr;
        }
        gst_element_sync_state_with_parent(sink);
        if (flip) gst_element_sync_state_with_parent(flip);
        gst_element_sync_state_with_parent(convert);
        appsink_ = sink;
        return convert;
    };
    const std::string& graphPath = facts_.graphCopy ? facts_.graphCopy->Path() : path;
    if (!graph_->Build(graphPath, gst::StreamKind::Video, builder, &why) || !graph_->Preroll(&why)) return fail(why);
    if (!facts_.graphCopy) facts_ = facts.get();

    gst::Ref<GstPad> pin(SinkPin());
    std::int64_t timePerFrame = 0;
    BITMAPINFOHEADER header{};
    if (!pin || Failed(CDSUtility::GetConnectionVideoInfo(pin.get(), &timePerFrame, &header)))
        return fail(path + ": the decoded video has no usable format");
    width_ = header.biWidth;
    height_ = header.biHeight < 0 ? -header.biHeight : header.biHeight;
    bits_ = (planarWanted_ && !decodedAlpha_) ? 24 : header.biBitCount;
    hasAlpha_ = decodedAlpha_;
    graphTimePerFrame_ = timePerFrame;
    const std::int64_t ns = graph_->DurationNs();
    graphDuration_ = ns > 0 ? ns / 100 : 0;
    parNum_ = facts_.parNum;
    parDen_ = facts_.parDen;
    if (!facts_.known) {
        gst::CapsPtr caps(gst_pad_get_current_caps(pin.get()));
        GstVideoInfo info;
        if (caps && gst_video_info_from_caps(&info, caps.get()) && GST_VIDEO_INFO_PAR_N(&info) > 0 &&
            GST_VIDEO_INFO_PAR_D(&info) > 0) {
            parNum_ = GST_VIDEO_INFO_PAR_N(&info);
            parDen_ = GST_VIDEO_INFO_PAR_D(&info);
        }
    }
    ComputeBudget();
    return true;
}

void CGraphVideoReader::SetConform(bool on)
{
    conformWanted_ = on;
    if (graph_) ComputeBudget();
}

void CGraphVideoReader::SetConformRate(int num, int den)
{
    conformNum_ = num > 0 && den > 0 ? num : 0;
    conformDen_ = num > 0 && den > 0 ? den : 0;
    if (graph_) ComputeBudget();
}

void CGraphVideoReader::ComputeBudget()
{
    // The source's own time per frame: the graph's, else the one libavformat found.
    std::int64_t own = graphTimePerFrame_;
    if (own <= 0 && facts_.known && !facts_.variableRate && facts_.rateNum > 0)
        own = (10'000'000LL * facts_.rateDen + facts_.rateNum / 2) / facts_.rateNum;
    const std::int64_t given =
        conformNum_ > 0 ? (10'000'000LL * conformDen_ + conformNum_ / 2) / conformNum_ : 0;
    const bool irregular = facts_.known && (facts_.variableRate || own <= 0);
    const std::int64_t grid = given > 0 ? given : own;
    conforming_ = conformWanted_ && irregular && grid > 0 && facts_.span > 0;
    if (conforming_) {
        timePerFrame_ = grid;
        slots_ = (facts_.span + grid / 2) / grid;
        duration_ = slots_ * grid;
        return;
    }
    slots_ = 0;
    if (own <= 0) {
        // The design's unknown-rate path: no budget can be given.
        timePerFrame_ = 0;
        duration_ = facts_.known && facts_.span > 0 ? facts_.span : graphDuration_;
        return;
    }
    timePerFrame_ = own;
    // Every frame delivered once: the budget is the frame count, where it can be counted.
    duration_ = facts_.known && facts_.frames > 0 ? facts_.frames * own : graphDuration_;
}

GstPad* CGraphVideoReader::SinkPin() const
{
    void* sink = appsink_.load();
    return sink && graph_ ? gst_element_get_static_pad(GST_ELEMENT(sink), "sink") : nullptr;
}

int CGraphVideoReader::Deliver(void* appsinkPtr)
{
    struct Mark {
        Mark() { gst::HandOver(); }
        ~Mark() { gst::HandOver(); }
    } const mark;
    gst::SamplePtr sample(gst_app_sink_pull_sample(GST_APP_SINK(appsinkPtr)));
    if (!sample) return GST_FLOW_FLUSHING;
    if (stopRequested_) return GST_FLOW_EOS;
    GstBuffer* buffer = gst_sample_get_buffer(sample.get());
    if (!conforming_) {
        std::int64_t time = -1;
        if (buffer && GST_BUFFER_PTS_IS_VALID(buffer)) time = static_cast<std::int64_t>(GST_BUFFER_PTS(buffer) / 100);
        return Emit(sample.get(), time, false);
    }
    // The grid slot nearest the frame's running time; time 0 is where the sound starts too.
    std::int64_t slot = nextSlot_;
    if (buffer && GST_BUFFER_PTS_IS_VALID(buffer)) {
        const GstSegment* segment = gst_sample_get_segment(sample.get());
        GstClockTime running = GST_BUFFER_PTS(buffer);
        if (segment) running = gst_segment_to_running_time(segment, GST_FORMAT_TIME, running);
        if (GST_CLOCK_TIME_IS_VALID(running)) {
            const std::int64_t t = static_cast<std::int64_t>(running / 100);
            slot = (t + timePerFrame_ / 2) / timePerFrame_;
        }
    }
    int keep = GST_FLOW_OK;
    if (held_) {
        // The held frame stays on screen until this one's slot.
        const std::int64_t until = std::min(slot, slots_);
        if (until <= nextSlot_) {
            ++dropped_;
        } else {
            for (std::int64_t k = nextSlot_; k < until && keep == GST_FLOW_OK; ++k)
                keep = Emit(held_, k * timePerFrame_, k > nextSlot_);
            nextSlot_ = until;
        }
        gst_sample_unref(held_);
        held_ = nullptr;
    }
    held_ = sample.release();
    return keep;
}

void CGraphVideoReader::DeliverEnd()
{
    struct Mark {
        Mark() { gst::HandOver(); }
        ~Mark() { gst::HandOver(); }
    } const mark;
    if (!held_) return;
    if (!stopRequested_) {
        if (nextSlot_ >= slots_) {
            ++dropped_;
        } else {
            int keep = GST_FLOW_OK;
            for (std::int64_t k = nextSlot_; k < slots_ && keep == GST_FLOW_OK; ++k)
                keep = Emit(held_, k * timePerFrame_, k > nextSlot_);
            nextSlot_ = slots_;
        }
    }
    gst_sample_unref(held_);
    held_ = nullptr;
}

int CGraphVideoReader::Emit(GstSample* sample, std::int64_t time, bool repeated)
{
    VideoSample s;
    GstVideoInfo info;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstVideoFrame frame;
    std::unique_ptr<GstVideoFrame, FrameUnmap> mapped;
    if (buffer && gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
        GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_I420) {
        s.width = GST_VIDEO_INFO_WIDTH(&info);
        s.height = GST_VIDEO_INFO_HEIGHT(&info);
        s.bitsPerPixel = 12;
        s.planar = true;
        auto held = std::make_shared<HeldPicture>();
        if (gst_video_frame_map(&held->frame, &info, buffer, GST_MAP_READ)) {
            held->mapped = true;
            const GstVideoFrame& f = held->frame;
            for (int p = 0; p < 3; ++p) {
                s.plane[p] = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&f, p));
                s.planeStride[p] = GST_VIDEO_FRAME_PLANE_STRIDE(&f, p);
            }
            s.data = s.plane[0];
            s.stride = s.planeStride[0];
            s.size = static_cast<std::size_t>(GST_VIDEO_FRAME_SIZE(&f));
            s.keep = std::move(held);
        }
    } else if (buffer && gst_video_info_from_caps(&info, gst_sample_get_caps(sample))) {
        s.width = GST_VIDEO_INFO_WIDTH(&info);
        s.height = GST_VIDEO_INFO_HEIGHT(&info);
        s.bitsPerPixel = GST_VIDEO_INFO_COMP_PSTRIDE(&info, 0) * 8;
        s.stride = ((static_cast<std::ptrdiff_t>(s.width) * s.bitsPerPixel / 8) + 3) & ~static_cast<std::ptrdiff_t>(3);
        s.size = static_cast<std::size_t>(s.stride) * s.height;
        if (gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) {
            mapped.reset(&frame);
            const auto* src = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
            const std::ptrdiff_t srcStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
            if (srcStride == s.stride) {
                s.data = src;
            } else {
                // Rows laid out by someone else's rule: bring them to bitmap rows.
                repack_.resize(s.size);
                const std::size_t row = static_cast<std::size_t>(s.width) * s.bitsPerPixel / 8;
                for (int y = 0; y < s.height; ++y) std::memcpy(&repack_[y * s.stride], src + y * srcStride, row);
                s.data = repack_.data();
            }
        }
    }
    s.time = time;
    s.repeated = repeated;
    if (repeated) ++repeated_;
    s.index = delivered_.fetch_add(1);
    IVideoFrameSink* sink = sink_.load();
    const int keep = sink ? sink->VideoCallback(s) : 1;
    if (!keep) {
        stopRequested_ = true;
        return GST_FLOW_EOS;
    }
    return GST_FLOW_OK;
}

bool CGraphVideoReader::Run(std::string* error)
{
    if (!graph_) {
        return Fail(error, zub::Error{path_.empty() ? std::string("video reader") : path_, "nothing is open"});
    }
    std::string why;
    gst::HandOver();
    if (!graph_->Play(&why)) {
        error_ = why;
        return Fail(error, why);
    }
    return true;
}

void CGraphVideoReader::Stop()
{
    if (graph_) {
        error_ = graph_->Error();
        graph_.reset();  // down to NULL: the streaming threads are joined here
        gst::HandOver();
    }
    if (held_) gst_sample_unref(held_);
    held_ = nullptr;
    appsink_ = nullptr;
    stopped_ = true;
}

bool CGraphVideoReader::Finished()
{
    if (!graph_ || stopRequested_) return true;
    if (graph_->PollEnd()) return true;
    // GStreamer's GIF path never sends the end of the stream: once every frame the file
    // holds has been delivered, it has nothing more to give.
    return facts_.container == "gif" && !conforming_ && facts_.frames > 0 && delivered_.load() >= facts_.frames;
}

std::string CGraphVideoReader::Error() const
{
    if (graph_) {
        std::string e = graph_->Error();
        if (!e.empty()) return e;
    }
    return error_;
}

void CGraphVideoReader::Close()
{
    graph_.reset();
    gst::HandOver();
    if (held_) gst_sample_unref(held_);
    held_ = nullptr;
    nextSlot_ = 0;
    repeated_ = 0;
    dropped_ = 0;
    facts_ = VideoFacts{};
    graphTimePerFrame_ = graphDuration_ = 0;
    parNum_ = parDen_ = 1;
    conforming_ = false;
    slots_ = 0;
    appsink_ = nullptr;
    width_ = height_ = bits_ = 0;
    hasAlpha_ = false;
    timePerFrame_ = duration_ = 0;
    decodedAlpha_ = false;
    stopRequested_ = false;
    delivered_ = 0;
    stopped_ = false;
}

}  // namespace zub
