// Attributes by name, as Java reads and writes them through the natives:
// their text forms, defaults and null rules, the grid family, class names,
// bounds and searches below an element.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"
#include "SmallStack.h"

#include <optional>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Attributes : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        top = &attachToOwnWindow(L"Target");
        auto tops = host->longs(native<jlongArray>("GetToplevels"));
        ASSERT_EQ(1u, tops.size());
        topHandle = tops[0];
    }

    fakeuia::Node& child(fakeuia::NodeSpec spec, fakeuia::Node* parent = nullptr) {
        if (spec.bounds.right == 0) {
            spec.bounds = {20, 20, 120, 40};
        }
        return (parent ? parent : top)->add(spec);
    }
    fakeuia::Node& child(CONTROLTYPEID type, const std::wstring& name) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        spec.name = name;
        return child(spec);
    }
    // Cells named "r<row>c<column>" with the GridItem pattern under a node
    // that gets the Grid pattern.
    std::shared_ptr<fakeuia::GridSource> makeGrid(fakeuia::Node& gridNode, int rows, int columns) {
        std::vector<std::vector<fakeuia::Node*>> cells(rows);
        for (int row = 0; row < rows; ++row) {
            for (int column = 0; column < columns; ++column) {
                fakeuia::NodeSpec cell;
                cell.controlType = UIA_DataItemControlTypeId;
                cell.name = L"r" + std::to_wstring(row) + L"c" + std::to_wstring(column);
                cell.bounds = {20 + 10 * column, 20 + 10 * row, 30 + 10 * column, 30 + 10 * row};
                fakeuia::Node& made = child(cell, &gridNode);
                fakeuia::attach<fakeuia::GridItemSource>(made, row, column, &gridNode);
                cells[row].push_back(&made);
            }
        }
        return fakeuia::attach<fakeuia::GridSource>(gridNode, cells);
    }
    std::optional<std::wstring> attr(jlong handle, const std::wstring& name) {
        jstring value = native<jstring>("GetAttribute", handle, host->str(name));
        if (host->isNull(value)) return std::nullopt;
        return host->text(value);
    }
    std::wstring text(jlong handle, const std::wstring& name) {
        auto value = attr(handle, name);
        EXPECT_TRUE(value.has_value()) << "no value for the attribute";
        return value.value_or(L"<null>");
    }
    bool set(jlong handle, const std::wstring& name, const std::wstring& value) {
        return native<jboolean>("SetAttribute", handle, host->str(name), host->str(value)) == JNI_TRUE;
    }
    std::vector<std::optional<std::wstring>> flat(const char* method, jlong handle,
                                                  const std::vector<std::wstring>& names) {
        jobjectArray result = native<jobjectArray>(method, handle, host->stringArray(names));
        EXPECT_FALSE(host->isNull(result)) << method << " gave null";
        return host->strings(result);
    }
    std::vector<std::optional<std::wstring>> hierarchy(jlong handle, const std::vector<std::wstring>& names,
                                                       const std::vector<jlong>& excluded) {
        jobjectArray result = native<jobjectArray>("GetHierarchyWithAttributes", handle, host->stringArray(names),
                                                   host->longArray(excluded));
        EXPECT_FALSE(host->isNull(result));
        return host->strings(result);
    }
    static std::wstring decimal(jlong handle) { return std::to_wstring(handle); }

    fakeuia::Node* top = nullptr;
    jlong topHandle = 0;
};

using Entry = std::optional<std::wstring>;

}  // namespace

// --- identity --------------------------------------------------------------------

TEST_F(Attributes, NamesAreExactIdsStayAndNamesFollowTheElement) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_ButtonControlTypeId;
    spec.name = L"OK";
    spec.automationId = L"1001";
    spec.runtimeId = std::vector<int>{42, 132456, 4, -1};
    fakeuia::Node& ok = child(spec);
    const jlong button = handleOf(ok);

    EXPECT_EQ(L"OK", text(button, L"name"));
    EXPECT_FALSE(attr(button, L"Name").has_value()) << "names are compared exactly";
    EXPECT_FALSE(attr(button, L"NAME").has_value());
    EXPECT_FALSE(attr(button, L"nonsense").has_value());
    EXPECT_FALSE(attr(button, L"").has_value());
    EXPECT_EQ(L"2a.20568.4.ffffffff", text(button, L"rid"));
    EXPECT_EQ(L"Button_2a.20568.4.ffffffff", text(button, L"rid2"));
    EXPECT_EQ(L"1001", text(button, L"id"));

    ok.update([](fakeuia::NodeSpec& s) {
        s.name = L"A much longer caption than before";
        s.automationId = L"2002";
    });
    EXPECT_EQ(L"1001", text(button, L"id")) << "the automation id of the control's first sight";
    EXPECT_EQ(L"A much longer caption than before", text(button, L"name"));
    EXPECT_TRUE(LogFile::contains("new name: Button@", 9));
    EXPECT_TRUE(LogFile::contains("name=A much longer ca.../>", 9)) << "the short name follows the read";
}

