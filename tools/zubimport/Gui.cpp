// zubimport gui: the module's dialogs in a real window, entered as the editing application
// enters them: the settings go in through a preference record, the entry point or Modal runs,
// the record comes back and its settings are kept for the next run. With no job, a small
// launcher window offers the three.
#include <QApplication>
#include <QDialog>
#include <QEvent>
#include <QFileDialog>
#include <QLabel>
#include <QPixmap>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"
#include "imgseq/StartImgSeq.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prefs.h"

namespace fs = std::filesystem;

namespace zubhost {
namespace {

struct GuiArgs {
    std::vector<std::string> words;  // [convert FILE | imgseq [FILE...] | batch [FILE...]]
    std::string screenshot;
    int closeAfter = -1;
    int zub = 1;
};

// For tests and documentation: after `ms`, the window in front (a modal dialog when one is
// open, else the launcher) is drawn into `png` and closed.
void ScheduleShot(const GuiArgs& a, QWidget* launcher)
{
    if (a.closeAfter < 0) return;
    const std::string png = a.screenshot;
    auto shoot = [png, launcher] {
        QWidget* front = QApplication::activeModalWidget();
        if (!front) front = launcher;
        if (!front) {
            for (QWidget* w : QApplication::topLevelWidgets())
                if (w->isVisible()) front = w;
        }
        if (!front) return;
        if (!png.empty()) {
            if (!front->grab().save(QString::fromStdString(png), "PNG"))
                Fail(0, png + ": the screenshot could not be written");
            else
                std::fprintf(stderr, "zubimport: screenshot of \"%s\" in %s\n",
                             front->windowTitle().toStdString().c_str(), png.c_str());
        }
        if (auto* dlg = qobject_cast<QDialog*>(front))
            dlg->reject();
        else
            front->close();
    };
    // Repeated, so a dialog that opens from the launcher, and then the launcher, are both closed.
    auto* timer = new QTimer(qApp);
    timer->setInterval(a.closeAfter);
    QObject::connect(timer, &QTimer::timeout, shoot);
    timer->start();
}

int RunConvertWindow(const std::string& file, int useZub)
{
    zub::ImportSettings s;
    LoadSettingsFile(s);
    zub::CConvertDlgPrefs prefs;
    std::string error;
    if (!EnterModule(s, useZub, prefs, &error)) return Fail(kExitFailed, error);
    zub::CConvertDlg dlg(file, 0);
    const int code = dlg.Modal(nullptr);
    LeaveModule(prefs);
    zub::PushToSettings(prefs, s);
    SaveSettingsFile(s, &error);
    std::printf("convert: %s\n", code == 1 ? "done" : "nothing made");
    return code == 1 ? kExitDone : kExitNothing;
}

int RunImgSeqWindow(const std::vector<std::string>& files, int useZub)
{
    zub::ImportSettings s;
    LoadSettingsFile(s);
    zub::CurrentSettings() = s;
    zub::CImgSeqPrefsInfo prefs;
    zub::PullFromSettings(s, prefs);
    prefs.useZub = useZub;
    zub::ImgSeqEntryOptions options;
    options.files = files;
    const int ok = files.empty() ? StartImgSeqDlg(&prefs) : zub::StartImgSeq(&prefs, options);
    zub::PushToSettings(prefs, s);
    std::string error;
    SaveSettingsFile(s, &error);
    std::printf("image sequence: %s\n", ok ? "OK" : "cancelled or nothing made");
    return ok ? kExitDone : kExitNothing;
}

int RunBatchWindow(const std::vector<std::string>& files, int useZub)
{
    if (!files.empty())
        std::fprintf(stderr, "zubimport: gui batch: the batch dialog starts with an empty list; add the files "
                             "with its Add button (or run `zubimport batch FILE...`)\n");
    zub::ImportSettings s;
    LoadSettingsFile(s);
    zub::CurrentSettings() = s;
    zub::CBatchImpPrefsInfo prefs;
    zub::PullFromSettings(s, prefs);
    prefs.useZub = useZub;
    prefs.strTitle = "Batch Import";
    const int ok = StartBatchImpDlg(&prefs);
    zub::PushToSettings(prefs, s);
    std::string error;
    SaveSettingsFile(s, &error);
    std::printf("batch: %s\n", ok ? "OK" : "closed");
    return ok ? kExitDone : kExitNothing;
}

int RunLauncher(const GuiArgs& a)
{
    QWidget window;
    window.setObjectName("zubimportLauncher");
    window.setWindowTitle("zubimport");
    auto* layout = new QVBoxLayout(&window);
    auto* label = new QLabel("Bring outside media onto the recorder's volume:", &window);
    layout->addWidget(label);
    auto* convert = new QPushButton("Media &Conversion...", &window);
    auto* imgseq = new QPushButton("&Image Sequence Import...", &window);
    auto* batch = new QPushButton("&Batch Import...", &window);
    convert->setObjectName("convertButton");
    imgseq->setObjectName("imgseqButton");
    batch->setObjectName("batchButton");
    for (QPushButton* b : {convert, imgseq, batch}) layout->addWidget(b);
    const int useZub = a.zub;
    QObject::connect(convert, &QPushButton::clicked, &window, [&window, useZub] {
        const QString file = QFileDialog::getOpenFileName(&window, "Media file to convert");
        if (!file.isEmpty()) RunConvertWindow(file.toStdString(), useZub);
    });
    QObject::connect(imgseq, &QPushButton::clicked, &window, [useZub] { RunImgSeqWindow({}, useZub); });
    QObject::connect(batch, &QPushButton::clicked, &window, [useZub] { RunBatchWindow({}, useZub); });
    window.resize(360, 180);
    window.show();
    ScheduleShot(a, &window);
    QApplication::exec();
    return kExitDone;
}

// With ZUBIMPORT_REPORT_SHOWN set, the first window that is shown is reported on standard
// error as "zubimport: shown <title>", which the start-up benchmark waits for.
class ShownReporter final : public QObject {
public:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (!done_ && event->type() == QEvent::Show) {
            auto* w = qobject_cast<QWidget*>(watched);
            if (w && w->isWindow()) {
                done_ = true;
                std::fprintf(stderr, "zubimport: shown %s\n", w->windowTitle().toStdString().c_str());
                std::fflush(stderr);
            }
        }
        return false;
    }

private:
    bool done_ = false;
};

int RunGui(const GuiArgs& a)
{
    std::string job = a.words.empty() ? "" : a.words[0];
    std::vector<std::string> files(a.words.size() > 1 ? a.words.begin() + 1 : a.words.end(), a.words.end());
    if (!job.empty() && job != "convert" && job != "imgseq" && job != "batch")
        return Fail(kExitUsage, "gui: unknown job " + job + " (convert FILE, imgseq [FILE...] or batch [FILE...])");
    if (job == "convert" && files.size() != 1) return Fail(kExitUsage, "gui convert: give exactly one FILE");
    for (const auto& f : files) {
        std::error_code ec;
        if (!fs::is_regular_file(f, ec)) return Fail(kExitFailed, f + ": no such file");
    }
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
        return Fail(kExitFailed, "gui: no display (DISPLAY is not set); run it under X11 or xvfb-run");

    static int argc = 1;
    static char name[] = "zubimport";
    static char* argv[] = {name, nullptr};
    QApplication app(argc, argv);
    QApplication::setApplicationName("zubimport");
    // Questions now come as message boxes: the module's own prompter when a widgets
    // application runs.
    zub::SetPrompter(nullptr);
    ShownReporter reporter;
    if (std::getenv("ZUBIMPORT_REPORT_SHOWN")) app.installEventFilter(&reporter);
    if (job.empty()) return RunLauncher(a);
    ScheduleShot(a, nullptr);
    if (job == "convert") return RunConvertWindow(files[0], a.zub);
    if (job == "imgseq") return RunImgSeqWindow(files, a.zub);
    return RunBatchWindow(files, a.zub);
}

}  // namespace

CLI::App* AddGui(CLI::App& app, JobRunner& run)
{
    auto args = std::make_shared<GuiArgs>();
    auto* cmd = app.add_subcommand("gui", "Open the import dialogs in a window (no job: a launcher)");
    cmd->footer(
        "Example:\n  zubimport gui\n  zubimport gui batch\n  zubimport gui convert movie.mov\n"
        "  xvfb-run zubimport gui --screenshot launcher.png --close-after 1000");
    cmd->add_option("job", args->words, "convert FILE | imgseq [FILE...] | batch [FILE...]");
    cmd->add_option("--screenshot", args->screenshot, "Draw the front window into this PNG (with --close-after)");
    cmd->add_option("--close-after", args->closeAfter, "Close the front window after this many milliseconds")
        ->check(CLI::Range(0, 3600000));
    cmd->add_option("--zub", args->zub, "Recorder back-end: 1 ZUB (default), 0 Tbx")->check(CLI::IsMember({0, 1}));
    run = [args] { return RunGui(*args); };
    return cmd;
}

}  // namespace zubhost
