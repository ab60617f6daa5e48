#include "quicktime/SoundConverter.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "platform/AvError.h"
#include "platform/AvOwner.h"
#include "platform/StereoDownmix.h"

namespace zub::qt {

namespace {

int IntegerRate(UnsignedFixed rate) { return static_cast<int>(rate >> 16); }

Speaker SpeakerOf(AVChannel c)
{
    switch (c) {
    case AV_CHAN_FRONT_LEFT: return Speaker::FrontLeft;
    case AV_CHAN_FRONT_RIGHT: return Speaker::FrontRight;
    case AV_CHAN_FRONT_CENTER:
    case AV_CHAN_BACK_CENTER: return Speaker::Centre;
    case AV_CHAN_BACK_LEFT:
    case AV_CHAN_SIDE_LEFT:
    case AV_CHAN_FRONT_LEFT_OF_CENTER:
    case AV_CHAN_WIDE_LEFT:
    case AV_CHAN_SURROUND_DIRECT_LEFT: return Speaker::SurroundLeft;
    case AV_CHAN_BACK_RIGHT:
    case AV_CHAN_SIDE_RIGHT:
    case AV_CHAN_FRONT_RIGHT_OF_CENTER:
    case AV_CHAN_WIDE_RIGHT:
    case AV_CHAN_SURROUND_DIRECT_RIGHT: return Speaker::SurroundRight;
    case AV_CHAN_LOW_FREQUENCY:
    case AV_CHAN_LOW_FREQUENCY_2: return Speaker::Lfe;
    default: return Speaker::Other;
    }
}

}  // namespace

// The converter reference: decodes the source format with libavcodec and hands out
// interleaved native little-endian samples of the output size (unsigned for 8 bits).
struct SoundConverterObject {
    SoundComponentData input{};
    SoundComponentData output{};
    const AVCodec* codec = nullptr;
    std::vector<std::uint8_t> extradata;
    av::CodecContextPtr ctx;
    av::FramePtr frame;
    av::PacketPtr packet;
    av::SwrPtr swr;
    av::AudioFifoPtr fifo;
    AVSampleFormat fifoFormat = AV_SAMPLE_FMT_S16;
    int outChannels = 0;
    bool sourceDone = false;   // the source callback gave its last record
    bool decoderDone = false;  // the decoder and resampler are drained
    std::uint32_t lastOutputBytes = 0;
    std::string error;

    int OutBytesPerSample() const { return output.sampleSize / 8; }
    std::uint32_t OutFrameBytes() const { return static_cast<std::uint32_t>(OutBytesPerSample() * outChannels); }

    OSErr Fail(OSErr code, std::string why)
    {
        error = std::move(why);
        return code;
    }

    OSErr Begin()
    {
        error.clear();
        ctx.reset(avcodec_alloc_context3(codec));
        frame.reset(av_frame_alloc());
        packet.reset(av_packet_alloc());
        if (!ctx || !frame || !packet) return Fail(memFullErr, "out of memory");
        av_channel_layout_uninit(&ctx->ch_layout);
        av_channel_layout_default(&ctx->ch_layout, input.numChannels);
        ctx->sample_rate = IntegerRate(input.sampleRate);
        ctx->bits_per_coded_sample = input.sampleSize;
        if (codec->id == AV_CODEC_ID_ADPCM_IMA_QT) ctx->block_align = 34 * input.numChannels;
        if (!extradata.empty()) {
            ctx->extradata = static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
            if (!ctx->extradata) return Fail(memFullErr, "out of memory");
            std::memcpy(ctx->extradata, extradata.data(), extradata.size());
            ctx->extradata_size = static_cast<int>(extradata.size());
        }
        const int err = avcodec_open2(ctx.get(), codec, nullptr);
        if (err < 0) return Fail(badFormat, std::string("cannot open the ") + codec->name + " decoder: " + AvError(err));
        switch (output.sampleSize) {
        case 8: fifoFormat = AV_SAMPLE_FMT_U8; break;
        case 16: fifoFormat = AV_SAMPLE_FMT_S16; break;
        default: fifoFormat = AV_SAMPLE_FMT_S32; break;
        }
        outChannels = output.numChannels;
        fifo.reset(av_audio_fifo_alloc(fifoFormat, outChannels, 4096));
        if (!fifo) return Fail(memFullErr, "out of memory");
        swr.reset();
        sourceDone = false;
        decoderDone = false;
        return noErr;
    }

