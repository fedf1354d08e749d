#include "decoders/packet_feeder.h"

#include "decoders/format_table.h"

#include <algorithm>

namespace orvo {
namespace {

// Ready pictures beyond this are dropped, oldest first: a payload that packs many
// pictures must not make the queue grow without bound. Above the deepest reordering.
constexpr size_t kMaxReady = 32;
// A tag is given up once this many units beyond the reordering depth were sent after it
// without its picture: no decoder holds a picture that long.
constexpr quint64 kMaxWaitingUnits = 32;
constexpr size_t kRecentTags = 64;

}  // namespace

PacketFeeder::PacketFeeder(FFmpegDecodingLoop& loop, DamagePolicy policy)
    : loop_(&loop),
      codec_(loop.context()),
      policy_(policy),
      sendUnit_([this](const AccessUnitSplitter::Unit& unit) { send(unit.data, unit.size, unit.tag); }),
      acceptFrame_([this](AVFrame* frame) {
          accept(frame);
          return true;
      })
{
    format_ = formats::forCodec(codec_->codec_id);
    const formats::Parser parser = format_ ? format_->parser : formats::Parser::None;
    if (parser != formats::Parser::None) {
        const auto codec =
            parser == formats::Parser::H264 ? AccessUnitSplitter::Codec::H264 : AccessUnitSplitter::Codec::Hevc;
        splitter_ = std::make_unique<AccessUnitSplitter>(codec);
        form_ = std::make_unique<NalPayloadForm>(codec);
    }
}

PacketFeeder::~PacketFeeder()
{
    for (AVFrame* f : ready_)
        av_frame_free(&f);
    for (AVFrame* f : spare_)
        av_frame_free(&f);
}

PacketFeeder::Result PacketFeeder::feed(const uint8_t* data, int size, qint64 tag, bool endsUnit)
{
    rejectReason_.clear();
    // An empty packet would switch the decoder into draining.
    if (!data || size <= 0) {
        rejectReason_ = QStringLiteral("empty payload");
        return Result::Rejected;
    }
    if (form_) {
        switch (form_->classify(data, size)) {
        case NalPayloadForm::Form::StartCodes:
            break;
        case NalPayloadForm::Form::LengthPrefixed:
            NalPayloadForm::toStartCodes(data, size, converted_);
            data = converted_.data();
            break;
        case NalPayloadForm::Form::Neither:
            rejectReason_ = QStringLiteral("not %1 NAL units: no start code, and no 4-byte big-endian lengths "
                                           "that cover the payload")
                                .arg(QLatin1String(format_->name));
            return Result::Rejected;
        }
    } else if (format_ && format_->byteStream && AccessUnitSplitter::findStartCode(data, size, 0) < 0) {
        rejectReason_ = QStringLiteral("no start code: the payload is not a %1 byte stream")
                            .arg(QLatin1String(format_->name));
        return Result::Rejected;
    }
    if (draining_)
        restart();  // a new stream after a partial drain
    if (!splitter_) {
        send(data, size, tag);
    } else {
        const AccessUnitSplitter::Payload payload = splitter_->push(data, size, tag, endsUnit, sendUnit_);
        // Nothing to decode, or units of another format around no slice of this one.
        if (payload.nalUnits == 0 || (payload.foreignUnits > 0 && !payload.hasSlice)) {
            rejectReason_ = QStringLiteral("no %1 NAL unit in the payload (is the format code right?)")
                                .arg(QLatin1String(format_->name));
            return Result::Rejected;
        }
    }
    return ready_.empty() ? Result::Accepted : Result::Picture;
}

void PacketFeeder::send(const uint8_t* data, int size, qint64 tag)
{
    if (beforeKeyUnit_ && splitter_ && isKeyUnit(data, size))
        beforeKeyUnit_();
    const quint64 serial = nextSerial_++;
    if (tag > 0)
        sent_.push_back({tag, serial});
    if (loop_->decode(data, size, tag, acceptFrame_) == FFmpegDecodingLoop::Result::SendFailed) {
        if (tag > 0) {
            const auto it =
                std::find_if(sent_.begin(), sent_.end(), [&](const Sent& s) { return s.serial == serial; });
            if (it != sent_.end()) {
                sent_.erase(it);
                end(tag, QStringLiteral("FFmpeg refused it: %1")
                             .arg(QString::fromStdString(FFmpegDecodingLoop::errorText(loop_->lastError()))));
            }
        }
        loop_->receive(acceptFrame_);  // pictures that were waiting still come out
    }
    // Nothing holds a picture this long: what still waits gave none.
    const quint64 depth = quint64(std::max(0, codec_->has_b_frames)) + kMaxWaitingUnits;
    while (!sent_.empty() && sent_.front().serial + depth < nextSerial_) {
        end(sent_.front().tag, QStringLiteral("no picture came out for it"));
        sent_.pop_front();
    }
}

void PacketFeeder::accept(AVFrame* picture)
{
    const qint64 tag = picture->pts == AV_NOPTS_VALUE ? -1 : picture->pts;
    const auto it = std::find_if(sent_.begin(), sent_.end(), [&](const Sent& s) { return s.tag == tag; });
    // Each unit sent gives at most one picture: one that belongs to no waiting unit (its
    // unit was answered already, or FFmpeg lost its time stamp) could only answer an image
    // twice, or the wrong one. Untagged payloads (tag 0) are not followed.
    const bool followed = tag != 0;
    if (followed && it == sent_.end()) {
        av_frame_unref(picture);
        return;
    }
    if (it != sent_.end()) {
        const quint64 serial = it->serial;
        sent_.erase(it);
        settleBefore(serial, picture->key_frame != 0);
    }
    if (followed && std::find(recentlyEnded_.begin(), recentlyEnded_.end(), tag) != recentlyEnded_.end()) {
        av_frame_unref(picture);  // its payload was answered already, by an error
        return;
    }
    const bool damaged = picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT);
    if (policy_ == DamagePolicy::WaitForKeyFrame) {
        if (damaged)
            waitingForKey_ = true;
        else if (picture->key_frame)
            waitingForKey_ = false;
        if (waitingForKey_) {
            av_frame_unref(picture);
            if (tag > 0)
                end(tag, QStringLiteral("damaged picture not shown: waiting for the next key frame"));
            return;
        }
    }
    AVFrame* f = nullptr;
    if (!spare_.empty()) {
        f = spare_.back();
        spare_.pop_back();
    } else {
        f = av_frame_alloc();
    }
    if (!f) {
        av_frame_unref(picture);
        if (tag > 0)
            end(tag, QStringLiteral("out of memory"));
        return;
    }
    av_frame_move_ref(f, picture);
    ready_.push_back(f);
    if (tag > 0)
        remember(recentlyShown_, tag);
    if (ready_.size() > kMaxReady) {
        AVFrame* oldest = ready_.front();
        ready_.pop_front();
        if (oldest->pts > 0)
            end(oldest->pts, QStringLiteral("too many pictures at once: the oldest was dropped"));
        av_frame_unref(oldest);
        spare_.push_back(oldest);
    }
}

