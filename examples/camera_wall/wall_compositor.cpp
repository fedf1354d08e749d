#include "wall_compositor.h"

#include <orvo/qimage_import.h>

#include <QFont>
#include <QPainter>

namespace {

// A frame whose planes are windows into `mosaic` at (x, y): scaling into it writes the tile.
orvo::VideoFrame tileView(orvo::VideoFrame& mosaic, int x, int y, int w, int h)
{
    mosaic.map(QAbstractVideoBuffer::ReadWrite);
    auto window = [](unsigned char* origin, int bpl, int w, int h) {
        return new orvo::MemoryVideoBuffer(origin, (h - 1) * bpl + w, bpl, nullptr, 0, false);
    };
    const int bplY = int(mosaic.bytesPerLineY()), bplU = int(mosaic.bytesPerLineU()), bplV = int(mosaic.bytesPerLineV());
    auto* Y = window(mosaic.bitsY() + y * bplY + x, bplY, w, h);
    auto* U = window(mosaic.bitsU() + (y / 2) * bplU + x / 2, bplU, w / 2, h / 2);
    auto* V = window(mosaic.bitsV() + (y / 2) * bplV + x / 2, bplV, w / 2, h / 2);
    mosaic.unmap();
    return orvo::VideoFrame(Y, U, V, QSize(w, h), orvo::VideoFrame::Format_YUV420P);
}

orvo::VideoFrame label(const QString& text, int tileWidth)
{
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(14);
    font.setBold(true);
    const int w = (tileWidth - 8) & ~1, h = 22;
    QImage image(w, h, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setBrush(QColor(0, 0, 0, 140));
        painter.setPen(Qt::NoPen);
        const int textWidth = QFontMetrics(font).horizontalAdvance(text) + 12;
        painter.drawRoundedRect(QRect(0, 0, std::min(textWidth, w), h), 5, 5);
        painter.setFont(font);
        painter.setPen(Qt::white);
        painter.drawText(QRect(6, 0, w - 6, h), Qt::AlignVCenter | Qt::AlignLeft, text);
    }
    orvo::VideoFrame frame(w, h, orvo::VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    orvo::qimage2videoFrame(image.convertToFormat(QImage::Format_ARGB32), frame, 0, 0, false, 0, 1);
    orvo::qImageAlphaChannel2videoFrame(image, frame);
    return frame;
}

}  // namespace

WallCompositor::WallCompositor(int columns, int rows, int tileWidth, int tileHeight,
                               const std::vector<QString>& names)
    : mosaic_(columns * tileWidth, rows * tileHeight, orvo::VideoFrame::Format_YUV420P, orvo::defaultBufferProperties)
{
    mosaic_.map(QAbstractVideoBuffer::ReadWrite);
    mosaic_.fillYuv(0x00108080, orvo::Rect(0, 0, mosaic_.width(), mosaic_.height()));  // black
    mosaic_.unmap();
    for (int i = 0; i < columns * rows && i < int(names.size()); ++i) {
        Tile t;
        t.x = (i % columns) * tileWidth;
        t.y = (i / columns) * tileHeight;
        t.view = tileView(mosaic_, t.x, t.y, tileWidth, tileHeight);
        t.label = label(names[size_t(i)], tileWidth);
        t.scaler = std::make_unique<orvo::ScaleContext>();
        tiles_.push_back(std::move(t));
    }
}

void WallCompositor::drawTile(int index, const orvo::VideoFrame& frame)
{
    if (index < 0 || index >= int(tiles_.size()) || frame.isNull() || !frame.isValid())
        return;
    Tile& t = tiles_[size_t(index)];
    if (!frame.scaleTo(t.view, *t.scaler, 0, 0, -1, -1)) {
        frame.unmap();
        t.view.unmap();
        return;
    }
    mosaic_.blend(t.label, t.x + 4, t.y + 4);
}
