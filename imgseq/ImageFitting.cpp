#include "imgseq/ImageFitting.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <new>

#include "imgseq/ImagingLibrary.h"
#include "platform/Error.h"
#include "zubimport/Paths.h"

namespace zub {

namespace {

// Larger images are refused before any allocation (1 GiB of BGRA).
constexpr std::int64_t kMaxSide = 32768;
constexpr std::int64_t kMaxPixels = std::int64_t(1) << 28;
constexpr std::uintmax_t kMaxFileBytes = std::uintmax_t(1) << 30;
// Buffers kept between frames are let go when an unusually large image has grown them.
constexpr std::size_t kKeptBufferBytes = std::size_t(64) << 20;

bool SaneSize(std::int64_t w, std::int64_t h)
{
    return w > 0 && h > 0 && w <= kMaxSide && h <= kMaxSide && w * h <= kMaxPixels;
}

std::string SizeText(int w, int h)
{
    return std::to_string(w) + "x" + std::to_string(h);
}

// Multiply-divide rounded to the nearest integer (halves away from zero), 64-bit in between.
std::int64_t MulDiv(std::int64_t a, std::int64_t b, std::int64_t c)
{
    const std::int64_t p = a * b;
    return (p >= 0) == (c > 0) ? (p + c / 2) / c : (p - c / 2) / c;
}

bool NeedImage(const Image& image, std::string* error)
{
    return image.Empty() ? Fail(error, "no image is held") : true;
}

}  // namespace

// ---- fit word --------------------------------------------------------------------------

FitWordParts SplitFitWord(std::int32_t word)
{
    FitWordParts p;
    p.mode = word & 0xFF;
    p.area = (word / 256) % 16;
    p.method = word / 4096;
    return p;
}

std::int32_t MakeFitWord(int mode, int area, int method)
{
    return (mode & 0xFF) | ((area & 0xF) << 8) | (method << 12);
}

// ---- Image -----------------------------------------------------------------------------

bool Image::Allocate(int width, int height, int bitsPerPixel, bool zeroFill)
{
    Release();
    if (!SaneSize(width, height) || (bitsPerPixel != 24 && bitsPerPixel != 32)) return false;
    // Rows of 24-bit images are padded to 4 bytes, as the bitmap form needs.
    const int bytesPerRow = ((width * (bitsPerPixel / 8)) + 3) & ~3;
    const std::size_t bytes = static_cast<std::size_t>(bytesPerRow) * height;
    try {
        data_.reset(new std::uint8_t[bytes]);
        rows_.resize(static_cast<std::size_t>(height));
    } catch (const std::bad_alloc&) {
        Release();
        return false;
    }
    if (zeroFill) std::memset(data_.get(), 0, bytes);
    for (int y = 0; y < height; ++y) rows_[static_cast<std::size_t>(y)] = data_.get() + std::size_t(y) * bytesPerRow;
    width_ = width;
    height_ = height;
    bitsPerPixel_ = bitsPerPixel;
    bytesPerRow_ = bytesPerRow;
    return true;
}

void Image::Release()
{
    data_.reset();
    std::vector<std::uint8_t*>().swap(rows_);
    width_ = height_ = bitsPerPixel_ = bytesPerRow_ = 0;
}

// ---- FrameHolder -----------------------------------------------------------------------

bool FrameHolder::Allocate(int width, int height)
{
    Release();
    if (!SaneSize(width, height)) return false;
    const std::size_t image = std::size_t(width) * 4 * std::size_t(height);
    const std::size_t size = sizeof(BITMAPINFOHEADER) + image;
    block_.reset(new (std::nothrow) std::uint8_t[size]);
    if (!block_) return false;
    size_ = size;
    BITMAPINFOHEADER h{};
    h.biSize = sizeof(BITMAPINFOHEADER);
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = 32;
    h.biCompression = BI_RGB;
    h.biSizeImage = static_cast<DWORD>(image);
    std::memcpy(block_.get(), &h, sizeof h);
    return true;
}

void FrameHolder::Release()
{
    block_.reset();
    size_ = 0;
}

const BITMAPINFOHEADER* FrameHolder::Header() const
{
    return block_ ? reinterpret_cast<const BITMAPINFOHEADER*>(block_.get()) : nullptr;
}

// ---- reading ---------------------------------------------------------------------------

bool IsReadableImageName(std::string_view path)
{
    static const char* const kExtensions[] = {".6RN", ".BMP", ".RGB", ".IFF", ".JPEG", ".JPE",
                                              ".JPG", ".PIC", ".PIX", ".PSD", ".RLA", ".SGI",
                                              ".SUN", ".TGA", ".TIFF", ".TIF", ".VPB", ".YUV"};
    const std::string ext = ExtensionPart(path);
    if (ext.empty()) return false;
    for (const char* e : kExtensions)
        if (EqualsNoCase(ext, e)) return true;
    return false;
}

namespace {

// The calling thread's buffer for whole files, kept between frames: a fresh multi-megabyte
// block per frame costs more in page faults than the decode itself.
std::vector<std::uint8_t>& FileBuffer()
{
    thread_local std::vector<std::uint8_t> bytes;
    return bytes;
}

// The whole file in a buffer kept by the calling thread.
bool ReadWholeFile(const std::string& path, std::vector<std::uint8_t>& bytes, std::size_t& length, std::string* error)
{
    if (!IsReadableImageName(path))
        return Fail(error, path + ": not a readable image type (extension '" + ExtensionPart(path) + "')");
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return Fail(error, path + ": cannot open: " + std::strerror(errno));
    const std::streamoff size = in.tellg();
    if (size < 0) return Fail(error, path + ": cannot tell its size");
    if (static_cast<std::uintmax_t>(size) > kMaxFileBytes) return Fail(error, path + ": file too large");
    try {
        if (bytes.size() < static_cast<std::size_t>(size)) bytes.resize(static_cast<std::size_t>(size));
    } catch (const std::bad_alloc&) {
        return Fail(error, path + ": no memory to read the file");
    }
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(bytes.data()), size)) return Fail(error, path + ": short read");
    length = static_cast<std::size_t>(size);
    return true;
}

