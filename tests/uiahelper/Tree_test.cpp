// Walking and searching the element tree, and finding a target's windows.
#include "HelperTest.h"

#include "common/NullMarkers.h"
#include "common/Preferences.h"
#include "uiahelper/UiaHelper.h"

#include "SmallStack.h"

#include <algorithm>
#include <functional>

using dwtest::ElementRef;
using dwtest::HelperTest;

namespace {

class Tree : public HelperTest {
protected:
    void TearDown() override {
        for (const wchar_t* key : {tolva::PREF_MAX_CHILDREN, tolva::PREF_TOPLEVEL_CLASSES}) {
            tolva::Preferences::getInstance().setPreference(key, tolva::NULL_JAVA_STRING);
        }
        HelperTest::TearDown();
    }
    fakeuia::Node& child(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name = L"",
                         const std::wstring& className = L"", int pid = 0) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        spec.name = name;
        spec.className = className;
        spec.processId = pid;
        return parent.add(spec);
    }
    // The names of a list's elements.
    std::vector<std::wstring> names(const UiaHelper::ElementList& list) {
        std::vector<std::wstring> result;
        for (const UiaHelper::ElementPtr& element : list) {
            result.push_back(element ? UiaHelper::GetControlName(element.get()) : L"<null>");
        }
        return result;
    }
    void setPreference(const wchar_t* key, const wchar_t* value) {
        tolva::Preferences::getInstance().setPreference(key, value);
    }
};

using Names = std::vector<std::wstring>;

}  // namespace

TEST_F(Tree, ChildrenAreLimitedByMaxChildrenAndEndAtAFailingStep) {
    fakeuia::Node& top = window(L"w");
    for (const wchar_t* name : {L"1", L"2", L"3", L"4", L"5"}) {
        child(top, UIA_ButtonControlTypeId, name);
    }
    ElementRef element(elementOf(top));
    EXPECT_EQ((Names{L"1", L"2", L"3", L"4", L"5"}), names(UiaHelper::GetChildren(element.get())));
    setPreference(tolva::PREF_MAX_CHILDREN, L"3");
    EXPECT_EQ((Names{L"1", L"2", L"3"}), names(UiaHelper::GetChildren(element.get())));
    for (const wchar_t* noLimit : {L"abc", L"0", L"-1"}) {
        setPreference(tolva::PREF_MAX_CHILDREN, noLimit);
        EXPECT_EQ(5u, names(UiaHelper::GetChildren(element.get())).size()) << "limit " << noLimit[0];
    }
    setPreference(tolva::PREF_MAX_CHILDREN, tolva::NULL_JAVA_STRING);
    EXPECT_TRUE(UiaHelper::GetChildren(nullptr).empty());
    top.children()[1]->fail("GetNextSiblingElement", E_FAIL);
    EXPECT_EQ((Names{L"1", L"2"}), names(UiaHelper::GetChildren(element.get()))) << "a failing step ends the list";
}

TEST_F(Tree, ParentsTheDesktopAndAncestorsButNotTheElementItself) {
    fakeuia::Node& top = window(L"w", 4711);
    fakeuia::Node& button = child(top, UIA_ButtonControlTypeId, L"b", L"", 4711);
    ElementRef topElement(elementOf(top));
    ElementRef buttonElement(elementOf(button));
    ElementRef parent(UiaHelper::GetParent(buttonElement.get()));
    EXPECT_EQ(L"w", UiaHelper::GetControlName(parent.get()));
    ElementRef desktop(UiaHelper::GetParent(parent.get()));
    EXPECT_TRUE(UiaHelper::IsDesktopElement(desktop.get()));
    EXPECT_FALSE(UiaHelper::IsDesktopElement(parent.get()));
    EXPECT_FALSE(UiaHelper::IsDesktopElement(nullptr));
    EXPECT_EQ(nullptr, UiaHelper::GetParent(desktop.get()));
    EXPECT_FALSE(UiaHelper::HasAncestorWithPid(topElement.get(), 4711)) << "the desktop has another process";
    EXPECT_TRUE(UiaHelper::HasAncestorWithPid(buttonElement.get(), 4711));
    EXPECT_FALSE(UiaHelper::HasAncestorWithPid(buttonElement.get(), 99));
    EXPECT_FALSE(UiaHelper::HasAncestorWithPid(nullptr, 4711)) << "no element at a point";
}

TEST_F(Tree, ToplevelsOfAProcessSkipShadowsAndLookIntoFrames) {
    window(L"main", 4711, L"MainWnd");
    window(L"shadow", 4711, L"SysShadow");
    window(L"other shadow", 99, L"SysShadow");
    fakeuia::Node& frame = window(L"store app", 88, L"ApplicationFrameWindow");
    child(frame, UIA_WindowControlTypeId, L"hosted", L"Windows.UI.Core.CoreWindow", 4711);
    child(frame, UIA_TitleBarControlTypeId, L"frame's own", L"", 88);
    window(L"own frame", 4711, L"ApplicationFrameWindow");
    EXPECT_EQ((Names{L"main", L"hosted", L"own frame"}), names(UiaHelper::GetToplevelsForPid(4711)));
    EXPECT_TRUE(UiaHelper::GetToplevelsForPid(12345).empty());
}

