#include "controls/FamilyPalette.h"

#include <QWidget>

namespace zub::controls {

QColor FromColorRef(unsigned long bgr)
{
    return QColor(int(bgr & 0xFF), int((bgr >> 8) & 0xFF), int((bgr >> 16) & 0xFF));
}

unsigned long ToColorRef(const QColor& c)
{
    return (unsigned long)c.red() | ((unsigned long)c.green() << 8) | ((unsigned long)c.blue() << 16);
}

bool FamilyColoursInUse(const FamilyColours& family) { return family.flag != 0; }

QPalette FamilyPalette(const FamilyColours& family, QPalette base)
{
    if (!FamilyColoursInUse(family)) return base;
    const QColor back = FromColorRef(family.colours.colour1);
    const QColor text = FromColorRef(family.colours.colour2);
    for (auto role : {QPalette::Window, QPalette::Base, QPalette::Button, QPalette::AlternateBase})
        base.setColor(QPalette::All, role, back);
    for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        base.setColor(QPalette::All, role, text);
    if (family.themedColour != 0) base.setColor(QPalette::All, QPalette::Highlight, FromColorRef(family.themedColour));
    return base;
}

void ApplyFamilyColours(QWidget* w, const FamilyColours& family)
{
    if (!FamilyColoursInUse(family)) return;
    w->setPalette(FamilyPalette(family, w->palette()));
    w->setAutoFillBackground(true);
}

}  // namespace zub::controls
