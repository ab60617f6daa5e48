#include <gtest/gtest.h>

#include "controls/ControlColours.h"
#include "zubimport/Import.h"

using namespace zub;

namespace {

struct OsScope {
    explicit OsScope(OsVersion v) { SetOsVersionOverride(&v); }
    ~OsScope() { SetOsVersionOverride(nullptr); }
};

}  // namespace

TEST(Colours, EveryFamilyGetsTheColoursAndFlag)
{
    ImportDllGlobalSetColors(0x112233, 7, 0x445566, 0);
    EXPECT_EQ(ImportDllGetStaticModuleState()->colours.colour1, 0x112233u);
    EXPECT_EQ(ImportDllGetStaticModuleState()->colours.colour2, 0x445566u);
    for (auto* f : {&controls::ListFamily(), &controls::EditFamily(), &controls::ButtonFamily()}) {
        EXPECT_EQ(f->colours.colour1, 0x112233u);
        EXPECT_EQ(f->colours.colour2, 0x445566u);
        EXPECT_EQ(f->flag, 7);
    }
}

TEST(Colours, ThemedSlotOnlyFromVersion51)
{
    struct Case {
        OsVersion v;
        bool taken;
    };
    const Case cases[] = {{{5, 0}, false}, {{5, 1}, true}, {{5, 2}, true}, {{4, 9}, false},
                          {{6, 0}, true},  {{10, 0}, true}, {{6, 1}, true}};
    unsigned long colour = 0x10;
    for (const auto& c : cases) {
        OsScope os(c.v);
        controls::ListFamily().themedColour = 0xDEAD;
        ImportDllGlobalSetColors(1, 0, colour, 1);
        EXPECT_EQ(controls::ListFamily().themedColour, c.taken ? colour : 0xDEADul)
            << c.v.major << "." << c.v.minor;
        // Without flag2 the slot is never touched.
        controls::ListFamily().themedColour = 0xBEEF;
        ImportDllGlobalSetColors(1, 0, colour + 1, 0);
        EXPECT_EQ(controls::ListFamily().themedColour, 0xBEEFul);
        ++colour;
    }
    EXPECT_EQ(controls::EditFamily().themedColour, 0ul);
}

// The host's version is the kernel's release on Linux: the releases hosts run today must take
// the themed slot, whatever kernel the test machine has.
TEST(Colours, KernelReleasesCountAsModern)
{
    const OsVersion releases[] = {{5, 4}, {5, 10}, {5, 15}, {6, 1}, {6, 8}, {6, 12}};
    for (const OsVersion& v : releases) {
        OsScope os(v);
        EXPECT_EQ(CurrentOsVersion().major, v.major);
        EXPECT_EQ(CurrentOsVersion().minor, v.minor);
        controls::ListFamily().themedColour = 0;
        ImportDllGlobalSetColors(1, 0, 0x123456, 1);
        EXPECT_EQ(controls::ListFamily().themedColour, 0x123456ul) << v.major << "." << v.minor;
    }
    controls::ListFamily().themedColour = 0;
}
