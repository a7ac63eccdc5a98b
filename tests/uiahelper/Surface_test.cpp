// The vocabulary tables and the small property getters of the element helpers.
#include "HelperTest.h"

#include "uiahelper/UiaHelper.h"

#include <oleacc.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

using dwtest::ElementRef;
using dwtest::HelperTest;

namespace {

class Surface : public HelperTest {
protected:
    fakeuia::Node& node(const fakeuia::NodeSpec& spec) { return window(L"w").add(spec); }
    fakeuia::Node& node(CONTROLTYPEID type) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        return node(spec);
    }
    std::wstring typeOf(IUIAutomationElement* element, HRESULT* code = nullptr) {
        std::wstring type = L"<untouched>";
        const HRESULT hr = UiaHelper::GetControlType(element, type);
        if (code) *code = hr;
        return type;
    }
};

struct TypeRow {
    CONTROLTYPEID id;
    const wchar_t* name;
};

// Every row of the control-type table, with the platform's constants.
const TypeRow TYPE_ROWS[] = {
    {UIA_ButtonControlTypeId, L"Button"},         {UIA_CalendarControlTypeId, L"Calendar"},
    {UIA_CheckBoxControlTypeId, L"CheckBox"},     {UIA_ComboBoxControlTypeId, L"ComboBox"},
    {UIA_EditControlTypeId, L"Edit"},             {UIA_HyperlinkControlTypeId, L"Hyperlink"},
    {UIA_ImageControlTypeId, L"Image"},           {UIA_ListItemControlTypeId, L"ListItem"},
    {UIA_ListControlTypeId, L"List"},             {UIA_MenuControlTypeId, L"Menu"},
    {UIA_MenuBarControlTypeId, L"MenuBar"},       {UIA_MenuItemControlTypeId, L"MenuItem"},
    {UIA_ProgressBarControlTypeId, L"ProgressBar"}, {UIA_RadioButtonControlTypeId, L"RadioButton"},
    {UIA_ScrollBarControlTypeId, L"ScrollBar"},   {UIA_SliderControlTypeId, L"Slider"},
    {UIA_SpinnerControlTypeId, L"Spinner"},       {UIA_StatusBarControlTypeId, L"StatusBar"},
    {UIA_TabControlTypeId, L"TabControl"},        {UIA_TabItemControlTypeId, L"TabItem"},
    {UIA_TextControlTypeId, L"Text"},             {UIA_ToolBarControlTypeId, L"ToolBar"},
    {UIA_ToolTipControlTypeId, L"ToolTip"},       {UIA_TreeControlTypeId, L"Tree"},
    {UIA_TreeItemControlTypeId, L"TreeItem"},     {UIA_CustomControlTypeId, L"Custom"},
    {UIA_GroupControlTypeId, L"Group"},           {UIA_ThumbControlTypeId, L"Thumb"},
    {UIA_DataGridControlTypeId, L"DataGrid"},     {UIA_DataItemControlTypeId, L"DataItem"},
    {UIA_DocumentControlTypeId, L"Document"},     {UIA_SplitButtonControlTypeId, L"SplitButton"},
    {UIA_WindowControlTypeId, L"Window"},         {UIA_PaneControlTypeId, L"Pane"},
    {UIA_HeaderControlTypeId, L"Header"},         {UIA_HeaderItemControlTypeId, L"HeaderItem"},
    {UIA_TableControlTypeId, L"Table"},           {UIA_TitleBarControlTypeId, L"TitleBar"},
    {UIA_SeparatorControlTypeId, L"Separator"},   {UIA_SemanticZoomControlTypeId, L"SemanticZoom"},
    {UIA_AppBarControlTypeId, L"AppBar"},
};

struct RoleRow {
    DWORD role;
    const wchar_t* name;
};

