// The prompt interface shown as a modal message box, for hosts that run a Qt GUI application.
#pragma once

#include <memory>

#include "zubimport/Prompt.h"

namespace zub::controls {

class MessageBoxPrompt final : public IPrompt {
public:
    // Safe from any thread: a request from a streaming thread is shown on the GUI thread and
    // the caller waits for the answer.
    Answer Ask(const PromptRequest& request) override;
};

// nullptr unless a QApplication (widgets) exists; registered as the module's GUI prompter.
std::shared_ptr<IPrompt> MakeMessageBoxPromptIfGui();

}  // namespace zub::controls
