// What a list of images holds before it is imported: gaps in the numbering, images whose size
// or depth differs from the first, and files that cannot be read. Shown in the sequence
// dialog as one line ("240 images, 2 gaps (frames 0101–0103, 0180), 1 unreadable") and
// available to hosts in full.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zub {

// The number that ends a file's stem, with its text (leading zeros kept, for printing gaps
// the way the files are named) and the rest of the path it belongs with.
struct SequenceNumber {
    bool present = false;
    std::uint64_t value = 0;
    std::string digits;   // as written in the name
    std::string series;   // dir + stem without the number + ext: images of one run share it
};
SequenceNumber NumberOf(const std::string& path);

// A run of missing numbers between two neighbouring rows of the list.
struct SequenceGap {
    std::size_t afterRow = 0;   // the missing numbers come after this row
    std::uint64_t first = 0;    // first and last missing number
    std::uint64_t last = 0;
    int width = 0;              // digits of the neighbour's number, for printing zero-padded
    std::uint64_t Count() const { return last - first + 1; }
};

// The gaps: two neighbouring rows of the same series whose numbers climb by more than one.
// Rows of different series, or numbers that do not climb, leave no gap.
std::vector<SequenceGap> FindGaps(const std::vector<std::string>& files);

// For each frame of the clip, the row whose image it shows: every row once, in order, and
// with `fillGaps` the row before a gap once more for each missing number, so the clip keeps
// the sequence's timing.
std::vector<std::size_t> FramePlan(const std::vector<std::string>& files, bool fillGaps);

struct SequenceImageInfo {
    std::string path;
    bool readable = false;
    std::string error;        // why it cannot be read
    int width = 0;
    int height = 0;
    int channels = 0;         // as stored in the file; 0 when the reader does not say
    int bitsPerChannel = 0;
};

struct SequenceReport {
    std::size_t images = 0;
    std::vector<SequenceGap> gaps;
    std::vector<SequenceImageInfo> differing;   // readable, but size or depth unlike the first readable image
    std::vector<SequenceImageInfo> unreadable;
    SequenceImageInfo first;                    // the first readable image (readable false when none)
    bool cancelled = false;                     // stopped early: the counts cover only what was looked at

    std::uint64_t MissingFrames() const;
    // "240 images, 2 gaps (frames 0101–0103, 0180), 1 unreadable"
    std::string Summary() const;
};

// Looks at every image (decoding each, on worker threads, so a damaged file is found before
// the run meets it). `progress` gets (done, total); `cancel` non-zero stops early.
SequenceReport ReportSequence(const std::vector<std::string>& files,
                              const std::function<void(int done, int total)>& progress = {},
                              const std::atomic<int>* cancel = nullptr, int threads = -1);

}  // namespace zub