// Every row of the role table, with the platform's constants.
const RoleRow ROLE_ROWS[] = {
    {ROLE_SYSTEM_TITLEBAR, L"TITLEBAR"},       {ROLE_SYSTEM_MENUBAR, L"MENUBAR"},
    {ROLE_SYSTEM_SCROLLBAR, L"SCROLLBAR"},     {ROLE_SYSTEM_GRIP, L"GRIP"},
    {ROLE_SYSTEM_SOUND, L"SOUND"},             {ROLE_SYSTEM_CURSOR, L"CURSOR"},
    {ROLE_SYSTEM_CARET, L"CARET"},             {ROLE_SYSTEM_ALERT, L"ALERT"},
    {ROLE_SYSTEM_WINDOW, L"WINDOW"},           {ROLE_SYSTEM_CLIENT, L"CLIENT"},
    {ROLE_SYSTEM_MENUPOPUP, L"MENUPOPUP"},     {ROLE_SYSTEM_MENUITEM, L"MENUITEM"},
    {ROLE_SYSTEM_TOOLTIP, L"TOOLTIP"},         {ROLE_SYSTEM_APPLICATION, L"APPLICATION"},
    {ROLE_SYSTEM_DOCUMENT, L"DOCUMENT"},       {ROLE_SYSTEM_PANE, L"PANE"},
    {ROLE_SYSTEM_CHART, L"CHART"},             {ROLE_SYSTEM_DIALOG, L"DIALOG"},
    {ROLE_SYSTEM_BORDER, L"BORDER"},           {ROLE_SYSTEM_GROUPING, L"GROUPING"},
    {ROLE_SYSTEM_SEPARATOR, L"SEPARATOR"},     {ROLE_SYSTEM_TOOLBAR, L"TOOLBAR"},
    {ROLE_SYSTEM_STATUSBAR, L"STATUSBAR"},     {ROLE_SYSTEM_TABLE, L"TABLE"},
    {ROLE_SYSTEM_COLUMNHEADER, L"COLUMNHEADER"}, {ROLE_SYSTEM_ROWHEADER, L"ROWHEADER"},
    {ROLE_SYSTEM_COLUMN, L"COLUMN"},           {ROLE_SYSTEM_ROW, L"ROW"},
    {ROLE_SYSTEM_CELL, L"CELL"},               {ROLE_SYSTEM_LINK, L"LINK"},
    {ROLE_SYSTEM_HELPBALLOON, L"HELPBALLOON"}, {ROLE_SYSTEM_CHARACTER, L"CHARACTER"},
    {ROLE_SYSTEM_LIST, L"LIST"},               {ROLE_SYSTEM_LISTITEM, L"LISTITEM"},
    {ROLE_SYSTEM_OUTLINE, L"OUTLINE"},         {ROLE_SYSTEM_OUTLINEITEM, L"OUTLINEITEM"},
    {ROLE_SYSTEM_PAGETAB, L"PAGETAB"},         {ROLE_SYSTEM_PROPERTYPAGE, L"PROPERTYPAGE"},
    {ROLE_SYSTEM_INDICATOR, L"INDICATOR"},     {ROLE_SYSTEM_GRAPHIC, L"GRAPHIC"},
    {ROLE_SYSTEM_STATICTEXT, L"STATICTEXT"},   {ROLE_SYSTEM_TEXT, L"TEXT"},
    {ROLE_SYSTEM_PUSHBUTTON, L"PUSHBUTTON"},   {ROLE_SYSTEM_CHECKBUTTON, L"CHECKBUTTON"},
    {ROLE_SYSTEM_RADIOBUTTON, L"RADIOBUTTON"}, {ROLE_SYSTEM_COMBOBOX, L"COMBOBOX"},
    {ROLE_SYSTEM_DROPLIST, L"DROPLIST"},       {ROLE_SYSTEM_PROGRESSBAR, L"PROGRESSBAR"},
    {ROLE_SYSTEM_DIAL, L"DIAL"},               {ROLE_SYSTEM_HOTKEYFIELD, L"HOTKEYFIELD"},
    {ROLE_SYSTEM_SLIDER, L"SLIDER"},           {ROLE_SYSTEM_SPINBUTTON, L"SPINBUTTON"},
    {ROLE_SYSTEM_DIAGRAM, L"DIAGRAM"},         {ROLE_SYSTEM_ANIMATION, L"ANIMATION"},
    {ROLE_SYSTEM_EQUATION, L"EQUATION"},       {ROLE_SYSTEM_BUTTONDROPDOWN, L"BUTTONDROPDOWN"},
    {ROLE_SYSTEM_BUTTONMENU, L"BUTTONMENU"},   {ROLE_SYSTEM_BUTTONDROPDOWNGRID, L"BUTTONDROPDOWNGRID"},
    {ROLE_SYSTEM_WHITESPACE, L"WHITESPACE"},   {ROLE_SYSTEM_PAGETABLIST, L"PAGETABLIST"},
    {ROLE_SYSTEM_CLOCK, L"CLOCK"},             {ROLE_SYSTEM_SPLITBUTTON, L"SPLITBUTTON"},
    {ROLE_SYSTEM_IPADDRESS, L"IPADDRESS"},     {ROLE_SYSTEM_OUTLINEBUTTON, L"OUTLINEBUTTON"},
};

