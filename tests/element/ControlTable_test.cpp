// Elements get stable handles through the control table, as Java sees it:
// the text keys (read whole through the attribute "rid2"), child lists,
// parents and eviction of dead elements.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"
#include "SmallStack.h"

using dwtest::DriverTest;

namespace {

const std::vector<int> RID{42, 132456, 4, -1};
const std::vector<int> NONE{};

class ControlTable : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        pane = &platform->desktop().add({.controlType = UIA_PaneControlTypeId, .name = L"Panel",
                                         .processId = static_cast<int>(GetCurrentProcessId()),
                                         .bounds = {100, 200, 600, 700}, .runtimeId = std::vector<int>{0x2a, 0x1f}});
        ASSERT_NE(0, attach(dwtest::ownPidArgs(), 1000));
    }
    // A child of the pane; a role makes it a Custom element with that MSAA role.
    fakeuia::Node& child(CONTROLTYPEID type, const std::wstring& name, std::vector<int> runtimeId, RECT bounds,
                         DWORD role = 0, int childId = 0) {
        fakeuia::Node& node = pane->add({.controlType = role ? UIA_CustomControlTypeId : type, .name = name,
                                         .bounds = bounds, .runtimeId = runtimeId});
        if (role || childId) {
            auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(node);
            legacy->role = role;
            legacy->childId = childId;
        }
        return node;
    }
    jlong top() {
        auto tops = toplevels();
        EXPECT_EQ(1u, tops.size());
        return tops.empty() ? 0 : tops[0];
    }
    std::wstring key(jlong handle) { return attr(handle, L"rid2").value_or(L"<null>"); }

    fakeuia::Node* pane = nullptr;
};

}  // namespace

TEST_F(ControlTable, KeysAreExactlyTypeIdOrParentKeyNameAndLocation) {
    const RECT at = {110, 220, 180, 250};  // relative 10, 20: "_10.20.170.230"
    struct Row {
        const char* name;
        const wchar_t* preference;  // deskwright.rid.append.<this> is "true", the others "false"
        CONTROLTYPEID type;
        const wchar_t* element;
        std::vector<int> runtimeId;
        RECT bounds;
        DWORD role;
        int childId;
        const wchar_t* key;
    };
    const Row rows[] = {
        {"a runtime id: no location, no parent", L"loc", UIA_ButtonControlTypeId, L"OK", RID, at, 0, 0,
         L"Button_2a.20568.4.ffffffff"},
        {"a child id when asked for", L"childid", UIA_ListItemControlTypeId, L"Item", RID, at, 0, 5,
         L"ListItem_2a.20568.4.ffffffff_5"},
        {"a child id only when asked for", L"", UIA_ListItemControlTypeId, L"Item", RID, at, 0, 5,
         L"ListItem_2a.20568.4.ffffffff"},
        {"a row's name when asked for", L"row.name", 0, L"Row 7", RID, at, ROLE_SYSTEM_ROW, 0,
         L"ROW_2a.20568.4.ffffffff_Row 7"},
        {"a row's name only when asked for", L"", 0, L"Row 7", RID, at, ROLE_SYSTEM_ROW, 0,
         L"ROW_2a.20568.4.ffffffff"},
        {"no id: the name under the parent's key", L"", UIA_TextControlTypeId, L"Total", NONE, at, 0, 0,
         L"Text_Pane_2a.1f_Total"},
        {"no id, asked for the location", L"loc", UIA_TextControlTypeId, L"Total", NONE, at, 0, 0,
         L"Text_Pane_2a.1f_Total_10.20.170.230"},
        {"no id: a button by its position", L"", UIA_ButtonControlTypeId, L"OK", NONE, at, 0, 0,
         L"Button_Pane_2a.1f_OK_10.20.170.230"},
        {"no id: a split button by its position", L"", UIA_SplitButtonControlTypeId, L"More", NONE, at, 0, 0,
         L"SplitButton_Pane_2a.1f_More_10.20.170.230"},
        {"no id: a tab by its position", L"", UIA_TabItemControlTypeId, L"Tab", NONE, at, 0, 0,
         L"TabItem_Pane_2a.1f_Tab_10.20.170.230"},
        {"no id, no name: the location", L"", UIA_TextControlTypeId, L"", NONE, {90, 180, 130, 230}, 0, 0,
         L"Text_Pane_2a.1f__-10.-20.140.250"},
        {"no id, no bounds, no name", L"", UIA_TextControlTypeId, L"", NONE, {}, 0, 0, L"Text_Pane_2a.1f_"},
        {"no bounds: never a location", L"loc", UIA_ButtonControlTypeId, L"Zero", NONE, {}, 0, 0,
         L"Button_Pane_2a.1f_Zero"},
        {"a row without id whose name ends in a letter", L"", 0, L"Total", NONE, at, ROLE_SYSTEM_ROW, 0,
         L"ROW_Pane_2a.1f__10.20.170.230"},
        {"a row without id whose name ends in a digit", L"", 0, L"Row 12", NONE, at, ROLE_SYSTEM_ROW, 0,
         L"ROW_Pane_2a.1f_Row 12"},
        {"a row without id, asked for its name", L"row.name", 0, L"Total", NONE, at, ROLE_SYSTEM_ROW, 0,
         L"ROW_Pane_2a.1f_Total"},
    };
    for (const Row& row : rows) {
        for (const wchar_t* preference : {L"loc", L"childid", L"row.name"}) {
            setPreference(std::wstring(L"deskwright.rid.append.") + preference,
                          row.preference == std::wstring(preference) ? L"true" : L"false");
        }
        child(row.type, row.element, row.runtimeId, row.bounds, row.role, row.childId);
        auto handles = children(top());
        ASSERT_FALSE(handles.empty()) << row.name;
        EXPECT_EQ(row.key, key(handles.back())) << row.name;
        pane->children().back()->remove();
    }

    // Found by a search, with no parent control at hand: the keys of the
    // parents without ids are made on the way up.
    child(UIA_GroupControlTypeId, L"G", NONE, at)
        .add({.controlType = UIA_TextControlTypeId, .name = L"T", .bounds = {120, 230, 150, 240}, .runtimeId = NONE});
    auto found = host->longs(native<jlongArray>("GetElementsByProperty", top(), host->str(L"name"), host->str(L"T")));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(L"Text_Group_Pane_2a.1f_G_T", key(found[0]));
}

