// Values between Java and the driver: handles, flat attribute arrays and
// pinned name lists, against the JNI host.
#include "bridge/Marshal.h"
#include "common/NullMarkers.h"

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

TEST_F(Marshal, HandlesKeepTheLowWordInAndComeBackSignExtended) {
    jlongArray java = host.longArray({0x1234567800000ABCLL, -1, 42});
    Array<Handle> handles = fromJavaHandles(env, java);
    ASSERT_EQ(3, handles.size());
    EXPECT_EQ(static_cast<Handle>(sizeof(void*) == 4 ? 0xABC : 0x1234567800000ABCLL), handles[0]);
    EXPECT_EQ(static_cast<Handle>(-1), handles[1]);
    EXPECT_EQ(static_cast<Handle>(42), handles[2]);
    if (sizeof(void*) == 4) {  // a 64-bit handle is the whole address
        Array<Handle> high(3);
        high[0] = static_cast<Handle>(0x80001234u);
        high[1] = static_cast<Handle>(0x7FFFFFFF);
        high[2] = static_cast<Handle>(0xFFFFFFFFu);
        EXPECT_EQ((std::vector<jlong>{-2147478988LL, 0x7FFFFFFF, -1}), host.longs(toJavaHandles(env, high)));
    }
}

TEST_F(Marshal, NullMarkersBecomeJavaNullAndEmptyTextStaysEmpty) {
    std::wstring entries[] = {L"12", NULL_ATTRIBUTE, L"", L"__NULL__x"};
    auto strings = host.strings(toJavaAttributes(env, entries, 4));
    ASSERT_EQ(4u, strings.size());
    EXPECT_EQ(std::optional<std::wstring>(L"12"), strings[0]);
    EXPECT_FALSE(strings[1].has_value());
    EXPECT_EQ(std::optional<std::wstring>(L""), strings[2]);
    EXPECT_EQ(std::optional<std::wstring>(L"__NULL__x"), strings[3]);
}

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

TEST_F(Marshal, ArraysHandTheirBufferOnWhenCopied) {
    Array<Handle> first(2);
    first[0] = 7;
    Array<Handle> second(first);
    EXPECT_EQ(0, first.size());
    EXPECT_EQ(nullptr, first.begin());
    ASSERT_EQ(2, second.size());
    EXPECT_EQ(7, second[0]);
    Array<Handle> third;
    third = second;
    EXPECT_EQ(0, second.size());
    EXPECT_EQ(2, third.size());
    EXPECT_EQ(0, Array<Handle>(-3).size());
}