struct StateRow {
    DWORD bit;
    const wchar_t* name;
};

// Every row of the state table, with the platform's constants.
const StateRow STATE_ROWS[] = {
    {STATE_SYSTEM_UNAVAILABLE, L"UNAVAILABLE"},         {STATE_SYSTEM_SELECTED, L"SELECTED"},
    {STATE_SYSTEM_FOCUSED, L"FOCUSED"},                 {STATE_SYSTEM_PRESSED, L"PRESSED"},
    {STATE_SYSTEM_CHECKED, L"CHECKED"},                 {STATE_SYSTEM_MIXED, L"MIXED"},
    {STATE_SYSTEM_READONLY, L"READONLY"},               {STATE_SYSTEM_HOTTRACKED, L"HOTTRACKED"},
    {STATE_SYSTEM_DEFAULT, L"DEFAULT"},                 {STATE_SYSTEM_EXPANDED, L"EXPANDED"},
    {STATE_SYSTEM_COLLAPSED, L"COLLAPSED"},             {STATE_SYSTEM_BUSY, L"BUSY"},
    {STATE_SYSTEM_FLOATING, L"FLOATING"},               {STATE_SYSTEM_MARQUEED, L"MARQUEED"},
    {STATE_SYSTEM_ANIMATED, L"ANIMATED"},               {STATE_SYSTEM_INVISIBLE, L"INVISIBLE"},
    {STATE_SYSTEM_OFFSCREEN, L"OFFSCREEN"},             {STATE_SYSTEM_SIZEABLE, L"SIZEABLE"},
    {STATE_SYSTEM_MOVEABLE, L"MOVEABLE"},               {STATE_SYSTEM_SELFVOICING, L"SELFVOICING"},
    {STATE_SYSTEM_FOCUSABLE, L"FOCUSABLE"},             {STATE_SYSTEM_SELECTABLE, L"SELECTABLE"},
    {STATE_SYSTEM_LINKED, L"LINKED"},                   {STATE_SYSTEM_TRAVERSED, L"TRAVERSED"},
    {STATE_SYSTEM_MULTISELECTABLE, L"MULTISELECTABLE"}, {STATE_SYSTEM_EXTSELECTABLE, L"EXTSELECTABLE"},
    {STATE_SYSTEM_ALERT_LOW, L"ALERT_LOW"},             {STATE_SYSTEM_ALERT_MEDIUM, L"ALERT_MEDIUM"},
    {STATE_SYSTEM_ALERT_HIGH, L"ALERT_HIGH"},           {STATE_SYSTEM_PROTECTED, L"PROTECTED"},
    {STATE_SYSTEM_HASPOPUP, L"HASPOPUP"},
};

}  // namespace

// --- The tables ----------------------------------------------------------------

