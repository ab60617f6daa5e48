// The progress bar of the conversion and image sequence dialogs: a blue bar with its count or
// percentage centred over it, white on the filled part and black on the rest.
#pragma once

#include <QString>
#include <QWidget>

namespace zub::controls {

class ProgressBar : public QWidget {
public:
    explicit ProgressBar(QWidget* parent = nullptr);

    // Each bound is taken only when greater than -32768, so that value leaves it unchanged.
    void SetRange(int minimum, int maximum);
    // Refused (false, nothing changes) when outside [minimum, maximum].
    bool SetPos(int pos);
    // "%d of %d - %d%%" with counts, "%d%%" without.
    void SetShowCounts(bool on);

    int Minimum() const { return min_; }
    int Maximum() const { return max_; }
    int Pos() const { return pos_; }
    bool ShowCounts() const { return showCounts_; }

    // Width in pixels of the filled part for the current client width.
    int FilledWidth() const { return filled_; }
    int Percent() const;
    QString Text() const;

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent*) override;
    void resizeEvent(QResizeEvent*) override;

private:
    int ComputeFilled(int clientWidth) const;
    // Repaints only when the filled width moves: a position change that lands on the same
    // pixel costs nothing, which matters when a conversion reports every frame.
    void Refill();

    int min_ = 0;
    int max_ = 100;
    int pos_ = 0;
    bool showCounts_ = false;
    int filled_ = 0;
};

}  // namespace zub::controls
