#pragma once
// AccessUnitSplitter: turns camera payloads of H.264 or H.265 cut anywhere between NAL
// units into whole access units, found from the NAL units themselves.
//
// An access unit ends where the next one begins (an access unit delimiter, parameter
// sets or SEI after a slice, the first slice of a new picture), after an end of sequence,
// or where the client says so (the RTP marker bit). Cameras that send one whole access
// unit per payload are recognised from the stream: once a payload that held an access
// unit's head and slices is followed by one that begins an access unit (or three payloads
// in a row began an access unit with its first slice and were followed so), every payload
// that begins an access unit is taken to end it too, so its picture comes out in the same
// call. The first payload of a stream is taken so when it holds a head and slices. A
// payload that goes on with the slices of an unfinished picture switches that off again.
//
// Each unit carries the tag of the payload that held its first slice: that payload's
// identity is the picture's. A plain byte parser: no FFmpeg, no allocation per NAL unit.
#include <QtGlobal>
#include <cstdint>
#include <functional>
#include <vector>

namespace orvo {

class AccessUnitSplitter {
public:
    enum class Codec { H264, Hevc };

    struct Unit {
        const uint8_t* data;
        int size;
        qint64 tag;  // tag of the payload that held the unit's first slice
    };
    using Sink = std::function<void(const Unit&)>;

    // What one payload held.
    struct Payload {
        int nalUnits = 0;      // NAL units of this codec
        int foreignUnits = 0;  // NAL units this codec does not have (another format, or garbage)
        bool hasSlice = false;
    };

    explicit AccessUnitSplitter(Codec codec) : codec_(codec) {}

    // Splits one payload tagged `tag`; every access unit it completes goes to `sink` (the
    // bytes are valid during the call only). `endsUnit`: the payload is the last of its
    // access unit.
    Payload push(const uint8_t* data, int size, qint64 tag, bool endsUnit, const Sink& sink);
    // End of stream: the access unit being assembled, if it holds a slice.
    void flush(const Sink& sink);
    // Forgets the unit being assembled and what was learnt of the stream's cut.
    void reset();
    bool holdsSlice() const { return pendingSlice_; }

    // Offset of the next 00 00 01 at or after `from`, or -1.
    static int findStartCode(const uint8_t* data, int size, int from);

private:
    enum class Kind { Slice, FirstSlice, Head, Other, EndOfSequence, Foreign };
    Kind classify(const uint8_t* nal, int length) const;
    void complete(const Sink& sink);
    void dropPending();

    Codec codec_;
    // The unit being assembled: bytes from earlier payloads, then a run of the current one.
    std::vector<uint8_t> owned_;
    const uint8_t* borrowed_ = nullptr;
    int borrowedSize_ = 0;
    bool pendingSlice_ = false;
    qint64 pendingTag_ = -1;
    // The cut of the stream as seen so far.
    enum class Alignment { Unknown, WholeUnits, Split };
    Alignment alignment_ = Alignment::Unknown;
    // The last payload began with the head of an access unit (delimiter, parameter sets,
    // SEI) and held its slices: a stream cut between NAL units never sends that.
    bool lastHeldHeadAndSlice_ = false;
    // The last payload began an access unit and held a slice; how many such were followed
    // by one that began the next access unit, in a row.
    bool lastBeganWithSlice_ = false;
    int wholeRun_ = 0;
};

}  // namespace orvo
