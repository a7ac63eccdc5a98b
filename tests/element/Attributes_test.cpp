// Attributes by name, as Java reads and writes them through the natives:
// their text forms, defaults and null rules, the grid family, class names,
// bounds and searches below an element.
#include "DriverTest.h"

#include "ChildRun.h"
#include "FakeUiaPatterns.h"
#include "SmallStack.h"

#include <functional>
#include <optional>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

using Entry = std::optional<std::wstring>;
using Entries = std::vector<Entry>;
const Entry NONE = std::nullopt;

class Attributes : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        top = &attachToOwnWindow(L"Target");
        topHandle = handleOf(*top);
    }
    // A child of the window (or of another node), 20 pixels below the last.
    fakeuia::Node& child(CONTROLTYPEID type, const std::wstring& name, fakeuia::Node* parent = nullptr,
                         const std::function<void(fakeuia::NodeSpec&)>& more = {}) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        spec.name = name;
        spec.bounds = {20, next, 120, next + 15};
        next += 20;
        if (more) more(spec);
        return (parent ? parent : top)->add(spec);
    }
    // Cells named "r<row>c<column>" with the GridItem pattern under a node
    // that gets the Grid pattern.
    std::shared_ptr<fakeuia::GridSource> makeGrid(fakeuia::Node& gridNode, int rows, int columns) {
        std::vector<std::vector<fakeuia::Node*>> cells(rows);
        for (int row = 0; row < rows; ++row) {
            for (int column = 0; column < columns; ++column) {
                fakeuia::Node& made = child(UIA_DataItemControlTypeId,
                                            L"r" + std::to_wstring(row) + L"c" + std::to_wstring(column), &gridNode);
                fakeuia::attach<fakeuia::GridItemSource>(made, row, column, &gridNode);
                cells[row].push_back(&made);
            }
        }
        return fakeuia::attach<fakeuia::GridSource>(gridNode, cells);
    }
    struct Row { const char* name; jlong handle; const wchar_t* attribute; Entry value; };
    void expectAll(const std::vector<Row>& rows) {
        for (const Row& row : rows) EXPECT_EQ(row.value, attr(row.handle, row.attribute)) << row.name;
    }
    bool set(jlong handle, const std::wstring& name, const std::wstring& value) {
        return native<jboolean>("SetAttribute", handle, host->str(name), host->str(value)) == JNI_TRUE;
    }
    Entries flat(const char* method, jlong handle, const std::vector<std::wstring>& names) {
        jobjectArray result = native<jobjectArray>(method, handle, host->stringArray(names));
        EXPECT_FALSE(host->isNull(result)) << method << " gave null";
        return host->strings(result);
    }
    Entries hierarchy(jlong handle, const std::vector<std::wstring>& names, const std::vector<jlong>& excluded) {
        jobjectArray result = native<jobjectArray>("GetHierarchyWithAttributes", handle, host->stringArray(names),
                                                   host->longArray(excluded));
        EXPECT_FALSE(host->isNull(result));
        return host->strings(result);
    }
    static std::wstring decimal(jlong handle) { return std::to_wstring(handle); }

    fakeuia::Node* top = nullptr;
    jlong topHandle = 0;
    int next = 20;
};

}  // namespace

TEST_F(Attributes, IdentityNamesAreExactAndTheKeyStays) {
    fakeuia::Node& ok = child(UIA_ButtonControlTypeId, L"OK", nullptr, [](fakeuia::NodeSpec& s) {
        s.automationId = L"1001";
        s.runtimeId = std::vector<int>{42, 132456, 4, -1};
    });
    fakeuia::Node& label = child(UIA_TextControlTypeId, L"Label");
    const jlong button = handleOf(ok);
    const jlong labelHandle = handleOf(label);
    const std::wstring labelKey = L"Text_" + attr(labelHandle, L"rid").value_or(L"?");
    expectAll({{"name", button, L"name", L"OK"},
               {"names are exact", button, L"Name", NONE},
               {"unknown name", button, L"nonsense", NONE},
               {"empty name", button, L"", NONE},
               {"rid", button, L"rid", L"2a.20568.4.ffffffff"},
               {"rid2", button, L"rid2", L"Button_2a.20568.4.ffffffff"},
               {"id", button, L"id", L"1001"},
               {"a simulated runtime id", labelHandle, L"rid2", labelKey}});

    ok.update([](fakeuia::NodeSpec& s) {
        s.name = L"A much longer caption than before";
        s.automationId = L"2002";
    });
    label.fail("GetRuntimeId", E_FAIL);
    expectAll({{"the automation id of the first sight", button, L"id", L"1001"},
               {"the name follows the element", button, L"name", L"A much longer caption than before"},
               {"a failed runtime id", labelHandle, L"rid", NONE},
               {"the key comes from the table", labelHandle, L"rid2", labelKey}});
    // The short name serves only the control's text in the log.
    EXPECT_TRUE(LogFile::contains("name=A much longer ca.../>", 9));
}

