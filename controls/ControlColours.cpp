#include "controls/ControlColours.h"

namespace zub::controls {

FamilyColours& ListFamily()
{
    static FamilyColours f;
    return f;
}

FamilyColours& EditFamily()
{
    static FamilyColours f;
    return f;
}

FamilyColours& ButtonFamily()
{
    static FamilyColours f;
    return f;
}

void SetFamilyColours(FamilyColours& family, const ColourSettings& colours, int flag)
{
    family.colours = colours;
    family.flag = flag;
}

}  // namespace zub::controls