TEST_F(Attributes, RuntimeIdFailureGivesNullWhileTheKeyStays) {
    fakeuia::Node& node = child(UIA_TextControlTypeId, L"Label");
    const jlong label = handleOf(node);
    const std::wstring key = text(label, L"rid2");
    EXPECT_EQ(0u, key.find(L"Text_7f.")) << "the type and the given runtime id";
    node.fail("GetRuntimeId", E_FAIL);
    EXPECT_FALSE(attr(label, L"rid").has_value());
    EXPECT_EQ(key, text(label, L"rid2")) << "the key comes from the table, not from the element";
}

// --- numbers and flags -------------------------------------------------------------

TEST_F(Attributes, NumbersAndFlagsAsText) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_TreeItemControlTypeId;
    spec.name = L"Branch";
    spec.nativeWindowHandle = fakeuia::hwnd(0x80001234);
    spec.level = 3;
    spec.orientation = OrientationType_Vertical;
    spec.hasKeyboardFocus = true;
    spec.frameworkId = L"Win32";
    spec.helpText = L"Helps";
    spec.ariaRole = L"treeitem";
    spec.ariaProperties = L"expanded=true";
    spec.fullDescription = L"A branch";
    spec.providerDescription = L"[pid:1]";
    fakeuia::Node& node = child(spec);
    const jlong item = handleOf(node);

    EXPECT_EQ(L"-2147478988", text(item, L"hwnd")) << "a handle with the top bit set reads negative";
    EXPECT_EQ(L"3", text(item, L"level"));
    EXPECT_EQ(L"2", text(item, L"orientation"));
    EXPECT_EQ(std::to_wstring(GetCurrentProcessId()), text(item, L"pid"));
    EXPECT_EQ(L"1", text(item, L"focus"));
    EXPECT_EQ(L"1", text(item, L"enabled"));
    EXPECT_EQ(L"1", text(item, L"visible"));
    EXPECT_EQ(L"Win32", text(item, L"framework"));
    EXPECT_EQ(L"Helps", text(item, L"help"));
    EXPECT_EQ(L"treeitem", text(item, L"aria-role"));
    EXPECT_EQ(L"expanded=true", text(item, L"aria-props"));
    EXPECT_EQ(L"A branch", text(item, L"desc"));
    EXPECT_EQ(L"[pid:1]", text(item, L"provider"));
    EXPECT_EQ(L" ", text(item, L"patterns")) << "no pattern: one blank";
    const std::wstring element = text(item, L"element");
    EXPECT_NE(L"0", element);
    EXPECT_EQ(element, text(item, L"element")) << "the control's element, not a fresh one";

    node.fail("get_CurrentIsOffscreen", E_FAIL);
    node.fail("get_CurrentIsEnabled", E_FAIL);
    node.fail("get_CurrentHasKeyboardFocus", E_FAIL);
    node.fail("GetCurrentPropertyValue", E_FAIL);
    node.fail("get_CurrentOrientation", E_FAIL);
    node.fail("get_CurrentProcessId", E_FAIL);
    EXPECT_EQ(L"1", text(item, L"visible")) << "a failed offscreen read counts as visible";
    EXPECT_EQ(L"1", text(item, L"enabled")) << "a failed read counts as enabled";
    EXPECT_EQ(L"0", text(item, L"focus"));
    EXPECT_EQ(L"-1", text(item, L"level"));
    EXPECT_EQ(L"-1", text(item, L"orientation"));
    EXPECT_EQ(L"0", text(item, L"pid"));
}

TEST_F(Attributes, WindowStyleAndForegroundComeFromTheElementsOwnWindow) {
    HWND popup = CreateWindowExW(0, L"STATIC", L"Popup", WS_POPUP | WS_VISIBLE, 50, 50, 200, 100, nullptr,
                                 nullptr, nullptr, nullptr);
    HWND other = CreateWindowExW(0, L"STATIC", L"Other", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 300, 50, 200, 100,
                                 nullptr, nullptr, nullptr, nullptr);
    ASSERT_TRUE(popup && other);
    fakeuia::NodeSpec withWindow;
    withWindow.controlType = UIA_PaneControlTypeId;
    withWindow.name = L"Popup";
    withWindow.nativeWindowHandle = popup;
    fakeuia::Node& popupNode = child(withWindow);
    fakeuia::NodeSpec inner;
    inner.controlType = UIA_TextControlTypeId;
    inner.name = L"Inside";
    child(inner, &popupNode);
    const jlong pane = handleOf(popupNode);
    const jlong insideHandle = host->longs(native<jlongArray>("GetChildren", pane)).at(0);

    const LONG style = GetWindowLongW(popup, GWL_STYLE);
    ASSERT_LT(style, 0) << "WS_POPUP is the top bit";
    EXPECT_EQ(std::to_wstring(style), text(pane, L"windowstyle"));
    EXPECT_EQ(L"0", text(insideHandle, L"windowstyle")) << "no window of its own";

    SetForegroundWindow(popup);
    ASSERT_TRUE(dwtest::waitUntil([&] { return GetForegroundWindow() == popup; }, 2000));
    EXPECT_EQ(L"1", text(pane, L"foreground"));
    EXPECT_EQ(L"0", text(insideHandle, L"foreground")) << "only the element's own window counts";
    SetForegroundWindow(other);
    ASSERT_TRUE(dwtest::waitUntil([&] { return GetForegroundWindow() == other; }, 2000));
    EXPECT_EQ(L"0", text(pane, L"foreground"));
    DestroyWindow(popup);
    DestroyWindow(other);
}

