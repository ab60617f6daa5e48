#include "controls/ColourBox.h"

#include <QColorDialog>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

#include "controls/FamilyPalette.h"

namespace zub::controls {

ColourBox::ColourBox(QWidget* parent) : QWidget(parent)
{
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void ColourBox::SetColour(unsigned long bgr)
{
    colour_ = bgr & 0xFFFFFF;
    update();
}

void ColourBox::SetPickable(bool on)
{
    pickable_ = on;
    setFocusPolicy(on ? Qt::StrongFocus : Qt::NoFocus);
    setCursor(on ? Qt::PointingHandCursor : Qt::ArrowCursor);
}

void ColourBox::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    const auto& family = ButtonFamily();
    // The frame takes the family's text colour, so the box stands out from a coloured dialog.
    const QColor frame = FamilyColoursInUse(family) ? FromColorRef(family.colours.colour2) : palette().color(QPalette::WindowText);
    p.fillRect(rect(), frame);
    p.fillRect(rect().adjusted(1, 1, -1, -1), FromColorRef(colour_));
    if (hasFocus()) {
        p.setPen(QPen(frame, 1, Qt::DotLine));
        p.drawRect(rect().adjusted(2, 2, -3, -3));
    }
}

void ColourBox::Pick()
{
    const QColor chosen = QColorDialog::getColor(FromColorRef(colour_), this, "Color");
    if (!chosen.isValid()) return;
    SetColour(ToColorRef(chosen));
    if (onChanged_) onChanged_(colour_);
}

void ColourBox::mouseReleaseEvent(QMouseEvent* e)
{
    if (pickable_ && e->button() == Qt::LeftButton && rect().contains(e->position().toPoint())) Pick();
}

void ColourBox::keyPressEvent(QKeyEvent* e)
{
    if (pickable_ && e->key() == Qt::Key_Space) return Pick();
    QWidget::keyPressEvent(e);
}

}  // namespace zub::controls
