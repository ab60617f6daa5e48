#include "graph/GraphAudioReader.h"
#include "platform/ByteOrder.h"
#include "platform/Error.h"
#include "platform/FileIo.h"

#include <fcntl.h>
#include <gst/audio/audio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "graph/DecodeGraph.h"
#include "graph/GstSupport.h"
#include "platform/StereoDownmix.h"

namespace zub {

bool CompleteWrittenWave(const std::string& path, std::int64_t* frames, std::string* error)
{
    if (frames) *frames = 0;
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return Fail(error, SysError(path, "cannot open the written WAVE"));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) return Fail(error, SysError(path, "cannot read the written WAVE's size"));
    const std::uint64_t fileSize = static_cast<std::uint64_t>(st.st_size);
    unsigned char head[12];
    if (fileSize < 12 || !ReadAllAt(fd, head, 12, 0) || std::memcmp(head, "RIFF", 4) != 0 ||
        std::memcmp(head + 8, "WAVE", 4) != 0)
        return Fail(error, Error{path, "the WAVE writer left no RIFF header"});

    // The chunks up to the sound; the writer puts its tags after it.
    std::uint64_t at = 12, dataAt = 0;
    std::uint32_t dataSize = 0;
    unsigned blockAlign = 0;
    while (at + 8 <= fileSize) {
        unsigned char chunk[8];
        if (!ReadAllAt(fd, chunk, 8, at)) break;
        const std::uint32_t size = ReadLe32(chunk + 4);
        if (std::memcmp(chunk, "fmt ", 4) == 0 && size >= 16 && at + 8 + 16 <= fileSize) {
            unsigned char fmt[16];
            if (ReadAllAt(fd, fmt, 16, at + 8)) blockAlign = ReadLe16(fmt + 12);
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            dataAt = at;
            dataSize = size;
            break;
        }
        at += 8 + std::uint64_t(size) + (size & 1);
    }
    if (dataAt == 0) return Fail(error, Error{path, "the WAVE writer left no data chunk"});
    if (blockAlign == 0) return Fail(error, Error{path, "the WAVE writer left no sample format"});

    const std::uint64_t sound = dataAt + 8;
    const std::uint64_t onDisk = fileSize - sound;
    const bool riffTrue = ReadLe32(head + 4) == fileSize - 8;
    const bool dataTrue = dataSize <= onDisk && dataSize % blockAlign == 0;
    std::uint64_t keep = dataSize;
    if (!(riffTrue && dataTrue)) {
        // Whatever follows the sound cannot be told from it when the sizes lie: the file ends
        // with the last whole sample frame written, and both sizes say so.
        keep = std::min<std::uint64_t>(dataSize, onDisk);
        keep -= keep % blockAlign;
        if (sound + keep > 0xFFFFFFFFull) keep = (0xFFFFFFFFull - sound) / blockAlign * blockAlign;
        unsigned char size[4];
        WriteLe32(size, static_cast<std::uint32_t>(keep));
        if (!WriteAllAt(fd, size, 4, dataAt + 4)) return Fail(error, SysError(path, "cannot complete the WAVE header"));
        WriteLe32(size, static_cast<std::uint32_t>(sound + keep - 8));
        if (!WriteAllAt(fd, size, 4, 4)) return Fail(error, SysError(path, "cannot complete the WAVE header"));
        if (::ftruncate(fd, static_cast<off_t>(sound + keep)) != 0)
            return Fail(error, SysError(path, "cannot cut the WAVE after its last whole sample frame"));
    }
    if (frames) *frames = static_cast<std::int64_t>(keep / blockAlign);
    if (keep == 0) return Fail(error, Error{path, "no whole sample frame was written"});
    return true;
}

CGraphAudioReader::CGraphAudioReader() = default;

CGraphAudioReader::~CGraphAudioReader() { Close(); }

