// The pool threads that decode run as batch threads (they never preempt the owner that wakes
// them), while a policy the client gave the pool's threads is kept.
#include "async/async_test_util.h"
#include "orvo/concurrent_decoder.h"

#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

namespace orvo::test {
namespace {

// Scheduling policies of the pool's threads (by name), from /proc: field 41 of each
// thread's stat, after the name in parentheses.
std::vector<int> poolThreadPolicies()
{
    std::vector<int> out;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile stat(tasks.filePath(tid + "/stat"));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.readAll();
        const int open = line.indexOf('('), close = line.lastIndexOf(')');
        if (open < 0 || close < open || line.mid(open + 1, close - open - 1) != "Thread (pooled)")
            continue;
        const QList<QByteArray> fields = line.mid(close + 2).split(' ');  // from field 3 on
        if (fields.size() > 38)
            out.push_back(fields.at(38).toInt());
    }
    return out;
}

// Runs `body` once on every thread of the global pool at the same time.
void onEveryPoolThread(const std::function<void()>& body)
{
    QThreadPool* pool = QThreadPool::globalInstance();
    const int n = pool->maxThreadCount();
    QSemaphore arrived, leave;
    for (int i = 0; i < n; ++i)
        pool->start([&] {
            body();
            arrived.release();
            leave.acquire();  // holds the thread until each one ran the body
        });
    ASSERT_TRUE(arrived.tryAcquire(n, 10000));
    leave.release(n);
    ASSERT_TRUE(poolGoesIdle());
}

void setOwnPolicy(int policy)
{
    sched_param param{};
    pthread_setschedparam(pthread_self(), policy, &param);
}

void decodeSomePictures()
{
    const auto images = toImages(demuxVideo(h264Clip(10, 10)), 'h');
    ASSERT_EQ(images.size(), 10u);
    ConcurrentDecoder decoder;
    int frames = 0;
    QObject::connect(&decoder, &ConcurrentDecoder::frameDecoded, [&](const VideoFrame&) { ++frames; });
    for (const Image& image : images)
        decoder.decode(image);
    ASSERT_TRUE(waitUntil([&] { return frames == 10; }));
    ASSERT_TRUE(poolGoesIdle());
}

TEST(PoolThreads, DecodeAsBatchThreadsKeepingAPolicyTheClientSet)
{
    // Each part on fresh pool threads: Qt's waitForDone() lets the pool's threads go.
    QThreadPool* pool = QThreadPool::globalInstance();
    ASSERT_TRUE(pool->waitForDone(10000));
    decodeSomePictures();
    std::vector<int> policies = poolThreadPolicies();
    EXPECT_NE(std::find(policies.begin(), policies.end(), SCHED_BATCH), policies.end());

    // A client that made its pool's threads idle-class keeps them so.
    ASSERT_TRUE(pool->waitForDone(10000));
    onEveryPoolThread([] { setOwnPolicy(SCHED_IDLE); });
    decodeSomePictures();
    policies = poolThreadPolicies();
    ASSERT_FALSE(policies.empty());
    for (int policy : policies)
        EXPECT_EQ(policy, SCHED_IDLE);
    ASSERT_TRUE(pool->waitForDone(10000));  // no idle-class threads left for later tests
}

}  // namespace
}  // namespace orvo::test