TEST_F(Attributes, NumbersAndFlagsAsText) {
    fakeuia::Node& node = child(UIA_TreeItemControlTypeId, L"Branch", nullptr, [](fakeuia::NodeSpec& s) {
        s.nativeWindowHandle = fakeuia::hwnd(0x80001234);
        s.level = 3;
        s.orientation = OrientationType_Vertical;
        s.hasKeyboardFocus = true;
        s.ariaProperties = L"expanded=true";
    });
    const jlong item = handleOf(node);
    const Entry element = attr(item, L"element");
    EXPECT_NE(L"0", element.value_or(L"0"));
    expectAll({{"a handle with the top bit set reads negative", item, L"hwnd", L"-2147478988"},
               {"level", item, L"level", L"3"},
               {"orientation", item, L"orientation", L"2"},
               {"pid", item, L"pid", std::to_wstring(GetCurrentProcessId())},
               {"focus", item, L"focus", L"1"},
               {"enabled", item, L"enabled", L"1"},
               {"visible", item, L"visible", L"1"},
               {"aria-props", item, L"aria-props", L"expanded=true"},
               {"no pattern: one blank", item, L"patterns", L" "},
               {"the control's element, not a fresh one", item, L"element", element}});

    // The defaults of the other failed reads: the helpers' own tests.
    node.fail("get_CurrentProcessId", E_FAIL);
    expectAll({{"failed pid", item, L"pid", L"0"}});
}

TEST_F(Attributes, WindowStyleAndForegroundComeFromTheElementsOwnWindow) {
    dwtest::OwnWindow popupWindow(L"STATIC", L"Popup", WS_POPUP | WS_VISIBLE, {50, 50, 250, 150});
    dwtest::OwnWindow otherWindow(L"STATIC", L"Other", WS_OVERLAPPEDWINDOW | WS_VISIBLE, {300, 50, 500, 150});
    HWND popup = popupWindow.hwnd, other = otherWindow.hwnd;
    ASSERT_TRUE(popup && other);
    fakeuia::Node& popupNode =
        child(UIA_PaneControlTypeId, L"Popup", nullptr, [&](fakeuia::NodeSpec& s) { s.nativeWindowHandle = popup; });
    fakeuia::Node& inside = child(UIA_TextControlTypeId, L"Inside", &popupNode);
    const jlong pane = handleOf(popupNode);
    const jlong insideHandle = handleOf(inside);
    const LONG style = GetWindowLongW(popup, GWL_STYLE);
    ASSERT_LT(style, 0) << "WS_POPUP is the top bit";

    SetForegroundWindow(popup);
    ASSERT_EQ(popup, dwtest::settledForeground());
    expectAll({{"the style as a signed number", pane, L"windowstyle", std::to_wstring(style)},
               {"no window of its own", insideHandle, L"windowstyle", L"0"},
               {"in the foreground", pane, L"foreground", L"1"},
               {"only the element's own window counts", insideHandle, L"foreground", L"0"}});
    SetForegroundWindow(other);
    ASSERT_EQ(other, dwtest::settledForeground());
    EXPECT_EQ(L"0", attr(pane, L"foreground"));
}

