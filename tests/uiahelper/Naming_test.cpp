// An element's identity and text: runtime ids, names, values and the texts
// that come from the element's own window.
#include "HelperTest.h"

#include "FakeUiaPatterns.h"

#include "common/Preferences.h"
#include "uiahelper/UiaHelper.h"

#include <limits>

using dwtest::ElementRef;
using dwtest::HelperTest;

namespace {

// A real top-level window with a child edit, recording the WM_COMMAND it gets
// and answering WM_GETTITLEBARINFOEX with caption buttons of its own.
struct TestWindows {
    static LRESULT CALLBACK FrameProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
        if (message == WM_COMMAND) {
            commands().push_back({wParam, lParam});
            return 0;
        }
        if (message == WM_GETTEXTLENGTH && claimedLength() != 0) {
            return claimedLength();
        }
        if (message == WM_GETTITLEBARINFOEX) {
            auto* info = reinterpret_cast<TITLEBARINFOEX*>(lParam);
            info->rgrect[2] = {100, 0, 120, 20};  // minimize
            info->rgrect[3] = {120, 0, 140, 20};  // maximize
            info->rgrect[5] = {140, 0, 160, 20};  // close
            return 0;
        }
        return DefWindowProcW(hwnd, message, wParam, lParam);
    }
    // A length that WM_GETTEXTLENGTH answers instead of the true one; 0: the true one.
    static LRESULT& claimedLength() {
        static LRESULT length = 0;
        return length;
    }
    static std::vector<std::pair<WPARAM, LPARAM>>& commands() {
        static std::vector<std::pair<WPARAM, LPARAM>> list;
        return list;
    }
    TestWindows() {
        WNDCLASSW windowClass = {};
        windowClass.lpfnWndProc = FrameProc;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = L"NamingTestFrame";
        RegisterClassW(&windowClass);
        frame = CreateWindowExW(0, L"NamingTestFrame", L"Frame title", WS_OVERLAPPEDWINDOW, 0, 0, 300, 200, nullptr,
                                nullptr, GetModuleHandleW(nullptr), nullptr);
        edit = CreateWindowExW(0, L"EDIT", L"", WS_CHILD, 0, 0, 100, 20, frame, nullptr, GetModuleHandleW(nullptr),
                               nullptr);
        commands().clear();
    }
    ~TestWindows() {
        claimedLength() = 0;
        DestroyWindow(frame);
    }
    void setTitle(const std::wstring& text) { SetWindowTextW(frame, text.c_str()); }
    HWND frame;
    HWND edit;
};

class Naming : public HelperTest {
protected:
    void TearDown() override {
        tolva::Preferences::getInstance().setPreference(tolva::PREF_TEST_NONUNIQUE_RIDS, L"__null_java_string__");
        tolva::Preferences::getInstance().setPreference(tolva::PREF_TEST_NONUNIQUE_ROW_NAMES, L"__null_java_string__");
        HelperTest::TearDown();
    }
    fakeuia::Node& child(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name = L"") {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        spec.name = name;
        return parent.add(spec);
    }
};

}  // namespace

TEST_F(Naming, RuntimeIdsAreLowerCaseHexJoinedByDots) {
    fakeuia::Node& node = window(L"w");
    node.update([](fakeuia::NodeSpec& spec) { spec.runtimeId = std::vector<int>{42, 132456, 4, -1}; });
    ElementRef element(elementOf(node));
    std::wstring id = L"old";
    EXPECT_EQ(S_OK, UiaHelper::GetControlRuntimeId(element.get(), id));
    EXPECT_EQ(L"2a.20568.4.ffffffff", id);

    id = L"old";
    EXPECT_EQ(E_INVALIDARG, UiaHelper::GetControlRuntimeId(nullptr, id));
    EXPECT_EQ(L"", id);
}

