// A box filled with one colour, framed; optionally the user changes it by clicking.
#pragma once

#include <QWidget>

#include <functional>

namespace zub::controls {

class ColourBox : public QWidget {
public:
    explicit ColourBox(QWidget* parent = nullptr);

    // Colours as the host gives them: 0x00BBGGRR.
    void SetColour(unsigned long bgr);
    unsigned long Colour() const { return colour_; }

    // With a picker, a click (or Space) opens the colour dialog; onChanged hears the choice.
    void SetPickable(bool on);
    void SetOnChanged(std::function<void(unsigned long)> f) { onChanged_ = std::move(f); }

    QSize sizeHint() const override { return {32, 20}; }

protected:
    void paintEvent(QPaintEvent*) override;
    void mouseReleaseEvent(QMouseEvent* e) override;
    void keyPressEvent(QKeyEvent* e) override;

private:
    void Pick();
    unsigned long colour_ = 0;
    bool pickable_ = false;
    std::function<void(unsigned long)> onChanged_;
};

}  // namespace zub::controls
