// The dispatch queue on its own: its idle beat reaches no native.
#include "dispatch/UiaEventQueue.h"

#include <gtest/gtest.h>

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
