#include "controls/NumericEdit.h"

#include <QEvent>
#include <QSignalBlocker>


#include "controls/FamilyPalette.h"
#include "settings/FixedPoint.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Prompt.h"

namespace zub::controls {

namespace {

std::string Fill(const std::string& format, const std::string& a, const std::string& b)
{
    std::string out;
    std::size_t at = 0;
    int n = 0;
    for (std::size_t i = format.find("%s"); i != std::string::npos; i = format.find("%s", at)) {
        out += format.substr(at, i - at);
        out += n++ == 0 ? a : b;
        at = i + 2;
    }
    return out + format.substr(at);
}

}  // namespace

NumericEdit::NumericEdit(QWidget* parent) : QLineEdit(parent), scroll_(new QScrollBar(Qt::Vertical))
{
    // The scroll control's top arrow lowers a scroll bar's position but must raise the
    // value, so positions count down from the maximum (see OnScrolled and SyncScroll).
    scroll_->setSingleStep(1);
    scroll_->setPageStep(1);
    scroll_->setFocusPolicy(Qt::NoFocus);
    scroll_->setAccessibleName("Adjust value");
    // Attached: as tall as the edit, narrow, so the pair reads as one control.
    scroll_->setFixedSize(16, sizeHint().height());
    ApplyFamilyColours(this, EditFamily());
    ApplyFamilyColours(scroll_, EditFamily());
    SetRange(min_, max_, places_, step_);
    connect(scroll_, &QScrollBar::valueChanged, this, [this](int v) { OnScrolled(v); });
    connect(this, &QLineEdit::textEdited, this, [this] { OnTextEdited(); });
    connect(this, &QLineEdit::editingFinished, this, [this] {
        if (validateOnLeave_ && !telling_) Validate();
    });
}

NumericEdit::~NumericEdit()
{
    // Still ours when no layout took it over.
    if (scroll_ && !scroll_->parent()) delete scroll_;
}

void NumericEdit::SetRange(int minimum, int maximum, int places, int step)
{
    min_ = minimum;
    max_ = maximum < minimum ? minimum : maximum;
    places_ = places;
    step_ = step < 1 ? 1 : step;
    {
        const QSignalBlocker block(scroll_);
        scroll_->setRange(0, (max_ - min_) / step_);
    }
    if (auto v = Value()) SyncScroll(*v);
}

void NumericEdit::SetValue(int scaled)
{
    setText(QString::fromStdString(settings::FormatFixed(scaled, places_)));
    SyncScroll(scaled);
}

std::optional<int> NumericEdit::Value() const
{
    return settings::ParseFixed(text().toStdString(), places_);
}

bool NumericEdit::InRange() const
{
    return RangeMessage().empty();
}

std::string NumericEdit::RangeMessage() const
{
    const auto& strings = TheModuleState();
    const auto v = Value();
    if (!v) return strings.LoadString(IDS_VALUE_OUT_OF_RANGE);
    const bool onStep = (static_cast<long long>(*v) - min_) % step_ == 0;
    if (*v >= min_ && *v <= max_ && onStep) return {};
    const std::string lo = settings::FormatFixed(min_, places_);
    const std::string hi = settings::FormatFixed(max_, places_);
    if (step_ > 1) return Fill(strings.LoadString(IDS_VALUE_OUT_OF_RANGE_ACCEPTED), lo, hi);
    return Fill(strings.LoadString(IDS_VALUE_OUT_OF_RANGE_BETWEEN), lo, hi);
}

bool NumericEdit::Validate()
{
    const std::string message = RangeMessage();
    if (message.empty()) return true;
    telling_ = true;
    Prompter().Tell(message);
    telling_ = false;
    setFocus();
    selectAll();
    return false;
}

void NumericEdit::OnScrolled(int position)
{
    const int value = min_ + (scroll_->maximum() - position) * step_;
    setText(QString::fromStdString(settings::FormatFixed(value, places_)));
    selectAll();
}

void NumericEdit::OnTextEdited()
{
    if (auto v = Value(); v && *v >= min_ && *v <= max_) SyncScroll(*v);
}

void NumericEdit::SyncScroll(int scaled)
{
    if (!scroll_) return;
    const QSignalBlocker block(scroll_);
    const int clamped = scaled < min_ ? min_ : scaled > max_ ? max_ : scaled;
    scroll_->setValue(scroll_->maximum() - (clamped - min_) / step_);
}

void NumericEdit::changeEvent(QEvent* e)
{
    if (e->type() == QEvent::EnabledChange && scroll_) scroll_->setEnabled(isEnabled());
    QLineEdit::changeEvent(e);
}

}  // namespace zub::controls
