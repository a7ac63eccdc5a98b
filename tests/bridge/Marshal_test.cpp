// Texts from Java, pinned for the call, against the JNI host.
#include "bridge/Marshal.h"

#include "JniHost.h"

#include <gtest/gtest.h>

using namespace tolva;

namespace {

class Marshal : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(0u, host.outstandingPins());
        EXPECT_TRUE(host.violations().empty());
    }
    jnihost::JavaHost host;
    JNIEnv* env = host.attachCurrentThread();
};

}  // namespace

TEST_F(Marshal, TextsArePinnedForTheCallAndStopAtTheFirstNul) {
    jobjectArray names = host.stringArray({L"name", L"rid", L"\u00e9t\u00e9"});
    {
        PinnedNames pinned(env, names);
        ASSERT_EQ(3, pinned.list().size());
        EXPECT_STREQ(L"rid", pinned.list()[1]);
        EXPECT_STREQ(L"\u00e9t\u00e9", pinned.list()[2]);
        EXPECT_EQ(3u, host.outstandingPins());
    }
    EXPECT_EQ(0u, host.outstandingPins());
    const wchar_t raw[] = {L'a', L'b', 0, L'c'};
    PinnedString pinned(env, env->NewString(reinterpret_cast<const jchar*>(raw), 4));
    EXPECT_EQ(L"ab", pinned.str());
}
