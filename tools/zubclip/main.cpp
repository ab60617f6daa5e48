// zubclip: what the recorder holds. `info` shows a clip's header, its frames and the ZUBV
// record; `export` writes frames (video and/or key) as PNG; `sheet` makes a contact sheet of
// evenly spaced frames. Exit status 0 on success, 1 on a failure (the reason on stderr), 2 on
// a usage error.
#include <CLI/CLI.hpp>
#include <QImage>
#include <QPainter>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "recorder/ClipFile.h"
#include "device/RecorderDevice.h"

using namespace zub::rec;

namespace {

const char* TypeName(std::int32_t type, bool key)
{
    switch (type) {
    case 0: return "none";
    case 1: return key ? "compressed (greyscale JPEG fields)" : "compressed (JPEG fields, 4:2:2)";
    case 3: return key ? "uncompressed (8-bit 4:2:2, key in the luma)" : "uncompressed (8-bit 4:2:2)";
    default: return "unknown";
    }
}

std::string Rate(std::int32_t rate)
{
    return rate == -1 ? std::string("-1 (uncompressed)") : std::to_string(rate) + " bytes/s";
}

std::unique_ptr<ClipReader> OpenOrSay(const std::string& path)
{
    std::string error;
    auto r = ClipReader::Open(path, &error);
    if (!r) std::fprintf(stderr, "zubclip: %s\n", error.c_str());
    return r;
}

int Info(const std::string& path, bool frames)
{
    auto r = OpenOrSay(path);
    if (!r) return 1;
    const ClipHeader& h = r->Header();
    std::printf("file: %s\n", path.c_str());
    std::printf("format: ZUB0 version %u\n", h.version);
    std::printf("frame size: %u x %u (%u lines)\n", h.width, h.height, h.lines);
    std::printf("frame rate: %u/%u (%.3f fps)\n", h.rateNumerator, h.rateDenominator,
                h.rateDenominator ? static_cast<double>(h.rateNumerator) / h.rateDenominator : 0.0);
    std::printf("capacity: %u frames\n", h.capacity);
    std::printf("frames written (header): %u\n", h.framesWritten);
    std::printf("frames readable: video %u", r->FramesReadable(kVideo));
    if (h.alphaType) std::printf(", key %u", r->FramesReadable(kAlpha));
    std::printf("\n");
    std::printf("video: type %d %s, rate %s, %u bytes per frame\n", h.videoType, TypeName(h.videoType, false),
                Rate(h.videoRate).c_str(), h.videoSlot);
    if (h.alphaType)
        std::printf("key: type %d %s, rate %s, %u bytes per frame\n", h.alphaType, TypeName(h.alphaType, true),
                    Rate(h.alphaRate).c_str(), h.alphaSlot);
    else
        std::printf("key: none\n");
    std::printf("flags: 0x%x%s%s\n", h.flags, (h.flags & kClipHasAlpha) ? " alpha" : "",
                (h.flags & kClipFixedFieldSize) ? " fixed-field-size" : "");
    std::printf("budget divisor: %u\n", h.divisor);
    std::uint8_t zubv[116];
    if (zub::GetZubvChunk(r->AppInfo(), zubv)) {
        const unsigned sectors = static_cast<unsigned>(zubv[24]) | (static_cast<unsigned>(zubv[25]) << 8);
        std::printf("ZUBV: 116 bytes, sectors per frame %u (%u bytes)\n", sectors, sectors * 512);
    } else {
        std::printf("ZUBV: none\n");
    }
    if (frames) {
        for (int t = 0; t < (h.alphaType ? 2 : 1); ++t) {
            const Track track = static_cast<Track>(t);
            const std::uint32_t n = r->FramesReadable(track);
            for (std::uint32_t i = 0; i < n; ++i) {
                IndexEntry e;
                r->Entry(track, i, e);
                std::printf("%s %u: %u bytes (fields %u + %u)\n", t ? "key" : "video", i, e.field1 + e.field2,
                            e.field1, e.field2);
            }
        }
    }
    return 0;
}

QImage ToImage(const ClipReader& r, Track t, std::uint32_t frame, std::string* error)
{
    std::vector<std::uint8_t> pixels;
    if (!r.Decode(t, frame, pixels, error)) return {};
    const int w = static_cast<int>(r.Header().width), h = static_cast<int>(r.Header().height);
    if (t == kVideo)
        return QImage(pixels.data(), w, h, w * 4, QImage::Format_RGB32).copy();
    return QImage(pixels.data(), w, h, w, QImage::Format_Grayscale8).copy();
}

bool Range(const ClipReader& r, long first, long last, std::uint32_t& a, std::uint32_t& b)
{
    const std::uint32_t n = r.FramesReadable(kVideo);
    if (n == 0) {
        std::fprintf(stderr, "zubclip: the clip holds no whole frame\n");
        return false;
    }
    if (last < 0) last = static_cast<long>(n) - 1;
    if (first < 0 || first > last || last >= static_cast<long>(n)) {
        std::fprintf(stderr, "zubclip: frames %ld to %ld are outside the clip's 0 to %u\n", first, last, n - 1);
        return false;
    }
    a = static_cast<std::uint32_t>(first);
    b = static_cast<std::uint32_t>(last);
    return true;
}

int Export(const std::string& path, const std::string& outDir, long first, long last, const std::string& what)
{
    auto r = OpenOrSay(path);
    if (!r) return 1;
    std::uint32_t a = 0, b = 0;
    if (!Range(*r, first, last, a, b)) return 1;
    const bool video = what == "video" || what == "both";
    const bool key = what == "key" || what == "both";
    if (key && !r->HasTrack(kAlpha)) {
        std::fprintf(stderr, "zubclip: %s has no key track\n", path.c_str());
        return 1;
    }
    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    const std::string stem = std::filesystem::path(path).stem().string();
    for (std::uint32_t i = a; i <= b; ++i) {
        for (int t = 0; t < 2; ++t) {
            if ((t == 0 && !video) || (t == 1 && !key)) continue;
            std::string error;
            const QImage img = ToImage(*r, static_cast<Track>(t), i, &error);
            if (img.isNull()) {
                std::fprintf(stderr, "zubclip: %s\n", error.c_str());
                return 1;
            }
            char name[64];
            std::snprintf(name, sizeof name, "%s-%06u.png", t ? "key" : "frame", i);
            const std::string out = (std::filesystem::path(outDir) / (stem + "-" + name)).string();
            if (!img.save(QString::fromStdString(out), "PNG")) {
                std::fprintf(stderr, "zubclip: %s: cannot write the PNG\n", out.c_str());
                return 1;
            }
            std::printf("%s\n", out.c_str());
        }
    }
    return 0;
}

int Sheet(const std::string& path, const std::string& out, int count, int columns, int thumbWidth, bool key)
{
    auto r = OpenOrSay(path);
    if (!r) return 1;
    const std::uint32_t n = r->FramesReadable(kVideo);
    if (n == 0) {
        std::fprintf(stderr, "zubclip: %s holds no whole frame\n", path.c_str());
        return 1;
    }
    if (key && !r->HasTrack(kAlpha)) {
        std::fprintf(stderr, "zubclip: %s has no key track\n", path.c_str());
        return 1;
    }
    if (count > static_cast<int>(n)) count = static_cast<int>(n);
    if (columns > count) columns = count;
    const int rows = (count + columns - 1) / columns;
    const int thumbHeight = thumbWidth * static_cast<int>(r->Header().height) / static_cast<int>(r->Header().width);
    const int gap = 4;
    QImage sheet((thumbWidth + gap) * columns + gap, (thumbHeight + gap) * rows + gap, QImage::Format_RGB32);
    sheet.fill(Qt::darkGray);
    QPainter painter(&sheet);
    for (int k = 0; k < count; ++k) {
        // Evenly spaced from the first frame to the last.
        const std::uint32_t frame =
            count == 1 ? 0 : static_cast<std::uint32_t>(static_cast<std::uint64_t>(k) * (n - 1) / (count - 1));
        std::string error;
        const QImage img = ToImage(*r, key ? kAlpha : kVideo, frame, &error);
        if (img.isNull()) {
            std::fprintf(stderr, "zubclip: %s\n", error.c_str());
            return 1;
        }
        painter.drawImage(gap + (k % columns) * (thumbWidth + gap), gap + (k / columns) * (thumbHeight + gap),
                          img.scaled(thumbWidth, thumbHeight, Qt::IgnoreAspectRatio, Qt::SmoothTransformation));
    }
    painter.end();
    if (!sheet.save(QString::fromStdString(out), "PNG")) {
        std::fprintf(stderr, "zubclip: %s: cannot write the PNG\n", out.c_str());
        return 1;
    }
    std::printf("%s: %d frames of %u\n", out.c_str(), count, n);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zubclip - look inside the disk recorder's clip files"};
    app.require_subcommand(1);

    std::string clip;
    bool frames = false;
    auto* info = app.add_subcommand("info", "Header, frame counts, types, rates, flags and the ZUBV record");
    info->add_option("clip", clip, "clip file (.zub)")->required();
    info->add_flag("--frames", frames, "list every whole frame's stored size");

    std::string outDir = ".";
    long first = 0, last = -1;
    std::string what = "video";
    auto* exp = app.add_subcommand("export", "Write frames as PNG (NAME-frame-000000.png, NAME-key-000000.png)");
    exp->add_option("clip", clip, "clip file (.zub)")->required();
    exp->add_option("-o,--output", outDir, "folder for the PNG files");
    exp->add_option("--first", first, "first frame (default 0)");
    exp->add_option("--last", last, "last frame (default the clip's last whole frame)");
    exp->add_option("--track", what, "video, key or both")->check(CLI::IsMember({"video", "key", "both"}));

    std::string sheetOut;
    int count = 12, columns = 4, width = 180;
    bool key = false;
    auto* sheet = app.add_subcommand("sheet", "A contact sheet PNG of evenly spaced frames");
    sheet->add_option("clip", clip, "clip file (.zub)")->required();
    sheet->add_option("-o,--output", sheetOut, "PNG file to write")->required();
    sheet->add_option("--count", count, "frames on the sheet")->check(CLI::Range(1, 1000));
    sheet->add_option("--columns", columns, "frames per row")->check(CLI::Range(1, 100));
    sheet->add_option("--width", width, "width of each frame on the sheet")->check(CLI::Range(16, 1920));
    sheet->add_flag("--key", key, "show the key track instead of the video");

    CLI11_PARSE(app, argc, argv);
    if (*info) return Info(clip, frames);
    if (*exp) return Export(clip, outDir, first, last, what);
    return Sheet(clip, sheetOut, count, columns, width, key);
}
