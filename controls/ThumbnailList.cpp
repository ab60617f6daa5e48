#include "controls/ThumbnailList.h"

#include <QPainter>

#include "controls/FamilyPalette.h"

namespace zub::controls {

ThumbnailList::ThumbnailList(QWidget* parent, QSize thumbnail) : QListWidget(parent), thumb_(thumbnail)
{
    setViewMode(QListView::IconMode);
    setIconSize(thumb_);
    setResizeMode(QListView::Adjust);
    setMovement(QListView::Static);
    setUniformItemSizes(true);
    setWordWrap(true);
    ApplyFamilyColours(viewport(), ListFamily());
}

QImage ThumbnailList::Fit(const QImage& image) const
{
    QImage out(thumb_, QImage::Format_RGB32);
    out.fill(viewport()->palette().color(QPalette::Base));
    if (image.isNull()) return out;
    const QImage scaled = image.scaled(thumb_, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    QPainter p(&out);
    p.drawImage((thumb_.width() - scaled.width()) / 2, (thumb_.height() - scaled.height()) / 2, scaled);
    return out;
}

int ThumbnailList::AddThumbnail(const QString& caption, const QImage& image)
{
    auto* item = new QListWidgetItem(QIcon(QPixmap::fromImage(Fit(image))), caption, this);
    item->setData(Qt::UserRole, Fit(image));
    return row(item);
}

QImage ThumbnailList::Thumbnail(int r) const
{
    const auto* it = item(r);
    return it ? it->data(Qt::UserRole).value<QImage>() : QImage();
}

void ThumbnailList::showEvent(QShowEvent* e)
{
    ApplyFamilyColours(viewport(), ListFamily());
    QListWidget::showEvent(e);
}

}  // namespace zub::controls
