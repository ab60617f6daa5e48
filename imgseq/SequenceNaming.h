// Names of numbered image sequences (shot0001.tga, shot0002.tga, ...) and the other small
// name operations the image sequence import and the conversion targets are built on. Paths
// are plain 8-bit strings; '/' and '\' both separate, as the host writes "C:\seq\a.tga" and
// Linux callers write "/seq/a.tga". The file system is only asked whether a file exists or
// for the first bytes of a file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zub {

// dir (up to and including the last separator), stem (file name without extension) and ext
// (from the file name's last '.', dot included). A name without any separator has an empty
// dir. False for an empty name, leaving the three parts empty.
bool SplitPath(std::string_view path, std::string& dir, std::string& stem, std::string& ext);

// The file after `path` in its sequence: the decimal digits that end the stem count up by one,
// keeping at least their width when they start with '0' (img0099 -> img0100, 0999 -> 1000,
// img9 -> img10); a stem without digits gets the number 2 (clip -> clip2). Never fails and
// never looks at the file system.
std::string NextSequenceName(std::string_view path);

// True when something exists at `path` (file, folder or other entry).
bool FileExists(const std::string& path);

// Appends `first` to `list` (only when it exists, unless checkFirst is false) and, with
// `numbered`, every following name of its sequence while that file exists: a gap ends the
// run. Returns the number of paths appended.
std::size_t AddNumberedRun(const std::string& first, std::vector<std::string>& list, bool numbered = true,
                           bool checkFirst = true);

// The clip name proposed for a sequence whose first image is `firstImage`: its stem without
// the trailing number (kept whole when it is all digits), counted on while
// videoDir/<name>.zub exists.
std::string DefaultClipName(std::string_view firstImage, std::string_view videoDir);

// A path in the temporary folder that does not exist yet: <tmp><prefix><counter>.<ext>, the
// counter starting at the low byte of the millisecond clock, printed as at least two hex
// digits. Null prefix or extension count as empty. "" when there is no temporary folder.
std::string MakeTempFileName(const char* prefix, const char* ext);

// True when the file can be read for 16 bytes and starts with the native clip magic "ZUB0".
bool IsNativeVideoFile(const std::string& path);

}  // namespace zub
