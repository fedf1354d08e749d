#pragma once
#include "orvo/export.h"
// A plain rectangle of the SDK: origin and size in samples.
namespace orvo {

struct ORVO_EXPORT Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    Rect() = default;
    Rect(int x_, int y_, int w, int h) : x(x_), y(y_), width(w), height(h) {}
    bool isEmpty() const { return width <= 0 || height <= 0; }
    bool operator==(const Rect& o) const { return x == o.x && y == o.y && width == o.width && height == o.height; }
};

}  // namespace orvo
