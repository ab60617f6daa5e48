// A conversion test's world: the substitute recorder on a scratch volume at 525 lines and the
// module's settings pointed at its video/ and audio/ folders, fitting the whole picture.
#pragma once

#include <cstdlib>
#include <filesystem>

#include "TempDir.h"
#include "imgseq/ImageFitting.h"
#include "zubimport/ImportSettings.h"

namespace zub::test {

// recorderDir: where the back-end libraries are; imaging: the imaging library's path.
inline void UseScratchVolume(const TempDir& vol, const char* recorderDir, const char* imaging)
{
    setenv("ZUBIMPORT_RECORDER_DIR", recorderDir, 1);
    setenv("ZUBIMPORT_IMAGING_LIBRARY", imaging, 1);
    setenv("ZUBREC_CONFIG", (vol / "none.ini").c_str(), 1);
    setenv("ZUBREC_VOLUME", (vol.Path().string() + "/").c_str(), 1);
    setenv("ZUBREC_LINES", "525", 1);
    setenv("ZUBREC_MONITOR", "off", 1);
    unsetenv("ZUBREC_LIMIT");
    std::filesystem::create_directories(vol / "video");
    std::filesystem::create_directories(vol / "audio");
    ImportSettings& s = CurrentSettings();
    s = ImportSettings{};
    s.videoDir = vol / "video/";
    s.audioDir = vol / "audio/";
    s.fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiLinear);
    s.videoDataRate = 3000000;
    s.makeDva = 0;
    s.showImagesOnOutput = 0;
}

}  // namespace zub::test