bool CGraphAudioReader::Init(std::string* error)
{
    initialised_ = gst::HaveElements(
        {"filesrc", "decodebin", "audioconvert", "capsfilter", "wavenc", "filesink", "fakesink"}, error);
    return initialised_;
}

namespace {

// What the probe's sink saw before it prerolled; written on a streaming thread, read by the
// owner once the graph is paused.
struct ProbeSeen {
    std::atomic<int> rate{0}, channels{0}, frameBytes{0};
    std::atomic<bool> wholeFrame{false}, ended{false};
};

GstPadProbeReturn SeenProbe(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    // Added on one streaming thread, called on another, freed on the owner's: GStreamer's own
    // locks order the three, the hand-over lock shows that order to race detectors.
    struct Ordered {
        Ordered() { gst::HandOver(); }
        ~Ordered() { gst::HandOver(); }
    } ordered;
    ProbeSeen* seen = static_cast<std::shared_ptr<ProbeSeen>*>(data)->get();
    if (info->type & GST_PAD_PROBE_TYPE_BUFFER) {
        const gsize size = gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info));
        const int frame = seen->frameBytes;
        if (size > 0 && size >= static_cast<gsize>(frame > 0 ? frame : 1)) seen->wholeFrame = true;
    } else if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) &&
               GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS) {
        seen->ended = true;
    }
    return GST_PAD_PROBE_OK;
}

}  // namespace

bool CGraphAudioReader::OpenAudio(const std::string& path, std::string* error)
{
    Close();
    error_.clear();
    auto fail = [&](const std::string& why) {
        error_ = why;
        Fail(error, why);
        Close();
        return false;
    };
    std::string why;
    if (!initialised_ && !Init(&why)) return fail(why);
    path_ = path;
    // What libavformat can tell beyond the graph; a source the graph cannot read as it is
    // (MXF OP-Atom) is read from a copy of its streams.
    const bool haveFacts = ReadAudioFacts(path, &facts_, nullptr);
    if (facts_.opAtom && !MakeGraphCopy(path, &facts_.graphCopy, &why)) return fail(why);
    // A probe graph: the decoded stream ends in a fakesink, only its format is wanted.
    auto seen = std::make_shared<ProbeSeen>();
    auto builder = [seen](GstBin* bin, GstCaps* decoded, std::string* reason) -> GstElement* {
        GstAudioInfo info;
        if (gst_caps_is_fixed(decoded) && gst_audio_info_from_caps(&info, decoded)) {
            seen->rate = GST_AUDIO_INFO_RATE(&info);
            seen->channels = GST_AUDIO_INFO_CHANNELS(&info);
            seen->frameBytes = GST_AUDIO_INFO_BPF(&info);
        }
        GstElement* sink = gst_element_factory_make("fakesink", nullptr);
        if (!sink) {
            *reason = "the media framework's element \"fakesink\" is missing";
            return nullptr;
        }
        g_object_set(sink, "sync", FALSE, nullptr);
        gst_bin_add(bin, sink);
        gst::Ref<GstPad> in(gst_element_get_static_pad(sink, "sink"));
        gst::HandOver();
        gst_pad_add_probe(in.get(), static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                          SeenProbe, new std::shared_ptr<ProbeSeen>(seen), [](gpointer p) {
                              gst::HandOver();
                              delete static_cast<std::shared_ptr<ProbeSeen>*>(p);
                          });
        gst_element_sync_state_with_parent(sink);
        return sink;
    };
    gst::DecodeGraph probe;
    if (!probe.Build(facts_.graphCopy ? facts_.graphCopy->Path() : path, gst::StreamKind::Audio, builder, &why) || !probe.Preroll(&why)) return fail(why);
    // The sink prerolls on its first buffer, or on the end of the stream when none comes: a
    // stream that ended first has nothing to write, and a writer given nothing leaves a header
    // that promises what it never got.
    if (seen->ended && !seen->wholeFrame) return fail(path + ": the audio stream holds no whole sample frame");
    rate_ = seen->rate;
    channels_ = seen->channels;
    const std::int64_t ns = probe.DurationNs();
    duration_ = ns > 0 ? ns / 100 : 0;
    // The graph knows no length for elementary streams (AC-3, DTS …) and counts encoder
    // priming and padding in; libavformat's reading of the stream says what plays.
    if (haveFacts && facts_.samples >= 0 && facts_.rate > 0)
        duration_ = facts_.samples * 10'000'000 / facts_.rate;
    if (rate_ <= 0 && facts_.known) rate_ = facts_.rate;
    if (channels_ <= 0 && facts_.known) channels_ = facts_.channels;
    if (rate_ <= 0 || channels_ <= 0) return fail(path + ": the audio stream has no usable format");
    opened_ = true;
    return true;
}

