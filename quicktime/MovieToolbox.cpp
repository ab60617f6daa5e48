#include "quicktime/MovieToolbox.h"
#include "platform/DecoderThreads.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/intreadwrite.h>
#include <libswscale/swscale.h>
}

#include "platform/AvError.h"
#include "platform/AvRotation.h"
#include "platform/Error.h"

namespace zub::qt {

namespace {

// Movie times are 32-bit; a timestamp beyond that range ends the table rather than wrap.
bool FitsTimeValue(std::int64_t v)
{
    return v >= 0 && v <= std::numeric_limits<TimeValue>::max();
}

bool IsMovDemuxer(const AVInputFormat* f)
{
    return f && f->name && std::strstr(f->name, "mov") != nullptr;
}

}  // namespace

std::string OSTypeText(OSType type)
{
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>((type >> (24 - 8 * i)) & 0xFF);
        s[i] = (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return s;
}

OSErr InitializeQTML(long /*flags*/)
{
    // Everything the toolbox stands for lives in libavformat's mov demuxer.
    return av_find_input_format("mov") ? noErr : cantFindHandler;
}

void TerminateQTML() {}

// FFmpeg's log level is the host's to choose; the toolbox leaves it alone.
OSErr EnterMovies() { return noErr; }

void ExitMovies() {}

OSErr NativePathNameToFSSpec(const char* path, FSSpec* spec, long /*flags*/)
{
    if (!path || !*path || !spec) return paramErr;
    spec->path = path;
    return noErr;
}

OSErr FSpGetFInfo(const FSSpec& spec, OSType* fileType)
{
    struct stat st {};
    if (::stat(spec.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return fnfErr;
    *fileType = UnknownFileType;
    unsigned char info[32] = {};
    const ssize_t n = ::getxattr(spec.path.c_str(), "user.com.apple.FinderInfo", info, sizeof info);
    if (n >= 4) {
        const OSType t = (OSType(info[0]) << 24) | (OSType(info[1]) << 16) | (OSType(info[2]) << 8) | OSType(info[3]);
        if (t != 0) *fileType = t;
    }
    return noErr;
}

OSErr OpenMovieFile(const FSSpec& spec, std::unique_ptr<MovieFile>* file, int permission)
{
    // Sources are never written: a request for write access is refused so the caller falls
    // back to read-only, as it would on a locked file.
    if (permission != fsRdPerm) return paramErr;
    std::FILE* f = std::fopen(spec.path.c_str(), "rb");
    if (!f) return fnfErr;
    std::fclose(f);
    *file = std::make_unique<MovieFile>(MovieFile{spec.path});
    return noErr;
}

OSErr CloseMovieFile(std::unique_ptr<MovieFile>& file)
{
    file.reset();
    return noErr;
}

// ---- Movie ----

void Movie::FormatCloser::operator()(AVFormatContext* c) const { avformat_close_input(&c); }
void Movie::CodecCloser::operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
void Movie::FrameFree::operator()(AVFrame* f) const { av_frame_free(&f); }
void Movie::PacketFree::operator()(AVPacket* p) const { av_packet_free(&p); }
void Movie::SwsFree::operator()(SwsContext* s) const { sws_freeContext(s); }

Movie::~Movie() = default;

std::unique_ptr<Movie> Movie::NewEmpty() { return std::unique_ptr<Movie>(new Movie()); }

OSErr Movie::FromFile(const MovieFile& file, std::unique_ptr<Movie>* movie, std::string* why)
{
    std::unique_ptr<Movie> m(new Movie());
    const OSErr err = m->OpenFormat(file.path, true, why);
    if (err != noErr) return err;
    *movie = std::move(m);
    return noErr;
}

OSErr Movie::ImportFile(const FSSpec& spec, std::string* why)
{
    if (format_) {
        Fail(why, spec.path + ": the movie already holds a file");
        return paramErr;
    }
    return OpenFormat(spec.path, false, why);
}

OSErr Movie::OpenFormat(const std::string& path, bool movieOnly, std::string* why)
{
    path_ = path;
    AVFormatContext* raw = nullptr;
    int err = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (err < 0) {
        Fail(why, path + ": cannot open: " + AvError(err));
        return err == AVERROR(ENOENT) ? fnfErr : couldNotResolveDataRef;
    }
    format_.reset(raw);
    if (movieOnly && !IsMovDemuxer(format_->iformat)) {
        Fail(why, path + ": not a QuickTime or MPEG-4 movie (" + format_->iformat->name + ")");
        format_.reset();
        return invalidMovie;
    }
    err = avformat_find_stream_info(format_.get(), nullptr);
    if (err < 0) {
        Fail(why, path + ": cannot read the movie's tracks: " + AvError(err));
        format_.reset();
        return invalidMovie;
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        const AVStream* st = format_->streams[i];
        if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC) &&
            st->codecpar->width > 0 && st->codecpar->height > 0) {
            videoStream_ = static_cast<int>(i);
            rotation_ = av::ClockwiseRotation(st);
            break;
        }
    }
    BuildVideoTimes();
    return noErr;
}

void Movie::BuildVideoTimes()
{
    videoTimes_.clear();
    if (videoStream_ < 0) return;
    AVStream* st = format_->streams[videoStream_];
    const int n = avformat_index_get_entries_count(st);
    std::vector<std::int64_t> stamps;
    stamps.reserve(static_cast<std::size_t>(std::max(n, 0)));
    for (int i = 0; i < n; ++i) {
        const AVIndexEntry* e = avformat_index_get_entry(st, i);
        if (!e || (e->flags & AVINDEX_DISCARD_FRAME) || e->timestamp == AV_NOPTS_VALUE) continue;
        stamps.push_back(e->timestamp);
    }
    if (n > 0 && avformat_index_get_entry(st, 0)) firstStamp_ = avformat_index_get_entry(st, 0)->timestamp;
    if (stamps.empty()) return;
    std::sort(stamps.begin(), stamps.end());
    // The index holds decoding times; frames are shown from the stream's start time on, so
    // the first sample is placed there (decoding times of reordered video start earlier).
    std::int64_t start = st->start_time != AV_NOPTS_VALUE ? st->start_time : stamps.front();
    if (start < 0) start = 0;
    timeOffset_ = stamps.front() - start;
    for (std::int64_t s : stamps) {
        const std::int64_t t = s - timeOffset_;
        if (!FitsTimeValue(t)) break;
        videoTimes_.push_back(static_cast<TimeValue>(t));
    }
}

namespace {

// Turns a packed BGR picture `w` x `h` clockwise by `degrees` into the world's bitmap, whose
// size is the turned one.
void TurnInto(const std::uint8_t* src, int w, int h, int degrees, const GWorld& world)
{
    const std::size_t stride = static_cast<std::size_t>(w) * 3;
    for (int r = 0; r < world.height; ++r) {
        std::uint8_t* d = world.bits + world.stride * static_cast<std::size_t>(r);
        for (int c = 0; c < world.width; ++c, d += 3) {
            // The stored pixel that lands at row r, column c of the upright picture.
            int sr = 0, sc = 0;
            if (degrees == 90) {
                sr = h - 1 - c;
                sc = r;
            } else if (degrees == 180) {
                sr = h - 1 - r;
                sc = w - 1 - c;
            } else {
                sr = c;
                sc = w - 1 - r;
            }
            const std::uint8_t* s = src + stride * static_cast<std::size_t>(sr) + static_cast<std::size_t>(sc) * 3;
            d[0] = s[0];
            d[1] = s[1];
            d[2] = s[2];
        }
    }
}

}  // namespace

Rect Movie::Box() const
{
    Rect r;
    if (format_ && videoStream_ >= 0) {
        r.right = format_->streams[videoStream_]->codecpar->width;
        r.bottom = format_->streams[videoStream_]->codecpar->height;
        if (rotation_ == 90 || rotation_ == 270) std::swap(r.right, r.bottom);
    }
    return r;
}

TimeValue Movie::NextInterestingTime(int flags, OSType mediaType, TimeValue time, Fixed /*rate*/) const
{
    if (mediaType != VideoMediaType || !(flags & nextTimeMediaSample) || videoTimes_.empty()) return -1;
    const auto it = (flags & nextTimeEdgeOK) ? std::lower_bound(videoTimes_.begin(), videoTimes_.end(), time)
                                             : std::upper_bound(videoTimes_.begin(), videoTimes_.end(), time);
    return it == videoTimes_.end() ? -1 : *it;
}

void Movie::VideoTimeBase(int* num, int* den) const
{
    *num = *den = 0;
    if (!format_ || videoStream_ < 0) return;
    *num = format_->streams[videoStream_]->time_base.num;
    *den = format_->streams[videoStream_]->time_base.den;
}

std::size_t Movie::OrdinalAt(TimeValue time) const
{
    // The frame shown at a time is the last sample starting at or before it; decoded frames
    // come out in display order, so its place in the sorted table is its place in the output.
    const auto it = std::upper_bound(videoTimes_.begin(), videoTimes_.end(), time);
    return it == videoTimes_.begin() ? 0 : static_cast<std::size_t>(it - videoTimes_.begin()) - 1;
}

bool Movie::RestartVideo(std::string* why)
{
    AVStream* st = format_->streams[videoStream_];
    if (!videoCodec_) {
        const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
        if (!codec) {
            Fail(why, path_ + ": no decoder for video codec " + avcodec_get_name(st->codecpar->codec_id));
            return false;
        }
        videoCodec_.reset(avcodec_alloc_context3(codec));
        decoded_.reset(av_frame_alloc());
        shown_.reset(av_frame_alloc());
        packet_.reset(av_packet_alloc());
        if (!videoCodec_ || !decoded_ || !shown_ || !packet_) {
            Fail(why, path_ + ": out of memory");
            return false;
        }
        int err = avcodec_parameters_to_context(videoCodec_.get(), st->codecpar);
        if (err >= 0) {
            videoCodec_->thread_count = zub::av::DecoderFrameThreads(st->codecpar->width, st->codecpar->height);
            videoCodec_->pkt_timebase = st->time_base;
            err = avcodec_open2(videoCodec_.get(), codec, nullptr);
        }
        if (err < 0) {
            Fail(why, path_ + ": cannot open the video decoder: " + AvError(err));
            videoCodec_.reset();
            return false;
        }
        for (unsigned i = 0; i < format_->nb_streams; ++i)
            format_->streams[i]->discard = static_cast<int>(i) == videoStream_ ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    } else {
        const int err = av_seek_frame(format_.get(), videoStream_, firstStamp_, AVSEEK_FLAG_BACKWARD);
        if (err < 0) {
            Fail(why, path_ + ": cannot go back to the first frame: " + AvError(err));
            return false;
        }
        avcodec_flush_buffers(videoCodec_.get());
    }
    nextOrdinal_ = 0;
    haveShown_ = false;
    demuxEnded_ = false;
    decoderEnded_ = false;
    return true;
}

bool Movie::DecodeOrdinal(std::size_t ordinal, std::string* why)
{
    if (haveShown_ && shownOrdinal_ == ordinal) return true;
    if (!videoCodec_ || ordinal < nextOrdinal_) {
        if (!RestartVideo(why)) return false;
    }
    while (nextOrdinal_ <= ordinal) {
        int err = avcodec_receive_frame(videoCodec_.get(), decoded_.get());
        if (err >= 0) {
            // Every frame passes through "shown", so past the end the last one stays.
            std::swap(decoded_, shown_);
            haveShown_ = true;
            shownOrdinal_ = nextOrdinal_;
            av_frame_unref(decoded_.get());
            ++nextOrdinal_;
            continue;
        }
        if (err == AVERROR_EOF) {
            decoderEnded_ = true;
            break;
        }
        if (err == AVERROR_INVALIDDATA) continue;  // a damaged frame: the last good one stays
        if (err != AVERROR(EAGAIN)) {
            Fail(why, path_ + ": video decoding failed: " + AvError(err));
            return false;
        }
        if (demuxEnded_) {
            err = avcodec_send_packet(videoCodec_.get(), nullptr);
            if (err < 0 && err != AVERROR_EOF) {
                Fail(why, path_ + ": video decoding failed: " + AvError(err));
                return false;
            }
            continue;
        }
        err = av_read_frame(format_.get(), packet_.get());
        if (err < 0) {
            if (err != AVERROR_EOF && !avio_feof(format_->pb)) {
                Fail(why, path_ + ": cannot read the video track: " + AvError(err));
                return false;
            }
            demuxEnded_ = true;
            continue;
        }
        if (packet_->stream_index == videoStream_) {
            err = avcodec_send_packet(videoCodec_.get(), packet_.get());
            // A damaged sample is skipped; the frames around it still come out.
            if (err < 0 && err != AVERROR(EAGAIN) && err != AVERROR_INVALIDDATA) {
                av_packet_unref(packet_.get());
                Fail(why, path_ + ": video decoding failed: " + AvError(err));
                return false;
            }
        }
        av_packet_unref(packet_.get());
    }
    // Past the last decodable frame the last one stays on screen.
    if (!haveShown_) {
        Fail(why, path_ + ": no video frame could be decoded");
        return false;
    }
    return true;
}

OSErr Movie::Draw(std::string* why)
{
    if (!format_ || videoStream_ < 0 || videoTimes_.empty()) {
        Fail(why, path_ + ": the movie has no video");
        return invalidTrack;
    }
    if (!world_ || !world_->bits) {
        Fail(why, path_ + ": the movie has nowhere to draw");
        return paramErr;
    }
    if (!DecodeOrdinal(OrdinalAt(time_), why)) return badImageDescription;

    const AVFrame* f = shown_.get();
    // Drawn at the box size whatever the frame's own size, as the toolbox scales into the box;
    // a turned track is drawn as stored first and then turned into the box.
    const bool quarter = rotation_ == 90 || rotation_ == 270;
    const int drawWidth = quarter ? world_->height : world_->width;
    const int drawHeight = quarter ? world_->width : world_->height;
    sws_.reset(sws_getCachedContext(sws_.release(), f->width, f->height, static_cast<AVPixelFormat>(f->format),
                                    drawWidth, drawHeight, AV_PIX_FMT_BGR24, SWS_BICUBIC, nullptr, nullptr,
                                    nullptr));
    if (!sws_) {
        Fail(why, path_ + ": cannot convert frames of pixel format " +
                        (av_get_pix_fmt_name(static_cast<AVPixelFormat>(f->format))
                             ? av_get_pix_fmt_name(static_cast<AVPixelFormat>(f->format))
                             : "unknown"));
        return badImageDescription;
    }
    // Decoders mark high-definition pictures with the high-definition matrix, studio range,
    // unless the frame says full range; the scaler otherwise assumes the standard-definition
    // one. The same choice as the conversion's planar path, so both paths give one picture.
    const int space = f->height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    sws_setColorspaceDetails(sws_.get(), sws_getCoefficients(space), f->color_range == AVCOL_RANGE_JPEG ? 1 : 0,
                             sws_getCoefficients(space), 1, 0, 1 << 16, 1 << 16);
    const std::size_t drawStride = rotation_ ? static_cast<std::size_t>(drawWidth) * 3 : world_->stride;
    if (rotation_) unturned_.resize(drawStride * static_cast<std::size_t>(drawHeight) + kDrawSlack);
    std::uint8_t* dst[4] = {rotation_ ? unturned_.data() : world_->bits, nullptr, nullptr, nullptr};
    int dstStride[4] = {static_cast<int>(drawStride), 0, 0, 0};
    const int rows = sws_scale(sws_.get(), f->data, f->linesize, 0, f->height, dst, dstStride);
    if (rows != drawHeight) {
        Fail(why, path_ + ": frame conversion failed");
        return badImageDescription;
    }
    if (rotation_) TurnInto(unturned_.data(), drawWidth, drawHeight, rotation_, *world_);
    return noErr;
}

OSErr Movie::CurrentPicture(AVFrame* picture, std::string* why)
{
    if (!format_ || videoStream_ < 0 || videoTimes_.empty()) {
        Fail(why, path_ + ": the movie has no video");
        return invalidTrack;
    }
    if (!picture) {
        Fail(why, path_ + ": nowhere to put the picture");
        return paramErr;
    }
    if (!DecodeOrdinal(OrdinalAt(time_), why)) return badImageDescription;
    av_frame_unref(picture);
    const int err = av_frame_ref(picture, shown_.get());
    if (err < 0) {
        Fail(why, path_ + ": cannot hold the decoded frame: " + AvError(err));
        return memFullErr;
    }
    return noErr;
}

OSErr Movie::IndTrackType(int index, OSType mediaType, int* track) const
{
    if (!format_ || index < 1) return invalidTrack;
    const AVMediaType want = mediaType == SoundMediaType   ? AVMEDIA_TYPE_AUDIO
                             : mediaType == VideoMediaType ? AVMEDIA_TYPE_VIDEO
                                                           : AVMEDIA_TYPE_UNKNOWN;
    int seen = 0;
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        if (format_->streams[i]->codecpar->codec_type != want) continue;
        if (++seen == index) {
            *track = static_cast<int>(i);
            return noErr;
        }
    }
    return invalidTrack;
}

OSErr Movie::TrackMedia(int track, std::unique_ptr<Media>* media)
{
    if (!format_ || track < 0 || track >= static_cast<int>(format_->nb_streams)) return invalidMedia;
    media->reset(new Media(this, track));
    if (!(*media)->packet_) {
        media->reset();
        return memFullErr;
    }
    return noErr;
}

// ---- Media ----

void Media::PacketFree::operator()(AVPacket* p) const { av_packet_free(&p); }

Media::Media(Movie* movie, int stream) : movie_(movie), stream_(stream), packet_(av_packet_alloc())
{
    AVFormatContext* fc = movie_->Format();
    for (unsigned i = 0; i < fc->nb_streams; ++i)
        fc->streams[i]->discard = static_cast<int>(i) == stream_ ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    // Media time 0 is the first sample the track holds (before any encoder delay is cut).
    AVStream* st = fc->streams[stream_];
    std::int64_t first = st->start_time;
    if (avformat_index_get_entries_count(st) > 0) {
        const AVIndexEntry* e = avformat_index_get_entry(st, 0);
        if (e && e->timestamp != AV_NOPTS_VALUE && (first == AV_NOPTS_VALUE || e->timestamp < first))
            first = e->timestamp;
    }
    if (first != AV_NOPTS_VALUE) {
        firstPts_ = first;
        haveFirst_ = true;
    }
}

Media::~Media() = default;

namespace {

// Linear PCM only: A-law and mu-law are compressed sound that decodes to 16 bits.
bool IsPcm(AVCodecID id)
{
    if (id == AV_CODEC_ID_PCM_MULAW || id == AV_CODEC_ID_PCM_ALAW) return false;
    const AVCodecDescriptor* d = avcodec_descriptor_get(id);
    return d && d->name && std::strncmp(d->name, "pcm_", 4) == 0;
}

OSType FormatOfCodec(const AVCodecParameters* p, bool fromMovie)
{
    if (fromMovie && p->codec_tag) {
        // libavformat keeps the sample description's type as read, first character lowest.
        const std::uint32_t t = p->codec_tag;
        return (OSType(t & 0xFF) << 24) | (OSType((t >> 8) & 0xFF) << 16) | (OSType((t >> 16) & 0xFF) << 8) |
               OSType((t >> 24) & 0xFF);
    }
    // Imported files (WAVE, AIFF, …) have no sample description: name their sound the way a
    // movie would.
    switch (p->codec_id) {
    case AV_CODEC_ID_PCM_S16LE: return MakeOSType("sowt");
    case AV_CODEC_ID_PCM_S16BE:
    case AV_CODEC_ID_PCM_S8: return MakeOSType("twos");
    case AV_CODEC_ID_PCM_U8: return MakeOSType("raw ");
    default: break;
    }
    const AVCodecTag* const tags[] = {avformat_get_mov_audio_tags(), nullptr};
    const unsigned tag = av_codec_get_tag(tags, p->codec_id);
    if (!tag) return 0;
    return (OSType(tag & 0xFF) << 24) | (OSType((tag >> 8) & 0xFF) << 16) | (OSType((tag >> 16) & 0xFF) << 8) |
           OSType((tag >> 24) & 0xFF);
}

}  // namespace

OSErr Media::SampleDescription(int index, SoundDescription* desc, std::string* why) const
{
    const AVStream* st = movie_->Format()->streams[stream_];
    const AVCodecParameters* p = st->codecpar;
    if (index != 1 || p->codec_type != AVMEDIA_TYPE_AUDIO) return invalidMedia;
    if (p->sample_rate <= 0 || p->sample_rate > 0xFFFF) {
        Fail(why, movie_->Path() + ": sound rate " + std::to_string(p->sample_rate) +
                        " Hz does not fit a sound description");
        return badFormat;
    }
    if (p->ch_layout.nb_channels <= 0 || p->ch_layout.nb_channels > 0x7FFF) {
        Fail(why, movie_->Path() + ": sound track has " + std::to_string(p->ch_layout.nb_channels) + " channels");
        return badFormat;
    }
    desc->dataFormat = FormatOfCodec(p, IsMovDemuxer(movie_->Format()->iformat));
    desc->numChannels = static_cast<std::int16_t>(p->ch_layout.nb_channels);
    const int bits = av_get_bits_per_sample(p->codec_id);
    if (IsPcm(p->codec_id)) {
        desc->sampleSize = static_cast<std::int16_t>(bits);
        desc->compressionID = 0;
    } else {
        // Compressed sound decodes to 16 bits; constant-size blocks are fixed compression.
        desc->sampleSize = 16;
        desc->compressionID = bits > 0 ? -1 : -2;
    }
    desc->sampleRate = static_cast<UnsignedFixed>(p->sample_rate) << 16;
    return noErr;
}

OSErr Media::SoundDescriptionExtension(OSType atomType, std::vector<std::uint8_t>* atom) const
{
    atom->clear();
    const AVCodecParameters* p = movie_->Format()->streams[stream_]->codecpar;
    if (atomType != MakeOSType("wave") || !p->extradata || p->extradata_size <= 0) return couldNotResolveDataRef;
    atom->assign(p->extradata, p->extradata + p->extradata_size);
    return noErr;
}

TimeValue Media::Duration() const
{
    const AVStream* st = movie_->Format()->streams[stream_];
    const AVCodecParameters* p = st->codecpar;
    if (p->sample_rate <= 0) return 0;
    const AVRational mediaBase{1, p->sample_rate};
    std::int64_t end = AV_NOPTS_VALUE;
    if (st->duration != AV_NOPTS_VALUE) {
        end = (st->start_time != AV_NOPTS_VALUE ? st->start_time : 0) + st->duration;
        end = av_rescale_q(end - (haveFirst_ ? firstPts_ : 0), st->time_base, mediaBase);
    } else if (movie_->Format()->duration != AV_NOPTS_VALUE) {
        end = av_rescale_q(movie_->Format()->duration, AV_TIME_BASE_Q, mediaBase);
    }
    if (end == AV_NOPTS_VALUE || end < 0) return std::numeric_limits<TimeValue>::max();
    return end > std::numeric_limits<TimeValue>::max() ? std::numeric_limits<TimeValue>::max()
                                                       : static_cast<TimeValue>(end);
}

bool Media::ReadPacket(std::string* why)
{
    AVFormatContext* fc = movie_->Format();
    for (;;) {
        av_packet_unref(packet_.get());
        const int err = av_read_frame(fc, packet_.get());
        if (err < 0) {
            ended_ = true;
            if (err != AVERROR_EOF && !avio_feof(fc->pb)) Fail(why, movie_->Path() + ": cannot read sound: " + AvError(err));
            return false;
        }
        if (packet_->stream_index == stream_) return true;
    }
}

OSErr Media::GetSample(TimeValue time, std::vector<std::uint8_t>* block, std::size_t maxSizeToGrow, Sample* sample,
                       std::string* why)
{
    AVFormatContext* fc = movie_->Format();
    AVStream* st = fc->streams[stream_];
    const AVCodecParameters* p = st->codecpar;
    const AVRational mediaBase{1, p->sample_rate > 0 ? p->sample_rate : 1};
    if (time != nextTime_) {
        const std::int64_t ts = av_rescale_q(time, mediaBase, st->time_base) + (haveFirst_ ? firstPts_ : 0);
        if (av_seek_frame(fc, stream_, ts, AVSEEK_FLAG_BACKWARD) < 0) {
            Fail(why, movie_->Path() + ": cannot seek the sound track");
            return noSoundTrackInMovieErr;
        }
        ended_ = false;
    }
    if (ended_ || !ReadPacket(why)) return notEnoughDataErr;
    const AVPacket* pkt = packet_.get();
    if (pkt->size <= 0) return notEnoughDataErr;
    if (static_cast<std::size_t>(pkt->size) > maxSizeToGrow) {
        Fail(why, movie_->Path() + ": a sound sample of " + std::to_string(pkt->size) + " bytes exceeds the source block");
        return maxSizeToGrowTooSmall;
    }
    block->assign(pkt->data, pkt->data + pkt->size);

    std::int64_t pts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
    if (!haveFirst_ && pts != AV_NOPTS_VALUE) {
        firstPts_ = pts;
        haveFirst_ = true;
    }
    std::int64_t start = pts == AV_NOPTS_VALUE ? nextTime_ : av_rescale_q(pts - firstPts_, st->time_base, mediaBase);
    std::int64_t frames = pkt->duration > 0 ? av_rescale_q(pkt->duration, st->time_base, mediaBase) : 0;

    sample->size = static_cast<std::size_t>(pkt->size);
    sample->trimStart = 0;
    sample->trimEnd = 0;
    if (IsPcm(p->codec_id)) {
        // Uncompressed sound: one media sample per frame, counted from the bytes themselves.
        const int frameBytes = (av_get_bits_per_sample(p->codec_id) / 8) * p->ch_layout.nb_channels;
        if (frameBytes > 0) frames = pkt->size / frameBytes;
        sample->numberOfSamples = static_cast<long>(frames);
        sample->durationPerSample = 1;
    } else {
        if (frames <= 0) frames = p->frame_size > 0 ? p->frame_size : 1;
        sample->numberOfSamples = 1;
        sample->durationPerSample = static_cast<TimeValue>(std::min<std::int64_t>(frames, std::numeric_limits<TimeValue>::max()));
        std::size_t sideSize = 0;
        const std::uint8_t* side = av_packet_get_side_data(pkt, AV_PKT_DATA_SKIP_SAMPLES, &sideSize);
        if (side && sideSize >= 8) {
            sample->trimStart = static_cast<std::int32_t>(AV_RL32(side));
            sample->trimEnd = static_cast<std::int32_t>(AV_RL32(side + 4));
        }
        // The track's edit shortens the last block of constant-size codecs: drop the rest.
        if (p->frame_size > 0 && frames < p->frame_size && sample->trimEnd == 0)
            sample->trimEnd = static_cast<std::int32_t>(p->frame_size - frames);
    }
    sample->sampleTime = static_cast<TimeValue>(std::clamp<std::int64_t>(start, 0, std::numeric_limits<TimeValue>::max()));
    nextTime_ = static_cast<TimeValue>(
        std::clamp<std::int64_t>(sample->sampleTime + std::int64_t(sample->durationPerSample) * sample->numberOfSamples, 0,
                                 std::numeric_limits<TimeValue>::max()));
    return noErr;
}

}  // namespace zub::qt
