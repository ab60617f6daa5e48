// A list view whose columns the user picks and orders in a "Columns" dialog (from the
// header's context menu). Columns made with width 0 hold data the user never sees: they stay
// hidden and are not offered in the dialog.
#pragma once

#include <QDialog>
#include <QString>
#include <QTreeWidget>

#include <vector>

class QListWidget;
class QPushButton;

namespace zub::controls {

struct ListColumn {
    QString title;
    int width = 100;  // 0: kept hidden
};

class ColumnListView : public QTreeWidget {
public:
    explicit ColumnListView(QWidget* parent = nullptr);

    void SetColumns(const std::vector<ListColumn>& columns);

    bool IsKeptHidden(int column) const;
    bool IsColumnShown(int column) const;
    // Logical column numbers in the order they are shown (hidden ones included).
    std::vector<int> VisualOrder() const;

    // Applies a choice: every offered column in `order` (logical numbers, the kept-hidden
    // ones ignored) with its shown state.
    struct Choice {
        int column;
        bool shown;
    };
    void ApplyChoice(const std::vector<Choice>& choice);
    std::vector<Choice> CurrentChoice() const;

    // Runs the "Columns" dialog; true when the user pressed OK.
    bool ChooseColumns();

protected:
    void showEvent(QShowEvent* e) override;

private:
    std::vector<ListColumn> columns_;
    std::vector<int> lastWidth_;
};

// The "Columns" dialog on its own, for tests and for views that keep their columns elsewhere.
class ColumnChooserDialog : public QDialog {
public:
    ColumnChooserDialog(const std::vector<QString>& titles, const std::vector<ColumnListView::Choice>& choice,
                        QWidget* parent = nullptr);
    std::vector<ColumnListView::Choice> Result() const;
    void MoveUp();
    void MoveDown();
    QListWidget* List() const { return list_; }

private:
    void UpdateButtons();
    QListWidget* list_;
    QPushButton* up_;
    QPushButton* down_;
};

}  // namespace zub::controls