TEST_F(Attributes, TheGridFamilyAsksRowFirstAndMatchesTheWholeName) {
    fakeuia::Node& gridNode = child(UIA_DataGridControlTypeId, L"Grid");
    auto grid = makeGrid(gridNode, 3, 5);
    const jlong gridHandle = handleOf(gridNode);

    const std::wstring item = attr(gridHandle, L"griditem_2_1").value_or(L"0");
    ASSERT_EQ(1u, grid->getItemCalls.size());
    EXPECT_EQ(std::make_pair(1, 2), grid->getItemCalls[0]) << "GetItem(row, column)";
    const jlong itemHandle = std::stoll(item);
    ASSERT_NE(0, itemHandle);
    expectAll({{"columns first", gridHandle, L"colrowcount", L"5,3"},
               {"the grid is no grid item", gridHandle, L"colrow", L"-1,-1"},
               {"the cell", itemHandle, L"name", L"r1c2"},
               {"column, row", itemHandle, L"colrow", L"2,1"},
               {"a cell is no grid", itemHandle, L"colrowcount", L"-1,-1"},
               {"the same cell, the same handle", gridHandle, L"griditem_2_1", item},
               {"one number", gridHandle, L"griditem_2", NONE},
               {"another word", gridHandle, L"griditemX_2_1", NONE},
               {"the whole name must match", gridHandle, L"griditem_2_1x", NONE},
               {"no numbers", gridHandle, L"griditem", NONE}});
    EXPECT_EQ(2u, grid->getItemCalls.size()) << "names that don't match ask nothing";
    expectAll({{"outside the grid", gridHandle, L"griditem_9_9", L"0"},
               {"no Grid pattern", itemHandle, L"griditem_0_0", L"0"}});
}

TEST_F(Attributes, GridItemNamesOfAnyLengthAreReadOnAJavaThreadsStack) {
    fakeuia::Node& gridNode = child(UIA_DataGridControlTypeId, L"Grid");
    makeGrid(gridNode, 2, 3);
    const jlong gridHandle = handleOf(gridNode);
    const std::wstring zeros(1000000, L'0');
    struct Row {
        const char* what;
        std::wstring name;
        Entry cell;  // the name of the cell whose handle is the answer
    };
    const std::vector<Row> rows = {
        {"leading zeros", L"griditem_" + zeros + L"2_" + zeros + L"1", L"r1c2"},
        {"a long tail", L"griditem_2_1" + std::wstring(1000000, L'x'), NONE},
        {"a long column of another form", L"griditem_" + zeros + L"x_1", NONE},
    };
    Entries names(rows.size());
    ASSERT_TRUE(dwtest::runOnStack(dwtest::DISPATCH_STACK_BYTES, [&] {
        JNIEnv* threadEnv = host->attachCurrentThread();
        auto read = [&](jlong handle, const std::wstring& name) -> Entry {
            jstring value = dll->call<jstring>("GetAttribute", threadEnv, self, handle, host->str(name));
            if (host->takeException().has_value() || host->isNull(value)) return NONE;
            return host->text(value);
        };
        for (size_t i = 0; i < rows.size(); ++i) {
            auto item = read(gridHandle, rows[i].name);
            names[i] = item ? read(std::stoll(*item), L"name") : NONE;
        }
        host->detachCurrentThread();
    }));
    for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i].cell, names[i]) << rows[i].what;
}

TEST_F(Attributes, ColumnHeadersSkipEntriesThatFail) {
    fakeuia::Node& tableNode = child(UIA_TableControlTypeId, L"Table");
    fakeuia::Node& name = child(UIA_HeaderItemControlTypeId, L"Name", &tableNode);
    fakeuia::Node& date = child(UIA_HeaderItemControlTypeId, L"Date", &tableNode);
    fakeuia::Node& gone = child(UIA_HeaderItemControlTypeId, L"Size", &tableNode);
    auto table = fakeuia::attach<fakeuia::TableSource>(tableNode);
    table->columnHeaders = {&name, nullptr, &date};
    const jlong tableHandle = handleOf(tableNode);

    const std::wstring headers = attr(tableHandle, L"colheaders").value_or(L"");
    EXPECT_EQ(decimal(handleOf(name)) + L"," + decimal(handleOf(date)), headers) << "two entries without a gap";
    table->columnHeaders = {&gone, &name};
    gone.fail("get_CurrentControlType", E_ACCESSDENIED);
    expectAll({{"a header without a type can't be a control", tableHandle, L"colheaders",
                L"0," + decimal(handleOf(name))}});
    table->columnHeaders = {};
    expectAll({{"no headers", tableHandle, L"colheaders", L""}, {"no table", topHandle, L"colheaders", L""}});
}

