#include "convert/FrameScaler.h"

extern "C" {
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstring>

namespace zub {

namespace {

// The same rounding as the fitting code's choice between fitting the height and the width.
std::int64_t MulDivRound(std::int64_t a, std::int64_t b, std::int64_t c)
{
    const std::int64_t p = a * b;
    return (p >= 0) == (c > 0) ? (p + c / 2) / c : (p - c / 2) / c;
}

int Scaled(std::int64_t a, std::int64_t b, std::int64_t c)
{
    return static_cast<int>(std::clamp<std::int64_t>(a * b / c, 1, 32768));
}

// libswscale's vector writers store whole groups of bytes past the last pixel of the last row:
// every buffer it writes carries this much more.
constexpr std::size_t kWriterSlack = 64;

// The margins of the fit's area; false for an area the fitting refuses.
bool Margins(int area, FrameSize frame, int* mx, int* my)
{
    const int W = frame.width, H = frame.height;
    switch (area) {
    case kAreaNormal: *mx = *my = 0; return true;
    case kAreaSafeTitle: *mx = (W * 10 + 50) / 100; *my = (H * 10 + 50) / 100; return true;
    case kAreaSafeImage: *mx = (W * 5 + 50) / 100; *my = (H * 5 + 50) / 100; return true;
    default: return false;
    }
}

}  // namespace

bool PlainScalePlacement(int w, int h, std::int32_t fitWord, bool swap, bool shift, FrameSize frame,
                         ScaledPlacement* out)
{
    if (swap || shift || w <= 0 || h <= 0 || frame.width <= 0 || frame.height <= 0) return false;
    const FitWordParts fit = SplitFitWord(fitWord);
    if (fit.method < kResizeNearest || fit.method > kResizeBiCubic) return false;
    int mx = 0, my = 0;
    if (!Margins(fit.area, frame, &mx, &my)) return false;
    const int Tw = frame.width - 2 * mx, Th = frame.height - 2 * my;
    int mode = fit.mode;
    if (w == Tw && h == Th) mode = kFitStretchAll;  // nothing to fit: the picture as it is
    if (mode == kFitAll) mode = MulDivRound(w, Th, h) > Tw ? kFitWidth : kFitHeight;
    int nw = 0, nh = 0;
    switch (mode) {
    case kFitStretchAll: nw = Tw; nh = Th; break;
    case kFitHeight: nw = Scaled(w, Th, h); nh = Th; break;
    case kFitWidth: nw = Tw; nh = Scaled(h, Tw, w); break;
    case kFitStretchHeight: nw = w; nh = Th; break;
    case kFitStretchWidth: nw = Tw; nh = h; break;
    default: return false;  // the crop modes take part of the picture: the general path does them
    }
    // Only our own scaler makes part of a scaled picture.
    if ((nw > Tw || nh > Th) && fit.method == kResizeNearest) return false;
    // The fitting centres a smaller picture by a crop with a negative offset, which truncates,
    // and cuts a larger one at half the difference, truncated too.
    *out = ScaledPlacement{};
    out->scaledWidth = nw;
    out->scaledHeight = nh;
    out->cutX = nw > Tw ? (nw - Tw) / 2 : 0;
    out->cutY = nh > Th ? (nh - Th) / 2 : 0;
    out->width = std::min(nw, Tw);
    out->height = std::min(nh, Th);
    out->left = nw > Tw ? mx : mx - (nw - Tw) / 2;
    out->top = nh > Th ? my : my - (nh - Th) / 2;
    return true;
}

bool CropPlacement(int w, int h, std::int32_t fitWord, bool swap, bool shift, FrameSize frame, ScaledPlacement* out)
{
    if (swap || shift || w <= 0 || h <= 0 || frame.width <= 0 || frame.height <= 0) return false;
    const FitWordParts fit = SplitFitWord(fitWord);
    int mx = 0, my = 0;
    if (!Margins(fit.area, frame, &mx, &my)) return false;
    const int Tw = frame.width - 2 * mx, Th = frame.height - 2 * my;
    // The corner of the target-sized window on the picture (negative: the picture is smaller
    // and sits inside an empty canvas), as the fitting crops.
    int cx = 0, cy = 0;
    switch (fit.mode) {
    case kFitCenter: cx = (w - Tw) / 2; cy = (h - Th) / 2; break;
    case kFitUpperLeft: break;
    case kFitUpperRight: cx = w - Tw; break;
    case kFitLowerLeft: cy = h - Th; break;
    case kFitLowerRight: cx = w - Tw; cy = h - Th; break;
    default: return false;
    }
    const int x0 = std::max(cx, 0), y0 = std::max(cy, 0);
    const int x1 = std::min(cx + Tw, w), y1 = std::min(cy + Th, h);
    if (x1 <= x0 || y1 <= y0) return false;
    out->crop = true;
    out->srcX = x0;
    out->srcY = y0;
    out->width = x1 - x0;
    out->height = y1 - y0;
    out->left = mx + x0 - cx;
    out->top = my + y0 - cy;
    return true;
}

void PlanarFrameScaler::AvFree::operator()(std::uint8_t* p) const { av_free(p); }

PlanarFrameScaler::PlanarFrameScaler() = default;

PlanarFrameScaler::~PlanarFrameScaler()
{
    sws_freeContext(scale_);
    sws_freeContext(convert_);
    sws_freeContext(crop_);
}

bool PlanarFrameScaler::Holder(FrameSize frame, FrameHolder& holder, std::string* error)
{
    if (holder.Empty() || holder.Header()->biWidth != frame.width || holder.Header()->biHeight != frame.height) {
        if (!holder.Allocate(frame.width, frame.height)) {
            if (error) *error = "no memory for the frame";
            return false;
        }
    }
    return true;
}

void PlanarFrameScaler::ClearAround(const ScaledPlacement& p, FrameSize frame, FrameHolder& holder)
{
    // The canvas around the picture is empty: the rows above and below it, and either side.
    const std::size_t frameRow = static_cast<std::size_t>(frame.width) * 4;
    std::uint8_t* pixels = holder.Pixels();
    for (int fy = 0; fy < frame.height; ++fy) {
        std::uint8_t* row = pixels + frameRow * static_cast<std::size_t>(frame.height - 1 - fy);
        if (fy < p.top || fy >= p.top + p.height) {
            std::memset(row, 0, frameRow);
            continue;
        }
        std::memset(row, 0, static_cast<std::size_t>(p.left) * 4);
        const std::size_t right = static_cast<std::size_t>(p.left + p.width) * 4;
        std::memset(row + right, 0, frameRow - right);
    }
}

bool PlanarFrameScaler::Crop(const VideoSample& s, const ScaledPlacement& p, FrameSize frame, FrameHolder& holder,
                             std::string* error)
{
    if (p.srcX < 0 || p.srcY < 0 || p.srcX + p.width > s.width || p.srcY + p.height > s.height) {
        if (error) *error = "the crop lies outside the " + std::to_string(s.width) + "x" + std::to_string(s.height) + " picture";
        return false;
    }
    // Only the part that shows is converted, from a corner on whole chroma samples (even rows,
    // and columns on a 32-byte boundary so every plane's rows start aligned), so each pixel
    // gets the chroma it has in the whole picture. The width is rounded up to the converter's
    // 8-pixel step where the picture allows.
    const int ex = p.srcX & ~31, ey = p.srcY & ~1;
    const int rw = std::min((p.srcX + p.width - ex + 7) & ~7, s.width - ex);
    const int rh = p.srcY + p.height - ey;
    crop_ = sws_getCachedContext(crop_, rw, rh, AV_PIX_FMT_YUV420P, rw, rh, AV_PIX_FMT_BGRA, SWS_POINT, nullptr,
                                 nullptr, nullptr);
    if (!crop_) {
        if (error) *error = "no converter for " + std::to_string(rw) + "x" + std::to_string(rh);
        return false;
    }
    const int space = s.height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    sws_setColorspaceDetails(crop_, sws_getCoefficients(space), 0, sws_getCoefficients(space), 1, 0, 1 << 16, 1 << 16);
    const int stride = (rw * 4 + 63) / 64 * 64;
    cropped_.resize(static_cast<std::size_t>(stride) * rh + kWriterSlack);
    const std::uint8_t* const src[4] = {s.plane[0] + s.planeStride[0] * ey + ex,
                                        s.plane[1] + s.planeStride[1] * (ey / 2) + ex / 2,
                                        s.plane[2] + s.planeStride[2] * (ey / 2) + ex / 2, nullptr};
    const int srcStride[4] = {static_cast<int>(s.planeStride[0]), static_cast<int>(s.planeStride[1]),
                              static_cast<int>(s.planeStride[2]), 0};
    std::uint8_t* dst[4] = {cropped_.data(), nullptr, nullptr, nullptr};
    const int dstStride[4] = {stride, 0, 0, 0};
    if (sws_scale(crop_, src, srcStride, 0, rh, dst, dstStride) != rh) {
        if (error) *error = "the colour conversion did not deliver the picture";
        return false;
    }
    if (!Holder(frame, holder, error)) return false;
    const std::size_t frameRow = static_cast<std::size_t>(frame.width) * 4;
    std::uint8_t* pixels = holder.Pixels();
    for (int r = 0; r < p.height; ++r)
        std::memcpy(pixels + frameRow * static_cast<std::size_t>(frame.height - 1 - p.top - r) + static_cast<std::size_t>(p.left) * 4,
                    cropped_.data() + static_cast<std::size_t>(stride) * (p.srcY - ey + r) + static_cast<std::size_t>(p.srcX - ex) * 4,
                    static_cast<std::size_t>(p.width) * 4);
    ClearAround(p, frame, holder);
    return true;
}

bool PlanarFrameScaler::Scale(const VideoSample& s, const ScaledPlacement& p, int method, FrameSize frame,
                              FrameHolder& holder, std::string* error)
{
    if (!s.planar || !s.plane[0] || !s.plane[1] || !s.plane[2]) {
        if (error) *error = "the frame is not planar 4:2:0";
        return false;
    }
    if (p.width <= 0 || p.height <= 0 || p.left < 0 || p.top < 0 || p.left + p.width > frame.width ||
        p.top + p.height > frame.height) {
        if (error)
            *error = "a " + std::to_string(p.width) + "x" + std::to_string(p.height) + " picture does not fit a " +
                     std::to_string(frame.width) + "x" + std::to_string(frame.height) + " frame";
        return false;
    }
    if (p.crop) return Crop(s, p, frame, holder, error);
    const int flags = method == kResizeNearest ? SWS_POINT : method == kResizeBiLinear ? SWS_BILINEAR : SWS_BICUBIC;
    // Bilinear and bicubic go through our own plane scaler; nearest stays with libswscale,
    // whose choice of sample the rest of the fitting code matches.
    const bool own = method != kResizeNearest;
    const int scaledW = p.scaledWidth ? p.scaledWidth : p.width, scaledH = p.scaledHeight ? p.scaledHeight : p.height;
    const bool cut = scaledW != p.width || scaledH != p.height;
    if (cut && !own) {
        if (error) *error = "a cut picture needs a smoothing scale";
        return false;
    }
    // The chroma of the part that shows pairs its own columns, as the frame's 4:2:2 storage
    // pairs them: a cut starting on an odd column takes chroma from between the scaled
    // picture's own samples. Its step is the picture's ratio, which the rounded chroma sizes
    // miss when a side is odd.
    const int madeW = p.width;
    const int chromaW = (s.width + 1) / 2, chromaH = (s.height + 1) / 2, midChromaW = (madeW + 1) / 2;
    if (own) {
        const PlaneScaler::Kernel kernel = method == kResizeBiLinear ? PlaneScaler::Kernel::Bilinear : PlaneScaler::Kernel::Bicubic;
        const int chromaScaledW = (scaledW + 1) / 2;
        const int chromaX = std::min(p.cutX / 2, chromaScaledW - midChromaW);
        if (!planeY_.Configure(s.width, s.height, scaledW, scaledH, kernel, {p.cutX, p.cutY, madeW, p.height}) ||
            !planeC_.Configure(chromaW, chromaH, chromaScaledW, scaledH, kernel, {chromaX, p.cutY, midChromaW, p.height},
                               static_cast<double>(s.width) / scaledW, static_cast<double>(s.height) / (2.0 * scaledH),
                               p.cutX / 2.0 - chromaX)) {
            if (error) *error = "no scaler for " + std::to_string(s.width) + "x" + std::to_string(s.height);
            return false;
        }
    } else {
        scale_ = sws_getCachedContext(scale_, s.width, s.height, AV_PIX_FMT_YUV420P, p.width, p.height,
                                      AV_PIX_FMT_YUV422P, flags, nullptr, nullptr, nullptr);
    }
    convert_ = sws_getCachedContext(convert_, madeW, p.height, AV_PIX_FMT_YUV422P, madeW, p.height, AV_PIX_FMT_BGRA,
                                    flags, nullptr, nullptr, nullptr);
    if ((!own && !scale_) || !convert_) {
        if (error) *error = "no scaler for " + std::to_string(s.width) + "x" + std::to_string(s.height);
        return false;
    }
    // Decoders mark high-definition pictures with the high-definition matrix, studio range.
    // The matrix belongs to the source, so it is the source's height that picks it.
    const int space = s.height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    if (space != convertSpace_) {
        sws_setColorspaceDetails(convert_, sws_getCoefficients(space), 0, sws_getCoefficients(space), 1, 0, 1 << 16,
                                 1 << 16);
        convertSpace_ = space;
    }

    // The 4:2:2 planes, rows aligned for the vector code.
    constexpr int kAlign = 64;
    const int lumaStride = (madeW + kAlign - 1) / kAlign * kAlign;
    const int chromaStride = (midChromaW + kAlign - 1) / kAlign * kAlign;
    const std::size_t lumaBytes = static_cast<std::size_t>(lumaStride) * p.height;
    const std::size_t chromaBytes = static_cast<std::size_t>(chromaStride) * p.height;
    const std::size_t need = lumaBytes + 2 * chromaBytes;
    if (!planes_ || planesBytes_ < need) {
        planes_.reset(static_cast<std::uint8_t*>(av_malloc(need + kWriterSlack)));
        planesBytes_ = planes_ ? need : 0;
        if (!planes_) {
            if (error) *error = "no memory for the scaled picture";
            return false;
        }
    }
    std::uint8_t* mid[4] = {planes_.get(), planes_.get() + lumaBytes, planes_.get() + lumaBytes + chromaBytes, nullptr};
    int midStride[4] = {lumaStride, chromaStride, chromaStride, 0};
    const std::uint8_t* const src[4] = {s.plane[0], s.plane[1], s.plane[2], nullptr};
    const int srcStride[4] = {static_cast<int>(s.planeStride[0]), static_cast<int>(s.planeStride[1]),
                              static_cast<int>(s.planeStride[2]), 0};
    if (own) {
        planeY_.Scale(src[0], srcStride[0], mid[0], midStride[0]);
        planeC_.Scale(src[1], srcStride[1], mid[1], midStride[1]);
        planeC_.Scale(src[2], srcStride[2], mid[2], midStride[2]);
    } else if (sws_scale(scale_, src, srcStride, 0, s.height, mid, midStride) != p.height) {
        if (error) *error = "the scaler did not deliver the picture";
        return false;
    }

    if (!Holder(frame, holder, error)) return false;
    // The holder's rows run bottom-up: the picture's top row is the holder's row H-1-top, and
    // each row below it lies one row earlier in memory.
    const std::size_t frameRow = static_cast<std::size_t>(frame.width) * 4;
    std::uint8_t* pixels = holder.Pixels();
    std::uint8_t* const top = pixels + frameRow * static_cast<std::size_t>(frame.height - 1 - p.top) +
                              static_cast<std::size_t>(p.left) * 4;
    const std::uint8_t* const midIn[4] = {mid[0], mid[1], mid[2], nullptr};
    std::uint8_t* dst[4] = {top, nullptr, nullptr, nullptr};
    int dstStride[4] = {-static_cast<int>(frameRow), 0, 0, 0};
    if (sws_scale(convert_, midIn, midStride, 0, p.height, dst, dstStride) != p.height) {
        if (error) *error = "the colour conversion did not deliver the picture";
        return false;
    }
    ClearAround(p, frame, holder);
    return true;
}

}  // namespace zub
