#include <cstdio>
#include <mutex>

#include "device/RecorderDevice.h"
#include "imgseq/StartImgSeq.h"
#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Prompt.h"

namespace zub {

namespace {

std::mutex g_mutex;
ImgSeqNotifyFn g_notify = nullptr;
void* g_notifyContext = nullptr;
ImgSeqDialogFn g_dialog = nullptr;

}  // namespace

void SetImgSeqNotification(ImgSeqNotifyFn notify, void* context)
{
    std::lock_guard lock(g_mutex);
    g_notify = notify;
    g_notifyContext = context;
}

void RegisterImgSeqDialog(ImgSeqDialogFn dialog)
{
    std::lock_guard lock(g_mutex);
    g_dialog = dialog;
}

int StartImgSeq(CImgSeqPrefsInfo* prefs, const ImgSeqEntryOptions& options, ImgSeqRunResult* run)
{
    if (!prefs) {
        std::fprintf(stderr, "libImport: StartImgSeqDlg: no preference record was given\n");
        return 0;
    }
    CRecorderDeviceInfo& device = TheRecorder();
    if (!device.OpenDeviceWithInfo(prefs->useZub, prefs->deviceName, prefs->existingHandle)) {
        Prompter().Tell(TheModuleState().LoadString(IDS_DEVICE_OPEN_FAILED), {}, Icon::Error);
        return 0;
    }
    device.mode24p = prefs->mode24p;
    PushToSettings(*prefs, CurrentSettings());

    int result = 0;
    std::string clipPath;
    if (!options.files.empty()) {
        ImgSeqRunRequest request;
        request.files = options.files;
        request.clipName = options.clipName;
        request.batchProcess = options.batchProcess;
        request.fillGaps = options.fillGaps || CurrentSettings().fillGaps != 0;
        ImgSeqRunResult r = RunImageSequence(request);
        result = r.endCode == 1 ? 1 : 0;
        clipPath = r.clipPath;
        if (run) *run = std::move(r);
    } else {
        ImgSeqDialogFn dialog;
        {
            std::lock_guard lock(g_mutex);
            dialog = g_dialog;
        }
        bool ok = false;
        if (dialog && dialog(*prefs, ok, clipPath)) {
            result = ok ? 1 : 0;
        } else {
            // Without a window system there is nobody to pick the images.
            std::fprintf(stderr,
                         "libImport: StartImgSeqDlg: the image sequence dialog needs a widgets application "
                         "(QApplication)%s; give the files to the headless run instead\n",
                         dialog ? "" : " and the dialog layer");
        }
    }

    ImgSeqNotifyFn notify = options.notify;
    void* context = options.notifyContext;
    if (!notify) {
        std::lock_guard lock(g_mutex);
        notify = g_notify;
        context = g_notifyContext;
    }
    if (notify && !clipPath.empty()) notify(0, context, clipPath.c_str());

    PullFromSettings(CurrentSettings(), *prefs);
    device.CloseDevice();
    return result;
}

}  // namespace zub

int StartImgSeqDlg(zub::CImgSeqPrefsInfo* prefs)
{
    return zub::StartImgSeq(prefs, {});
}