namespace {

// Sample frames to leave out at the start and where the sound ends, applied to the 16-bit
// interleaved stream just before it is written; a tail the decoder lost is filled with silence.
struct Trim {
    std::int64_t dropStart = 0;
    std::int64_t limit = -1;   // frames the WAVE should hold; -1: whatever comes
    std::int64_t written = 0;
    int frameBytes = 0;
    int rate = 0;
    bool flowing = false;  // a buffer came, so the writer has its format and segment
};

// The trim is filled on the thread that builds the chain, read by the probe on a streaming
// thread and freed on the owner's thread once the graph is down. GStreamer's own locks order
// all three but race detectors cannot see them: each side passes through the hand-over lock.
struct HandOverScope {
    HandOverScope() { gst::HandOver(); }
    ~HandOverScope() { gst::HandOver(); }
};

GstPadProbeReturn TrimProbe(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    HandOverScope ordered;
    Trim* trim = static_cast<std::shared_ptr<Trim>*>(data)->get();
    if (trim->frameBytes <= 0) return GST_PAD_PROBE_OK;
    if (info->type & GST_PAD_PROBE_TYPE_BUFFER) {
        GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        trim->flowing = true;
        const std::int64_t size = static_cast<std::int64_t>(gst_buffer_get_size(buffer));
        std::int64_t frames = size / trim->frameBytes;
        std::int64_t first = 0;
        if (trim->dropStart > 0) {
            first = std::min(trim->dropStart, frames);
            trim->dropStart -= first;
        }
        std::int64_t keep = frames - first;
        if (trim->limit >= 0) keep = std::max<std::int64_t>(0, std::min(keep, trim->limit - trim->written));
        if (keep <= 0) return GST_PAD_PROBE_DROP;
        trim->written += keep;
        if (first == 0 && keep == frames) return GST_PAD_PROBE_OK;
        GstBuffer* part = gst_buffer_copy_region(buffer, GST_BUFFER_COPY_ALL, static_cast<gsize>(first * trim->frameBytes),
                                                 static_cast<gsize>(keep * trim->frameBytes));
        gst_buffer_unref(buffer);
        GST_PAD_PROBE_INFO_DATA(info) = part;
        return GST_PAD_PROBE_OK;
    }
    if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) && GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS) {
        const std::int64_t missing = trim->limit - trim->written;
        // Up to a second lost by the decoder at the very end is silence; more is a damaged or
        // cut file, which keeps what it has. A stream that never flowed gets none: the writer
        // has no format to take it in.
        if (trim->flowing && trim->limit >= 0 && missing > 0 && missing <= trim->rate) {
            GstBuffer* silence = gst_buffer_new_allocate(nullptr, static_cast<gsize>(missing * trim->frameBytes), nullptr);
            gst_buffer_memset(silence, 0, 0, static_cast<gsize>(missing * trim->frameBytes));
            trim->written += missing;
            gst_pad_push(pad, silence);
        }
    }
    return GST_PAD_PROBE_OK;
}

