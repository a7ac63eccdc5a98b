// The dispatch queue on its own: what reaches no native directly.
#include "dispatch/UiaEventQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

using namespace tolva;

namespace {

// Counts its runs and its destruction.
class CountingRunner : public Runnable {
public:
    CountingRunner(std::atomic<int>& runs, std::atomic<int>& deleted, std::int32_t result)
        : runs_(runs), deleted_(deleted), result_(result) {}
    ~CountingRunner() override { ++deleted_; }
    std::int32_t operator()() override {
        ++runs_;
        return result_;
    }

private:
    std::atomic<int>& runs_;
    std::atomic<int>& deleted_;
    std::int32_t result_;
};

struct QueueOnThisThread {
    QueueOnThisThread() { UiaEventQueue::create(GetCurrentThreadId()); }
    ~QueueOnThisThread() { UiaEventQueue::destroy(); }
    UiaEventQueue& queue() { return *UiaEventQueue::getInstance(); }
};

}  // namespace

TEST(UiaEventQueue, QuietQueueMakesOneIdleEntryEveryTwoSeconds) {
    QueueOnThisThread owner;
    const ULONGLONG start = GetTickCount64();
    std::vector<ULONGLONG> idle;
    while (idle.size() < 2) {
        EXPECT_EQ(UIA_EVENT_IDLE, owner.queue().next()->id);
        idle.push_back(GetTickCount64() - start);
    }
    EXPECT_GE(idle[0], 1900u);
    EXPECT_LT(idle[0], 2600u);
    EXPECT_GE(idle[1] - idle[0], 1900u);
    EXPECT_LT(idle[1] - idle[0], 2600u);
}

TEST(UiaEventQueue, EntriesComeOutFirstInFirstOutAndLaterRunnersBelongToThem) {
    QueueOnThisThread owner;
    std::atomic<int> runs{0};
    std::atomic<int> deleted{0};
    owner.queue().post(std::make_unique<UiaEvent>(UIA_EVENT_TRIGGER));
    owner.queue().invokeLater(new CountingRunner(runs, deleted, 1));
    owner.queue().invokeLaterQuiet(new CountingRunner(runs, deleted, 1));
    owner.queue().post(std::make_unique<UiaEvent>(UIA_EVENT_QUIT));
    QueueEntry trigger = owner.queue().next();
    QueueEntry loud = owner.queue().next();
    QueueEntry quiet = owner.queue().next();
    QueueEntry quit = owner.queue().next();
    EXPECT_EQ(UIA_EVENT_TRIGGER, trigger->id);
    EXPECT_EQ(UIA_EVENT_RUN_LATER, loud->id);
    EXPECT_FALSE(static_cast<UiaRunEvent*>(loud.get())->quiet);
    EXPECT_TRUE(static_cast<UiaRunEvent*>(quiet.get())->quiet);
    EXPECT_EQ(UIA_EVENT_QUIT, quit->id);
    EXPECT_EQ(0, deleted.load());
    loud.reset();
    quiet.reset();
    EXPECT_EQ(2, deleted.load());
    EXPECT_EQ(0, runs.load());
}

TEST(UiaEventQueue, InvokeNowRunsOnTheDispatchThreadAndDeletesTheRunner) {
    QueueOnThisThread owner;
    std::atomic<int> runs{0};
    std::atomic<int> deleted{0};
    // On the dispatch thread: at once, not through the queue.
    EXPECT_EQ(42, owner.queue().invokeNow(new CountingRunner(runs, deleted, 42)));
    EXPECT_EQ(1, runs.load());
    EXPECT_EQ(1, deleted.load());
    // From another thread: the caller waits for the dispatch thread.
    std::atomic<std::int32_t> result{0};
    std::thread caller([&] { result = owner.queue().invokeNow(new CountingRunner(runs, deleted, 7)); });
    QueueEntry event = owner.queue().next();
    ASSERT_EQ(UIA_EVENT_RUN_NOW, event->id) << "the first entry: nothing else went through the queue";
    auto* run = static_cast<UiaRunEvent*>(event.get());
    EXPECT_EQ(0, result.load()) << "the caller still waits";
    run->result = (*run->runner)();
    event.reset();  // hands the event back to the waiting caller
    caller.join();
    EXPECT_EQ(7, result.load());
    EXPECT_EQ(2, deleted.load());
}

// A caller that waits when the queue ends, or that got the queue before its
// end and comes after it, gets the default without its work being run; what
// is posted to an ended queue is turned away, and every runner is deleted.
TEST(UiaEventQueue, TheEndCompletesWaitingCallersAndTurnsLaterPostersAway) {
    for (const bool waitsAtTheEnd : {true, false}) {
        SCOPED_TRACE(waitsAtTheEnd ? "a caller waiting at the end" : "a caller coming after the end");
        UiaEventQueue::create(GetCurrentThreadId());
        auto queue = UiaEventQueue::getInstance();
        std::atomic<int> runs{0};
        std::atomic<int> deleted{0};
        std::atomic<std::int32_t> result{-1};
        if (!waitsAtTheEnd) {
            UiaEventQueue::destroy();
        }
        std::thread caller([&] { result = queue->invokeNow(new CountingRunner(runs, deleted, 7)); });
        if (waitsAtTheEnd) {
            Sleep(200);  // the caller waits by now; if not, it comes to an ended queue
            queue->invokeLater(new CountingRunner(runs, deleted, 7));
            UiaEventQueue::destroy();
        }
        const ULONGLONG end = GetTickCount64() + 5000;
        while (result == -1 && GetTickCount64() < end) {
            Sleep(10);
        }
        if (result == -1) {
            caller.detach();
            FAIL() << "the caller waits for ever";
        }
        caller.join();
        EXPECT_EQ(0, result.load()) << "the default, not the runner's value";
        queue->invokeLater(new CountingRunner(runs, deleted, 7));
        queue->post(std::make_unique<UiaEvent>(UIA_EVENT_QUIT));
        EXPECT_EQ(0, runs.load());
        EXPECT_EQ(waitsAtTheEnd ? 3 : 2, deleted.load());
    }
}
