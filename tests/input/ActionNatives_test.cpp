// The action natives at their edges: the classic back end, which answers
// without looking at the handle; handles that went stale, which throw before
// any input is made; the Java boolean of Expand.
#include "InputTest.h"
#include "LogFile.h"

#include "FakeUiaPatterns.h"

#include <functional>
#include <string>
#include <vector>

using dwtest::InputOnElements;
using dwtest::RecordedInput;

namespace {

const char* const NOT_IMPLEMENTED = "Not implemented";
const char* const NOT_YET_IMPLEMENTED = "Not yet implemented";

std::string shown(jboolean value) { return value == JNI_FALSE ? "false" : "true"; }

// The level-3 lines of a native's log word.
size_t wordsOf(const std::string& native, const char* word) {
    size_t count = 0;
    for (const dwtest::LogLine& line : dwtest::LogFile::find(word, 3)) {
        count += line.message == word && line.method.find("DefaultDeskwright_" + native) != std::string::npos;
    }
    return count;
}

}  // namespace

// Before any attach the classic back end answers: each action native logs its
// word once and returns its default, with no exception and no input, for a
// handle that would crash whoever read through it.
TEST_F(RecordedInput, TheClassicBackEndLogsItsWordAndLeavesTheHandleAlone) {
    const jlong h = static_cast<jlong>(0x7777000000000010LL);
    struct Row {
        const char* native;
        const char* word;
        const char* result;  // as text; "" for none
        std::function<std::string()> call;
    };
    const char* const NONE = "";
    const char* const NO = "false";
    const Row rows[] = {
        {"SimulateMouseEvent", NOT_YET_IMPLEMENTED, NONE,
         [&] { return native<void>("SimulateMouseEvent", h, jint{500}, jint{0}, jint{1}, jint{1}, jint{0}, jint{1}), ""; }},
        {"SimulateKeyStroke", NOT_YET_IMPLEMENTED, NONE,
         [&] { return native<void>("SimulateKeyStroke", h, jchar{'a'}, jint{0}, jint{0}), ""; }},
        {"SetFocus", NOT_YET_IMPLEMENTED, NONE, [&] { return native<void>("SetFocus", h), ""; }},
        {"Move", NOT_YET_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("Move", h, jint{1}, jint{2})); }},
        {"Resize", NOT_YET_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("Resize", h, jint{1}, jint{2})); }},
        {"Close", NOT_YET_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("Close", h)); }},
        {"BringToFront", NOT_YET_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("BringToFront", h)); }},
        {"Highlight", NOT_YET_IMPLEMENTED, NONE, [&] { return native<void>("Highlight", h, jint{100}, jint{0xff}), ""; }},
        {"DoDefaultAction", NOT_IMPLEMENTED, NONE, [&] { return native<void>("DoDefaultAction", h), ""; }},
        {"Invoke", NOT_IMPLEMENTED, NONE, [&] { return native<void>("Invoke", h), ""; }},
        {"Select", NOT_IMPLEMENTED, NONE, [&] { return native<void>("Select", h, jint{1}), ""; }},
        {"Toggle", NOT_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("Toggle", h, jint{1})); }},
        {"Expand", NOT_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("Expand", h, jboolean{1})); }},
        {"Scroll", NOT_IMPLEMENTED, NONE, [&] { return native<void>("Scroll", h, jdouble{1.0}, jdouble{2.0}), ""; }},
        {"ScrollIntoView", NOT_IMPLEMENTED, NO, [&] { return shown(native<jboolean>("ScrollIntoView", h)); }},
        {"EnableEventListeners", NOT_IMPLEMENTED, NONE,
         [&] { return native<void>("EnableEventListeners", jint{0xfff}), ""; }},
        {"EnableCheckMode", NOT_IMPLEMENTED, NONE,
         [&] { return native<void>("EnableCheckMode", jboolean{1}, jint{1}), ""; }},
        {"EnableRecordingMode", NOT_IMPLEMENTED, NONE,
         [&] { return native<void>("EnableRecordingMode", jboolean{1}, jint{1}), ""; }},
    };
    for (const Row& row : rows) {
        const size_t before = wordsOf(row.native, row.word);
        calls->start();
        const std::string result = row.call();
        EXPECT_EQ("", calls->take()) << row.native << ": no input, no wait";
        EXPECT_EQ(row.result, result) << row.native;
        EXPECT_EQ("", thrown()) << row.native;
        EXPECT_EQ(before + 1, wordsOf(row.native, row.word)) << row.native << " logs \"" << row.word << "\"";
    }
}

// A handle whose element has gone throws, first as gone and then, evicted, as
// invalid, and no key or button moves; nor for a handle of a released table.
TEST_F(InputOnElements, AStaleHandleThrowsBeforeAnyInput) {
    buttonNode->remove();
    EXPECT_EQ("", key(button, L'a', 0, 0, {}));
    EXPECT_EQ("Control does no longer exist", thrown());
    EXPECT_EQ("", key(button, L'a', 0, 0, {}));
    EXPECT_EQ("Invalid handle value", thrown());
    EXPECT_EQ("", mouse(button, 500, 0, 1, 1, 0, 1, {}));
    EXPECT_EQ("Invalid handle value", thrown());

    native<void>("ReleaseControls");
    EXPECT_EQ("", mouse(menuItem, 500, 0, 1, 1, 0, 1, {}));
    EXPECT_EQ("Invalid handle value", thrown());
    EXPECT_EQ("", key(unbounded, 0, VK_RETURN, 0, {}));
    EXPECT_EQ("Invalid handle value", thrown());
    EXPECT_EQ("", key(0, 0, VK_RETURN, 0, {}));
    EXPECT_EQ("Invalid handle value", thrown());
}

// Java's boolean is a byte: any value but 0 expands, and reaches the back end
// as 1 (the operation's log shows what it was given).
TEST_F(InputOnElements, ExpandTakesAnyNonZeroBooleanAsOne) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_TreeItemControlTypeId;
    spec.name = L"node";
    fakeuia::Node& node = top->add(spec);
    auto source = fakeuia::attach<fakeuia::ExpandCollapseSource>(node);
    const jlong handle = handleOf(node);
    for (const jboolean value : {jboolean{1}, jboolean{2}, jboolean{0x80}, jboolean{0xff}, jboolean{0}}) {
        source->state = value ? ExpandCollapseState_Collapsed : ExpandCollapseState_Expanded;
        const std::string word = value ? ", expand:1" : ", expand:0";
        const size_t before = dwtest::LogFile::count(word, 7);
        EXPECT_EQ(JNI_TRUE, native<jboolean>("Expand", handle, value)) << int{value};
        EXPECT_EQ(before + 1, dwtest::LogFile::count(word, 7)) << int{value};
        EXPECT_EQ(value ? ExpandCollapseState_Expanded : ExpandCollapseState_Collapsed, source->state) << int{value};
    }
}
