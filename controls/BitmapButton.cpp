#include "controls/BitmapButton.h"

#include <QIcon>
#include <QPainter>
#include <QStyle>
#include <QStyleOptionButton>

#include "controls/FamilyPalette.h"

namespace zub::controls {

BitmapButton::BitmapButton(const QPixmap& picture, QWidget* parent) : QAbstractButton(parent), picture_(picture)
{
    setFocusPolicy(Qt::StrongFocus);
}

void BitmapButton::SetPicture(const QPixmap& picture)
{
    picture_ = picture;
    updateGeometry();
    update();
}

QSize BitmapButton::sizeHint() const
{
    return picture_.size().grownBy({4, 4, 4, 4});
}

void BitmapButton::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    const auto& family = ButtonFamily();
    const bool sunk = isDown() || isChecked();
    const QColor face = FamilyColoursInUse(family) ? FromColorRef(family.colours.colour1) : palette().color(QPalette::Button);
    const QColor edge = FamilyColoursInUse(family) ? FromColorRef(family.colours.colour2) : palette().color(QPalette::Dark);
    p.fillRect(rect(), face);
    p.setPen(edge);
    p.drawRect(rect().adjusted(0, 0, -1, -1));
    if (sunk) p.drawRect(rect().adjusted(1, 1, -2, -2));
    const QPixmap shown =
        isEnabled() ? picture_ : QIcon(picture_).pixmap(picture_.size(), devicePixelRatioF(), QIcon::Disabled);
    const int shift = sunk ? 1 : 0;
    const QSize logical = shown.deviceIndependentSize().toSize();
    p.drawPixmap((width() - logical.width()) / 2 + shift, (height() - logical.height()) / 2 + shift, shown);
    if (hasFocus()) {
        p.setPen(QPen(edge, 1, Qt::DotLine));
        p.drawRect(rect().adjusted(2, 2, -3, -3));
    }
}

}  // namespace zub::controls
