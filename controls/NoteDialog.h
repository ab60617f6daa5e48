// A short note to the user in a small dialog of its own, closed with OK (or Escape).
#pragma once

#include <QDialog>
#include <QString>

class QLabel;

namespace zub::controls {

class NoteDialog : public QDialog {
public:
    NoteDialog(const QString& title, const QString& note, QWidget* parent = nullptr);
    QString Note() const;

    // Shows the note modally; returns when the user closes it.
    static void Show(QWidget* parent, const QString& title, const QString& note);

private:
    QLabel* note_;
};

}  // namespace zub::controls