TEST_F(Attributes, SelectionByPatternOrByMsaaState) {
    fakeuia::Node& byPattern = child(UIA_ListItemControlTypeId, L"one");
    auto selection = fakeuia::attach<fakeuia::SelectionItemSource>(byPattern, true);
    fakeuia::attach<fakeuia::LegacyIAccessibleSource>(byPattern)->state = STATE_SYSTEM_SELECTED;
    fakeuia::Node& byState = child(UIA_ListItemControlTypeId, L"two");
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(byState);
    legacy->state = STATE_SYSTEM_SELECTED | STATE_SYSTEM_FOCUSABLE;
    legacy->value = L"2";
    legacy->description = L"second item";
    const jlong one = handleOf(byPattern);
    const jlong two = handleOf(byState);

    EXPECT_EQ(L"1", attr(one, L"selected"));
    {
        std::lock_guard<std::mutex> lock(selection->mu);
        selection->isSelected = false;
    }
    EXPECT_EQ(L"0", attr(one, L"selected")) << "the pattern answers, not MSAA";
    selection->fail("get_CurrentIsSelected", E_FAIL);
    expectAll({{"a failed read: false, MSAA isn't asked", one, L"selected", L"0"},
               {"by the MSAA state", two, L"selected", L"1"},
               {"state words", two, L"accstate", L"SELECTED,FOCUSABLE"},
               {"MSAA value", two, L"accvalue", L"2"},
               {"MSAA description", two, L"accdesc", L"second item"}});
    legacy->state = 0;
    expectAll({{"no state bits", two, L"accstate", L"NORMAL"}, {"not selected", two, L"selected", L"0"}});
    legacy->state = 0x7FFFFFFF;
    expectAll({{"every valid bit", two, L"accstate", L"VALID"},
               {"the whole mask is no selection", two, L"selected", L"0"}});
    legacy->fail("get_CurrentState", E_FAIL);
    legacy->fail("get_CurrentValue", E_FAIL);
    expectAll({{"a failed read gives no words", two, L"accstate", L""}, {"a failed value", two, L"accvalue", L""}});
}

TEST_F(Attributes, ExpandToggleAndWindowStatesAsNumbers) {
    fakeuia::Node& plain = child(UIA_TextControlTypeId, L"plain");
    fakeuia::Node& node = child(UIA_TreeItemControlTypeId, L"node");
    fakeuia::attach<fakeuia::ExpandCollapseSource>(node, ExpandCollapseState_PartiallyExpanded);
    fakeuia::attach<fakeuia::ToggleSource>(node, ToggleState_Indeterminate, true);
    auto window = fakeuia::attach<fakeuia::WindowSource>(*top);
    window->isModal = true;
    window->interactionState = WindowInteractionState_BlockedByModalWindow;
    fakeuia::Node& core = child(UIA_WindowControlTypeId, L"App", nullptr,
                                [](fakeuia::NodeSpec& s) { s.className = L"Windows.UI.Core.CoreWindow"; });
    fakeuia::attach<fakeuia::WindowSource>(core)->interactionState = WindowInteractionState_Running;
    // A core window without a top-level parent (under the desktop) is its own top.
    fakeuia::Node& loose = addWindow(L"Loose", L"Windows.UI.Core.CoreWindow", static_cast<int>(GetCurrentProcessId()));
    fakeuia::attach<fakeuia::WindowSource>(loose)->interactionState = WindowInteractionState_Closing;
    const jlong plainHandle = handleOf(plain);
    const jlong nodeHandle = handleOf(node);
    const jlong coreHandle = handleOf(core);
    const jlong looseHandle = handleOf(loose);

    expectAll({{"no ExpandCollapse", plainHandle, L"expanded", L"-1"},
               {"no Toggle", plainHandle, L"toggled", L"-1"},
               {"no Window", plainHandle, L"interaction-state", L"-1"},
               {"no Window: not modal", plainHandle, L"modal", L"0"},
               {"partially expanded", nodeHandle, L"expanded", L"2"},
               {"indeterminate", nodeHandle, L"toggled", L"2"},
               {"blocked by a modal window", topHandle, L"interaction-state", L"3"},
               {"modal", topHandle, L"modal", L"1"},
               {"a core window tells its frame's state", coreHandle, L"interaction-state", L"3"},
               {"a top-level core window tells its own", looseHandle, L"interaction-state", L"1"}});
    window->fail("get_CurrentIsModal", E_FAIL);
    window->fail("get_CurrentWindowInteractionState", E_FAIL);
    expectAll({{"failed modal", topHandle, L"modal", L"0"},
               {"failed interaction state", topHandle, L"interaction-state", L"-1"}});
}