// --- grids and tables ------------------------------------------------------------

TEST_F(Attributes, TheGridFamilyAsksRowFirstAndMatchesTheWholeName) {
    fakeuia::Node& gridNode = child(UIA_DataGridControlTypeId, L"Grid");
    auto grid = makeGrid(gridNode, 3, 5);
    const jlong gridHandle = handleOf(gridNode);

    EXPECT_EQ(L"5,3", text(gridHandle, L"colrowcount")) << "columns first";
    EXPECT_EQ(L"-1,-1", text(gridHandle, L"colrow")) << "the grid is no grid item";
    const std::wstring item = text(gridHandle, L"griditem_2_1");
    ASSERT_EQ(1u, grid->getItemCalls.size());
    EXPECT_EQ(std::make_pair(1, 2), grid->getItemCalls[0]) << "GetItem(row, column)";
    const jlong itemHandle = std::stoll(item);
    ASSERT_NE(0, itemHandle);
    EXPECT_EQ(L"r1c2", text(itemHandle, L"name"));
    EXPECT_EQ(L"2,1", text(itemHandle, L"colrow")) << "column, row";
    EXPECT_EQ(L"-1,-1", text(itemHandle, L"colrowcount"));
    EXPECT_EQ(item, text(gridHandle, L"griditem_2_1")) << "the same cell, the same handle";

    EXPECT_FALSE(attr(gridHandle, L"griditem_2").has_value());
    EXPECT_FALSE(attr(gridHandle, L"griditemX_2_1").has_value());
    EXPECT_FALSE(attr(gridHandle, L"griditem_2_1x").has_value()) << "the whole name must match";
    EXPECT_FALSE(attr(gridHandle, L"griditem").has_value());
    EXPECT_EQ(2u, grid->getItemCalls.size()) << "names that don't match ask nothing";
    EXPECT_EQ(L"0", text(gridHandle, L"griditem_9_9")) << "outside the grid";
    EXPECT_EQ(L"0", text(itemHandle, L"griditem_0_0")) << "no Grid pattern";
}

TEST_F(Attributes, GridItemNamesOfAnyLengthAreReadOnAJavaThreadsStack) {
    fakeuia::Node& gridNode = child(UIA_DataGridControlTypeId, L"Grid");
    makeGrid(gridNode, 2, 3);
    const jlong gridHandle = handleOf(gridNode);
    const std::wstring zeros(1000000, L'0');
    struct Row {
        const char* what;
        std::wstring name;
        std::optional<std::wstring> cell;  // the name of the cell whose handle is the answer
    };
    const std::vector<Row> rows = {
        {"leading zeros", L"griditem_" + zeros + L"2_" + zeros + L"1", L"r1c2"},
        {"a long tail", L"griditem_2_1" + std::wstring(1000000, L'x'), std::nullopt},
        {"a long column of another form", L"griditem_" + zeros + L"x_1", std::nullopt},
    };
    std::vector<std::optional<std::wstring>> names(rows.size());
    ASSERT_TRUE(dwtest::runOnStack(dwtest::DISPATCH_STACK_BYTES, [&] {
        JNIEnv* threadEnv = host->attachCurrentThread();
        auto read = [&](jlong handle, const std::wstring& name) -> std::optional<std::wstring> {
            jstring value = dll->call<jstring>("GetAttribute", threadEnv, self, handle, host->str(name));
            if (host->takeException().has_value() || host->isNull(value)) return std::nullopt;
            return host->text(value);
        };
        for (size_t i = 0; i < rows.size(); ++i) {
            auto item = read(gridHandle, rows[i].name);
            names[i] = item ? read(std::stoll(*item), L"name") : std::nullopt;
        }
        host->detachCurrentThread();
    }));
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].cell, names[i]) << rows[i].what;
    }
}

TEST_F(Attributes, ColumnHeadersSkipEntriesThatFail) {
    fakeuia::Node& tableNode = child(UIA_TableControlTypeId, L"Table");
    fakeuia::NodeSpec header;
    header.controlType = UIA_HeaderItemControlTypeId;
    header.name = L"Name";
    fakeuia::Node& name = child(header, &tableNode);
    header.name = L"Date";
    header.bounds = {130, 20, 220, 40};
    fakeuia::Node& date = child(header, &tableNode);
    header.name = L"Size";
    header.bounds = {230, 20, 320, 40};
    fakeuia::Node& gone = child(header, &tableNode);
    auto table = fakeuia::attach<fakeuia::TableSource>(tableNode);
    table->columnHeaders = {&name, nullptr, &date};
    const jlong tableHandle = handleOf(tableNode);

    const std::wstring headers = text(tableHandle, L"colheaders");
    const auto comma = headers.find(L',');
    ASSERT_NE(std::wstring::npos, comma) << "two entries without a gap";
    EXPECT_EQ(std::wstring::npos, headers.find(L',', comma + 1));
    EXPECT_EQ(L"Name", text(std::stoll(headers.substr(0, comma)), L"name"));
    EXPECT_EQ(L"Date", text(std::stoll(headers.substr(comma + 1)), L"name"));
    EXPECT_TRUE(LogFile::contains("Error retrieving element", 9));

    table->columnHeaders = {&gone, &name};
    gone.fail("get_CurrentControlType", E_ACCESSDENIED);
    EXPECT_EQ(L"0," + headers.substr(0, comma), text(tableHandle, L"colheaders"))
        << "a header without a type can't be a control";
    table->columnHeaders = {};
    EXPECT_EQ(L"", text(tableHandle, L"colheaders")) << "no headers";
    EXPECT_EQ(L"", text(topHandle, L"colheaders")) << "no table";
    EXPECT_TRUE(LogFile::contains("Not a table", 3));
}

