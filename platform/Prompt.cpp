#include "zubimport/Prompt.h"

#include <atomic>
#include <cstdio>

namespace zub {

namespace {

std::vector<Answer> ButtonAnswers(Buttons b)
{
    switch (b) {
    case Buttons::Ok: return {Answer::Ok};
    case Buttons::OkCancel: return {Answer::Ok, Answer::Cancel};
    case Buttons::YesNo: return {Answer::Yes, Answer::No};
    case Buttons::YesNoCancel: return {Answer::Yes, Answer::No, Answer::Cancel};
    case Buttons::RetryCancel: return {Answer::Retry, Answer::Cancel};
    }
    return {Answer::Ok};
}

std::mutex g_promptMutex;
std::shared_ptr<IPrompt> g_prompt;  // host's choice, or null for the default
std::atomic<GuiPromptFactory> g_guiFactory{nullptr};

}  // namespace

Answer DefaultAnswer(const PromptRequest& request)
{
    const auto answers = ButtonAnswers(request.buttons);
    const auto i = static_cast<std::size_t>(request.defaultButton);
    return i < answers.size() ? answers[i] : answers.front();
}

Answer StderrPrompt::Ask(const PromptRequest& request)
{
    const Answer a = DefaultAnswer(request);
    std::fprintf(stderr, "%s%s%s\n", request.caption.empty() ? "" : request.caption.c_str(),
                 request.caption.empty() ? "" : ": ", request.text.c_str());
    return a;
}

ScriptedPrompt::ScriptedPrompt(std::vector<Answer> answers) : answers_(answers.begin(), answers.end()) {}

Answer ScriptedPrompt::Ask(const PromptRequest& request)
{
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    if (answers_.empty()) return DefaultAnswer(request);
    const Answer a = answers_.front();
    answers_.pop_front();
    return a;
}

void ScriptedPrompt::Push(Answer a)
{
    std::lock_guard lock(mutex_);
    answers_.push_back(a);
}

std::vector<PromptRequest> ScriptedPrompt::Requests() const
{
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<std::string> ScriptedPrompt::Texts() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& r : requests_) out.push_back(r.text);
    return out;
}

std::shared_ptr<IPrompt> CurrentPrompter()
{
    std::lock_guard lock(g_promptMutex);
    if (g_prompt) return g_prompt;
    if (auto factory = g_guiFactory.load()) {
        if (auto gui = factory()) return gui;
    }
    static const auto fallback = std::make_shared<StderrPrompt>();
    return fallback;
}

IPrompt& Prompter()
{
    // The shared_ptr keeps a host-installed prompter alive across a SetPrompter from another
    // thread only for the duration of the call; callers do not keep the reference.
    thread_local std::shared_ptr<IPrompt> hold;
    hold = CurrentPrompter();
    return *hold;
}

void SetPrompter(std::shared_ptr<IPrompt> prompt)
{
    std::lock_guard lock(g_promptMutex);
    g_prompt = std::move(prompt);
}

void RegisterGuiPromptFactory(GuiPromptFactory factory)
{
    g_guiFactory.store(factory);
}

ScopedPrompter::ScopedPrompter(std::shared_ptr<IPrompt> prompt)
{
    std::lock_guard lock(g_promptMutex);
    previous_ = std::move(g_prompt);
    g_prompt = std::move(prompt);
}

ScopedPrompter::~ScopedPrompter()
{
    std::lock_guard lock(g_promptMutex);
    g_prompt = std::move(previous_);
}

}  // namespace zub
