#pragma once
// How many frame threads a video decoder gets, the same for the graph route (gst-libav's
// `max-threads`) and the movie route (libavcodec's `thread_count`).
//
// libavcodec's own choice is one more than the cores. On a long-GOP stream that leaves cores
// idle: each frame thread waits on rows of the frame it refers to, and with few threads they
// are all waiting at once. More threads keep more frames started, which on 2 cores decoded
// moderate-rate 1080p H.264 about a tenth faster (ffmpeg alone as well as our conversion),
// with little more past twelve. Each thread holds pictures and its own decoder state (about
// 13 MB a thread at 1080p), so the count is bounded by a budget for the picture size: 1080p
// gets 12, 720p and smaller 16, UHD stays at libavcodec's own count.
#include <algorithm>
#include <cstdint>
#include <thread>

namespace zub::av {

inline int DecoderFrameThreads(int width, int height)
{
    constexpr std::int64_t kPictureBudget = std::int64_t{48} << 20;  // bytes of pictures the threads may hold
    constexpr int kMostThreads = 16;                                   // libavcodec's own ceiling for automatic threads
    const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const int own = std::min(cores + 1, kMostThreads);
    if (width <= 0 || height <= 0) return own;
    // Two bytes a pixel covers 4:2:2 8-bit and 4:2:0 10-bit, the larger common decoder outputs.
    const std::int64_t picture = std::int64_t{width} * height * 2;
    const std::int64_t fit = kPictureBudget / picture;
    return static_cast<int>(std::clamp<std::int64_t>(fit, own, kMostThreads));
}

}  // namespace zub::av