// --- selection, MSAA, state ---------------------------------------------------------

TEST_F(Attributes, SelectionByPatternOrByMsaaState) {
    fakeuia::Node& byPattern = child(UIA_ListItemControlTypeId, L"one");
    auto selection = fakeuia::attach<fakeuia::SelectionItemSource>(byPattern, true);
    auto legacyOfPattern = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(byPattern);
    legacyOfPattern->state = STATE_SYSTEM_SELECTED;
    fakeuia::NodeSpec second;
    second.controlType = UIA_ListItemControlTypeId;
    second.name = L"two";
    second.bounds = {20, 50, 120, 70};
    fakeuia::Node& byState = child(second);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(byState);
    legacy->state = STATE_SYSTEM_SELECTED | STATE_SYSTEM_FOCUSABLE;
    legacy->value = L"2";
    legacy->description = L"second item";
    const jlong one = handleOf(byPattern);
    const jlong two = handleOf(byState);

    EXPECT_EQ(L"1", text(one, L"selected"));
    {
        std::lock_guard<std::mutex> lock(selection->mu);
        selection->isSelected = false;
    }
    EXPECT_EQ(L"0", text(one, L"selected")) << "the pattern answers, not MSAA";
    selection->fail("get_CurrentIsSelected", E_FAIL);
    EXPECT_EQ(L"0", text(one, L"selected")) << "a failed read: false, MSAA isn't asked";
    EXPECT_TRUE(LogFile::contains("Error retrieving selected state", 3));

    EXPECT_EQ(L"1", text(two, L"selected")) << "by the MSAA state";
    EXPECT_EQ(L"SELECTED,FOCUSABLE", text(two, L"accstate"));
    EXPECT_EQ(L"2", text(two, L"accvalue"));
    EXPECT_EQ(L"second item", text(two, L"accdesc"));
    legacy->state = 0;
    EXPECT_EQ(L"NORMAL", text(two, L"accstate"));
    EXPECT_EQ(L"0", text(two, L"selected"));
    legacy->fail("get_CurrentState", E_FAIL);
    EXPECT_EQ(L"", text(two, L"accstate")) << "a failed read gives no words";
    legacy->fail("get_CurrentValue", E_FAIL);
    EXPECT_EQ(L"", text(two, L"accvalue"));
}

TEST_F(Attributes, ExpandToggleAndWindowStatesAsNumbers) {
    fakeuia::Node& plain = child(UIA_TextControlTypeId, L"plain");
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_TreeItemControlTypeId;
    spec.name = L"node";
    spec.bounds = {20, 50, 120, 70};
    fakeuia::Node& node = child(spec);
    fakeuia::attach<fakeuia::ExpandCollapseSource>(node, ExpandCollapseState_PartiallyExpanded);
    fakeuia::attach<fakeuia::ToggleSource>(node, ToggleState_Indeterminate, true);
    auto window = fakeuia::attach<fakeuia::WindowSource>(*top);
    window->isModal = true;
    window->interactionState = WindowInteractionState_BlockedByModalWindow;
    const jlong plainHandle = handleOf(plain);
    const jlong nodeHandle = handleOf(node);

    EXPECT_EQ(L"-1", text(plainHandle, L"expanded"));
    EXPECT_EQ(L"-1", text(plainHandle, L"toggled"));
    EXPECT_EQ(L"-1", text(plainHandle, L"interaction-state"));
    EXPECT_EQ(L"0", text(plainHandle, L"modal"));
    EXPECT_EQ(L"2", text(nodeHandle, L"expanded"));
    EXPECT_EQ(L"2", text(nodeHandle, L"toggled"));
    EXPECT_EQ(L"3", text(topHandle, L"interaction-state"));
    EXPECT_EQ(L"1", text(topHandle, L"modal"));
    window->fail("get_CurrentIsModal", E_FAIL);
    window->fail("get_CurrentWindowInteractionState", E_FAIL);
    EXPECT_EQ(L"0", text(topHandle, L"modal"));
    EXPECT_EQ(L"-1", text(topHandle, L"interaction-state"));
}

