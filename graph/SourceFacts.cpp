#include "graph/SourceFacts.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/intreadwrite.h>
}

#include "platform/AvError.h"
#include "platform/AvOwner.h"
#include "platform/AvRotation.h"

namespace zub {
namespace {

using FormatPtr = av::InputPtr;
using av::PacketPtr;

constexpr std::int64_t kTicksPerSecond = 10'000'000;

bool Open(const std::string& path, FormatPtr* out, std::string* error)
{
    AVFormatContext* raw = nullptr;
    int err = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (err < 0) {
        if (error) *error = path + ": " + AvError(err);
        return false;
    }
    out->reset(raw);
    err = avformat_find_stream_info(raw, nullptr);
    if (err < 0) {
        if (error) *error = path + ": cannot read the streams: " + AvError(err);
        return false;
    }
    return true;
}

// OP-Atom files name their operational pattern with item complexity 0x10 (SMPTE's "atom").
bool IsOpAtom(const AVFormatContext* fc)
{
    if (std::strcmp(fc->iformat->name, "mxf") != 0) return false;
    const AVDictionaryEntry* e = av_dict_get(fc->metadata, "operational_pattern_ul", nullptr, 0);
    // "060e2b34.0401010x.0d010201.10xx0000"
    return e && e->value && std::strlen(e->value) >= 29 && std::strncmp(e->value, "060e2b34.040101", 15) == 0 &&
           std::strncmp(e->value + 18, "0d010201.10", 11) == 0;
}

std::string Find(const AVDictionary* dict, std::initializer_list<const char*> keys)
{
    for (const char* key : keys) {
        if (const AVDictionaryEntry* e = av_dict_get(dict, key, nullptr, 0); e && e->value && *e->value) return e->value;
    }
    return {};
}

// Timecode and reel live on the stream, on a timecode track beside it, or on the file,
// depending on the container: the stream's own first, then any other, then the file's.
void TimecodeAndReel(const AVFormatContext* fc, int stream, std::string* timecode, std::string* reel)
{
    const std::initializer_list<const char*> tcKeys = {"timecode"};
    const std::initializer_list<const char*> reelKeys = {"reel_name", "reel", "tape_name", "tape"};
    *timecode = Find(fc->streams[stream]->metadata, tcKeys);
    *reel = Find(fc->streams[stream]->metadata, reelKeys);
    for (unsigned i = 0; i < fc->nb_streams && (timecode->empty() || reel->empty()); ++i) {
        if (timecode->empty()) *timecode = Find(fc->streams[i]->metadata, tcKeys);
        if (reel->empty()) *reel = Find(fc->streams[i]->metadata, reelKeys);
    }
    if (timecode->empty()) *timecode = Find(fc->metadata, tcKeys);
    if (reel->empty()) *reel = Find(fc->metadata, reelKeys);
}

bool IsMov(const AVFormatContext* fc) { return fc->iformat && std::strstr(fc->iformat->name, "mov") != nullptr; }

std::int64_t Ticks(std::int64_t v, AVRational tb) { return av_rescale_q(v, tb, AVRational{1, kTicksPerSecond}); }

}  // namespace

void RateOfDuration(double seconds, int* num, int* den)
{
    *num = *den = 0;
    if (!(seconds > 0)) return;
    const double rate = 1.0 / seconds;
    static const int kStandard[][2] = {{24000, 1001}, {24, 1}, {25, 1},  {30000, 1001}, {30, 1}, {48, 1},
                                       {50, 1},       {60000, 1001}, {60, 1}, {15, 1},   {12, 1}, {10, 1},
                                       {100, 1},      {120000, 1001}, {120, 1}};
    // 24 and 24000/1001 lie within 0.1% of each other: the nearest standard wins.
    double best = 0;
    for (const auto& s : kStandard) {
        const double r = static_cast<double>(s[0]) / s[1];
        const double off = std::fabs(rate - r);
        if (off <= r * 0.001 && (*num == 0 || off < best)) {
            *num = s[0];
            *den = s[1];
            best = off;
        }
    }
    if (*num != 0) return;
    const AVRational q = av_d2q(rate, 1000000);
    *num = q.num;
    *den = q.den;
}

namespace {

// A video stream's frame times as the container gives them.
struct VideoWalk {
    std::vector<std::int64_t> stamps;  // presentation times, in the stream's time base
    std::int64_t lastDuration = 0;
    std::int64_t untimed = 0;          // packets that carry no presentation time
    std::int64_t count = 0;
};

// A sound stream's length as its packets hold it.
struct AudioWalk {
    std::int64_t total = 0, skipped = 0, startSkip = 0;
    bool first = true, timed = true;
};

// Everything both readers and the tape block want of one source, from one open and at most
// one walk through its packets: a reader of the picture and one of the sound open the same
// file in turn, and for containers without an index each walk reads the whole file.
struct SourceRead {
    std::string error;  // the file cannot be read at all
    bool haveVideo = false, haveAudio = false, haveTape = false;
    std::string videoError, audioError, tapeError;
    VideoFacts video;
    AudioFacts audio;
    std::string timecode, reel;  // of the stream the tape block takes: the picture, else the sound
};

int VideoIndex(const AVFormatContext* fc)
{
    for (unsigned i = 0; i < fc->nb_streams; ++i) {
        const AVStream* st = fc->streams[i];
        if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC))
            return static_cast<int>(i);
    }
    return -1;
}

