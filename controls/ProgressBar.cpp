#include "controls/ProgressBar.h"

#include <QPainter>
#include <QResizeEvent>

#include <cstdint>

namespace zub::controls {

namespace {

constexpr int kUnchanged = -32768;
const QColor kFilledBack(0, 0, 255);

}  // namespace

ProgressBar::ProgressBar(QWidget* parent) : QWidget(parent)
{
    setAttribute(Qt::WA_OpaquePaintEvent);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void ProgressBar::SetRange(int minimum, int maximum)
{
    if (minimum > kUnchanged) min_ = minimum;
    if (maximum > kUnchanged) max_ = maximum;
    Refill();
}

bool ProgressBar::SetPos(int pos)
{
    if (pos < min_ || pos > max_) return false;
    pos_ = pos;
    Refill();
    return true;
}

void ProgressBar::SetShowCounts(bool on)
{
    if (showCounts_ == on) return;
    showCounts_ = on;
    update();
}

int ProgressBar::ComputeFilled(int clientWidth) const
{
    const std::int64_t span = static_cast<std::int64_t>(max_) - min_;
    if (span <= 0) return 0;
    const std::int64_t done = static_cast<std::int64_t>(pos_) - min_;
    return static_cast<int>((done * clientWidth + span / 2) / span);
}

int ProgressBar::Percent() const
{
    const std::int64_t span = static_cast<std::int64_t>(max_) - min_;
    if (span <= 0) return 0;
    return static_cast<int>((static_cast<std::int64_t>(pos_) - min_) * 100 / span);
}

QString ProgressBar::Text() const
{
    if (showCounts_)
        return QString::asprintf("%d of %d - %d%%", pos_ - min_, max_ - min_, Percent());
    return QString::asprintf("%d%%", Percent());
}

void ProgressBar::Refill()
{
    const int filled = ComputeFilled(width());
    if (filled == filled_) return;
    filled_ = filled;
    update();
}

QSize ProgressBar::sizeHint() const
{
    return {200, fontMetrics().height() + 6};
}

void ProgressBar::resizeEvent(QResizeEvent* e)
{
    filled_ = ComputeFilled(e->size().width());
    QWidget::resizeEvent(e);
}

void ProgressBar::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    const QRect all = rect();
    const QRect done(0, 0, filled_, all.height());
    const QRect rest(filled_, 0, all.width() - filled_, all.height());
    const QString text = Text();
    p.fillRect(done, kFilledBack);
    p.fillRect(rest, Qt::white);
    p.setClipRect(done);
    p.setPen(Qt::white);
    p.drawText(all, Qt::AlignCenter, text);
    p.setClipRect(rest);
    p.setPen(Qt::black);
    p.drawText(all, Qt::AlignCenter, text);
}

}  // namespace zub::controls
