// Paths arrive from the host in its own style ("C:\clips\a.avi") as well as Linux style;
// both separators split, new paths are built with '/'.
#pragma once

#include <string>
#include <string_view>

namespace zub {

constexpr bool IsPathSeparator(char c) { return c == '/' || c == '\\'; }

// Index of the last '/' or '\', or npos.
std::size_t LastSeparator(std::string_view path);

// Everything up to and including the last separator ("" when there is none).
std::string DirectoryPart(std::string_view path);

// Everything after the last separator.
std::string FileNamePart(std::string_view path);

// The extension of the file name part, dot included ("" when the name has no dot).
std::string ExtensionPart(std::string_view path);

// Joins a folder and a name with exactly one separator; an empty folder gives the name.
std::string JoinPath(std::string_view folder, std::string_view name);

// A folder setting ends with a separator; "" stays "".
std::string WithTrailingSeparator(std::string_view folder);

// Case-insensitive comparison of ASCII text, as the host's file names compare.
bool EqualsNoCase(std::string_view a, std::string_view b);

// $TMPDIR, or /tmp, with a trailing '/'.
std::string TempFolder();

}  // namespace zub