TEST_F(Attributes, ACoreWindowTellsTheInteractionStateOfItsFrame) {
    auto frameWindow = fakeuia::attach<fakeuia::WindowSource>(*top);
    frameWindow->interactionState = WindowInteractionState_NotResponding;
    fakeuia::NodeSpec core;
    core.controlType = UIA_WindowControlTypeId;
    core.name = L"App";
    core.className = L"Windows.UI.Core.CoreWindow";
    fakeuia::Node& coreNode = child(core);
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(coreNode);
    coreWindow->interactionState = WindowInteractionState_Running;
    const jlong coreHandle = handleOf(coreNode);
    EXPECT_EQ(L"4", text(coreHandle, L"interaction-state")) << "the frame's state";
    EXPECT_TRUE(LogFile::contains("top: ", 9));

    // Without a top-level parent (the core window hangs under the desktop)
    // it is the element's own.
    core.name = L"Loose";
    core.processId = static_cast<int>(GetCurrentProcessId());
    core.bounds = {500, 500, 600, 600};
    fakeuia::Node& loose = platform->desktop().add(core);
    auto looseWindow = fakeuia::attach<fakeuia::WindowSource>(loose);
    looseWindow->interactionState = WindowInteractionState_Closing;
    jlong looseHandle = 0;
    for (jlong handle : host->longs(native<jlongArray>("GetToplevels"))) {
        if (attr(handle, L"name") == std::wstring(L"Loose")) looseHandle = handle;
    }
    ASSERT_NE(0, looseHandle);
    EXPECT_EQ(L"1", text(looseHandle, L"interaction-state")) << "a top-level core window is its own top";
}

// --- text, value, scroll, range ----------------------------------------------------

TEST_F(Attributes, TextFallsBackOnTheValueOnlyWithoutTextPattern) {
    fakeuia::Node& emptyText = child(UIA_DocumentControlTypeId, L"doc");
    fakeuia::attach<fakeuia::TextSource>(emptyText, L"");
    fakeuia::attach<fakeuia::ValueSource>(emptyText, L"value of the document");
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_EditControlTypeId;
    spec.name = L"edit";
    spec.bounds = {20, 50, 120, 70};
    fakeuia::Node& valueOnly = child(spec);
    auto typed = fakeuia::attach<fakeuia::ValueSource>(valueOnly, L"typed");
    spec.name = L"readonly";
    spec.bounds = {20, 80, 120, 100};
    fakeuia::Node& locked = child(spec);
    fakeuia::attach<fakeuia::TextSource>(locked, L"fixed text", true);
    spec.name = L"bare";
    spec.bounds = {20, 110, 120, 130};
    fakeuia::Node& bare = child(spec);

    EXPECT_EQ(L"", text(handleOf(emptyText), L"text")) << "an empty text stays empty";
    EXPECT_EQ(L"typed", text(handleOf(valueOnly), L"text"));
    EXPECT_EQ(L"typed", text(handleOf(valueOnly), L"value"));
    EXPECT_EQ(L"fixed text", text(handleOf(locked), L"text"));
    EXPECT_EQ(L"1", text(handleOf(locked), L"text:readonly"));
    EXPECT_EQ(L"0", text(handleOf(emptyText), L"text:readonly"));
    EXPECT_EQ(L"0", text(handleOf(valueOnly), L"text:readonly"));
    EXPECT_EQ(L"", text(handleOf(bare), L"value")) << "no Value pattern: the empty string";
    EXPECT_EQ(L"", text(handleOf(bare), L"text"));
    typed->fail("get_CurrentValue", E_FAIL);
    EXPECT_FALSE(attr(handleOf(valueOnly), L"value").has_value()) << "a failed read of the value";
}

TEST_F(Attributes, ScrollAndRangeValuesAsReals) {
    fakeuia::Node& pane = child(UIA_PaneControlTypeId, L"pane");
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(pane);
    scroll->horizontalPercent = 33.33333333;
    scroll->verticalPercent = 100;
    scroll->horizontalViewSize = 12.5;
    scroll->verticalViewSize = 0.001;
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_SliderControlTypeId;
    spec.name = L"slider";
    spec.bounds = {20, 50, 120, 70};
    fakeuia::Node& slider = child(spec);
    fakeuia::attach<fakeuia::RangeValueSource>(slider, 2.5, -10.0, 250000.0);
    const jlong paneHandle = handleOf(pane);
    const jlong sliderHandle = handleOf(slider);

    EXPECT_EQ(L"33.3333", text(paneHandle, L"hscrollpercent"));
    EXPECT_EQ(L"100", text(paneHandle, L"vscrollpercent"));
    EXPECT_EQ(L"12.5", text(paneHandle, L"hviewsize"));
    EXPECT_EQ(L"0.001", text(paneHandle, L"vviewsize"));
    EXPECT_EQ(L"-1", text(sliderHandle, L"hscrollpercent")) << "no Scroll pattern";
    EXPECT_EQ(L"-1", text(sliderHandle, L"vviewsize"));
    EXPECT_EQ(L"2.5", text(sliderHandle, L"rangevalue"));
    EXPECT_EQ(L"-10", text(sliderHandle, L"rangemin"));
    EXPECT_EQ(L"250000", text(sliderHandle, L"rangemax"));
    EXPECT_FALSE(attr(paneHandle, L"rangevalue").has_value()) << "no RangeValue pattern: no number";
    EXPECT_FALSE(attr(paneHandle, L"rangemin").has_value());
    EXPECT_FALSE(attr(paneHandle, L"rangemax").has_value());
}