TEST_F(Tree, ToplevelsByClassTakeTheFirstWholeMatch) {
    window(L"a", 1, L"SunAwtFrame");
    window(L"b", 2, L"SunAwtFrame");
    ElementRef found(UiaHelper::GetToplevelByClassName(L"Sun.*"));
    EXPECT_EQ(L"a", UiaHelper::GetControlName(found.get()));
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByClassName(L"Sun"));
}

TEST_F(Tree, NamesMatchAsAWholeWithLineBreaksAsBlanks) {
    window(L"Main\r\nWindow", 1);
    window(L"Main Window extra", 2);
    EXPECT_EQ((Names{L"Main\r\nWindow"}), names(UiaHelper::GetElementsByTypeAndName(nullptr, L"", L"Main  Window", false, 2)));
    EXPECT_TRUE(names(UiaHelper::GetElementsByTypeAndName(nullptr, L"", L"Main", false, 2)).empty());
    EXPECT_EQ(1u, names(UiaHelper::GetElementsByTypeAndName(nullptr, L"Window", L"Main.*", true, 2)).size());
    EXPECT_TRUE(names(UiaHelper::GetElementsByTypeAndName(nullptr, L"Pane", L"Main.*", false, 2)).empty());
}

TEST_F(Tree, FramesAreLookedThroughOnlyForChildrenAndOnlyIntoOtherProcesses) {
    fakeuia::Node& frame = window(L"App frame", 88, L"ApplicationFrameWindow");
    child(frame, UIA_WindowControlTypeId, L"App", L"Windows.UI.Core.CoreWindow", 4711);
    child(frame, UIA_WindowControlTypeId, L"App", L"Same", 88);  // the frame's own process: never a hit
    fakeuia::Node& frame2 = window(L"Other frame", 89, L"ApplicationFrameWindow");
    child(frame2, UIA_WindowControlTypeId, L"App", L"Windows.UI.Core.CoreWindow", 4712);
    window(L"App", 4713, L"Plain");

    // With first-only, a hit inside a frame ends only that frame's look.
    auto firstOnly = UiaHelper::GetElementsByTypeAndName(nullptr, L"", L"App", true, 2);
    std::vector<int> pids;
    for (const UiaHelper::ElementPtr& element : firstOnly) {
        int pid = 0;
        UiaHelper::GetControlProcessId(element.get(), &pid);
        pids.push_back(pid);
    }
    EXPECT_EQ((std::vector<int>{4711, 4712, 4713}), pids);

    // Another scope doesn't look into frames, and first-only gives one.
    EXPECT_EQ(1u, names(UiaHelper::GetElementsByTypeAndName(nullptr, L"", L"App", true, TreeScope_Descendants)).size());
    ElementRef one(UiaHelper::GetElementByTypeAndName(nullptr, L"", L"App", 2));
    int pid = 0;
    UiaHelper::GetControlProcessId(one.get(), &pid);
    EXPECT_EQ(4711, pid);
}

TEST_F(Tree, WindowsOfASubtreeAndListedClasses) {
    fakeuia::Node& top = window(L"top", 1);
    child(top, UIA_WindowControlTypeId, L"dialog");
    fakeuia::Node& panel = child(top, UIA_PaneControlTypeId, L"panel", L"Panel");
    child(panel, UIA_WindowControlTypeId, L"inside a pane");
    fakeuia::Node& pane = platform->desktop().add([] {
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_PaneControlTypeId;
        spec.name = L"top pane";
        spec.className = L"Shell_TrayWnd";
        return spec;
    }());
    child(pane, UIA_WindowControlTypeId, L"below a top pane");
    ElementRef desktop(elementOf(platform->desktop()));
    EXPECT_EQ((Names{L"top", L"dialog"}), names(UiaHelper::FindAllWindows(desktop.get())));

    setPreference(tolva::PREF_TOPLEVEL_CLASSES, L"Shell_TrayWnd,Panel");
    EXPECT_EQ((Names{L"top", L"dialog", L"panel", L"top pane"}), names(UiaHelper::FindAllWindows(desktop.get())));
}

TEST_F(Tree, SearchesByPropertyAndByPoint) {
    fakeuia::Node& top = window(L"w", 1);
    child(top, UIA_ButtonControlTypeId, L"OK");
    child(top, UIA_ButtonControlTypeId, L"Cancel");
    VARIANT type;
    VariantInit(&type);
    type.vt = VT_I4;
    type.lVal = UIA_ButtonControlTypeId;
    EXPECT_EQ((Names{L"OK", L"Cancel"}), names(UiaHelper::GetElementsByProperty(nullptr, UIA_ControlTypePropertyId, type, TreeScope_Descendants)));
    ElementRef topElement(elementOf(top));
    EXPECT_TRUE(names(UiaHelper::GetElementsByProperty(topElement.get(), UIA_ControlTypePropertyId, type, TreeScope_Element)).empty());
    top.children()[0]->update([](fakeuia::NodeSpec& spec) { spec.bounds = {10, 10, 50, 30}; });
    ElementRef hit(UiaHelper::GetElementFromPoint(POINT{20, 20}));
    EXPECT_EQ(L"OK", UiaHelper::GetControlName(hit.get()));
}

