// Loads and fits the images of a run ahead of the frame being written, on worker threads,
// never more than `window` frames ahead of the consumer. Results are taken strictly in
// order; memory stays bounded by the window (each slot is one frame holder) plus each
// worker's decode buffers.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "imgseq/ImageFitting.h"

namespace zub {

struct LoadedFrame {
    bool ok = false;
    std::string error;
    FrameHolder frame;
};

class FramePrefetch {
public:
    struct Options {
        std::int32_t fitWord = 0;
        bool swap = false;
        bool shift = false;
        FrameSize frameSize;
        int threads = 0;   // 0: load on the caller's thread in Take()
        int window = 0;    // frames decoded ahead; at least `threads`
    };

    FramePrefetch(std::vector<std::string> files, const Options& options);
    ~FramePrefetch();
    FramePrefetch(const FramePrefetch&) = delete;
    FramePrefetch& operator=(const FramePrefetch&) = delete;

    // The result for row `index`; rows must be taken in increasing order (a row may be
    // skipped). Blocks until that row is loaded.
    LoadedFrame Take(std::size_t index);
    // Stops the workers; whatever they were loading is thrown away.
    void Stop();

    std::size_t Window() const { return window_; }
    // The most frames held at once (loaded but not taken, or being loaded), for the benchmark.
    std::size_t PeakHeld() const;

private:
    void Work();
    LoadedFrame Load(std::size_t index) const;

    const std::vector<std::string> files_;
    const Options options_;
    std::size_t window_ = 0;

    mutable std::mutex mutex_;
    std::condition_variable workReady_;   // a worker may start a row
    std::condition_variable frameReady_;  // a row was finished
    std::size_t next_ = 0;                // next row a worker starts
    std::size_t taken_ = 0;               // rows below this were handed out or skipped
    std::deque<LoadedFrame> slots_;       // rows taken_ .. taken_ + slots_.size() - 1
    std::deque<bool> done_;
    std::size_t held_ = 0, peakHeld_ = 0;
    bool stop_ = false;
    std::vector<std::thread> workers_;
};

}  // namespace zub
