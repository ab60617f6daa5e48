// The module's own state: its string table, the folder it was loaded from, and the colours
// the host handed to its dialogs.
#pragma once

#include <string>

namespace zub {

inline constexpr unsigned IDS_DEVICE_OPEN_FAILED = 10000;
inline constexpr unsigned IDS_IMAGE_FILTER = 10007;
// Messages of the shared numeric edit control.
inline constexpr unsigned IDS_VALUE_OUT_OF_RANGE = 10100;
inline constexpr unsigned IDS_VALUE_OUT_OF_RANGE_BETWEEN = 10101;
inline constexpr unsigned IDS_VALUE_OUT_OF_RANGE_ACCEPTED = 10102;

struct ColourSettings {
    unsigned long colour1 = 0;
    unsigned long colour2 = 0;
};

class ModuleState {
public:
    // The text of a string resource, or "" when the table has no such entry.
    std::string LoadString(unsigned id) const;
    bool HasString(unsigned id) const;
    // Folder holding libImport.so (or the executable it is linked into), with a trailing '/'.
    const std::string& Folder() const;
    ColourSettings colours;

private:
    friend ModuleState& TheModuleState();
    ModuleState();
    std::string folder_;
};

ModuleState& TheModuleState();

// Operating system version as the colour rule sees it. On Linux the running kernel's version
// (6.x on Debian 12); tests put in any value.
struct OsVersion {
    int major = 0;
    int minor = 0;
};
OsVersion CurrentOsVersion();
void SetOsVersionOverride(const OsVersion* v);  // nullptr: use the kernel's again

}  // namespace zub