// --- writing ------------------------------------------------------------------------

TEST_F(Attributes, WritingScrollPositionsValuesAndRanges) {
    fakeuia::Node& pane = child(UIA_PaneControlTypeId, L"pane");
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(pane);
    scroll->horizontallyScrollable = scroll->verticallyScrollable = true;
    scroll->horizontalPercent = scroll->verticalPercent = 0;
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_SliderControlTypeId;
    spec.name = L"slider";
    spec.bounds = {20, 50, 120, 70};
    fakeuia::Node& sliderNode = child(spec);
    auto slider = fakeuia::attach<fakeuia::RangeValueSource>(sliderNode, 5.0, 0.0, 10.0);
    spec.controlType = UIA_EditControlTypeId;
    spec.name = L"edit";
    spec.bounds = {20, 80, 120, 100};
    fakeuia::Node& editNode = child(spec);
    auto edit = fakeuia::attach<fakeuia::ValueSource>(editNode, L"old");
    const jlong paneHandle = handleOf(pane);
    const jlong sliderHandle = handleOf(sliderNode);
    const jlong editHandle = handleOf(editNode);

    EXPECT_TRUE(set(paneHandle, L"horizscroll", L"50"));
    EXPECT_TRUE(set(paneHandle, L"vertscroll", L"12abc")) << "a leading number is enough";
    ASSERT_EQ(2u, scroll->setScrollPercentArguments.size());
    EXPECT_EQ(std::make_pair(50.0, -1.0), scroll->setScrollPercentArguments[0]) << "the other axis stays";
    EXPECT_EQ(std::make_pair(-1.0, 12.0), scroll->setScrollPercentArguments[1]);
    EXPECT_FALSE(set(paneHandle, L"horizscroll", L"abc")) << "not a number: false, no exception";
    EXPECT_FALSE(set(paneHandle, L"vertscroll", L"1e999")) << "out of range";
    EXPECT_EQ(2u, scroll->setScrollPercentArguments.size()) << "nothing sent for a bad number";
    EXPECT_EQ("", dwtest::pendingException(*host));
    EXPECT_FALSE(set(sliderHandle, L"horizscroll", L"10")) << "no Scroll pattern";

    EXPECT_TRUE(set(sliderHandle, L"rangevalue", L"7.5"));
    EXPECT_EQ(7.5, slider->value);
    EXPECT_TRUE(set(sliderHandle, L"rangevalue", L"abc")) << "a text that isn't a number sets 0";
    EXPECT_EQ(0.0, slider->value);
    EXPECT_FALSE(set(sliderHandle, L"rangevalue", L"25")) << "the slider clamps to 10";
    EXPECT_EQ(10.0, slider->value);
    EXPECT_TRUE(set(editHandle, L"rangevalue", L"3")) << "no RangeValue pattern counts as done";

    EXPECT_TRUE(set(editHandle, L"value", L"new"));
    EXPECT_EQ(L"new", edit->value);
    EXPECT_FALSE(set(editHandle, L"Value", L"newer"));
    EXPECT_FALSE(set(editHandle, L"name", L"newer")) << "only four names are written";
    EXPECT_EQ(L"new", edit->value);
    EXPECT_TRUE(LogFile::contains("Failed to set the attribute Value", 9));
}

// --- class names, bounds, searches --------------------------------------------------

TEST_F(Attributes, ClassNamesAndBounds) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_EditControlTypeId;
    spec.name = L"edit";
    spec.className = L"Edit";
    spec.bounds = {30, 40, 130, 65};
    fakeuia::Node& edit = child(spec);
    fakeuia::Node& label = child(UIA_TextControlTypeId, L"label");
    const jlong editHandle = handleOf(edit);
    const jlong labelHandle = handleOf(label);

    EXPECT_EQ(L"Edit", host->text(native<jstring>("GetClassName", editHandle)));
    auto names = host->strings(native<jobjectArray>("GetClassNames", editHandle));
    EXPECT_EQ((std::vector<Entry>{L"Edit", L"Edit"}), names) << "the class, then the type";
    EXPECT_EQ(L"Edit\r;Edit", text(editHandle, L"classnames"));
    EXPECT_EQ(L"Text", host->text(native<jstring>("GetClassName", labelHandle))) << "the type stands in";
    EXPECT_EQ((std::vector<Entry>{L"Text"}), host->strings(native<jobjectArray>("GetClassNames", labelHandle)));
    EXPECT_EQ(L"Text", text(labelHandle, L"classnames"));
    EXPECT_EQ(L"TestWindow\r;Window", text(topHandle, L"classnames"));

    EXPECT_EQ((std::vector<jint>{30, 40, 100, 25}), host->ints(native<jintArray>("GetBounds", editHandle)))
        << "x, y, width, height";
    edit.fail("get_CurrentBoundingRectangle", E_FAIL);
    EXPECT_EQ((std::vector<jint>{-1, 0, 1, 0}), host->ints(native<jintArray>("GetBounds", editHandle)))
        << "the failed bounds, as width and height";
}

