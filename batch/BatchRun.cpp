#include "batch/BatchRun.h"

#include <QCoreApplication>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <mutex>

#include "batch/Companion.h"
#include "batch/MxfUnwrap.h"
#include "device/RecorderDevice.h"
#include "platform/ByteOrder.h"
#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Paths.h"
#include "zubimport/Prompt.h"

namespace {

std::mutex g_notifyMutex;
BatchNotifyFn g_notify = nullptr;

std::mutex g_runnerMutex;
zub::batch::BatchDialogRunner g_runner = nullptr;

}  // namespace

extern "C" void ImportDllSetBatchNotify(BatchNotifyFn fn)
{
    std::lock_guard lock(g_notifyMutex);
    g_notify = fn;
}

namespace zub::batch {

BatchNotifyFn RegisteredBatchNotify()
{
    std::lock_guard lock(g_notifyMutex);
    return g_notify;
}

void RegisterBatchDialogRunner(BatchDialogRunner runner)
{
    std::lock_guard lock(g_runnerMutex);
    g_runner = runner;
}

BatchDialogRunner RegisteredBatchDialogRunner()
{
    std::lock_guard lock(g_runnerMutex);
    return g_runner;
}

namespace {

// The header and data of a WAVE (or .dva) file the conversion wrote.
std::string VerifyWave(const std::string& path)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return path + ": the file that was made cannot be opened";
    const std::uint64_t size = static_cast<std::uint64_t>(in.tellg());
    in.seekg(0);
    unsigned char h[12];
    if (size < 12 || !in.read(reinterpret_cast<char*>(h), 12) || std::memcmp(h, "RIFF", 4) != 0 ||
        std::memcmp(h + 8, "WAVE", 4) != 0)
        return path + ": not a WAVE file";
    std::uint64_t pos = 12;
    bool haveFmt = false;
    std::uint16_t tag = 0, channels = 0, blockAlign = 0, bits = 0;
    std::uint32_t rate = 0, byteRate = 0;
    while (pos + 8 <= size) {
        unsigned char ck[8];
        in.seekg(static_cast<std::streamoff>(pos));
        if (!in.read(reinterpret_cast<char*>(ck), 8)) break;
        const std::uint32_t len = ReadLe32(ck + 4);
        const std::uint64_t body = pos + 8;
        if (std::memcmp(ck, "fmt ", 4) == 0) {
            unsigned char f[16];
            if (len < 16 || body + 16 > size || !in.read(reinterpret_cast<char*>(f), 16))
                return path + ": the WAVE format chunk is cut short";
            tag = ReadLe16(f);
            channels = ReadLe16(f + 2);
            rate = ReadLe32(f + 4);
            byteRate = ReadLe32(f + 8);
            blockAlign = ReadLe16(f + 12);
            bits = ReadLe16(f + 14);
            haveFmt = true;
        } else if (std::memcmp(ck, "data", 4) == 0) {
            if (!haveFmt) return path + ": the WAVE data comes before its format";
            if (tag != 1 || (bits != 8 && bits != 16))
                return path + ": the sound is not 8- or 16-bit PCM (format " + std::to_string(tag) + ", " +
                       std::to_string(bits) + " bits)";
            if (channels == 0 || rate == 0 || blockAlign != channels * bits / 8 || byteRate != rate * blockAlign)
                return path + ": the WAVE format is inconsistent (" + std::to_string(channels) + " channels, " +
                       std::to_string(rate) + " Hz, block " + std::to_string(blockAlign) + ", " +
                       std::to_string(byteRate) + " bytes/s)";
            if (len == 0) return path + ": the WAVE file holds no sound";
            if (len % blockAlign != 0) return path + ": the sound data ends inside a sample frame";
            if (body + len > size)
                return path + ": the sound data is cut short (" + std::to_string(size - body) + " of " +
                       std::to_string(len) + " bytes)";
            return {};
        }
        pos = body + len + (len & 1u);
    }
    return path + ": the WAVE file has no " + (haveFmt ? "data" : "format") + " chunk";
}

std::string Lower(std::string s)
{
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

}  // namespace

std::string VerifyMadeFile(const std::string& path, long expectedFrames)
{
    const std::string ext = Lower(ExtensionPart(path));
    if (ext == ".wav" || ext == ".dva") return VerifyWave(path);
    if (ext == ".zub") {
        const unsigned frames = TheRecorder().QueryFileLength(path.c_str());
        if (frames == 0) {
            const std::string why = CRecorderDevice::GetError();
            return path + ": the clip cannot be read back" + (why.empty() ? "" : " (" + why + ")");
        }
        if (expectedFrames >= 0 && static_cast<long>(frames) != expectedFrames)
            return path + ": the clip holds " + std::to_string(frames) + " frames, " + std::to_string(expectedFrames) +
                   " were imported";
        return {};
    }
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return path + ": the file that was made is missing";
    std::fclose(f);
    return {};
}

BatchRunResult RunBatch(const std::vector<BatchRow>& rows, const BatchRunOptions& options)
{
    BatchRunResult run;
    run.rows.resize(rows.size());
    std::unique_ptr<IBatchRowImporter> own;
    IBatchRowImporter* importer = options.importer;
    if (!importer) {
        own = MakeModuleRowImporter();
        importer = own.get();
    }
    const std::string folder = options.moduleFolder.empty() ? ModuleFolderForBatch() : WithTrailingSeparator(options.moduleFolder);
    const int count = static_cast<int>(rows.size());

    for (int i = 0; i < count; ++i) {
        if (options.cancel && options.cancel->load()) {
            run.cancelled = true;
            break;
        }
        if (options.progress) options.progress(i, count);
        const BatchRow& row = rows[static_cast<std::size_t>(i)];
        BatchRowResult& out = run.rows[static_cast<std::size_t>(i)];
        out.ran = true;

        RowImport imp;
        std::string failure;  // a reason of ours when the importer gave none
        std::string source = row.fileName;
        std::string unwrapped;
        try {
            if (row.type == kTypeVideo && IsMxfName(row.fileName)) {
                const MxfUnwrapResult u = UnwrapMxf(folder + kMxfWrapLibrary, options.parentWindow, row.fileName);
                if (!u.loaded) Prompter().Tell(kMxfWrapLoadFailed, {}, Icon::Error);
                if (!u.ok) {
                    failure = u.error;
                } else {
                    source = u.path;
                    if (u.copied) unwrapped = u.path;
                }
            }
            if (failure.empty()) {
                switch (row.type) {
                case kTypeVideo: imp = importer->ImportVideo(source, row.props); break;
                case kTypeAudio: imp = importer->ImportAudio(source, row.props); break;
                case kTypeImages: imp = importer->ImportImages(source, row.props); break;
                default: failure = row.fileName + ": the row has no media type"; break;
                }
            }
        } catch (const std::exception& e) {
            imp = {};
            failure = row.fileName + ": " + e.what();
        }
        RemoveUnwrappedCopy(unwrapped);

        bool ok = failure.empty() && imp.ok;
        // What the row made is read back before a companion is told of it.
        if (ok && options.verifyClips) {
            for (const std::string* p : {&imp.clipPath, &imp.secondPath}) {
                if (p->empty()) continue;
                const bool isClip = Lower(ExtensionPart(*p)) == ".zub";
                const std::string why = VerifyMadeFile(*p, isClip ? imp.expectedFrames : -1);
                if (!why.empty()) {
                    ok = false;
                    failure = why;
                    break;
                }
            }
        }
        if (ok) {
            const CompanionStart comp = StartCompanion(folder, CompanionName(row.type), row.fileName, row.note);
            if (!comp.ok) {
                ok = false;
                failure = comp.error;
            }
        }
        out.ok = ok;
        out.frameRateNote = imp.frameRateNote;
        if (ok) {
            out.clipPath = imp.clipPath;
            out.secondPath = imp.secondPath;
            out.result = imp.resultText;
        } else {
            // A reason of our own (unwrap, companion, read-back) tells more than the importer's
            // last message; without either the row says "Error".
            out.result = !failure.empty() ? failure : !imp.resultText.empty() ? imp.resultText : "Error";
            run.anyFailed = true;
        }
        if (ok && options.notify && !out.clipPath.empty() && (options.notifyEveryItem || i == count - 1)) {
            options.notify(0, options.notifyEveryItem, out.clipPath.c_str(), out.secondPath.c_str(), row.type);
            out.notified = true;
        }
    }
    if (options.progress) options.progress(count, count);
    run.closeDialog = !run.anyFailed && !run.cancelled;
    return run;
}

namespace {

bool OpenRecorderFor(const CBatchImpPrefsInfo& prefs)
{
    CRecorderDeviceInfo& device = TheRecorder();
    if (!device.OpenDeviceWithInfo(prefs.useZub, prefs.deviceName, prefs.existingHandle)) {
        Prompter().Tell(TheModuleState().LoadString(IDS_DEVICE_OPEN_FAILED), {}, Icon::Error);
        return false;
    }
    device.mode24p = prefs.mode24p;
    return true;
}

}  // namespace

bool RunBatchWithPrefs(CBatchImpPrefsInfo& prefs, const std::vector<BatchRow>& rows, BatchRunResult* result,
                       IBatchRowImporter* importer)
{
    if (!OpenRecorderFor(prefs)) return false;
    PushToSettings(prefs, CurrentSettings());
    BatchRunOptions options;
    options.importer = importer;
    options.notify = RegisteredBatchNotify();
    options.notifyEveryItem = prefs.nDlgParam2;
    BatchRunResult run = RunBatch(rows, options);
    TheRecorder().CloseDevice();
    PullFromSettings(CurrentSettings(), prefs);
    if (result) *result = std::move(run);
    return true;
}

int StartBatchImpDlgImpl(CBatchImpPrefsInfo* prefs)
{
    if (!prefs) {
        std::fprintf(stderr, "libImport: StartBatchImpDlg: no preference record given\n");
        return 0;
    }
    if (!OpenRecorderFor(*prefs)) return 0;
    PushToSettings(*prefs, CurrentSettings());

    int ok = 0;
    std::string lastProps = CurrentSettings().batchProps;
    const BatchDialogRunner runner = RegisteredBatchDialogRunner();
    QCoreApplication* app = QCoreApplication::instance();
    if (app && app->inherits("QApplication") && runner) {
        BatchDialogParams params;
        params.title = prefs->strTitle;
        params.dlgParam1 = prefs->nDlgParam1;
        params.notifyEveryItem = prefs->nDlgParam2;
        params.mediaKindMode = prefs->nDlgParam3;
        params.notify = RegisteredBatchNotify();
        ok = runner(params, &lastProps) == 1;
    } else if (app && app->inherits("QApplication")) {
        std::fprintf(stderr, "libImport: StartBatchImpDlg: the batch dialog is not built yet\n");
    } else {
        std::fprintf(stderr,
                     "libImport: StartBatchImpDlg: no widgets application, so there is no list to import; "
                     "a host without a window runs a list with zub::batch::RunBatchWithPrefs\n");
    }
    CurrentSettings().batchProps = lastProps;
    TheRecorder().CloseDevice();
    PullFromSettings(CurrentSettings(), *prefs);
    return ok ? 1 : 0;
}

}  // namespace zub::batch

extern "C" int StartBatchImpDlg(zub::CBatchImpPrefsInfo* prefs)
{
    return zub::batch::StartBatchImpDlgImpl(prefs);
}
