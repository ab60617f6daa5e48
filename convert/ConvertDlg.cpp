#include "zubimport/ConvertDlg.h"

#include <QCoreApplication>
#include <QEventLoop>

#include <atomic>
#include <cstdio>
#include <mutex>

#include "convert/ConvertSession.h"
#include "convert/audio/AudioState.h"
#include "graph/GraphAudioReader.h"
#include "graph/GraphVideoReader.h"
#include "quicktime/QuickTimeSource.h"

namespace zub {

namespace {

// PressAbort may come from a signal-watching or other thread while Modal ends.
std::mutex& SessionMutex()
{
    static std::mutex m;
    return m;
}

std::atomic<ConvertDialogRunner>& Runner()
{
    static std::atomic<ConvertDialogRunner> runner{nullptr};
    return runner;
}

}  // namespace

void RegisterConvertDialogRunner(ConvertDialogRunner runner) { Runner().store(runner); }
ConvertDialogRunner RegisteredConvertDialogRunner() { return Runner().load(); }

CConvertDlg::CConvertDlg(std::string sourcePath, int serverMode)
    : source_(std::move(sourcePath)), serverMode_(serverMode)
{
}

CConvertDlg::~CConvertDlg() = default;

int CConvertDlg::Modal(void* parent)
{
    report_ = ConvertReport{};
    videoPath_.clear();
    audioPath_.clear();
    convertVideo_ = convertAudio_ = makeDva_ = 0;

    // A host without an application object (a command-line tool, the batch import, a test)
    // still gets an event loop for the conversion's timers and posted messages.
    std::unique_ptr<QCoreApplication> ownApp;
    ConvertDialogRunner runner = nullptr;
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "libImport";
        static char* argv[] = {name, nullptr};
        ownApp = std::make_unique<QCoreApplication>(argc, argv);
    } else if (QCoreApplication::instance()->inherits("QApplication")) {
        runner = RegisteredConvertDialogRunner();
        if (!runner)
            std::fprintf(stderr, "libImport: the Media Conversion dialog is not loaded; converting without a window\n");
    }

    int code = 2;
    {
        ConvertSession session(*this);
        QEventLoop loop;
        {
            std::lock_guard<std::mutex> lock(SessionMutex());
            session_ = &session;
        }
        if (runner) {
            runner(session, parent);
        } else {
            session.onEnd = [&loop](int) { loop.exit(); };
            session.SetHeadless(true);
        }
        if (!runner && session.Init()) {
            // Without a window nobody presses Convert: the default button is pressed for the
            // user, as the batch mode does.
            if (!batchProcess_) session.Post(kEvPressConvert);
            if (!session.Ended()) loop.exec();
        }
        code = session.EndCode();
        {
            std::lock_guard<std::mutex> lock(SessionMutex());
            session_ = nullptr;
        }
    }
    report_.endCode = code;
    return code;
}

void CConvertDlg::PressAbort()
{
    std::lock_guard<std::mutex> lock(SessionMutex());
    if (session_) session_->Post(kEvPressAbort);
}

int CConvertDlg::ConvertableFile(const char* path, int)
{
    if (!path || !*path) return 0;
    bool video = false, audio = false;
    {
        CGraphVideoReader v;
        video = v.Init() && v.OpenVideo(path);
    }
    if (video) return 1;
    {
        CGraphAudioReader a;
        audio = a.Init() && a.OpenAudio(path);
    }
    if (audio) return 1;
    {
        CQuickTimeVideoSource qv;
        if (qv.Start() && qv.Open(path)) {
            int w = 0, h = 0;
            qv.GetFrameSize(w, h);
            if (w > 0 && h > 0 && qv.CountFrames() > 0) return 1;
        }
    }
    CQuickTimeAudioSource qa;
    return qa.Open(path) ? 1 : 0;
}

void CConvertDlg::GetTargetFilePaths(std::string& first, std::string& second) const
{
    first.clear();
    second.clear();
    if (makeDva_) {
        first = audioPath_;
    } else if (convertVideo_) {
        if (!audioPath_.empty()) {
            first = audioPath_;
            second = videoPath_;
        } else {
            first = videoPath_;
        }
    } else if (convertAudio_) {
        first = audioPath_;
    }
}

std::string CConvertDlg::GetResultText() const
{
    return report_.messages.empty() ? std::string() : report_.messages.back();
}

}  // namespace zub
