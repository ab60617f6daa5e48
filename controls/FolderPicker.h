// Asks for a folder: a folder-selection dialog with a title, opened at a starting folder.
#pragma once

#include <string>

class QWidget;

namespace zub::controls {

// The chosen folder ending in a separator, or "" when the user cancelled. A start folder
// that does not exist opens the dialog at the nearest existing parent.
std::string PickFolder(QWidget* parent, const std::string& title, const std::string& startFolder);

}  // namespace zub::controls