TEST_F(Attributes, TextValueScrollAndRangeAsText) {
    fakeuia::Node& doc = child(UIA_DocumentControlTypeId, L"doc");
    fakeuia::attach<fakeuia::TextSource>(doc, L"");
    fakeuia::attach<fakeuia::ValueSource>(doc, L"value of the document");
    fakeuia::Node& edit = child(UIA_EditControlTypeId, L"edit");
    auto typed = fakeuia::attach<fakeuia::ValueSource>(edit, L"typed");
    fakeuia::Node& locked = child(UIA_EditControlTypeId, L"readonly");
    fakeuia::attach<fakeuia::TextSource>(locked, L"fixed text", true);
    fakeuia::Node& bare = child(UIA_EditControlTypeId, L"bare");
    fakeuia::Node& pane = child(UIA_PaneControlTypeId, L"pane");
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(pane);
    scroll->horizontalPercent = 33.33333333;
    scroll->verticalViewSize = 0.001;
    fakeuia::Node& slider = child(UIA_SliderControlTypeId, L"slider");
    fakeuia::attach<fakeuia::RangeValueSource>(slider, 2.5, -10.0, 250000.0);
    const jlong d = handleOf(doc), e = handleOf(edit), l = handleOf(locked), b = handleOf(bare);
    const jlong p = handleOf(pane), s = handleOf(slider);

    expectAll({{"an empty text stays empty", d, L"text", L""},
               {"text", l, L"text", L"fixed text"},
               {"read-only text", l, L"text:readonly", L"1"},
               {"writable text", d, L"text:readonly", L"0"},
               {"no Text pattern", e, L"text:readonly", L"0"},
               {"no Value pattern: the empty string", b, L"value", L""},
               {"as with %g", p, L"hscrollpercent", L"33.3333"},
               {"a small number as with %g", p, L"vviewsize", L"0.001"},
               {"no Scroll pattern", s, L"hscrollpercent", L"-1"},
               {"rangevalue", s, L"rangevalue", L"2.5"},
               {"rangemin", s, L"rangemin", L"-10"},
               {"a large number as with %g", s, L"rangemax", L"250000"},
               {"no RangeValue pattern: no number", p, L"rangevalue", NONE}});
    typed->fail("get_CurrentValue", E_FAIL);
    EXPECT_EQ(NONE, attr(e, L"value")) << "a failed read of the value";
}

TEST_F(Attributes, WritingScrollPositionsValuesAndRanges) {
    fakeuia::Node& pane = child(UIA_PaneControlTypeId, L"pane");
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(pane);
    scroll->horizontallyScrollable = scroll->verticallyScrollable = true;
    scroll->horizontalPercent = scroll->verticalPercent = 0;
    fakeuia::Node& sliderNode = child(UIA_SliderControlTypeId, L"slider");
    auto slider = fakeuia::attach<fakeuia::RangeValueSource>(sliderNode, 5.0, 0.0, 10.0);
    fakeuia::Node& editNode = child(UIA_EditControlTypeId, L"edit");
    auto edit = fakeuia::attach<fakeuia::ValueSource>(editNode, L"old");
    const jlong paneHandle = handleOf(pane), sliderHandle = handleOf(sliderNode), editHandle = handleOf(editNode);

    EXPECT_TRUE(set(paneHandle, L"horizscroll", L"50"));
    EXPECT_TRUE(set(paneHandle, L"vertscroll", L"12abc")) << "a leading number is enough";
    EXPECT_FALSE(set(paneHandle, L"horizscroll", L"abc")) << "not a number: false, no exception";
    EXPECT_FALSE(set(paneHandle, L"vertscroll", L"1e999")) << "out of range";
    EXPECT_EQ((std::vector<std::pair<double, double>>{{50.0, -1.0}, {-1.0, 12.0}}), scroll->setScrollPercentArguments)
        << "the other axis stays; nothing sent for a bad number";
    EXPECT_EQ("", dwtest::pendingException(*host));
    EXPECT_FALSE(set(sliderHandle, L"horizscroll", L"10")) << "no Scroll pattern";

    struct Write { const char* name; const wchar_t* value; bool result; double after; };
    for (const Write& row : {Write{"a number", L"7.5", true, 7.5}, Write{"a text that isn't a number sets 0", L"abc", true, 0},
                             Write{"the slider clamps to 10", L"25", false, 10}}) {
        EXPECT_EQ(row.result, set(sliderHandle, L"rangevalue", row.value)) << row.name;
        EXPECT_EQ(row.after, slider->value) << row.name;
    }
    EXPECT_TRUE(set(editHandle, L"rangevalue", L"3")) << "no RangeValue pattern counts as done";

    EXPECT_TRUE(set(editHandle, L"value", L"new"));
    EXPECT_FALSE(set(editHandle, L"Value", L"newer"));
    EXPECT_FALSE(set(editHandle, L"name", L"newer")) << "only four names are written";
    EXPECT_EQ(L"new", edit->value);
}

