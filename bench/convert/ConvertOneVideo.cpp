// bench_convert_video_one SOURCE VOLUME [TIMES]: one headless conversion of SOURCE's picture
// into a compressed 720x486 clip at 3 MB/s, bicubic, on a substitute volume, as its own
// process so its peak memory can be read alone. With TIMES, the frames made and the seconds
// from Convert to the end are written there, so the launcher can tell the conversion itself
// from the process's start-up and probing. Exits 0 when the conversion ended with code 1.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "device/RecorderDevice.h"
#include "imgseq/ImageFitting.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: %s SOURCE VOLUME/ [TIMES]\n", argv[0]);
        return 2;
    }
    using namespace zub;
    SetPrompter(std::make_shared<StderrPrompt>());
    if (!TheRecorder().OpenDeviceWithInfo(1, 0, 0)) {
        std::fprintf(stderr, "%s\n", CRecorderDevice::GetError().c_str());
        return 1;
    }
    ImportSettings& s = CurrentSettings();
    s.videoDir = argv[2];
    s.audioDir = argv[2];
    s.videoDataRate = 3 * 1024 * 1024;
    s.fitWord = MakeFitWord(kFitStretchAll, kAreaNormal, kResizeBiCubic);
    s.showImagesOnOutput = 0;
    CConvertDlg dlg(argv[1]);
    dlg.SetBatchProcess(1);
    dlg.SetStrSettings("bench|1,0,0");
    const int code = dlg.Modal();
    std::printf("%u frames in %.3f s\n", dlg.GetReport().framesDone, dlg.GetReport().seconds);
    if (argc == 4) {
        std::ofstream times(argv[3], std::ios::trunc);
        times << dlg.GetReport().framesDone << ' ' << dlg.GetReport().seconds << '\n';
        if (!times) std::fprintf(stderr, "%s: cannot be written\n", argv[3]);
    }
    for (const std::string& m : dlg.GetReport().messages) std::fprintf(stderr, "%s\n", m.c_str());
    TheRecorder().CloseDevice();
    return code == 1 ? 0 : 1;
}
