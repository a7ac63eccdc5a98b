// Elements get stable handles through the control table, as Java sees it:
// child lists, parents, top-level windows, eviction of dead elements.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

const char* const INVALID_HANDLE = "net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException";

class ControlTable : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_WindowControlTypeId;
        spec.name = L"Target";
        spec.className = L"TargetWnd";
        spec.processId = static_cast<int>(GetCurrentProcessId());
        spec.bounds = {100, 200, 500, 600};
        spec.runtimeId = std::vector<int>{0x2a, 0x1f};
        top = &platform->desktop().add(spec);

        fakeuia::NodeSpec button;
        button.controlType = UIA_ButtonControlTypeId;
        button.name = L"OK";
        button.runtimeId = std::vector<int>{42, 132456, 4, -1};
        button.bounds = {110, 220, 180, 250};
        ok = &top->add(button);

        fakeuia::NodeSpec text;
        text.controlType = UIA_TextControlTypeId;
        text.name = L"Total";
        text.runtimeId = std::vector<int>{};
        text.bounds = {110, 260, 180, 280};
        total = &top->add(text);

        ASSERT_NE(0, attach(L"-pid " + std::to_wstring(GetCurrentProcessId()), 1000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
    }
    std::vector<jlong> toplevels() { return host->longs(native<jlongArray>("GetToplevels")); }
    std::vector<jlong> children(jlong handle) { return host->longs(native<jlongArray>("GetChildren", handle)); }
    std::string thrown() {
        auto exception = host->takeException();
        if (!exception) return "";
        EXPECT_EQ(INVALID_HANDLE, exception->className);
        return std::string(exception->message.begin(), exception->message.end());
    }

    fakeuia::Node* top = nullptr;
    fakeuia::Node* ok = nullptr;
    fakeuia::Node* total = nullptr;
};

}  // namespace

TEST_F(ControlTable, KeysFollowRuntimeIdsAndNamesAndHandlesStay) {
    auto tops = toplevels();
    ASSERT_EQ(1u, tops.size());
    auto first = children(tops[0]);
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ("", thrown());
    EXPECT_TRUE(LogFile::contains("rid: Button_2a.20568.4.ffffffff", 5)) << "the button's key";
    EXPECT_TRUE(LogFile::contains("rid: Text_Window_2a.1f_Total", 5)) << "an element without id, under its parent";

    auto second = children(tops[0]);
    EXPECT_EQ(first, second) << "a second read gives the same handles";
    EXPECT_EQ(tops, toplevels());
    EXPECT_EQ(tops[0], native<jlong>("GetParent", first[0]));
    // Each control holds one element object: the automation object, and
    // three elements for three controls.
    EXPECT_EQ(4, platform->outstandingReferences()) << platform->outstandingBreakdown();
}

TEST_F(ControlTable, ReleaseControlsInvalidatesEveryHandle) {
    auto tops = toplevels();
    auto kids = children(tops[0]);
    native<void>("ReleaseControls");
    children(tops[0]);
    EXPECT_EQ("Invalid handle value", thrown());
    native<jlong>("GetParent", kids[1]);
    EXPECT_EQ("Invalid handle value", thrown());
    EXPECT_EQ(1, platform->outstandingReferences()) << "only the automation object is held";
}

TEST_F(ControlTable, ADeadElementIsEvictedOnceAndThenUnknown) {
    auto tops = toplevels();
    auto kids = children(tops[0]);
    ok->remove();
    native<jlong>("GetParent", kids[0]);
    EXPECT_EQ("Control does no longer exist", thrown());
    native<jlong>("GetParent", kids[0]);
    EXPECT_EQ("Invalid handle value", thrown()) << "the table no longer knows it";
}

TEST_F(ControlTable, ATypeChangeCountsAsGone) {
    auto tops = toplevels();
    auto kids = children(tops[0]);
    total->update([](fakeuia::NodeSpec& spec) { spec.controlType = UIA_EditControlTypeId; });
    children(kids[1]);
    EXPECT_EQ("Control does no longer exist", thrown());
    EXPECT_TRUE(LogFile::contains("Control seems not to exist any longer", 3));
    children(kids[1]);
    EXPECT_EQ("Invalid handle value", thrown());
}

TEST_F(ControlTable, TheDesktopNeedsNoParent) {
    auto tops = toplevels();
    const jlong desktop = native<jlong>("GetParent", tops[0]);
    ASSERT_NE(0, desktop);
    EXPECT_EQ(jlong{0}, native<jlong>("GetParent", desktop));
    EXPECT_EQ("", thrown());
    EXPECT_EQ(1u, children(desktop).size());
}

TEST_F(ControlTable, OffscreenChildrenAreOmittedByStateAndSize) {
    fakeuia::NodeSpec blank;
    blank.controlType = UIA_CustomControlTypeId;
    blank.isOffscreen = true;
    blank.runtimeId = std::vector<int>{0x2a, 0x99};
    fakeuia::Node& whitespace = top->add(blank);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(whitespace);
    legacy->role = ROLE_SYSTEM_WHITESPACE;
    legacy->state = STATE_SYSTEM_INVISIBLE;

    blank.runtimeId = std::vector<int>{0x2a, 0x9a};
    blank.bounds = {0, 0, 10, 10};
    fakeuia::Node& selectable = top->add(blank);
    fakeuia::attach<fakeuia::LegacyIAccessibleSource>(selectable)->state = STATE_SYSTEM_SELECTABLE;

    auto tops = toplevels();
    EXPECT_EQ(3u, children(tops[0]).size()) << "an invisible whitespace goes, others stay";
    EXPECT_TRUE(LogFile::contains("Omit invisible", 9));

    native<void>("SetPreference", host->str(L"deskwright.omit.states"), host->str(L"SELECT"));
    EXPECT_EQ(2u, children(tops[0]).size()) << "SELECT matches SELECTABLE";
    native<void>("SetPreference", host->str(L"deskwright.omit.states"), host->str(L"A,"));
    EXPECT_EQ(2u, children(tops[0]).size()) << "an empty entry omits every offscreen child";
    native<void>("SetPreference", host->str(L"deskwright.omit.states"), host->str(L"FOCUSED"));
    EXPECT_EQ(3u, children(tops[0]).size());
}
