#include "imgseq/view/ImgSeqDlg.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileSystemModel>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QImage>
#include <QLabel>
#include <QMimeData>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollBar>
#include <QStyle>
#include <QTreeView>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "device/RecorderDevice.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/ImgSeqRun.h"
#include "imgseq/Profile.h"
#include "imgseq/SequenceNaming.h"
#include "imgseq/SequenceReport.h"
#include "imgseq/StartImgSeq.h"
#include "imgseq/view/SeqSettingsDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Prompt.h"

namespace zub {

namespace {

// String 10007: the default extension, then pairs of description and pattern list.
std::vector<std::pair<QString, QStringList>> FilterEntries()
{
    std::vector<std::pair<QString, QStringList>> out;
    const QStringList parts = QString::fromStdString(TheModuleState().LoadString(IDS_IMAGE_FILTER)).split('\t');
    for (int i = 1; i + 1 < parts.size(); i += 2)
        out.emplace_back(parts[i], parts[i + 1].split(';', Qt::SkipEmptyParts));
    return out;
}

const bool g_registered = [] {
    RegisterImgSeqDialog(&RunImgSeqDialog);
    return true;
}();

}  // namespace

ImgSeqDlg::ImgSeqDlg(QWidget* parent, const std::vector<std::string>& initial, bool initialNumbered) : QDialog(parent)
{
    (void)g_registered;
    setWindowTitle("Import Image Sequence");
    setAcceptDrops(true);
    const ImportSettings& s = CurrentSettings();

    model_ = new QFileSystemModel(this);
    model_->setNameFilterDisables(false);
    const QString root = s.imageFolder.empty() ? QDir::homePath() : QString::fromStdString(s.imageFolder);
    model_->setRootPath(root);
    browser_ = new QTreeView(this);
    browser_->setObjectName("browser");
    browser_->setModel(model_);
    browser_->setRootIndex(model_->index(root));
    browser_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    filter_ = new QComboBox(this);
    filter_->setObjectName("filter");
    for (const auto& [description, patterns] : FilterEntries()) filter_->addItem(description, patterns);
    auto applyFilter = [this] { model_->setNameFilters(filter_->currentData().toStringList()); };
    connect(filter_, &QComboBox::currentIndexChanged, this, applyFilter);
    applyFilter();

    auto* add = new QPushButton("&Add", this);
    add->setObjectName("add");
    auto* addNumbered = new QPushButton("Add N&um'd", this);
    addNumbered->setObjectName("addNumbered");
    connect(add, &QPushButton::clicked, this, [this] { AddSelected(false); });
    connect(addNumbered, &QPushButton::clicked, this, [this] { AddSelected(true); });

    list_ = new QTreeWidget(this);
    list_->setObjectName("list");
    list_->setColumnCount(1);
    list_->setHeaderLabels({"FileName"});
    list_->setRootIsDecorated(false);
    list_->header()->setStretchLastSection(false);
    connect(list_, &QTreeWidget::currentItemChanged, this, [this] { ReloadPreview(); });
    list_->viewport()->installEventFilter(this);

    report_ = new QLabel(this);
    report_->setObjectName("report");
    auto* check = new QPushButton("Chec&k Sequence", this);
    check->setObjectName("check");
    connect(check, &QPushButton::clicked, this, [this] { UpdateReport(); });

    auto* settings = new QPushButton("S&ettings...", this);
    settings->setObjectName("settings");
    connect(settings, &QPushButton::clicked, this, [this] { EditSettings(); });
    auto* load = new QPushButton("Load...", this);
    load->setObjectName("loadProfile");
    connect(load, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getOpenFileName(
            this, "Load Image Sequence Profile", QString::fromStdString(ProfilesFolder()),
            "Image Sequence Profile Files (*.ImpSeqProfile);;All Files (*)");
        if (!path.isEmpty() && !LoadProfileFrom(path.toStdString())) Prompter().Tell("Failed to Load Profile!");
    });
    auto* save = new QPushButton("Save...", this);
    save->setObjectName("saveProfile");
    connect(save, &QPushButton::clicked, this, [this] {
        QString path = QFileDialog::getSaveFileName(this, "Save Image Sequence Profile",
                                                    QString::fromStdString(ProfilesFolder()),
                                                    "Image Sequence Profile Files (*.ImpSeqProfile);;All Files (*)");
        if (path.isEmpty()) return;
        if (!path.endsWith(kProfileExtension)) path += kProfileExtension;
        if (!SaveProfileTo(path.toStdString())) Prompter().Tell("Failed to Save Profile!");
    });
    auto* previewToggle = new QCheckBox("Pre&view", this);
    previewToggle->setObjectName("previewToggle");
    connect(previewToggle, &QCheckBox::toggled, this, [this](bool on) { ShowPreview(on); });