TEST_F(Naming, AnElementWithoutRuntimeIdGivesSuccessAndNoText) {
    fakeuia::Node& node = window(L"w");
    node.update([](fakeuia::NodeSpec& spec) { spec.runtimeId = std::vector<int>{}; });
    ElementRef element;
    {
        // Found by the parent's walk: the node has no id to search by.
        IUIAutomationTreeWalker* walker = nullptr;
        automation->get_RawViewWalker(&walker);
        ElementRef root(elementOf(platform->desktop()));
        IUIAutomationElement* first = nullptr;
        walker->GetFirstChildElement(root.get(), &first);
        element.reset(first);
        walker->Release();
    }
    std::wstring id = L"old";
    EXPECT_TRUE(SUCCEEDED(UiaHelper::GetControlRuntimeId(element.get(), id)));
    EXPECT_EQ(L"", id);
}

TEST_F(Naming, TheNonUniqueRidSwitchCutsTabItemIdsAtTheLastDot) {
    tolva::Preferences::getInstance().setPreference(tolva::PREF_TEST_NONUNIQUE_RIDS, L"true");
    fakeuia::Node& top = window(L"w");
    fakeuia::Node& tab = child(top, UIA_TabItemControlTypeId, L"Tab 1");
    tab.update([](fakeuia::NodeSpec& spec) { spec.runtimeId = std::vector<int>{42, 7, 3}; });
    fakeuia::Node& button = child(top, UIA_ButtonControlTypeId, L"B");
    button.update([](fakeuia::NodeSpec& spec) { spec.runtimeId = std::vector<int>{42, 7, 4}; });
    std::wstring id;
    ElementRef tabElement(elementOf(tab));
    UiaHelper::GetControlRuntimeId(tabElement.get(), id);
    EXPECT_EQ(L"2a.7", id);
    ElementRef buttonElement(elementOf(button));
    UiaHelper::GetControlRuntimeId(buttonElement.get(), id);
    EXPECT_EQ(L"2a.7.4", id);
    EXPECT_TRUE(logged(9, "TEST:2a.7"));
}

TEST_F(Naming, ValuesOfTheLimitAreImprovedOnlyByALongerWindowText) {
    TestWindows windows;
    fakeuia::Node& top = window(L"w");
    top.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = windows.frame; });
    auto value = fakeuia::attach<fakeuia::ValueSource>(top);
    value->value = std::wstring(4096, L'v');
    ElementRef element(elementOf(top));

    windows.setTitle(std::wstring(4096, L't'));
    std::wstring text;
    EXPECT_EQ(S_OK, UiaHelper::GetControlValue(element.get(), text));
    EXPECT_EQ(std::wstring(4096, L'v'), text) << "a window text of the limit is no better";

    windows.setTitle(std::wstring(4097, L't'));
    EXPECT_EQ(S_OK, UiaHelper::GetControlValue(element.get(), text));
    EXPECT_EQ(std::wstring(4097, L't'), text);

    value->value = std::wstring(4097, L'v');
    EXPECT_EQ(S_OK, UiaHelper::GetControlValue(element.get(), text));
    EXPECT_EQ(std::wstring(4097, L'v'), text) << "only a text of exactly the limit is re-read";
}

TEST_F(Naming, AValueWithoutThePatternLeavesTheTextAlone) {
    ElementRef element(elementOf(window(L"w")));
    std::wstring text = L"as before";
    EXPECT_TRUE(SUCCEEDED(UiaHelper::GetControlValue(element.get(), text)));
    EXPECT_EQ(L"as before", text);
}

