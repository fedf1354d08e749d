#pragma once
// Composes the latest frame of every camera into a grid mosaic: each frame is scaled into
// its tile with scaleTo (one ScaleContext per tile) and the tile's name, drawn once with
// QPainter, is alpha-blended on top.
#include <orvo/scale_context.h>
#include <orvo/video_frame.h>

#include <QString>
#include <memory>
#include <vector>

class WallCompositor {
public:
    WallCompositor(int columns, int rows, int tileWidth, int tileHeight, const std::vector<QString>& names);

    // Draws `frame` into tile `index` (a null frame leaves the tile as it was).
    void drawTile(int index, const orvo::VideoFrame& frame);
    const orvo::VideoFrame& mosaic() const { return mosaic_; }
    int width() const { return mosaic_.width(); }
    int height() const { return mosaic_.height(); }

private:
    struct Tile {
        orvo::VideoFrame view;   // planes that point into the mosaic's memory
        orvo::VideoFrame label;  // the name with an alpha plane
        std::unique_ptr<orvo::ScaleContext> scaler;
        int x = 0, y = 0;
    };
    orvo::VideoFrame mosaic_;
    std::vector<Tile> tiles_;
};
