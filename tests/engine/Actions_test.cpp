// The action natives as Java calls them: each reaches a control pattern of
// the simulated platform, a real window of the test, or a thread of the
// driver, and a handle that failed its check reaches nothing.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <functional>
#include <sstream>
#include <string>
#include <vector>

using dwtest::DriverTest;
using dwtest::LogFile;
using dwtest::LogLine;

namespace {

const char* const INVALID_HANDLE = "net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException";
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

// Lines of one logger, optionally of one method ("DoMouseEvent()").
std::vector<LogLine> linesOf(const std::string& logger, const std::string& method = "") {
    std::vector<LogLine> found;
    for (const LogLine& line : LogFile::lines()) {
        if (line.logger == logger && (method.empty() || line.method == method)) {
            found.push_back(line);
        }
    }
    return found;
}

// How many lines of a method hold the text.
size_t countOf(const std::string& logger, const std::string& method, const std::string& text) {
    size_t count = 0;
    for (const LogLine& line : linesOf(logger, method)) {
        count += line.message.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

// The message of the last level-7 line (the entry with the arguments) of a
// method, or "" if it has none.
std::string lastEntry(const std::string& logger, const std::string& method) {
    std::string message;
    for (const LogLine& line : linesOf(logger, method)) {
        if (line.level == 7) {
            message = line.message;
        }
    }
    return message;
}

// Highlights shown: the entry lines of ShowHighlight.
size_t highlightsShown() {
    return countOf("tolva.Highlighter", "ShowHighlight()", "r: [");
}

// The message of the last line of a method, or "" if it has none.
std::string lastMessage(const std::string& logger, const std::string& method) {
    std::vector<LogLine> lines = linesOf(logger, method);
    return lines.empty() ? std::string() : lines.back().message;
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
        for (HWND window : windows) {
            DestroyWindow(window);
        }
        DriverTest::TearDown();
    }

    std::vector<jlong> children(jlong handle) { return host->longs(native<jlongArray>("GetChildren", handle)); }
    // The message of the pending InvalidHandleException, cleared; "" if none.
    std::string thrown() {
        auto exception = host->takeException();
        if (!exception) {
            return "";
        }
        EXPECT_EQ(INVALID_HANDLE, exception->className);
        return std::string(exception->message.begin(), exception->message.end());
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
    void giveWindow(fakeuia::Node& node, HWND window) {
        node.update([window](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = window; });
    }

    fakeuia::Node* top = nullptr;
    std::vector<HWND> windows;
};

}  // namespace

// --- Expand ------------------------------------------------------------------------------

TEST_F(Actions, ExpandAnswersFalseWithoutACallForTheWantedState) {
    fakeuia::Node& open = top->add(specOf(UIA_TreeItemControlTypeId, L"open"));
    fakeuia::Node& closed = top->add(specOf(UIA_TreeItemControlTypeId, L"closed"));
    auto openSource = fakeuia::attach<fakeuia::ExpandCollapseSource>(open, ExpandCollapseState_Expanded);
    auto closedSource = fakeuia::attach<fakeuia::ExpandCollapseSource>(closed, ExpandCollapseState_Collapsed);
    const jlong openHandle = handleOf(open);
    const jlong closedHandle = handleOf(closed);

    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", openHandle, YES)) << "an open node is no success";
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", closedHandle, NO));
    EXPECT_EQ(0, openSource->expandCalls + openSource->collapseCalls);
    EXPECT_EQ(0, closedSource->expandCalls + closedSource->collapseCalls);
    EXPECT_EQ("res: 0", lastMessage("tolva.Uia", "expand()"));

    EXPECT_EQ(JNI_TRUE, native<jboolean>("Expand", openHandle, NO));
    EXPECT_EQ(1, openSource->collapseCalls);
    EXPECT_EQ(ExpandCollapseState_Collapsed, openSource->state);
    // Any non-zero Java boolean is an expand.
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Expand", closedHandle, jboolean{2}));
    EXPECT_EQ(1, closedSource->expandCalls);
    EXPECT_TRUE(LogFile::contains(", expand:1", 7));
    EXPECT_EQ("res: 1", lastMessage("tolva.Uia", "expand()"));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, PartlyExpandedAndLeafNodesAreNotInTheWantedState) {
    fakeuia::Node& partly = top->add(specOf(UIA_TreeItemControlTypeId, L"partly"));
    fakeuia::Node& leaf = top->add(specOf(UIA_TreeItemControlTypeId, L"leaf"));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
    auto partlySource = fakeuia::attach<fakeuia::ExpandCollapseSource>(partly, ExpandCollapseState_PartiallyExpanded);
    auto leafSource = fakeuia::attach<fakeuia::ExpandCollapseSource>(leaf, ExpandCollapseState_LeafNode);

    EXPECT_EQ(JNI_TRUE, native<jboolean>("Expand", handleOf(partly), YES));
    EXPECT_EQ(1, partlySource->expandCalls);
    partlySource->state = ExpandCollapseState_PartiallyExpanded;
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Expand", handleOf(partly), NO));
    EXPECT_EQ(1, partlySource->collapseCalls);

    // A leaf is asked, and its refusal is the answer.
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", handleOf(leaf), YES));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", handleOf(leaf), NO));
    EXPECT_EQ(1, leafSource->expandCalls);
    EXPECT_EQ(1, leafSource->collapseCalls);

    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", handleOf(plain), YES));
    EXPECT_TRUE(LogFile::contains("Expand/Collapse not possible", 9));
}

