#pragma once
// Owners for FFmpeg's objects: one unique_ptr per kind, its deleter FFmpeg's own free
// function. Some free functions take the object, some the address of the pointer (and null
// it); the deleter calls whichever form the function has, so no part writes its own.
// Header-only like AvError.h: a part names only the owners of the libraries it links.
#include <memory>
#include <type_traits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace zub::av {

template <auto Free>
struct Freer {
    template <class T>
    void operator()(T* p) const
    {
        if constexpr (std::is_invocable_v<decltype(Free), T**>)
            Free(&p);
        else
            Free(p);
    }
};

template <class T, auto Free>
using Owner = std::unique_ptr<T, Freer<Free>>;

using FramePtr = Owner<AVFrame, av_frame_free>;
using PacketPtr = Owner<AVPacket, av_packet_free>;
using CodecContextPtr = Owner<AVCodecContext, avcodec_free_context>;
using InputPtr = Owner<AVFormatContext, avformat_close_input>;
using SwsPtr = Owner<SwsContext, sws_freeContext>;
using SwrPtr = Owner<SwrContext, swr_free>;
using AudioFifoPtr = Owner<AVAudioFifo, av_audio_fifo_free>;
using DictPtr = Owner<AVDictionary, av_dict_free>;

// A muxer's context closes its file (unless the format writes none) before it is freed.
struct OutputFree {
    void operator()(AVFormatContext* oc) const
    {
        if (oc->pb && !(oc->oformat->flags & AVFMT_NOFILE)) avio_closep(&oc->pb);
        avformat_free_context(oc);
    }
};
using OutputPtr = std::unique_ptr<AVFormatContext, OutputFree>;

}  // namespace zub::av
