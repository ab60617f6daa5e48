// Encodes test movies and WAVE files in-process with libavformat/libavcodec/libswscale.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <filesystem>
#include <memory>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include "platform/AvError.h"
#include "platform/AvOwner.h"
#include "tests/support/testmedia/TestMedia.h"

namespace zub::testmedia {
namespace {

using av::FramePtr;
using av::OutputPtr;
using av::PacketPtr;
using av::SwsPtr;
using CodecPtr = av::CodecContextPtr;

using zub::AvError;

struct VideoChoice {
    const char* encoder;
    AVPixelFormat pix;
    bool alpha;
};

VideoChoice ChooseVideo(const MediaSpec& s, bool quicktime)
{
    switch (s.video) {
    case VideoCodec::H264: return {"libx264", AV_PIX_FMT_YUV420P, false};
    case VideoCodec::Mpeg4: return {"mpeg4", AV_PIX_FMT_YUV420P, false};
    case VideoCodec::Mpeg2: return {"mpeg2video", AV_PIX_FMT_YUV420P, false};
    case VideoCodec::Mjpeg: return {"mjpeg", AV_PIX_FMT_YUVJ420P, false};
    case VideoCodec::Raw: return {"rawvideo", quicktime ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_BGR24, false};
    case VideoCodec::Qtrle: return {"qtrle", s.alpha ? AV_PIX_FMT_ARGB : AV_PIX_FMT_RGB24, s.alpha};
    case VideoCodec::Png: return {"png", s.alpha ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGB24, s.alpha};
    case VideoCodec::ProRes4444: return {"prores_ks", AV_PIX_FMT_YUVA444P10LE, true};
    case VideoCodec::None: break;
    }
    return {nullptr, AV_PIX_FMT_NONE, false};
}

const char* AudioEncoderName(AudioCodec c)
{
    switch (c) {
    case AudioCodec::PcmS16le: return "pcm_s16le";
    case AudioCodec::PcmS16be: return "pcm_s16be";
    case AudioCodec::PcmS8: return "pcm_s8";
    case AudioCodec::PcmU8: return "pcm_u8";
    case AudioCodec::Aac: return "aac";
    case AudioCodec::ImaQt: return "adpcm_ima_qt";
    case AudioCodec::Mp2: return "mp2";
    case AudioCodec::Ac3: return "ac3";
    case AudioCodec::Vorbis: return "libvorbis";
    case AudioCodec::Flac: return "flac";
    case AudioCodec::None: break;
    }
    return nullptr;
}

bool IsYuv(AVPixelFormat f)
{
    return f == AV_PIX_FMT_YUV420P || f == AV_PIX_FMT_YUVJ420P || f == AV_PIX_FMT_YUVA444P10LE;
}

// One encoder feeding one stream of the output.
struct Track {
    CodecPtr ctx;
    AVStream* stream = nullptr;
};

class Writer {
public:
    Writer(const std::string& path, const MediaSpec& spec) : path_(path), spec_(spec) {}

    bool Run()
    {
        if (!Open()) return false;
        if (!Encode()) return false;
        const int rc = av_write_trailer(oc_.get());
        if (rc < 0) return Fail("cannot finish the file: " + AvError(rc));
        oc_.reset();
        return true;
    }

    const std::string& Error() const { return error_; }

private:
    bool Fail(const std::string& why)
    {
        if (error_.empty()) error_ = path_ + ": " + why;
        return false;
    }

    int64_t TotalSamples() const
    {
        double seconds = spec_.audioSeconds;
        if (seconds < 0) seconds = spec_.video != VideoCodec::None ? static_cast<double>(spec_.frames) * spec_.fpsDen / spec_.fpsNum : 1.0;
        return static_cast<int64_t>(std::llround(seconds * spec_.sampleRate));
    }

