// Colours the host hands to the module's custom controls. Each of the three control families
// keeps its own module-wide copy and paints with it.
#pragma once

#include "zubimport/ModuleState.h"

namespace zub::controls {

struct FamilyColours {
    ColourSettings colours;
    int flag = 0;
    // Only the list family has it: the colour it uses for themed (5.1 and later) painting.
    unsigned long themedColour = 0;
};

// List views and list controls with thumbnails.
FamilyColours& ListFamily();
// Numeric edits with attached scroll controls.
FamilyColours& EditFamily();
// Tabbed dialogs, bitmap buttons and colour boxes.
FamilyColours& ButtonFamily();

void SetFamilyColours(FamilyColours& family, const ColourSettings& colours, int flag);

}  // namespace zub::controls