// The speaker a GStreamer channel position stands for in the stereo fold.
Speaker SpeakerOf(GstAudioChannelPosition p)
{
    switch (p) {
    case GST_AUDIO_CHANNEL_POSITION_FRONT_LEFT: return Speaker::FrontLeft;
    case GST_AUDIO_CHANNEL_POSITION_FRONT_RIGHT: return Speaker::FrontRight;
    case GST_AUDIO_CHANNEL_POSITION_FRONT_CENTER:
    case GST_AUDIO_CHANNEL_POSITION_REAR_CENTER:
    case GST_AUDIO_CHANNEL_POSITION_MONO: return Speaker::Centre;
    case GST_AUDIO_CHANNEL_POSITION_REAR_LEFT:
    case GST_AUDIO_CHANNEL_POSITION_SIDE_LEFT:
    case GST_AUDIO_CHANNEL_POSITION_FRONT_LEFT_OF_CENTER:
    case GST_AUDIO_CHANNEL_POSITION_WIDE_LEFT:
    case GST_AUDIO_CHANNEL_POSITION_SURROUND_LEFT: return Speaker::SurroundLeft;
    case GST_AUDIO_CHANNEL_POSITION_REAR_RIGHT:
    case GST_AUDIO_CHANNEL_POSITION_SIDE_RIGHT:
    case GST_AUDIO_CHANNEL_POSITION_FRONT_RIGHT_OF_CENTER:
    case GST_AUDIO_CHANNEL_POSITION_WIDE_RIGHT:
    case GST_AUDIO_CHANNEL_POSITION_SURROUND_RIGHT: return Speaker::SurroundRight;
    case GST_AUDIO_CHANNEL_POSITION_LFE1:
    case GST_AUDIO_CHANNEL_POSITION_LFE2: return Speaker::Lfe;
    default: return Speaker::Other;  // height and unknown channels
    }
}

// The matrix that folds the decoded channels into stereo, by the rule both routes share.
void SetDownmix(GstElement* convert, const GstAudioInfo& info)
{
    const int n = GST_AUDIO_INFO_CHANNELS(&info);
    const bool positioned = !GST_AUDIO_INFO_IS_UNPOSITIONED(&info);
    GValue matrix = G_VALUE_INIT;
    g_value_init(&matrix, GST_TYPE_ARRAY);
    for (int out = 0; out < 2; ++out) {
        GValue row = G_VALUE_INIT;
        g_value_init(&row, GST_TYPE_ARRAY);
        for (int in = 0; in < n; ++in) {
            const StereoGains g = StereoGainsOf(positioned ? SpeakerOf(info.position[in]) : UnnamedSpeaker(in));
            GValue v = G_VALUE_INIT;
            g_value_init(&v, G_TYPE_FLOAT);
            g_value_set_float(&v, static_cast<float>(out == 0 ? g.left : g.right));
            gst_value_array_append_and_take_value(&row, &v);
        }
        gst_value_array_append_and_take_value(&matrix, &row);
    }
    g_object_set_property(G_OBJECT(convert), "mix-matrix", &matrix);
    g_value_unset(&matrix);
}

}  // namespace

