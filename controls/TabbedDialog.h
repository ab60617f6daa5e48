// A dialog of tabbed pages. Each page fills its controls whenever it is shown and applies
// them when it is left; a page whose values are invalid refuses to be left, so the user is
// kept on it (the page active, the offending field focused) until the value is put right.
#pragma once

#include <QDialog>
#include <QString>
#include <QWidget>

#include <functional>

class QTabWidget;
class QDialogButtonBox;

namespace zub::controls {

class CTabdDlg;

class CTabdDlgPage : public QWidget {
public:
    explicit CTabdDlgPage(const QString& title, QWidget* parent = nullptr);

    const QString& Title() const { return title_; }

    // The page becomes the visible one: fill the controls.
    virtual void OnSetActive() {}
    // The page is being left (another tab, or OK): validate and write back. Returns false
    // to stay, after telling the user and focusing the field.
    virtual bool OnKillActive() { return true; }

    // The dialog holding the page, or nullptr before it is added.
    CTabdDlg* Dialog() const;
    // Makes this page the visible tab without applying the page that was visible.
    void MakeActive();

private:
    QString title_;
};

class CTabdDlg : public QDialog {
public:
    explicit CTabdDlg(const QString& title, QWidget* parent = nullptr);

    // Takes ownership. A plain widget is a page without apply; a CTabdDlgPage takes part in
    // fill and apply.
    void AddPage(CTabdDlgPage* page);
    void AddPage(QWidget* page, const QString& title);

    int PageCount() const;
    QWidget* Page(int index) const;
    int ActiveIndex() const;
    // Switches as a user click does: the visible page must agree to be left.
    bool SetActivePage(int index);

    // Run when the dialog is cancelled (Cancel, Escape, the close box), e.g. to restore what
    // pages wrote while being left.
    void SetOnCancel(std::function<void()> f) { onCancel_ = std::move(f); }

    QTabWidget* Tabs() const { return tabs_; }

    void accept() override;
    void reject() override;

protected:
    void showEvent(QShowEvent* e) override;

private:
    friend class CTabdDlgPage;
    void OnTabChanged(int index);
    void ShowWithoutLeaving(int index);

    QTabWidget* tabs_;
    QDialogButtonBox* buttons_;
    int current_ = -1;
    bool started_ = false;
    std::function<void()> onCancel_;
};

}  // namespace zub::controls
