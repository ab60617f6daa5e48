// The video reader of the conversion engine: filesrc ! decodebin ! videoconvert ! appsink. Every
// decoded frame is handed to the registered frame sink on the framework's streaming thread, as
// 24-bit BGR rows padded to 4 bytes (a device-independent bitmap's rows, top-down) or, for a
// source with alpha, 32-bit BGRA.
//
// Frame budget: Duration() / TimePerFrame() rounds to the number of frames the clip will get.
// For a constant-rate source that is the source's true frame count (counted from the stream
// where the container keeps no index). A variable-rate source is conformed by default: frames
// are placed on a constant-rate grid by their timestamps, repeated where the source holds a
// frame longer and dropped where two fall on one grid slot, so the clip keeps the source's
// length and stays with its sound; Duration() is then the source's length. A source whose rate
// cannot be told (no rate stored, durations irregular) reports a TimePerFrame() of 0 unless a
// conform rate was given. A source the container marks as rotated is delivered upright.
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

#include "graph/SourceFacts.h"
#include "zubimport/Platform.h"

typedef struct _GstPad GstPad;
typedef struct _GstSample GstSample;

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
                                         // (conformed: the frame's place on the constant grid)
    std::int64_t index = 0;              // 0 for the first frame delivered
    bool repeated = false;               // conformed: the same picture as the frame before
    // Planar delivery (SetPlanarOutput): the decoder's own 8-bit 4:2:0 planes Y, U, V, with
    // `data` pointing at Y and bitsPerPixel 12.
    bool planar = false;
    const std::uint8_t* plane[3] = {nullptr, nullptr, nullptr};
    std::ptrdiff_t planeStride[3] = {0, 0, 0};
    // Planar delivery: owns the decoded picture the planes point into. A sink that keeps a
    // copy of this handle (and of the sample) may read the planes after it has returned, on
    // any thread, so the picture need not be copied to be worked on elsewhere; the decoder
    // takes a new buffer meanwhile. Null for 24- and 32-bit rows, which live only during the call.
    std::shared_ptr<const void> keep;
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
    // From the next OpenVideo on, a source without alpha is delivered as 8-bit 4:2:0 planes
    // (as most decoders produce them, so nothing converts the full-size picture) instead of
    // 24-bit rows. The format queries still describe the 24-bit picture.
    void SetPlanarOutput(bool on) { planarWanted_ = on; }
    // True when the source is open and delivers planes (asked for, and no alpha).
    bool PlanarOutput() const { return graph_ && planarWanted_ && !decodedAlpha_; }
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

    // Frame durations of the source vary (known once the file is open).
    bool IsVariableRate() const { return facts_.variableRate; }
    // Conforming a variable-rate source to a constant rate (on by default); off delivers every
    // frame once, as decoded, with the budget being the frame count. Set before Run().
    void SetConform(bool on);
    bool Conform() const { return conformWanted_; }
    // The constant rate to conform to (the clip's rate, e.g. 30000/1001); 0/0, the default,
    // conforms to the source's own nominal rate. Also lets a source of unknown rate be read
    // at this rate. Set before Run().
    void SetConformRate(int num, int den);
    // True when this open source is being conformed (variable or unknown rate and a rate to
    // conform to).
    bool Conforming() const { return conforming_; }
    // Counted while running: frames shown one more time to fill the grid, frames left out.
    std::int64_t FramesRepeated() const { return repeated_.load(); }
    std::int64_t FramesDropped() const { return dropped_.load(); }
    // Frames the source holds; -1 when they cannot be counted.
    std::int64_t SourceFrames() const { return facts_.frames; }
    // Clockwise degrees the container asks for (0, 90, 180, 270); frames arrive turned already.
    int Rotation() const { return facts_.rotation; }
    // Pixel aspect ratio of the source (width : height of one pixel), 1:1 when not given.
    int PixelAspectNum() const { return parNum_; }
    int PixelAspectDen() const { return parDen_; }
    // Start timecode "hh:mm:ss:ff" and reel name as the container records them; "" when none.
    const std::string& Timecode() const { return facts_.timecode; }
    const std::string& ReelName() const { return facts_.reel; }

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
    void DeliverEnd();           // end of stream reached the sink: the held frame fills the rest
    int Emit(GstSample* sample, std::int64_t time, bool repeated);
    void ComputeBudget();

    std::unique_ptr<gst::DecodeGraph> graph_;
    std::string path_;
    bool initialised_ = false;
    int width_ = 0, height_ = 0, bits_ = 0;
    bool hasAlpha_ = false;
    bool planarWanted_ = false;
    std::int64_t timePerFrame_ = 0, duration_ = 0;
    std::atomic<void*> appsink_{nullptr};  // borrowed from the pipeline, set when the chain is built
    std::string error_;
    std::atomic<bool> decodedAlpha_{false};
    std::atomic<IVideoFrameSink*> sink_{nullptr};
    std::atomic<bool> stopRequested_{false};
    std::atomic<std::int64_t> delivered_{0};
    bool stopped_ = false;
    std::vector<std::uint8_t> repack_;  // streaming thread only

    VideoFacts facts_;
    std::int64_t graphTimePerFrame_ = 0, graphDuration_ = 0;  // what the graph itself says
    int parNum_ = 1, parDen_ = 1;
    bool conformWanted_ = true;
    int conformNum_ = 0, conformDen_ = 0;
    bool conforming_ = false;
    std::int64_t slots_ = 0;  // conformed: frames the clip gets
    // Streaming thread only while conforming: the frame waiting for the next one's time.
    GstSample* held_ = nullptr;
    std::int64_t nextSlot_ = 0;
    std::atomic<std::int64_t> repeated_{0}, dropped_{0};

};

}  // namespace zub
