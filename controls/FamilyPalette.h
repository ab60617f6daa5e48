// How a control family's colours (handed over by ImportDllGlobalSetColors) become what a Qt
// widget paints with. Colours arrive as the host's 0x00BBGGRR values.
#pragma once

#include <QColor>
#include <QPalette>

#include "controls/ControlColours.h"

class QWidget;

namespace zub::controls {

QColor FromColorRef(unsigned long bgr);
unsigned long ToColorRef(const QColor& c);

// With the family's flag set, colour1 is the background and colour2 the text of the family's
// controls, and a themed colour (list family only) marks the selection. With the flag clear
// the desktop's own palette stays.
bool FamilyColoursInUse(const FamilyColours& family);
QPalette FamilyPalette(const FamilyColours& family, QPalette base);
// Sets the palette on the widget (and lets it fill its own background) when in use.
void ApplyFamilyColours(QWidget* w, const FamilyColours& family);

}  // namespace zub::controls
