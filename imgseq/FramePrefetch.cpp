#include "imgseq/FramePrefetch.h"

#include <algorithm>
#include <exception>

namespace zub {

FramePrefetch::FramePrefetch(std::vector<std::string> files, const Options& options)
    : files_(std::move(files)), options_(options)
{
    const int threads = std::max(0, options_.threads);
    window_ = static_cast<std::size_t>(std::max(options_.window, threads));
    for (int t = 0; t < threads; ++t) workers_.emplace_back([this] { Work(); });
}

FramePrefetch::~FramePrefetch()
{
    Stop();
}

void FramePrefetch::Stop()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    workReady_.notify_all();
    frameReady_.notify_all();
    for (auto& w : workers_)
        if (w.joinable()) w.join();
    workers_.clear();
}

LoadedFrame FramePrefetch::Load(std::size_t index) const
{
    LoadedFrame f;
    // Nothing may leave a worker thread: a failure is this frame's load failure.
    try {
        f.ok = LoadFrame(files_[index], options_.fitWord, options_.swap, options_.shift, options_.frameSize, f.frame,
                         &f.error);
    } catch (const std::exception& e) {
        f.ok = false;
        f.error = files_[index] + ": " + e.what();
    }
    if (!f.ok) f.frame.Release();
    return f;
}

void FramePrefetch::Work()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        workReady_.wait(lock, [&] { return stop_ || (next_ < files_.size() && next_ < taken_ + window_); });
        if (stop_) return;
        const std::size_t index = next_++;
        ++held_;
        peakHeld_ = std::max(peakHeld_, held_);
        lock.unlock();
        LoadedFrame f = Load(index);
        lock.lock();
        if (index < taken_) {  // skipped while it was loading
            --held_;
            continue;
        }
        const std::size_t slot = index - taken_;
        if (slots_.size() <= slot) {
            slots_.resize(slot + 1);
            done_.resize(slot + 1, false);
        }
        slots_[slot] = std::move(f);
        done_[slot] = true;
        frameReady_.notify_all();
    }
}

LoadedFrame FramePrefetch::Take(std::size_t index)
{
    if (index >= files_.size()) return {false, "no image for frame " + std::to_string(index), {}};
    if (workers_.empty()) {
        taken_ = index + 1;
        return Load(index);
    }
    std::unique_lock lock(mutex_);
    // Rows passed over are dropped, loaded or not.
    while (taken_ < index) {
        if (!slots_.empty()) {
            if (done_.front()) --held_;
            slots_.pop_front();
            done_.pop_front();
        }
        ++taken_;
        if (next_ < taken_) next_ = taken_;
    }
    workReady_.notify_all();
    frameReady_.wait(lock, [&] { return stop_ || (!done_.empty() && done_.front()); });
    if (stop_) return {false, files_[index] + ": the run was stopped", {}};
    LoadedFrame f = std::move(slots_.front());
    slots_.pop_front();
    done_.pop_front();
    --held_;
    ++taken_;
    lock.unlock();
    workReady_.notify_all();
    return f;
}

std::size_t FramePrefetch::PeakHeld() const
{
    std::lock_guard lock(mutex_);
    return peakHeld_;
}

}  // namespace zub
