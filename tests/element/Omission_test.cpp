// Which children Java sees, and which handles stay usable: the omission rules
// of a child list, a combo box's list that ends at its popup, and elements
// that have lost their place in the tree.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

using dwtest::DriverTest;

namespace {

class Omission : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        top = &attachToOwnWindow(L"Target");
        topHandle = handleOf(*top);
    }

    fakeuia::Node& add(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name,
                       RECT bounds = {20, 20, 60, 40}, bool offscreen = false) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        spec.name = name;
        spec.bounds = bounds;
        spec.isOffscreen = offscreen;
        return parent.add(spec);
    }
    // The children that Java is given, in order, with their names.
    std::vector<std::pair<jlong, std::wstring>> children(jlong handle) {
        std::vector<std::pair<jlong, std::wstring>> found;
        auto flat = host->strings(
            native<jobjectArray>("GetChildrenWithAttributes", handle, host->stringArray({L"name"})));
        for (size_t i = 0; i + 1 < flat.size(); i += 2) {
            found.emplace_back(std::stoll(flat[i].value()), flat[i + 1].value_or(L"<null>"));
        }
        return found;
    }
    std::vector<std::wstring> childNames(jlong handle) {
        std::vector<std::wstring> names;
        for (const auto& child : children(handle)) {
            names.push_back(child.second);
        }
        return names;
    }
    jlong childNamed(jlong parent, const std::wstring& name) {
        for (const auto& child : children(parent)) {
            if (child.second == name) {
                return child.first;
            }
        }
        ADD_FAILURE() << "no child of that name";
        return 0;
    }
    // The message of the exception that the last native left pending, cleared.
    std::wstring thrown() {
        auto exception = host->takeException();
        return exception ? exception->message : L"";
    }

    fakeuia::Node* top = nullptr;
    jlong topHandle = 0;
};

using Names = std::vector<std::wstring>;

}  // namespace

TEST_F(Omission, OnlyOffscreenChildrenAreJudgedAndOnlyWhitespaceBySize) {
    const RECT none = {0, 0, 0, 0};
    // All three are invisible to MSAA; the first is on the screen all the same.
    fakeuia::Node& shown = add(*top, UIA_CustomControlTypeId, L"shown blank", none);
    fakeuia::Node& button = add(*top, UIA_ButtonControlTypeId, L"zero button", none, true);
    fakeuia::Node& blank = add(*top, UIA_CustomControlTypeId, L"offscreen blank", none, true);
    for (fakeuia::Node* node : {&shown, &button, &blank}) {
        auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(*node);
        legacy->role = ROLE_SYSTEM_WHITESPACE;
        legacy->state = STATE_SYSTEM_INVISIBLE;
    }
    struct Row { const wchar_t* omitStates; Names kept; };
    const Row rows[] = {
        {L"", {L"shown blank", L"zero button"}},
        {L"INVISIBLE", {L"shown blank"}},
        {L"FOCUSED,INVIS", {L"shown blank"}},
        {L"SELECTED", {L"shown blank", L"zero button"}},
    };
    for (const Row& row : rows) {
        setPreference(L"deskwright.omit.states", row.omitStates);
        EXPECT_EQ(row.kept, childNames(topHandle)) << "omit.states " << testing::PrintToString(row.omitStates);
    }
}

TEST_F(Omission, ALiveElementWithoutAParentLosesItsHandle) {
    struct Row { const char* what; HRESULT parentRead; };
    const Row rows[] = {{"no parent", S_OK}, {"a parent that can't be read", E_FAIL}};
    for (const Row& row : rows) {
        fakeuia::Node& orphan = add(*top, UIA_ButtonControlTypeId, L"orphan");
        const jlong handle = childNamed(topHandle, L"orphan");
        ASSERT_NE(0, handle) << row.what;
        orphan.fail("GetParentElement", row.parentRead);
        native<jstring>("GetAttribute", handle, host->str(L"name"));
        EXPECT_EQ(L"Control does no longer exist", thrown()) << row.what;
        native<jstring>("GetAttribute", handle, host->str(L"name"));
        EXPECT_EQ(L"Invalid handle value", thrown()) << row.what << ": the control was removed";
        orphan.remove();
    }
    EXPECT_EQ(Names{}, childNames(topHandle));
    EXPECT_EQ(L"", thrown()) << "the parent of the orphans stays usable";
}

TEST_F(Omission, AComboBoxListEndsAtAPopupUnderTheDesktop) {
    struct Row { CONTROLTYPEID type; const wchar_t* name; Names kept; };
    const Row rows[] = {
        {UIA_ComboBoxControlTypeId, L"combo", {L"first"}},
        {UIA_ListControlTypeId, L"list", {L"first", L"popup", L"third"}},
    };
    for (const Row& row : rows) {
        fakeuia::Node& box = add(*top, row.type, row.name);
        add(box, UIA_ListItemControlTypeId, L"first");
        add(box, UIA_ListControlTypeId, L"popup").hangUnderDesktop();
        add(box, UIA_ListItemControlTypeId, L"third");
        EXPECT_EQ(row.kept, childNames(childNamed(topHandle, row.name))) << testing::PrintToString(row.name);
    }
}

TEST_F(Omission, AnElementUnderAnOrphanHasNoTopLevelWindow) {
    // top > pane > core window; the pane may lose its parent.
    fakeuia::Node& pane = add(*top, UIA_PaneControlTypeId, L"pane");
    fakeuia::Node& core = add(pane, UIA_WindowControlTypeId, L"core");
    core.update([](fakeuia::NodeSpec& spec) { spec.className = L"Windows.UI.Core.CoreWindow"; });
    auto topWindow = fakeuia::attach<fakeuia::WindowSource>(*top);
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(core);
    topWindow->interactionState = WindowInteractionState_BlockedByModalWindow;
    coreWindow->interactionState = WindowInteractionState_NotResponding;
    const jlong handle = childNamed(childNamed(topHandle, L"pane"), L"core");
    setPreference(L"deskwright.front.via.focus", L"true");

    // The interaction state is the top-level window's, or else the element's own.
    struct Row {
        const char* what;
        bool orphaned;
        const wchar_t* interactionState;
        int topCloses, coreCloses, topFocusCalls;
    };
    const Row rows[] = {
        {"in the tree", false, L"3", 1, 0, 1},
        {"under an orphan", true, L"4", 1, 1, 1},
    };
    for (const Row& row : rows) {
        if (row.orphaned) {
            pane.fail("GetParentElement", S_OK);
        }
        EXPECT_EQ(row.interactionState,
                  host->text(native<jstring>("GetAttribute", handle, host->str(L"interaction-state"))))
            << row.what;
        EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handle)) << row.what;
        EXPECT_EQ(row.topCloses, topWindow->closeCalls) << row.what;
        EXPECT_EQ(row.coreCloses, coreWindow->closeCalls) << row.what;
        // The window path finds no window handle anywhere up the tree.
        EXPECT_EQ(row.orphaned ? JNI_FALSE : JNI_TRUE, native<jboolean>("BringToFront", handle)) << row.what;
        EXPECT_EQ(row.topFocusCalls, top->setFocusCalls()) << row.what;
        EXPECT_EQ(L"", thrown()) << row.what;
    }
}
