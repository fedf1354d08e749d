#include "decoders/access_unit_splitter.h"

#include <cstring>

namespace orvo {
namespace {

// A unit that never ends (a hostile stream of continuation slices) is let go at this size.
constexpr size_t kMaxUnitBytes = 32u << 20;
// The buffer of split units is kept between units up to this size (a 4K I-frame), so that
// one huge unit does not stay allocated for the stream's life.
constexpr size_t kKeptCapacity = 4u << 20;

bool onlyZeros(const uint8_t* from, const uint8_t* to)
{
    for (; from < to; ++from)
        if (*from)
            return false;
    return true;
}

}  // namespace

int AccessUnitSplitter::findStartCode(const uint8_t* data, int size, int from)
{
    // memchr finds the 01 of each candidate; two zeros before it make a start code.
    for (int i = from + 2; i < size;) {
        const void* one = std::memchr(data + i, 1, size_t(size - i));
        if (!one)
            return -1;
        i = int(static_cast<const uint8_t*>(one) - data);
        if (data[i - 1] == 0 && data[i - 2] == 0)
            return i - 2;
        ++i;
    }
    return -1;
}

AccessUnitSplitter::Kind AccessUnitSplitter::classify(const uint8_t* nal, int length) const
{
    if (length < 2 || (nal[0] & 0x80))
        return Kind::Foreign;
    if (codec_ == Codec::H264) {
        const int type = nal[0] & 0x1f;
        switch (type) {
        case 1:
        case 5:
            // first_mb_in_slice 0 (a ue(v) of one bit) begins a picture.
            return (nal[1] & 0x80) ? Kind::FirstSlice : Kind::Slice;
        case 6: case 7: case 8: case 9: case 14: case 15:
            return Kind::Head;
        case 10: case 11:
            return Kind::EndOfSequence;
        case 12: case 13: case 16: case 17: case 18: case 19: case 20:
            return Kind::Other;
        default:  // unspecified, reserved, and data partitions, which FFmpeg cannot decode
            return Kind::Foreign;
        }
    }
    const int type = (nal[0] >> 1) & 0x3f;
    const int layer = ((nal[0] & 1) << 5) | (nal[1] >> 3);
    if (layer != 0 || (nal[1] & 7) == 0)
        return Kind::Foreign;
    if (type <= 9 || (type >= 16 && type <= 21)) {
        if (length < 3)
            return Kind::Foreign;
        return (nal[2] & 0x80) ? Kind::FirstSlice : Kind::Slice;  // first_slice_segment_in_pic_flag
    }
    switch (type) {
    case 32: case 33: case 34: case 35: case 39:
        return Kind::Head;
    case 36: case 37:
        return Kind::EndOfSequence;
    case 38: case 40:
        return Kind::Other;
    default:
        return Kind::Foreign;
    }
}

AccessUnitSplitter::Payload AccessUnitSplitter::push(const uint8_t* data, int size, qint64 tag, bool endsUnit,
                                                     const Sink& sink)
{
    Payload info;
    borrowed_ = nullptr;
    borrowedSize_ = 0;
    bool first = true, beganUnit = false, beganWithHead = false;
    int start = data && size > 0 ? findStartCode(data, size, 0) : -1;
    while (start >= 0) {
        const int header = start + 3;
        const int next = findStartCode(data, size, header);
        int end = next < 0 ? size : next;
        // A NAL unit never ends in a zero byte: those belong to the next start code.
        while (end > header && data[end - 1] == 0)
            --end;
        const Kind kind = classify(data + header, end - header);
        start = next;
        if (kind == Kind::Foreign) {
            ++info.foreignUnits;
            continue;
        }
        ++info.nalUnits;
        if (first) {
            first = false;
            beganUnit = kind == Kind::Head || kind == Kind::FirstSlice;
            beganWithHead = kind == Kind::Head;
            // Whole units for sure after a payload with a head and slices; after payloads that
            // began with a first slice only when it keeps happening (a picture that lost all
            // but its first slice looks like one once).
            wholeRun_ = beganUnit && lastBeganWithSlice_ ? wholeRun_ + 1 : 0;
            if (beganUnit && (lastHeldHeadAndSlice_ || wholeRun_ >= 3))
                alignment_ = Alignment::WholeUnits;
            else if (kind == Kind::Slice)
                alignment_ = Alignment::Split;  // the slices of an unfinished picture go on here
        }
        if ((kind == Kind::Head || kind == Kind::FirstSlice) && pendingSlice_)
            complete(sink);
        // The unit's bytes: a run of this payload while possible, else a copy.
        const uint8_t* from = data + header - 3;
        const int length = end - (header - 3);
        if (owned_.empty() && (!borrowed_ || onlyZeros(borrowed_ + borrowedSize_, from))) {
            if (!borrowed_)
                borrowed_ = from;
            borrowedSize_ = int(from + length - borrowed_);
        } else {
            if (borrowed_) {
                owned_.insert(owned_.end(), borrowed_, borrowed_ + borrowedSize_);
                borrowed_ = nullptr;
                borrowedSize_ = 0;
            }
            owned_.insert(owned_.end(), from, from + length);
        }
        if (kind == Kind::Slice || kind == Kind::FirstSlice) {
            info.hasSlice = true;
            if (!pendingSlice_)
                pendingTag_ = tag;
            pendingSlice_ = true;
        }
        if (kind == Kind::EndOfSequence && pendingSlice_)
            complete(sink);
        if (size_t(owned_.size()) + size_t(borrowedSize_) > kMaxUnitBytes) {
            if (pendingSlice_)
                complete(sink);
            else
                dropPending();  // a head that never gets a slice
        }
    }
    const bool wholeUnits = alignment_ == Alignment::WholeUnits ||
                            (alignment_ == Alignment::Unknown && beganWithHead);
    if (pendingSlice_ && (endsUnit || (beganUnit && info.hasSlice && wholeUnits)))
        complete(sink);
    if (info.nalUnits > 0) {
        lastHeldHeadAndSlice_ = beganWithHead && info.hasSlice;
        lastBeganWithSlice_ = beganUnit && info.hasSlice;
    }
    if (borrowedSize_ > 0)
        owned_.insert(owned_.end(), borrowed_, borrowed_ + borrowedSize_);
    borrowed_ = nullptr;
    borrowedSize_ = 0;
    return info;
}

void AccessUnitSplitter::complete(const Sink& sink)
{
    if (pendingSlice_) {
        Unit unit{};
        if (owned_.empty()) {
            unit.data = borrowed_;
            unit.size = borrowedSize_;
        } else {
            if (borrowedSize_ > 0)
                owned_.insert(owned_.end(), borrowed_, borrowed_ + borrowedSize_);
            unit.data = owned_.data();
            unit.size = int(owned_.size());
        }
        unit.tag = pendingTag_;
        sink(unit);
    }
    dropPending();
}

void AccessUnitSplitter::dropPending()
{
    if (owned_.capacity() > kKeptCapacity)
        std::vector<uint8_t>().swap(owned_);
    else
        owned_.clear();  // keeps the allocation for the next unit
    borrowed_ = nullptr;
    borrowedSize_ = 0;
    pendingSlice_ = false;
    pendingTag_ = -1;
}

void AccessUnitSplitter::flush(const Sink& sink)
{
    if (pendingSlice_)
        complete(sink);
    dropPending();
}

void AccessUnitSplitter::reset()
{
    dropPending();
    alignment_ = Alignment::Unknown;
    lastHeldHeadAndSlice_ = false;
    lastBeganWithSlice_ = false;
    wholeRun_ = 0;
}

}  // namespace orvo