    showOnOutput_ = new QCheckBox("Show Images on Output", this);
    showOnOutput_->setObjectName("showOnOutput");
    showOnOutput_->setChecked(s.showImagesOnOutput != 0);
    showOnOutput_->setVisible(TheRecorder().IsZub());
    showOnOutputFlag_ = showOnOutput_->isChecked();
    connect(showOnOutput_, &QCheckBox::toggled, this, [this](bool on) { showOnOutputFlag_ = on ? 1 : 0; });
    progress_ = new QProgressBar(this);
    progress_->setObjectName("progress");
    progress_->setRange(0, 1);
    progress_->setValue(0);
    import_ = new QPushButton("I&mport", this);
    import_->setObjectName("import");
    import_->setDefault(true);
    connect(import_, &QPushButton::clicked, this, [this] { StartImport(); });
    cancel_ = new QPushButton("Cancel", this);
    cancel_->setObjectName("cancel");
    connect(cancel_, &QPushButton::clicked, this, [this] { reject(); });

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(filter_);
    layout->addWidget(browser_, 2);
    auto* addRow = new QHBoxLayout();
    addRow->addWidget(add);
    addRow->addWidget(addNumbered);
    addRow->addStretch();
    addRow->addWidget(check);
    layout->addLayout(addRow);
    layout->addWidget(list_, 2);
    layout->addWidget(report_);
    auto* options = new QHBoxLayout();
    options->addWidget(settings);
    options->addWidget(load);
    options->addWidget(save);
    options->addWidget(previewToggle);
    options->addStretch();
    layout->addLayout(options);
    auto* bottom = new QHBoxLayout();
    // With Tbx the check box is hidden and the progress bar takes its place.
    bottom->addWidget(showOnOutput_);
    bottom->addWidget(progress_, 1);
    bottom->addWidget(import_);
    bottom->addWidget(cancel_);
    layout->addLayout(bottom);

    preview_ = new QLabel(nullptr);
    preview_->setObjectName("preview");
    preview_->setWindowTitle("Preview");
    preview_->setAttribute(Qt::WA_DeleteOnClose, false);

    AddPaths(initial, initialNumbered, false);
}

std::vector<std::string> ImgSeqDlg::Files() const
{
    std::vector<std::string> out;
    for (int i = 0; i < list_->topLevelItemCount(); ++i) out.push_back(list_->topLevelItem(i)->text(0).toStdString());
    return out;
}

void ImgSeqDlg::AddPaths(const std::vector<std::string>& paths, bool numbered, bool checkFirst)
{
    std::vector<std::string> added;
    const bool wasEmpty = list_->topLevelItemCount() == 0;
    for (const std::string& p : paths) AddNumberedRun(p, added, numbered, checkFirst);
    for (const std::string& p : added) list_->addTopLevelItem(new QTreeWidgetItem({QString::fromStdString(p)}));
    if (!paths.empty() && (wasEmpty || clipName_.empty()))
        clipName_ = DefaultClipName(paths.front(), CurrentSettings().videoDir);
    if (!added.empty()) list_->setCurrentItem(list_->topLevelItem(list_->topLevelItemCount() - 1));
}

void ImgSeqDlg::AddSelected(bool numbered)
{
    std::vector<std::string> paths;
    for (const QModelIndex& i : browser_->selectionModel()->selectedRows())
        if (!model_->isDir(i)) paths.push_back(model_->filePath(i).toStdString());
    AddPaths(paths, numbered);
}

void ImgSeqDlg::SizeColumn()
{
    // The one column spans the list less a vertical scroll bar and a small margin.
    const int bar = style()->pixelMetric(QStyle::PM_ScrollBarExtent);
    list_->setColumnWidth(0, std::max(20, list_->viewport()->width() - bar - 8));
}

void ImgSeqDlg::resizeEvent(QResizeEvent* e)
{
    QDialog::resizeEvent(e);
    SizeColumn();
}

void ImgSeqDlg::showEvent(QShowEvent* e)
{
    QDialog::showEvent(e);
    SizeColumn();
}

bool ImgSeqDlg::eventFilter(QObject* watched, QEvent* e)
{
    if (watched == list_->viewport() && e->type() == QEvent::Resize) SizeColumn();
    return QDialog::eventFilter(watched, e);
}

void ImgSeqDlg::dragEnterEvent(QDragEnterEvent* e)
{
    if (!running_ && e->mimeData()->hasUrls()) e->acceptProposedAction();
}

void ImgSeqDlg::dropEvent(QDropEvent* e)
{
    std::vector<std::string> paths;
    for (const QUrl& u : e->mimeData()->urls())
        if (u.isLocalFile()) paths.push_back(u.toLocalFile().toStdString());
    AddPaths(paths, false);
    e->acceptProposedAction();
}

void ImgSeqDlg::EditSettings()
{
    // The pages work on a copy: the preview compares it with what is current on OK.
    ImportSettings edited = CurrentSettings();
    std::string name = clipName_;
    auto dlg = MakeImpSeqSettingsDialog(this, edited, name);
    if (dlg->exec() == QDialog::Accepted) ApplySettings(edited, name);
}