TEST_F(Attributes, SearchesByFourPropertiesBelowAndIncludingTheElement) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_ButtonControlTypeId;
    spec.name = L"OK";
    spec.automationId = L"ok";
    spec.fullDescription = L"confirms";
    fakeuia::Node& ok = child(spec);
    spec.name = L"Cancel";
    spec.automationId = L"cancel";
    spec.fullDescription = L"";
    spec.bounds = {130, 20, 230, 40};
    child(spec);
    fakeuia::NodeSpec text;
    text.controlType = UIA_TextControlTypeId;
    text.name = L"OK";
    child(text, &ok);
    auto search = [this](jlong root, const wchar_t* name, const wchar_t* value) {
        jlongArray found = native<jlongArray>("GetElementsByProperty", root, host->str(name), host->str(value));
        EXPECT_FALSE(host->isNull(found));
        return host->longs(found);
    };

    auto buttons = search(topHandle, L"type", L"Button");
    ASSERT_EQ(2u, buttons.size());
    EXPECT_EQ(L"OK", this->text(buttons[0], L"name"));
    EXPECT_EQ(L"Cancel", this->text(buttons[1], L"name"));
    EXPECT_EQ(2u, search(topHandle, L"name", L"OK").size()) << "the button and its text";
    EXPECT_EQ((std::vector<jlong>{buttons[1]}), search(topHandle, L"id", L"cancel"));
    EXPECT_EQ((std::vector<jlong>{buttons[0]}), search(topHandle, L"desc", L"confirms"));
    EXPECT_EQ((std::vector<jlong>{topHandle}), search(topHandle, L"type", L"Window")) << "the root itself counts";
    EXPECT_TRUE(search(topHandle, L"type", L"NoSuchType").empty());
    EXPECT_TRUE(search(topHandle, L"name", L"O").empty()) << "exact values";
    EXPECT_TRUE(search(topHandle, L"value", L"OK").empty());
    EXPECT_TRUE(LogFile::contains("value not supported", 3));
    EXPECT_EQ(1u, search(buttons[0], L"type", L"Text").size()) << "below another root";
}

// --- flat results -------------------------------------------------------------------

TEST_F(Attributes, FlatRecordsOfAnElementAndItsChildren) {
    fakeuia::Node& ok = child(UIA_ButtonControlTypeId, L"OK");
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_TextControlTypeId;
    spec.name = L"__NULL__";
    spec.bounds = {20, 50, 120, 70};
    child(spec);
    const jlong okHandle = handleOf(ok);
    auto kids = host->longs(native<jlongArray>("GetChildren", topHandle));
    ASSERT_EQ(2u, kids.size());

    EXPECT_TRUE(flat("GetAttributes", okHandle, {}).empty());
    EXPECT_EQ((std::vector<Entry>{L"OK", std::nullopt, L"Button_" + text(okHandle, L"rid")}),
              flat("GetAttributes", okHandle, {L"name", L"Name", L"rid2"}));
    EXPECT_EQ((std::vector<Entry>{decimal(kids[0]), decimal(kids[1])}),
              flat("GetChildrenWithAttributes", topHandle, {}))
        << "no names: the bare handles";
    EXPECT_EQ((std::vector<Entry>{decimal(kids[0]), L"OK", L"Button", decimal(kids[1]), std::nullopt, L"Text"}),
              flat("GetChildrenWithAttributes", topHandle, {L"name", L"classnames"}))
        << "an attribute whose text is the null marker comes as null";
    EXPECT_EQ((std::vector<Entry>{}), flat("GetChildrenWithAttributes", okHandle, {L"name"}));

    jobjectArray withNull = host->stringArray({L"name", L"x"});
    env->SetObjectArrayElement(withNull, 1, nullptr);
    EXPECT_EQ((std::vector<Entry>{L"OK", std::nullopt}),
              host->strings(native<jobjectArray>("GetAttributes", okHandle, withNull)))
        << "a null name has no value";
}

TEST_F(Attributes, HierarchiesInPreOrderWithDepthsAndExcludedSubtrees) {
    fakeuia::Node& group = child(UIA_GroupControlTypeId, L"group");
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_CheckBoxControlTypeId;
    spec.name = L"first";
    spec.bounds = {25, 25, 60, 35};
    child(spec, &group);
    spec.name = L"second";
    spec.bounds = {65, 25, 100, 35};
    child(spec, &group);
    spec.controlType = UIA_ButtonControlTypeId;
    spec.name = L"OK";
    spec.bounds = {20, 50, 120, 70};
    fakeuia::Node& ok = child(spec);
    const jlong groupHandle = handleOf(group);
    const jlong okHandle = handleOf(ok);
    auto checks = host->longs(native<jlongArray>("GetChildren", groupHandle));
    ASSERT_EQ(2u, checks.size());

    EXPECT_EQ((std::vector<Entry>{L"0", decimal(okHandle), L"OK", L"Button"}),
              hierarchy(okHandle, {L"name", L"classnames"}, {}))
        << "a leaf with two names: four entries";
    EXPECT_EQ((std::vector<Entry>{L"0", decimal(topHandle), L"Target",      //
                                  L"1", decimal(groupHandle), L"group",     //
                                  L"2", decimal(checks[0]), L"first",       //
                                  L"2", decimal(checks[1]), L"second",      //
                                  L"1", decimal(okHandle), L"OK"}),
              hierarchy(topHandle, {L"name"}, {}));
    EXPECT_EQ((std::vector<Entry>{L"0", decimal(topHandle), L"1", decimal(okHandle)}),
              hierarchy(topHandle, {}, {groupHandle}))
        << "an excluded control takes its subtree with it";
    auto none = hierarchy(topHandle, {L"name"}, {topHandle, 12345});
    EXPECT_TRUE(none.empty()) << "the root excluded: an empty String[], not null";
}

