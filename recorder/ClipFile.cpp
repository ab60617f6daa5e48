#include "recorder/ClipFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "device/RecorderAbi.h"
#include "platform/Error.h"
#include "platform/FileIo.h"
#include "zubimport/Platform.h"

namespace zub::rec {

namespace {

constexpr std::uint32_t kEntryMagic = 0x314D5246;  // "FRM1"
constexpr std::uint64_t kAppInfoOffset = 128;
constexpr std::uint64_t kIndexOffset = 384;
constexpr std::uint64_t kDataAlign = 4096;

struct TjDeleter {
    void operator()(void* h) const
    {
        if (h) tjDestroy(h);
    }
};
using TjPtr = std::unique_ptr<void, TjDeleter>;

std::uint32_t Check(const IndexEntry& e, std::uint32_t frame, Track t)
{
    return e.magic ^ (e.field1 * 0x9E3779B1u) ^ (e.field2 * 0x85EBCA77u) ^ (frame * 0xC2B2AE3Du) ^
           static_cast<std::uint32_t>(t);
}

std::uint8_t Clamp8(int v)
{
    return static_cast<std::uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

// Studio-range 4:2:2 to the full range JPEG expects, and the alpha of a pixel.
struct RangeTables {
    std::uint8_t luma[256];
    std::uint8_t chroma[256];
    RangeTables()
    {
        for (int i = 0; i < 256; ++i) {
            luma[i] = Clamp8(((i - 16) * 255 * 2 + 219) / (219 * 2));
            chroma[i] = Clamp8(128 + ((i - 128) * 255 * 2 + (i >= 128 ? 224 : -224)) / (224 * 2));
        }
    }
};
const RangeTables& Ranges()
{
    static const RangeTables t;
    return t;
}

std::uint32_t FieldHeight(std::uint32_t height, int field)
{
    return (height + 1 - static_cast<std::uint32_t>(field)) / 2;
}

}  // namespace

std::uint32_t FrameDivisor(bool fixedFieldSize, std::uint32_t lines)
{
    if (fixedFieldSize) return 24;
    return lines == 525 ? 30 : 25;
}

std::uint32_t SlotBytes(std::int32_t type, std::int32_t rate, std::uint32_t divisor, std::uint32_t width,
                        std::uint32_t height, std::string* error)
{
    if (type == kTypeUncompressed) return width * height * 2;
    if (type != kTypeCompressed) {
        Fail(error, "stream type " + std::to_string(type) + " is neither 1 (compressed) nor 3 (uncompressed)");
        return 0;
    }
    if (rate <= 0) {
        Fail(error, "a compressed stream needs a data rate, not " + std::to_string(rate));
        return 0;
    }
    const std::uint32_t slot = static_cast<std::uint32_t>(rate) / divisor;
    if (slot < kMinCompressedSlot) {
        Fail(error, "a data rate of " + std::to_string(rate) + " bytes/s leaves " + std::to_string(slot) +
                       " bytes per frame, below the " + std::to_string(kMinCompressedSlot) + " a frame needs");
        return 0;
    }
    return std::min(slot, kMaxSlotBytes);
}

bool MakeHeader(const ClipParams& p, ClipHeader& h, std::string* error)
{
    std::memset(&h, 0, sizeof h);
    if (p.width < 2 || p.width > kMaxFrameSide || p.width % 2 || p.height < 2 || p.height > kMaxFrameSide ||
        p.height % 2) {
        Fail(error, "frame size " + std::to_string(p.width) + " x " + std::to_string(p.height) + " is not supported");
        return false;
    }
    if (p.capacity == 0 || p.capacity > kMaxCapacity) {
        Fail(error, "a clip of " + std::to_string(p.capacity) + " frames cannot be made");
        return false;
    }
    std::memcpy(h.magic, kClipMagic, 4);
    h.headerBytes = sizeof(ClipHeader);
    h.version = kClipVersion;
    h.width = p.width;
    h.height = p.height;
    h.lines = p.lines;
    h.capacity = p.capacity;
    h.videoType = p.videoType;
    h.alphaType = p.alphaType;
    h.videoRate = p.videoRate;
    h.alphaRate = p.alphaType ? p.alphaRate : 0;
    h.flags = (p.alphaType ? kClipHasAlpha : 0) | (p.fixedFieldSize ? kClipFixedFieldSize : 0);
    h.divisor = FrameDivisor(p.fixedFieldSize, p.lines);
    if (p.fixedFieldSize) {
        h.rateNumerator = 24;
        h.rateDenominator = 1;
    } else if (p.lines == 525) {
        h.rateNumerator = 30000;
        h.rateDenominator = 1001;
    } else {
        h.rateNumerator = 25;
        h.rateDenominator = 1;
    }
    std::string why;
    h.videoSlot = SlotBytes(p.videoType, p.videoRate, h.divisor, p.width, p.height, &why);
    if (!h.videoSlot) {
        Fail(error, "video: " + why);
        return false;
    }
    if (p.alphaType) {
        h.alphaSlot = SlotBytes(p.alphaType, p.alphaRate, h.divisor, p.width, p.height, &why);
        if (!h.alphaSlot) {
            Fail(error, "alpha: " + why);
            return false;
        }
    }
    h.appInfoOffset = kAppInfoOffset;
    h.indexOffset = kIndexOffset;
    const std::uint64_t indexEnd = kIndexOffset + 2ull * p.capacity * sizeof(IndexEntry);
    h.dataOffset = (indexEnd + kDataAlign - 1) / kDataAlign * kDataAlign;
    return true;
}

std::uint64_t ClipFileBytes(const ClipHeader& h)
{
    return h.dataOffset + static_cast<std::uint64_t>(h.capacity) * (h.videoSlot + h.alphaSlot);
}

bool ParseFrame(const void* data, std::uint32_t width, std::uint32_t height, FrameView& view, std::string* error)
{
    if (!data) {
        Fail(error, "no frame data");
        return false;
    }
    BITMAPINFOHEADER bi;
    std::memcpy(&bi, data, sizeof bi);
    const std::uint32_t absHeight = bi.biHeight < 0 ? 0u - static_cast<std::uint32_t>(bi.biHeight)
                                                    : static_cast<std::uint32_t>(bi.biHeight);
    if (bi.biSize != sizeof(BITMAPINFOHEADER) || bi.biPlanes != 1 ||
        (bi.biBitCount != 32 && bi.biBitCount != 24 && bi.biBitCount != 16)) {
        Fail(error, "the frame is not a 16, 24 or 32-bit bitmap (header size " + std::to_string(bi.biSize) +
                       ", " + std::to_string(bi.biBitCount) + " bits)");
        return false;
    }
    if (bi.biWidth < 0 || static_cast<std::uint32_t>(bi.biWidth) != width || absHeight != height) {
        Fail(error, "the frame is " + std::to_string(bi.biWidth) + " x " + std::to_string(absHeight) +
                       ", the recorder's frame is " + std::to_string(width) + " x " + std::to_string(height));
        return false;
    }
    const std::uint32_t palette = bi.biClrUsed <= 256 ? bi.biClrUsed * 4 : 0;
    const auto* pixels = static_cast<const std::uint8_t*>(data) + sizeof(BITMAPINFOHEADER) + palette;
    view.width = static_cast<int>(width);
    view.height = static_cast<int>(height);
    view.bits = bi.biBitCount;
    if (bi.biBitCount == 16) {
        // 4:2:2 rows are in picture order whatever the sign of the height.
        view.top = pixels;
        view.stride = static_cast<std::ptrdiff_t>(width) * 2;
        return true;
    }
    const std::ptrdiff_t rowBytes = (static_cast<std::ptrdiff_t>(width) * bi.biBitCount + 31) / 32 * 4;
    if (bi.biHeight > 0) {
        view.top = pixels + rowBytes * (height - 1);
        view.stride = -rowBytes;
    } else {
        view.top = pixels;
        view.stride = rowBytes;
    }
    return true;
}

// BT.601 studio range in 16.16 fixed point: close enough to the exact coefficients that any
// colour representable in 8-bit 4:2:2 survives a round trip unchanged.
namespace {
constexpr int K16(double c)
{
    return static_cast<int>(c * 65536.0 + (c >= 0 ? 0.5 : -0.5));
}
constexpr int kYR = K16(65.481 / 255), kYG = K16(128.553 / 255), kYB = K16(24.966 / 255);
constexpr int kUR = K16(-37.797 / 255), kUG = K16(-74.203 / 255), kUB = K16(112.0 / 255);
constexpr int kVR = K16(112.0 / 255), kVG = K16(-93.786 / 255), kVB = K16(-18.214 / 255);
constexpr int kLuma = K16(255.0 / 219.0);
constexpr int kRV = K16(255.0 / 224.0 * 1.402);
constexpr int kGU = K16(255.0 / 224.0 * 1.772 * 0.114 / 0.587);
constexpr int kGV = K16(255.0 / 224.0 * 1.402 * 0.299 / 0.587);
constexpr int kBU = K16(255.0 / 224.0 * 1.772);
}  // namespace

void BgraToUyvy(const FrameView& v, std::uint8_t* out)
{
    const int bpp = v.bits / 8;
    for (int y = 0; y < v.height; ++y) {
        const std::uint8_t* s = v.top + v.stride * y;
        std::uint8_t* d = out + static_cast<std::ptrdiff_t>(y) * v.width * 2;
        if (v.bits == 16) {
            std::memcpy(d, s, static_cast<std::size_t>(v.width) * 2);
            continue;
        }
        for (int x = 0; x < v.width; x += 2, s += 2 * bpp, d += 4) {
            const int b0 = s[0], g0 = s[1], r0 = s[2];
            const int b1 = s[bpp], g1 = s[bpp + 1], r1 = s[bpp + 2];
            const int rs = r0 + r1, gs = g0 + g1, bs = b0 + b1;
            // The pair's chroma is that of its mean colour.
            d[0] = Clamp8(128 + ((kUR * rs + kUG * gs + kUB * bs + 65536) >> 17));
            d[1] = Clamp8(16 + ((kYR * r0 + kYG * g0 + kYB * b0 + 32768) >> 16));
            d[2] = Clamp8(128 + ((kVR * rs + kVG * gs + kVB * bs + 65536) >> 17));
            d[3] = Clamp8(16 + ((kYR * r1 + kYG * g1 + kYB * b1 + 32768) >> 16));
        }
    }
}

void UyvyToBgra(const std::uint8_t* in, int width, int height, std::uint8_t* out)
{
    const std::size_t n = static_cast<std::size_t>(width) * height / 2;
    for (std::size_t i = 0; i < n; ++i, in += 4, out += 8) {
        const int d = in[0] - 128, e = in[2] - 128;
        for (int k = 0; k < 2; ++k) {
            const int c = kLuma * (in[1 + 2 * k] - 16) + 32768;
            std::uint8_t* p = out + 4 * k;
            p[0] = Clamp8((c + kBU * d) >> 16);
            p[1] = Clamp8((c - kGU * d - kGV * e) >> 16);
            p[2] = Clamp8((c + kRV * e) >> 16);
            p[3] = 255;
        }
    }
}

bool FrameToJpeg(const FrameView& v, int quality, std::vector<std::uint8_t>& jpeg, std::string* error)
{
    TjPtr tj(tjInitCompress());
    if (!tj) {
        Fail(error, std::string("TurboJPEG: ") + tjGetErrorStr2(nullptr));
        return false;
    }
    std::vector<std::uint8_t> bgra;
    const std::uint8_t* src = v.top;
    std::ptrdiff_t stride = v.stride;
    int format = v.bits == 24 ? TJPF_BGR : TJPF_BGRA;
    if (v.bits == 16) {
        bgra.resize(static_cast<std::size_t>(v.width) * v.height * 4);
        UyvyToBgra(v.top, v.width, v.height, bgra.data());
        src = bgra.data();
        stride = v.width * 4;
        format = TJPF_BGRA;
    }
    int flags = 0;
    if (stride < 0) {
        flags |= TJFLAG_BOTTOMUP;
        src += stride * (v.height - 1);
        stride = -stride;
    }
    jpeg.resize(tjBufSize(v.width, v.height, TJSAMP_422));
    unsigned char* buf = jpeg.data();
    unsigned long size = jpeg.size();
    if (tjCompress2(tj.get(), src, v.width, static_cast<int>(stride), v.height, format, &buf, &size, TJSAMP_422,
                    quality, flags | TJFLAG_NOREALLOC) != 0) {
        Fail(error, std::string("TurboJPEG: ") + tjGetErrorStr2(tj.get()));
        return false;
    }
    jpeg.resize(size);
    return true;
}

// ---- encoding ------------------------------------------------------------------------------

struct TrackEncoder::Jpeg {
    TjPtr tj;
    std::vector<std::uint8_t> out;
};

TrackEncoder::TrackEncoder(Track track, std::int32_t type, std::uint32_t slot, bool fixedFieldSize)
    : track_(track), type_(type), slot_(slot), fixed_(fixedFieldSize)
{
}

TrackEncoder::~TrackEncoder() = default;

bool TrackEncoder::CompressField(const FrameView& v, int field, std::uint32_t target, std::uint8_t* dst,
                                 std::uint32_t& size, std::string* error)
{
    const int w = v.width;
    const int h = static_cast<int>(FieldHeight(static_cast<std::uint32_t>(v.height), field));
    const bool grey = track_ == kAlpha;
    const int subsamp = grey ? TJSAMP_GRAY : TJSAMP_422;
    if (!jpeg_) {
        jpeg_ = std::make_unique<Jpeg>();
        jpeg_->tj.reset(tjInitCompress());
        if (!jpeg_->tj) {
            Fail(error, std::string("TurboJPEG: ") + tjGetErrorStr2(nullptr));
            jpeg_.reset();
            return false;
        }
    }
    const std::size_t worst = tjBufSize(w, h, subsamp);
    if (jpeg_->out.size() < worst) jpeg_->out.resize(worst);

    // The field's rows: every other line from `field`. Planes that TurboJPEG cannot read in
    // place (the key, 4:2:2 input) are gathered into scratch first.
    const std::uint8_t* src = nullptr;
    std::ptrdiff_t pitch = 0;
    int format = TJPF_BGRA;
    int flags = TJFLAG_FASTDCT | TJFLAG_NOREALLOC;
    const unsigned char* planes[3] = {};
    int strides[3] = {};
    if (grey) {
        scratch_.resize(static_cast<std::size_t>(w) * h);
        const int bpp = v.bits / 8;
        for (int y = 0; y < h; ++y) {
            const std::uint8_t* s = v.top + v.stride * (field + 2 * y);
            std::uint8_t* d = scratch_.data() + static_cast<std::ptrdiff_t>(y) * w;
            if (v.bits == 32)
                for (int x = 0; x < w; ++x) d[x] = s[x * bpp + 3];
            else
                std::memset(d, 255, static_cast<std::size_t>(w));
        }
        src = scratch_.data();
        pitch = w;
        format = TJPF_GRAY;
    } else if (v.bits == 16) {
        const auto& r = Ranges();
        scratch_.resize(static_cast<std::size_t>(w) * h * 2);
        std::uint8_t* py = scratch_.data();
        std::uint8_t* pu = py + static_cast<std::ptrdiff_t>(w) * h;
        std::uint8_t* pv = pu + static_cast<std::ptrdiff_t>(w / 2) * h;
        for (int y = 0; y < h; ++y) {
            const std::uint8_t* s = v.top + v.stride * (field + 2 * y);
            for (int x = 0; x < w / 2; ++x, s += 4) {
                pu[y * (w / 2) + x] = r.chroma[s[0]];
                py[y * w + 2 * x] = r.luma[s[1]];
                pv[y * (w / 2) + x] = r.chroma[s[2]];
                py[y * w + 2 * x + 1] = r.luma[s[3]];
            }
        }
        planes[0] = py;
        planes[1] = pu;
        planes[2] = pv;
        strides[0] = w;
        strides[1] = strides[2] = w / 2;
    } else {
        format = v.bits == 24 ? TJPF_BGR : TJPF_BGRA;
        pitch = v.stride * 2;
        src = v.top + v.stride * field;
        if (pitch < 0) {
            flags |= TJFLAG_BOTTOMUP;
            src += pitch * (h - 1);
            pitch = -pitch;
        }
    }

    for (;;) {
        unsigned char* buf = jpeg_->out.data();
        unsigned long got = jpeg_->out.size();
        const int rc = v.bits == 16 && !grey
                           ? tjCompressFromYUVPlanes(jpeg_->tj.get(), planes, w, strides, h, subsamp, &buf, &got,
                                                     quality_, flags)
                           : tjCompress2(jpeg_->tj.get(), src, w, static_cast<int>(pitch), h, format, &buf, &got,
                                         subsamp, quality_, flags);
        if (rc != 0) {
            Fail(error, std::string("TurboJPEG: ") + tjGetErrorStr2(jpeg_->tj.get()));
            return false;
        }
        if (got <= target) {
            std::memcpy(dst, buf, got);
            size = static_cast<std::uint32_t>(got);
            return true;
        }
        if (quality_ <= 1) {
            Fail(error, "a field needs " + std::to_string(got) + " bytes at the lowest quality, its budget is " +
                           std::to_string(target));
            return false;
        }
        const double over = static_cast<double>(got) / target;
        const int step = over > 2.0 ? 20 : over > 1.3 ? 10 : over > 1.1 ? 4 : 2;
        quality_ = std::max(1, quality_ - step);
    }
}

bool TrackEncoder::Encode(const FrameView& v, std::vector<std::uint8_t>& out, IndexEntry& e, std::string* error)
{
    out.assign(slot_, 0);
    std::memset(&e, 0, sizeof e);
    if (type_ == kTypeUncompressed) {
        if (track_ == kVideo) {
            BgraToUyvy(v, out.data());
        } else {
            // The key signal: its value in the luma, neutral chroma.
            for (int y = 0; y < v.height; ++y) {
                const std::uint8_t* s = v.top + v.stride * y;
                std::uint8_t* d = out.data() + static_cast<std::ptrdiff_t>(y) * v.width * 2;
                for (int x = 0; x < v.width; ++x) {
                    d[2 * x] = 128;
                    d[2 * x + 1] = v.bits == 32 ? s[4 * x + 3] : 255;
                }
            }
        }
        e.field1 = slot_;
        e.field2 = 0;
        return true;
    }
    const std::uint32_t t1 = slot_ / 2, t2 = slot_ - slot_ / 2;
    std::uint32_t s1 = 0, s2 = 0;
    if (!CompressField(v, 0, t1, out.data(), s1, error)) return false;
    if (!CompressField(v, 1, t2, out.data() + t1, s2, error)) return false;
    // Room to spare: let the next frame try a finer quality.
    const double used = std::max(static_cast<double>(s1) / t1, static_cast<double>(s2) / t2);
    if (used < 0.7) quality_ += 4;
    else if (used < 0.85) quality_ += 2;
    else if (used < 0.93) quality_ += 1;
    quality_ = std::min(quality_, 95);
    e.field1 = fixed_ ? t1 : s1;
    e.field2 = fixed_ ? t2 : s2;
    return true;
}

// ---- writing -------------------------------------------------------------------------------

ClipWriter::~ClipWriter()
{
    if (fd_ >= 0) ::close(fd_);
}

std::unique_ptr<ClipWriter> ClipWriter::Create(const std::string& path, const ClipHeader& header, bool sync,
                                               bool* exists, std::string* error, bool reserve)
{
    if (exists) *exists = false;
    std::unique_ptr<ClipWriter> w(new ClipWriter);
    w->path_ = path;
    w->header_ = header;
    w->sync_ = sync;
    w->reserve_ = reserve;
    w->fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (w->fd_ < 0) {
        if (errno == EEXIST && exists) *exists = true;
        Fail(error, SysError(path, "cannot create the clip"));
        return nullptr;
    }
    const std::uint8_t zeros[256] = {};
    const std::uint64_t size = reserve ? ClipFileBytes(header) : header.dataOffset;
    if (::ftruncate(w->fd_, static_cast<off_t>(size)) != 0 ||
        !WriteAllAt(w->fd_, &header, sizeof header, 0) || !WriteAllAt(w->fd_, zeros, sizeof zeros, kAppInfoOffset)) {
        Fail(error, SysError(path, "cannot write the clip header"));
        ::close(w->fd_);
        w->fd_ = -1;
        ::unlink(path.c_str());
        return nullptr;
    }
    w->encoders_[kVideo] = std::make_unique<TrackEncoder>(kVideo, header.videoType, header.videoSlot,
                                                          (header.flags & kClipFixedFieldSize) != 0);
    if (header.alphaType)
        w->encoders_[kAlpha] = std::make_unique<TrackEncoder>(kAlpha, header.alphaType, header.alphaSlot,
                                                              (header.flags & kClipFixedFieldSize) != 0);
    return w;
}

bool ClipWriter::WriteFrame(Track t, std::uint32_t frame, const FrameView& v, std::string* error, bool* noSpace)
{
    std::lock_guard lock(mutex_);
    if (!encoders_[t]) {
        Fail(error, path_ + ": the clip has no alpha track");
        return false;
    }
    if (v.width != static_cast<int>(header_.width) || v.height != static_cast<int>(header_.height)) {
        Fail(error, path_ + ": the frame does not have the clip's size");
        return false;
    }
    IndexEntry e;
    std::string why;
    if (!encoders_[t]->Encode(v, buffer_, e, &why)) {
        Fail(error, path_ + ": frame " + std::to_string(frame) + ": " + why);
        return false;
    }
    return WriteLocked(t, frame, buffer_, e, error, noSpace);
}

std::uint64_t ClipWriter::FileBytes() const
{
    struct stat st {};
    return ::fstat(fd_, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

std::uint64_t ClipWriter::BytesThrough(std::uint32_t frame) const
{
    return header_.dataOffset + (static_cast<std::uint64_t>(frame) + 1) * (header_.videoSlot + header_.alphaSlot);
}

bool ClipWriter::WriteEncoded(Track t, std::uint32_t frame, const std::vector<std::uint8_t>& bytes, IndexEntry e,
                              std::string* error)
{
    std::lock_guard lock(mutex_);
    return WriteLocked(t, frame, bytes, e, error);
}

bool ClipWriter::WriteLocked(Track t, std::uint32_t frame, const std::vector<std::uint8_t>& bytes, IndexEntry e,
                             std::string* error, bool* noSpace)
{
    const std::uint32_t slot = t == kVideo ? header_.videoSlot : header_.alphaSlot;
    if (frame >= header_.capacity) {
        Fail(error, path_ + ": frame " + std::to_string(frame) + " is beyond the clip's " +
                       std::to_string(header_.capacity) + " frames");
        return false;
    }
    if (!slot || bytes.size() != slot) {
        Fail(error, path_ + ": the frame does not fill its slot");
        return false;
    }
    const std::uint64_t at = header_.dataOffset + static_cast<std::uint64_t>(frame) * (header_.videoSlot + header_.alphaSlot) +
                             (t == kAlpha ? header_.videoSlot : 0);
    // A growing clip takes whole frames, both tracks' slots, as a reader expects.
    if (!reserve_ && FileBytes() < BytesThrough(frame) && ::ftruncate(fd_, static_cast<off_t>(BytesThrough(frame))) != 0) {
        if (noSpace) *noSpace = errno == ENOSPC || errno == EDQUOT || errno == EFBIG;
        Fail(error, SysError(path_, "cannot grow the clip"));
        return false;
    }
    if (!WriteAllAt(fd_, bytes.data(), bytes.size(), at)) {
        if (noSpace) *noSpace = errno == ENOSPC || errno == EDQUOT;
        Fail(error, SysError(path_, "cannot write a frame"));
        return false;
    }
    // The data reaches the file before the entry that declares it whole.
    if (sync_ && ::fdatasync(fd_) != 0) {
        Fail(error, SysError(path_, "cannot flush a frame"));
        return false;
    }
    e.magic = kEntryMagic;
    e.check = Check(e, frame, t);
    const std::uint64_t entryAt = header_.indexOffset + (static_cast<std::uint64_t>(t) * header_.capacity + frame) * sizeof e;
    if (!WriteAllAt(fd_, &e, sizeof e, entryAt)) {
        Fail(error, SysError(path_, "cannot write the frame index"));
        return false;
    }
    written_[t] = std::max(written_[t], frame + 1);
    return true;
}

bool ClipWriter::Finish(std::string* error)
{
    std::lock_guard lock(mutex_);
    header_.framesWritten = written_[kVideo];
    if (!WriteAllAt(fd_, &header_.framesWritten, sizeof header_.framesWritten, offsetof(ClipHeader, framesWritten))) {
        Fail(error, SysError(path_, "cannot update the clip header"));
        return false;
    }
    return true;
}

bool WriteAppInfo(const std::string& path, const std::uint8_t block[256], std::string* error)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        Fail(error, SysError(path, "cannot open the clip"));
        return false;
    }
    ClipHeader h;
    bool ok = ReadAllAt(fd, &h, sizeof h, 0) && std::memcmp(h.magic, kClipMagic, 4) == 0 &&
              h.appInfoOffset == kAppInfoOffset;
    if (!ok) Fail(error, path + ": not a clip file (no ZUB0 header)");
    if (ok && !WriteAllAt(fd, block, 256, kAppInfoOffset)) {
        Fail(error, SysError(path, "cannot write the information block"));
        ok = false;
    }
    ::close(fd);
    return ok;
}

// ---- reading -------------------------------------------------------------------------------

ClipReader::~ClipReader()
{
    if (fd_ >= 0) ::close(fd_);
}

std::unique_ptr<ClipReader> ClipReader::Open(const std::string& path, std::string* error)
{
    std::unique_ptr<ClipReader> r(new ClipReader);
    r->path_ = path;
    r->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (r->fd_ < 0) {
        Fail(error, SysError(path, "cannot open"));
        return nullptr;
    }
    struct stat st {};
    if (::fstat(r->fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
        Fail(error, path + ": not a regular file");
        return nullptr;
    }
    r->fileBytes_ = static_cast<std::uint64_t>(st.st_size);
    ClipHeader& h = r->header_;
    if (r->fileBytes_ < kIndexOffset || !ReadAllAt(r->fd_, &h, sizeof h, 0) || std::memcmp(h.magic, kClipMagic, 4) != 0) {
        Fail(error, path + ": not a clip file (no ZUB0 header)");
        return nullptr;
    }
    auto bad = [&](const std::string& why) {
        Fail(error, path + ": damaged clip header: " + why);
        return nullptr;
    };
    if (h.headerBytes != sizeof(ClipHeader) || h.version != kClipVersion) return bad("unknown version");
    if (h.width < 2 || h.width > kMaxFrameSide || h.width % 2 || h.height < 2 || h.height > kMaxFrameSide || h.height % 2)
        return bad("frame size " + std::to_string(h.width) + " x " + std::to_string(h.height));
    if (h.capacity == 0 || h.capacity > kMaxCapacity) return bad("capacity " + std::to_string(h.capacity));
    if (h.videoType != kTypeCompressed && h.videoType != kTypeUncompressed) return bad("video type");
    if (h.alphaType != 0 && h.alphaType != kTypeCompressed && h.alphaType != kTypeUncompressed)
        return bad("alpha type");
    const std::uint32_t raw = h.width * h.height * 2;
    auto slotOk = [&](std::int32_t type, std::uint32_t slot) {
        return type == kTypeUncompressed ? slot == raw : slot >= kMinCompressedSlot && slot <= kMaxSlotBytes;
    };
    if (!slotOk(h.videoType, h.videoSlot) || (h.alphaType ? !slotOk(h.alphaType, h.alphaSlot) : h.alphaSlot != 0))
        return bad("frame slot sizes");
    const std::uint64_t indexBytes = 2ull * h.capacity * sizeof(IndexEntry);
    if (h.appInfoOffset != kAppInfoOffset || h.indexOffset != kIndexOffset || h.dataOffset < kIndexOffset + indexBytes ||
        h.dataOffset > r->fileBytes_)
        return bad("offsets");
    if (!ReadAllAt(r->fd_, r->appInfo_, sizeof r->appInfo_, kAppInfoOffset)) return bad("information block");
    for (int t = 0; t < 2; ++t) {
        r->index_[t].resize(h.capacity);
        if (!ReadAllAt(r->fd_, r->index_[t].data(), h.capacity * sizeof(IndexEntry),
                      kIndexOffset + static_cast<std::uint64_t>(t) * h.capacity * sizeof(IndexEntry)))
            return bad("index");
    }
    return r;
}

bool ClipReader::Entry(Track t, std::uint32_t frame, IndexEntry& e) const
{
    if (!HasTrack(t) || frame >= header_.capacity) return false;
    e = index_[t][frame];
    if (e.magic != kEntryMagic || e.check != Check(e, frame, t)) return false;
    const std::uint32_t slot = t == kVideo ? header_.videoSlot : header_.alphaSlot;
    const std::int32_t type = t == kVideo ? header_.videoType : header_.alphaType;
    if (type == kTypeUncompressed) return e.field1 == slot && e.field2 == 0;
    if (e.field1 > slot / 2 || e.field2 > slot - slot / 2 || e.field1 == 0 || e.field2 == 0) return false;
    const std::uint64_t end = header_.dataOffset +
                              static_cast<std::uint64_t>(frame + 1) * (header_.videoSlot + header_.alphaSlot);
    return end <= fileBytes_;
}

std::uint32_t ClipReader::FramesReadable(Track t) const
{
    if (!HasTrack(t)) return 0;
    std::uint32_t n = 0;
    IndexEntry e;
    while (n < header_.capacity && Entry(t, n, e)) ++n;
    return n;
}

bool ClipReader::ReadStored(Track t, std::uint32_t frame, std::vector<std::uint8_t>& f1, std::vector<std::uint8_t>& f2,
                            std::string* error) const
{
    IndexEntry e;
    if (!Entry(t, frame, e)) {
        Fail(error, path_ + ": frame " + std::to_string(frame) + " of the " + (t == kVideo ? "video" : "alpha") +
                       " track was never written whole");
        return false;
    }
    const std::uint32_t slot = t == kVideo ? header_.videoSlot : header_.alphaSlot;
    const std::uint64_t at = header_.dataOffset + static_cast<std::uint64_t>(frame) * (header_.videoSlot + header_.alphaSlot) +
                             (t == kAlpha ? header_.videoSlot : 0);
    f1.resize(e.field1);
    f2.resize(e.field2);
    if (!ReadAllAt(fd_, f1.data(), f1.size(), at) || (e.field2 && !ReadAllAt(fd_, f2.data(), f2.size(), at + slot / 2))) {
        Fail(error, path_ + ": frame " + std::to_string(frame) + " cannot be read");
        return false;
    }
    return true;
}

bool ClipReader::Decode(Track t, std::uint32_t frame, std::vector<std::uint8_t>& pixels, std::string* error) const
{
    std::vector<std::uint8_t> f1, f2;
    if (!ReadStored(t, frame, f1, f2, error)) return false;
    const int w = static_cast<int>(header_.width), h = static_cast<int>(header_.height);
    const int type = t == kVideo ? header_.videoType : header_.alphaType;
    const int bpp = t == kVideo ? 4 : 1;
    pixels.assign(static_cast<std::size_t>(w) * h * bpp, 0);
    if (type == kTypeUncompressed) {
        if (t == kVideo) {
            UyvyToBgra(f1.data(), w, h, pixels.data());
        } else {
            for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = f1[2 * i + 1];
        }
        return true;
    }
    TjPtr tj(tjInitDecompress());
    if (!tj) {
        Fail(error, std::string("TurboJPEG: ") + tjGetErrorStr2(nullptr));
        return false;
    }
    for (int field = 0; field < 2; ++field) {
        auto& jpeg = field ? f2 : f1;
        const int fh = static_cast<int>(FieldHeight(header_.height, field));
        int jw = 0, jh = 0, sub = 0, cs = 0;
        if (tjDecompressHeader3(tj.get(), jpeg.data(), jpeg.size(), &jw, &jh, &sub, &cs) != 0 || jw != w || jh != fh) {
            Fail(error, path_ + ": frame " + std::to_string(frame) + " field " + std::to_string(field + 1) +
                           " is not a " + std::to_string(w) + " x " + std::to_string(fh) + " JPEG");
            return false;
        }
        if (tjDecompress2(tj.get(), jpeg.data(), jpeg.size(), pixels.data() + static_cast<std::ptrdiff_t>(field) * w * bpp,
                          w, 2 * w * bpp, fh, t == kVideo ? TJPF_BGRA : TJPF_GRAY, 0) != 0) {
            Fail(error, path_ + ": frame " + std::to_string(frame) + ": " + tjGetErrorStr2(tj.get()));
            return false;
        }
    }
    if (t == kVideo)
        for (std::size_t i = 3; i < pixels.size(); i += 4) pixels[i] = 255;
    return true;
}

}  // namespace zub::rec