TEST_F(Attributes, ClassNamesAndBounds) {
    fakeuia::Node& edit = child(UIA_EditControlTypeId, L"edit", nullptr, [](fakeuia::NodeSpec& s) {
        s.className = L"Edit";
        s.bounds = {30, 40, 130, 65};
    });
    const jlong editHandle = handleOf(edit);
    const jlong labelHandle = handleOf(child(UIA_TextControlTypeId, L"label"));
    auto names = [&](jlong handle) { return host->strings(native<jobjectArray>("GetClassNames", handle)); };
    auto className = [&](jlong handle) { return host->text(native<jstring>("GetClassName", handle)); };
    auto bounds = [&] { return host->ints(native<jintArray>("GetBounds", editHandle)); };

    EXPECT_EQ(L"Edit", className(editHandle));
    EXPECT_EQ((Entries{L"Edit", L"Edit"}), names(editHandle)) << "the class, then the type";
    EXPECT_EQ(L"Text", className(labelHandle)) << "the type stands in";
    EXPECT_EQ((Entries{L"Text"}), names(labelHandle));
    expectAll({{"class and type", editHandle, L"classnames", L"Edit\r;Edit"},
               {"the type alone", labelHandle, L"classnames", L"Text"},
               {"the window", topHandle, L"classnames", L"TestWindow\r;Window"}});
    EXPECT_EQ((std::vector<jint>{30, 40, 100, 25}), bounds()) << "x, y, width, height";
    edit.fail("get_CurrentBoundingRectangle", E_FAIL);
    EXPECT_EQ((std::vector<jint>{-1, 0, 1, 0}), bounds()) << "the failed bounds, as width and height";
}

TEST_F(Attributes, SearchesByFourPropertiesBelowAndIncludingTheElement) {
    fakeuia::Node& ok = child(UIA_ButtonControlTypeId, L"OK", nullptr, [](fakeuia::NodeSpec& s) {
        s.automationId = L"ok";
        s.fullDescription = L"confirms";
    });
    child(UIA_ButtonControlTypeId, L"Cancel", nullptr, [](fakeuia::NodeSpec& s) { s.automationId = L"cancel"; });
    child(UIA_TextControlTypeId, L"OK", &ok);
    auto search = [this](jlong root, const wchar_t* name, const wchar_t* value) {
        jlongArray found = native<jlongArray>("GetElementsByProperty", root, host->str(name), host->str(value));
        EXPECT_FALSE(host->isNull(found));
        return host->longs(found);
    };
    auto buttons = search(topHandle, L"type", L"Button");
    ASSERT_EQ(2u, buttons.size());
    EXPECT_EQ(L"OK", attr(buttons[0], L"name"));
    EXPECT_EQ(L"Cancel", attr(buttons[1], L"name"));
    struct Row {
        const char* name;
        jlong root;
        const wchar_t* property;
        const wchar_t* value;
        std::vector<jlong> found;
    };
    const Row rows[] = {
        {"the button and its text", topHandle, L"name", L"OK", {buttons[0], handleOf(*ok.children()[0])}},
        {"by automation id", topHandle, L"id", L"cancel", {buttons[1]}},
        {"by description", topHandle, L"desc", L"confirms", {buttons[0]}},
        {"the root itself counts", topHandle, L"type", L"Window", {topHandle}},
        {"no such type", topHandle, L"type", L"NoSuchType", {}},
        {"exact values", topHandle, L"name", L"O", {}},
        {"value is not searched", topHandle, L"value", L"OK", {}},
        {"below another root", buttons[0], L"type", L"Text", {handleOf(*ok.children()[0])}},
    };
    for (const Row& row : rows) EXPECT_EQ(row.found, search(row.root, row.property, row.value)) << row.name;
}