TEST_F(Attributes, FailedHandleChecksGiveTheDocumentedResults) {
    const jlong bogus = 0x1234;
    auto invalid = [this] {
        auto thrown = host->takeException();
        return thrown && thrown->message == L"Invalid handle value";
    };
    EXPECT_TRUE(host->isNull(native<jstring>("GetAttribute", bogus, host->str(L"name"))));
    EXPECT_TRUE(invalid());
    EXPECT_TRUE(host->isNull(native<jobjectArray>("GetAttributes", bogus, host->stringArray({L"name"}))));
    EXPECT_TRUE(invalid());
    EXPECT_TRUE(host->isNull(native<jobjectArray>("GetChildrenWithAttributes", bogus, host->stringArray({}))));
    EXPECT_TRUE(invalid());
    EXPECT_TRUE(host->isNull(
        native<jobjectArray>("GetHierarchyWithAttributes", bogus, host->stringArray({}), host->longArray({}))));
    EXPECT_TRUE(invalid());
    EXPECT_EQ(JNI_FALSE, native<jboolean>("SetAttribute", bogus, host->str(L"value"), host->str(L"x")));
    EXPECT_TRUE(invalid());
    EXPECT_TRUE(host->isNull(native<jlongArray>("GetElementsByProperty", bogus, host->str(L"name"), host->str(L"x"))));
    EXPECT_TRUE(invalid());
    EXPECT_EQ(L"", host->text(native<jstring>("GetClassName", bogus)));
    EXPECT_TRUE(invalid());
    EXPECT_TRUE(host->strings(native<jobjectArray>("GetClassNames", bogus)).empty());
    EXPECT_TRUE(invalid());
    EXPECT_EQ((std::vector<jint>{0, 0, 0, 0}), host->ints(native<jintArray>("GetBounds", bogus)));
    EXPECT_TRUE(invalid());
}

// --- the deliberate fault -----------------------------------------------------------

// Runs in a child process of the test: the attribute "throw exception" must
// fault on the calling thread after printing that thread's id.
TEST_F(Attributes, ThrowExceptionFaultsOnTheCallingThread) {
    if (GetEnvironmentVariableW(L"DESKWRIGHT_FAULT_CHILD", nullptr, 0) != 0) {
        SetErrorMode(SEM_NOGPFAULTERRORBOX | SEM_FAILCRITICALERRORS);
        std::printf("caller: %u\n", static_cast<unsigned>(GetCurrentThreadId()));
        std::fflush(stdout);
        attr(topHandle, L"throw exception");
        std::printf("returned\n");
        std::fflush(stdout);
        std::_Exit(3);
    }
    wchar_t self[MAX_PATH];
    ASSERT_NE(0u, GetModuleFileNameW(nullptr, self, MAX_PATH));
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, &inherit, 0));
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = writeEnd;
    startup.hStdError = writeEnd;
    for (DWORD which : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
        SetHandleInformation(GetStdHandle(which), HANDLE_FLAG_INHERIT, 0);
    }
    std::wstring command = L"\"" + std::wstring(self) +
                           L"\" --gtest_filter=Attributes.ThrowExceptionFaultsOnTheCallingThread";
    SetEnvironmentVariableW(L"DESKWRIGHT_FAULT_CHILD", L"1");
    PROCESS_INFORMATION process = {};
    const BOOL started =
        CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
    SetEnvironmentVariableW(L"DESKWRIGHT_FAULT_CHILD", nullptr);
    CloseHandle(writeEnd);
    ASSERT_TRUE(started);
    std::string output;
    char buffer[512];
    DWORD read = 0;
    while (ReadFile(readEnd, buffer, sizeof(buffer), &read, nullptr) && read > 0) {
        output.append(buffer, read);
    }
    CloseHandle(readEnd);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(process.hProcess, 60000));
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);

    EXPECT_EQ(static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION), exitCode) << output;
    EXPECT_EQ(std::string::npos, output.find("returned")) << output;
    const auto caller = output.find("caller: ");
    const auto tid = output.find("tid: ");
    ASSERT_NE(std::string::npos, caller) << output;
    ASSERT_NE(std::string::npos, tid) << output;
    EXPECT_EQ(output.substr(caller + 8, output.find('\n', caller) - caller - 8),
              output.substr(tid + 5, output.find('\n', tid) - tid - 5))
        << "the fault names the thread that asked";
}
