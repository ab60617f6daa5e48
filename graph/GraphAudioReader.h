// The audio reader of the conversion engine: decodes the first audio stream of a file and
// writes it as a 16-bit PCM WAVE file at the source's own rate and channel count
// (filesrc ! decodebin ! audioconvert ! wavenc ! filesink), on the framework's threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

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

    // Starts writing the decoded audio to `wavePath` (replaced). On failure nothing is left
    // at `wavePath`.
    bool Start(const std::string& wavePath, std::string* error = nullptr);
    // Position and duration in 100 ns units (0 when unknown); at the end the position is the
    // duration.
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
};

}  // namespace zub