// --- Select, DoDefaultAction, Invoke ------------------------------------------------------

TEST_F(Actions, SelectModesChooseTheMethod) {
    fakeuia::Node& item = top->add(specOf(UIA_ListItemControlTypeId, L"item"));
    auto source = fakeuia::attach<fakeuia::SelectionItemSource>(item);
    const jlong handle = handleOf(item);

    native<void>("Select", handle, jint{0});
    EXPECT_EQ(1, source->selectCalls);
    native<void>("Select", handle, jint{2});
    EXPECT_EQ(2, source->selectCalls) << "any mode but 1 and -1 selects";
    EXPECT_EQ(0, source->addToSelectionCalls);
    native<void>("Select", handle, jint{1});
    EXPECT_EQ(1, source->addToSelectionCalls);
    EXPECT_EQ(0, source->removeFromSelectionCalls);
    native<void>("Select", handle, jint{-1});
    EXPECT_EQ(1, source->removeFromSelectionCalls);
    EXPECT_FALSE(source->isSelected);
    EXPECT_EQ(2, source->selectCalls);
    EXPECT_TRUE(LogFile::contains(", mode:-1", 7));
    EXPECT_FALSE(LogFile::contains("Operation failed"));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, SFalseIsSuccessForSelectButNotForTheDefaultAction) {
    fakeuia::Node& item = top->add(specOf(UIA_ListItemControlTypeId, L"item"));
    auto selection = fakeuia::attach<fakeuia::SelectionItemSource>(item);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(item);
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
    const jlong handle = handleOf(item);

    selection->fail("Select", S_FALSE);
    native<void>("Select", handle, jint{0});
    EXPECT_EQ(1, selection->selectCalls);
    EXPECT_FALSE(LogFile::contains("Operation failed")) << "S_FALSE is a success for Select";
    selection->fail("Select", E_FAIL);
    native<void>("Select", handle, jint{0});
    EXPECT_EQ(1u, LogFile::count("Operation failed", 9));
    native<void>("Select", handleOf(plain), jint{0});
    EXPECT_TRUE(LogFile::contains("Selection not possible", 9));
    EXPECT_EQ(2u, LogFile::count("Operation failed", 9));

    native<void>("DoDefaultAction", handle);
    EXPECT_EQ(1, legacy->doDefaultActionCalls);
    EXPECT_EQ("res: 1", lastMessage("tolva.Uia", "doDefaultAction()"));
    legacy->defaultActionResult = S_FALSE;
    native<void>("DoDefaultAction", handle);
    EXPECT_EQ(2, legacy->doDefaultActionCalls);
    EXPECT_EQ("res: 0", lastMessage("tolva.Uia", "doDefaultAction()")) << "only S_OK counts";
    native<void>("DoDefaultAction", handleOf(plain));
    EXPECT_EQ("res: 0", lastMessage("tolva.Uia", "doDefaultAction()"));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, InvokeCallsThePatternAndIgnoresItsResult) {
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));
    fakeuia::Node& label = top->add(specOf(UIA_TextControlTypeId, L"label"));
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(button);
    const jlong handle = handleOf(button);

    native<void>("Invoke", handle);
    EXPECT_EQ(1, invoke->invokeCount);
    EXPECT_EQ("res: 0", lastMessage("tolva.uia.UiaHelper", "DoInvoke()"));
    invoke->fail("Invoke", E_FAIL);
    native<void>("Invoke", handle);
    EXPECT_EQ(2, invoke->invokeCount);
    EXPECT_EQ("res: 80004005", lastMessage("tolva.uia.UiaHelper", "DoInvoke()"));
    native<void>("Invoke", handleOf(label));
    EXPECT_TRUE(LogFile::contains("Invocation not possible", 9));
    EXPECT_EQ("", thrown());
}

// --- Toggle ------------------------------------------------------------------------------

