// The action natives as Java calls them: each reaches a control pattern of
// the simulated platform, a real window of the test, or a thread of the
// driver, and a handle that failed its check reaches nothing.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <functional>
#include <string>
#include <vector>

using dwtest::DriverTest;
using dwtest::LogFile;
using dwtest::LogLine;

namespace {

const wchar_t* const CORE_WINDOW = L"Windows.UI.Core.CoreWindow";
const wchar_t* const FRONT_VIA_FOCUS = L"deskwright.front.via.focus";
const jboolean YES = JNI_TRUE;
const jboolean NO = JNI_FALSE;

// A plain window class: every point of its windows is theirs (a STATIC
// would let WindowFromPoint look through it on its own thread).
const wchar_t* plainWindowClass() {
    static const wchar_t* const name = [] {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = L"ActionsTestWindow";
        RegisterClassW(&windowClass);
        return windowClass.lpszClassName;
    }();
    return name;
}

// The lines of one method of a logger. Used only where the method is the end
// of the driver's own road so far (the drawing of a highlight, real input,
// the overlays), to see what it was handed and on which thread.
std::vector<LogLine> linesOf(const std::string& logger, const std::string& method) {
    std::vector<LogLine> found;
    for (const LogLine& line : LogFile::lines()) {
        if (line.logger == logger && line.method == method && line.level == 7) {
            found.push_back(line);
        }
    }
    return found;
}

// The highlights drawn so far: the arguments of each ShowHighlight.
std::vector<LogLine> highlights() {
    return linesOf("tolva.Highlighter", "ShowHighlight()");
}

fakeuia::NodeSpec specOf(CONTROLTYPEID type, const std::wstring& name, RECT bounds = {20, 40, 120, 60}) {
    fakeuia::NodeSpec spec;
    spec.controlType = type;
    spec.name = name;
    spec.bounds = bounds;
    return spec;
}

class Actions : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        top = &attachToOwnWindow(L"Target");
    }
    void TearDown() override {
        EXPECT_EQ("", thrown());
        for (HWND window : windows) {
            DestroyWindow(window);
        }
        DriverTest::TearDown();
    }
    // A real window of this thread; destroyed at the end of the test. A
    // visible top-level window is shown without being activated: the
    // foreground belongs to the whole desktop, which tests running at the same
    // time share.
    HWND makeWindow(DWORD style, RECT r, HWND parent = nullptr) {
        const bool showLater = !parent && (style & WS_VISIBLE);
        HWND window = CreateWindowExW(0, plainWindowClass(), L"", showLater ? style & ~WS_VISIBLE : style, r.left,
                                      r.top, r.right - r.left, r.bottom - r.top, parent, nullptr,
                                      GetModuleHandleW(nullptr), nullptr);
        EXPECT_NE(nullptr, window) << "error " << GetLastError();
        if (showLater) {
            ShowWindow(window, SW_SHOWNOACTIVATE);
        }
        if (!parent) {
            windows.push_back(window);
        }
        return window;
    }
    // The target's window: a real one at a place of its own on the screen.
    jlong giveTopWindow(HWND window, RECT area) {
        top->update([window, area](fakeuia::NodeSpec& spec) {
            spec.nativeWindowHandle = window;
            spec.bounds = area;
        });
        return handleOf(*top);
    }

    fakeuia::Node* top = nullptr;
    std::vector<HWND> windows;
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
    fakeuia::Node& node = top->add(specOf(UIA_TreeItemControlTypeId, L"node"));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
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
    fakeuia::Node& item = top->add(specOf(UIA_ListItemControlTypeId, L"item"));
    auto selection = fakeuia::attach<fakeuia::SelectionItemSource>(item);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(item);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(item);
    fakeuia::Node& plain = top->add(specOf(UIA_TextControlTypeId, L"plain"));
    const jlong handle = handleOf(item);

    const struct {
        jint mode;
        int select, add, remove;
    } modes[] = {{0, 1, 0, 0}, {2, 1, 0, 0}, {1, 0, 1, 0}, {-1, 0, 0, 1}};  // any mode but 1 and -1 selects
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
    for (const char* action : {"Select", "Invoke", "DoDefaultAction"}) {
        if (action == std::string("Select")) {
            native<void>(action, handleOf(plain), jint{0});
        } else {
            native<void>(action, handleOf(plain));
        }
        EXPECT_EQ("", thrown()) << action << " without the pattern";
    }
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
    fakeuia::Node& box = top->add(specOf(UIA_CheckBoxControlTypeId, L"box"));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
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
    fakeuia::Node& hostPane = top->add(specOf(UIA_PaneControlTypeId, L"host"));
    fakeuia::NodeSpec coreSpec = specOf(UIA_WindowControlTypeId, L"core");
    coreSpec.className = CORE_WINDOW;
    fakeuia::Node& core = hostPane.add(coreSpec);
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(core);
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));

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
    // Hidden windows: their activation is the window system's own and doesn't
    // wait for the display's focus events.
    HWND frame = makeWindow(WS_OVERLAPPEDWINDOW, {100, 100, 400, 300});
    HWND other = makeWindow(WS_OVERLAPPEDWINDOW, {500, 100, 800, 300});
    // A pane with a window handle of its own, which the search passes over.
    fakeuia::NodeSpec paneSpec = specOf(UIA_PaneControlTypeId, L"pane");
    paneSpec.nativeWindowHandle = other;
    fakeuia::Node& button = top->add(paneSpec).add(specOf(UIA_ButtonControlTypeId, L"OK"));
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
        ASSERT_TRUE(SetForegroundWindow(round == 0 ? other : frame));
        EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle)) << "round " << round;
        EXPECT_EQ(frame, GetForegroundWindow()) << "round " << round;
    }
    EXPECT_EQ(1, top->setFocusCalls());

    // A window handle only below a pane, no window of type window: nothing comes up.
    HWND panel = makeWindow(WS_OVERLAPPEDWINDOW, {100, 400, 400, 600});
    fakeuia::NodeSpec panelSpec = specOf(UIA_PaneControlTypeId, L"panel");
    panelSpec.processId = static_cast<int>(GetCurrentProcessId());
    panelSpec.nativeWindowHandle = panel;
    fakeuia::Node& inPanel = platform->desktop().add(panelSpec).add(specOf(UIA_ButtonControlTypeId, L"OK"));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handleOf(inPanel)));
    EXPECT_EQ(frame, GetForegroundWindow());
}