void VideoHeader(AVFormatContext* fc, int index, VideoFacts* f)
{
    AVStream* st = fc->streams[index];
    f->container = fc->iformat->name;
    f->codec = avcodec_get_name(st->codecpar->codec_id);
    f->opAtom = IsOpAtom(fc);
    f->rotation = av::ClockwiseRotation(st);
    const AVRational sar = av_guess_sample_aspect_ratio(fc, st, nullptr);
    if (sar.num > 0 && sar.den > 0) {
        AVRational r = av_make_q(sar.num, sar.den);
        av_reduce(&f->parNum, &f->parDen, r.num, r.den, 1 << 20);
    }
    TimecodeAndReel(fc, index, &f->timecode, &f->reel);
}

void TakeVideoPacket(const AVPacket& pkt, VideoWalk* w)
{
    ++w->count;
    // Frames without a presentation time (PES packets that carry none) fill the holes they
    // leave in the others' spacing, or follow the last one.
    if (pkt.pts != AV_NOPTS_VALUE) {
        w->stamps.push_back(pkt.pts);
    } else {
        ++w->untimed;
    }
    if (pkt.duration > 0) w->lastDuration = pkt.duration;
}

void TakeAudioPacket(AVPacket& pkt, AVRational timeBase, AVRational perSample, AudioWalk* w)
{
    if (pkt.duration > 0) {
        w->total += av_rescale_q(pkt.duration, timeBase, perSample);
    } else {
        w->timed = false;
    }
    std::size_t size = 0;
    if (const std::uint8_t* side = av_packet_get_side_data(&pkt, AV_PKT_DATA_SKIP_SAMPLES, &size); side && size >= 8) {
        const std::int64_t start = AV_RL32(side), end = AV_RL32(side + 4);
        if (w->first) w->startSkip = start;
        w->skipped += start + end;
    }
    w->first = false;
}