TEST_F(Actions, ToggleMovesTowardsTheModeWithOneCallAtMost) {
    struct Case {
        ToggleState from;
        bool threeState;
        jint mode;  // Java's: 1 on, 0 off, anything else toggle
        int calls;
        ToggleState to;
    };
    const Case cases[] = {
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
    auto source = fakeuia::attach<fakeuia::ToggleSource>(box);
    const jlong handle = handleOf(box);
    for (const Case& c : cases) {
        source->state = c.from;
        source->threeState = c.threeState;
        source->toggleCalls = 0;
        const std::string which =
            "from " + std::to_string(c.from) + (c.threeState ? " of three" : "") + ", mode " + std::to_string(c.mode);
        EXPECT_EQ(JNI_TRUE, native<jboolean>("Toggle", handle, c.mode)) << which;
        EXPECT_EQ(c.calls, source->toggleCalls) << which;
        EXPECT_EQ(c.to, source->state) << which;
    }
    EXPECT_FALSE(LogFile::contains("Operation failed"));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, ToggleFailsOnAFailedReadAToggleRefusedOrNoPattern) {
    fakeuia::Node& box = top->add(specOf(UIA_CheckBoxControlTypeId, L"box"));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
    auto source = fakeuia::attach<fakeuia::ToggleSource>(box, ToggleState_Off);
    const jlong handle = handleOf(box);

    source->fail("get_CurrentToggleState", E_FAIL);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", handle, jint{-1}));
    EXPECT_EQ(0, source->toggleCalls) << "no toggle without the state";
    EXPECT_EQ(1u, LogFile::count("Operation failed", 9));
    source->clearFailures();
    source->fail("Toggle", E_FAIL);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", handle, jint{1}));
    EXPECT_EQ(1, source->toggleCalls);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", handleOf(plain), jint{1}));
    EXPECT_EQ(3u, LogFile::count("Operation failed", 9));
}

// --- Close and the top-level frame ------------------------------------------------------------

TEST_F(Actions, CloseOfACoreWindowClosesItsFrame) {
    auto frame = fakeuia::attach<fakeuia::WindowSource>(*top);
    fakeuia::Node& hostPane = top->add(specOf(UIA_PaneControlTypeId, L"host"));
    fakeuia::NodeSpec coreSpec = specOf(UIA_WindowControlTypeId, L"core");
    coreSpec.className = CORE_WINDOW;
    fakeuia::Node& core = hostPane.add(coreSpec);
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(core);

    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(core)));
    EXPECT_EQ(1, frame->closeCalls);
    EXPECT_EQ(0, coreWindow->closeCalls);
    EXPECT_TRUE(LogFile::contains("Close top: ", 9));

    // A top-level core window is its own frame.
    top->update([](fakeuia::NodeSpec& spec) { spec.className = CORE_WINDOW; });
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(*top)));
    EXPECT_EQ(2, frame->closeCalls);
    EXPECT_EQ(2u, LogFile::count("Close top: ", 9));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, ACoreWindowWithoutATopElementClosesItself) {
    // The desktop has no top-level parent.
    platform->desktop().update([](fakeuia::NodeSpec& spec) { spec.className = CORE_WINDOW; });
    auto desktopWindow = fakeuia::attach<fakeuia::WindowSource>(platform->desktop());
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(platform->desktop())));
    EXPECT_EQ(1, desktopWindow->closeCalls);
    EXPECT_FALSE(LogFile::contains("Close top: "));

    // Without the desktop no walk up can end.
    auto frame = fakeuia::attach<fakeuia::WindowSource>(*top);
    fakeuia::NodeSpec coreSpec = specOf(UIA_WindowControlTypeId, L"core");
    coreSpec.className = CORE_WINDOW;
    fakeuia::Node& core = top->add(coreSpec);
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(core);
    const jlong handle = handleOf(core);
    platform->fail("GetRootElement", E_FAIL);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handle));
    platform->clearFailure("GetRootElement");
    EXPECT_EQ(1, coreWindow->closeCalls);
    EXPECT_EQ(0, frame->closeCalls);
    EXPECT_TRUE(LogFile::contains("No root", 1));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, CloseIgnoresTheResultAndNeedsThePattern) {
    auto frame = fakeuia::attach<fakeuia::WindowSource>(*top);
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));
    frame->fail("Close", E_FAIL);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handleOf(*top)));
    EXPECT_EQ(1, frame->closeCalls);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Close", handleOf(button)));
    EXPECT_TRUE(LogFile::contains("Closing not possible", 9));
    EXPECT_EQ(1, frame->closeCalls) << "a button is not closed through its window";
}

// --- BringToFront ----------------------------------------------------------------------------