void ImgSeqDlg::ApplySettings(const ImportSettings& s, const std::string& clipName)
{
    ImportSettings& current = CurrentSettings();
    // Only what changes the picture reloads it: the fit and the swap, not the shift alone.
    const bool reload = s.fitWord != current.fitWord || s.swapFields != current.swapFields;
    current = s;
    clipName_ = clipName;
    if (reload) ReloadPreview();
}

bool ImgSeqDlg::LoadProfileFrom(const std::string& path)
{
    ProfileRecord r;
    if (!ReadProfile(path, &r)) return false;
    ImportSettings s = CurrentSettings();
    ApplyProfile(r, s);
    ApplySettings(s, clipName_);
    return true;
}

bool ImgSeqDlg::SaveProfileTo(const std::string& path)
{
    return WriteProfile(path, ProfileFromSettings(CurrentSettings()));
}

void ImgSeqDlg::UpdateReport()
{
    const SequenceReport r = ReportSequence(Files(), [](int, int) { QCoreApplication::processEvents(); });
    report_->setText(QString::fromStdString(r.Summary()));
}

QString ImgSeqDlg::ReportText() const
{
    return report_->text();
}

void ImgSeqDlg::ShowPreview(bool on)
{
    preview_->setVisible(on);
    if (on) ReloadPreview();
}

void ImgSeqDlg::ReloadPreview()
{
    if (!preview_->isVisible() || !list_->currentItem()) return;
    const ImportSettings& s = CurrentSettings();
    FrameHolder frame;
    const FrameSize size{TheRecorder().frameWidth > 0 ? TheRecorder().frameWidth : 720,
                         TheRecorder().frameHeight > 0 ? TheRecorder().frameHeight : 486};
    ++previewLoads_;
    if (!LoadFrame(list_->currentItem()->text(0).toStdString(), s.fitWord, s.swapFields, s.shiftDown, size, frame)) {
        preview_->setText("(cannot load this image)");
        return;
    }
    const BITMAPINFOHEADER* h = frame.Header();
    QImage img(frame.Pixels(), h->biWidth, h->biHeight, h->biWidth * 4, QImage::Format_ARGB32);
    preview_->setPixmap(QPixmap::fromImage(img.mirrored()));
}

void ImgSeqDlg::EnterBusy()
{
    disabled_.clear();
    for (QWidget* w : findChildren<QWidget*>()) {
        if (w == progress_ || w == cancel_ || w == showOnOutput_ || !w->isEnabled()) continue;
        if (w->parentWidget() != this) continue;  // children follow their parent
        w->setEnabled(false);
        disabled_.push_back(w);
    }
    cancel_->setEnabled(true);
}

void ImgSeqDlg::LeaveBusy()
{
    for (QWidget* w : disabled_) w->setEnabled(true);
    disabled_.clear();
}

void ImgSeqDlg::StartImport()
{
    if (running_) return;
    const std::vector<std::string> files = Files();
    if (files.empty()) {
        QDialog::reject();
        return;
    }
    ImgSeqRunRequest req;
    req.files = files;
    req.clipName = clipName_;
    req.fillGaps = CurrentSettings().fillGaps != 0;
    req.abortRequest = &abortRequest_;
    req.showOnOutput = &showOnOutputFlag_;
    abortRequest_ = 0;
    progress_->setRange(0, static_cast<int>(FramePlan(files, req.fillGaps).size()));
    cancel_->setFocus();
    EnterBusy();
    running_ = true;
    QCoreApplication::processEvents();
    req.progress = [this](int done, int) { progress_->setValue(done); };
    req.frameDone = [this](int, const FrameHolder* f) {
        if (f && preview_->isVisible()) {
            const BITMAPINFOHEADER* h = f->Header();
            QImage img(f->Pixels(), h->biWidth, h->biHeight, h->biWidth * 4, QImage::Format_ARGB32);
            preview_->setPixmap(QPixmap::fromImage(img.mirrored()));
        }
        QCoreApplication::processEvents();
    };
    const ImgSeqRunResult r = RunImageSequence(req);
    running_ = false;
    LeaveBusy();
    if (r.endCode == 1) {
        clipPath_ = r.clipPath;
        accept();
    }
}

void ImgSeqDlg::reject()
{
    if (running_) {
        abortRequest_ = AskAbortQuestion();
        return;
    }
    preview_->hide();
    QDialog::reject();
}

bool RunImgSeqDialog(const CImgSeqPrefsInfo& prefs, bool& ok, std::string& clipPath)
{
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) return false;
    ImgSeqDlg dlg;
    if (!prefs.strTitle.empty()) dlg.setWindowTitle(QString::fromStdString(prefs.strTitle));
    ok = dlg.exec() == QDialog::Accepted;
    clipPath = dlg.ClipPath();
    return true;
}

}  // namespace zub