TEST_F(Attributes, FlatRecordsAndHierarchies) {
    fakeuia::Node& group = child(UIA_GroupControlTypeId, L"group");
    child(UIA_CheckBoxControlTypeId, L"first", &group);
    child(UIA_CheckBoxControlTypeId, L"second", &group);
    fakeuia::Node& ok = child(UIA_ButtonControlTypeId, L"OK");
    child(UIA_TextControlTypeId, L"__NULL__");
    const jlong okHandle = handleOf(ok);
    auto kids = host->longs(native<jlongArray>("GetChildren", topHandle));
    ASSERT_EQ(3u, kids.size());
    auto checks = host->longs(native<jlongArray>("GetChildren", kids[0]));
    ASSERT_EQ(2u, checks.size());

    EXPECT_TRUE(flat("GetAttributes", okHandle, {}).empty());
    EXPECT_EQ((Entries{L"OK", NONE, L"Button_" + attr(okHandle, L"rid").value_or(L"?")}),
              flat("GetAttributes", okHandle, {L"name", L"Name", L"rid2"}));
    EXPECT_EQ((Entries{decimal(kids[0]), decimal(kids[1]), decimal(kids[2])}),
              flat("GetChildrenWithAttributes", topHandle, {}))
        << "no names: the bare handles";
    EXPECT_EQ((Entries{decimal(kids[0]), L"group", L"Group", decimal(kids[1]), L"OK", L"Button", decimal(kids[2]), NONE,
                       L"Text"}),
              flat("GetChildrenWithAttributes", topHandle, {L"name", L"classnames"}))
        << "an attribute whose text is the null marker comes as null";
    EXPECT_EQ((Entries{}), flat("GetChildrenWithAttributes", okHandle, {L"name"}));
    jobjectArray withNull = host->stringArray({L"name", L"x"});
    env->SetObjectArrayElement(withNull, 1, nullptr);
    EXPECT_EQ((Entries{L"OK", NONE}), host->strings(native<jobjectArray>("GetAttributes", okHandle, withNull)))
        << "a null name has no value";

    EXPECT_EQ((Entries{L"0", decimal(okHandle), L"OK", L"Button"}), hierarchy(okHandle, {L"name", L"classnames"}, {}))
        << "a leaf with two names: four entries";
    EXPECT_EQ((Entries{L"0", decimal(topHandle), L"Target", L"1", decimal(kids[0]), L"group",  //
                       L"2", decimal(checks[0]), L"first", L"2", decimal(checks[1]), L"second",   //
                       L"1", decimal(okHandle), L"OK", L"1", decimal(kids[2]), NONE}),
              hierarchy(topHandle, {L"name"}, {}));
    EXPECT_EQ((Entries{L"0", decimal(topHandle), L"1", decimal(okHandle), L"1", decimal(kids[2])}),
              hierarchy(topHandle, {}, {kids[0]}))
        << "an excluded control takes its subtree with it";
    EXPECT_TRUE(hierarchy(topHandle, {L"name"}, {topHandle, 12345}).empty())
        << "the root excluded: an empty String[], not null";
}

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
    const dwtest::ChildRun child =
        dwtest::runChild("Attributes.ThrowExceptionFaultsOnTheCallingThread", {{L"DESKWRIGHT_FAULT_CHILD", L"1"}});
    const std::string output = child.out + child.err;
    EXPECT_EQ(static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION), child.exitCode) << output;
    EXPECT_EQ(std::string::npos, output.find("returned")) << output;
    auto after = [&](const std::string& label) {
        const auto at = output.find(label);
        return at == std::string::npos ? "<" + label + "missing>"
                                       : output.substr(at + label.size(), output.find('\n', at) - at - label.size());
    };
    EXPECT_EQ(after("caller: "), after("tid: ")) << "the fault names the thread that asked: " << output;
}