TEST_F(Actions, FrontViaFocusFocusesTheTopElementOnlyForExactlyTrue) {
    fakeuia::Node& pane = top->add(specOf(UIA_PaneControlTypeId, L"pane"));
    fakeuia::Node& button = pane.add(specOf(UIA_ButtonControlTypeId, L"OK"));
    const jlong handle = handleOf(button);

    setPreference(FRONT_VIA_FOCUS, L"true");
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(1, top->setFocusCalls());
    EXPECT_EQ(0, button.setFocusCalls());
    EXPECT_TRUE(LogFile::contains("setting Focus", 9));
    // The top element has the focus now.
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(1, top->setFocusCalls());
    EXPECT_TRUE(LogFile::contains("Setting focus not necessary since component had focus already.", 9));

    // The window path: no window handle anywhere, so nothing to bring up.
    setPreference(FRONT_VIA_FOCUS, L"True");
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(2u, countOf("tolva.uia.UiaHelper", "BringToFront()", "top: "))
        << "the focus path is not taken for \"True\"";

    // The desktop has no top element: the window path, which never gives the
    // desktop's own handle.
    setPreference(FRONT_VIA_FOCUS, L"true");
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handleOf(platform->desktop())));
    EXPECT_EQ(3u, countOf("tolva.uia.UiaHelper", "BringToFront()", "top: "));
    EXPECT_EQ(0, platform->desktop().setFocusCalls());
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, BringToFrontRaisesTheNearestWindowOfTypeWindow) {
    // Hidden windows: their activation is the window system's own and doesn't
    // wait for the display's focus events.
    HWND frame = makeWindow(WS_OVERLAPPEDWINDOW, {100, 100, 400, 300});
    HWND other = makeWindow(WS_OVERLAPPEDWINDOW, {500, 100, 800, 300});
    giveWindow(*top, frame);
    // A pane with a window handle of its own, which the search passes over.
    fakeuia::NodeSpec paneSpec = specOf(UIA_PaneControlTypeId, L"pane");
    paneSpec.nativeWindowHandle = other;
    fakeuia::Node& pane = top->add(paneSpec);
    fakeuia::Node& button = pane.add(specOf(UIA_ButtonControlTypeId, L"OK"));
    const jlong handle = handleOf(button);

    ASSERT_TRUE(SetForegroundWindow(other));
    ASSERT_EQ(other, GetForegroundWindow());
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(frame, GetForegroundWindow());
    std::ostringstream chosen;
    chosen << "hWnd: " << static_cast<void*>(frame) << ",";
    EXPECT_EQ(1u, countOf("tolva.uia.UiaHelper", "BringToFront()", chosen.str()));
    // In the foreground already: nothing more to do.
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(frame, GetForegroundWindow());
    EXPECT_EQ(1u, countOf("tolva.uia.UiaHelper", "BringToFront()", "hWnd: "));

    // The flag is set only by exactly "true": "True" takes the window path too.
    setPreference(FRONT_VIA_FOCUS, L"True");
    ASSERT_TRUE(SetForegroundWindow(other));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("BringToFront", handle));
    EXPECT_EQ(frame, GetForegroundWindow());
    EXPECT_EQ(2u, countOf("tolva.uia.UiaHelper", "BringToFront()", "hWnd: "));
    EXPECT_EQ(0, top->setFocusCalls());
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, BringToFrontWithoutAWindowOfTypeWindowFails) {
    HWND panel = makeWindow(WS_OVERLAPPEDWINDOW, {100, 100, 400, 300});
    fakeuia::NodeSpec paneSpec = specOf(UIA_PaneControlTypeId, L"panel");
    paneSpec.processId = static_cast<int>(GetCurrentProcessId());
    paneSpec.nativeWindowHandle = panel;
    fakeuia::Node& pane = platform->desktop().add(paneSpec);
    fakeuia::Node& button = pane.add(specOf(UIA_ButtonControlTypeId, L"OK"));
    HWND before = GetForegroundWindow();

    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handleOf(button)));
    EXPECT_EQ(before, GetForegroundWindow());
    EXPECT_EQ(0u, countOf("tolva.uia.UiaHelper", "BringToFront()", "hWnd: "));
    EXPECT_EQ("", thrown());
}

// --- Highlight: the dispatch thread and what the user sees -----------------------------------------

