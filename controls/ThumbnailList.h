// A list of pictures with a caption under each, scaled to one thumbnail size.
#pragma once

#include <QImage>
#include <QListWidget>

namespace zub::controls {

class ThumbnailList : public QListWidget {
public:
    explicit ThumbnailList(QWidget* parent = nullptr, QSize thumbnail = {96, 72});

    QSize ThumbnailSize() const { return thumb_; }
    // The picture is fitted inside the thumbnail size without changing its shape, centred on
    // the list's background; an empty image leaves an empty frame. Returns the row.
    int AddThumbnail(const QString& caption, const QImage& image);
    // The square as shown, for callers that draw it elsewhere.
    QImage Thumbnail(int row) const;

protected:
    void showEvent(QShowEvent* e) override;

private:
    QImage Fit(const QImage& image) const;
    QSize thumb_;
};

}  // namespace zub::controls
