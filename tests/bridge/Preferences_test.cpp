// The readers of preference values: numbers, flags and lists.
#include "common/NullMarkers.h"
#include "common/Preferences.h"

#include <gtest/gtest.h>

using namespace tolva;

namespace {

struct IntCase {
    const wchar_t* text;
    int expected;
};

struct SplitCase {
    const wchar_t* text;
    std::vector<std::wstring> pieces;
};

}  // namespace

TEST(Preferences, NumbersNeedOnlyALeadingNumberAndListsKeepEveryPiece) {
    const IntCase numbers[] = {
        {L"12ms", 12}, {L"abc", 7}, {L"", 7}, {L"-3", -3}, {L"  42", 42},
        {L"+5x", 5},   {L"0", 0},   {L"99999999999", 7}, {L"x12", 7},
    };
    for (const IntCase& c : numbers) {
        EXPECT_EQ(c.expected, parseIntOr(c.text, 7)) << std::string(c.text, c.text + wcslen(c.text));
    }
    const SplitCase lists[] = {
        {L"", {}},          {L"a", {L"a"}},        {L"a,,b", {L"a", L"", L"b"}}, {L"a,", {L"a", L""}},
        {L",a", {L"", L"a"}}, {L",", {L"", L""}}, {L" a , b", {L" a ", L" b"}},
    };
    for (const SplitCase& c : lists) {
        EXPECT_EQ(c.pieces, splitString(c.text, L',')) << std::string(c.text, c.text + wcslen(c.text));
    }
}

// Flags are exactly "true"; every value is read afresh on each use.
TEST(Preferences, FlagsCountsAndListsReadThroughTheStore) {
    Preferences& store = Preferences::getInstance();
    const std::wstring key = PREF_FRONT_VIA_FOCUS;
    EXPECT_FALSE(store.getFlag(key));
    store.setPreference(key, L"TRUE");
    EXPECT_FALSE(store.getFlag(key));
    store.setPreference(key, L"true");
    EXPECT_TRUE(store.getFlag(key));
    store.setPreference(key, L"true ");
    EXPECT_FALSE(store.getFlag(key));
    store.setPreference(key, NULL_JAVA_STRING);
    EXPECT_FALSE(store.getFlag(key));
    EXPECT_EQ(0, store.getInt(PREF_MAX_CHILDREN));
    store.setPreference(PREF_MAX_CHILDREN, L"abc");
    EXPECT_EQ(0, store.getInt(PREF_MAX_CHILDREN));
    store.setPreference(PREF_MAX_CHILDREN, L"3");
    EXPECT_EQ(3, store.getInt(PREF_MAX_CHILDREN));
    EXPECT_EQ(50, store.getInt(PREF_DELAY_AFTER_MOUSEMOVED));
    EXPECT_TRUE(store.getList(PREF_OMIT_STATES).empty());
    store.setPreference(PREF_OMIT_STATES, L"A,");
    EXPECT_EQ((std::vector<std::wstring>{L"A", L""}), store.getList(PREF_OMIT_STATES));
    // A read leaves no default behind in the store.
    store.setPreference(PREF_DELAY_AFTER_MOUSEMOVED, NULL_JAVA_STRING);
    EXPECT_EQ(L"50", store.getPreference(PREF_DELAY_AFTER_MOUSEMOVED));
}