TEST(SurfaceTables, ControlTypeNamesFollowThePlatformIds) {
    ASSERT_EQ(41u, UiaHelper::CONTROL_TYPE_NAMES.size());
    ASSERT_EQ(41u, std::size(TYPE_ROWS));
    for (const TypeRow& row : TYPE_ROWS) {
        const size_t index = static_cast<size_t>(row.id - UiaHelper::FIRST_CONTROL_TYPE_ID);
        ASSERT_LT(index, UiaHelper::CONTROL_TYPE_NAMES.size()) << row.id;
        EXPECT_STREQ(row.name, UiaHelper::CONTROL_TYPE_NAMES[index]) << row.id;
    }
}

TEST(SurfaceTables, RoleNamesFollowThePlatformRoles) {
    ASSERT_EQ(64u, UiaHelper::ACC_ROLE_NAMES.size());
    ASSERT_EQ(64u, std::size(ROLE_ROWS));
    for (const RoleRow& row : ROLE_ROWS) {
        ASSERT_GE(row.role, 1u);
        ASSERT_LE(row.role, 64u);
        EXPECT_STREQ(row.name, UiaHelper::ACC_ROLE_NAMES[row.role - 1]) << row.role;
    }
}

TEST(SurfaceTables, StateNamesFollowThePlatformBits) {
    ASSERT_EQ(31u, UiaHelper::ACC_STATE_NAMES.size());
    ASSERT_EQ(31u, std::size(STATE_ROWS));
    for (const StateRow& row : STATE_ROWS) {
        const unsigned long bit = row.bit;
        int number = 0;
        while (number < 31 && (1ul << number) != bit) ++number;
        ASSERT_LT(number, 31) << std::hex << bit;
        EXPECT_STREQ(row.name, UiaHelper::ACC_STATE_NAMES[static_cast<size_t>(number)]) << number;
    }
}

TEST(SurfaceTables, MarkerWords) {
    EXPECT_STREQ(L"NN", UiaHelper::NAME_NOT_READ);
    EXPECT_STREQ(L"UNKNOWN", UiaHelper::CONTROL_TYPE_UNKNOWN);
    EXPECT_STREQ(L"NORMAL", UiaHelper::ACC_STATE_NORMAL);
    EXPECT_STREQ(L"VALID", UiaHelper::ACC_STATE_VALID);
    EXPECT_EQ(0x7FFFFFFFul, UiaHelper::ACC_STATE_VALID_MASK);
}

TEST(SurfaceTables, ControlTypeIdFromNameFindsEveryRow) {
    for (const TypeRow& row : TYPE_ROWS) {
        EXPECT_EQ(row.id, UiaHelper::ControlTypeIdFromName(row.name)) << std::wstring(row.name).size();
    }
}

TEST(SurfaceTables, ControlTypeIdFromNameNeedsAnExactName) {
    for (const wchar_t* name : {L"ROW", L"CLIENT", L"button", L"Button ", L"", L"NN", L"UNKNOWN", L"Butto"}) {
        EXPECT_EQ(-1, UiaHelper::ControlTypeIdFromName(name)) << std::wstring(name).size();
    }
}

// --- Control type ------------------------------------------------------------------

TEST_F(Surface, ControlTypeOfEveryRow) {
    for (const TypeRow& row : TYPE_ROWS) {
        if (row.id == UIA_CustomControlTypeId) continue;  // reads the MSAA role: tested below
        ElementRef element(elementOf(node(row.id)));
        HRESULT hr = E_FAIL;
        EXPECT_EQ(row.name, typeOf(element.get(), &hr)) << row.id;
        EXPECT_EQ(S_OK, hr);
        EXPECT_EQ(row.id, UiaHelper::GetControlTypeId(element.get()));
    }
}

TEST_F(Surface, ControlTypeIdJustPastTheTableIsUnknown) {
    ElementRef element(elementOf(node(UIA_AppBarControlTypeId + 1)));  // 50041
    HRESULT hr = E_FAIL;
    EXPECT_EQ(L"UNKNOWN", typeOf(element.get(), &hr));
    EXPECT_EQ(S_OK, hr);
    EXPECT_EQ(50041, UiaHelper::GetControlTypeId(element.get()));
}

