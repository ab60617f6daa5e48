#include "controls/PreviewWindow.h"

#include <QPainter>

#include <cstdint>
#include <cstring>

#include "controls/FamilyPalette.h"
#include "zubimport/Platform.h"

namespace zub::controls {

PreviewWindow::PreviewWindow(QWidget* parent) : QWidget(parent)
{
    setObjectName("preview");
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void PreviewWindow::SetImage(const QImage& image)
{
    image_ = image;
    update();
}

bool PreviewWindow::SetBitmap(const void* block, std::size_t size)
{
    if (!block || size < sizeof(BITMAPINFOHEADER)) return false;
    BITMAPINFOHEADER h;
    std::memcpy(&h, block, sizeof h);
    if (h.biSize < sizeof h || h.biBitCount != 32 || h.biCompression != BI_RGB || h.biWidth <= 0 || h.biHeight == 0)
        return false;
    const std::int64_t width = h.biWidth;
    const std::int64_t height = h.biHeight < 0 ? -std::int64_t(h.biHeight) : h.biHeight;
    const std::int64_t stride = width * 4;
    if (width > 65535 || height > 65535 || std::int64_t(h.biSize) + stride * height > std::int64_t(size)) return false;
    const auto* pixels = static_cast<const std::uint8_t*>(block) + h.biSize;
    QImage img(int(width), int(height), QImage::Format_RGB32);
    for (std::int64_t y = 0; y < height; ++y) {
        const std::int64_t src = h.biHeight > 0 ? height - 1 - y : y;
        std::memcpy(img.scanLine(int(y)), pixels + src * stride, std::size_t(stride));
    }
    SetImage(img);
    return true;
}

QRect PreviewWindow::PictureRect() const
{
    if (image_.isNull()) return {};
    const QSize fitted = image_.size().scaled(size(), Qt::KeepAspectRatio);
    return {QPoint((width() - fitted.width()) / 2, (height() - fitted.height()) / 2), fitted};
}

void PreviewWindow::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    const auto& family = ButtonFamily();
    p.fillRect(rect(), FamilyColoursInUse(family) ? FromColorRef(family.colours.colour1) : QColor(Qt::black));
    if (!image_.isNull()) {
        p.setRenderHint(QPainter::SmoothPixmapTransform);
        p.drawImage(PictureRect(), image_);
    }
}

}  // namespace zub::controls
