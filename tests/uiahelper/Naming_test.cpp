// An element's identity and text: runtime ids, names, values and the texts
// that come from the element's own window.
#include "HelperTest.h"

#include "FakeUiaPatterns.h"
#include "OwnWindow.h"

#include "common/NullMarkers.h"
#include "common/Preferences.h"
#include "uiahelper/UiaHelper.h"

#include <limits>

using dwtest::ElementRef;
using dwtest::HelperTest;

namespace {

// A real top-level window that can claim another text length than its own.
struct TestWindows {
    static LRESULT CALLBACK FrameProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
        if (message == WM_GETTEXTLENGTH && claimedLength() != 0) return claimedLength();
        return DefWindowProcW(hwnd, message, wParam, lParam);
    }
    // A length that WM_GETTEXTLENGTH answers instead of the true one; 0: the true one.
    static LRESULT& claimedLength() {
        static LRESULT length = 0;
        return length;
    }
    TestWindows() {
        dwtest::registerClass(L"NamingTestFrame", FrameProc);
        frame = CreateWindowExW(0, L"NamingTestFrame", L"Frame title", WS_OVERLAPPEDWINDOW, 0, 0, 300, 200, nullptr,
                                nullptr, GetModuleHandleW(nullptr), nullptr);
    }
    ~TestWindows() {
        claimedLength() = 0;
        DestroyWindow(frame);
    }
    void setTitle(const std::wstring& text) { SetWindowTextW(frame, text.c_str()); }
    HWND frame;
};

class Naming : public HelperTest {
protected:
    void TearDown() override {
        for (const wchar_t* key : {tolva::PREF_TEST_NONUNIQUE_RIDS, tolva::PREF_TEST_NONUNIQUE_ROW_NAMES}) {
            tolva::Preferences::getInstance().setPreference(key, tolva::NULL_JAVA_STRING);
        }
        HelperTest::TearDown();
    }
    fakeuia::Node& child(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name = L"",
                         const std::function<void(fakeuia::NodeSpec&)>& more = {}) {
        fakeuia::NodeSpec spec{.controlType = type, .name = name};
        if (more) more(spec);
        return parent.add(spec);
    }
    // A top-level node whose element has the real window as its own.
    fakeuia::Node& windowOf(HWND hwnd, const std::wstring& name) {
        fakeuia::Node& top = window(name);
        top.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = hwnd; });
        return top;
    }
};

}  // namespace

TEST_F(Naming, RuntimeIdsAreLowerCaseHexJoinedByDots) {
    fakeuia::Node& top = window(L"w");
    auto withId = [&](CONTROLTYPEID type, const wchar_t* name, std::vector<int> id) -> fakeuia::Node& {
        return child(top, type, name, [&](fakeuia::NodeSpec& s) { s.runtimeId = id; });
    };
    fakeuia::Node& button = withId(UIA_ButtonControlTypeId, L"button", {42, 132456, 4, -1});
    fakeuia::Node& tab = withId(UIA_TabItemControlTypeId, L"tab", {42, 7, 3});
    withId(UIA_TextControlTypeId, L"none", {});
    ElementRef buttonElement(elementOf(button)), tabElement(elementOf(tab)), noneElement;
    {
        // Found by a walk: the node has no id to search by.
        IUIAutomationTreeWalker* walker = nullptr;
        automation->get_RawViewWalker(&walker);
        IUIAutomationElement* last = nullptr;
        walker->GetLastChildElement(ElementRef(elementOf(top)).get(), &last);
        noneElement.reset(last);
        walker->Release();
    }
    ASSERT_EQ(L"none", UiaHelper::GetControlName(noneElement.get()));
    struct Row {
        const char* name;
        IUIAutomationElement* element;
        bool nonUnique;
        HRESULT code;  // S_FALSE: any success
        const wchar_t* id;
    };
    const Row rows[] = {
        {"an id", buttonElement.get(), false, S_OK, L"2a.20568.4.ffffffff"},
        {"a tab's id", tabElement.get(), false, S_OK, L"2a.7.3"},
        {"no id: success and no text", noneElement.get(), false, S_FALSE, L""},
        {"a null element", nullptr, false, E_INVALIDARG, L""},
        {"non-unique: a tab's id loses its last part", tabElement.get(), true, S_OK, L"2a.7"},
        {"non-unique: other types keep theirs", buttonElement.get(), true, S_OK, L"2a.20568.4.ffffffff"},
    };
    for (const Row& row : rows) {
        tolva::Preferences::getInstance().setPreference(tolva::PREF_TEST_NONUNIQUE_RIDS,
                                                          row.nonUnique ? L"true" : L"false");
        std::wstring id = L"old";
        const HRESULT hr = UiaHelper::GetControlRuntimeId(row.element, id);
        EXPECT_TRUE(row.code == S_FALSE ? SUCCEEDED(hr) : hr == row.code) << row.name;
        EXPECT_EQ(row.id, id) << row.name;
    }
}

