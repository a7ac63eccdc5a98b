// Walking and searching the element tree, and finding a target's windows.
#include "HelperTest.h"
#include "OwnWindow.h"

#include "common/NullMarkers.h"
#include "common/Preferences.h"
#include "uiahelper/UiaHelper.h"

#include <algorithm>
#include <functional>

using dwtest::ElementRef;
using dwtest::HelperTest;

namespace {

class Tree : public HelperTest {
protected:
    void TearDown() override {
        tolva::Preferences::getInstance().setPreference(tolva::PREF_MAX_CHILDREN, tolva::NULL_JAVA_STRING);
        HelperTest::TearDown();
    }
    fakeuia::Node& child(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name = L"",
                         const std::wstring& className = L"", int pid = 0) {
        return parent.add({.controlType = type, .name = name, .className = className, .processId = pid});
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
    for (const wchar_t* name : {L"1", L"2", L"3", L"4", L"5"}) child(top, UIA_ButtonControlTypeId, name);
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

namespace {

// A real top-level window of this process, shown or hidden.
struct RealWindow : dwtest::OwnWindow {
    RealWindow(const wchar_t* title, bool visible)
        : OwnWindow(L"STATIC", title, WS_OVERLAPPEDWINDOW | (visible ? WS_VISIBLE : 0)) {}
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

    ShowWindow(shown.hwnd, SW_HIDE);
    RealWindow stray(L"No element", true);
    platform->fail("ElementFromHandle", fakeuia::kElementNotAvailable);
    EXPECT_EQ((Names{L"<null>"}), names(UiaHelper::GetToplevelsForPidViaHWND(pid)))
        << "a window whose element can't be had leaves a null entry";
}

TEST_F(Tree, MalformedExpressionsFindNothing) {
    window(L"Foo(", 1, L"Foo(");
    RealWindow shown(L"Foo(", true);
    EXPECT_TRUE(names(UiaHelper::GetElementsByTypeAndName(nullptr, L"", L"Foo(", false, 2)).empty());
    EXPECT_EQ(nullptr, UiaHelper::GetElementByTypeAndName(nullptr, L"", L"Foo(", 2));
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByClassName(L"Foo("));
    EXPECT_EQ(nullptr, UiaHelper::GetToplevelByTitleViaHWND(L"Foo("));
}
