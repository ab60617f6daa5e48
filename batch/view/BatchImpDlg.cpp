#include "batch/view/BatchImpDlg.h"

#include <QApplication>
#include <QBrush>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <algorithm>

#include "controls/ColumnListView.h"
#include "settings/view/SettingsViews.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Paths.h"
#include "zubimport/Prompt.h"

namespace zub::batch {

namespace {

// Rows cut or copied, whole with every column, for Paste in this or a later batch dialog.
std::vector<BatchRow>& Clipboard()
{
    static std::vector<BatchRow> rows;
    return rows;
}

QString Q(const std::string& s)
{
    return QString::fromStdString(s);
}

// Registered when the module is loaded, so StartBatchImpDlg shows the dialog in a widgets host.
const bool g_registered = [] {
    RegisterBatchDialogRunner(&RunBatchImpDlg);
    return true;
}();

}  // namespace

BatchAddFilesDialog::BatchAddFilesDialog(QWidget* parent, const TypeFilter& filter, const QString& folder,
                                         int filterIndex)
    : QFileDialog(parent, "Batch Import", folder)
{
    setOption(QFileDialog::DontUseNativeDialog, true);  // the empty-name rule needs our accept()
    setFileMode(QFileDialog::ExistingFiles);
    setAcceptMode(QFileDialog::AcceptOpen);
    QStringList filters;
    for (const std::string& f : filter.DialogFilters()) filters << Q(f);
    setNameFilters(filters);
    if (filterIndex >= 0 && filterIndex < filters.size()) selectNameFilter(filters[filterIndex]);
    setDefaultSuffix(Q(filter.DefaultExtension()));
}

void BatchAddFilesDialog::accept()
{
    const QLineEdit* name = findChild<QLineEdit*>("fileNameEdit");
    if (name && name->text().trimmed().isEmpty()) {
        Prompter().Tell(kEnterFileName, "Batch Import", Icon::Warning);
        return;
    }
    QFileDialog::accept();
}

int BatchAddFilesDialog::FilterIndex() const
{
    return static_cast<int>(nameFilters().indexOf(selectedNameFilter()));
}

BatchNoteDialog::BatchNoteDialog(const QString& title, const QString& text, QWidget* parent) : QDialog(parent)
{
    setWindowTitle(title);
    setObjectName("noteDialog");
    edit_ = new QPlainTextEdit(text, this);
    edit_->setObjectName("noteText");
    replace_ = new QRadioButton("&Replace Text", this);
    replace_->setObjectName("replaceText");
    add_ = new QRadioButton("&Add Text", this);
    add_->setObjectName("addText");
    replace_->setChecked(true);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* choices = new QHBoxLayout;
    choices->addWidget(replace_);
    choices->addWidget(add_);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(edit_);
    layout->addLayout(choices);
    layout->addWidget(buttons);
}

QString BatchNoteDialog::Text() const
{
    return edit_->toPlainText();
}

bool BatchNoteDialog::Append() const
{
    return add_->isChecked();
}

QString NoteTitleFor(const std::vector<int>& types)
{
    // The caption resource holds "Note\tVideo Note\tAudio Note".
    const QStringList titles = QString("Note\tVideo Note\tAudio Note").split('\t');
    if (!types.empty() && std::all_of(types.begin(), types.end(), [](int t) { return t == kTypeVideo; })) return titles[1];
    if (!types.empty() && std::all_of(types.begin(), types.end(), [](int t) { return t == kTypeAudio; })) return titles[2];
    return titles[0];
}

CBatchImpDlg::CBatchImpDlg(const BatchDialogParams& params, QWidget* parent)
    : QDialog(parent), params_(params), filter_(params.mediaKindMode)
{
    setObjectName("batchImportDialog");
    setWindowTitle(params_.title.empty() ? QString("Batch Import") : Q(params_.title));
    lastProps_ = CurrentSettings().batchProps;

    hint_ = new QLabel(kBatchHint, this);
    hint_->setObjectName("hint");
    auto* caption = new QLabel("Files Selected", this);
    list_ = new controls::ColumnListView(this);
    list_->setObjectName("filesSelected");
    caption->setBuddy(list_);
    const int client = 520;
    std::vector<controls::ListColumn> columns;
    for (int c = 0; c < kColumnCount; ++c) columns.push_back({ColumnTitle(c), ColumnWidth(c, client)});
    list_->SetColumns(columns);
    list_->setMinimumWidth(client + 4);
    list_->setContextMenuPolicy(Qt::CustomContextMenu);

    menu_ = new QMenu(this);
    menu_->setObjectName("BATCH_IMPORT");
    connect(menu_->addAction("S&ort"), &QAction::triggered, this, &CBatchImpDlg::Sort);
    connect(menu_->addAction("Cu&t"), &QAction::triggered, this, &CBatchImpDlg::Cut);
    connect(menu_->addAction("&Copy"), &QAction::triggered, this, &CBatchImpDlg::Copy);
    connect(menu_->addAction("&Paste"), &QAction::triggered, this, &CBatchImpDlg::Paste);
    connect(menu_->addAction("&Delete"), &QAction::triggered, this, &CBatchImpDlg::RemoveSelected);
    connect(menu_->addAction("&Note..."), &QAction::triggered, this, &CBatchImpDlg::EditNote);
    connect(list_, &QWidget::customContextMenuRequested, this,
            [this](const QPoint& at) { menu_->exec(list_->viewport()->mapToGlobal(at)); });

    progress_ = new QProgressBar(this);
    progress_->setObjectName("progress");
    progress_->setRange(0, 1);
    progress_->setValue(0);

    auto button = [this](const char* text, const char* name, void (CBatchImpDlg::*slot)()) {
        auto* b = new QPushButton(text, this);
        b->setObjectName(name);
        b->setAutoDefault(false);
        connect(b, &QPushButton::clicked, this, slot);
        buttons_.push_back(b);
        return b;
    };
    auto* side = new QVBoxLayout;
    side->addWidget(button("&Add", "addButton", &CBatchImpDlg::OnAdd));
    side->addWidget(button("&Remove", "removeButton", &CBatchImpDlg::RemoveSelected));
    side->addWidget(button("S&ort", "sortButton", &CBatchImpDlg::Sort));
    side->addWidget(button("S&ettings", "settingsButton", &CBatchImpDlg::OnSettings));
    side->addStretch();
    QPushButton* go = button("&Go!", "goButton", &CBatchImpDlg::OnGo);
    go->setDefault(true);
    side->addWidget(go);
    auto* cancel = new QPushButton("Cancel", this);
    cancel->setObjectName("cancelButton");
    cancel->setAutoDefault(false);
    connect(cancel, &QPushButton::clicked, this, &CBatchImpDlg::reject);
    side->addWidget(cancel);

    auto* left = new QVBoxLayout;
    left->addWidget(hint_);
    left->addWidget(caption);
    left->addWidget(list_, 1);
    left->addWidget(progress_);
    auto* layout = new QHBoxLayout(this);
    layout->addLayout(left, 1);
    layout->addLayout(side);
}

CBatchImpDlg::~CBatchImpDlg() = default;

void CBatchImpDlg::Refresh()
{
    const std::vector<int> keep = SelectedRows();
    list_->clear();
    for (int r = 0; r < model_.rowCount(); ++r) {
        auto* item = new QTreeWidgetItem(list_);
        for (int c = 0; c < kColumnCount; ++c) item->setText(c, model_.data(model_.index(r, c)).toString());
        item->setData(0, Qt::UserRole, model_.Row(r).type);
        if (model_.Row(r).failed) item->setForeground(kColResult, QBrush(Qt::red));
    }
    SelectRows(keep);
}

std::vector<int> CBatchImpDlg::SelectedRows() const
{
    std::vector<int> rows;
    for (int r = 0; r < list_->topLevelItemCount(); ++r)
        if (list_->topLevelItem(r)->isSelected()) rows.push_back(r);
    return rows;
}

void CBatchImpDlg::SelectRows(const std::vector<int>& rows)
{
    list_->clearSelection();
    for (int r : rows)
        if (r >= 0 && r < list_->topLevelItemCount()) list_->topLevelItem(r)->setSelected(true);
}

void CBatchImpDlg::OnAdd()
{
    ImportSettings& s = CurrentSettings();
    BatchAddFilesDialog dialog(this, filter_, Q(s.batchFolder), s.batchFilterIndex);
    if (dialog.exec() != QDialog::Accepted) return;
    const QStringList files = dialog.selectedFiles();
    if (!files.isEmpty()) s.batchFolder = WithTrailingSeparator(DirectoryPart(files.front().toStdString()));
    s.batchFilterIndex = std::max(0, dialog.FilterIndex());
    AddFiles(files);
}

void CBatchImpDlg::AddFiles(const QStringList& files)
{
    for (const QString& f : files) model_.AddFile(f.toStdString(), filter_, {});
    Refresh();
}

void CBatchImpDlg::RemoveSelected()
{
    std::vector<int> rows = SelectedRows();
    for (auto it = rows.rbegin(); it != rows.rend(); ++it) model_.removeRows(*it, 1);
    list_->clearSelection();
    Refresh();
}

void CBatchImpDlg::Sort()
{
    model_.SortByFileName();
    list_->clearSelection();
    Refresh();
}

void CBatchImpDlg::Copy()
{
    std::vector<BatchRow>& clip = Clipboard();
    clip.clear();
    QStringList names;
    for (int r : SelectedRows()) {
        clip.push_back(model_.Row(r));
        names << Q(model_.Row(r).fileName);
    }
    if (!clip.empty() && QApplication::clipboard()) QApplication::clipboard()->setText(names.join('\n'));
}

void CBatchImpDlg::Cut()
{
    Copy();
    RemoveSelected();
}

void CBatchImpDlg::Paste()
{
    std::vector<BatchRow> rows = Clipboard();
    if (rows.empty()) return;
    for (BatchRow& r : rows) {
        r.result.clear();
        r.failed = false;
    }
    const std::vector<int> sel = SelectedRows();
    const int at = sel.empty() ? model_.rowCount() : sel.front();
    model_.InsertRows(at, rows);
    Refresh();
    std::vector<int> pasted;
    for (int i = 0; i < static_cast<int>(rows.size()); ++i) pasted.push_back(at + i);
    SelectRows(pasted);
}

void CBatchImpDlg::EditNote()
{
    const std::vector<int> rows = SelectedRows();
    if (rows.empty()) return;
    std::vector<int> types;
    for (int r : rows) types.push_back(model_.Row(r).type);
    BatchNoteDialog dialog(NoteTitleFor(types), Q(model_.Row(rows.front()).note), this);
    if (dialog.exec() != QDialog::Accepted) return;
    ApplyNote(rows, dialog.Text().toStdString(), dialog.Append());
}

void CBatchImpDlg::ApplyNote(const std::vector<int>& rows, const std::string& text, bool append)
{
    for (int r : rows) model_.SetNote(r, text, append);
    Refresh();
}

void CBatchImpDlg::OnSettings()
{
    settings::RunBatchSettingsDialog(this);
}

void CBatchImpDlg::SetRunning(bool running)
{
    running_ = running;
    for (QPushButton* b : buttons_) b->setEnabled(!running);
    list_->setEnabled(!running);
}

void CBatchImpDlg::OnGo()
{
    if (running_) return;
    model_.ClearResults();
    failed_ = false;
    cancel_ = 0;
    Refresh();
    BatchRunOptions options;
    options.importer = importer_;
    options.notify = params_.notify;
    options.notifyEveryItem = params_.notifyEveryItem;
    options.parentWindow = this;
    options.moduleFolder = moduleFolder_;
    options.cancel = &cancel_;
    progress_->setRange(0, std::max(1, model_.rowCount()));
    options.progress = [this](int row, int rows) {
        progress_->setValue(std::min(row, std::max(1, rows)));
        // The list stays live between rows, as a window pumping its messages would.
        QCoreApplication::processEvents();
    };
    SetRunning(true);
    lastRun_ = RunBatch(model_.Rows(), options);
    SetRunning(false);
    for (int r = 0; r < model_.rowCount() && r < static_cast<int>(lastRun_.rows.size()); ++r) {
        const BatchRowResult& res = lastRun_.rows[static_cast<std::size_t>(r)];
        if (res.ran) model_.SetResult(r, res.result, !res.ok);
    }
    failed_ = lastRun_.anyFailed;
    Refresh();
    if (lastRun_.closeDialog) reject();  // no row failed: the dialog closes as Cancel would
}

void CBatchImpDlg::reject()
{
    if (running_) {
        cancel_ = 1;  // stop before the next row; the dialog stays to show what was done
        return;
    }
    QDialog::reject();
}

int RunBatchImpDlg(const BatchDialogParams& params, std::string* lastProps)
{
    CBatchImpDlg dialog(params);
    const int code = dialog.exec();
    if (lastProps) *lastProps = dialog.LastProps();
    return code == QDialog::Accepted ? 1 : 2;
}

}  // namespace zub::batch
