#pragma once
// The turn a video stream's container asks for before the picture is shown (phone cameras
// store the sensor's rows and a display matrix). Header-only like AvError.h, for the parts
// that already link libavformat.
#include <cmath>
#include <cstdint>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

namespace zub::av {

// Clockwise degrees that show the stream upright: 0, 90, 180 or 270.
inline int ClockwiseRotation(const AVStream* st)
{
    const auto* m = reinterpret_cast<const std::int32_t*>(
        av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
    if (!m) return 0;
    // The matrix turns counter-clockwise by the angle; showing upright turns back.
    const double angle = av_display_rotation_get(m);
    if (std::isnan(angle)) return 0;
    return ((static_cast<int>(std::lround(-angle / 90.0)) % 4 + 4) % 4) * 90;
}

}  // namespace zub::av