TEST_F(Actions, HighlightRunsOnTheDispatchThread) {
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));
    const jlong handle = handleOf(button);

    // No window handle anywhere up to the desktop: nothing can hide it.
    native<void>("Highlight", handle, jint{500}, jint{-1});
    std::vector<LogLine> shown = linesOf("tolva.Highlighter", "ShowHighlight()");
    ASSERT_EQ(1u, highlightsShown()) << "the highlight is shown before the native returns";
    for (const LogLine& line : shown) {
        EXPECT_EQ("Dispatch", line.thread);
    }
    EXPECT_NE(std::string::npos, lastEntry("tolva.Highlighter", "ShowHighlight()").find("r: [20,40,120,60], d: 500"));
    EXPECT_TRUE(LogFile::contains(", d: 500, col: -1", 7));

    native<void>("Highlight", handle, jint{0}, jint{-1});
    std::vector<LogLine> stopped = linesOf("tolva.Highlighter", "StopHighlight()");
    ASSERT_EQ(1u, stopped.size()) << "a duration of 0 takes the highlight away";
    EXPECT_EQ("Dispatch", stopped.back().thread);
    EXPECT_EQ(1u, highlightsShown());
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, AHiddenControlIsNotHighlighted) {
    // Places of their own on the screen: tests that run at the same time share it.
    const RECT area = {700, 100, 1000, 300};
    HWND frame = makeWindow(WS_POPUP | WS_VISIBLE, area);
    giveWindow(*top, frame);
    top->update([area](fakeuia::NodeSpec& spec) { spec.bounds = area; });
    const jlong handle = handleOf(*top);
    HWND cover = makeWindow(WS_POPUP | WS_VISIBLE, {650, 50, 1050, 350});
    SetWindowPos(cover, HWND_TOP, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
    ASSERT_EQ(cover, WindowFromPoint(POINT{850, 200}));

    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(0u, highlightsShown()) << "covered by another window";

    ShowWindow(cover, SW_HIDE);
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(1u, highlightsShown());
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, TheWindowAtTheCentreMayBeAChildOrTheParentOfTheOneAtThePoint) {
    const RECT area = {700, 600, 1000, 800};
    HWND frame = makeWindow(WS_POPUP | WS_VISIBLE, area);
    HWND child = makeWindow(WS_CHILD | WS_VISIBLE, {0, 0, 300, 200}, frame);
    giveWindow(*top, frame);
    top->update([area](fakeuia::NodeSpec& spec) { spec.bounds = area; });
    const jlong handle = handleOf(*top);
    ASSERT_EQ(child, WindowFromPoint(POINT{850, 700}));

    // The element's window is the parent of the window at the centre.
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(1u, highlightsShown());

    // One level only: a grandchild at the centre hides the frame.
    HWND grandchild = makeWindow(WS_CHILD | WS_VISIBLE, {0, 0, 300, 200}, child);
    ASSERT_EQ(grandchild, WindowFromPoint(POINT{850, 700}));
    native<void>("Highlight", handle, jint{500}, jint{-1});
    EXPECT_EQ(1u, highlightsShown());

    // The element's window is a disabled child, which the point passes by:
    // found as the child of the window at the point.
    DestroyWindow(grandchild);
    EnableWindow(child, FALSE);
    ASSERT_EQ(frame, WindowFromPoint(POINT{850, 700}));
    fakeuia::NodeSpec inner = specOf(UIA_PaneControlTypeId, L"inner", area);
    inner.nativeWindowHandle = child;
    fakeuia::Node& innerNode = top->add(inner);
    native<void>("Highlight", handleOf(innerNode), jint{500}, jint{-1});
    EXPECT_EQ(2u, highlightsShown());
    EXPECT_EQ("", thrown());
}

// --- Scrolling ---------------------------------------------------------------------------------

TEST_F(Actions, ScrollSendsNoScrollForNegativeValues) {
    fakeuia::Node& list = top->add(specOf(UIA_ListControlTypeId, L"list"));
    fakeuia::Node& plain = top->add(specOf(UIA_ButtonControlTypeId, L"plain"));
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(list);
    scroll->horizontallyScrollable = true;
    scroll->verticallyScrollable = true;
    scroll->horizontalPercent = 50;
    scroll->verticalPercent = 50;
    const jlong handle = handleOf(list);

    native<void>("Scroll", handle, jdouble{-0.5}, jdouble{30.0});
    native<void>("Scroll", handle, jdouble{0.0}, jdouble{-7.0});
    const std::vector<std::pair<double, double>> sent = {{-1.0, 30.0}, {0.0, -1.0}};
    EXPECT_EQ(sent, scroll->setScrollPercentArguments);
    EXPECT_EQ(0.0, scroll->horizontalPercent) << "0.0 scrolls to the start";
    EXPECT_EQ(30.0, scroll->verticalPercent);
    EXPECT_TRUE(LogFile::contains(", h:-0.5, v:30", 7));
    EXPECT_FALSE(LogFile::contains("Scrolling failed"));

    native<void>("Scroll", handle, jdouble{150.0}, jdouble{0.0});
    EXPECT_TRUE(LogFile::contains("Scrolling failed: 80070057", 3)) << "a refusal is a warning";
    native<void>("Scroll", handleOf(plain), jdouble{10.0}, jdouble{10.0});
    EXPECT_EQ(1u, LogFile::count("Scrolling failed")) << "no pattern is no warning";
    EXPECT_EQ(3, scroll->setScrollPercentCalls);
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, ScrollIntoViewUsesTheNearestAncestorWithThePattern) {
    fakeuia::Node& item = top->add(specOf(UIA_ListItemControlTypeId, L"item"));
    fakeuia::Node& text = item.add(specOf(UIA_TextControlTypeId, L"text"));
    auto scrollItem = fakeuia::attach<fakeuia::ScrollItemSource>(item);
    const jlong textHandle = handleOf(text);

    EXPECT_EQ(JNI_TRUE, native<jboolean>("ScrollIntoView", textHandle));
    EXPECT_EQ(1, scrollItem->scrollIntoViewCalls);
    EXPECT_TRUE(LogFile::contains("parent: ", 9));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("ScrollIntoView", handleOf(item)));
    EXPECT_EQ(2, scrollItem->scrollIntoViewCalls);

    EXPECT_EQ(JNI_FALSE, native<jboolean>("ScrollIntoView", handleOf(*top))) << "none up to the desktop";
    EXPECT_EQ(2, scrollItem->scrollIntoViewCalls);

    // Only a result of exactly 0 is a success.
    scrollItem->fail("ScrollIntoView", S_FALSE);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("ScrollIntoView", textHandle));
    EXPECT_EQ(3, scrollItem->scrollIntoViewCalls);
    EXPECT_TRUE(LogFile::contains("Scrolling did not succeed: 1", 3));
    EXPECT_EQ("", thrown());
}

