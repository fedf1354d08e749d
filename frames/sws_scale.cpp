#include "frames/sws_scale.h"

#include <climits>
#include <cstring>

extern "C" {
#include <libavutil/common.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace orvo::sws {

namespace {

// One allocation holding a padded copy of some rows of each plane, freed with the object.
class PaddedRows {
public:
    PaddedRows() = default;
    ~PaddedRows() { av_free(buffer_); }
    PaddedRows(const PaddedRows&) = delete;
    PaddedRows& operator=(const PaddedRows&) = delete;

    // Room for rows[i] rows of rowBytes[i] bytes per plane, each row with outputRowStride
    // and each plane followed by kOutputSlack bytes; `zeroed` for rows that swscale reads
    // past their end. False when out of memory.
    bool allocate(const int rowBytes[4], const int rows[4], bool zeroed)
    {
        qint64 offsets[4] = {0, 0, 0, 0};
        qint64 total = 0;
        for (int i = 0; i < 4; ++i) {
            if (rowBytes[i] < 1 || rows[i] < 1)
                continue;
            offsets[i] = total;
            total += outputRowStride(rowBytes[i]) * rows[i] + kOutputSlack;
        }
        if (total < 1 || total > INT_MAX)
            return false;
        buffer_ = static_cast<uint8_t*>(zeroed ? av_mallocz(size_t(total)) : av_malloc(size_t(total)));
        if (!buffer_)
            return false;
        for (int i = 0; i < 4; ++i) {
            if (rowBytes[i] < 1 || rows[i] < 1)
                continue;
            data[i] = buffer_ + offsets[i];
            stride[i] = int(outputRowStride(rowBytes[i]));
        }
        return true;
    }

    uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
    int stride[4] = {0, 0, 0, 0};

private:
    uint8_t* buffer_ = nullptr;
};

void copyRows(uint8_t* dst, qint64 dstStride, const uint8_t* src, qint64 srcStride, int rowBytes, int rows)
{
    for (int r = 0; r < rows; ++r)
        memcpy(dst + r * dstStride, src + r * srcStride, size_t(rowBytes));
}

// Runs sws_scale over the whole source into planes with room for its overruns; returns the
// destination rows written, or -1. The last source rows are fed as a second slice from a padded
// copy, so that the overread of the first slice stays inside its planes and that of the
// second inside the copy; the output is the same as that of one call.
int scaleRows(SwsContext* context, const Planes& src, uint8_t* const dst[4], const int dstStride[4])
{
    if (src.overreadable) {
        const uint8_t* const data[4] = {src.data[0], src.data[1], src.data[2], src.data[3]};
        return sws_scale(context, data, src.stride, 0, src.rows[0], dst, dstStride);
    }
    const int srcH = src.rows[0];
    // Chroma planes decimate rows by up to four: the slice boundary falls on a whole chroma row.
    int step = 2;
    for (int i = 1; i < 3; ++i)
        while (src.rows[i] > 0 && qint64(src.rows[i]) * step < srcH)
            step *= 2;
    // Enough tail rows that an overread starting in the first slice cannot leave the plane.
    int tail = step;
    while (tail < srcH && qint64(tail) * qMax(src.stride[0], 1) < 4 * kOutputSlack)
        tail += step;
    const int head = srcH > tail ? (srcH - tail) / step * step : 0;

    int firstRow[4] = {0, 0, 0, 0};
    int tailRows[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        if (!src.data[i] || src.rowBytes[i] < 1)
            continue;
        // Rows of plane i above the boundary: in proportion for decimated chroma (exact, as the
        // boundary is a multiple of the decimation); a palette is copied whole.
        firstRow[i] = src.rows[i] == srcH ? head : src.rows[i] == 1 ? 0 : int(qint64(head) * src.rows[i] / srcH);
        tailRows[i] = src.rows[i] - firstRow[i];
    }
    PaddedRows copy;
    if (!copy.allocate(src.rowBytes, tailRows, true))
        return -1;
    const uint8_t* tailSrc[4] = {nullptr, nullptr, nullptr, nullptr};
    int tailStride[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        if (!copy.data[i])
            continue;
        copyRows(copy.data[i], copy.stride[i], src.data[i] + qint64(firstRow[i]) * src.stride[i], src.stride[i],
                 src.rowBytes[i], tailRows[i]);
        tailSrc[i] = copy.data[i];
        tailStride[i] = copy.stride[i];
    }
    int written = 0;
    if (head > 0) {
        const uint8_t* const headSrc[4] = {src.data[0], src.data[1], src.data[2], src.data[3]};
        const int rows = sws_scale(context, headSrc, src.stride, 0, head, dst, dstStride);
        if (rows < 0)
            return -1;
        written = rows;
    }
    const int rows = sws_scale(context, tailSrc, tailStride, head, srcH - head, dst, dstStride);
    return rows < 0 ? -1 : written + rows;
}

}  // namespace

Planes Planes::of(AVPixelFormat format, int width, int height, const uint8_t* const data[4], const int stride[4])
{
    Planes p;
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    int lines[4] = {0, 0, 0, 0};
    if (!desc || width < 1 || height < 1 || av_image_fill_linesizes(lines, format, width) < 0)
        return p;
    // Paletted formats carry their 256 colours as plane 1.
    const bool paletted = desc->flags & AV_PIX_FMT_FLAG_PAL;
    if (paletted)
        lines[1] = 4 * 256;
    for (int i = 0; i < 4; ++i) {
        if (lines[i] < 1)
            continue;
        if (!data[i])
            return Planes();
        // Source planes are only read; the one type serves both directions.
        p.data[i] = const_cast<uint8_t*>(data[i]);
        p.stride[i] = stride[i];
        p.rowBytes[i] = lines[i];
        if (i == 1 && paletted)
            p.rows[i] = 1;
        else
            p.rows[i] = i == 1 || i == 2 ? AV_CEIL_RSHIFT(height, desc->log2_chroma_h) : height;
    }
    return p;
}

bool scale(SwsContext* context, const Planes& source, const Planes& destination, Room room)
{
    if (!context || source.isNull() || destination.isNull())
        return false;
    if (room == Room::Slack)
        return scaleRows(context, source, destination.data, destination.stride) == destination.rows[0];

    // Convert into padded rows, then place exactly the picture's bytes.
    PaddedRows scratch;
    if (!scratch.allocate(destination.rowBytes, destination.rows, false))
        return false;
    if (scaleRows(context, source, scratch.data, scratch.stride) != destination.rows[0])
        return false;
    for (int i = 0; i < 4; ++i)
        if (scratch.data[i] && destination.data[i])
            copyRows(destination.data[i], destination.stride[i], scratch.data[i], scratch.stride[i],
                     destination.rowBytes[i], destination.rows[i]);
    return true;
}

namespace {

SwsContext* makeContext(const Conversion& c)
{
    SwsContext* s = sws_alloc_context();
    if (!s)
        return nullptr;
    av_opt_set_int(s, "srcw", c.srcWidth, 0);
    av_opt_set_int(s, "srch", c.srcHeight, 0);
    av_opt_set_int(s, "src_format", c.srcFormat, 0);
    av_opt_set_int(s, "dstw", c.dstWidth, 0);
    av_opt_set_int(s, "dsth", c.dstHeight, 0);
    av_opt_set_int(s, "dst_format", c.dstFormat, 0);
    av_opt_set_int(s, "sws_flags", c.flags, 0);
    // The range conversion must be known before init so that swscale does not pick a plain
    // plane copy.
    av_opt_set_int(s, "src_range", c.srcFullRange ? 1 : 0, 0);
    av_opt_set_int(s, "dst_range", 0, 0);
    if (sws_init_context(s, nullptr, nullptr) < 0) {
        sws_freeContext(s);
        return nullptr;
    }
    return s;
}

// Contexts given up on this thread, newest last; freed when the thread ends.
struct SpareContexts {
    static constexpr int kCapacity = 4;
    Conversion conversion[kCapacity];
    SwsContext* context[kCapacity] = {};
    int count = 0;

    ~SpareContexts();

    void put(const Conversion& c, SwsContext* s)
    {
        if (count == kCapacity) {  // the oldest goes
            sws_freeContext(context[0]);
            remove(0);
        }
        conversion[count] = c;
        context[count++] = s;
    }
    SwsContext* take(const Conversion& c)
    {
        for (int i = count - 1; i >= 0; --i) {
            if (conversion[i] == c) {
                SwsContext* s = context[i];
                remove(i);
                return s;
            }
        }
        return nullptr;
    }
    void remove(int i)
    {
        for (; i + 1 < count; ++i) {
            conversion[i] = conversion[i + 1];
            context[i] = context[i + 1];
        }
        --count;
    }
};

// Trivially destructible, so still readable while the thread's other objects are destroyed
// (a scaler released then frees its context instead of reaching a destroyed list).
thread_local bool sparesGone = false;

SpareContexts::~SpareContexts()
{
    for (int i = 0; i < count; ++i)
        sws_freeContext(context[i]);
    count = 0;
    sparesGone = true;
}

SpareContexts* spares()
{
    if (sparesGone)
        return nullptr;
    thread_local SpareContexts list;
    return &list;
}

void giveUp(const Conversion& c, SwsContext* s)
{
    if (!s)
        return;
    if (SpareContexts* list = spares())
        list->put(c, s);
    else
        sws_freeContext(s);
}

}  // namespace

Scaler::~Scaler() { giveUp(conversion_, context_); }

SwsContext* Scaler::remake(const Conversion& conversion)
{
    giveUp(conversion_, context_);
    SpareContexts* list = spares();
    context_ = list ? list->take(conversion) : nullptr;
    if (!context_)
        context_ = makeContext(conversion);
    conversion_ = conversion;
    return context_;
}

}  // namespace orvo::sws
