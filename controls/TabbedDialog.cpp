#include "controls/TabbedDialog.h"

#include <QDialogButtonBox>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTabWidget>
#include <QVBoxLayout>

#include "controls/FamilyPalette.h"

namespace zub::controls {

CTabdDlgPage::CTabdDlgPage(const QString& title, QWidget* parent) : QWidget(parent), title_(title) {}

CTabdDlg* CTabdDlgPage::Dialog() const
{
    for (QWidget* w = parentWidget(); w; w = w->parentWidget())
        if (auto* d = dynamic_cast<CTabdDlg*>(w)) return d;
    return nullptr;
}

void CTabdDlgPage::MakeActive()
{
    if (auto* d = Dialog()) d->ShowWithoutLeaving(d->tabs_->indexOf(this));
}

CTabdDlg::CTabdDlg(const QString& title, QWidget* parent)
    : QDialog(parent), tabs_(new QTabWidget(this)), buttons_(new QDialogButtonBox(this))
{
    setWindowTitle(title);
    setObjectName("tabbedDialog");
    tabs_->setObjectName("tabs");
    auto* ok = buttons_->addButton(QDialogButtonBox::Ok);
    auto* cancel = buttons_->addButton(QDialogButtonBox::Cancel);
    ok->setObjectName("ok_1");
    cancel->setObjectName("cancel_2");
    ok->setDefault(true);
    connect(buttons_, &QDialogButtonBox::accepted, this, &CTabdDlg::accept);
    connect(buttons_, &QDialogButtonBox::rejected, this, &CTabdDlg::reject);
    connect(tabs_, &QTabWidget::currentChanged, this, [this](int i) { OnTabChanged(i); });
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(tabs_);
    layout->addWidget(buttons_);
    ApplyFamilyColours(this, ButtonFamily());
}

void CTabdDlg::AddPage(CTabdDlgPage* page)
{
    AddPage(page, page->Title());
}

void CTabdDlg::AddPage(QWidget* page, const QString& title)
{
    const QSignalBlocker block(tabs_);
    tabs_->addTab(page, title);
    if (current_ < 0) current_ = tabs_->currentIndex();
}

int CTabdDlg::PageCount() const { return tabs_->count(); }

QWidget* CTabdDlg::Page(int index) const { return tabs_->widget(index); }

int CTabdDlg::ActiveIndex() const { return tabs_->currentIndex(); }

bool CTabdDlg::SetActivePage(int index)
{
    tabs_->setCurrentIndex(index);
    return tabs_->currentIndex() == index;
}

void CTabdDlg::ShowWithoutLeaving(int index)
{
    if (index < 0 || index == current_) return;
    {
        const QSignalBlocker block(tabs_);
        tabs_->setCurrentIndex(index);
    }
    current_ = index;
    if (auto* page = dynamic_cast<CTabdDlgPage*>(tabs_->widget(index))) page->OnSetActive();
}

void CTabdDlg::OnTabChanged(int index)
{
    if (index == current_) return;
    // Put the old page back on top while it decides, so that its message and focus land on
    // the page the user is being kept on.
    const int leaving = current_;
    if (auto* page = dynamic_cast<CTabdDlgPage*>(tabs_->widget(leaving))) {
        {
            const QSignalBlocker block(tabs_);
            tabs_->setCurrentIndex(leaving);
        }
        if (!page->OnKillActive()) return;
        const QSignalBlocker block(tabs_);
        tabs_->setCurrentIndex(index);
    }
    current_ = index;
    if (auto* page = dynamic_cast<CTabdDlgPage*>(tabs_->widget(index))) page->OnSetActive();
}

void CTabdDlg::accept()
{
    if (auto* page = dynamic_cast<CTabdDlgPage*>(tabs_->currentWidget()))
        if (!page->OnKillActive()) return;
    QDialog::accept();
}

void CTabdDlg::reject()
{
    if (onCancel_) onCancel_();
    QDialog::reject();
}

void CTabdDlg::showEvent(QShowEvent* e)
{
    if (!started_) {
        started_ = true;
        current_ = tabs_->currentIndex();
        if (auto* page = dynamic_cast<CTabdDlgPage*>(tabs_->currentWidget())) page->OnSetActive();
    }
    QDialog::showEvent(e);
}

}  // namespace zub::controls
