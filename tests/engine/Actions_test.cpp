// The action natives as Java calls them: each reaches a control pattern of
// the simulated platform or a real window of the test.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <deque>
#include <string>
#include <vector>

using dwtest::DriverTest;

namespace {

const wchar_t* const CORE_WINDOW = L"Windows.UI.Core.CoreWindow";
const wchar_t* const FRONT_VIA_FOCUS = L"deskwright.front.via.focus";
const jboolean YES = JNI_TRUE;
const jboolean NO = JNI_FALSE;

class Actions : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        top = &attachToOwnWindow(L"Target");
    }
    void TearDown() override {
        EXPECT_EQ("", thrown());
        DriverTest::TearDown();
    }
    // A hidden top-level window of this thread, destroyed at the end of the
    // test: its activation is the window system's own, and the foreground
    // stays with the desktop that tests running at the same time share.
    HWND makeWindow(RECT r) {
        HWND window = windows.emplace_back(L"STATIC", L"", WS_OVERLAPPEDWINDOW, r).hwnd;
        EXPECT_NE(nullptr, window) << "error " << GetLastError();
        return window;
    }

    fakeuia::Node* top = nullptr;
    std::deque<dwtest::OwnWindow> windows;
};

}  // namespace

TEST_F(Actions, ExpandCallsThePatternOnlyOutsideTheWantedState) {
    const struct {
        ExpandCollapseState from;
        jboolean expand;  // any non-zero Java boolean expands
        jboolean result;
        int expandCalls, collapseCalls;
    } rows[] = {
        {ExpandCollapseState_Expanded, YES, NO, 0, 0},  // an open node is no success
        {ExpandCollapseState_Collapsed, NO, NO, 0, 0},
        {ExpandCollapseState_Expanded, NO, YES, 0, 1},
        {ExpandCollapseState_Collapsed, jboolean{2}, YES, 1, 0},
        {ExpandCollapseState_PartiallyExpanded, YES, YES, 1, 0},
        {ExpandCollapseState_PartiallyExpanded, NO, YES, 0, 1},
        {ExpandCollapseState_LeafNode, YES, NO, 1, 0},  // a leaf is asked, and its refusal is the answer
        {ExpandCollapseState_LeafNode, NO, NO, 0, 1},
    };
    fakeuia::Node& node = add(*top, UIA_TreeItemControlTypeId, L"node");
    fakeuia::Node& plain = add(*top, UIA_ButtonControlTypeId, L"plain");
    auto source = fakeuia::attach<fakeuia::ExpandCollapseSource>(node);
    const jlong handle = handleOf(node);
    for (const auto& row : rows) {
        const std::string name = "from " + std::to_string(row.from) + ", expand " + std::to_string(row.expand);
        source->state = row.from;
        source->expandCalls = source->collapseCalls = 0;
        EXPECT_EQ(row.result, native<jboolean>("Expand", handle, row.expand)) << name;
        EXPECT_EQ(row.expandCalls, source->expandCalls) << name;
        EXPECT_EQ(row.collapseCalls, source->collapseCalls) << name;
    }
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", handleOf(plain), YES)) << "no pattern";
}

TEST_F(Actions, SelectInvokeAndTheDefaultActionReachTheirPatterns) {
    fakeuia::Node& item = add(*top, UIA_ListItemControlTypeId, L"item");
    auto selection = fakeuia::attach<fakeuia::SelectionItemSource>(item);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(item);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(item);
    fakeuia::Node& plain = add(*top, UIA_TextControlTypeId, L"plain");
    const jlong handle = handleOf(item);

    const struct { jint mode; int select, add, remove; } modes[] = {{0, 1, 0, 0}, {2, 1, 0, 0}, {1, 0, 1, 0}, {-1, 0, 0, 1}};  // any mode but 1 and -1 selects
    for (const auto& row : modes) {
        selection->selectCalls = selection->addToSelectionCalls = selection->removeFromSelectionCalls = 0;
        native<void>("Select", handle, row.mode);
        EXPECT_EQ(row.select, selection->selectCalls) << "mode " << row.mode;
        EXPECT_EQ(row.add, selection->addToSelectionCalls) << "mode " << row.mode;
        EXPECT_EQ(row.remove, selection->removeFromSelectionCalls) << "mode " << row.mode;
    }
    EXPECT_FALSE(selection->isSelected);

    // A failing pattern is called once and costs Java nothing.
    selection->fail("Select", E_FAIL);
    invoke->fail("Invoke", E_FAIL);
    legacy->defaultActionResult = S_FALSE;
    for (int round = 1; round <= 2; ++round) {
        native<void>("Select", handle, jint{0});
        native<void>("Invoke", handle);
        native<void>("DoDefaultAction", handle);
    }
    EXPECT_EQ(2, selection->selectCalls);
    EXPECT_EQ(2, invoke->invokeCount);
    EXPECT_EQ(2, legacy->doDefaultActionCalls);
    native<void>("Select", handleOf(plain), jint{0});  // without the patterns
    native<void>("Invoke", handleOf(plain));
    native<void>("DoDefaultAction", handleOf(plain));
}