    bool Open()
    {
        if (spec_.video == VideoCodec::None && spec_.audio == AudioCodec::None) return Fail("neither video nor audio asked for");
        if (spec_.video != VideoCodec::None &&
            (spec_.width <= 0 || spec_.height <= 0 || spec_.frames <= 0 || spec_.fpsNum <= 0 || spec_.fpsDen <= 0))
            return Fail("video size, frame count and frame rate must be positive");
        if (spec_.audio != AudioCodec::None && (spec_.sampleRate <= 0 || spec_.channels <= 0 || spec_.channels > 8))
            return Fail("audio rate must be positive and channels 1 to 8");
        AVFormatContext* raw = nullptr;
        int rc = avformat_alloc_output_context2(&raw, nullptr, spec_.container.empty() ? nullptr : spec_.container.c_str(),
                                                path_.c_str());
        if (rc < 0 || !raw) return Fail("no container for this name: " + AvError(rc));
        oc_.reset(raw);
        oc_->flags |= AVFMT_FLAG_BITEXACT;
        const std::string fmt = oc_->oformat->name;
        quicktime_ = fmt == "mov";

        if (spec_.video != VideoCodec::None && !OpenVideo()) return false;
        if (spec_.audio != AudioCodec::None && !OpenAudio()) return false;

        if (!(oc_->oformat->flags & AVFMT_NOFILE)) {
            rc = avio_open(&oc_->pb, path_.c_str(), AVIO_FLAG_WRITE);
            if (rc < 0) return Fail("cannot create: " + AvError(rc));
        }
        rc = avformat_write_header(oc_.get(), nullptr);
        if (rc < 0) return Fail("cannot write the header: " + AvError(rc));
        return true;
    }

