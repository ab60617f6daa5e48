#include "GraphVideoReader.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <cstring>

#include "DecodeGraph.h"
#include "GstSupport.h"
#include "zubimport/DSUtility.h"

namespace zub {
namespace {

struct FrameUnmap {
    void operator()(GstVideoFrame* f) const { gst_video_frame_unmap(f); }
};

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
        if (error) *error = why;
        Close();
        return false;
    };
    std::string why;
    if (!initialised_ && !Init(&why)) return fail(why);
    path_ = path;
    graph_ = std::make_unique<gst::DecodeGraph>();
    auto builder = [this](GstBin* bin, GstCaps* decoded, std::string* reason) -> GstElement* {
        GstVideoInfo info;
        const bool alpha = gst_video_info_from_caps(&info, decoded) && GST_VIDEO_INFO_HAS_ALPHA(&info);
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
        gst::CapsPtr want(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, alpha ? "BGRA" : "BGR", nullptr));
        // Frames go out as fast as they decode: no clock, no preroll copy kept.
        g_object_set(sink, "caps", want.get(), "sync", FALSE, "enable-last-sample", FALSE, "qos", FALSE, nullptr);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = [](GstAppSink* appsink, gpointer self) -> GstFlowReturn {
            return static_cast<GstFlowReturn>(static_cast<CGraphVideoReader*>(self)->Deliver(appsink));
        };
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        if (!gst_element_link(convert, sink)) {
            *reason = "the decoded video cannot be converted to BGR";
            return nullptr;
        }
        gst_element_sync_state_with_parent(sink);
        gst_element_sync_state_with_parent(convert);
        appsink_ = sink;
        return convert;
    };
    if (!graph_->Build(path, gst::StreamKind::Video, builder, &why) || !graph_->Preroll(&why)) return fail(why);

    gst::Ref<GstPad> pin(SinkPin());
    std::int64_t timePerFrame = 0;
    BITMAPINFOHEADER header{};
    if (!pin || Failed(CDSUtility::GetConnectionVideoInfo(pin.get(), &timePerFrame, &header)))
        return fail(path + ": the decoded video has no usable format");
    width_ = header.biWidth;
    height_ = header.biHeight < 0 ? -header.biHeight : header.biHeight;
    bits_ = header.biBitCount;
    hasAlpha_ = decodedAlpha_;
    timePerFrame_ = timePerFrame;
    const std::int64_t ns = graph_->DurationNs();
    duration_ = ns > 0 ? ns / 100 : 0;
    return true;
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

    VideoSample s;
    GstVideoInfo info;
    GstBuffer* buffer = gst_sample_get_buffer(sample.get());
    GstVideoFrame frame;
    std::unique_ptr<GstVideoFrame, FrameUnmap> mapped;
    if (buffer && gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get()))) {
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
        if (GST_BUFFER_PTS_IS_VALID(buffer)) s.time = static_cast<std::int64_t>(GST_BUFFER_PTS(buffer) / 100);
    }
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
        if (error) *error = (path_.empty() ? std::string("video reader") : path_) + ": nothing is open";
        return false;
    }
    std::string why;
    gst::HandOver();
    if (!graph_->Play(&why)) {
        error_ = why;
        if (error) *error = why;
        return false;
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
    appsink_ = nullptr;
    stopped_ = true;
}

bool CGraphVideoReader::Finished()
{
    if (!graph_ || stopRequested_) return true;
    return graph_->PollEnd();
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
