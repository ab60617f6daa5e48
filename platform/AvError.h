#pragma once
// FFmpeg's text for one of its error codes. Header-only: only the parts that already link
// libavutil include it, so the platform library itself stays free of FFmpeg.
#include <string>

extern "C" {
#include <libavutil/error.h>
}

namespace zub {

inline std::string AvError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

}  // namespace zub