// A highlight is drawn on the dispatch thread, and only where the element's
// window is the one the user sees at the element's centre.
TEST_F(Actions, HighlightIsDrawnOnTheDispatchThreadOnlyWhereNothingCoversIt) {
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));
    // No window handle anywhere up to the desktop: nothing can hide it.
    native<void>("Highlight", handleOf(button), jint{500}, jint{-1});
    ASSERT_EQ(1u, highlights().size()) << "drawn before the native returns";
    EXPECT_EQ("Dispatch", highlights()[0].thread);
    EXPECT_EQ(0u, highlights()[0].message.find("r: [20,40,120,60], d: 500, c: -1")) << highlights()[0].message;
    native<void>("Highlight", handleOf(button), jint{0}, jint{-1});
    EXPECT_EQ(1u, highlights().size()) << "a duration of 0 takes the highlight away";

    const RECT area = {700, 100, 1000, 300};
    HWND frame = makeWindow(WS_POPUP | WS_VISIBLE, area);
    const jlong handle = giveTopWindow(frame, area);
    HWND cover = makeWindow(WS_POPUP | WS_VISIBLE, {650, 50, 1050, 350});
    SetWindowPos(cover, HWND_TOP, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    ASSERT_EQ(cover, WindowFromPoint(POINT{850, 200}));
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(1u, highlights().size()) << "covered by another window";
    ShowWindow(cover, SW_HIDE);
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(2u, highlights().size());

    // The element's window is the parent of the window at the centre.
    HWND child = makeWindow(WS_CHILD | WS_VISIBLE, {0, 0, 300, 200}, frame);
    ASSERT_EQ(child, WindowFromPoint(POINT{850, 200}));
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(3u, highlights().size());
    // One level only: a grandchild at the centre hides the frame.
    HWND grandchild = makeWindow(WS_CHILD | WS_VISIBLE, {0, 0, 300, 200}, child);
    ASSERT_EQ(grandchild, WindowFromPoint(POINT{850, 200}));
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(3u, highlights().size());
    // The element's window is a disabled child, which the point passes by:
    // found as the child of the window at the point.
    DestroyWindow(grandchild);
    EnableWindow(child, FALSE);
    ASSERT_EQ(frame, WindowFromPoint(POINT{850, 200}));
    fakeuia::NodeSpec inner = specOf(UIA_PaneControlTypeId, L"inner", area);
    inner.nativeWindowHandle = child;
    native<void>("Highlight", handleOf(top->add(inner)), jint{500}, jint{-1});
    EXPECT_EQ(4u, highlights().size());
}

