#include "imgseq/imaging/SoftimagePic.h"

#include <cstdio>
#include <vector>

#include "platform/Error.h"

namespace zub::imaging {
namespace {

constexpr std::uint32_t kMagic = 0x5380F634;
constexpr std::size_t kHeaderBytes = 104;
constexpr std::size_t kIdOffset = 88;
// Four channels can be named at most; a longer chain is damage, not a picture.
constexpr int kMaxPackets = 8;

enum Encoding : std::uint8_t { kUncompressed = 0, kPureRunLength = 1, kMixedRunLength = 2 };

struct Packet {
    Encoding encoding;
    int count = 0;       // channels in this packet
    int offsets[4] = {};  // where each channel goes in a B, G, R, A pixel, in stored order
};

// The reason, in the module's one error form; the caller adds the file's name.
bool Damaged(std::string* error, const char* fmt, int a = 0, int b = 0)
{
    char text[200];
    std::snprintf(text, sizeof text, fmt, a, b);
    return Fail(error, Error{{}, text});
}

std::uint32_t Be32(const std::uint8_t* p)
{
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}
int Be16(const std::uint8_t* p) { return p[0] << 8 | p[1]; }

// The fewest bytes one scanline of a packet can take: it bounds how large a picture a file
// of this length can hold, so a damaged size cannot make us allocate for nothing.
std::size_t MinRowBytes(const Packet& p, int width)
{
    switch (p.encoding) {
    case kUncompressed: return std::size_t(width) * p.count;
    case kPureRunLength: return std::size_t((width + 254) / 255) * (1 + p.count);
    default:  // one short run covers 128 pixels, one long run 65535
        return width <= 128 ? 1 + p.count : std::size_t((width + 65534) / 65535) * (3 + p.count);
    }
}

class RowReader {
public:
    RowReader(const std::uint8_t* pos, const std::uint8_t* end) : pos_(pos), end_(end) {}

    // Decodes one scanline of one packet into the B, G, R, A row.
    bool Read(const Packet& p, std::uint8_t* row, int width, int y, std::string* error)
    {
        int x = 0;
        while (x < width) {
            int run = 0;
            bool repeat = false;
            if (p.encoding == kUncompressed) {
                run = width;
            } else {
                if (!Have(1)) return Cut(y, error);
                const int c = *pos_++;
                if (p.encoding == kPureRunLength) {
                    run = c;
                    repeat = true;
                } else if (c < 128) {
                    run = c + 1;
                } else if (c == 128) {
                    if (!Have(2)) return Cut(y, error);
                    run = Be16(pos_);
                    pos_ += 2;
                    repeat = true;
                } else {
                    run = c - 127;
                    repeat = true;
                }
                if (run == 0) return Damaged(error, "empty run in row %d", y);
            }
            if (run > width - x) return Damaged(error, "a run of %d pixels crosses the end of row %d", run, y);
            if (repeat) {
                if (!Have(std::size_t(p.count))) return Cut(y, error);
                for (int i = 0; i < run; ++i, ++x)
                    for (int c = 0; c < p.count; ++c) row[x * 4 + p.offsets[c]] = pos_[c];
                pos_ += p.count;
            } else {
                if (!Have(std::size_t(run) * p.count)) return Cut(y, error);
                for (int i = 0; i < run; ++i, ++x)
                    for (int c = 0; c < p.count; ++c) row[x * 4 + p.offsets[c]] = *pos_++;
            }
        }
        return true;
    }

private:
    bool Have(std::size_t n) const { return std::size_t(end_ - pos_) >= n; }
    static bool Cut(int y, std::string* error) { return Damaged(error, "the file ends inside row %d", y); }

    const std::uint8_t* pos_;
    const std::uint8_t* end_;
};

}  // namespace

bool DecodeSoftimagePic(const std::uint8_t* data, std::size_t size, const PicAllocFn& alloc, std::string* error)
{
    if (!data || size < kHeaderBytes) return Damaged(error, "too short for a Softimage PIC header");
    if (Be32(data) != kMagic) return Damaged(error, "not a Softimage PIC file (bad magic number)");
    if (data[kIdOffset] != 'P' || data[kIdOffset + 1] != 'I' || data[kIdOffset + 2] != 'C' ||
        data[kIdOffset + 3] != 'T')
        return Damaged(error, "not a Softimage PIC picture (no \"PICT\" id)");
    const int width = Be16(data + 92), height = Be16(data + 94);
    if (width == 0 || height == 0) return Damaged(error, "image size %dx%d is empty", width, height);

    std::vector<Packet> packets;
    const std::uint8_t* pos = data + kHeaderBytes;
    const std::uint8_t* const end = data + size;
    for (bool chained = true; chained;) {
        if (packets.size() == kMaxPackets) return Damaged(error, "more than %d channel packets", kMaxPackets);
        if (end - pos < 4) return Damaged(error, "the file ends inside the channel packets");
        chained = pos[0] != 0;
        const int bits = pos[1], encoding = pos[2], mask = pos[3];
        pos += 4;
        if (bits != 8) return Damaged(error, "%d-bit channels are not supported (only 8)", bits);
        if (encoding > kMixedRunLength) return Damaged(error, "unknown packet encoding %d", encoding);
        if (mask == 0 || (mask & 0x0F)) return Damaged(error, "bad channel mask 0x%02X", mask);
        Packet p{static_cast<Encoding>(encoding)};
        // Stored order is R, G, B, A; the row is B, G, R, A.
        static const struct {
            int bit, offset;
        } kChannels[] = {{0x80, 2}, {0x40, 1}, {0x20, 0}, {0x10, 3}};
        for (const auto& c : kChannels)
            if (mask & c.bit) p.offsets[p.count++] = c.offset;
        packets.push_back(p);
    }

    std::size_t minRow = 0;
    for (const Packet& p : packets) minRow += MinRowBytes(p, width);
    if (std::size_t(end - pos) / minRow < std::size_t(height))
        return Damaged(error, "the file is too short for a %dx%d picture", width, height);

    std::uint8_t* const out = alloc(width, height);
    if (!out) return Damaged(error, "no memory for a %dx%d image", width, height);
    const std::size_t stride = std::size_t(width) * 4;
    for (int y = 0; y < height; ++y) {
        std::uint8_t* row = out + stride * y;
        for (int x = 0; x < width; ++x) {
            row[x * 4 + 0] = row[x * 4 + 1] = row[x * 4 + 2] = 0;
            row[x * 4 + 3] = 255;
        }
    }
    RowReader reader(pos, end);
    for (int y = 0; y < height; ++y)
        for (const Packet& p : packets)
            if (!reader.Read(p, out + stride * y, width, y, error)) return false;
    return true;
}

}  // namespace zub::imaging