void PacketFeeder::settleBefore(quint64 serial, bool key)
{
    // Pictures leave the decoder in display order. Without reordering a unit sent earlier
    // cannot come after this one; with it, a picture may be overtaken by as many
    // B-pictures as follow it, but not by a key picture.
    const bool reorders = codec_->has_b_frames > 0;
    for (auto it = sent_.begin(); it != sent_.end() && it->serial < serial;) {
        if (key || !reorders) {
            end(it->tag, QStringLiteral("the decoder gave no picture for it (a reference was missing, or the "
                                        "picture was damaged beyond use)"));
            it = sent_.erase(it);
        } else {
            ++it;
        }
    }
}

void PacketFeeder::end(qint64 tag, const QString& reason)
{
    // A payload holding several access units is answered once: by its pictures, or by
    // one error.
    if (std::find(recentlyEnded_.begin(), recentlyEnded_.end(), tag) != recentlyEnded_.end() ||
        std::find(recentlyShown_.begin(), recentlyShown_.end(), tag) != recentlyShown_.end())
        return;
    ended_.emplace_back(tag, reason);
    remember(recentlyEnded_, tag);
}

void PacketFeeder::remember(std::deque<qint64>& tags, qint64 tag)
{
    if (!tags.empty() && tags.back() == tag)
        return;
    tags.push_back(tag);
    if (tags.size() > kRecentTags)
        tags.pop_front();
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

bool PacketFeeder::takeEnded(qint64* tag, QString* reason)
{
    if (ended_.empty())
        return false;
    *tag = ended_.front().first;
    *reason = ended_.front().second;
    ended_.pop_front();
    return true;
}

bool PacketFeeder::drain(AVFrame* out, qint64* tag)
{
    if (!draining_) {
        if (splitter_)
            splitter_->flush(sendUnit_);
        if (takePicture(out, tag))
            return true;
        loop_->drain(acceptFrame_);
        draining_ = true;
    }
    if (takePicture(out, tag))
        return true;
    loop_->receive(acceptFrame_);
    if (takePicture(out, tag))
        return true;
    restart();
    return false;
}

void PacketFeeder::switchLoop(FFmpegDecodingLoop& loop, const QString& reason)
{
    abandonWaiting(reason);
    loop_ = &loop;
    codec_ = loop.context();
    draining_ = false;
}

bool PacketFeeder::isKeyUnit(const uint8_t* data, int size) const
{
    const bool hevc = format_ && format_->parser == formats::Parser::Hevc;
    // The first picture NAL unit decides; parameter sets and SEI come before it.
    for (int at = AccessUnitSplitter::findStartCode(data, size, 0); at >= 0;
         at = AccessUnitSplitter::findStartCode(data, size, at + 3)) {
        if (at + 3 >= size)
            return false;
        const uint8_t header = data[at + 3];
        if (hevc) {
            const int type = (header >> 1) & 0x3f;
            if (type < 32)
                return type >= 16 && type <= 23;
        } else {
            const int type = header & 0x1f;
            if (type >= 1 && type <= 5)
                return type == 5;
        }
    }
    return false;
}

void PacketFeeder::drainLoop(const QString& reason)
{
    loop_->drain(acceptFrame_);
    abandonWaiting(reason);
}

void PacketFeeder::abandonWaiting(const QString& reason)
{
    for (const Sent& s : sent_)
        end(s.tag, reason);
    sent_.clear();
}

void PacketFeeder::restart()
{
    loop_->flush();
    draining_ = false;
    waitingForKey_ = false;
    // Pictures a partial drain left, and units that never gave one, are answered here.
    for (AVFrame* f : ready_) {
        if (f->pts > 0)
            end(f->pts, QStringLiteral("dropped: a new stream began before the drain finished"));
        av_frame_free(&f);
    }
    ready_.clear();
    for (const Sent& s : sent_)
        end(s.tag, QStringLiteral("the stream ended without a picture for it"));
    sent_.clear();
    if (splitter_)
        splitter_->reset();
}

}  // namespace orvo