TEST_F(Surface, ControlTypeIdsOutsideTheTableAreUnknown) {
    for (CONTROLTYPEID id : {0, 1, 49999, 50041, 50100, -50000, 0x7fffffff}) {
        ElementRef element(elementOf(node(id)));
        EXPECT_EQ(L"UNKNOWN", typeOf(element.get())) << id;
    }
}

TEST_F(Surface, CustomWithoutLegacyPatternStaysCustom) {
    ElementRef element(elementOf(node(UIA_CustomControlTypeId)));
    HRESULT hr = E_FAIL;
    EXPECT_EQ(L"Custom", typeOf(element.get(), &hr));
    EXPECT_EQ(S_OK, hr);
    EXPECT_EQ(L"NN", UiaHelper::GetAccRoleName(element.get()));
}

TEST_F(Surface, AccessDeniedGivesAnEmptyTypeAndTheCode) {
    fakeuia::Node& n = node(UIA_ButtonControlTypeId);
    n.fail("get_CurrentControlType", E_ACCESSDENIED);
    ElementRef element(elementOf(n));
    HRESULT hr = S_OK;
    EXPECT_EQ(L"", typeOf(element.get(), &hr));
    EXPECT_EQ(E_ACCESSDENIED, hr);
    EXPECT_EQ(0, UiaHelper::GetControlTypeId(element.get()));
}

TEST_F(Surface, OtherFailureWithoutRoleGivesNNAndTheCode) {
    fakeuia::Node& n = node(UIA_ButtonControlTypeId);
    n.fail("get_CurrentControlType", E_FAIL);
    ElementRef element(elementOf(n));
    HRESULT hr = S_OK;
    EXPECT_EQ(L"NN", typeOf(element.get(), &hr));
    EXPECT_EQ(E_FAIL, hr);
    EXPECT_EQ(0, UiaHelper::GetControlTypeId(element.get()));
}

TEST_F(Surface, GoneElementGivesNNAndTheCode) {
    fakeuia::Node& n = node(UIA_ButtonControlTypeId);
    ElementRef element(elementOf(n));
    n.remove();
    HRESULT hr = S_OK;
    EXPECT_EQ(L"NN", typeOf(element.get(), &hr));
    EXPECT_EQ(fakeuia::kElementNotAvailable, hr);
}

// --- Null elements -------------------------------------------------------------------

TEST_F(Surface, NullElementDefaults) {
    std::wstring type = L"old";
    EXPECT_EQ(E_INVALIDARG, UiaHelper::GetControlType(nullptr, type));
    EXPECT_EQ(L"", type);
    EXPECT_EQ(0, UiaHelper::GetControlTypeId(nullptr));
    EXPECT_EQ(nullptr, UiaHelper::GetControlHwnd(nullptr));
    EXPECT_EQ(L"", UiaHelper::GetControlHelpText(nullptr));
    EXPECT_EQ(L"", UiaHelper::GetControlProviderDescription(nullptr));
    EXPECT_EQ(-1, UiaHelper::GetControlOrientation(nullptr));
    EXPECT_FALSE(UiaHelper::IsControlOffscreen(nullptr));
    EXPECT_TRUE(UiaHelper::IsControlEnabled(nullptr));
    EXPECT_FALSE(UiaHelper::HasControlFocus(nullptr));
    EXPECT_EQ(-1, UiaHelper::GetControlLevel(nullptr));
    EXPECT_EQ(L" ", UiaHelper::GetControlPatterns(nullptr));
    EXPECT_EQ(L"NN", UiaHelper::GetAccRoleName(nullptr));
    double value = 7, minimum = 8, maximum = 9;
    EXPECT_EQ(E_INVALIDARG, UiaHelper::GetRangeValue(nullptr, value, minimum, maximum));
    EXPECT_EQ(7, value);
    EXPECT_EQ(8, minimum);
    EXPECT_EQ(9, maximum);
    EXPECT_EQ(E_INVALIDARG, UiaHelper::SetRangeValue(nullptr, 1.0));
    int pid = 5;
    EXPECT_EQ(E_INVALIDARG, UiaHelper::GetControlProcessId(nullptr, &pid));
    EXPECT_EQ(0, pid);
    EXPECT_EQ(L"", UiaHelper::GetControlClassName(nullptr));
}

