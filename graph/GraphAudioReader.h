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

// Makes the sizes of a WAVE file just written agree with the bytes on disk: when the RIFF or
// data size is not what the file holds, the file is cut after its last whole sample frame and
// both sizes are set from it. `frames` gets the whole sample frames it holds. False, with the
// file and the reason, when there is no header to complete or no whole sample frame in it
// (the header is still made true).
bool CompleteWrittenWave(const std::string& path, std::int64_t* frames, std::string* error);

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
    // Whole sample frames in the WAVE once the writing has ended.
    std::int64_t FramesWritten() const { return framesWritten_; }
    bool Finished();
    std::string Error() const;
    void Close();

private:
    // Takes the writing graph down and makes the WAVE's header tell what it holds.
    void EndWriting();

    std::unique_ptr<gst::DecodeGraph> graph_;
    std::string path_;
    std::string wavePath_;
    std::string error_;
    bool initialised_ = false;
    bool opened_ = false;
    bool finished_ = false;
    bool writing_ = false;
    std::int64_t framesWritten_ = 0;
    int rate_ = 0, channels_ = 0;
    std::int64_t duration_ = 0;
    AudioFacts facts_;
};

}  // namespace zub