    // Surround folded into the output's stereo by the rule the graph route applies too,
    // instead of libswresample's own matrix, which normalises the fronts down.
    int SetDownmix(const AVChannelLayout& layout)
    {
        const int n = layout.nb_channels;
        std::vector<double> matrix(static_cast<std::size_t>(n) * outChannels, 0.0);
        for (int i = 0; i < n; ++i) {
            const StereoGains g = StereoGainsOf(layout.order == AV_CHANNEL_ORDER_UNSPEC
                                                    ? UnnamedSpeaker(i)
                                                    : SpeakerOf(av_channel_layout_channel_from_index(&layout, i)));
            if (outChannels == 1) {
                matrix[i] = (g.left + g.right) / 2;
            } else {
                matrix[i] = g.left;
                matrix[static_cast<std::size_t>(n) + i] = g.right;
            }
        }
        return swr_set_matrix(swr.get(), matrix.data(), n);
    }

    // Resamples one decoded frame (or, with none, what the resampler still holds) into the fifo.
    OSErr Resample(const AVFrame* in)
    {
        if (!swr && in) {
            AVChannelLayout outLayout{};
            av_channel_layout_default(&outLayout, outChannels);
            SwrContext* raw = nullptr;
            int err = swr_alloc_set_opts2(&raw, &outLayout, fifoFormat, IntegerRate(output.sampleRate),
                                          const_cast<AVChannelLayout*>(&in->ch_layout),
                                          static_cast<AVSampleFormat>(in->format), in->sample_rate, 0, nullptr);
            av_channel_layout_uninit(&outLayout);
            swr.reset(raw);
            if (err >= 0 && in->ch_layout.nb_channels > outChannels) err = SetDownmix(in->ch_layout);
            if (err >= 0) err = swr_init(swr.get());
            if (err < 0) return Fail(badFormat, "cannot set up sound conversion: " + AvError(err));
        }
        if (!swr) return noErr;
        const int inFrames = in ? in->nb_samples : 0;
        const int room = swr_get_out_samples(swr.get(), inFrames);
        if (room <= 0) return noErr;
        // Held in the fifo's own sample size (32 bits for 24-bit output), packed on the way out.
        std::vector<std::uint8_t> buf(static_cast<std::size_t>(room) * av_get_bytes_per_sample(fifoFormat) *
                                      static_cast<std::size_t>(outChannels));
        std::uint8_t* out[1] = {buf.data()};
        const int got = swr_convert(swr.get(), out, room, in ? const_cast<const std::uint8_t**>(in->extended_data) : nullptr,
                                    inFrames);
        if (got < 0) return Fail(badFormat, "sound conversion failed: " + AvError(got));
        if (got > 0 && av_audio_fifo_write(fifo.get(), reinterpret_cast<void**>(out), got) < got)
            return Fail(memFullErr, "out of memory");
        return noErr;
    }

    OSErr Drain()
    {
        for (;;) {
            const int err = avcodec_receive_frame(ctx.get(), frame.get());
            if (err == AVERROR(EAGAIN)) return noErr;
            if (err == AVERROR_EOF) {
                const OSErr r = Resample(nullptr);
                decoderDone = true;
                return r;
            }
            if (err < 0) return Fail(badFormat, "sound decoding failed: " + AvError(err));
            const OSErr r = Resample(frame.get());
            av_frame_unref(frame.get());
            if (r != noErr) return r;
        }
    }

    OSErr Decode(const std::uint8_t* data, int size, std::int32_t trimStart, std::int32_t trimEnd)
    {
        av_packet_unref(packet.get());
        if (av_new_packet(packet.get(), size) < 0) return Fail(memFullErr, "out of memory");
        std::memcpy(packet->data, data, static_cast<std::size_t>(size));
        if (trimStart > 0 || trimEnd > 0) {
            std::uint8_t* side = av_packet_new_side_data(packet.get(), AV_PKT_DATA_SKIP_SAMPLES, 10);
            if (!side) return Fail(memFullErr, "out of memory");
            AV_WL32(side, static_cast<std::uint32_t>(std::max(trimStart, 0)));
            AV_WL32(side + 4, static_cast<std::uint32_t>(std::max(trimEnd, 0)));
            side[8] = side[9] = 0;
        }
        int err = avcodec_send_packet(ctx.get(), packet.get());
        while (err == AVERROR(EAGAIN)) {
            if (const OSErr r = Drain(); r != noErr) return r;
            err = avcodec_send_packet(ctx.get(), packet.get());
        }
        // A damaged block is dropped; the sound around it still decodes.
        if (err < 0 && err != AVERROR_INVALIDDATA) return Fail(badFormat, "sound decoding failed: " + AvError(err));
        return Drain();
    }