// --- Move, Resize, SetFocus ------------------------------------------------------------------------

TEST_F(Actions, MoveAndResizeAnswerWhetherTheControlCanBeTransformed) {
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
    EXPECT_EQ(20, fixed.spec().bounds.left);

    EXPECT_EQ(JNI_TRUE, native<jboolean>("Move", handleOf(loose), jint{30}, jint{40}));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Resize", handleOf(loose), jint{200}, jint{100}));
    const RECT moved = loose.spec().bounds;
    EXPECT_EQ(30, moved.left);
    EXPECT_EQ(40, moved.top);
    EXPECT_EQ(230, moved.right);
    EXPECT_EQ(140, moved.bottom);
    EXPECT_TRUE(LogFile::contains(", x: 30, y: 40", 7));
    EXPECT_TRUE(LogFile::contains(", width: 200, height: 100", 7));

    EXPECT_EQ(JNI_FALSE, native<jboolean>("Move", handleOf(plain), jint{1}, jint{1}));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Resize", handleOf(plain), jint{1}, jint{1}));
    EXPECT_EQ(2u, LogFile::count("Transformation not possible", 9));
    EXPECT_EQ(1u, looseTransform->moveArguments.size());
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, SetFocusOnlyWhereTheFocusIsNot) {
    fakeuia::Node& edit = top->add(specOf(UIA_EditControlTypeId, L"edit"));
    fakeuia::Node& stubborn = top->add(specOf(UIA_EditControlTypeId, L"stubborn"));
    const jlong handle = handleOf(edit);

    native<void>("SetFocus", handle);
    EXPECT_EQ(1, edit.setFocusCalls());
    EXPECT_TRUE(edit.spec().hasKeyboardFocus);
    EXPECT_EQ(1u, LogFile::count("setting Focus", 9));
    native<void>("SetFocus", handle);
    EXPECT_EQ(1, edit.setFocusCalls()) << "focused already";
    EXPECT_EQ(1u, LogFile::count("Setting focus not necessary since component had focus already.", 9));

    // An unreadable focus counts as had.
    stubborn.fail("get_CurrentHasKeyboardFocus", E_FAIL);
    native<void>("SetFocus", handleOf(stubborn));
    EXPECT_EQ(0, stubborn.setFocusCalls());
    EXPECT_EQ(2u, LogFile::count("Setting focus not necessary since component had focus already.", 9));
    stubborn.clearFailures();
    stubborn.fail("SetFocus", E_FAIL);
    native<void>("SetFocus", handleOf(stubborn));
    EXPECT_TRUE(LogFile::contains("Setting the focus failed.", 9));
    EXPECT_EQ("", thrown());
}

// --- Input -----------------------------------------------------------------------------------