TEST_F(Actions, ToggleMovesTowardsTheModeWithOneCallAtMost) {
    const struct {
        ToggleState from;
        bool threeState;
        jint mode;  // Java's: 1 on, 0 off, anything else toggle
        int calls;
        ToggleState to;
    } rows[] = {
        {ToggleState_Off, false, 1, 1, ToggleState_On},
        {ToggleState_On, false, 1, 0, ToggleState_On},
        {ToggleState_On, false, 0, 1, ToggleState_Off},
        {ToggleState_Off, false, 0, 0, ToggleState_Off},
        {ToggleState_Off, false, -1, 1, ToggleState_On},
        {ToggleState_On, false, 7, 1, ToggleState_Off},
        // One toggle, not read back: a three-state control that is on lands
        // on indeterminate when it is asked to be off.
        {ToggleState_On, true, 0, 1, ToggleState_Indeterminate},
        {ToggleState_On, true, -1, 1, ToggleState_Indeterminate},
        // Indeterminate is neither on nor off.
        {ToggleState_Indeterminate, true, 1, 1, ToggleState_Off},
        {ToggleState_Indeterminate, true, 0, 1, ToggleState_Off},
    };
    fakeuia::Node& box = add(*top, UIA_CheckBoxControlTypeId, L"box");
    fakeuia::Node& plain = add(*top, UIA_ButtonControlTypeId, L"plain");
    auto source = fakeuia::attach<fakeuia::ToggleSource>(box);
    const jlong handle = handleOf(box);
    for (const auto& row : rows) {
        source->state = row.from;
        source->threeState = row.threeState;
        source->toggleCalls = 0;
        const std::string name = "from " + std::to_string(row.from) + (row.threeState ? " of three" : "") +
                                 ", mode " + std::to_string(row.mode);
        EXPECT_EQ(JNI_TRUE, native<jboolean>("Toggle", handle, row.mode)) << name;
        EXPECT_EQ(row.calls, source->toggleCalls) << name;
        EXPECT_EQ(row.to, source->state) << name;
    }

    // A failed read, a refused toggle or no pattern: false.
    source->state = ToggleState_Off;
    source->toggleCalls = 0;
    source->fail("get_CurrentToggleState", E_FAIL);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", handle, jint{-1}));
    EXPECT_EQ(0, source->toggleCalls) << "no toggle without the state";
    source->clearFailures();
    source->fail("Toggle", E_FAIL);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", handle, jint{1}));
    EXPECT_EQ(1, source->toggleCalls);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", handleOf(plain), jint{1}));
}