    OSErr Flush()
    {
        const int err = avcodec_send_packet(ctx.get(), nullptr);
        if (err < 0 && err != AVERROR_EOF) return Fail(badFormat, "sound decoding failed: " + AvError(err));
        return Drain();
    }

    // Moves up to maxFrames frames out of the fifo, 24-bit output packed from 32-bit samples.
    std::uint32_t TakeFrames(std::uint8_t* out, std::uint32_t maxFrames)
    {
        const int n = std::min<int>(av_audio_fifo_size(fifo.get()), static_cast<int>(maxFrames));
        if (n <= 0) return 0;
        if (output.sampleSize != 24) {
            void* planes[1] = {out};
            return static_cast<std::uint32_t>(std::max(av_audio_fifo_read(fifo.get(), planes, n), 0));
        }
        std::vector<std::int32_t> wide(static_cast<std::size_t>(n) * outChannels);
        void* planes[1] = {wide.data()};
        const int got = std::max(av_audio_fifo_read(fifo.get(), planes, n), 0);
        for (std::size_t i = 0; i < static_cast<std::size_t>(got) * outChannels; ++i) {
            const auto v = static_cast<std::uint32_t>(wide[i]);
            out[3 * i] = static_cast<std::uint8_t>(v >> 8);
            out[3 * i + 1] = static_cast<std::uint8_t>(v >> 16);
            out[3 * i + 2] = static_cast<std::uint8_t>(v >> 24);
        }
        return static_cast<std::uint32_t>(got);
    }
};

OSErr SoundConverterOpen(const SoundComponentData* input, const SoundComponentData* output, SoundConverter* sc)
{
    if (!input || !output || !sc) return paramErr;
    *sc = nullptr;
    if (output->format != kSoundNotCompressed || input->numChannels <= 0 || output->numChannels <= 0 ||
        IntegerRate(input->sampleRate) <= 0 || IntegerRate(output->sampleRate) <= 0)
        return paramErr;
    if (output->sampleSize != 8 && output->sampleSize != 16 && output->sampleSize != 24 && output->sampleSize != 32)
        return paramErr;
    // Source formats are named by their sample description type; libavformat's table of
    // QuickTime sound types holds them with the first character in the lowest byte.
    const OSType f = input->format;
    const unsigned tag = MKTAG((f >> 24) & 0xFF, (f >> 16) & 0xFF, (f >> 8) & 0xFF, f & 0xFF);
    const AVCodecTag* const tags[] = {avformat_get_mov_audio_tags(), nullptr};
    AVCodecID id = av_codec_get_id(tags, tag);
    // The table names the sample size of uncompressed types as 16 bits; the description knows.
    if (f == k16BitBigEndianFormat) id = input->sampleSize == 8 ? AV_CODEC_ID_PCM_S8 : AV_CODEC_ID_PCM_S16BE;
    if (f == k16BitLittleEndianFormat) id = input->sampleSize == 8 ? AV_CODEC_ID_PCM_S8 : AV_CODEC_ID_PCM_S16LE;
    if (f == k8BitOffsetBinaryFormat) id = input->sampleSize == 16 ? AV_CODEC_ID_PCM_S16BE : AV_CODEC_ID_PCM_U8;
    if (f == kSoundNotCompressed) id = input->sampleSize == 8 ? AV_CODEC_ID_PCM_U8 : AV_CODEC_ID_PCM_S16LE;
    const AVCodec* codec = id == AV_CODEC_ID_NONE ? nullptr : avcodec_find_decoder(id);
    if (!codec) return badFormat;
    auto* obj = new SoundConverterObject();
    obj->input = *input;
    obj->output = *output;
    obj->codec = codec;
    *sc = obj;
    return noErr;
}

OSErr SoundConverterClose(SoundConverter sc)
{
    if (!sc) return paramErr;
    delete sc;
    return noErr;
}

OSErr SoundConverterBeginConversion(SoundConverter sc)
{
    if (!sc) return paramErr;
    return sc->Begin();
}

OSErr SoundConverterEndConversion(SoundConverter sc, void* outputPtr, std::uint32_t* outputFrames,
                                  std::uint32_t* outputBytes)
{
    if (!sc || !outputFrames || !outputBytes) return paramErr;
    *outputFrames = 0;
    *outputBytes = 0;
    if (!sc->ctx || !sc->fifo) return noErr;
    // What is still held goes out, bounded by the buffer the conversion has been filling.
    if (!sc->decoderDone && sc->sourceDone) {
        if (const OSErr r = sc->Flush(); r != noErr) return r;
    }
    if (outputPtr && sc->OutFrameBytes() > 0) {
        const std::uint32_t frames =
            sc->TakeFrames(static_cast<std::uint8_t*>(outputPtr), sc->lastOutputBytes / sc->OutFrameBytes());
        *outputFrames = frames;
        *outputBytes = frames * sc->OutFrameBytes();
    }
    sc->ctx.reset();
    sc->swr.reset();
    sc->fifo.reset();
    return noErr;
}

OSErr SoundConverterGetBufferSizes(SoundConverter sc, std::uint32_t inputBytesTarget, std::uint32_t* inputFrames,
                                   std::uint32_t* inputBytes, std::uint32_t* outputBytes)
{
    if (!sc || !inputFrames || !inputBytes || !outputBytes) return paramErr;
    const int bits = av_get_bits_per_sample(sc->codec->id);
    std::uint32_t frames = 0;
    if (bits > 0 && sc->codec->id != AV_CODEC_ID_ADPCM_IMA_QT)
        frames = static_cast<std::uint32_t>(inputBytesTarget * 8ull / (static_cast<unsigned>(bits) * sc->input.numChannels));
    else if (sc->codec->id == AV_CODEC_ID_ADPCM_IMA_QT)
        frames = inputBytesTarget / (34u * sc->input.numChannels) * 64u;
    else
        frames = sc->ctx && sc->ctx->frame_size > 0 ? static_cast<std::uint32_t>(sc->ctx->frame_size) : 4096u;
    *inputFrames = frames;
    *inputBytes = inputBytesTarget;
    *outputBytes = frames * static_cast<std::uint32_t>(sc->output.numChannels * (sc->output.sampleSize / 8));
    return noErr;
}

OSErr SoundConverterGetInfo(SoundConverter sc, OSType /*selector*/, void* /*infoPtr*/)
{
    return sc ? siUnknownInfoType : paramErr;
}

OSErr SoundConverterSetInfo(SoundConverter sc, OSType selector, void* infoPtr)
{
    if (!sc) return paramErr;
    if (selector != siDecompressionParams) return siUnknownInfoType;
    const auto* atom = static_cast<const std::vector<std::uint8_t>*>(infoPtr);
    if (!atom) return paramErr;
    sc->extradata = *atom;
    return noErr;
}

OSErr SoundConverterConvertBuffer(SoundConverter sc, const void* inputPtr, std::uint32_t inputFrames, void* outputPtr,
                                  std::uint32_t* outputFrames, std::uint32_t* outputBytes)
{
    if (!sc || !inputPtr || !outputPtr || !outputFrames || !outputBytes) return paramErr;
    if (!sc->ctx) return sc->Fail(paramErr, "conversion not begun");
    // The input size follows from the frames only for constant-size formats.
    const int bits = av_get_bits_per_sample(sc->codec->id);
    std::uint64_t bytes = 0;
    if (sc->codec->id == AV_CODEC_ID_ADPCM_IMA_QT)
        bytes = (inputFrames + 63u) / 64u * 34ull * sc->input.numChannels;
    else if (bits > 0)
        bytes = static_cast<std::uint64_t>(inputFrames) * bits * sc->input.numChannels / 8;
    else
        return sc->Fail(unimpErr, "buffers of variable-size sound are converted with FillBuffer");
    if (bytes == 0 || bytes > 0x7FFFFFFF) return paramErr;
    if (const OSErr r = sc->Decode(static_cast<const std::uint8_t*>(inputPtr), static_cast<int>(bytes), 0, 0); r != noErr)
        return r;
    *outputFrames = sc->TakeFrames(static_cast<std::uint8_t*>(outputPtr), inputFrames);
    *outputBytes = *outputFrames * sc->OutFrameBytes();
    return noErr;
}

OSErr SoundConverterFillBuffer(SoundConverter sc, SoundConverterFillBufferDataProc proc, void* refCon,
                               void* outputBuffer, std::uint32_t outputBufferByteSize, std::uint32_t* bytesWritten,
                               std::uint32_t* framesWritten, std::uint32_t* outputFlags)
{
    if (!sc || !proc || !outputBuffer || !bytesWritten || !framesWritten || !outputFlags) return paramErr;
    *bytesWritten = *framesWritten = *outputFlags = 0;
    if (!sc->ctx) return sc->Fail(paramErr, "conversion not begun");
    sc->lastOutputBytes = outputBufferByteSize;
    const std::uint32_t capacity = outputBufferByteSize / sc->OutFrameBytes();
    auto* out = static_cast<std::uint8_t*>(outputBuffer);
    std::uint32_t frames = 0;
    while (frames < capacity) {
        frames += sc->TakeFrames(out + static_cast<std::size_t>(frames) * sc->OutFrameBytes(), capacity - frames);
        if (frames >= capacity || sc->decoderDone) break;
        if (sc->sourceDone) {
            if (const OSErr r = sc->Flush(); r != noErr) return r;
            continue;
        }
        ExtendedSoundComponentData* rec = nullptr;
        const bool more = proc(&rec, refCon);
        if (rec && rec->desc.buffer && rec->bufferSize > 0) {
            if (const OSErr r = sc->Decode(rec->desc.buffer, rec->bufferSize, rec->trimStart, rec->trimEnd); r != noErr)
                return r;
        }
        if (!more || !rec || !rec->desc.buffer || rec->bufferSize <= 0) sc->sourceDone = true;
    }
    *framesWritten = frames;
    *bytesWritten = frames * sc->OutFrameBytes();
    const bool held = av_audio_fifo_size(sc->fifo.get()) > 0 || !sc->decoderDone;
    if (held) *outputFlags |= kSoundConverterHasLeftOverData;
    if (frames < capacity) *outputFlags |= kSoundConverterDidntFillBuffer;
    return noErr;
}

const char* SoundConverterLastError(SoundConverter sc) { return sc ? sc->error.c_str() : ""; }

// ---- CSoundConverter ----

CSoundConverter::~CSoundConverter()
{
    if (owned_ && converter_) SoundConverterClose(converter_);
}

OSErr CSoundConverter::Open(const SoundComponentData* input, const SoundComponentData* output)
{
    Close();
    SoundConverter sc = nullptr;
    const OSErr err = SoundConverterOpen(input, output, &sc);
    if (err == noErr) {
        converter_ = sc;
        owned_ = true;
    }
    return err;
}

OSErr CSoundConverter::Close()
{
    OSErr err = noErr;
    if (converter_ && owned_) err = SoundConverterClose(converter_);
    converter_ = nullptr;
    owned_ = false;
    return err;
}

OSErr CSoundConverter::BeginConversion() { return SoundConverterBeginConversion(converter_); }

OSErr CSoundConverter::EndConversion(void* outputPtr, std::uint32_t* outputFrames, std::uint32_t* outputBytes)
{
    return SoundConverterEndConversion(converter_, outputPtr, outputFrames, outputBytes);
}

OSErr CSoundConverter::GetBufferSizes(std::uint32_t inputBytesTarget, std::uint32_t* inputFrames,
                                      std::uint32_t* inputBytes, std::uint32_t* outputBytes)
{
    return SoundConverterGetBufferSizes(converter_, inputBytesTarget, inputFrames, inputBytes, outputBytes);
}

OSErr CSoundConverter::GetInfo(OSType selector, void* infoPtr)
{
    return SoundConverterGetInfo(converter_, selector, infoPtr);
}

OSErr CSoundConverter::SetInfo(OSType selector, void* infoPtr)
{
    return SoundConverterSetInfo(converter_, selector, infoPtr);
}

OSErr CSoundConverter::ConvertBuffer(const void* inputPtr, std::uint32_t inputFrames, void* outputPtr,
                                     std::uint32_t* outputFrames, std::uint32_t* outputBytes)
{
    return SoundConverterConvertBuffer(converter_, inputPtr, inputFrames, outputPtr, outputFrames, outputBytes);
}

OSErr CSoundConverter::FillBuffer(SoundConverterFillBufferDataProc proc, void* refCon, void* outputBuffer,
                                  std::uint32_t outputBufferByteSize, std::uint32_t* bytesWritten,
                                  std::uint32_t* framesWritten, std::uint32_t* outputFlags)
{
    return SoundConverterFillBuffer(converter_, proc, refCon, outputBuffer, outputBufferByteSize, bytesWritten,
                                    framesWritten, outputFlags);
}

void CSoundConverter::Attach(SoundConverter sc)
{
    CSoundConverter::Close();
    converter_ = sc;
    owned_ = true;
}

std::string CSoundConverter::LastError() const { return SoundConverterLastError(converter_); }

// ---- CPassThroughSoundConverter ----

namespace {

bool PassThroughFormat(OSType f)
{
    return f == kSoundNotCompressed || f == k8BitOffsetBinaryFormat || f == k16BitBigEndianFormat ||
           f == k16BitLittleEndianFormat;
}

}  // namespace

std::uint32_t CPassThroughSoundConverter::FrameBytes() const
{
    return static_cast<std::uint32_t>(std::max<int>(input_.numChannels, 0)) *
           static_cast<std::uint32_t>(std::max<int>(input_.sampleSize / 8, 0));
}

OSErr CPassThroughSoundConverter::Open(const SoundComponentData* input, const SoundComponentData* output)
{
    if (!input || !output) return paramErr;
    if (PassThroughFormat(input->format) && PassThroughFormat(output->format) &&
        input->sampleRate == output->sampleRate && input->sampleSize == output->sampleSize &&
        input->numChannels == output->numChannels) {
        if (input->numChannels <= 0 || input->sampleSize <= 0) return paramErr;
        passThrough_ = true;
        ResetPending();
        input_ = *input;
        output_ = *output;
        return noErr;
    }
    passThrough_ = false;
    return CSoundConverter::Open(input, output);
}

OSErr CPassThroughSoundConverter::Close()
{
    if (!passThrough_) return CSoundConverter::Close();
    passThrough_ = false;
    input_ = {};
    output_ = {};
    ResetPending();
    return noErr;
}

OSErr CPassThroughSoundConverter::BeginConversion()
{
    if (!passThrough_) return CSoundConverter::BeginConversion();
    ResetPending();
    return noErr;
}

OSErr CPassThroughSoundConverter::EndConversion(void* outputPtr, std::uint32_t* outputFrames, std::uint32_t* outputBytes)
{
    if (!passThrough_) return CSoundConverter::EndConversion(outputPtr, outputFrames, outputBytes);
    if (!outputFrames || !outputBytes) return paramErr;
    *outputFrames = 0;
    *outputBytes = 0;
    // Only an abort ends a conversion with sound still waiting; it goes with the abort.
    ResetPending();
    return noErr;
}

OSErr CPassThroughSoundConverter::GetBufferSizes(std::uint32_t inputBytesTarget, std::uint32_t* inputFrames,
                                                 std::uint32_t* inputBytes, std::uint32_t* outputBytes)
{
    if (!passThrough_) return CSoundConverter::GetBufferSizes(inputBytesTarget, inputFrames, inputBytes, outputBytes);
    if (!inputFrames || !inputBytes || !outputBytes) return paramErr;
    *inputFrames = FrameBytes() ? inputBytesTarget / FrameBytes() : 0;
    *inputBytes = inputBytesTarget;
    *outputBytes = inputBytesTarget;
    return noErr;
}

OSErr CPassThroughSoundConverter::GetInfo(OSType selector, void* infoPtr)
{
    return passThrough_ ? 1 : CSoundConverter::GetInfo(selector, infoPtr);
}

OSErr CPassThroughSoundConverter::SetInfo(OSType selector, void* infoPtr)
{
    return passThrough_ ? noErr : CSoundConverter::SetInfo(selector, infoPtr);
}

OSErr CPassThroughSoundConverter::ConvertBuffer(const void* inputPtr, std::uint32_t inputFrames, void* outputPtr,
                                                std::uint32_t* outputFrames, std::uint32_t* outputBytes)
{
    if (!passThrough_) return CSoundConverter::ConvertBuffer(inputPtr, inputFrames, outputPtr, outputFrames, outputBytes);
    if (!inputPtr || !outputPtr || !outputFrames || !outputBytes) return paramErr;
    const std::uint64_t n = static_cast<std::uint64_t>(inputFrames) * FrameBytes();
    std::memcpy(outputPtr, inputPtr, n);
    *outputFrames = inputFrames;
    *outputBytes = static_cast<std::uint32_t>(n);
    return noErr;
}

std::size_t CPassThroughSoundConverter::RecordBytes(const ExtendedSoundComponentData* rec) const
{
    if (!rec || rec->desc.sampleCount == 0 || !rec->desc.buffer || rec->bufferSize <= 0) return 0;
    std::uint64_t n = static_cast<std::uint32_t>(rec->bufferSize);
    // The buffer size is the truth when the record says so (a media sample need not hold a
    // whole number of frames); otherwise the frames it claims bound what is read.
    const bool countValid = !(rec->desc.flags & kExtendedSoundData) ||
                            !(rec->extendedFlags & kExtendedSoundSampleCountNotValid);
    if (countValid)
        n = std::min<std::uint64_t>(n, static_cast<std::uint64_t>(static_cast<std::uint32_t>(rec->desc.sampleCount)) * FrameBytes());
    return static_cast<std::size_t>(n);
}

void CPassThroughSoundConverter::ResetPending()
{
    pending_.clear();
    pendingAt_ = 0;
    sourceEnded_ = false;
}

OSErr CPassThroughSoundConverter::FillBuffer(SoundConverterFillBufferDataProc proc, void* refCon, void* outputBuffer,
                                             std::uint32_t outputBufferByteSize, std::uint32_t* bytesWritten,
                                             std::uint32_t* framesWritten, std::uint32_t* outputFlags)
{
    if (!passThrough_)
        return CSoundConverter::FillBuffer(proc, refCon, outputBuffer, outputBufferByteSize, bytesWritten, framesWritten,
                                           outputFlags);
    if (!proc || !outputBuffer || !bytesWritten || !framesWritten || !outputFlags) return paramErr;
    *bytesWritten = *framesWritten = *outputFlags = 0;
    const std::size_t frameBytes = FrameBytes();
    const std::size_t room = outputBufferByteSize / frameBytes * frameBytes;
    if (room == 0) return paramErr;

    // Source bytes wait here until they leave as whole frames: a media sample larger than
    // the output buffer goes out over several calls, and one that ends inside a frame
    // completes that frame from the next sample.
    while (!sourceEnded_ && pending_.size() - pendingAt_ < frameBytes) {
        ExtendedSoundComponentData* rec = nullptr;
        const bool more = proc(&rec, refCon);
        const std::size_t n = RecordBytes(rec);
        if (n > 0) {
            pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pendingAt_));
            pendingAt_ = 0;
            pending_.insert(pending_.end(), rec->desc.buffer, rec->desc.buffer + n);
        }
        if (!more || n == 0) sourceEnded_ = true;
    }
    // The sound's last frame, cut short by the file, is completed with silence rather than lost.
    if (sourceEnded_ && (pending_.size() - pendingAt_) % frameBytes) {
        const std::uint8_t silence = input_.format == k8BitOffsetBinaryFormat && input_.sampleSize == 8 ? 0x80 : 0;
        pending_.resize(pending_.size() + frameBytes - (pending_.size() - pendingAt_) % frameBytes, silence);
    }

    const std::size_t n = std::min((pending_.size() - pendingAt_) / frameBytes * frameBytes, room);
    const std::uint8_t* in = pending_.data() + pendingAt_;
    auto* out = static_cast<std::uint8_t*>(outputBuffer);
    if (input_.sampleSize == 16) {
        // Every pair is exchanged, little-endian 'sowt' included: the module has always
        // written it this way. Frames are whole, so pairs never straddle two calls.
        for (std::size_t i = 0; i + 1 < n; i += 2) {
            out[i] = in[i + 1];
            out[i + 1] = in[i];
        }
    } else if (n > 0) {
        std::memcpy(out, in, n);
    }
    pendingAt_ += n;
    if (pendingAt_ == pending_.size()) {
        pending_.clear();
        pendingAt_ = 0;
    }
    *framesWritten = static_cast<std::uint32_t>(n / frameBytes);
    *bytesWritten = static_cast<std::uint32_t>(n);
    *outputFlags = (!sourceEnded_ || !pending_.empty()) ? kSoundConverterHasLeftOverData : 0;
    if (n < room) *outputFlags |= kSoundConverterDidntFillBuffer;
    return noErr;
}

}  // namespace zub::qt
