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

    // The names of the children that Java is given, in order.
    std::vector<std::wstring> childNames(jlong handle) {
        auto flat = host->strings(
            native<jobjectArray>("GetChildrenWithAttributes", handle, host->stringArray({L"name"})));
        std::vector<std::wstring> names;
        for (size_t i = 1; i < flat.size(); i += 2) names.push_back(flat[i].value_or(L"<null>"));
        return names;
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
    auto offscreen = [](fakeuia::NodeSpec& spec) { spec.isOffscreen = true; };
    fakeuia::Node& button = add(*top, UIA_ButtonControlTypeId, L"zero button", none, offscreen);
    fakeuia::Node& blank = add(*top, UIA_CustomControlTypeId, L"offscreen blank", none, offscreen);
    for (fakeuia::Node* node : {&shown, &button, &blank}) {
        auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(*node);
        legacy->role = ROLE_SYSTEM_WHITESPACE;
        legacy->state = STATE_SYSTEM_INVISIBLE;
    }
    struct Row { const wchar_t* omitStates; Names kept; };
    const Row rows[] = {
        {nullptr, {L"shown blank", L"zero button"}},  // not set: only a blank without size goes
        {L"", {L"shown blank", L"zero button"}},
        {L"INVISIBLE", {L"shown blank"}},
        {L"FOCUSED,INVIS", {L"shown blank"}},  // the start of a state's name is enough
        {L"A,", {L"shown blank"}},             // an empty entry omits every offscreen child
        {L"SELECTED", {L"shown blank", L"zero button"}},
    };
    for (const Row& row : rows) {
        if (row.omitStates) setPreference(L"deskwright.omit.states", row.omitStates);
        EXPECT_EQ(row.kept, childNames(topHandle)) << "omit.states " << testing::PrintToString(row.omitStates);
    }
}

TEST_F(Omission, ALiveElementWithoutAParentLosesItsHandle) {
    struct Row { const char* what; HRESULT parentRead; };
    const Row rows[] = {{"no parent", S_OK}, {"a parent that can't be read", E_FAIL}};
    for (const Row& row : rows) {
        fakeuia::Node& orphan = add(*top, UIA_ButtonControlTypeId, L"orphan");
        const jlong handle = handleOf(orphan);
        orphan.fail("GetParentElement", row.parentRead);
        native<jstring>("GetAttribute", handle, host->str(L"name"));
        EXPECT_EQ("Control does no longer exist", thrown()) << row.what;
        native<jstring>("GetAttribute", handle, host->str(L"name"));
        EXPECT_EQ("Invalid handle value", thrown()) << row.what << ": the control was removed";
        orphan.remove();
    }
    EXPECT_EQ(Names{}, childNames(topHandle));
    EXPECT_EQ("", thrown()) << "the parent of the orphans stays usable";
}

TEST_F(Omission, AComboBoxListEndsAtAPopupUnderTheDesktop) {
    struct Row { CONTROLTYPEID type; Names kept; };
    const Row rows[] = {
        {UIA_ComboBoxControlTypeId, {L"first"}},
        {UIA_ListControlTypeId, {L"first", L"popup", L"third"}},
    };
    for (const Row& row : rows) {
        fakeuia::Node& box = add(*top, row.type, L"box");
        add(box, UIA_ListItemControlTypeId, L"first");
        add(box, UIA_ListControlTypeId, L"popup").reportDesktopAsParent();
        add(box, UIA_ListItemControlTypeId, L"third");
        EXPECT_EQ(row.kept, childNames(handleOf(box))) << "control type " << row.type;
    }
}

TEST_F(Omission, AnElementUnderAnOrphanHasNoTopLevelWindow) {
    // top > pane > core window, and the pane has lost its parent: the core
    // window stands for itself.
    fakeuia::Node& pane = add(*top, UIA_PaneControlTypeId, L"pane");
    fakeuia::Node& core = add(pane, UIA_WindowControlTypeId, L"core");
    core.update([](fakeuia::NodeSpec& spec) { spec.className = L"Windows.UI.Core.CoreWindow"; });
    auto topWindow = fakeuia::attach<fakeuia::WindowSource>(*top);
    auto coreWindow = fakeuia::attach<fakeuia::WindowSource>(core);
    topWindow->interactionState = WindowInteractionState_BlockedByModalWindow;
    coreWindow->interactionState = WindowInteractionState_NotResponding;
    const jlong handle = handleOf(core);
    setPreference(L"deskwright.front.via.focus", L"true");
    pane.fail("GetParentElement", S_OK);

    EXPECT_EQ(L"4", attr(handle, L"interaction-state")) << "the element's own state";
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Close", handle));
    EXPECT_EQ(0, topWindow->closeCalls);
    EXPECT_EQ(1, coreWindow->closeCalls) << "the core window closes itself";
    EXPECT_EQ(JNI_FALSE, native<jboolean>("BringToFront", handle)) << "no window handle anywhere up the tree";
    EXPECT_EQ(0, top->setFocusCalls());
    EXPECT_EQ("", thrown());
}