void FinishVideo(const AVFormatContext* fc, const AVStream* st, VideoWalk& w, VideoFacts* f)
{
    std::vector<std::int64_t>& stamps = w.stamps;
    std::int64_t lastDuration = w.lastDuration;
    const std::int64_t untimed = w.untimed;
    f->frames = IsMov(fc) ? static_cast<std::int64_t>(stamps.size()) : w.count;
    std::sort(stamps.begin(), stamps.end());

    // Frame durations: the rate is what the short durations say (a source that slows down
    // later still has its first rate), the rate varies when durations stray beyond timestamp
    // rounding.
    std::vector<std::int64_t> gaps;
    for (std::size_t i = 1; i < stamps.size(); ++i) gaps.push_back(stamps[i] - stamps[i - 1]);
    if (!gaps.empty()) {
        std::vector<std::int64_t> sorted = gaps;
        std::sort(sorted.begin(), sorted.end());
        const std::int64_t typical = sorted[sorted.size() / 4];
        int stray = 0;
        const std::int64_t tolerance = std::max<std::int64_t>(2, typical / 50);
        double sum = 0;
        int near = 0;
        std::int64_t holes = 0;
        for (std::int64_t g : gaps) {
            const std::int64_t m = typical > 0 ? (g + typical / 2) / typical : 0;
            if (m >= 2 && std::llabs(g - m * typical) <= tolerance * m && holes + m - 1 <= untimed) {
                holes += m - 1;  // untimed frames sit here
            } else if (std::llabs(g - typical) > tolerance) {
                ++stray;
            } else {
                sum += static_cast<double>(g);
                ++near;
            }
        }
        // A few odd durations (a dropped frame, a cut) do not make a variable rate.
        f->variableRate = static_cast<std::size_t>(stray) > std::max<std::size_t>(1, gaps.size() / 50);
        const double seconds = near ? sum / near * av_q2d(st->time_base) : 0;
        if (!f->variableRate) RateOfDuration(seconds, &f->rateNum, &f->rateDen);
        if (lastDuration <= 0) lastDuration = typical;
        for (std::int64_t i = holes + 1; i <= untimed; ++i) stamps.push_back(stamps.back() + typical);
    }
    if (!f->variableRate && f->rateNum == 0 && st->avg_frame_rate.num > 0 && st->avg_frame_rate.den > 0)
        RateOfDuration(av_q2d(av_inv_q(st->avg_frame_rate)), &f->rateNum, &f->rateDen);

    if (IsMov(fc) && st->duration != AV_NOPTS_VALUE && st->duration > 0) {
        f->span = Ticks(st->duration, st->time_base);  // what the edit keeps
    } else if (stamps.size() >= 1) {
        f->span = Ticks(stamps.back() - stamps.front() + lastDuration, st->time_base);
    }
    f->known = true;
}

