// The readers of preference values: numbers, flags and lists.
#include "common/Preferences.h"

#include <gtest/gtest.h>

using namespace tolva;

namespace {

struct IntCase { const wchar_t* text; int expected; };

struct SplitCase { const wchar_t* text; std::vector<std::wstring> pieces; };

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
