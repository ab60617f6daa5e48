// What libavformat knows about a source that the decoding graph does not say, or says wrongly:
// the true number of video frames (containers without an index have their packets counted,
// as libavformat does for its own durations), whether the frame rate varies, the rotation the
// container asks for, the pixel aspect ratio, the start timecode and reel name, and for sound
// the priming and padding the container signals. The graph itself still decodes.
//
// A source is opened and walked once for all of these: the readers of its picture and sound
// and the tape block ask in turn, and the last source's reading is kept for as long as the
// file keeps its size and modification time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace zub {

// A copy of a source's picture and sound, stream for stream without decoding, in a container
// the media graph reads (QuickTime), for a source it cannot read as it is: GStreamer 1.22's
// MXF demuxer stops on OP-Atom files as FFmpeg writes them. The copy lives in the scratch
// folder ($TMPDIR, else /tmp) and is removed when the last holder lets it go.
class GraphCopy {
public:
    explicit GraphCopy(std::string path) : path_(std::move(path)) {}
    ~GraphCopy();
    GraphCopy(const GraphCopy&) = delete;
    GraphCopy& operator=(const GraphCopy&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// 100 ns units throughout, like the readers' times.
struct VideoFacts {
    bool known = false;             // libavformat read the file and found a video stream
    std::string container;          // libavformat's short name of the demuxer
    std::string codec;              // the video codec's short name
    std::int64_t frames = -1;       // frames the stream holds; -1 when it cannot be known
    int rateNum = 0, rateDen = 0;   // the stream's constant (or dominant) rate; 0/0 unknown
    std::int64_t span = 0;          // first frame's start to last frame's end; 0 unknown
    bool variableRate = false;      // frame durations differ beyond timestamp rounding
    int rotation = 0;               // clockwise degrees to show upright: 0, 90, 180, 270
    int parNum = 1, parDen = 1;     // pixel aspect ratio, 1:1 when not given
    std::string timecode;           // "hh:mm:ss:ff" (";" before ff for drop frame); "" none
    std::string reel;               // reel or tape name; "" none
    bool opAtom = false;            // MXF OP-Atom: the graph reads it from a GraphCopy
    std::shared_ptr<const GraphCopy> graphCopy;  // that copy, once a reader has made it
};

struct AudioFacts {
    bool known = false;
    std::string container;
    std::string codec;
    int rate = 0;
    int channels = 0;
    std::int64_t startSkip = 0;     // sample frames of encoder priming the container signals
    std::int64_t samples = -1;      // sample frames of the sound itself; -1 when unknown
    std::string timecode;
    std::string reel;
    bool opAtom = false;
    std::shared_ptr<const GraphCopy> graphCopy;
};

// False (with "path: reason") when libavformat cannot read the file or it has no stream of
// the kind; *facts then stays as default.
bool ReadVideoFacts(const std::string& path, VideoFacts* facts, std::string* error = nullptr);
bool ReadAudioFacts(const std::string& path, AudioFacts* facts, std::string* error = nullptr);

// Copies the picture and sound streams of `path` into a new scratch file the graph reads.
// False with "path: reason" (and nothing left behind) when the copy cannot be made.
bool MakeGraphCopy(const std::string& path, std::shared_ptr<const GraphCopy>* copy, std::string* error = nullptr);

// The rate a frame duration stands for, brought to the standard rate it rounds from
// (24000/1001, 30000/1001, 60000/1001, 24, 25, 30, 50, 60 …) when within 0.1%.
void RateOfDuration(double seconds, int* num, int* den);

// The start timecode ("hh:mm:ss:ff", ";" before the frames for drop frame) and the reel or
// tape name a source carries (QuickTime timecode track, MXF, DV, ...), as a .dva's tape block
// takes them: the timecode stays "00:00:00:00" and the tape "" where the source says nothing,
// the tape is cut to 255 characters. False (with "path: reason") when the file cannot be read.
bool ReadTapeAndTimecode(const std::string& path, std::string* tape, std::string* timecode, std::string* error = nullptr);

// The conversion's note on a variable-rate source, naming the file: "clip.mp4: variable frame
// rate, conformed to 29.97 fps: 12 frames repeated, 3 frames dropped", or "..., frames kept
// as delivered" when it was not conformed. `timePerFrame` is the clip's, in 100 ns units.
std::string VariableRateNote(const std::string& path, bool conformed, std::int64_t timePerFrame, std::int64_t repeated,
                             std::int64_t dropped);

}  // namespace zub