namespace {

// Real top-level windows of this process, shown or hidden.
struct RealWindow {
    RealWindow(const wchar_t* title, bool visible) {
        hwnd = CreateWindowExW(0, L"STATIC", title, WS_OVERLAPPEDWINDOW | (visible ? WS_VISIBLE : 0), 0, 0, 120, 80,
                               nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
    }
    ~RealWindow() { DestroyWindow(hwnd); }
    HWND hwnd;
};

}  // namespace

TEST_F(Tree, TheWindowSystemListsAndMatchesOnlyVisibleWindowsOfTheProcess) {
    RealWindow shown(L"Shown target", true);
    RealWindow hidden(L"Hidden target", false);
    const int pid = static_cast<int>(GetCurrentProcessId());
    for (const RealWindow* real : {&shown, &hidden}) {
        window(real == &shown ? L"shown" : L"hidden", pid).update(
            [real](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = real->hwnd; });
    }
    EXPECT_EQ((Names{L"shown"}), names(UiaHelper::GetToplevelsForPidViaHWND(pid)));
    EXPECT_EQ((Names{L"shown", L"hidden"}), names(UiaHelper::GetToplevelsForPid(pid)))
        << "the automation tree shows hidden windows";
    ElementRef found(UiaHelper::GetToplevelByTitleViaHWND(L"Shown \\w+"));
    EXPECT_EQ(L"shown", UiaHelper::GetControlName(found.get()));
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByTitleViaHWND(L"Shown")) << "titles match whole";
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByTitleViaHWND(L"Hidden target")) << "invisible windows never count";

    ShowWindow(shown.hwnd, SW_HIDE);
    RealWindow stray(L"No element", true);
    platform->fail("ElementFromHandle", fakeuia::kElementNotAvailable);
    EXPECT_EQ((Names{L"<null>"}), names(UiaHelper::GetToplevelsForPidViaHWND(pid)))
        << "a window whose element can't be had leaves a null entry";
}

TEST_F(Tree, NamesClassesAndTitlesOfAnyLengthMatchOnTheDispatchThreadsStack) {
    const std::wstring tail(1000000, L'x');
    const int self = static_cast<int>(GetCurrentProcessId());
    window(L"Main " + tail, 1, L"Sun" + tail);
    fakeuia::Node& frame = window(L"App frame", 88, L"ApplicationFrameWindow");
    child(frame, UIA_WindowControlTypeId, L"Core " + tail, L"Windows.UI.Core.CoreWindow", 4711);
    RealWindow shown((L"Report " + tail).c_str(), true);
    window(L"report element", self).update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = shown.hwnd; });

    auto byName = [this](const wchar_t* regex) {
        return names(UiaHelper::GetElementsByTypeAndName(nullptr, L"", regex, false, 2)).size();
    };
    auto found = [](IUIAutomationElement* element) {
        ElementRef held(element);
        return held.get() ? size_t{1} : size_t{0};
    };
    struct Row {
        const char* what;
        std::function<size_t()> hits;
        size_t expected;
    };
    const std::vector<Row> rows = {
        {"a top-level name", [&] { return byName(L"Main x*"); }, 1},
        {"a name that differs at its end", [&] { return byName(L"Main x*y"); }, 0},
        {"a name inside a frame", [&] { return byName(L"Core x+"); }, 1},
        {"a name as a long literal", [&] { return byName((L"Main " + tail).c_str()); }, 1},
        {"an expression too complex for the name", [&] { return byName(L"Main (x|xx)*y"); }, 0},
        {"a class", [&] { return found(UiaHelper::GetToplevelByClassName(L"Sun.*")); }, 1},
        {"a class that differs at its end", [&] { return found(UiaHelper::GetToplevelByClassName(L"Sunx*y")); }, 0},
        {"a window title", [&] { return found(UiaHelper::GetToplevelByTitleViaHWND(L"Report x+")); }, 1},
    };
    std::vector<size_t> hits(rows.size(), 99);
    ASSERT_TRUE(dwtest::runOnStack(dwtest::DISPATCH_STACK_BYTES, [&] {
        for (size_t i = 0; i < rows.size(); ++i) {
            hits[i] = rows[i].hits();
        }
    }));
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].expected, hits[i]) << rows[i].what;
    }
}

TEST_F(Tree, MalformedExpressionsFindNothing) {
    window(L"Foo(", 1, L"Foo(");
    RealWindow shown(L"Foo(", true);
    EXPECT_TRUE(names(UiaHelper::GetElementsByTypeAndName(nullptr, L"", L"Foo(", false, 2)).empty());
    EXPECT_EQ(nullptr, UiaHelper::GetElementByTypeAndName(nullptr, L"", L"Foo(", 2));
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByClassName(L"Foo("));
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByTitleViaHWND(L"Foo("));
}