TEST_F(ControlTable, RowNamesOfAnyLengthAreTestedOnAJavaThreadsStack) {
    const std::wstring letters(1000000, L'r');
    struct Row { const char* name; std::wstring element; std::wstring key; };
    const std::vector<Row> rows = {
        {"a name ending in a digit", letters + L"7", L"ROW_Pane_2a.1f_" + letters + L"7"},
        {"a name ending in a letter", letters, L"ROW_Pane_2a.1f__10.60.170.220"},
        {"a line break before the digit", L"Row\n7", L"ROW_Pane_2a.1f__10.100.170.220"},
        {"a line break after the digit", L"Row 7\n", L"ROW_Pane_2a.1f__10.140.170.220"},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        const int y = 220 + 40 * static_cast<int>(i);
        child(0, rows[i].element, NONE, {110, y, 180, y + 20}, ROLE_SYSTEM_ROW);
    }
    std::vector<std::optional<std::wstring>> read;
    ASSERT_TRUE(dwtest::runOnStack(dwtest::DISPATCH_STACK_BYTES, [&] {
        JNIEnv* threadEnv = host->attachCurrentThread();
        auto tops = host->longs(dll->call<jlongArray>("GetToplevels", threadEnv, self));
        if (tops.size() == 1) {
            read = host->strings(dll->call<jobjectArray>("GetChildrenWithAttributes", threadEnv, self, tops[0],
                                                         host->stringArray({L"rid2"})));
        }
        host->detachCurrentThread();
    }));
    ASSERT_EQ(2 * rows.size(), read.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].key, read[2 * i + 1].value_or(L"<null>")) << rows[i].name;
    }
}

TEST_F(ControlTable, ReadsKeepHandlesAndWidgetsWithOneKeyShareOneControl) {
    child(UIA_ButtonControlTypeId, L"OK", RID, {110, 220, 180, 250});
    child(UIA_TextControlTypeId, L"", NONE, {});
    child(UIA_TextControlTypeId, L"", NONE, {});
    const jlong window = top();
    auto first = children(window);
    ASSERT_EQ(3u, first.size());
    EXPECT_EQ("", thrown());
    EXPECT_EQ(first, children(window)) << "a second read gives the same handles";
    EXPECT_EQ(window, top());
    EXPECT_EQ(window, native<jlong>("GetParent", first[0]));
    EXPECT_EQ(first[1], first[2]) << "one key: the later read takes the control over";
    // The automation object and one element for each of three controls.
    EXPECT_EQ(4, platform->outstandingReferences()) << platform->outstandingBreakdown();

    const jlong desktop = native<jlong>("GetParent", window);
    ASSERT_NE(0, desktop);
    EXPECT_EQ(jlong{0}, native<jlong>("GetParent", desktop)) << "the desktop needs no parent";
    EXPECT_EQ("", thrown());
    EXPECT_EQ((std::vector<jlong>{window}), children(desktop));

    native<void>("ReleaseControls");
    children(window);
    EXPECT_EQ("Invalid handle value", thrown());
    native<jlong>("GetParent", first[0]);
    EXPECT_EQ("Invalid handle value", thrown());
    EXPECT_EQ(1, platform->outstandingReferences()) << "only the automation object is held";
}

TEST_F(ControlTable, AGoneElementIsEvictedOnceAndThenUnknown) {
    fakeuia::Node& removed = child(UIA_ButtonControlTypeId, L"OK", RID, {110, 220, 180, 250});
    fakeuia::Node& retyped = child(UIA_TextControlTypeId, L"Total", NONE, {110, 260, 180, 280});
    auto kids = children(top());
    ASSERT_EQ(2u, kids.size());
    removed.remove();
    retyped.update([](fakeuia::NodeSpec& spec) { spec.controlType = UIA_EditControlTypeId; });
    for (size_t i = 0; i < kids.size(); ++i) {
        const char* name = i == 0 ? "removed" : "another type";
        native<jlong>("GetParent", kids[i]);
        EXPECT_EQ("Control does no longer exist", thrown()) << name;
        children(kids[i]);
        EXPECT_EQ("Invalid handle value", thrown()) << name << ": the table no longer knows it";
    }
    EXPECT_EQ(2, platform->outstandingReferences()) << "the automation object and the pane";
}