TEST_F(Naming, EmptyWindowNamesComeFromTheWindowText) {
    TestWindows windows;
    fakeuia::Node& top = window(L"");
    top.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = windows.frame; });
    fakeuia::Node& pane = child(top, UIA_PaneControlTypeId);
    pane.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = windows.frame; });
    ElementRef topElement(elementOf(top));
    ElementRef paneElement(elementOf(pane));
    EXPECT_EQ(L"Frame title", UiaHelper::GetControlName(topElement.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlName(paneElement.get()));

    // A name of the limit is kept when the window can't better it, window or not.
    windows.setTitle(L"short");
    top.update([](fakeuia::NodeSpec& spec) { spec.name = std::wstring(4096, L'n'); });
    EXPECT_EQ(std::wstring(4096, L'n'), UiaHelper::GetControlName(topElement.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlName(nullptr));
}

TEST_F(Naming, AWindowThatClaimsAHugeTextGivesTheTextItHas) {
    TestWindows windows;
    windows.setTitle(L"Hello");
    fakeuia::Node& top = window(L"");
    top.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = windows.frame; });
    ElementRef topElement(elementOf(top));
    struct Row {
        const char* what;
        LRESULT claimed;
        const wchar_t* text;
    };
    const Row rows[] = {
        {"the largest length", (std::numeric_limits<LRESULT>::max)(), L"Hello"},
        {"2^31 - 1", 0x7FFFFFFF, L"Hello"},
        {"a negative length", -1, L""},
    };
    for (const Row& row : rows) {
        TestWindows::claimedLength() = row.claimed;
        EXPECT_EQ(row.text, UiaHelper::GetWindowTextViaMessage(windows.frame)) << row.what;
        EXPECT_EQ(row.text, UiaHelper::GetControlName(topElement.get())) << row.what << ", as a window's name";
    }
}

TEST_F(Naming, TheNonUniqueRowSwitchRenamesRows) {
    tolva::Preferences::getInstance().setPreference(tolva::PREF_TEST_NONUNIQUE_ROW_NAMES, L"true");
    fakeuia::Node& top = window(L"w");
    fakeuia::Node& row = child(top, UIA_DataItemControlTypeId, L"Zeile 7");
    fakeuia::Node& other = child(top, UIA_DataItemControlTypeId, L"Eine Zeile");
    fakeuia::attach<fakeuia::ValueSource>(other)->value = L"its value";
    fakeuia::Node& lower = child(top, UIA_DataItemControlTypeId, L"zeile 1");
    ElementRef rowElement(elementOf(row));
    ElementRef otherElement(elementOf(other));
    ElementRef lowerElement(elementOf(lower));
    EXPECT_EQ(L"Zeile ohne Index", UiaHelper::GetControlName(rowElement.get()));
    EXPECT_EQ(L"its value", UiaHelper::GetControlName(otherElement.get()));
    EXPECT_EQ(L"zeile 1", UiaHelper::GetControlName(lowerElement.get()));
}

TEST_F(Naming, SettingAValueNotifiesTheParentWindowWithTheSwappedLayout) {
    TestWindows windows;
    fakeuia::Node& field = window(L"field");
    field.update([&](fakeuia::NodeSpec& spec) {
        spec.nativeWindowHandle = windows.edit;
        spec.automationId = L"1001";
    });
    auto value = fakeuia::attach<fakeuia::ValueSource>(field);
    ElementRef element(elementOf(field));
    EXPECT_TRUE(UiaHelper::SetControlValue(element.get(), L"typed"));
    EXPECT_EQ(L"typed", value->value);
    ASSERT_EQ(1u, TestWindows::commands().size());
    EXPECT_EQ(static_cast<WPARAM>(0x3E90300), TestWindows::commands()[0].first);
    EXPECT_EQ(reinterpret_cast<LPARAM>(windows.edit), TestWindows::commands()[0].second);

    // A failed SetValue still notifies, and answers false.
    value->fail("SetValue", E_FAIL);
    EXPECT_FALSE(UiaHelper::SetControlValue(element.get(), L"again"));
    EXPECT_EQ(2u, TestWindows::commands().size());
    EXPECT_TRUE(logged(3, "Error setting value: "));
}

