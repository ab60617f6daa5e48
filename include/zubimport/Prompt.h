// The one way the module talks to the user: a question with buttons and an icon, or a
// plain message. Engines only ever see this interface, so the same conversion runs behind a
// dialog, in a terminal, or in a test that scripts the answers.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zub {

enum class Buttons { Ok, OkCancel, YesNo, YesNoCancel, RetryCancel };
enum class Icon { None, Information, Warning, Error, Question };

// Answers, numbered as the host platform numbers them so callers can store them as ints.
enum class Answer { Ok = 1, Cancel = 2, Retry = 4, Yes = 6, No = 7 };

struct PromptRequest {
    std::string text;
    std::string caption;
    Buttons buttons = Buttons::Ok;
    Icon icon = Icon::None;
    int defaultButton = 0;  // index into the buttons' order, 0 = first
};

class IPrompt {
public:
    virtual ~IPrompt() = default;
    virtual Answer Ask(const PromptRequest& request) = 0;
    // A message with only an OK button.
    void Tell(const std::string& text, const std::string& caption = {}, Icon icon = Icon::Warning)
    {
        Ask(PromptRequest{text, caption, Buttons::Ok, icon, 0});
    }
};

// The answer a person would get by pressing Enter: the default button.
Answer DefaultAnswer(const PromptRequest& request);

// Says nothing, answers with the default button: for unattended batch runs.
class SilentPrompt final : public IPrompt {
public:
    Answer Ask(const PromptRequest& request) override { return DefaultAnswer(request); }
};

// Writes the text to standard error and answers with the default button: the fallback when
// no window system is in use.
class StderrPrompt final : public IPrompt {
public:
    Answer Ask(const PromptRequest& request) override;
};

// For tests: records every request and answers from a queue (default button when empty).
class ScriptedPrompt final : public IPrompt {
public:
    explicit ScriptedPrompt(std::vector<Answer> answers = {});
    Answer Ask(const PromptRequest& request) override;
    void Push(Answer a);
    std::vector<PromptRequest> Requests() const;
    std::vector<std::string> Texts() const;

private:
    mutable std::mutex mutex_;
    std::deque<Answer> answers_;
    std::vector<PromptRequest> requests_;
};

// Module-wide prompter. The host may install its own; without one, a registered GUI factory
// (a message box, when the dialog layer is loaded and a GUI application runs) is used, else
// StderrPrompt. Setting nullptr restores the default.
IPrompt& Prompter();
void SetPrompter(std::shared_ptr<IPrompt> prompt);
std::shared_ptr<IPrompt> CurrentPrompter();

// Used by the dialog layer to offer a message-box prompter without the platform layer
// depending on a GUI toolkit. The factory returns nullptr when no GUI application runs.
using GuiPromptFactory = std::shared_ptr<IPrompt> (*)();
void RegisterGuiPromptFactory(GuiPromptFactory factory);

// Installs a prompter for the lifetime of a scope, then puts the previous one back.
class ScopedPrompter {
public:
    explicit ScopedPrompter(std::shared_ptr<IPrompt> prompt);
    ~ScopedPrompter();
    ScopedPrompter(const ScopedPrompter&) = delete;
    ScopedPrompter& operator=(const ScopedPrompter&) = delete;

private:
    std::shared_ptr<IPrompt> previous_;
};

}  // namespace zub
