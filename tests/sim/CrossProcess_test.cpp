// The target's windows in another process, as with a real target: the
// simulated tree's nodes name windows that the target program made, so the
// driver's window messages (WM_GETTEXT, WM_SETTEXT, ...) cross the process
// boundary, and elements and the elements made from window handles meet
// real windows of a real process.
#include "TargetTest.h"

#include <algorithm>

using dwtest::java;

namespace {

class CrossProcess : public dwtest::TargetTest {
protected:
    void SetUp() override {
        TargetTest::SetUp();
        main = target.makeWindow(L"DeskwrightTarget", L"Remote main", {100, 100, 500, 400});
        ASSERT_NE(nullptr, main);
        edit = target.makeWindow(L"Edit", L"remote text", {10, 10, 210, 40}, main);
        button = target.makeWindow(L"Button", L"Press", {10, 60, 110, 90}, main);
        ASSERT_TRUE(edit && button);
        // The window's own name is empty in the tree: the driver asks the window.
        mainNode = &platform->desktop().add(specOf(main, UIA_WindowControlTypeId, L""));
        mainNode->add(specOf(edit, UIA_EditControlTypeId));
        mainNode->add(specOf(button, UIA_ButtonControlTypeId));
    }
    std::wstring text(jstring value) { return host->isNull(value) ? L"<null>" : host->text(value); }

    HWND main = nullptr;
    HWND edit = nullptr;
    HWND button = nullptr;
    fakeuia::Node* mainNode = nullptr;
};

}  // namespace

TEST_F(CrossProcess, WindowNativesReachTheOtherProcess) {
    EXPECT_EQ(L"remote text", text(native<jstring>("GetWindowText", java(edit))));
    EXPECT_EQ(L"Edit", text(native<jstring>("GetWindowClassName", java(edit))));
    EXPECT_EQ(11, native<jint>("SendMessage", java(edit), jint{WM_GETTEXTLENGTH}, jlong{0}, jlong{0}));
    EXPECT_NE(0, native<jint>("GetWindowLong", java(main), jint{GWL_STYLE}) & WS_VISIBLE);

    EXPECT_EQ(JNI_TRUE, native<jboolean>("SetWindowText", java(main), host->str(L"Renamed")));
    wchar_t seen[64] = {};
    InternalGetWindowText(main, seen, 64);
    EXPECT_EQ(std::wstring(L"Renamed"), seen) << "the target's window has the new text";
    EXPECT_EQ(L"Renamed", text(native<jstring>("GetWindowText", java(main))));
    EXPECT_EQ("", dwtest::pendingException(*host));
}

TEST_F(CrossProcess, ElementsNameTheirRemoteWindows) {
    attachToTarget();
    std::vector<jlong> tops = toplevels();
    ASSERT_EQ(1u, tops.size());
    EXPECT_EQ(java(main), native<jlong>("GetNativeHandle", tops[0]));
    EXPECT_EQ(L"Remote main", attr(tops[0], L"name")) << "the name from the window's text";
    EXPECT_EQ(std::to_wstring(GetWindowLongW(main, GWL_STYLE)), attr(tops[0], L"windowstyle"));
    const std::vector<jlong> inside = children(tops[0]);
    ASSERT_EQ(2u, inside.size());
    EXPECT_EQ(java(button), native<jlong>("GetNativeHandle", inside[1]));
    EXPECT_EQ(L"Button", text(native<jstring>("GetClassName", inside[1])));
    EXPECT_EQ("", dwtest::pendingException(*host));
}

// Looking windows up through the window system gives elements of windows that
// the tree doesn't name too, made from the windows themselves.
TEST_F(CrossProcess, WindowsWithoutNodesAreElementsOfTheirHandles) {
    HWND plain = target.makeWindow(L"DeskwrightTarget", L"Unmodelled", {150, 150, 450, 350});
    ASSERT_NE(nullptr, plain);
    SetEnvironmentVariableW(L"CUEBENCH_WIN_VIA_HWND", L"true");
    attachToTarget();
    std::vector<jlong> tops = toplevels();
    ASSERT_EQ(2u, tops.size());
    std::vector<jlong> windows;
    for (jlong top : tops) windows.push_back(native<jlong>("GetNativeHandle", top));
    const auto at = std::find(windows.begin(), windows.end(), java(plain));
    ASSERT_NE(windows.end(), at) << "no element for the window without a node";
    const jlong element = tops[static_cast<size_t>(at - windows.begin())];
    EXPECT_EQ(L"Unmodelled", attr(element, L"name"));
    EXPECT_EQ(L"DeskwrightTarget", text(native<jstring>("GetClassName", element)));
    EXPECT_EQ(std::to_wstring(target.pid()), attr(element, L"pid"));
    EXPECT_NE(windows.end(), std::find(windows.begin(), windows.end(), java(main)));
    SetEnvironmentVariableW(L"CUEBENCH_WIN_VIA_HWND", nullptr);
    EXPECT_EQ("", dwtest::pendingException(*host));
}