bool CGraphAudioReader::Start(const std::string& wavePath, std::string* error)
{
    auto fail = [&](const std::string& why) {
        error_ = why;
        Fail(error, why);
        graph_.reset();  // closes the file before it is removed
        std::error_code ec;
        std::filesystem::remove(wavePath, ec);
        return false;
    };
    EndWriting();  // a writing still running is ended first
    if (!opened_) return fail(wavePath + ": no audio source is open");
    finished_ = false;
    framesWritten_ = 0;
    wavePath_ = wavePath;
    auto trim = std::make_shared<Trim>();
    // The graph plays MPEG audio's own priming (the encoder's gapless note) where libavcodec
    // leaves it out; other containers' edits and pre-skips it honours itself.
    if (facts_.known && facts_.codec == "mp3" && facts_.container == "mp3") trim->dropStart = facts_.startSkip;
    const AudioFacts facts = facts_;
    auto builder = [wavePath, trim, facts](GstBin* bin, GstCaps* decoded, std::string* reason) -> GstElement* {
        // A parser handing out raw sound may expose its pad before its format is settled;
        // the stream's own description then says what will come.
        GstAudioInfo info;
        gst_audio_info_init(&info);
        const bool settled = gst_caps_is_fixed(decoded) && gst_audio_info_from_caps(&info, decoded);
        const int channels = settled ? GST_AUDIO_INFO_CHANNELS(&info) : facts.channels;
        const int rate = settled ? GST_AUDIO_INFO_RATE(&info) : facts.rate;
        if (channels <= 0 || rate <= 0) {
            *reason = "the decoded audio has no usable format";
            return nullptr;
        }
        if (!settled) gst_audio_info_set_format(&info, GST_AUDIO_FORMAT_S16LE, rate, channels, nullptr);
        const int outChannels = channels > 2 ? 2 : channels;
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
        if (channels > 2) SetDownmix(chain[0], info);
        gst::CapsPtr pcm(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "S16LE", "layout", G_TYPE_STRING,
                                             "interleaved", "channels", G_TYPE_INT, outChannels, nullptr));
        if (outChannels == 2)
            gst_caps_set_simple(pcm.get(), "channel-mask", GST_TYPE_BITMASK, static_cast<guint64>(0x3), nullptr);
        g_object_set(chain[1], "caps", pcm.get(), nullptr);
        g_object_set(chain[3], "location", wavePath.c_str(), "sync", FALSE, nullptr);
        if (!gst_element_link_many(chain[0], chain[1], chain[2], chain[3], nullptr)) {
            *reason = "the decoded audio cannot be turned into 16-bit PCM";
            return nullptr;
        }
        trim->frameBytes = 2 * outChannels;
        trim->rate = rate;
        if (facts.known && facts.samples >= 0 && facts.rate > 0)
            trim->limit = facts.rate == rate ? facts.samples : facts.samples * rate / facts.rate;
        gst::Ref<GstPad> out(gst_element_get_static_pad(chain[1], "src"));
        gst::HandOver();
        gst_pad_add_probe(out.get(), static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                          TrimProbe, new std::shared_ptr<Trim>(trim),
                          [](gpointer p) {
                              gst::HandOver();
                              delete static_cast<std::shared_ptr<Trim>*>(p);
                          });
        for (int i = 3; i >= 0; --i) gst_element_sync_state_with_parent(chain[i]);
        return chain[0];
    };
    graph_ = std::make_unique<gst::DecodeGraph>();
    std::string why;
    if (!graph_->Build(facts_.graphCopy ? facts_.graphCopy->Path() : path_, gst::StreamKind::Audio, builder, &why) || !graph_->Preroll(&why) || !graph_->Play(&why))
        return fail(why);
    writing_ = true;
    return true;
}

void CGraphAudioReader::EndWriting()
{
    graph_.reset();  // joins the streaming threads and closes the file
    if (!writing_) return;
    writing_ = false;
    // The writer completes its header only when the end of the stream reaches it: a stream
    // that never started, or a drain cut short, leaves sizes it made up. What is on disk is
    // what the header must say.
    std::string why;
    if (!CompleteWrittenWave(wavePath_, &framesWritten_, &why) && error_.empty()) error_ = path_ + ": " + why;
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
        EndWriting();
        finished_ = true;
    }
    return finished_;
}

void CGraphAudioReader::Stop()
{
    if (graph_) {
        graph_->Drain(5000);
        if (error_.empty()) error_ = graph_->Error();
        EndWriting();
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
    EndWriting();
    opened_ = false;
    finished_ = false;
    rate_ = channels_ = 0;
    duration_ = 0;
    facts_ = AudioFacts{};
}

}  // namespace zub
