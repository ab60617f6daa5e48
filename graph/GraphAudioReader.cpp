#include "GraphAudioReader.h"

#include <gst/audio/audio.h>

#include <atomic>
#include <filesystem>

#include "DecodeGraph.h"
#include "GstSupport.h"

namespace zub {

CGraphAudioReader::CGraphAudioReader() = default;

CGraphAudioReader::~CGraphAudioReader() { Close(); }

bool CGraphAudioReader::Init(std::string* error)
{
    initialised_ = gst::HaveElements(
        {"filesrc", "decodebin", "audioconvert", "capsfilter", "wavenc", "filesink", "fakesink"}, error);
    return initialised_;
}

bool CGraphAudioReader::OpenAudio(const std::string& path, std::string* error)
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
    // A probe graph: the decoded stream ends in a fakesink, only its format is wanted.
    struct Seen {
        std::atomic<int> rate{0}, channels{0};
    };
    auto seen = std::make_shared<Seen>();
    auto builder = [seen](GstBin* bin, GstCaps* decoded, std::string* reason) -> GstElement* {
        GstAudioInfo info;
        if (gst_audio_info_from_caps(&info, decoded)) {
            seen->rate = GST_AUDIO_INFO_RATE(&info);
            seen->channels = GST_AUDIO_INFO_CHANNELS(&info);
        }
        GstElement* sink = gst_element_factory_make("fakesink", nullptr);
        if (!sink) {
            *reason = "the media framework's element \"fakesink\" is missing";
            return nullptr;
        }
        g_object_set(sink, "sync", FALSE, nullptr);
        gst_bin_add(bin, sink);
        gst_element_sync_state_with_parent(sink);
        return sink;
    };
    gst::DecodeGraph probe;
    if (!probe.Build(path, gst::StreamKind::Audio, builder, &why) || !probe.Preroll(&why)) return fail(why);
    rate_ = seen->rate;
    channels_ = seen->channels;
    const std::int64_t ns = probe.DurationNs();
    duration_ = ns > 0 ? ns / 100 : 0;
    if (rate_ <= 0 || channels_ <= 0) return fail(path + ": the audio stream has no usable format");
    opened_ = true;
    return true;
}

bool CGraphAudioReader::Start(const std::string& wavePath, std::string* error)
{
    auto fail = [&](const std::string& why) {
        error_ = why;
        if (error) *error = why;
        graph_.reset();  // closes the file before it is removed
        std::error_code ec;
        std::filesystem::remove(wavePath, ec);
        return false;
    };
    if (!opened_) return fail(wavePath + ": no audio source is open");
    graph_.reset();
    finished_ = false;
    wavePath_ = wavePath;
    auto builder = [wavePath](GstBin* bin, GstCaps*, std::string* reason) -> GstElement* {
        GstElement* chain[4] = {gst_element_factory_make("audioconvert", nullptr), gst_element_factory_make("capsfilter", nullptr),
                                gst_element_factory_make("wavenc", nullptr), gst_element_factory_make("filesink", nullptr)};
        for (GstElement* e : chain) {
            if (e) gst_bin_add(bin, e);
        }
        for (GstElement* e : chain) {
            if (!e) {
                *reason = "an element of the WAVE writer is missing";
                return nullptr;
            }
        }
        gst::CapsPtr pcm(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "S16LE", "layout", G_TYPE_STRING,
                                             "interleaved", nullptr));
        g_object_set(chain[1], "caps", pcm.get(), nullptr);
        g_object_set(chain[3], "location", wavePath.c_str(), "sync", FALSE, nullptr);
        if (!gst_element_link_many(chain[0], chain[1], chain[2], chain[3], nullptr)) {
            *reason = "the decoded audio cannot be turned into 16-bit PCM";
            return nullptr;
        }
        for (int i = 3; i >= 0; --i) gst_element_sync_state_with_parent(chain[i]);
        return chain[0];
    };
    graph_ = std::make_unique<gst::DecodeGraph>();
    std::string why;
    if (!graph_->Build(path_, gst::StreamKind::Audio, builder, &why) || !graph_->Preroll(&why) || !graph_->Play(&why))
        return fail(why);
    return true;
}

std::int64_t CGraphAudioReader::Position()
{
    if (finished_) return duration_;
    if (!graph_) return 0;
    const std::int64_t ns = graph_->PositionNs();
    return ns > 0 ? ns / 100 : 0;
}

bool CGraphAudioReader::Finished()
{
    if (finished_) return true;
    if (!graph_) return false;
    if (graph_->PollEnd()) {
        error_ = graph_->Error();
        graph_.reset();  // the WAVE header was completed at the end of the stream; now it is closed
        finished_ = true;
    }
    return finished_;
}

void CGraphAudioReader::Stop()
{
    if (graph_) {
        graph_->Drain(5000);
        if (error_.empty()) error_ = graph_->Error();
        graph_.reset();
        finished_ = true;
    }
}

std::string CGraphAudioReader::Error() const
{
    if (graph_) {
        std::string e = graph_->Error();
        if (!e.empty()) return e;
    }
    return error_;
}

void CGraphAudioReader::Close()
{
    graph_.reset();
    opened_ = false;
    finished_ = false;
    rate_ = channels_ = 0;
    duration_ = 0;
}

}  // namespace zub