// The file read into the calling thread's buffer, and the imaging library that decodes it;
// null with the reason, naming the file, when either cannot be had.
const ZubImagingApi* ReadForDecoding(const std::string& path, std::vector<std::uint8_t>& bytes, std::size_t& length,
                                     std::string* error)
{
    if (!ReadWholeFile(path, bytes, length, error)) return nullptr;
    std::string why;
    const ZubImagingApi* api = ImagingLibrary(&why);
    if (!api) Fail(error, path + ": " + why);
    return api;
}

}  // namespace

bool DescribeImageFile(const std::string& path, ImageFileInfo& info, std::string* error)
{
    info = {};
    std::vector<std::uint8_t>& bytes = FileBuffer();
    std::size_t length = 0;
    const bool read = ReadWholeFile(path, bytes, length, error);
    struct Trim {
        std::vector<std::uint8_t>& v;
        ~Trim()
        {
            if (v.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(v);
        }
    } trim{bytes};
    if (!read) return false;
    std::string why;
    const ZubImagingApi* api = ImagingLibrary(&why);
    if (!api) return Fail(error, path + ": " + why);
    std::int32_t w = 0, h = 0, ch = 0, bits = 0;
    char message[1024] = {};
    if (!api->describe(path.c_str(), bytes.data(), length, &w, &h, &ch, &bits, message, sizeof message))
        return Fail(error, message[0] ? message : path + ": cannot read the header");
    info = {w, h, ch, bits};
    return true;
}

bool ReadImageFile(const std::string& path, Image& image, std::string* error)
{
    image.Release();
    std::vector<std::uint8_t>& bytes = FileBuffer();
    std::size_t length = 0;
    const ZubImagingApi* api = ReadForDecoding(path, bytes, length, error);
    if (!api) return false;

    struct Target {
        Image* image;
    } target{&image};
    auto alloc = [](void* ctx, std::int32_t w, std::int32_t h) -> std::uint8_t* {
        Image* img = static_cast<Target*>(ctx)->image;
        return img->Allocate(w, h, 32, false) ? img->Data() : nullptr;
    };
    char message[1024] = {};
    if (!api->decode(path.c_str(), bytes.data(), length, alloc, &target, message,
                     sizeof message)) {
        if (bytes.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(bytes);
        image.Release();
        return Fail(error, message[0] ? message : path + ": cannot decode");
    }
    if (bytes.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(bytes);  // a rare giant
    if (image.Empty() || image.BitsPerPixel() != 32) {
        image.Release();
        return Fail(error, path + ": the decoder gave no 32-bit BGRA image");
    }
    return true;
}

// ---- field operations ------------------------------------------------------------------

bool ShiftDownOneScanline(Image& image, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    const std::size_t n = static_cast<std::size_t>(image.BytesPerRow());
    for (int r = image.Height() - 1; r >= 1; --r) std::memcpy(image.Row(r), image.Row(r - 1), n);
    std::memset(image.Row(0), 0, n);
    return true;
}

bool SwapFieldScanlines(Image& image, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    const std::size_t n = static_cast<std::size_t>(image.BytesPerRow());
    std::vector<std::uint8_t> scratch(n);
    const int even = image.Height() & ~1;  // an odd last row has no partner and stays
    for (int r = 0; r < even; r += 2) {
        std::memcpy(scratch.data(), image.Row(r), n);
        std::memcpy(image.Row(r), image.Row(r + 1), n);
        std::memcpy(image.Row(r + 1), scratch.data(), n);
    }
    return true;
}

// ---- geometry --------------------------------------------------------------------------

bool ConvertTo32Bits(Image& image, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    if (image.BitsPerPixel() == 32) return true;
    Image out;
    if (!out.Allocate(image.Width(), image.Height(), 32, false)) return Fail(error, "no memory for a 32-bit image");
    for (int y = 0; y < image.Height(); ++y) {
        const std::uint8_t* s = image.Row(y);
        std::uint8_t* d = out.Row(y);
        for (int x = 0; x < image.Width(); ++x, s += 3, d += 4) {
            d[0] = s[0];
            d[1] = s[1];
            d[2] = s[2];
            d[3] = 255;  // a picture without alpha is opaque
        }
    }
    image = std::move(out);
    return true;
}

bool CropImage(Image& image, int left, int top, int width, int height, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    if (!ConvertTo32Bits(image, error)) return false;
    Image out;
    if (!out.Allocate(width, height, 32)) return Fail(error, "cannot make a " + SizeText(width, height) + " canvas");
    // Overlap of the source with the rectangle, in source coordinates; the rest stays zero.
    const std::int64_t x0 = std::max<std::int64_t>(left, 0);
    const std::int64_t y0 = std::max<std::int64_t>(top, 0);
    const std::int64_t x1 = std::min<std::int64_t>(std::int64_t(left) + width, image.Width());
    const std::int64_t y1 = std::min<std::int64_t>(std::int64_t(top) + height, image.Height());
    if (x1 > x0 && y1 > y0) {
        const std::size_t bytes = static_cast<std::size_t>(x1 - x0) * 4;
        for (std::int64_t y = y0; y < y1; ++y) {
            std::memcpy(out.Row(static_cast<int>(y - top)) + (x0 - left) * 4, image.Row(static_cast<int>(y)) + x0 * 4,
                        bytes);
        }
    }
    image = std::move(out);
    return true;
}

bool ResizeImage(Image& image, int width, int height, int method, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    if (method < kResizeNearest || method > kResizeBiCubic)
        return Fail(error, "unknown resize method " + std::to_string(method));
    if (!SaneSize(width, height)) return Fail(error, "cannot resize to " + SizeText(width, height));
    if (!ConvertTo32Bits(image, error)) return false;
    std::string why;
    const ZubImagingApi* api = ImagingLibrary(&why);
    if (!api) return Fail(error, why);
    Image out;
    if (!out.Allocate(width, height, 32, false))
        return Fail(error, "no memory for a " + SizeText(width, height) + " image");
    char message[512] = {};
    if (!api->resize(image.Data(), image.Width(), image.Height(), image.BytesPerRow(), out.Data(), width, height,
                     out.BytesPerRow(), method + 1, message, sizeof message))
        return Fail(error, message[0] ? message : "resize failed");
    image = std::move(out);
    return true;
}

namespace {

// What a fit does to a w x h image, worked out from the sizes alone: at most one resize, at
// most one crop to the target, then the border of the safe area.
struct FitSteps {
    int mx = 0, my = 0;          // margins of the safe area
    int targetW = 0, targetH = 0;
    bool resize = false;         // to resizeW x resizeH with `method`
    int resizeW = 0, resizeH = 0, method = 0;
    bool crop = false;           // the target-sized rectangle at (left, top)
    int left = 0, top = 0;
};

bool PlanFit(std::int32_t fitWord, FrameSize frame, int w, int h, FitSteps& steps, std::string* error)
{
    const FitWordParts fit = SplitFitWord(fitWord);
    const int W = frame.width, H = frame.height;
    if (!SaneSize(W, H)) return Fail(error, "bad frame size " + SizeText(W, H));

    int mx = 0, my = 0;
    switch (fit.area) {
    case kAreaNormal: break;
    case kAreaSafeTitle:
        mx = (W * 10 + 50) / 100;
        my = (H * 10 + 50) / 100;
        break;
    case kAreaSafeImage:
        mx = (W * 5 + 50) / 100;
        my = (H * 5 + 50) / 100;
        break;
    default: return Fail(error, "unknown fit area " + std::to_string(fit.area));
    }
    const int Tw = W - 2 * mx, Th = H - 2 * my;
    steps = {};
    steps.mx = mx;
    steps.my = my;
    steps.targetW = Tw;
    steps.targetH = Th;
    steps.method = fit.method;

    // A scaled side never drops to nothing: a very flat image keeps one row.
    auto scaled = [](std::int64_t a, std::int64_t b, std::int64_t c) {
        return static_cast<int>(std::clamp<std::int64_t>(a * b / c, 1, kMaxSide));
    };
    // A resize method is only checked when a resize is asked for.
    auto resize = [&](int nw, int nh) {
        if (fit.method < kResizeNearest || fit.method > kResizeBiCubic)
            return Fail(error, "unknown resize method " + std::to_string(fit.method));
        steps.resize = nw != w || nh != h;
        steps.resizeW = nw;
        steps.resizeH = nh;
        return true;
    };
    auto crop = [&](int left, int top) {
        steps.crop = true;
        steps.left = left;
        steps.top = top;
        return true;
    };

    if (w == Tw && h == Th) return true;
    int mode = fit.mode;
    if (mode == kFitAll) mode = MulDiv(w, Th, h) > Tw ? kFitWidth : kFitHeight;
    switch (mode) {
    case kFitCenter: return crop((w - Tw) / 2, (h - Th) / 2);
    case kFitUpperLeft: return crop(0, 0);
    case kFitUpperRight: return crop(w - Tw, 0);
    case kFitLowerLeft: return crop(0, h - Th);
    case kFitLowerRight: return crop(w - Tw, h - Th);
    case kFitStretchAll: return resize(Tw, Th);
    case kFitHeight: {
        const int nw = scaled(w, Th, h);
        return resize(nw, Th) && (nw == Tw || crop((nw - Tw) / 2, 0));
    }
    case kFitWidth: {
        const int nh = scaled(h, Tw, w);
        return resize(Tw, nh) && (nh == Th || crop(0, (nh - Th) / 2));
    }
    case kFitStretchHeight: return resize(w, Th) && (w == Tw || crop((w - Tw) / 2, 0));
    case kFitStretchWidth: return resize(Tw, h) && (h == Th || crop(0, (h - Th) / 2));
    default: return Fail(error, "unknown fit mode " + std::to_string(fit.mode));
    }
}

// The steps of a plan; an image that already has the resized size (decoded straight to it)
// is not resized again.
bool ApplyFit(Image& image, const FitSteps& steps, FrameSize frame, std::string* error)
{
    if (steps.resize && (image.Width() != steps.resizeW || image.Height() != steps.resizeH) &&
        !ResizeImage(image, steps.resizeW, steps.resizeH, steps.method, error))
        return false;
    if (steps.crop && !CropImage(image, steps.left, steps.top, steps.targetW, steps.targetH, error)) return false;
    // The safe area sits in the middle of a frame-sized canvas with an empty border.
    if (steps.mx != 0 || steps.my != 0) return CropImage(image, -steps.mx, -steps.my, frame.width, frame.height, error);
    return true;
}

// The crop and the safe area's border only move pixels and add zero ones: done as one copy
// of the visible part of the (resized) image straight into the frame holder, the same bytes
// as cropping, bordering and packing one after the other.
bool PackPlaced(const Image& image, const FitSteps& steps, FrameSize frame, FrameHolder& holder, std::string* error)
{
    if (image.BitsPerPixel() != 32) return Fail(error, "only 32-bit images can be packed");
    const int W = frame.width, H = frame.height;
    if (!holder.Allocate(W, H)) return Fail(error, "no memory for a " + SizeText(W, H) + " frame");
    const std::int64_t left = steps.crop ? steps.left : 0, top = steps.crop ? steps.top : 0;
    const std::int64_t dx = steps.mx - left, dy = steps.my - top;  // image to frame
    std::int64_t x0 = std::max<std::int64_t>(0, -dx), x1 = std::min<std::int64_t>(image.Width(), W - dx);
    std::int64_t y0 = std::max<std::int64_t>(0, -dy), y1 = std::min<std::int64_t>(image.Height(), H - dy);
    if (steps.crop) {
        x0 = std::max(x0, left);
        x1 = std::min(x1, left + steps.targetW);
        y0 = std::max(y0, top);
        y1 = std::min(y1, top + steps.targetH);
    }
    const std::size_t rowBytes = static_cast<std::size_t>(W) * 4;
    std::uint8_t* pixels = holder.Pixels();
    auto frameRow = [&](std::int64_t y) { return pixels + rowBytes * static_cast<std::size_t>(H - 1 - y); };
    const bool any = x1 > x0 && y1 > y0;
    for (std::int64_t y = 0; y < H; ++y) {
        std::uint8_t* d = frameRow(y);
        const std::int64_t sy = y - dy;
        if (!any || sy < y0 || sy >= y1) {
            std::memset(d, 0, rowBytes);
            continue;
        }
        const std::size_t before = static_cast<std::size_t>(x0 + dx) * 4;
        const std::size_t middle = static_cast<std::size_t>(x1 - x0) * 4;
        std::memset(d, 0, before);
        std::memcpy(d + before, image.Row(static_cast<int>(sy)) + x0 * 4, middle);
        std::memset(d + before + middle, 0, rowBytes - before - middle);
    }
    return true;
}

}  // namespace

bool FitImage(Image& image, std::int32_t fitWord, FrameSize frame, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    FitSteps steps;
    return PlanFit(fitWord, frame, image.Width(), image.Height(), steps, error) &&
           ApplyFit(image, steps, frame, error);
}

bool PrepareImage(Image& image, std::int32_t fitWord, bool swap, bool shift, FrameSize frame, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    if (shift && !ShiftDownOneScanline(image, error)) return false;
    if (swap && !SwapFieldScanlines(image, error)) return false;
    if (!FitImage(image, fitWord, frame, error)) return false;
    return ConvertTo32Bits(image, error);
}

bool PackFrame(const Image& image, FrameHolder& frame, std::string* error)
{
    if (!NeedImage(image, error)) return false;
    if (image.BitsPerPixel() != 32) return Fail(error, "only 32-bit images can be packed");
    if (!frame.Allocate(image.Width(), image.Height()))
        return Fail(error, "no memory for a " + SizeText(image.Width(), image.Height()) + " frame");
    const std::size_t n = static_cast<std::size_t>(image.Width()) * 4;
    std::uint8_t* out = frame.Pixels();
    for (int y = image.Height() - 1; y >= 0; --y, out += n) std::memcpy(out, image.Row(y), n);
    return true;
}

namespace {

// Reads the file and gives the image already resized as the fit's plan for its size asks,
// where the plan has a resize; `steps` is that plan (false with the reason when it has none:
// the fit fails on the full image then, with the same message as ever).
bool ReadFittedImageFile(const std::string& path, std::int32_t fitWord, FrameSize frameSize, Image& image,
                         FitSteps& steps, bool& planned, std::string* error)
{
    image.Release();
    std::vector<std::uint8_t>& bytes = FileBuffer();
    std::size_t length = 0;
    const ZubImagingApi* api = ReadForDecoding(path, bytes, length, error);
    if (!api) return false;

    struct Target {
        Image* image;
        std::int32_t fitWord;
        FrameSize frameSize;
        FitSteps* steps;
        bool* planned;
    } target{&image, fitWord, frameSize, &steps, &planned};
    auto pick = [](void* ctx, std::int32_t w, std::int32_t h, std::int32_t* ow, std::int32_t* oh,
                   std::int32_t* filter) -> std::uint8_t* {
        auto* t = static_cast<Target*>(ctx);
        *t->planned = PlanFit(t->fitWord, t->frameSize, w, h, *t->steps, nullptr);
        *ow = w;
        *oh = h;
        *filter = 0;
        if (*t->planned && t->steps->resize && SaneSize(t->steps->resizeW, t->steps->resizeH)) {
            *ow = t->steps->resizeW;
            *oh = t->steps->resizeH;
            *filter = t->steps->method + 1;
        }
        return t->image->Allocate(*ow, *oh, 32, false) ? t->image->Data() : nullptr;
    };
    char message[1024] = {};
    const bool ok = api->decodeScaled(path.c_str(), bytes.data(), length, pick, &target, message, sizeof message) != 0;
    if (bytes.capacity() > kKeptBufferBytes) std::vector<std::uint8_t>().swap(bytes);  // a rare giant
    if (!ok) {
        image.Release();
        return Fail(error, message[0] ? message : path + ": cannot decode");
    }
    if (image.Empty() || image.BitsPerPixel() != 32) {
        image.Release();
        return Fail(error, path + ": the decoder gave no 32-bit BGRA image");
    }
    return true;
}

}  // namespace

bool LoadFrame(const std::string& path, std::int32_t fitWord, bool swap, bool shift, FrameSize frameSize,
               FrameHolder& frame, std::string* error)
{
    Image image;
    std::string why;
    if (swap || shift) {
        // The field operations work on the picture's own scanlines, before any resize.
        if (!ReadImageFile(path, image, error)) return false;
        if (!PrepareImage(image, fitWord, swap, shift, frameSize, &why) || !PackFrame(image, frame, &why))
            return Fail(error, path + ": " + why);
        return true;
    }
    // Otherwise the decoder resizes as it decodes: it may decode a shrinking picture at a
    // reduced size, and no full-size picture is handed over.
    FitSteps steps;
    bool planned = false;
    if (!ReadFittedImageFile(path, fitWord, frameSize, image, steps, planned, error)) return false;
    // A plan whose resize the decoder did (or that has none) ends in one placed copy.
    if (planned && (!steps.resize || (image.Width() == steps.resizeW && image.Height() == steps.resizeH))) {
        if (!PackPlaced(image, steps, frameSize, frame, &why)) return Fail(error, path + ": " + why);
        return true;
    }
    const bool fitted = planned ? ApplyFit(image, steps, frameSize, &why) : FitImage(image, fitWord, frameSize, &why);
    if (!fitted || !ConvertTo32Bits(image, &why) || !PackFrame(image, frame, &why)) return Fail(error, path + ": " + why);
    return true;
}

}  // namespace zub
