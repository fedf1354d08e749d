#include "decoders/packet_feeder.h"

#include <cstring>

namespace orvo {
namespace {

// Ready pictures beyond this are dropped, oldest first: a payload that packs many
// pictures must not make the queue grow without bound.
constexpr size_t kMaxReady = 16;
// An H.265 access unit that never ends (a hostile stream of continuation slices) is
// sent as it is once it reaches this size.
constexpr int kMaxUnitBytes = 32 << 20;

bool usesStartCodes(AVCodecID id)
{
    return id == AV_CODEC_ID_H264 || id == AV_CODEC_ID_HEVC || id == AV_CODEC_ID_MPEG2VIDEO ||
           id == AV_CODEC_ID_MPEG4;
}

// Offset of the next 00 00 01 at or after `from`, or -1.
int findStartCode(const uint8_t* data, int size, int from)
{
    for (int i = from; i + 3 <= size; ++i) {
        if (data[i + 2] > 1) {
            i += 2;  // none of the next two positions can start a start code
            continue;
        }
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
            return i;
    }
    return -1;
}

// Does this H.265 NAL unit (header at `nal`, `length` bytes) begin a new access unit?
// Parameter sets, access unit delimiters and prefix SEI come before the first slice of
// a picture; a slice begins one when its first_slice_segment_in_pic_flag is set.
bool beginsHevcAccessUnit(const uint8_t* nal, int length, bool* isSlice)
{
    if (length < 2) {
        *isSlice = false;
        return false;
    }
    const int type = (nal[0] >> 1) & 0x3f;
    *isSlice = type < 32;
    if (*isSlice)
        return length >= 3 && (nal[2] & 0x80) != 0;
    return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
}

}  // namespace

void PacketFeeder::configure(AVCodecContext* codec)
{
    // Chunk mode: a payload may end anywhere between NAL units, and a picture is handed
    // out as soon as its last slice has been decoded.
    if (codec->codec_id == AV_CODEC_ID_H264)
        codec->flags2 |= AV_CODEC_FLAG2_CHUNKS;
}

int PacketFeeder::getBuffer(AVCodecContext* codec, AVFrame* frame, int flags)
{
    auto* self = static_cast<PacketFeeder*>(codec->opaque);
    if (!self)
        return avcodec_default_get_buffer2(codec, frame, flags);
    self->pictureOpen_ = true;
    return self->nextGetBuffer_(codec, frame, flags);
}

void PacketFeeder::pictureBand(AVCodecContext* codec, const AVFrame*, int*, int y, int, int height)
{
    auto* self = static_cast<PacketFeeder*>(codec->opaque);
    if (self && y + height >= codec->height)
        self->pictureOpen_ = false;
}

bool PacketFeeder::leavesPictureUnfinished(const uint8_t* data, int size) const
{
    if (!pictureOpen_)
        return false;
    // The first slice of the payload: first_mb_in_slice 0 (its ue(v) code is a single 1 bit)
    // begins a new picture.
    for (int start = findStartCode(data, size, 0); start >= 0; start = findStartCode(data, size, start + 3)) {
        if (start + 4 >= size)
            return false;
        const int type = data[start + 3] & 0x1f;
        if (type == 1 || type == 5)
            return (data[start + 4] & 0x80) != 0;
    }
    return false;
}

PacketFeeder::PacketFeeder(AVCodecContext* codec)
    : codec_(codec), packet_(av_packet_alloc()), received_(av_frame_alloc())
{
    if (!codec_ || codec_->codec_id != AV_CODEC_ID_H264)
        return;
    // In chunk mode a picture that never gets its last slice (a slice lost on the network)
    // stays open, and FFmpeg then refuses every later picture. The feeder follows each
    // picture from its allocation (passed on to whichever allocator was set) to its last
    // decoded rows to notice that.
    codec_->opaque = this;
    nextGetBuffer_ = codec_->get_buffer2 ? codec_->get_buffer2 : &avcodec_default_get_buffer2;
    codec_->get_buffer2 = &PacketFeeder::getBuffer;
    codec_->draw_horiz_band = &PacketFeeder::pictureBand;
    codec_->slice_flags |= SLICE_FLAG_ALLOW_FIELD;
}

PacketFeeder::~PacketFeeder()
{
    if (codec_ && codec_->opaque == this)
        codec_->opaque = nullptr;
    for (AVFrame* f : ready_)
        av_frame_free(&f);
    for (AVFrame* f : spare_)
        av_frame_free(&f);
    av_frame_free(&received_);
    av_packet_free(&packet_);
}

PacketFeeder::Result PacketFeeder::feed(const uint8_t* data, int size, qint64 tag)
{
    // An empty packet would switch the decoder into draining.
    if (!codec_ || !packet_ || !received_ || !data || size <= 0)
        return Result::Rejected;
    if (usesStartCodes(codec_->codec_id) && findStartCode(data, size, 0) < 0)
        return Result::Rejected;
    if (draining_)
        restart();  // a new stream after a partial drain
    if (codec_->codec_id == AV_CODEC_ID_H264 && leavesPictureUnfinished(data, size)) {
        // Give up the unfinished picture (and what the decoder held back with it); the
        // stream goes on from here and is whole again at its next I-frame at the latest.
        avcodec_flush_buffers(codec_);
        pictureOpen_ = false;
    }
    if (codec_->codec_id == AV_CODEC_ID_HEVC)
        return feedHevc(data, size, tag);
    int result = 0;
    send(data, size, tag, &result);
    if (result < 0)
        return Result::Rejected;
    return ready_.empty() ? Result::Accepted : Result::Picture;
}

void PacketFeeder::send(const uint8_t* data, int size, qint64 tag, int* result)
{
    // Not reference-counted: FFmpeg copies the bytes into a padded buffer of its own.
    packet_->data = const_cast<uint8_t*>(data);
    packet_->size = size;
    packet_->pts = tag;
    packet_->dts = AV_NOPTS_VALUE;
    int ret = avcodec_send_packet(codec_, packet_);
    if (ret == AVERROR(EAGAIN)) {
        // A picture is still waiting: take it, then the packet is accepted.
        collect();
        ret = avcodec_send_packet(codec_, packet_);
    }
    packet_->data = nullptr;
    packet_->size = 0;
    collect();
    *result = ret;
}

void PacketFeeder::collect()
{
    while (avcodec_receive_frame(codec_, received_) >= 0) {
        AVFrame* f = nullptr;
        if (!spare_.empty()) {
            f = spare_.back();
            spare_.pop_back();
        } else {
            f = av_frame_alloc();
        }
        if (!f) {
            av_frame_unref(received_);
            continue;
        }
        av_frame_move_ref(f, received_);
        ready_.push_back(f);
        if (ready_.size() > kMaxReady) {
            av_frame_unref(ready_.front());
            spare_.push_back(ready_.front());
            ready_.pop_front();
        }
    }
}

PacketFeeder::Result PacketFeeder::feedHevc(const uint8_t* data, int size, qint64 tag)
{
    int start = findStartCode(data, size, 0);
    while (start >= 0) {
        const int header = start + 3;
        const int next = findStartCode(data, size, header);
        // The zero in front of a four-byte start code belongs to the next unit.
        const int nalEnd = next < 0 ? size : (data[next - 1] == 0 ? next - 1 : next);
        bool isSlice = false;
        if (beginsHevcAccessUnit(data + header, nalEnd - header, &isSlice) && unitHasSlice_) {
            int ignored = 0;  // a refusal belongs to the payloads already accepted
            flushHevcUnit(&ignored);
        }
        if (unit_.size() > kMaxUnitBytes) {
            int ignored = 0;
            flushHevcUnit(&ignored);
        }
        unit_.append(reinterpret_cast<const char*>(data + start), nalEnd - start);
        if (isSlice && !unitHasSlice_) {
            unitHasSlice_ = true;
            unitTag_ = tag;
        }
        start = next;
    }
    return ready_.empty() ? Result::Accepted : Result::Picture;
}

void PacketFeeder::flushHevcUnit(int* result)
{
    if (!unit_.isEmpty())
        send(reinterpret_cast<const uint8_t*>(unit_.constData()), unit_.size(), unitTag_, result);
    unit_.clear();
    unitHasSlice_ = false;
    unitTag_ = -1;
}

bool PacketFeeder::takePicture(AVFrame* out, qint64* tag)
{
    if (ready_.empty())
        return false;
    AVFrame* f = ready_.front();
    ready_.pop_front();
    av_frame_unref(out);
    av_frame_move_ref(out, f);  // leaves f an empty shell
    spare_.push_back(f);
    *tag = out->pts == AV_NOPTS_VALUE ? -1 : out->pts;
    return true;
}

bool PacketFeeder::drain(AVFrame* out, qint64* tag)
{
    if (!codec_ || !packet_ || !received_)
        return false;
    if (!draining_) {
        if (unitHasSlice_) {
            int ignored = 0;
            flushHevcUnit(&ignored);
        }
        if (takePicture(out, tag))
            return true;
        avcodec_send_packet(codec_, nullptr);
        draining_ = true;
    }
    if (takePicture(out, tag))
        return true;
    av_frame_unref(out);
    if (avcodec_receive_frame(codec_, out) >= 0) {
        *tag = out->pts == AV_NOPTS_VALUE ? -1 : out->pts;
        return true;
    }
    restart();
    return false;
}

void PacketFeeder::restart()
{
    avcodec_flush_buffers(codec_);
    draining_ = false;
    pictureOpen_ = false;
    for (AVFrame* f : ready_)
        av_frame_free(&f);
    ready_.clear();
    unit_.clear();
    unitHasSlice_ = false;
    unitTag_ = -1;
}

}  // namespace orvo
