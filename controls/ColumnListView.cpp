#include "controls/ColumnListView.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QListWidget>
#include <QMenu>
#include <QPushButton>
#include <QVBoxLayout>

#include "controls/FamilyPalette.h"

namespace zub::controls {

ColumnListView::ColumnListView(QWidget* parent) : QTreeWidget(parent)
{
    setRootIsDecorated(false);
    setUniformRowHeights(true);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    header()->setSectionsMovable(true);
    // Columns keep the widths they were given; the last one is not stretched over the rest.
    header()->setStretchLastSection(false);
    header()->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(header(), &QWidget::customContextMenuRequested, this, [this](const QPoint& at) {
        QMenu menu(this);
        menu.setObjectName("columnMenu");
        QAction* columns = menu.addAction("&Columns...");
        if (menu.exec(header()->mapToGlobal(at)) == columns) ChooseColumns();
    });
    ApplyFamilyColours(viewport(), ListFamily());
}

void ColumnListView::SetColumns(const std::vector<ListColumn>& columns)
{
    columns_ = columns;
    lastWidth_.assign(columns.size(), 0);
    setColumnCount(int(columns.size()));
    QStringList titles;
    for (const auto& c : columns) titles << c.title;
    setHeaderLabels(titles);
    for (int i = 0; i < int(columns.size()); ++i) {
        lastWidth_[i] = columns[i].width;
        if (columns[i].width == 0) {
            header()->setSectionHidden(i, true);
        } else {
            header()->setSectionHidden(i, false);
            setColumnWidth(i, columns[i].width);
        }
    }
}

bool ColumnListView::IsKeptHidden(int column) const
{
    return column >= 0 && column < int(columns_.size()) && columns_[column].width == 0;
}

bool ColumnListView::IsColumnShown(int column) const
{
    return !IsKeptHidden(column) && !header()->isSectionHidden(column);
}

std::vector<int> ColumnListView::VisualOrder() const
{
    std::vector<int> order;
    for (int v = 0; v < header()->count(); ++v) order.push_back(header()->logicalIndex(v));
    return order;
}

std::vector<ColumnListView::Choice> ColumnListView::CurrentChoice() const
{
    std::vector<Choice> out;
    for (int c : VisualOrder())
        if (!IsKeptHidden(c)) out.push_back({c, IsColumnShown(c)});
    return out;
}

void ColumnListView::ApplyChoice(const std::vector<Choice>& choice)
{
    int visual = 0;
    for (const Choice& c : choice) {
        if (c.column < 0 || c.column >= int(columns_.size()) || IsKeptHidden(c.column)) continue;
        // Skip over kept-hidden columns so they keep their places among the others.
        while (visual < header()->count() && IsKeptHidden(header()->logicalIndex(visual))) ++visual;
        header()->moveSection(header()->visualIndex(c.column), visual);
        ++visual;
        const bool wasShown = !header()->isSectionHidden(c.column);
        if (wasShown && !c.shown) lastWidth_[c.column] = columnWidth(c.column);
        header()->setSectionHidden(c.column, !c.shown);
        if (!wasShown && c.shown) setColumnWidth(c.column, lastWidth_[c.column] > 0 ? lastWidth_[c.column] : 100);
    }
    for (int i = 0; i < int(columns_.size()); ++i)
        if (IsKeptHidden(i)) header()->setSectionHidden(i, true);
}

bool ColumnListView::ChooseColumns()
{
    std::vector<QString> titles;
    for (const auto& c : columns_) titles.push_back(c.title);
    ColumnChooserDialog dlg(titles, CurrentChoice(), this);
    if (dlg.exec() != QDialog::Accepted) return false;
    ApplyChoice(dlg.Result());
    return true;
}

void ColumnListView::showEvent(QShowEvent* e)
{
    ApplyFamilyColours(viewport(), ListFamily());
    QTreeWidget::showEvent(e);
}

ColumnChooserDialog::ColumnChooserDialog(const std::vector<QString>& titles,
                                         const std::vector<ColumnListView::Choice>& choice, QWidget* parent)
    : QDialog(parent), list_(new QListWidget(this)), up_(new QPushButton("Move &Up", this)),
      down_(new QPushButton("Move &Down", this))
{
    setWindowTitle("Columns");
    setObjectName("columnsDialog");
    list_->setObjectName("columnList");
    up_->setObjectName("moveUp");
    down_->setObjectName("moveDown");
    for (const auto& c : choice) {
        if (c.column < 0 || c.column >= int(titles.size())) continue;
        auto* item = new QListWidgetItem(titles[c.column], list_);
        item->setData(Qt::UserRole, c.column);
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
        item->setCheckState(c.shown ? Qt::Checked : Qt::Unchecked);
    }
    list_->setCurrentRow(0);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    buttons->button(QDialogButtonBox::Ok)->setObjectName("ok_1");
    buttons->button(QDialogButtonBox::Cancel)->setObjectName("cancel_2");
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(up_, &QPushButton::clicked, this, [this] { MoveUp(); });
    connect(down_, &QPushButton::clicked, this, [this] { MoveDown(); });
    connect(list_, &QListWidget::currentRowChanged, this, [this] { UpdateButtons(); });
    up_->setAutoDefault(false);
    down_->setAutoDefault(false);

    auto* side = new QVBoxLayout;
    side->addWidget(up_);
    side->addWidget(down_);
    side->addStretch(1);
    auto* row = new QHBoxLayout;
    row->addWidget(list_, 1);
    row->addLayout(side);
    auto* top = new QVBoxLayout(this);
    top->addLayout(row);
    top->addWidget(buttons);
    UpdateButtons();
}

std::vector<ColumnListView::Choice> ColumnChooserDialog::Result() const
{
    std::vector<ColumnListView::Choice> out;
    for (int i = 0; i < list_->count(); ++i) {
        const auto* item = list_->item(i);
        out.push_back({item->data(Qt::UserRole).toInt(), item->checkState() == Qt::Checked});
    }
    return out;
}

void ColumnChooserDialog::MoveUp()
{
    const int row = list_->currentRow();
    if (row <= 0) return;
    list_->insertItem(row - 1, list_->takeItem(row));
    list_->setCurrentRow(row - 1);
}

void ColumnChooserDialog::MoveDown()
{
    const int row = list_->currentRow();
    if (row < 0 || row + 1 >= list_->count()) return;
    list_->insertItem(row + 1, list_->takeItem(row));
    list_->setCurrentRow(row + 1);
}

void ColumnChooserDialog::UpdateButtons()
{
    const int row = list_->currentRow();
    up_->setEnabled(row > 0);
    down_->setEnabled(row >= 0 && row + 1 < list_->count());
}

}  // namespace zub::controls
