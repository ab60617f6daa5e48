// What WriteNew needs from the recorder about a video file and the current video standard.
#pragma once

#include <cstdint>

namespace zub::dva {

struct VideoFacts {
    std::int32_t width = 0;
    std::int32_t height = 0;
    int rateHundredths = 0;  // 2400, 2500 or 2997
    bool key = false;
    std::uint32_t length = 0;  // frames; 0 when the recorder cannot tell
};

// Opens the recorder with the values of CDva::SetupDevice when it is not open (closing it
// again before returning), and asks it about videoFile. False only when the recorder cannot
// be opened.
bool QueryVideoFacts(const char* videoFile, VideoFacts& facts);

}  // namespace zub::dva
