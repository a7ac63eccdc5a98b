// The dispatch queue on its own: its idle beat and the end of its runners,
// which no native shows.
#include "dispatch/UiaEventQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

using namespace tolva;

TEST(UiaEventQueue, QuietQueueMakesOneIdleEntryEveryTwoSeconds) {
    UiaEventQueue::create(GetCurrentThreadId());
    const ULONGLONG start = GetTickCount64();
    std::vector<ULONGLONG> idle;
    while (idle.size() < 2) {
        EXPECT_EQ(UIA_EVENT_IDLE, UiaEventQueue::getInstance()->next()->id);
        idle.push_back(GetTickCount64() - start);
    }
    UiaEventQueue::destroy();
    EXPECT_GE(idle[0], 1900u);
    EXPECT_LT(idle[0], 2600u);
    EXPECT_GE(idle[1] - idle[0], 1900u);
    EXPECT_LT(idle[1] - idle[0], 2600u);
}

namespace {

// Counts its runs and its destruction.
struct CountingRunner : Runnable {
    CountingRunner(std::atomic<int>& runs, std::atomic<int>& deleted) : runs(runs), deleted(deleted) {}
    ~CountingRunner() override { ++deleted; }
    std::int32_t operator()() override { return ++runs; }
    std::atomic<int>& runs;
    std::atomic<int>& deleted;
};

}  // namespace

// The queue owns what it is given: a runner is deleted exactly once, whether
// it ran at once, left the queue as an entry, was still queued at the end or
// came after it.
TEST(UiaEventQueue, EveryRunnerIsDeletedOnceWhetherItRanOrNot) {
    std::atomic<int> runs{0};
    std::atomic<int> deleted{0};
    UiaEventQueue::create(GetCurrentThreadId());
    auto queue = UiaEventQueue::getInstance();
    EXPECT_EQ(1, queue->invokeNow(new CountingRunner(runs, deleted)));  // on the dispatch thread: at once
    EXPECT_EQ(1, deleted.load());
    queue->invokeLater(new CountingRunner(runs, deleted));
    queue->invokeLaterQuiet(new CountingRunner(runs, deleted));
    queue->next().reset();  // taken out and dropped unrun
    EXPECT_EQ(2, deleted.load());
    UiaEventQueue::destroy();  // the quiet one is still queued
    EXPECT_EQ(3, deleted.load());
    queue->invokeLater(new CountingRunner(runs, deleted));  // an ended queue turns it away
    EXPECT_EQ(4, deleted.load());
    EXPECT_EQ(1, runs.load());
}
