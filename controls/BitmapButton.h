// A push button that shows a picture instead of a label: sunk by a pixel while pressed and
// greyed while disabled.
#pragma once

#include <QAbstractButton>
#include <QPixmap>

namespace zub::controls {

class BitmapButton : public QAbstractButton {
public:
    explicit BitmapButton(const QPixmap& picture, QWidget* parent = nullptr);

    void SetPicture(const QPixmap& picture);
    const QPixmap& Picture() const { return picture_; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QPixmap picture_;
};

}  // namespace zub::controls
