#include "streams/stream_paths.h"

#include "async/async_test_util.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/single_threaded_decoder.h"

#include <gtest/gtest.h>

#include <memory>

namespace orvo::test {

Outcome decodeThrough(Path path, const std::vector<Image>& images, bool allAccepted)
{
    Outcome out;
    if (path == Path::Decoder || path == Path::DecoderZeroCopy) {
        std::vector<quint64> failed;
        out.frames = decodeImages(images, &failed);
        for (quint64 id : failed)
            out.errors.push_back(DecoderError(1, id));
        return out;
    }
    QObject context;
    auto record = [&](DecoderInterfaceSignals* source, DecoderInterfaceSignals* errors) {
        QObject::connect(source, &DecoderInterfaceSignals::frameDecoded, &context,
                         [&](const VideoFrame& f) { out.frames.push_back(f); });
        QObject::connect(errors, &DecoderInterfaceSignals::error, &context,
                         [&](DecoderError e) { out.errors.push_back(e); });
    };
    if (path == Path::SingleThreaded) {
        SingleThreadedDecoder decoder;
        record(&decoder, decoder.getInterface());
        for (const Image& image : images)
            if (decoder.decode(image) != 1)
                EXPECT_FALSE(allAccepted) << "image " << image.id();
        decoder.drain();
        return out;
    }
    std::unique_ptr<ConcurrentDecoder> decoder(path == Path::Ordered ? new OrderedConcurrentDecoder
                                                                     : new ConcurrentDecoder);
    record(decoder.get(), decoder->getInterface());
    for (const Image& image : images)
        EXPECT_EQ(decoder->decode(image), 1);
    EXPECT_EQ(decoder->drain(), 1);
    auto* impl = static_cast<ConcurrentDecoderImpl*>(decoder->getInterface());
    EXPECT_TRUE(waitUntil([&] { return impl->isBacklogEmpty() && !impl->isBusy(); }));
    spin(5);
    return out;
}

}  // namespace orvo::test