TEST_F(Naming, ReadOnlyFieldsAndNonNumericIdsSendNothing) {
    TestWindows windows;
    fakeuia::Node& field = window(L"field");
    field.update([&](fakeuia::NodeSpec& spec) {
        spec.nativeWindowHandle = windows.edit;
        spec.automationId = L"name";
    });
    auto value = fakeuia::attach<fakeuia::ValueSource>(field);
    ElementRef element(elementOf(field));
    EXPECT_TRUE(UiaHelper::SetControlValue(element.get(), L"x"));
    EXPECT_TRUE(TestWindows::commands().empty());

    value->readOnly = true;
    EXPECT_FALSE(UiaHelper::SetControlValue(element.get(), L"y"));
    EXPECT_TRUE(logged(3, "Field is read-only or error: "));
    EXPECT_EQ(L"x", value->value);
    EXPECT_TRUE(TestWindows::commands().empty());
}

TEST_F(Naming, CaptionButtonsAreNamedByWhereTheyStand) {
    TestWindows windows;
    fakeuia::Node& top = window(L"w");
    top.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = windows.frame; });
    fakeuia::Node& titleBar = child(top, UIA_TitleBarControlTypeId);
    auto button = [&](RECT bounds) -> fakeuia::Node& {
        fakeuia::Node& node = child(titleBar, UIA_ButtonControlTypeId);
        node.update([&](fakeuia::NodeSpec& spec) { spec.bounds = bounds; });
        return node;
    };
    ElementRef minimize(elementOf(button({100, 0, 120, 20})));
    ElementRef close(elementOf(button({141, 1, 159, 19})));
    ElementRef edge(elementOf(button({110, 10, 130, 30})));  // midpoint (120, 20): on both edges of minimize
    ElementRef nowhere(elementOf(button({10, 0, 20, 20})));
    EXPECT_EQ(L"Minimize", UiaHelper::GetControlAutomationId(minimize.get()));
    EXPECT_EQ(L"Close", UiaHelper::GetControlAutomationId(close.get()));
    EXPECT_EQ(L"Minimize", UiaHelper::GetControlAutomationId(edge.get())) << "edges count, the first hit wins";
    EXPECT_EQ(L"", UiaHelper::GetControlAutomationId(nowhere.get()));

    fakeuia::Node& plain = child(top, UIA_ButtonControlTypeId);
    ElementRef plainElement(elementOf(plain));
    EXPECT_EQ(L"", UiaHelper::GetControlAutomationId(plainElement.get())) << "not on a title bar";
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
    EXPECT_TRUE(logged(3, "unabled to get HWND"));
    EXPECT_EQ(L"Win32", UiaHelper::GetControlFrameworkId(element.get()));
    EXPECT_EQ(L"button", UiaHelper::GetControlAriaRole(element.get()));
    EXPECT_EQ(L"pressed=false", UiaHelper::GetControlAriaProperties(element.get()));
    EXPECT_EQ(L"A long description", UiaHelper::GetControlFullDescription(element.get()));

    top.nullString("get_CurrentFrameworkId");
    EXPECT_EQ(L"", UiaHelper::GetControlFrameworkId(element.get()));
    top.fail("get_CurrentAriaRole", E_FAIL);
    EXPECT_EQ(L"", UiaHelper::GetControlAriaRole(element.get()));
    EXPECT_TRUE(logged(3, "Error: 80004005"));
}

TEST_F(Naming, BoundsOfAFailedReadAreTheFailedBounds) {
    fakeuia::Node& top = window(L"w");
    ElementRef element(elementOf(top));
    RECT bounds = UiaHelper::GetControlBounds(element.get());
    EXPECT_EQ(640, bounds.right);
    top.fail("get_CurrentBoundingRectangle", E_FAIL);
    bounds = UiaHelper::GetControlBounds(element.get());
    EXPECT_EQ(-1, bounds.left);
    EXPECT_EQ(0, bounds.top);
    EXPECT_EQ(0, bounds.right);
    EXPECT_EQ(0, bounds.bottom);
    EXPECT_TRUE(logged(3, "Failed to get bounds: "));
    bounds = UiaHelper::GetControlBounds(nullptr);
    EXPECT_EQ(-1, bounds.left);
}
