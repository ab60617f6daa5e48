#include "imgseq/SequenceReport.h"

#include <algorithm>
#include <mutex>
#include <thread>

#include "imgseq/ImageFitting.h"
#include "imgseq/SequenceNaming.h"

namespace zub {

namespace {

std::string Padded(std::uint64_t value, int width)
{
    std::string s = std::to_string(value);
    if (static_cast<int>(s.size()) < width) s.insert(0, static_cast<std::size_t>(width) - s.size(), '0');
    return s;
}

std::string Counted(std::size_t n, const char* one, const char* many)
{
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

SequenceNumber NumberOf(const std::string& path)
{
    SequenceNumber n;
    std::string dir, stem, ext;
    if (!SplitPath(path, dir, stem, ext)) return n;
    std::size_t start = stem.size();
    while (start > 0 && stem[start - 1] >= '0' && stem[start - 1] <= '9') --start;
    n.digits = stem.substr(start);
    n.series = dir + stem.substr(0, start) + "|" + ext;
    // Numbers too long for 64 bits are names, not frame numbers.
    if (n.digits.empty() || n.digits.size() > 18) return n;
    n.present = true;
    n.value = std::stoull(n.digits);
    return n;
}

std::vector<SequenceGap> FindGaps(const std::vector<std::string>& files)
{
    std::vector<SequenceGap> gaps;
    SequenceNumber previous;
    for (std::size_t i = 0; i < files.size(); ++i) {
        SequenceNumber n = NumberOf(files[i]);
        if (i > 0 && previous.present && n.present && n.series == previous.series && n.value > previous.value + 1) {
            SequenceGap g;
            g.afterRow = i - 1;
            g.first = previous.value + 1;
            g.last = n.value - 1;
            // Zero-padded names print their missing numbers the same way.
            g.width = previous.digits.size() > 1 && previous.digits[0] == '0' ? static_cast<int>(previous.digits.size())
                                                                              : 0;
            gaps.push_back(g);
        }
        previous = std::move(n);
    }
    return gaps;
}

std::vector<std::size_t> FramePlan(const std::vector<std::string>& files, bool fillGaps)
{
    std::vector<std::size_t> plan;
    plan.reserve(files.size());
    std::vector<SequenceGap> gaps;
    if (fillGaps) gaps = FindGaps(files);
    std::size_t g = 0;
    for (std::size_t row = 0; row < files.size(); ++row) {
        plan.push_back(row);
        for (; g < gaps.size() && gaps[g].afterRow == row; ++g)
            for (std::uint64_t k = 0; k < gaps[g].Count(); ++k) plan.push_back(row);
    }
    return plan;
}

std::uint64_t SequenceReport::MissingFrames() const
{
    std::uint64_t n = 0;
    for (const SequenceGap& g : gaps) n += g.Count();
    return n;
}

std::string SequenceReport::Summary() const
{
    std::string s = Counted(images, "image", "images");
    if (!gaps.empty()) {
        s += ", " + Counted(gaps.size(), "gap", "gaps") + " (";
        s += MissingFrames() == 1 ? "frame " : "frames ";
        constexpr std::size_t kListed = 6;
        for (std::size_t i = 0; i < gaps.size() && i < kListed; ++i) {
            const SequenceGap& g = gaps[i];
            if (i) s += ", ";
            s += Padded(g.first, g.width);
            if (g.last != g.first) s += "\u2013" + Padded(g.last, g.width);
        }
        if (gaps.size() > kListed) s += ", and " + std::to_string(gaps.size() - kListed) + " more";
        s += ")";
    }
    if (!differing.empty()) s += ", " + std::to_string(differing.size()) + " of another size or depth";
    if (!unreadable.empty()) s += ", " + std::to_string(unreadable.size()) + " unreadable";
    if (cancelled) s += " (not all looked at)";
    return s;
}

SequenceReport ReportSequence(const std::vector<std::string>& files,
                              const std::function<void(int done, int total)>& progress,
                              const std::atomic<int>* cancel, int threads)
{
    SequenceReport report;
    report.images = files.size();
    report.gaps = FindGaps(files);

    std::vector<SequenceImageInfo> info(files.size());
    std::atomic<std::size_t> next{0};
    std::atomic<int> done{0};
    std::atomic<bool> stopped{false};
    std::mutex progressMutex;
    const int total = static_cast<int>(files.size());
    auto work = [&] {
        for (;;) {
            if (cancel && cancel->load() != 0) {
                stopped = true;
                return;
            }
            const std::size_t i = next++;
            if (i >= files.size()) return;
            SequenceImageInfo& out = info[i];
            out.path = files[i];
            ImageFileInfo header;
            Image image;
            // The header for the stored depth, then the whole picture: a file cut short
            // or damaged past its header is only found by decoding it.
            if (DescribeImageFile(files[i], header, &out.error) && ReadImageFile(files[i], image, &out.error)) {
                out.readable = true;
                out.width = image.Width();
                out.height = image.Height();
                out.channels = header.channels;
                out.bitsPerChannel = header.bitsPerChannel;
            }
            const int d = ++done;
            if (progress) {
                std::lock_guard lock(progressMutex);
                progress(d, total);
            }
        }
    };
    unsigned n = threads >= 0 ? static_cast<unsigned>(threads)
                              : std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
    n = std::min<unsigned>(n, static_cast<unsigned>(files.size()));
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < n; ++t) pool.emplace_back(work);
    work();
    for (auto& t : pool) t.join();
    report.cancelled = stopped.load();

    for (SequenceImageInfo& i : info) {
        if (i.path.empty()) continue;  // not looked at (cancelled)
        if (!i.readable) {
            report.unreadable.push_back(std::move(i));
            continue;
        }
        if (!report.first.readable) {
            report.first = i;
            continue;
        }
        const SequenceImageInfo& f = report.first;
        if (i.width != f.width || i.height != f.height || i.channels != f.channels ||
            i.bitsPerChannel != f.bitsPerChannel)
            report.differing.push_back(std::move(i));
    }
    return report;
}

}  // namespace zub
