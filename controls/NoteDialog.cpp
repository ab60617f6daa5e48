#include "controls/NoteDialog.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "controls/FamilyPalette.h"

namespace zub::controls {

NoteDialog::NoteDialog(const QString& title, const QString& note, QWidget* parent)
    : QDialog(parent), note_(new QLabel(note, this))
{
    setWindowTitle(title);
    setObjectName("noteDialog");
    note_->setObjectName("note");
    note_->setWordWrap(true);
    note_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    buttons->button(QDialogButtonBox::Ok)->setObjectName("ok_1");
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    auto* top = new QVBoxLayout(this);
    top->addWidget(note_);
    top->addWidget(buttons);
    ApplyFamilyColours(this, ButtonFamily());
}

QString NoteDialog::Note() const { return note_->text(); }

void NoteDialog::Show(QWidget* parent, const QString& title, const QString& note)
{
    NoteDialog dlg(title, note, parent);
    dlg.exec();
}

}  // namespace zub::controls