// --- The small getters -----------------------------------------------------------------

TEST_F(Surface, GettersReadTheProperties) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_SliderControlTypeId;
    spec.nativeWindowHandle = fakeuia::hwnd(0x4242);
    spec.isOffscreen = true;
    spec.hasKeyboardFocus = true;
    spec.isEnabled = false;
    spec.helpText = L"Drag to choose";
    spec.providerDescription = L"[pid:4711,providerId:0x0 Main:Nested [pid:4711] (unmanaged:uiautomationcore.dll)]";
    spec.orientation = OrientationType_Vertical;
    ElementRef element(elementOf(node(spec)));
    EXPECT_EQ(reinterpret_cast<HWND>(0x4242), UiaHelper::GetControlHwnd(element.get()));
    EXPECT_TRUE(UiaHelper::IsControlOffscreen(element.get()));
    EXPECT_TRUE(UiaHelper::HasControlFocus(element.get()));
    EXPECT_FALSE(UiaHelper::IsControlEnabled(element.get()));
    EXPECT_EQ(L"Drag to choose", UiaHelper::GetControlHelpText(element.get()));
    EXPECT_EQ(spec.providerDescription, UiaHelper::GetControlProviderDescription(element.get()));
    EXPECT_EQ(OrientationType_Vertical, UiaHelper::GetControlOrientation(element.get()));
}