TEST_F(Actions, MenuItemsBringTheWindowToTheFrontOnlyUnderABarOrAWpfMenu) {
    struct Case {
        const wchar_t* name;
        CONTROLTYPEID parentType;
        const wchar_t* parentClass;
        const wchar_t* framework;
        const char* front;
    };
    const Case cases[] = {
        {L"bar", UIA_MenuBarControlTypeId, L"", L"Win32", ", front: 1"},
        {L"wpf", UIA_MenuControlTypeId, L"Menu", L"WPF", ", front: 1"},
        {L"popup", UIA_MenuControlTypeId, L"#32768", L"Win32", ", front: 0"},
        {L"win32 Menu", UIA_MenuControlTypeId, L"Menu", L"Win32", ", front: 0"},
        {L"wpf popup", UIA_MenuControlTypeId, L"Popup", L"WPF", ", front: 0"},
        // The class and the framework decide, not the parent's type.
        {L"pane", UIA_PaneControlTypeId, L"Menu", L"WPF", ", front: 1"},
    };
    for (const Case& c : cases) {
        fakeuia::NodeSpec parentSpec = specOf(c.parentType, c.name);
        parentSpec.className = c.parentClass;
        parentSpec.frameworkId = c.framework;
        fakeuia::Node& parent = top->add(parentSpec);
        fakeuia::Node& item = parent.add(specOf(UIA_MenuItemControlTypeId, L"item"));
        native<void>("SimulateMouseEvent", handleOf(item), jint{500}, jint{0}, jint{3}, jint{4}, jint{0}, jint{1});
        const std::string line = lastEntry("tolva.uia.UiaHelper", "DoMouseEvent()");
        EXPECT_NE(std::string::npos, line.find(c.front)) << line;
    }
    // Anything but a menu item goes to the front.
    fakeuia::Node& button = top->add(specOf(UIA_ButtonControlTypeId, L"OK"));
    native<void>("SimulateMouseEvent", handleOf(button), jint{501}, jint{2}, jint{3}, jint{4}, jint{1}, jint{2});
    EXPECT_NE(std::string::npos, lastEntry("tolva.uia.UiaHelper", "DoMouseEvent()")
                                     .find(", id: 501, btn: 2, x: 3, y: 4, mod: 1, count: 2, front: 1"));
    EXPECT_TRUE(LogFile::contains(", id: 501, btn: 2, x: 3, y: 4, mod: 1, count: 2", 7));
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, AMenuItemWhoseParentIsNoControlGoesToTheFront) {
    fakeuia::Node& menu = top->add(specOf(UIA_MenuControlTypeId, L"menu"));
    fakeuia::Node& item = menu.add(specOf(UIA_MenuItemControlTypeId, L"item"));
    const jlong handle = handleOf(item);
    // A parent without a readable type can't be made a control.
    menu.fail("get_CurrentControlType", E_ACCESSDENIED);
    native<void>("SimulateMouseEvent", handle, jint{500}, jint{0}, jint{3}, jint{4}, jint{0}, jint{1});
    EXPECT_NE(std::string::npos, lastEntry("tolva.uia.UiaHelper", "DoMouseEvent()").find(", front: 1"));
    EXPECT_TRUE(LogFile::contains("Couldn't get a type", 3)) << "the parent is no control";
    EXPECT_EQ("", thrown());
}

TEST_F(Actions, KeyStrokesPassTheWholeCharacter) {
    fakeuia::Node& edit = top->add(specOf(UIA_EditControlTypeId, L"edit"));
    native<void>("SimulateKeyStroke", handleOf(edit), jchar{0xFFFE}, jint{0x41}, jint{3});
    EXPECT_TRUE(LogFile::contains(", c: 65534, kc: 65, m: 3", 7));
    EXPECT_NE(std::string::npos,
              lastEntry("tolva.uia.UiaHelper", "SimulateKeyStroke()").find(", c: 65534, kc: 65, m: 3"));
    EXPECT_EQ("", thrown());
}

// --- Modes ---------------------------------------------------------------------------------------

TEST_F(Actions, CheckModeIsQueuedForTheDispatchThread) {
    native<void>("EnableCheckMode", YES, jint{5});
    ASSERT_TRUE(LogFile::waitFor("start: 1", 5000, 7));
    EXPECT_TRUE(LogFile::contains("enable: 1, mode: 5", 7));
    native<void>("EnableCheckMode", NO, jint{0});
    ASSERT_TRUE(LogFile::waitFor("start: 0", 5000, 7));
    std::vector<LogLine> runs = linesOf("tolva.UiaChecker", "operator()");
    ASSERT_EQ(4u, runs.size());
    for (const LogLine& line : runs) {
        EXPECT_EQ("Dispatch", line.thread);
    }

    // Without a dispatch thread there is nothing to queue for.
    detachAndWait();
    const size_t noQueue = LogFile::count("No event queue", 3);
    native<void>("EnableCheckMode", YES, jint{5});
    EXPECT_EQ(noQueue + 1, LogFile::count("No event queue", 3));
    EXPECT_EQ(4u, linesOf("tolva.UiaChecker", "operator()").size());
}

