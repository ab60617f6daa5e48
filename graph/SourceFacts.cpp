#include "graph/SourceFacts.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
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

// Only stream `index` is read from here on. The packets find_stream_info has read ahead stay
// queued and come out first, so nothing is missed or counted twice (seeking back instead
// loses frames in some demuxers, raw DV among them).
void OnlyStream(AVFormatContext* c, int index)
{
    for (unsigned i = 0; i < c->nb_streams; ++i)
        c->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
}

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

bool ReadVideoFacts(const std::string& path, VideoFacts* facts, std::string* error)
{
    *facts = VideoFacts{};
    FormatPtr fc;
    if (!Open(path, &fc, error)) return false;
    int index = -1;
    for (unsigned i = 0; i < fc->nb_streams; ++i) {
        const AVStream* st = fc->streams[i];
        if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            index = static_cast<int>(i);
            break;
        }
    }
    if (index < 0) {
        if (error) *error = path + ": has no video stream";
        return false;
    }
    AVStream* st = fc->streams[index];
    VideoFacts f;
    f.container = fc->iformat->name;
    f.codec = avcodec_get_name(st->codecpar->codec_id);
    f.opAtom = IsOpAtom(fc.get());

    f.rotation = av::ClockwiseRotation(st);
    const AVRational sar = av_guess_sample_aspect_ratio(fc.get(), st, nullptr);
    if (sar.num > 0 && sar.den > 0) {
        AVRational r = av_make_q(sar.num, sar.den);
        av_reduce(&f.parNum, &f.parDen, r.num, r.den, 1 << 20);
    }
    TimecodeAndReel(fc.get(), index, &f.timecode, &f.reel);

    // Every frame's presentation time, in the stream's time base.
    std::vector<std::int64_t> stamps;
    std::int64_t lastDuration = 0;
    std::int64_t untimed = 0;
    if (IsMov(fc.get())) {
        // The movie's sample table is complete: no need to read the samples themselves.
        const int n = avformat_index_get_entries_count(st);
        stamps.reserve(static_cast<std::size_t>(std::max(n, 0)));
        for (int i = 0; i < n; ++i) {
            const AVIndexEntry* e = avformat_index_get_entry(st, i);
            if (!e || (e->flags & AVINDEX_DISCARD_FRAME) || e->timestamp == AV_NOPTS_VALUE) continue;
            stamps.push_back(e->timestamp);
        }
    } else {
        for (unsigned i = 0; i < fc->nb_streams; ++i)
            fc->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        OnlyStream(fc.get(), index);
        PacketPtr pkt(av_packet_alloc());
        std::int64_t count = 0;
        while (av_read_frame(fc.get(), pkt.get()) >= 0) {
            if (pkt->stream_index == index) {
                ++count;
                // Frames without a presentation time (PES packets that carry none) fill the
                // holes they leave in the others' spacing, or follow the last one.
                if (pkt->pts != AV_NOPTS_VALUE) {
                    stamps.push_back(pkt->pts);
                } else {
                    ++untimed;
                }
                if (pkt->duration > 0) lastDuration = pkt->duration;
            }
            av_packet_unref(pkt.get());
        }
        f.frames = count;
    }
    if (IsMov(fc.get())) f.frames = static_cast<std::int64_t>(stamps.size());
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
        f.variableRate = static_cast<std::size_t>(stray) > std::max<std::size_t>(1, gaps.size() / 50);
        const double seconds = near ? sum / near * av_q2d(st->time_base) : 0;
        if (!f.variableRate) RateOfDuration(seconds, &f.rateNum, &f.rateDen);
        if (lastDuration <= 0) lastDuration = typical;
        for (std::int64_t i = holes + 1; i <= untimed; ++i) stamps.push_back(stamps.back() + typical);
    }
    if (!f.variableRate && f.rateNum == 0 && st->avg_frame_rate.num > 0 && st->avg_frame_rate.den > 0)
        RateOfDuration(av_q2d(av_inv_q(st->avg_frame_rate)), &f.rateNum, &f.rateDen);

    if (IsMov(fc.get()) && st->duration != AV_NOPTS_VALUE && st->duration > 0) {
        f.span = Ticks(st->duration, st->time_base);  // what the edit keeps
    } else if (stamps.size() >= 1) {
        f.span = Ticks(stamps.back() - stamps.front() + lastDuration, st->time_base);
    }
    f.known = true;
    *facts = std::move(f);
    return true;
}

bool ReadAudioFacts(const std::string& path, AudioFacts* facts, std::string* error)
{
    *facts = AudioFacts{};
    FormatPtr fc;
    if (!Open(path, &fc, error)) return false;
    const int index = av_find_best_stream(fc.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0) {
        if (error) *error = path + ": has no audio stream";
        return false;
    }
    AVStream* st = fc->streams[index];
    AudioFacts f;
    f.container = fc->iformat->name;
    f.codec = avcodec_get_name(st->codecpar->codec_id);
    f.rate = st->codecpar->sample_rate;
    f.channels = st->codecpar->ch_layout.nb_channels;
    f.opAtom = IsOpAtom(fc.get());
    TimecodeAndReel(fc.get(), index, &f.timecode, &f.reel);
    if (f.rate <= 0) {
        if (error) *error = path + ": the audio stream has no sample rate";
        return false;
    }
    const AVRational perSample{1, f.rate};

    // The sound's length is what its packets hold less what the container says to leave out
    // (priming at the start, padding at the end), as a decoder honouring the container plays it.
    OnlyStream(fc.get(), index);
    PacketPtr pkt(av_packet_alloc());
    std::int64_t total = 0, skipped = 0;
    bool first = true, timed = true;
    while (av_read_frame(fc.get(), pkt.get()) >= 0) {
        if (pkt->stream_index == index) {
            if (pkt->duration > 0) {
                total += av_rescale_q(pkt->duration, st->time_base, perSample);
            } else {
                timed = false;
            }
            std::size_t size = 0;
            if (const std::uint8_t* side = av_packet_get_side_data(pkt.get(), AV_PKT_DATA_SKIP_SAMPLES, &size);
                side && size >= 8) {
                const std::int64_t start = AV_RL32(side), end = AV_RL32(side + 4);
                if (first) f.startSkip = start;
                skipped += start + end;
            }
            first = false;
        }
        av_packet_unref(pkt.get());
    }
    if (timed && total > 0) f.samples = std::max<std::int64_t>(0, total - skipped);
    // A movie's edit says how long the sound plays; it also cuts the last block's padding.
    if (st->duration != AV_NOPTS_VALUE && st->duration > 0 && IsMov(fc.get())) {
        const std::int64_t edit = av_rescale_q(st->duration, st->time_base, perSample);
        f.samples = f.samples < 0 ? edit : std::min(f.samples, edit);
    }
    if (f.samples < 0 && fc->duration != AV_NOPTS_VALUE && fc->duration > 0)
        f.samples = av_rescale_q(fc->duration, AV_TIME_BASE_Q, perSample);
    f.known = true;
    *facts = std::move(f);
    return true;
}

bool ReadTapeAndTimecode(const std::string& path, std::string* tape, std::string* timecode, std::string* error)
{
    *tape = "";
    *timecode = "00:00:00:00";
    FormatPtr fc;
    if (!Open(path, &fc, error)) return false;
    int index = av_find_best_stream(fc.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) index = av_find_best_stream(fc.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0) {
        if (error) *error = path + ": has neither picture nor sound";
        return false;
    }
    std::string tc, reel;
    TimecodeAndReel(fc.get(), index, &tc, &reel);
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