TEST_F(Surface, GettersOfAPlainElement) {
    ElementRef element(elementOf(node(UIA_ButtonControlTypeId)));
    EXPECT_EQ(nullptr, UiaHelper::GetControlHwnd(element.get()));
    EXPECT_FALSE(UiaHelper::IsControlOffscreen(element.get()));
    EXPECT_FALSE(UiaHelper::HasControlFocus(element.get()));
    EXPECT_TRUE(UiaHelper::IsControlEnabled(element.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlHelpText(element.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlProviderDescription(element.get()));
    EXPECT_EQ(OrientationType_None, UiaHelper::GetControlOrientation(element.get()));
}

TEST_F(Surface, LevelIsTheIntegerOfThePropertyRead) {
    fakeuia::Node& item = node(UIA_TreeItemControlTypeId);
    item.update([](fakeuia::NodeSpec& spec) { spec.level = 3; });
    ElementRef element(elementOf(item));
    EXPECT_EQ(3, UiaHelper::GetControlLevel(element.get()));
    EXPECT_TRUE(platform->unmodeledPropertyReads().empty());
}

TEST_F(Surface, FailedReadsGiveTheDefaults) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_SliderControlTypeId;
    spec.nativeWindowHandle = fakeuia::hwnd(0x4242);
    spec.isOffscreen = true;
    spec.hasKeyboardFocus = true;
    spec.isEnabled = false;
    spec.helpText = L"help";
    spec.providerDescription = L"provider";
    spec.orientation = OrientationType_Horizontal;
    fakeuia::Node& n = node(spec);
    for (const char* method : {"get_CurrentNativeWindowHandle", "get_CurrentIsOffscreen", "get_CurrentHasKeyboardFocus",
                               "get_CurrentIsEnabled", "get_CurrentHelpText", "get_CurrentOrientation",
                               "GetCurrentPropertyValue"}) {
        n.fail(method, E_FAIL);
    }
    ElementRef element(elementOf(n));
    EXPECT_EQ(nullptr, UiaHelper::GetControlHwnd(element.get()));
    EXPECT_FALSE(UiaHelper::IsControlOffscreen(element.get()));
    EXPECT_FALSE(UiaHelper::HasControlFocus(element.get()));
    EXPECT_TRUE(UiaHelper::IsControlEnabled(element.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlHelpText(element.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlProviderDescription(element.get()));
    EXPECT_EQ(-1, UiaHelper::GetControlOrientation(element.get()));
    EXPECT_EQ(-1, UiaHelper::GetControlLevel(element.get()));
}

TEST_F(Surface, GoneElementGivesTheDefaults) {
    fakeuia::NodeSpec spec;
    spec.isEnabled = false;
    spec.isOffscreen = true;
    spec.helpText = L"help";
    fakeuia::Node& n = node(spec);
    ElementRef element(elementOf(n));
    n.remove();
    EXPECT_TRUE(UiaHelper::IsControlEnabled(element.get()));
    EXPECT_FALSE(UiaHelper::IsControlOffscreen(element.get()));
    EXPECT_EQ(L"", UiaHelper::GetControlHelpText(element.get()));
    EXPECT_EQ(-1, UiaHelper::GetControlOrientation(element.get()));
    EXPECT_EQ(-1, UiaHelper::GetControlLevel(element.get()));
    EXPECT_EQ(0, UiaHelper::GetControlTypeId(element.get()));
}

TEST_F(Surface, NullHelpTextIsEmpty) {
    fakeuia::NodeSpec spec;
    spec.helpText = L"not seen";
    fakeuia::Node& n = node(spec);
    n.nullString("get_CurrentHelpText");
    ElementRef element(elementOf(n));
    EXPECT_EQ(L"", UiaHelper::GetControlHelpText(element.get()));
}

TEST_F(Surface, EveryReadIsFresh) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_ButtonControlTypeId;
    spec.helpText = L"before";
    fakeuia::Node& n = node(spec);
    ElementRef element(elementOf(n));
    EXPECT_EQ(L"before", UiaHelper::GetControlHelpText(element.get()));
    EXPECT_EQ(L"Button", typeOf(element.get()));
    n.update([](fakeuia::NodeSpec& s) {
        s.helpText = L"after";
        s.controlType = UIA_EditControlTypeId;
        s.isEnabled = false;
    });
    EXPECT_EQ(L"after", UiaHelper::GetControlHelpText(element.get()));
    EXPECT_EQ(L"Edit", typeOf(element.get()));
    EXPECT_FALSE(UiaHelper::IsControlEnabled(element.get()));
}

// --- Patterns --------------------------------------------------------------------------

TEST_F(Surface, PatternNamesLoseTheWordPattern) {
    EXPECT_EQ(L"Invoke", UiaHelper::GetPatternName(UIA_InvokePatternId));
    EXPECT_EQ(L"RangeValue", UiaHelper::GetPatternName(UIA_RangeValuePatternId));
    EXPECT_EQ(L"LegacyIAccessible", UiaHelper::GetPatternName(UIA_LegacyIAccessiblePatternId));
    EXPECT_EQ(L"SynchronizedInput", UiaHelper::GetPatternName(UIA_SynchronizedInputPatternId));
}

TEST_F(Surface, PatternNameOfAnUnknownIdIsNN) {
    EXPECT_EQ(L"NN", UiaHelper::GetPatternName(9999));
}

TEST_F(Surface, PatternNameOfAFailedCallIsNN) {
    platform->fail("GetPatternProgrammaticName", E_FAIL);
    EXPECT_EQ(L"NN", UiaHelper::GetPatternName(UIA_InvokePatternId));
}

TEST_F(Surface, ElementWithoutPatternsGivesOneBlank) {
    ElementRef element(elementOf(node(UIA_ButtonControlTypeId)));
    EXPECT_EQ(L" ", UiaHelper::GetControlPatterns(element.get()));
}

// An element that Java or the platform couldn't give (no element at a point,
// a parent that went away) is answered as an element without the pattern.
TEST_F(Surface, ANullElementIsAnsweredNotCalledThrough) {
    using UiaHelper::ElementList;
    auto flag = [](bool value) { return std::wstring(value ? L"true" : L"false"); };
    auto number = [](int value) { return std::to_wstring(value); };
    auto pair = [](const UiaHelper::GridPair& value) {
        return value.size() == 2 ? std::to_wstring(value[0]) + L"," + std::to_wstring(value[1]) : L"<size>";
    };
    double horizontal = 0;
    double vertical = 0;
    struct Row {
        const char* helper;
        std::function<std::wstring()> answer;
        const wchar_t* expected;
    };
    const std::vector<Row> rows = {
        {"HasAncestorWithPid", [&] { return flag(UiaHelper::HasAncestorWithPid(nullptr, 1)); }, L"false"},
        {"MoveControl", [&] { return flag(UiaHelper::MoveControl(nullptr, 1, 1)); }, L"false"},
        {"ResizeControl", [&] { return flag(UiaHelper::ResizeControl(nullptr, 1, 1)); }, L"false"},
        {"CloseControl", [&] { return flag(UiaHelper::CloseControl(nullptr)); }, L"false"},
        {"DoDefaultAction", [&] { return flag(UiaHelper::DoDefaultAction(nullptr)); }, L"false"},
        {"DoInvoke", [&] { return flag(UiaHelper::DoInvoke(nullptr)); }, L"false"},
        {"DoSelect", [&] { return flag(UiaHelper::DoSelect(nullptr, 1)); }, L"false"},
        {"DoExpand", [&] { return flag(UiaHelper::DoExpand(nullptr, true)); }, L"false"},
        {"GetExpandState", [&] { return number(UiaHelper::GetExpandState(nullptr)); }, L"-1"},
        {"GetToggleState", [&] { return number(UiaHelper::GetToggleState(nullptr)); }, L"-1"},
        {"SetToggleState", [&] { return flag(UiaHelper::SetToggleState(nullptr, 1)); }, L"false"},
        {"GetScrollPercent", [&] { return flag(UiaHelper::GetScrollPercent(nullptr, horizontal, vertical)); }, L"false"},
        {"GetViewSize", [&] { return flag(UiaHelper::GetViewSize(nullptr, horizontal, vertical)); }, L"false"},
        {"DoScroll", [&] { return flag(UiaHelper::DoScroll(nullptr, 10, 10)); }, L"false"},
        {"GetGridColumnAndRowCount", [&] { return pair(UiaHelper::GetGridColumnAndRowCount(nullptr)); }, L"-1,-1"},
        {"GetGridItem", [&] { return flag(UiaHelper::GetGridItem(nullptr, 0, 0) != nullptr); }, L"false"},
        {"GetGridItemColumnAndRow", [&] { return pair(UiaHelper::GetGridItemColumnAndRow(nullptr)); }, L"-1,-1"},
        {"GetColumnHeaders", [&] { return number(static_cast<int>(UiaHelper::GetColumnHeaders(nullptr).size())); }, L"0"},
        {"IsSelected", [&] { return flag(UiaHelper::IsSelected(nullptr)); }, L"false"},
        {"GetControlInteractionState", [&] { return number(UiaHelper::GetControlInteractionState(nullptr)); }, L"-1"},
        {"IsControlModal", [&] { return flag(UiaHelper::IsControlModal(nullptr)); }, L"false"},
        {"HasWindowPattern", [&] { return flag(UiaHelper::HasWindowPattern(nullptr)); }, L"false"},
        {"IsTextReadOnly", [&] { return flag(UiaHelper::IsTextReadOnly(nullptr)); }, L"false"},
        {"GetControlChildId", [&] { return number(UiaHelper::GetControlChildId(nullptr)); }, L"0"},
        {"GetAccStateNames", [&] { return UiaHelper::GetAccStateNames(nullptr); }, L""},
        {"GetAccValue", [&] { return UiaHelper::GetAccValue(nullptr); }, L""},
        {"GetAccDescription", [&] { return UiaHelper::GetAccDescription(nullptr); }, L""},
        {"GetControlValue", [&] {
             std::wstring value = L"kept";
             return flag(FAILED(UiaHelper::GetControlValue(nullptr, value))) + L" " + value;
         }, L"true kept"},
        {"SetControlValue", [&] { return flag(UiaHelper::SetControlValue(nullptr, L"x")); }, L"false"},
    };
    for (const Row& row : rows) {
        std::fprintf(stderr, "%s\n", row.helper);  // names the row if the call brings the process down
        EXPECT_EQ(row.expected, row.answer()) << row.helper;
    }
}