TEST_F(Actions, ScrollAndScrollIntoView) {
    fakeuia::Node& list = top->add(specOf(UIA_ListControlTypeId, L"list"));
    fakeuia::Node& item = list.add(specOf(UIA_ListItemControlTypeId, L"item"));
    fakeuia::Node& text = item.add(specOf(UIA_TextControlTypeId, L"text"));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
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
    fakeuia::Node& fixed = top->add(specOf(UIA_PaneControlTypeId, L"fixed"));
    fakeuia::Node& loose = top->add(specOf(UIA_PaneControlTypeId, L"loose", {0, 0, 10, 10}));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
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
    fakeuia::Node& edit = top->add(specOf(UIA_EditControlTypeId, L"edit"));
    fakeuia::Node& stubborn = top->add(specOf(UIA_EditControlTypeId, L"stubborn"));
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

// What the input natives hand to real input: the whole character, and
// whether the window comes to the front first (not for the item of an open
// menu, which raising the window would close).
TEST_F(Actions, InputIsHandedOnWithWhetherToRaiseTheWindow) {
    const struct {
        const wchar_t* name;
        CONTROLTYPEID parentType;
        const wchar_t* parentClass;
        const wchar_t* framework;
        const char* front;
    } rows[] = {
        {L"bar", UIA_MenuBarControlTypeId, L"", L"Win32", ", front: 1"},
        {L"wpf", UIA_MenuControlTypeId, L"Menu", L"WPF", ", front: 1"},
        {L"popup", UIA_MenuControlTypeId, L"#32768", L"Win32", ", front: 0"},
        {L"win32 Menu", UIA_MenuControlTypeId, L"Menu", L"Win32", ", front: 0"},
        {L"wpf popup", UIA_MenuControlTypeId, L"Popup", L"WPF", ", front: 0"},
        // The class and the framework decide, not the parent's type.
        {L"pane", UIA_PaneControlTypeId, L"Menu", L"WPF", ", front: 1"},
        // A parent without a readable type can't be made a control.
        {L"unreadable", UIA_MenuControlTypeId, L"#32768", L"Win32", ", front: 1"},
    };
    auto lastMouseEvent = [] {
        auto lines = linesOf("tolva.uia.UiaHelper", "DoMouseEvent()");
        return lines.empty() ? std::string() : lines.back().message;
    };
    for (const auto& row : rows) {
        fakeuia::NodeSpec parentSpec = specOf(row.parentType, row.name);
        parentSpec.className = row.parentClass;
        parentSpec.frameworkId = row.framework;
        fakeuia::Node& parent = top->add(parentSpec);
        fakeuia::Node& item = parent.add(specOf(UIA_MenuItemControlTypeId, L"item"));
        const jlong handle = handleOf(item);
        if (row.name == std::wstring(L"unreadable")) {
            parent.fail("get_CurrentControlType", E_ACCESSDENIED);
        }
        native<void>("SimulateMouseEvent", handle, jint{500}, jint{0}, jint{3}, jint{4}, jint{0}, jint{1});
        EXPECT_NE(std::string::npos, lastMouseEvent().find(row.front))
            << std::string(row.name, row.name + wcslen(row.name)) << ": " << lastMouseEvent();
    }
    // Anything but a menu item goes to the front.
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));
    native<void>("SimulateMouseEvent", handleOf(button), jint{501}, jint{2}, jint{3}, jint{4}, jint{1}, jint{2});
    EXPECT_NE(std::string::npos, lastMouseEvent().find(", id: 501, btn: 2, x: 3, y: 4, mod: 1, count: 2, front: 1"));

    native<void>("SimulateKeyStroke", handleOf(button), jchar{0xFFFE}, jint{0x41}, jint{3});
    auto keys = linesOf("tolva.uia.UiaHelper", "SimulateKeyStroke()");
    ASSERT_EQ(1u, keys.size());
    EXPECT_NE(std::string::npos, keys[0].message.find(", c: 65534, kc: 65, m: 3")) << keys[0].message;
}

TEST_F(Actions, CheckModeRunsOnTheDispatchThreadAndRecordingModeOnAThreadOfItsOwn) {
    native<void>("EnableCheckMode", YES, jint{5});
    native<void>("EnableCheckMode", NO, jint{0});
    auto checker = [] { return linesOf("tolva.UiaChecker", "operator()"); };
    ASSERT_TRUE(dwtest::waitUntil([&] { return checker().size() == 2; }, 5000));
    EXPECT_EQ("start: 1", checker()[0].message);
    EXPECT_EQ("start: 0", checker()[1].message);
    for (const LogLine& line : checker()) {
        EXPECT_EQ("Dispatch", line.thread);
    }

    // Each start of recording mode starts an overlay thread or stops the
    // running one; a stop stops it.
    auto made = [] { return linesOf("tolva.ProcessOverlay", "ProcessOverlay()"); };
    auto gone = [] { return linesOf("tolva.ProcessOverlay", "~ProcessOverlay()").size(); };
    native<void>("EnableRecordingMode", NO, jint{0});
    native<void>("EnableRecordingMode", YES, jint{0});
    ASSERT_TRUE(dwtest::waitUntil([&] { return made().size() == 1; }, 5000)) << "the overlay is made on its thread";
    EXPECT_EQ("pid: " + std::to_string(GetCurrentProcessId()), made()[0].message);
    EXPECT_NE("Dispatch", made()[0].thread);
    EXPECT_NE("main", made()[0].thread);
    native<void>("EnableRecordingMode", YES, jint{0});
    ASSERT_TRUE(dwtest::waitUntil([&] { return gone() == 1; }, 5000)) << "a second start stops it";
    native<void>("EnableRecordingMode", YES, jint{0});
    native<void>("EnableRecordingMode", NO, jint{0});
    ASSERT_TRUE(dwtest::waitUntil([&] { return gone() == 2; }, 5000));
    EXPECT_EQ(2u, made().size());

    // Without a dispatch thread there is nothing to queue for.
    detachAndWait();
    native<void>("EnableCheckMode", YES, jint{5});
    EXPECT_TRUE(LogFile::contains("No event queue", 3));
    EXPECT_EQ(2u, checker().size());
}

