// A window that shows one picture (a frame or a still) fitted to the window without
// changing its shape, on the family's background.
#pragma once

#include <QImage>
#include <QWidget>

#include <cstddef>

namespace zub::controls {

class PreviewWindow : public QWidget {
public:
    explicit PreviewWindow(QWidget* parent = nullptr);

    void SetImage(const QImage& image);
    // A packed bitmap as frames travel in the module: 40-byte header, then 32-bit pixels,
    // rows bottom-up when the height is positive. False (and nothing shown) when the block
    // is too small for what its header says or is not 32-bit uncompressed.
    bool SetBitmap(const void* block, std::size_t size);
    const QImage& Image() const { return image_; }
    // Where the picture lands inside the window.
    QRect PictureRect() const;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QImage image_;
};

}  // namespace zub::controls