TEST_F(Actions, RecordingModeStartsAndStopsTheOverlayThread) {
    const std::string pid = "pid: " + std::to_string(GetCurrentProcessId());
    auto made = [] { return linesOf("tolva.ProcessOverlay", "ProcessOverlay()").size(); };
    auto gone = [] { return linesOf("tolva.ProcessOverlay", "~ProcessOverlay()").size(); };

    native<void>("EnableRecordingMode", NO, jint{0});
    native<void>("EnableRecordingMode", YES, jint{0});
    ASSERT_TRUE(dwtest::waitUntil([&] { return made() == 2; }, 5000)) << "the overlay is made on its thread";
    const LogLine first = linesOf("tolva.ProcessOverlay", "ProcessOverlay()").front();
    EXPECT_EQ(pid, first.message);
    EXPECT_NE("Dispatch", first.thread);
    EXPECT_NE("main", first.thread);

    // A second start stops it.
    native<void>("EnableRecordingMode", YES, jint{0});
    ASSERT_TRUE(dwtest::waitUntil([&] { return gone() == 1; }, 5000)) << "the overlay thread ended";

    native<void>("EnableRecordingMode", YES, jint{0});
    native<void>("EnableRecordingMode", NO, jint{0});
    ASSERT_TRUE(dwtest::waitUntil([&] { return gone() == 2; }, 5000));
    EXPECT_EQ(4u, made()) << "two overlays, two lines each";
}

// --- Handles that fail the check ----------------------------------------------------------------

TEST_F(Actions, AFailedHandleCheckReachesNothing) {
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
    const jlong victimHandle = handleOf(victim);
    // The element now reports another type: the first check evicts the
    // control, and from then on the table doesn't know the handle.
    victim.update([](fakeuia::NodeSpec& spec) { spec.controlType = UIA_CheckBoxControlTypeId; });

    const std::vector<std::pair<const char*, std::function<void(jlong)>>> natives = {
        {"SimulateMouseEvent",
         [this](jlong h) {
             native<void>("SimulateMouseEvent", h, jint{500}, jint{0}, jint{1}, jint{1}, jint{0}, jint{1});
         }},
        {"SimulateKeyStroke",
         [this](jlong h) { native<void>("SimulateKeyStroke", h, jchar{'a'}, jint{0x41}, jint{0}); }},
        {"SetFocus", [this](jlong h) { native<void>("SetFocus", h); }},
        {"Move", [this](jlong h) { native<jboolean>("Move", h, jint{1}, jint{2}); }},
        {"Resize", [this](jlong h) { native<jboolean>("Resize", h, jint{1}, jint{2}); }},
        {"Close", [this](jlong h) { native<jboolean>("Close", h); }},
        {"BringToFront", [this](jlong h) { native<jboolean>("BringToFront", h); }},
        {"Highlight", [this](jlong h) { native<void>("Highlight", h, jint{100}, jint{-1}); }},
        {"DoDefaultAction", [this](jlong h) { native<void>("DoDefaultAction", h); }},
        {"Invoke", [this](jlong h) { native<void>("Invoke", h); }},
        {"Select", [this](jlong h) { native<void>("Select", h, jint{0}); }},
        {"Toggle", [this](jlong h) { native<jboolean>("Toggle", h, jint{-1}); }},
        {"Expand", [this](jlong h) { native<jboolean>("Expand", h, YES); }},
        {"Scroll", [this](jlong h) { native<void>("Scroll", h, jdouble{10.0}, jdouble{10.0}); }},
        {"ScrollIntoView", [this](jlong h) { native<jboolean>("ScrollIntoView", h); }},
    };
    const jlong bogus = 0x12340;
    for (size_t i = 0; i < natives.size(); ++i) {
        natives[i].second(victimHandle);
        EXPECT_EQ(i == 0 ? "Control does no longer exist" : "Invalid handle value", thrown()) << natives[i].first;
        natives[i].second(bogus);
        EXPECT_EQ("Invalid handle value", thrown()) << natives[i].first;
    }

    EXPECT_EQ(0, invoke->invokeCount);
    EXPECT_EQ(0, toggle->toggleCalls);
    EXPECT_EQ(0, expand->expandCalls + expand->collapseCalls);
    EXPECT_EQ(0, selection->selectCalls + selection->addToSelectionCalls + selection->removeFromSelectionCalls);
    EXPECT_EQ(0, scroll->setScrollPercentCalls);
    EXPECT_EQ(0, scrollItem->scrollIntoViewCalls);
    EXPECT_TRUE(transform->moveArguments.empty());
    EXPECT_TRUE(transform->resizeArguments.empty());
    EXPECT_EQ(0, window->closeCalls);
    EXPECT_EQ(0, legacy->doDefaultActionCalls);
    EXPECT_EQ(0, victim.setFocusCalls());
    EXPECT_TRUE(linesOf("tolva.Highlighter").empty());
    EXPECT_TRUE(linesOf("tolva.uia.UiaHelper", "DoMouseEvent()").empty());
    EXPECT_TRUE(linesOf("tolva.uia.UiaHelper", "SimulateKeyStroke()").empty());
}