TEST_F(Actions, AControlThatFailedItsCheckIsReachedByNoAction) {
    fakeuia::Node& victim = top->add(specOf(UIA_ButtonControlTypeId, L"victim"));
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(victim);
    auto toggle = fakeuia::attach<fakeuia::ToggleSource>(victim);
    auto expand = fakeuia::attach<fakeuia::ExpandCollapseSource>(victim);
    auto selection = fakeuia::attach<fakeuia::SelectionItemSource>(victim);
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(victim);
    auto scrollItem = fakeuia::attach<fakeuia::ScrollItemSource>(victim);
    auto transform = fakeuia::attach<fakeuia::TransformSource>(victim);
    auto window = fakeuia::attach<fakeuia::WindowSource>(victim);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(victim);
    const jlong h = handleOf(victim);
    // The element now reports another type: the first check evicts the
    // control, and from then on the table doesn't know the handle.
    victim.update([](fakeuia::NodeSpec& spec) { spec.controlType = UIA_CheckBoxControlTypeId; });

    const std::vector<std::pair<const char*, std::function<void()>>> natives = {
        {"SimulateMouseEvent",
         [&] { native<void>("SimulateMouseEvent", h, jint{500}, jint{0}, jint{1}, jint{1}, jint{0}, jint{1}); }},
        {"SimulateKeyStroke", [&] { native<void>("SimulateKeyStroke", h, jchar{'a'}, jint{0x41}, jint{0}); }},
        {"SetFocus", [&] { native<void>("SetFocus", h); }},
        {"Move", [&] { native<jboolean>("Move", h, jint{1}, jint{2}); }},
        {"Resize", [&] { native<jboolean>("Resize", h, jint{1}, jint{2}); }},
        {"Close", [&] { native<jboolean>("Close", h); }},
        {"BringToFront", [&] { native<jboolean>("BringToFront", h); }},
        {"Highlight", [&] { native<void>("Highlight", h, jint{100}, jint{-1}); }},
        {"DoDefaultAction", [&] { native<void>("DoDefaultAction", h); }},
        {"Invoke", [&] { native<void>("Invoke", h); }},
        {"Select", [&] { native<void>("Select", h, jint{0}); }},
        {"Toggle", [&] { native<jboolean>("Toggle", h, jint{-1}); }},
        {"Expand", [&] { native<jboolean>("Expand", h, YES); }},
        {"Scroll", [&] { native<void>("Scroll", h, jdouble{10.0}, jdouble{10.0}); }},
        {"ScrollIntoView", [&] { native<jboolean>("ScrollIntoView", h); }},
    };
    for (size_t i = 0; i < natives.size(); ++i) {
        natives[i].second();
        EXPECT_EQ(i == 0 ? "Control does no longer exist" : "Invalid handle value", thrown()) << natives[i].first;
    }
    EXPECT_EQ(0, invoke->invokeCount + toggle->toggleCalls + expand->expandCalls + expand->collapseCalls +
                     selection->selectCalls + selection->addToSelectionCalls +
                     selection->removeFromSelectionCalls + scroll->setScrollPercentCalls +
                     scrollItem->scrollIntoViewCalls + window->closeCalls + legacy->doDefaultActionCalls +
                     victim.setFocusCalls());
    EXPECT_TRUE(transform->moveArguments.empty());
    EXPECT_TRUE(transform->resizeArguments.empty());
    EXPECT_TRUE(highlights().empty());
    EXPECT_TRUE(linesOf("tolva.uia.UiaHelper", "DoMouseEvent()").empty());
    EXPECT_TRUE(linesOf("tolva.uia.UiaHelper", "SimulateKeyStroke()").empty());
}