    bool OpenVideo()
    {
        const VideoChoice vc = ChooseVideo(spec_, quicktime_);
        const AVCodec* codec = avcodec_find_encoder_by_name(vc.encoder);
        if (!codec) return Fail(std::string("encoder not available: ") + vc.encoder);
        video_.ctx.reset(avcodec_alloc_context3(codec));
        if (!video_.ctx) return Fail("out of memory");
        AVCodecContext* c = video_.ctx.get();
        c->width = spec_.width;
        c->height = spec_.height;
        c->pix_fmt = vc.pix;
        alphaCode_ = vc.alpha;
        if (spec_.variableRate) {
            c->time_base = {1, 1000};
            c->framerate = {0, 1};
        } else {
            c->time_base = {spec_.fpsDen, spec_.fpsNum};
            c->framerate = {spec_.fpsNum, spec_.fpsDen};
        }
        c->gop_size = 12;
        if (IsYuv(vc.pix)) {
            c->colorspace = AVCOL_SPC_SMPTE170M;
            c->color_primaries = AVCOL_PRI_SMPTE170M;
            c->color_trc = AVCOL_TRC_SMPTE170M;
            c->color_range = vc.pix == AV_PIX_FMT_YUVJ420P ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        }
        if (spec_.videoBitRate > 0) {
            c->bit_rate = spec_.videoBitRate;
        } else if (spec_.video == VideoCodec::Mpeg4 || spec_.video == VideoCodec::Mpeg2 || spec_.video == VideoCodec::Mjpeg) {
            c->flags |= AV_CODEC_FLAG_QSCALE;
            c->global_quality = FF_QP2LAMBDA * 3;
        }
        if (spec_.video == VideoCodec::Mpeg2) c->max_b_frames = 2;
        if (spec_.video == VideoCodec::H264) av_opt_set(c->priv_data, "preset", "veryfast", 0);
        if (spec_.video == VideoCodec::ProRes4444) av_opt_set(c->priv_data, "profile", "4444", 0);
        if (oc_->oformat->flags & AVFMT_GLOBALHEADER) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        int rc = avcodec_open2(c, codec, nullptr);
        if (rc < 0) return Fail(std::string("cannot open encoder ") + vc.encoder + ": " + AvError(rc));
        video_.stream = avformat_new_stream(oc_.get(), nullptr);
        if (!video_.stream) return Fail("out of memory");
        rc = avcodec_parameters_from_context(video_.stream->codecpar, c);
        if (rc < 0) return Fail("cannot describe the video stream: " + AvError(rc));
        video_.stream->time_base = c->time_base;
        if (!spec_.variableRate) {
            video_.stream->avg_frame_rate = c->framerate;
            video_.stream->r_frame_rate = c->framerate;
        }

        frame_.reset(av_frame_alloc());
        if (!frame_) return Fail("out of memory");
        frame_->format = vc.pix;
        frame_->width = spec_.width;
        frame_->height = spec_.height;
        rc = av_frame_get_buffer(frame_.get(), 0);
        if (rc < 0) return Fail("out of memory: " + AvError(rc));
        rgba_.resize(static_cast<size_t>(spec_.width) * spec_.height * 4);
        sws_.reset(sws_getContext(spec_.width, spec_.height, AV_PIX_FMT_RGBA, spec_.width, spec_.height, vc.pix,
                                  SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
        if (!sws_) return Fail("no pixel conversion to the encoder's format");
        return true;
    }

    bool OpenAudio()
    {
        const char* name = AudioEncoderName(spec_.audio);
        const AVCodec* codec = avcodec_find_encoder_by_name(name);
        if (!codec) return Fail(std::string("encoder not available: ") + name);
        audio_.ctx.reset(avcodec_alloc_context3(codec));
        if (!audio_.ctx) return Fail("out of memory");
        AVCodecContext* c = audio_.ctx.get();
        c->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_S16;
        c->sample_rate = spec_.sampleRate;
        av_channel_layout_default(&c->ch_layout, spec_.channels);
        c->time_base = {1, spec_.sampleRate};
        // Generous rates: the tone must come back clean enough to measure a resampler behind it.
        if (spec_.audio == AudioCodec::Aac || spec_.audio == AudioCodec::Ac3) c->bit_rate = 96000 * spec_.channels;
        if (spec_.audio == AudioCodec::Mp2) c->bit_rate = spec_.channels > 1 ? 384000 : 192000;
        if (oc_->oformat->flags & AVFMT_GLOBALHEADER) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        int rc = avcodec_open2(c, codec, nullptr);
        if (rc < 0) return Fail(std::string("cannot open encoder ") + name + ": " + AvError(rc));
        audio_.stream = avformat_new_stream(oc_.get(), nullptr);
        if (!audio_.stream) return Fail("out of memory");
        rc = avcodec_parameters_from_context(audio_.stream->codecpar, c);
        if (rc < 0) return Fail("cannot describe the audio stream: " + AvError(rc));
        audio_.stream->time_base = c->time_base;
        const bool variable = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) || c->frame_size <= 0;
        audioChunk_ = variable ? 1024 : c->frame_size;
        audioSmallLast_ = variable || (codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME);
        totalSamples_ = TotalSamples();
        return true;
    }

    int64_t VideoPts(int64_t index) const
    {
        if (!spec_.variableRate) return index;
        // Milliseconds with every other frame held 7 ms longer: no constant rate to find.
        const int64_t base = av_rescale(index * 1000, spec_.fpsDen, spec_.fpsNum);
        return base + (index % 2 ? 7 : 0);
    }

    bool Drain(Track& t)
    {
        for (;;) {
            int rc = avcodec_receive_packet(t.ctx.get(), packet_.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
            if (rc < 0) return Fail("encoding failed: " + AvError(rc));
            av_packet_rescale_ts(packet_.get(), t.ctx->time_base, t.stream->time_base);
            packet_->stream_index = t.stream->index;
            rc = av_interleaved_write_frame(oc_.get(), packet_.get());
            if (rc < 0) return Fail("cannot write: " + AvError(rc));
        }
    }

    // Uniform noise from a per-frame seed, so that the same spec makes the same file.
    void AddGrain(std::uint32_t index)
    {
        const int fmt = frame_->format;
        if (fmt != AV_PIX_FMT_YUV420P && fmt != AV_PIX_FMT_YUVJ420P) return;
        std::uint32_t state = 0x9E3779B9u ^ (index * 0x85EBCA6Bu + 1u);
        const int span = 2 * spec_.grain + 1;
        for (int p = 0; p < 3; ++p) {
            const int w = p ? (spec_.width + 1) / 2 : spec_.width;
            const int h = p ? (spec_.height + 1) / 2 : spec_.height;
            for (int y = 0; y < h; ++y) {
                std::uint8_t* row = frame_->data[p] + static_cast<std::ptrdiff_t>(y) * frame_->linesize[p];
                for (int x = 0; x < w; ++x) {
                    state ^= state << 13;
                    state ^= state >> 17;
                    state ^= state << 5;
                    const int v = row[x] + static_cast<int>(state % static_cast<std::uint32_t>(span)) - spec_.grain;
                    row[x] = static_cast<std::uint8_t>(std::clamp(v, 0, 255));
                }
            }
        }
    }

    bool SendVideo(int64_t index)
    {
        PaintFrame(rgba_.data(), spec_.width, spec_.height, static_cast<std::ptrdiff_t>(spec_.width) * 4,
                   PixelFormat::Rgba32, spec_.firstFrameNumber + static_cast<int>(index), alphaCode_);
        int rc = av_frame_make_writable(frame_.get());
        if (rc < 0) return Fail("out of memory: " + AvError(rc));
        const uint8_t* src[1] = {rgba_.data()};
        const int srcStride[1] = {spec_.width * 4};
        sws_scale(sws_.get(), src, srcStride, 0, spec_.height, frame_->data, frame_->linesize);
        if (spec_.grain > 0) AddGrain(static_cast<std::uint32_t>(index));
        frame_->pts = VideoPts(index);
        rc = avcodec_send_frame(video_.ctx.get(), frame_.get());
        if (rc < 0) return Fail("video encoding failed: " + AvError(rc));
        return Drain(video_);
    }

    bool SendAudio(int64_t start, int count)
    {
        AVCodecContext* c = audio_.ctx.get();
        FramePtr f(av_frame_alloc());
        if (!f) return Fail("out of memory");
        f->nb_samples = count;
        f->format = c->sample_fmt;
        f->sample_rate = c->sample_rate;
        int rc = av_channel_layout_copy(&f->ch_layout, &c->ch_layout);
        if (rc >= 0) rc = av_frame_get_buffer(f.get(), 0);
        if (rc < 0) return Fail("out of memory: " + AvError(rc));
        const AVSampleFormat fmt = c->sample_fmt;
        const bool planar = av_sample_fmt_is_planar(fmt);
        const AVSampleFormat packed = av_get_packed_sample_fmt(fmt);
        const int channels = spec_.channels;
        for (int ch = 0; ch < channels; ++ch) {
            const double hz = ch < static_cast<int>(spec_.toneHzPerChannel.size()) ? spec_.toneHzPerChannel[ch] : spec_.toneHz;
            const double w = 2.0 * M_PI * hz / spec_.sampleRate;
            for (int i = 0; i < count; ++i) {
                const double v = spec_.toneLevel * std::sin(w * static_cast<double>(start + i));
                const int index = planar ? i : i * channels + ch;
                uint8_t* base = f->data[planar ? ch : 0];
                switch (packed) {
                case AV_SAMPLE_FMT_U8: base[index] = static_cast<uint8_t>(128 + std::lround(v * 127.0)); break;
                case AV_SAMPLE_FMT_S16: reinterpret_cast<int16_t*>(base)[index] = static_cast<int16_t>(std::lround(v * 32767.0)); break;
                case AV_SAMPLE_FMT_S32:
                    reinterpret_cast<int32_t*>(base)[index] = static_cast<int32_t>(std::llround(v * 2147483647.0));
                    break;
                case AV_SAMPLE_FMT_FLT: reinterpret_cast<float*>(base)[index] = static_cast<float>(v); break;
                case AV_SAMPLE_FMT_DBL: reinterpret_cast<double*>(base)[index] = v; break;
                default: return Fail("unexpected sample format of the audio encoder");
                }
            }
        }
        f->pts = start;
        rc = avcodec_send_frame(c, f.get());
        if (rc < 0) return Fail("audio encoding failed: " + AvError(rc));
        return Drain(audio_);
    }

    bool Encode()
    {
        packet_.reset(av_packet_alloc());
        if (!packet_) return Fail("out of memory");
        int64_t nextFrame = 0, nextSample = 0;
        const int64_t frames = video_.ctx ? spec_.frames : 0;
        for (;;) {
            const bool videoLeft = nextFrame < frames;
            const bool audioLeft = audio_.ctx && nextSample < totalSamples_;
            if (!videoLeft && !audioLeft) break;
            bool takeVideo = videoLeft;
            if (videoLeft && audioLeft)
                takeVideo = av_compare_ts(VideoPts(nextFrame), video_.ctx->time_base, nextSample, audio_.ctx->time_base) <= 0;
            if (takeVideo) {
                if (!SendVideo(nextFrame)) return false;
                ++nextFrame;
            } else {
                const int64_t left = totalSamples_ - nextSample;
                const int count = left < audioChunk_ && audioSmallLast_ ? static_cast<int>(left) : audioChunk_;
                if (!SendAudio(nextSample, count)) return false;
                nextSample += count;
            }
        }
        for (Track* t : {&video_, &audio_}) {
            if (!t->ctx) continue;
            const int rc = avcodec_send_frame(t->ctx.get(), nullptr);
            if (rc < 0) return Fail("cannot flush the encoder: " + AvError(rc));
            if (!Drain(*t)) return false;
        }
        return true;
    }

    std::string path_;
    MediaSpec spec_;
    std::string error_;
    OutputPtr oc_;
    bool quicktime_ = false;
    Track video_, audio_;
    FramePtr frame_;
    PacketPtr packet_;
    SwsPtr sws_;
    std::vector<uint8_t> rgba_;
    bool alphaCode_ = false;
    int audioChunk_ = 1024;
    bool audioSmallLast_ = true;
    int64_t totalSamples_ = 0;
};

struct PresetEntry {
    const char* name;
    const char* ext;
    MediaSpec (*make)();
};

MediaSpec Av(VideoCodec v, AudioCodec a, int rate = 48000, int channels = 2)
{
    MediaSpec s;
    s.video = v;
    s.audio = a;
    s.sampleRate = rate;
    s.channels = channels;
    return s;
}

MediaSpec Wav(AudioCodec a, int rate, int channels)
{
    MediaSpec s = Av(VideoCodec::None, a, rate, channels);
    s.audioSeconds = 1.0;
    s.container = "wav";
    return s;
}

const PresetEntry kPresets[] = {
    {"mp4_h264_aac", ".mp4", [] { return Av(VideoCodec::H264, AudioCodec::Aac); }},
    {"mp4_mpeg4_aac", ".mp4", [] { return Av(VideoCodec::Mpeg4, AudioCodec::Aac, 44100); }},
    {"mkv_h264_vorbis", ".mkv", [] { return Av(VideoCodec::H264, AudioCodec::Vorbis); }},
    {"avi_mpeg4_pcm", ".avi", [] { return Av(VideoCodec::Mpeg4, AudioCodec::PcmS16le); }},
    {"avi_mjpeg_pcm", ".avi", [] { return Av(VideoCodec::Mjpeg, AudioCodec::PcmS16le, 44100, 1); }},
    {"avi_raw_pcm", ".avi", [] { return Av(VideoCodec::Raw, AudioCodec::PcmS16le, 32000, 2); }},
    {"mpg_mpeg2_mp2", ".mpg", [] {
         MediaSpec s = Av(VideoCodec::Mpeg2, AudioCodec::Mp2);
         s.fpsNum = 25;
         return s;
     }},
    {"mov_h264_aac", ".mov", [] { return Av(VideoCodec::H264, AudioCodec::Aac); }},
    {"mov_twos", ".mov", [] { return Av(VideoCodec::H264, AudioCodec::PcmS16be); }},
    {"mov_sowt", ".mov", [] { return Av(VideoCodec::H264, AudioCodec::PcmS16le, 44100); }},
    {"mov_raw8", ".mov", [] { return Av(VideoCodec::H264, AudioCodec::PcmU8, 22050, 1); }},
    {"mov_twos8", ".mov", [] { return Av(VideoCodec::H264, AudioCodec::PcmS8, 22050, 1); }},
    {"mov_ima4", ".mov", [] { return Av(VideoCodec::Mjpeg, AudioCodec::ImaQt, 44100); }},
    {"mov_aac", ".mov", [] { return Av(VideoCodec::Mpeg4, AudioCodec::Aac, 44100, 1); }},
    {"mov_sound_only", ".mov", [] {
         MediaSpec s = Av(VideoCodec::None, AudioCodec::PcmS16be);
         s.audioSeconds = 1.0;
         return s;
     }},
    {"mov_no_sound", ".mov", [] { return Av(VideoCodec::H264, AudioCodec::None); }},
    {"mov_qtrle_alpha", ".mov", [] {
         MediaSpec s = Av(VideoCodec::Qtrle, AudioCodec::PcmS16le);
         s.alpha = true;
         return s;
     }},
    {"mov_png_alpha", ".mov", [] {
         MediaSpec s = Av(VideoCodec::Png, AudioCodec::None);
         s.alpha = true;
         return s;
     }},
    {"mov_prores4444", ".mov", [] {
         MediaSpec s = Av(VideoCodec::ProRes4444, AudioCodec::None);
         s.alpha = true;
         return s;
     }},
    {"mkv_unknown_rate", ".mkv", [] {
         MediaSpec s = Av(VideoCodec::Mpeg4, AudioCodec::None);
         s.variableRate = true;
         return s;
     }},
    {"wav_u8_mono", ".wav", [] { return Wav(AudioCodec::PcmU8, 22050, 1); }},
    {"wav_u8_stereo", ".wav", [] { return Wav(AudioCodec::PcmU8, 44100, 2); }},
    {"wav_s16_mono", ".wav", [] { return Wav(AudioCodec::PcmS16le, 48000, 1); }},
    {"wav_s16_stereo", ".wav", [] { return Wav(AudioCodec::PcmS16le, 48000, 2); }},
    {"wav_s16_44k_stereo", ".wav", [] { return Wav(AudioCodec::PcmS16le, 44100, 2); }},
    {"wav_s16_22k_mono", ".wav", [] { return Wav(AudioCodec::PcmS16le, 22050, 1); }},
    {"wav_s16_32k_stereo", ".wav", [] { return Wav(AudioCodec::PcmS16le, 32000, 2); }},
};

bool QuickTimeName(const std::string& path, const MediaSpec& spec)
{
    if (!spec.container.empty()) return spec.container == "mov";
    const AVOutputFormat* f = av_guess_format(nullptr, path.c_str(), nullptr);
    return f && std::string(f->name) == "mov";
}

// libavformat labels signed 8-bit QuickTime sound 'sowt' and refuses 'twos' for it, while
// QuickTime itself writes 'twos' (byte order means nothing at 8 bits). Renames the sound
// sample description in moov/trak/mdia/minf/stbl/stsd, walking the atoms by their sizes.
bool RenameSoundEntry(const std::string& path, const char from[4], const char to[4], std::string* why)
{
    std::FILE* f = std::fopen(path.c_str(), "r+b");
    if (!f) {
        *why = "cannot reopen to relabel the sound";
        return false;
    }
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(f, &std::fclose);
    std::fseek(f, 0, SEEK_END);
    const long fileSize = std::ftell(f);
    auto readAt = [&](long pos, unsigned char* buf, size_t n) {
        return std::fseek(f, pos, SEEK_SET) == 0 && std::fread(buf, 1, n, f) == n;
    };
    static const char* const kPath[] = {"moov", "trak", "mdia", "minf", "stbl", "stsd"};
    // Depth-first over container atoms; every trak is tried.
    std::function<bool(long, long, int)> walk = [&](long begin, long end, int depth) -> bool {
        long pos = begin;
        while (pos + 8 <= end) {
            unsigned char h[8];
            if (!readAt(pos, h, 8)) return false;
            const long size = (long(h[0]) << 24) | (long(h[1]) << 16) | (long(h[2]) << 8) | long(h[3]);
            if (size < 8 || pos + size > end) return false;
            if (std::memcmp(h + 4, kPath[depth], 4) == 0) {
                if (depth == 5) {
                    // stsd: version/flags, entry count, then the first entry's size and format.
                    unsigned char e[16];
                    if (size >= 24 && readAt(pos + 8, e, 16) && std::memcmp(e + 12, from, 4) == 0) {
                        return std::fseek(f, pos + 20, SEEK_SET) == 0 && std::fwrite(to, 1, 4, f) == 4;
                    }
                } else if (walk(pos + 8, pos + size, depth + 1)) {
                    return true;
                }
            }
            pos += size;
        }
        return false;
    };
    if (!walk(0, fileSize, 0)) {
        *why = "no sound sample description to relabel";
        return false;
    }
    return std::fflush(f) == 0;
}

}  // namespace

bool MakeMedia(const std::string& path, const MediaSpec& spec, std::string* error)
{
    // Encoder chatter drowns test output; ZUBGEN_VERBOSE keeps it.
    static const bool quiet = [] {
        if (!std::getenv("ZUBGEN_VERBOSE") && av_log_get_level() > AV_LOG_ERROR) av_log_set_level(AV_LOG_ERROR);
        return true;
    }();
    (void)quiet;
    bool ok = false;
    std::string why;
    {
        Writer w(path, spec);
        ok = w.Run();
        why = w.Error();
    }  // the writer closes the file before a failed one is removed
    if (ok && spec.audio == AudioCodec::PcmS8 && QuickTimeName(path, spec)) {
        ok = RenameSoundEntry(path, "sowt", "twos", &why);
        if (!ok) why = path + ": " + why;
    }
    if (!ok) {
        std::error_code ec;
        std::filesystem::remove(path, ec);
        if (error) *error = why;
    }
    return ok;
}

bool MakeWave(const std::string& path, int bitsPerSample, int sampleRate, int channels, double seconds, double toneHz,
              double toneLevel, std::string* error)
{
    if (bitsPerSample != 8 && bitsPerSample != 16) {
        if (error) *error = path + ": WAVE files are made with 8 or 16 bits per sample";
        return false;
    }
    MediaSpec s = Wav(bitsPerSample == 8 ? AudioCodec::PcmU8 : AudioCodec::PcmS16le, sampleRate, channels);
    s.audioSeconds = seconds;
    s.toneHz = toneHz;
    s.toneLevel = toneLevel;
    return MakeMedia(path, s, error);
}

bool Preset(std::string_view name, MediaSpec* spec)
{
    for (const PresetEntry& p : kPresets) {
        if (name == p.name) {
            *spec = p.make();
            return true;
        }
    }
    return false;
}

std::vector<std::string> PresetNames()
{
    std::vector<std::string> names;
    for (const PresetEntry& p : kPresets) names.emplace_back(p.name);
    return names;
}

std::string PresetExtension(std::string_view name)
{
    for (const PresetEntry& p : kPresets)
        if (name == p.name) return p.ext;
    return {};
}

std::string MakePreset(const std::string& dir, std::string_view name, std::string* error)
{
    MediaSpec spec;
    if (!Preset(name, &spec)) {
        if (error) *error = std::string(name) + ": no such test media recipe";
        return {};
    }
    const std::string path = (std::filesystem::path(dir) / (std::string(name) + PresetExtension(name))).string();
    return MakeMedia(path, spec, error) ? path : std::string();
}

}  // namespace zub::testmedia