TEST_F(Actions, CloseGoesToTheFrameOfACoreWindow) {
    auto frame = fakeuia::attach<fakeuia::WindowSource>(*top);
    fakeuia::Node& hostPane = add(*top, UIA_PaneControlTypeId, L"host");
    fakeuia::Node& core = add(hostPane, UIA_WindowControlTypeId, L"core", {20, 40, 120, 60},
                              [](fakeuia::NodeSpec& spec) { spec.className = CORE_WINDOW; });
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(core);
    fakeuia::Node& button = add(*top, UIA_ButtonControlTypeId, L"OK");

    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(core)));
    EXPECT_EQ(1, frame->closeCalls);
    EXPECT_EQ(0, coreWindow->closeCalls);
    // Without the desktop no walk up can end: the core window closes itself.
    const jlong coreHandle = handleOf(core);
    platform->fail("GetRootElement", E_FAIL);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", coreHandle));
    platform->clearFailure("GetRootElement");
    EXPECT_EQ(1, coreWindow->closeCalls);
    EXPECT_EQ(1, frame->closeCalls);

    // A top-level core window is its own frame; the result of Close is not read.
    top->update([](fakeuia::NodeSpec& spec) { spec.className = CORE_WINDOW; });
    frame->fail("Close", E_FAIL);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(*top)));
    EXPECT_EQ(2, frame->closeCalls);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Close", handleOf(button))) << "a button has no window pattern";
    EXPECT_EQ(2, frame->closeCalls);

    // The desktop has no top-level parent: a core desktop closes itself.
    platform->desktop().update([](fakeuia::NodeSpec& spec) { spec.className = CORE_WINDOW; });
    auto desktopWindow = fakeuia::attach<fakeuia::WindowSource>(platform->desktop());
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(platform->desktop())));
    EXPECT_EQ(1, desktopWindow->closeCalls);
}

TEST_F(Actions, BringToFrontFocusesTheTopElementOrRaisesTheNearestWindowOfTypeWindow) {
    HWND frame = makeWindow({100, 100, 400, 300});
    HWND other = makeWindow({500, 100, 800, 300});
    // A pane with a window handle of its own, which the search passes over.
    fakeuia::Node& pane = add(*top, UIA_PaneControlTypeId, L"pane", {20, 40, 120, 60},
                              [other](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = other; });
    fakeuia::Node& button = add(pane, UIA_ButtonControlTypeId, L"OK");
    const jlong handle = handleOf(button);

    // The focus path: no window handle anywhere yet.
    setPreference(FRONT_VIA_FOCUS, L"true");
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(1, top->setFocusCalls());
    EXPECT_EQ(0, button.setFocusCalls());
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(1, top->setFocusCalls()) << "the top element has the focus now";
    // The desktop has no top element: the window path, which never gives the
    // desktop's own handle.
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handleOf(platform->desktop())));
    EXPECT_EQ(0, platform->desktop().setFocusCalls());
    // Only exactly "true" takes the focus path.
    setPreference(FRONT_VIA_FOCUS, L"True");
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handle)) << "no window of type window";
    EXPECT_EQ(1, top->setFocusCalls());

    top->update([frame](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = frame; });
    for (int round = 0; round < 2; ++round) {  // the second: in the foreground already
        // The display server's focus events for the window made foreground
        // here come in late; one arriving after the call would take the
        // foreground back from the frame.
        const HWND start = round == 0 ? other : frame;
        ASSERT_TRUE(SetForegroundWindow(start));
        ASSERT_EQ(start, dwtest::settledForeground()) << "round " << round;
        EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle)) << "round " << round;
        EXPECT_EQ(frame, dwtest::settledForeground()) << "round " << round;
    }
    EXPECT_EQ(1, top->setFocusCalls());

    // A window handle only below a pane, no window of type window: nothing comes up.
    HWND panel = makeWindow({100, 400, 400, 600});
    fakeuia::Node& inPanel = add(add(platform->desktop(), UIA_PaneControlTypeId, L"panel", {20, 40, 120, 60},
                                     [panel](fakeuia::NodeSpec& spec) {
                                         spec.processId = static_cast<int>(GetCurrentProcessId());
                                         spec.nativeWindowHandle = panel;
                                     }),
                                 UIA_ButtonControlTypeId, L"OK");
    const HWND before = dwtest::settledForeground();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handleOf(inPanel)));
    EXPECT_EQ(before, dwtest::settledForeground()) << "the foreground changed";
}

