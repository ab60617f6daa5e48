// The batch rows' importers of this module: the conversion engine for video and audio, the
// image sequence run for stills, each in batch mode so nothing asks or shows anything.
#include <exception>

#include "batch/BatchRun.h"
#include "imgseq/ImgSeqRun.h"
#include "zubimport/ConvertDlg.h"

namespace zub::batch {

namespace {

class ModuleRowImporter final : public IBatchRowImporter {
public:
    RowImport ImportVideo(const std::string& path, const std::string& props) override { return Convert(path, props, false); }
    RowImport ImportAudio(const std::string& path, const std::string& props) override { return Convert(path, props, true); }

    RowImport ImportImages(const std::string& path, const std::string& props) override
    {
        (void)props;  // the run reads the settings record, which the batch settings pages fill
        ImgSeqRunRequest request;
        request.files = {path};
        request.batchProcess = true;
        const ImgSeqRunResult r = RunImageSequence(request);
        RowImport out;
        out.ok = r.endCode == 1;
        out.resultText = r.message;
        out.clipPath = r.clipPath;
        out.expectedFrames = r.framesWritten;
        return out;
    }

private:
    static RowImport Convert(const std::string& path, const std::string& props, bool audioOnly)
    {
        CConvertDlg dlg(path, 0);
        dlg.SetBatchProcess(1);
        dlg.SetAudioOnly(audioOnly ? 1 : 0);
        dlg.SetStrSettings(props.c_str());
        RowImport out;
        out.ok = dlg.Modal(nullptr) == 1;
        out.resultText = dlg.GetResultText();
        std::string first, second;
        dlg.GetTargetFilePaths(first, second);
        out.clipPath = first;
        if (!audioOnly) out.secondPath = second;  // an audio row keeps only its sound file
        const ConvertReport& report = dlg.GetReport();
        if (!report.videoPath.empty()) out.expectedFrames = static_cast<long>(report.framesDone);
        out.frameRateNote = report.frameRateNote;
        return out;
    }
};

}  // namespace

std::unique_ptr<IBatchRowImporter> MakeModuleRowImporter()
{
    return std::make_unique<ModuleRowImporter>();
}

}  // namespace zub::batch
