// What libavformat knows about a source that the decoding graph does not say, or says wrongly:
// the true number of video frames (containers without an index have their packets counted,
// as libavformat does for its own durations), whether the frame rate varies, the rotation the
// container asks for, the pixel aspect ratio, the start timecode and reel name, and for sound
// the priming and padding the container signals. Read once when a reader opens a file; the
// graph itself still decodes.
#pragma once

#include <cstdint>
#include <string>

namespace zub {

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
};

// False (with "path: reason") when libavformat cannot read the file or it has no stream of
// the kind; *facts then stays as default.
bool ReadVideoFacts(const std::string& path, VideoFacts* facts, std::string* error = nullptr);
bool ReadAudioFacts(const std::string& path, AudioFacts* facts, std::string* error = nullptr);

// The rate a frame duration stands for, brought to the standard rate it rounds from
// (24000/1001, 30000/1001, 60000/1001, 24, 25, 30, 50, 60 …) when within 0.1%.
void RateOfDuration(double seconds, int* num, int* den);

}  // namespace zub
