#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"

using namespace std::chrono_literals;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::ThreadWorkerPool;
using sprelio::platform::test::TestPlatform;

TEST(VirtualLoop, TimersFireInDueOrderAndOnlyWhenTimeReachesThem) {
    TestPlatform p;
    std::vector<std::string> seen;
    p.loop().schedule(30ms, [&] { seen.push_back("30"); });
    p.loop().schedule(10ms, [&] { seen.push_back("10a"); });
    p.loop().schedule(10ms, [&] { seen.push_back("10b"); });
    p.advance(9ms);
    EXPECT_TRUE(seen.empty());
    p.advance(1ms);
    EXPECT_EQ(seen, (std::vector<std::string>{"10a", "10b"}));
    p.advance(20ms);
    EXPECT_EQ(seen.back(), "30");
    EXPECT_EQ(p.elapsed(), 30ms);
}

TEST(VirtualLoop, CancelledTimerNeverFiresAndReportsNoTimeLeft) {
    TestPlatform p;
    bool fired = false;
    auto timer = p.loop().schedule(1s, [&] { fired = true; });
    p.advance(400ms);
    EXPECT_EQ(timer->remaining(), 600ms);
    timer->invalidate();
    p.advance(2s);
    EXPECT_FALSE(fired);
    EXPECT_FALSE(timer->isValid());
    EXPECT_EQ(timer->remaining(), 0ms);
}

TEST(VirtualLoop, TimerScheduledByATimerUsesTheTimeItFiredAt) {
    TestPlatform p;
    std::chrono::nanoseconds secondFiredAt{0};
    p.loop().schedule(100ms, [&] { p.loop().schedule(50ms, [&] { secondFiredAt = p.elapsed(); }); });
    p.advance(1s);
    EXPECT_EQ(secondFiredAt, 150ms);
    const auto wall = p.now();
    p.advance(1500ms);
    EXPECT_EQ(p.now() - wall, 1500ms);
}

TEST(VirtualLoop, PostedTasksRunInOrderIncludingWhatTheyPost) {
    TestPlatform p;
    std::string order;
    p.loop().post([&] {
        order += "a";
        p.loop().post([&] { order += "c"; });
    });
    p.loop().post([&] { order += "b"; });
    EXPECT_EQ(p.runUntilIdle(), 3u);
    EXPECT_EQ(order, "abc");
}

TEST(RealTimeLoop, RunsTasksPostedFromOtherThreadsAndTimersInOrder) {
    RealTimeLoop loop;
    std::vector<int> seen;
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i) loop.post([&seen, i] { seen.push_back(i); });
    });
    poster.join();
    loop.schedule(20ms, [&] { seen.push_back(1000); });
    loop.schedule(5ms, [&] { seen.push_back(500); });
    ASSERT_TRUE(loop.runUntil([&] { return seen.size() == 102; }, 5s));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(seen[100], 500);
    EXPECT_EQ(seen[101], 1000);
}

TEST(RealTimeLoop, CancelledTimerDoesNotRunAndRunUntilTimesOut) {
    RealTimeLoop loop;
    bool fired = false;
    auto t = loop.schedule(10ms, [&] { fired = true; });
    t->invalidate();
    EXPECT_FALSE(loop.runUntil([&] { return fired; }, 50ms));
    EXPECT_FALSE(fired);
}

TEST(RealTimeLoop, QuitFromAnotherThreadEndsRun) {
    RealTimeLoop loop;
    std::atomic<bool> started{false};
    loop.post([&] { started = true; });
    std::thread stopper([&] {
        while (!started) std::this_thread::yield();
        loop.quit();
    });
    loop.run();
    stopper.join();
    EXPECT_TRUE(started);
}

TEST(ThreadWorkerPool, RunsEverySubmittedTaskOffTheCallingThread) {
    std::atomic<int> count{0};
    std::atomic<bool> offThread{true};
    const auto self = std::this_thread::get_id();
    {
        ThreadWorkerPool pool(2);
        for (int i = 0; i < 1000; ++i)
            pool.submit([&] {
                if (std::this_thread::get_id() == self) offThread = false;
                ++count;
            });
    } // the destructor drains the queue
    EXPECT_EQ(count, 1000);
    EXPECT_TRUE(offThread);
}
