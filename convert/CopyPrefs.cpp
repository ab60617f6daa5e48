// Hand-over of the conversion preferences between the host's record and the module: the
// recorder is opened from the record's device values on the way in and stays open for the
// conversion dialog; it is closed when the host takes the values back.
#include "device/RecorderDevice.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Prompt.h"

namespace zub {

int CConvertDlg::CopyPrefs(int toModule, CConvertDlgPrefs& prefs)
{
    CRecorderDeviceInfo& device = TheRecorder();
    if (toModule) {
        if (!device.OpenDeviceWithInfo(prefs.useZub, prefs.deviceName, prefs.existingHandle)) {
            Prompter().Tell(TheModuleState().LoadString(IDS_DEVICE_OPEN_FAILED), {}, Icon::Error);
            return 0;
        }
        device.mode24p = prefs.mode24p;
        PushToSettings(prefs, CurrentSettings());
        return 1;
    }
    PullFromSettings(CurrentSettings(), prefs);
    device.CloseDevice();
    return 1;
}

}  // namespace zub
