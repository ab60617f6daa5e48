// The video reader of the conversion engine: filesrc ! decodebin ! videoconvert ! appsink. Every
// decoded frame is handed to the registered frame sink on the framework's streaming thread, as
// 24-bit BGR rows padded to 4 bytes (a device-independent bitmap's rows, top-down) or, for a
// source with alpha, 32-bit BGRA.
//
// Threads: everything but the sink runs on the owner's thread. The sink must not call back
// into the reader; it stops the graph by returning 0.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zubimport/Platform.h"

typedef struct _GstPad GstPad;

namespace zub {

namespace gst {
class DecodeGraph;
}

struct VideoSample {
    const std::uint8_t* data = nullptr;  // null when the decoded buffer could not be read
    std::size_t size = 0;                // stride * height
    int width = 0;
    int height = 0;
    int bitsPerPixel = 0;                // 24 or 32
    std::ptrdiff_t stride = 0;           // bytes per row: width * bits / 8 rounded up to 4
    std::int64_t time = -1;              // presentation time in 100 ns units; -1 when unknown
    std::int64_t index = 0;              // 0 for the first frame delivered
};

class IVideoFrameSink {
public:
    // Called on the streaming thread for every decoded frame; non-zero keeps the graph running,
    // 0 stops it (no further frames are delivered and Finished() turns true).
    virtual int VideoCallback(const VideoSample& sample) = 0;

protected:
    ~IVideoFrameSink() = default;
};

class CGraphVideoReader {
public:
    CGraphVideoReader();
    ~CGraphVideoReader();
    CGraphVideoReader(const CGraphVideoReader&) = delete;
    CGraphVideoReader& operator=(const CGraphVideoReader&) = delete;

    // Starts the framework and checks that every element the reader needs is installed.
    bool Init(std::string* error = nullptr);
    // Opens `path` for video and prerolls it: the format is known afterwards. False, with
    // "path: reason", for a file that is not media, has no video or cannot be decoded; no
    // streaming thread is left behind.
    bool OpenVideo(const std::string& path, std::string* error = nullptr);

    int Width() const { return width_; }
    int Height() const { return height_; }
    int BitsPerPixel() const { return bits_; }
    bool HasAlpha() const { return hasAlpha_; }
    std::int64_t TimePerFrame() const { return timePerFrame_; }  // 100 ns units; 0 when unknown
    std::int64_t Duration() const { return duration_; }          // 100 ns units; 0 when unknown
    // The appsink's input pad (one reference for the caller) for CDSUtility's connection readers.
    GstPad* SinkPin() const;

    void SetFrameSink(IVideoFrameSink* sink) { sink_.store(sink); }
    bool Run(std::string* error = nullptr);
    // Stops decoding and joins the streaming threads. Not from inside the sink.
    void Stop();
    // True once the graph has reached its end, failed, been stopped by the sink or by Stop().
    bool Finished();
    std::string Error() const;
    std::int64_t FramesDelivered() const { return delivered_.load(); }
    void Close();

private:
    int Deliver(void* appsink);  // the streaming thread's part

    std::unique_ptr<gst::DecodeGraph> graph_;
    std::string path_;
    bool initialised_ = false;
    int width_ = 0, height_ = 0, bits_ = 0;
    bool hasAlpha_ = false;
    std::int64_t timePerFrame_ = 0, duration_ = 0;
    std::atomic<void*> appsink_{nullptr};  // borrowed from the pipeline, set when the chain is built
    std::string error_;
    std::atomic<bool> decodedAlpha_{false};
    std::atomic<IVideoFrameSink*> sink_{nullptr};
    std::atomic<bool> stopRequested_{false};
    std::atomic<std::int64_t> delivered_{0};
    bool stopped_ = false;
    std::vector<std::uint8_t> repack_;  // streaming thread only

};

}  // namespace zub
