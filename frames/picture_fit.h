#pragma once
// The size a picture is reduced to for a client's largest output size: one rule for the
// software fit and for scaling on the GPU, so both paths hand over pictures of one size.
#include <QSize>

#include <algorithm>

namespace orvo {

// A picture of `size` samples, shown stretched by `sx` x `sy` (wavelet fields: lines
// doubled), fitted into `bound` as shown with its proportions kept. An invalid size where it
// fits already, where there is no bound, or where the reduction is beyond one pass of
// swscale (more than 16 times: such pictures go out at their own size).
inline QSize reducedSize(const QSize& size, const QSize& bound, int sx = 1, int sy = 1)
{
    sx = std::max(1, sx);
    sy = std::max(1, sy);
    if (bound.isEmpty() || size.width() < 2 || size.height() < 2)
        return {};
    const QSize shown(size.width() * sx, size.height() * sy);
    if (shown.width() <= bound.width() && shown.height() <= bound.height())
        return {};
    const QSize fitted = shown.scaled(bound, Qt::KeepAspectRatio);
    const QSize target = QSize(fitted.width() / sx, fitted.height() / sy).expandedTo(QSize(2, 2));
    if (target.width() * 16 < size.width() || target.height() * 16 < size.height())
        return {};
    return target;
}

}  // namespace orvo