SourceRead ReadSource(const std::string& path)
{
    SourceRead r;
    FormatPtr fc;
    if (!Open(path, &fc, &r.error)) return r;
    const bool mov = IsMov(fc.get());

    int tapeIndex = av_find_best_stream(fc.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (tapeIndex < 0) tapeIndex = av_find_best_stream(fc.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (tapeIndex >= 0) {
        r.haveTape = true;
        TimecodeAndReel(fc.get(), tapeIndex, &r.timecode, &r.reel);
    } else {
        r.tapeError = path + ": has neither picture nor sound";
    }

    const int v = VideoIndex(fc.get());
    VideoWalk vw;
    if (v < 0) {
        r.videoError = path + ": has no video stream";
    } else {
        VideoHeader(fc.get(), v, &r.video);
        if (mov) {
            // The movie's sample table is complete: no need to read the samples themselves.
            AVStream* st = fc->streams[v];
            const int n = avformat_index_get_entries_count(st);
            vw.stamps.reserve(static_cast<std::size_t>(std::max(n, 0)));
            for (int i = 0; i < n; ++i) {
                const AVIndexEntry* e = avformat_index_get_entry(st, i);
                if (!e || (e->flags & AVINDEX_DISCARD_FRAME) || e->timestamp == AV_NOPTS_VALUE) continue;
                vw.stamps.push_back(e->timestamp);
            }
        }
    }

    int a = av_find_best_stream(fc.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    AVRational perSample{1, 1};
    if (a < 0) {
        r.audioError = path + ": has no audio stream";
    } else {
        const AVStream* st = fc->streams[a];
        AudioFacts& f = r.audio;
        f.container = fc->iformat->name;
        f.codec = avcodec_get_name(st->codecpar->codec_id);
        f.rate = st->codecpar->sample_rate;
        f.channels = st->codecpar->ch_layout.nb_channels;
        f.opAtom = IsOpAtom(fc.get());
        TimecodeAndReel(fc.get(), a, &f.timecode, &f.reel);
        if (f.rate <= 0) {
            r.audioError = path + ": the audio stream has no sample rate";
            a = -1;
        } else {
            perSample = AVRational{1, f.rate};
        }
    }

    // One walk for both: the picture's packets where no index gives its frames, the sound's
    // always (its length is what its packets hold less what the container says to leave out,
    // priming at the start and padding at the end, as a decoder honouring the container plays
    // it). Only the streams walked are read from here on; the packets find_stream_info read
    // ahead stay queued and come out first, so nothing is missed or counted twice (seeking back
    // instead loses frames in some demuxers, raw DV among them).
    const int walkVideo = v >= 0 && !mov ? v : -1;
    AudioWalk aw;
    if (walkVideo >= 0 || a >= 0) {
        for (unsigned i = 0; i < fc->nb_streams; ++i) {
            const int k = static_cast<int>(i);
            fc->streams[i]->discard = k == walkVideo || k == a ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        const AVRational audioBase = a >= 0 ? fc->streams[a]->time_base : AVRational{1, 1};
        PacketPtr pkt(av_packet_alloc());
        while (av_read_frame(fc.get(), pkt.get()) >= 0) {
            if (pkt->stream_index == walkVideo) TakeVideoPacket(*pkt, &vw);
            if (pkt->stream_index == a) TakeAudioPacket(*pkt, audioBase, perSample, &aw);
            av_packet_unref(pkt.get());
        }
    }

    if (v >= 0) {
        FinishVideo(fc.get(), fc->streams[v], vw, &r.video);
        r.haveVideo = true;
    }
    if (a >= 0) {
        const AVStream* st = fc->streams[a];
        AudioFacts& f = r.audio;
        f.startSkip = aw.startSkip;
        if (aw.timed && aw.total > 0) f.samples = std::max<std::int64_t>(0, aw.total - aw.skipped);
        // A movie's edit says how long the sound plays; it also cuts the last block's padding.
        if (st->duration != AV_NOPTS_VALUE && st->duration > 0 && mov) {
            const std::int64_t edit = av_rescale_q(st->duration, st->time_base, perSample);
            f.samples = f.samples < 0 ? edit : std::min(f.samples, edit);
        }
        if (f.samples < 0 && fc->duration != AV_NOPTS_VALUE && fc->duration > 0)
            f.samples = av_rescale_q(fc->duration, AV_TIME_BASE_Q, perSample);
        f.known = true;
        r.haveAudio = true;
    }
    return r;
}

// The last source read, kept while the file stays as it was (same size, same modification
// time): the readers of its picture and sound, and the tape block at the end, ask in turn.
SourceRead ReadSourceOnce(const std::string& path)
{
    static std::mutex mutex;
    static std::string lastPath;
    static std::uintmax_t lastSize = 0;
    static std::filesystem::file_time_type lastTime;
    static std::optional<SourceRead> last;
    std::error_code sizeError, timeError;
    const std::uintmax_t size = std::filesystem::file_size(path, sizeError);
    const std::filesystem::file_time_type time = std::filesystem::last_write_time(path, timeError);
    const bool keyed = !sizeError && !timeError;
    std::lock_guard<std::mutex> lock(mutex);
    if (keyed && last && lastPath == path && lastSize == size && lastTime == time) return *last;
    SourceRead r = ReadSource(path);
    if (keyed) {
        lastPath = path;
        lastSize = size;
        lastTime = time;
        last = r;
    } else {
        last.reset();
    }
    return r;
}

}  // namespace

bool ReadVideoFacts(const std::string& path, VideoFacts* facts, std::string* error)
{
    *facts = VideoFacts{};
    SourceRead r = ReadSourceOnce(path);
    if (!r.error.empty() || !r.haveVideo) {
        if (error) *error = !r.error.empty() ? r.error : r.videoError;
        return false;
    }
    *facts = std::move(r.video);
    return true;
}

bool ReadAudioFacts(const std::string& path, AudioFacts* facts, std::string* error)
{
    *facts = AudioFacts{};
    SourceRead r = ReadSourceOnce(path);
    if (!r.error.empty() || !r.haveAudio) {
        if (error) *error = !r.error.empty() ? r.error : r.audioError;
        return false;
    }
    *facts = std::move(r.audio);
    return true;
}

bool ReadTapeAndTimecode(const std::string& path, std::string* tape, std::string* timecode, std::string* error)
{
    *tape = "";
    *timecode = "00:00:00:00";
    const SourceRead r = ReadSourceOnce(path);
    if (!r.error.empty() || !r.haveTape) {
        if (error) *error = !r.error.empty() ? r.error : r.tapeError;
        return false;
    }
    const std::string& tc = r.timecode;
    const std::string& reel = r.reel;
    // Only the block's own form is taken: two digits, a separator, ... eleven characters.
    const bool wellFormed = tc.size() == 11 && tc[2] == ':' && tc[5] == ':' && (tc[8] == ':' || tc[8] == ';' || tc[8] == '.') &&
                            std::all_of(tc.begin(), tc.end(), [](char c) { return (c >= '0' && c <= '9') || c == ':' || c == ';' || c == '.'; });
    if (wellFormed) *timecode = tc;
    *tape = reel.substr(0, 255);
    return true;
}

std::string VariableRateNote(const std::string& path, bool conformed, std::int64_t timePerFrame, std::int64_t repeated,
                             std::int64_t dropped)
{
    std::string note = path + ": variable frame rate";
    if (!conformed || timePerFrame <= 0) return note + ", frames kept as delivered";
    int num = 0, den = 0;
    RateOfDuration(static_cast<double>(timePerFrame) / kTicksPerSecond, &num, &den);
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.3f", den > 0 ? static_cast<double>(num) / den : 0.0);
    // 29.970 reads as 29.97, 25.000 as 25.
    std::string r = rate;
    while (r.back() == '0') r.pop_back();
    if (r.back() == '.') r.pop_back();
    auto frames = [](std::int64_t n) { return std::to_string(n) + (n == 1 ? " frame" : " frames"); };
    return note + ", conformed to " + r + " fps: " + frames(repeated) + " repeated, " + frames(dropped) + " dropped";
}

GraphCopy::~GraphCopy()
{
    if (!path_.empty()) std::remove(path_.c_str());
}

bool MakeGraphCopy(const std::string& path, std::shared_ptr<const GraphCopy>* copy, std::string* error)
{
    copy->reset();
    auto fail = [&](const std::string& why) {
        if (error) *error = path + ": " + why;
        return false;
    };
    FormatPtr in;
    if (!Open(path, &in, error)) return false;

    const char* tmp = std::getenv("TMPDIR");
    std::string name = std::string(tmp && *tmp ? tmp : "/tmp") + "/zubimport-copy-XXXXXX.mov";
    const int fd = ::mkstemps(name.data(), 4);
    if (fd < 0) return fail("cannot make a scratch copy in " + name.substr(0, name.rfind('/')) + ": " + std::strerror(errno));
    ::close(fd);
    // From here on the scratch file goes with this holder, whichever way the copy ends.
    auto made = std::make_shared<const GraphCopy>(name);

    AVFormatContext* raw = nullptr;
    int err = avformat_alloc_output_context2(&raw, nullptr, "mov", name.c_str());
    if (err < 0 || !raw) return fail("cannot make a scratch copy: " + AvError(err));
    av::OutputPtr out(raw);
    std::vector<int> map(in->nb_streams, -1);
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        const AVStream* st = in->streams[i];
        const AVMediaType type = st->codecpar->codec_type;
        if ((type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) || (st->disposition & AV_DISPOSITION_ATTACHED_PIC))
            continue;
        AVStream* o = avformat_new_stream(out.get(), nullptr);
        if (!o || avcodec_parameters_copy(o->codecpar, st->codecpar) < 0) return fail("out of memory");
        o->codecpar->codec_tag = 0;  // the new container's own tag for the codec
        o->time_base = st->time_base;
        map[i] = o->index;
    }
    if (out->nb_streams == 0) return fail("has neither picture nor sound to read");
    if ((err = avio_open(&out->pb, name.c_str(), AVIO_FLAG_WRITE)) < 0) return fail("cannot write " + name + ": " + AvError(err));
    if ((err = avformat_write_header(out.get(), nullptr)) < 0)
        return fail("cannot copy its streams into " + name + ": " + AvError(err));
    PacketPtr pkt(av_packet_alloc());
    if (!pkt) return fail("out of memory");
    while ((err = av_read_frame(in.get(), pkt.get())) >= 0) {
        const int to = map[static_cast<std::size_t>(pkt->stream_index)];
        if (to < 0) {
            av_packet_unref(pkt.get());
            continue;
        }
        av_packet_rescale_ts(pkt.get(), in->streams[pkt->stream_index]->time_base, out->streams[to]->time_base);
        pkt->stream_index = to;
        pkt->pos = -1;
        if ((err = av_interleaved_write_frame(out.get(), pkt.get())) < 0)
            return fail("cannot copy its streams into " + name + ": " + AvError(err));
    }
    if (err != AVERROR_EOF) return fail("cannot read: " + AvError(err));
    if ((err = av_write_trailer(out.get())) < 0) return fail("cannot finish the copy " + name + ": " + AvError(err));
    out.reset();  // closes the file before anyone reads it
    *copy = std::move(made);
    return true;
}

}  // namespace zub
