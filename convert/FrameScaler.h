// The conversion's fast frame path: when the fit is a plain scale of the whole picture placed
// in the frame, or a crop of it, the decoder's own 4:2:0 planes are scaled (or cut) and
// converted into the frame holder without a full-size colour conversion first.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "convert/PlaneScaler.h"
#include "graph/GraphVideoReader.h"
#include "imgseq/ImageFitting.h"

struct SwsContext;

namespace zub {

// Where a fitted picture lands: scaled to width x height with its top-left corner at
// (left, top) of the frame, the rest of the frame empty.
struct ScaledPlacement {
    int width = 0, height = 0;
    int left = 0, top = 0;
    // A picture scaled beyond the target is cut: it is scaled to scaledWidth x scaledHeight
    // (0: width x height) and the width x height part at (cutX, cutY) shows.
    int scaledWidth = 0, scaledHeight = 0;
    int cutX = 0, cutY = 0;
    // A crop places stored pixels as they are: the width x height rectangle of the source at
    // (srcX, srcY), unscaled.
    bool crop = false;
    int srcX = 0, srcY = 0;
};

// True when fitting a w x h picture with this fit word is a plain scale (the stretch and fit
// modes), the picture whole or, with bilinear or bicubic, cut where it passes the target;
// false for the crop modes, or when swap or shift asks for field work.
bool PlainScalePlacement(int w, int h, std::int32_t fitWord, bool swap, bool shift, FrameSize frame,
                         ScaledPlacement* placement);
// The same for the cropping modes (Center and the four corners): the part of the picture
// that shows, and where. False for the other modes, or when nothing of the picture shows.
bool CropPlacement(int w, int h, std::int32_t fitWord, bool swap, bool shift, FrameSize frame,
                   ScaledPlacement* placement);

// Scales in two passes that together cost far less than one scaling pass straight to 32 bits:
// the planes are scaled as planes to 4:2:2 at the placement's size (our own plane scaler for
// bilinear and bicubic, libswscale's for nearest), then the small 4:2:2 picture is converted
// to BGRA (libswscale's unscaled conversion, with its own vector code) directly into the frame
// holder's rows. 4:2:2 keeps every chroma line the one-pass conversion would have used, so
// the picture is the same but for rounding.
class PlanarFrameScaler {
public:
    PlanarFrameScaler();
    ~PlanarFrameScaler();
    PlanarFrameScaler(const PlanarFrameScaler&) = delete;
    PlanarFrameScaler& operator=(const PlanarFrameScaler&) = delete;

    // Scales a planar sample into `holder` (frame size, bottom-up 32 bits, opaque picture on an
    // empty canvas). method: 0 nearest, 1 bilinear, 2 bicubic.
    bool Scale(const VideoSample& sample, const ScaledPlacement& placement, int method, FrameSize frame,
               FrameHolder& holder, std::string* error);

private:
    struct AvFree {
        void operator()(std::uint8_t* p) const;
    };
    PlaneScaler planeY_, planeC_;    // source planes -> 4:2:2 planes at the placement's size
    SwsContext* scale_ = nullptr;    // the same, for nearest
    SwsContext* convert_ = nullptr;  // 4:2:2 -> BGRA, same size
    SwsContext* crop_ = nullptr;     // 4:2:0 -> BGRA, unscaled, for the crops
    std::vector<std::uint8_t> cropped_;

    bool Crop(const VideoSample& sample, const ScaledPlacement& placement, FrameSize frame, FrameHolder& holder,
              std::string* error);
    bool Holder(FrameSize frame, FrameHolder& holder, std::string* error);
    void ClearAround(const ScaledPlacement& placement, FrameSize frame, FrameHolder& holder);
    std::unique_ptr<std::uint8_t, AvFree> planes_;
    std::size_t planesBytes_ = 0;
    int convertSpace_ = -1;
};

}  // namespace zub
