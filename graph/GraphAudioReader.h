// The audio reader of the conversion engine: decodes the first audio stream of a file and
// writes it as a 16-bit PCM WAVE file at the source's own rate, on the framework's threads
// (filesrc ! decodebin ! audioconvert ! wavenc ! filesink). At most two channels are written:
// more are mixed down to stereo (centre and surrounds at -3 dB, LFE left out). The sound
// written is the sound the container describes: encoder priming and padding it signals are
// left out (and a tail the decoder loses is filled with silence), so the first sample written
// is the one that plays with the first frame and the length is the source's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "graph/SourceFacts.h"

namespace zub {

namespace gst {
class DecodeGraph;
}

class CGraphAudioReader {
public:
    CGraphAudioReader();
    ~CGraphAudioReader();
    CGraphAudioReader(const CGraphAudioReader&) = delete;
    CGraphAudioReader& operator=(const CGraphAudioReader&) = delete;

    // Starts the framework and checks that every element the reader needs is installed.
    bool Init(std::string* error = nullptr);
    // Opens `path` for audio: checks that it has a decodable audio stream and learns its
    // format and duration. Nothing keeps running afterwards.
    bool OpenAudio(const std::string& path, std::string* error = nullptr);
    int SampleRate() const { return rate_; }
    int Channels() const { return channels_; }
    // Channels of the WAVE written: the source's, at most 2.
    int OutputChannels() const { return channels_ > 2 ? 2 : channels_; }
    // Sample frames the WAVE will hold; -1 when only the decoder can tell.
    std::int64_t OutputFrames() const { return facts_.samples; }
    // Start timecode and reel name as the container records them; "" when none.
    const std::string& Timecode() const { return facts_.timecode; }
    const std::string& ReelName() const { return facts_.reel; }

    // Starts writing the decoded audio to `wavePath` (replaced). On failure nothing is left
    // at `wavePath`.
    bool Start(const std::string& wavePath, std::string* error = nullptr);
    // Position and duration in 100 ns units; at the end the position is the duration. The
    // duration is the sound's own length where the stream or the graph can tell it (streams
    // without an index are measured from their packets); 0 only when nothing can.
    std::int64_t Position();
    std::int64_t Duration() const { return duration_; }
    // Ends the writing: what was decoded so far is closed as a valid WAVE file.
    void Stop();
    bool Finished();
    std::string Error() const;
    void Close();

private:
    std::unique_ptr<gst::DecodeGraph> graph_;
    std::string path_;
    std::string wavePath_;
    std::string error_;
    bool initialised_ = false;
    bool opened_ = false;
    bool finished_ = false;
    int rate_ = 0, channels_ = 0;
    std::int64_t duration_ = 0;
    AudioFacts facts_;
};

}  // namespace zub
