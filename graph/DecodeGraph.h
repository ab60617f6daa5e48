// filesrc ! decodebin, with the first decoded stream of one kind handed to a chain the reader
// builds, and every other stream parked in a fakesink without being decoded. Shared by the
// video and audio readers.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "graph/GstSupport.h"

namespace zub::gst {

enum class StreamKind { Video, Audio };

class DecodeGraph {
public:
    // Builds the chain for the decoded stream inside `pipeline` (elements added there) and
    // returns the element whose sink pad takes the stream, or null with a reason. Runs on a
    // streaming thread.
    using ChainBuilder = std::function<GstElement*(GstBin* pipeline, GstCaps* decodedCaps, std::string* error)>;

    DecodeGraph() = default;
    ~DecodeGraph();
    DecodeGraph(const DecodeGraph&) = delete;
    DecodeGraph& operator=(const DecodeGraph&) = delete;

    bool Build(const std::string& path, StreamKind kind, ChainBuilder builder, std::string* error);
    // To PAUSED and waits until every stream is exposed and prerolled. False with the reason
    // when the file is not media, has no stream of the kind, or cannot be decoded.
    bool Preroll(std::string* error);
    bool Play(std::string* error);
    // Collects end-of-stream and errors from the bus; true once the graph has ended either way.
    bool PollEnd();
    // Sends end-of-stream into the graph and waits (bounded) until it has passed the sinks.
    bool Drain(int timeoutMs);
    void Shutdown();

    GstElement* Pipeline() const { return pipeline_.get(); }
    bool Ended() const { return ended_; }
    std::string Error() const;
    std::int64_t DurationNs() const;
    std::int64_t PositionNs() const;

private:
    static void OnPadAdded(GstElement* decodebin, GstPad* pad, gpointer self);
    static gboolean OnAutoplugContinue(GstElement* decodebin, GstPad* pad, GstCaps* caps, gpointer self);
    static void OnUnknownType(GstElement* decodebin, GstPad* pad, GstCaps* caps, gpointer self);
    void SetError(const std::string& why);
    bool Wanted(const char* mediaType) const;
    static void Park(GstBin* pipeline, GstPad* pad);
    bool TakeMessage(GstMessage* msg);
    struct CallbackMark {
        CallbackMark() { HandOver(); }
        ~CallbackMark() { HandOver(); }
    };

    std::string path_;
    StreamKind kind_ = StreamKind::Video;
    ChainBuilder builder_;
    PipelinePtr pipeline_;
    std::atomic<bool> linked_{false};
    bool ended_ = false;
    // Guards error_, which streaming threads write too.
    mutable std::mutex mutex_;
    std::string error_;
};

}  // namespace zub::gst
