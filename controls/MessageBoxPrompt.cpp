#include "controls/MessageBoxPrompt.h"

#include <QApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QThread>

#include <future>

namespace zub::controls {

namespace {

QMessageBox::StandardButtons ToButtons(Buttons b)
{
    switch (b) {
    case Buttons::Ok: return QMessageBox::Ok;
    case Buttons::OkCancel: return QMessageBox::Ok | QMessageBox::Cancel;
    case Buttons::YesNo: return QMessageBox::Yes | QMessageBox::No;
    case Buttons::YesNoCancel: return QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel;
    case Buttons::RetryCancel: return QMessageBox::Retry | QMessageBox::Cancel;
    }
    return QMessageBox::Ok;
}

QMessageBox::StandardButton ToStandard(Answer a)
{
    switch (a) {
    case Answer::Ok: return QMessageBox::Ok;
    case Answer::Cancel: return QMessageBox::Cancel;
    case Answer::Retry: return QMessageBox::Retry;
    case Answer::Yes: return QMessageBox::Yes;
    case Answer::No: return QMessageBox::No;
    }
    return QMessageBox::Ok;
}

Answer FromStandard(int b, const PromptRequest& r)
{
    switch (b) {
    case QMessageBox::Ok: return Answer::Ok;
    case QMessageBox::Cancel: return Answer::Cancel;
    case QMessageBox::Retry: return Answer::Retry;
    case QMessageBox::Yes: return Answer::Yes;
    case QMessageBox::No: return Answer::No;
    default: return DefaultAnswer(r);  // closed by the window manager
    }
}

QMessageBox::Icon ToIcon(Icon i)
{
    switch (i) {
    case Icon::None: return QMessageBox::NoIcon;
    case Icon::Information: return QMessageBox::Information;
    case Icon::Warning: return QMessageBox::Warning;
    case Icon::Error: return QMessageBox::Critical;
    case Icon::Question: return QMessageBox::Question;
    }
    return QMessageBox::NoIcon;
}

Answer ShowBox(const PromptRequest& r)
{
    QMessageBox box(ToIcon(r.icon), QString::fromLocal8Bit(r.caption.empty() ? "ZUB Import" : r.caption.c_str()),
                    QString::fromLocal8Bit(r.text.c_str()), ToButtons(r.buttons), QApplication::activeWindow());
    box.setObjectName("promptBox");
    box.setDefaultButton(ToStandard(DefaultAnswer(r)));
    return FromStandard(box.exec(), r);
}

}  // namespace

Answer MessageBoxPrompt::Ask(const PromptRequest& request)
{
    auto* app = QCoreApplication::instance();
    if (!app) return DefaultAnswer(request);
    if (QThread::currentThread() == app->thread()) return ShowBox(request);
    // The hand-over goes through a promise rather than a blocking queued call: the request is
    // copied, nothing is shared but the promise, and the ordering is visible to race checkers
    // that cannot see inside Qt.
    auto answer = std::make_shared<std::promise<Answer>>();
    auto result = answer->get_future();
    QMetaObject::invokeMethod(
        app, [request, answer] { answer->set_value(ShowBox(request)); }, Qt::QueuedConnection);
    return result.get();
}

std::shared_ptr<IPrompt> MakeMessageBoxPromptIfGui()
{
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) return nullptr;
    static const auto prompt = std::make_shared<MessageBoxPrompt>();
    return prompt;
}

}  // namespace zub::controls
