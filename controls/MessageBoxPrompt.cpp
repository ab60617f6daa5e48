#include "MessageBoxPrompt.h"

#include <QApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QThread>

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
    Answer answer = DefaultAnswer(request);
    QMetaObject::invokeMethod(
        app, [&] { answer = ShowBox(request); }, Qt::BlockingQueuedConnection);
    return answer;
}

std::shared_ptr<IPrompt> MakeMessageBoxPromptIfGui()
{
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) return nullptr;
    static const auto prompt = std::make_shared<MessageBoxPrompt>();
    return prompt;
}

}  // namespace zub::controls
