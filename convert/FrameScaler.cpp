#include "convert/FrameScaler.h"

extern "C" {
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

}  // namespace

bool PlainScalePlacement(int w, int h, std::int32_t fitWord, bool swap, bool shift, FrameSize frame,
                         ScaledPlacement* out)
{
    if (swap || shift || w <= 0 || h <= 0 || frame.width <= 0 || frame.height <= 0) return false;
    const FitWordParts fit = SplitFitWord(fitWord);
    if (fit.method < kResizeNearest || fit.method > kResizeBiCubic) return false;
    const int W = frame.width, H = frame.height;
    int mx = 0, my = 0;
    switch (fit.area) {
    case kAreaNormal: break;
    case kAreaSafeTitle: mx = (W * 10 + 50) / 100; my = (H * 10 + 50) / 100; break;
    case kAreaSafeImage: mx = (W * 5 + 50) / 100; my = (H * 5 + 50) / 100; break;
    default: return false;
    }
    const int Tw = W - 2 * mx, Th = H - 2 * my;
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
    if (nw > Tw || nh > Th) return false;  // the picture would be cut
    // The fitting centres a smaller picture by a crop with a negative offset, which truncates.
    out->width = nw;
    out->height = nh;
    out->left = mx - (nw - Tw) / 2;
    out->top = my - (nh - Th) / 2;
    return true;
}

PlanarFrameScaler::PlanarFrameScaler() = default;

PlanarFrameScaler::~PlanarFrameScaler()
{
    sws_freeContext(ctx_);
}

bool PlanarFrameScaler::Scale(const VideoSample& s, const ScaledPlacement& p, int method, FrameSize frame,
                              FrameHolder& holder, std::string* error)
{
    if (!s.planar || !s.plane[0] || !s.plane[1] || !s.plane[2]) {
        if (error) *error = "the frame is not planar 4:2:0";
        return false;
    }
    const int flags = method == kResizeNearest ? SWS_POINT : method == kResizeBiLinear ? SWS_BILINEAR : SWS_BICUBIC;
    ctx_ = sws_getCachedContext(ctx_, s.width, s.height, AV_PIX_FMT_YUV420P, p.width, p.height, AV_PIX_FMT_BGRA,
                                flags, nullptr, nullptr, nullptr);
    if (!ctx_) {
        if (error) *error = "no scaler for " + std::to_string(s.width) + "x" + std::to_string(s.height);
        return false;
    }
    // Decoders mark high-definition pictures with the high-definition matrix, studio range.
    const int space = s.height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    sws_setColorspaceDetails(ctx_, sws_getCoefficients(space), 0, sws_getCoefficients(space), 1, 0, 1 << 16, 1 << 16);

    const std::size_t row = static_cast<std::size_t>(p.width) * 4;
    scaled_.resize(row * static_cast<std::size_t>(p.height));
    std::uint8_t* dst[4] = {scaled_.data(), nullptr, nullptr, nullptr};
    int dstStride[4] = {static_cast<int>(row), 0, 0, 0};
    const std::uint8_t* const src[4] = {s.plane[0], s.plane[1], s.plane[2], nullptr};
    const int srcStride[4] = {static_cast<int>(s.planeStride[0]), static_cast<int>(s.planeStride[1]),
                              static_cast<int>(s.planeStride[2]), 0};
    if (sws_scale(ctx_, src, srcStride, 0, s.height, dst, dstStride) != p.height) {
        if (error) *error = "the scaler did not deliver the picture";
        return false;
    }

    if (holder.Empty() || holder.Header()->biWidth != frame.width || holder.Header()->biHeight != frame.height) {
        if (!holder.Allocate(frame.width, frame.height)) {
            if (error) *error = "no memory for the frame";
            return false;
        }
    }
    // The holder's rows run bottom-up; the picture goes at its place, the canvas stays empty.
    const std::size_t frameRow = static_cast<std::size_t>(frame.width) * 4;
    std::uint8_t* pixels = holder.Pixels();
    std::memset(pixels, 0, frameRow * static_cast<std::size_t>(frame.height));
    for (int y = 0; y < p.height; ++y) {
        const int fy = p.top + y;
        if (fy < 0 || fy >= frame.height) continue;
        std::memcpy(pixels + frameRow * static_cast<std::size_t>(frame.height - 1 - fy) + static_cast<std::size_t>(p.left) * 4,
                    scaled_.data() + row * static_cast<std::size_t>(y), row);
    }
    return true;
}

}  // namespace zub