TEST_F(Naming, EmptyWindowNamesComeFromTheWindowText) {
    TestWindows windows;
    fakeuia::Node& top = windowOf(windows.frame, L"");
    fakeuia::Node& pane =
        child(top, UIA_PaneControlTypeId, L"", [&](fakeuia::NodeSpec& s) { s.nativeWindowHandle = windows.frame; });
    ElementRef topElement(elementOf(top));
    EXPECT_EQ(L"Frame title", UiaHelper::GetControlName(topElement.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlName(ElementRef(elementOf(pane)).get())) << "only windows";
    EXPECT_EQ(L"", UiaHelper::GetControlName(nullptr));

    windows.setTitle(L"Hello");
    struct Row { const char* name; LRESULT claimed; const wchar_t* text; };
    const Row rows[] = {
        {"the largest length", (std::numeric_limits<LRESULT>::max)(), L"Hello"},
        {"2^31 - 1", 0x7FFFFFFF, L"Hello"},
        {"a negative length", -1, L""},
    };
    for (const Row& row : rows) {
        TestWindows::claimedLength() = row.claimed;
        EXPECT_EQ(row.text, UiaHelper::GetWindowTextViaMessage(windows.frame)) << row.name;
        EXPECT_EQ(row.text, UiaHelper::GetControlName(topElement.get())) << row.name << ", as a window's name";
    }
}

TEST_F(Naming, TheNonUniqueRowSwitchRenamesRows) {
    tolva::Preferences::getInstance().setPreference(tolva::PREF_TEST_NONUNIQUE_ROW_NAMES, L"true");
    fakeuia::Node& top = window(L"w");
    fakeuia::Node& row = child(top, UIA_DataItemControlTypeId, L"Zeile 7");
    fakeuia::Node& other = child(top, UIA_DataItemControlTypeId, L"Eine Zeile");
    fakeuia::attach<fakeuia::ValueSource>(other)->value = L"its value";
    fakeuia::Node& lower = child(top, UIA_DataItemControlTypeId, L"zeile 1");
    EXPECT_EQ(L"Zeile ohne Index", UiaHelper::GetControlName(ElementRef(elementOf(row)).get()));
    EXPECT_EQ(L"its value", UiaHelper::GetControlName(ElementRef(elementOf(other)).get()));
    EXPECT_EQ(L"zeile 1", UiaHelper::GetControlName(ElementRef(elementOf(lower)).get()));
}

TEST_F(Naming, TextsWithoutAWindowOrAValueAreEmpty) {
    fakeuia::Node& top = window(L"w");
    top.update([](fakeuia::NodeSpec& spec) {
        spec.frameworkId = L"Win32";
        spec.ariaRole = L"button";
        spec.ariaProperties = L"pressed=false";
        spec.fullDescription = L"A long description";
    });
    ElementRef element(elementOf(top));
    EXPECT_EQ(L"", UiaHelper::GetTextViaHWND(element.get()));
    EXPECT_EQ(L"Win32", UiaHelper::GetControlFrameworkId(element.get()));
    EXPECT_EQ(L"button", UiaHelper::GetControlAriaRole(element.get()));
    EXPECT_EQ(L"pressed=false", UiaHelper::GetControlAriaProperties(element.get()));
    EXPECT_EQ(L"A long description", UiaHelper::GetControlFullDescription(element.get()));
    top.nullString("get_CurrentFrameworkId");
    top.fail("get_CurrentAriaRole", E_FAIL);
    EXPECT_EQ(L"", UiaHelper::GetControlFrameworkId(element.get())) << "a null text";
    EXPECT_EQ(L"", UiaHelper::GetControlAriaRole(element.get())) << "a failed read";

    const RECT none = UiaHelper::GetControlBounds(nullptr);
    EXPECT_EQ((std::vector<LONG>{-1, 0, 0, 0}), (std::vector<LONG>{none.left, none.top, none.right, none.bottom}))
        << "a null element has the failed bounds";
}