TEST_F(Actions, ScrollAndScrollIntoView) {
    fakeuia::Node& list = add(*top, UIA_ListControlTypeId, L"list");
    fakeuia::Node& item = add(list, UIA_ListItemControlTypeId, L"item");
    fakeuia::Node& text = add(item, UIA_TextControlTypeId, L"text");
    fakeuia::Node& plain = add(*top, UIA_ButtonControlTypeId, L"plain");
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(list);
    scroll->horizontallyScrollable = scroll->verticallyScrollable = true;
    scroll->horizontalPercent = scroll->verticalPercent = 50;
    auto scrollItem = fakeuia::attach<fakeuia::ScrollItemSource>(item);
    const jlong handle = handleOf(list);

    // A negative value is "no scroll" (-1); 0.0 scrolls to the start; a
    // refusal and a control without the pattern cost Java nothing.
    native<void>("Scroll", handle, jdouble{-0.5}, jdouble{30.0});
    native<void>("Scroll", handle, jdouble{0.0}, jdouble{-7.0});
    native<void>("Scroll", handle, jdouble{150.0}, jdouble{0.0});
    native<void>("Scroll", handleOf(plain), jdouble{10.0}, jdouble{10.0});
    EXPECT_EQ((std::vector<std::pair<double, double>>{{-1.0, 30.0}, {0.0, -1.0}, {150.0, 0.0}}),
              scroll->setScrollPercentArguments);
    EXPECT_EQ(0.0, scroll->horizontalPercent);
    EXPECT_EQ(30.0, scroll->verticalPercent);

    // ScrollIntoView uses the nearest ancestor with the pattern; only a
    // result of exactly 0 is a success.
    EXPECT_EQ(JNI_TRUE, native<jboolean>("ScrollIntoView", handleOf(text)));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("ScrollIntoView", handleOf(item)));
    EXPECT_EQ(2, scrollItem->scrollIntoViewCalls);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("ScrollIntoView", handleOf(*top))) << "none up to the desktop";
    EXPECT_EQ(2, scrollItem->scrollIntoViewCalls);
    scrollItem->fail("ScrollIntoView", S_FALSE);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("ScrollIntoView", handleOf(text)));
    EXPECT_EQ(3, scrollItem->scrollIntoViewCalls);
}

TEST_F(Actions, MoveResizeAndSetFocus) {
    fakeuia::Node& fixed = add(*top, UIA_PaneControlTypeId, L"fixed");
    fakeuia::Node& loose = add(*top, UIA_PaneControlTypeId, L"loose", {0, 0, 10, 10});
    fakeuia::Node& plain = add(*top, UIA_ButtonControlTypeId, L"plain");
    auto fixedTransform = fakeuia::attach<fakeuia::TransformSource>(fixed, false, false);
    auto looseTransform = fakeuia::attach<fakeuia::TransformSource>(loose, true, true);

    // A refused move still counts: the control offers the pattern.
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Move", handleOf(fixed), jint{5}, jint{6}));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Resize", handleOf(fixed), jint{7}, jint{8}));
    EXPECT_EQ((std::vector<std::pair<double, double>>{{5, 6}}), fixedTransform->moveArguments);
    EXPECT_EQ((std::vector<std::pair<double, double>>{{7, 8}}), fixedTransform->resizeArguments);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Move", handleOf(loose), jint{30}, jint{40}));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Resize", handleOf(loose), jint{200}, jint{100}));
    const RECT moved = loose.spec().bounds;
    EXPECT_EQ((std::vector<LONG>{30, 40, 230, 140}), (std::vector<LONG>{moved.left, moved.top, moved.right, moved.bottom}));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Move", handleOf(plain), jint{1}, jint{1}));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Resize", handleOf(plain), jint{1}, jint{1}));

    // The focus is set only where it is not; an unreadable focus counts as had.
    fakeuia::Node& edit = add(*top, UIA_EditControlTypeId, L"edit");
    fakeuia::Node& stubborn = add(*top, UIA_EditControlTypeId, L"stubborn");
    native<void>("SetFocus", handleOf(edit));
    EXPECT_EQ(1, edit.setFocusCalls());
    EXPECT_TRUE(edit.spec().hasKeyboardFocus);
    native<void>("SetFocus", handleOf(edit));
    EXPECT_EQ(1, edit.setFocusCalls()) << "focused already";
    stubborn.fail("get_CurrentHasKeyboardFocus", E_FAIL);
    native<void>("SetFocus", handleOf(stubborn));
    EXPECT_EQ(0, stubborn.setFocusCalls());
    stubborn.clearFailures();
    stubborn.update([](fakeuia::NodeSpec& spec) { spec.isEnabled = false; });  // refuses the focus
    native<void>("SetFocus", handleOf(stubborn));
    EXPECT_EQ(1, stubborn.setFocusCalls());
    EXPECT_TRUE(edit.spec().hasKeyboardFocus);
}
