// The text keys that give elements their handles, character for character,
// as the driver logs them when it makes a control.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"
#include "SmallStack.h"

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Keys : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_PaneControlTypeId;
        spec.name = L"Panel";
        spec.processId = static_cast<int>(GetCurrentProcessId());
        spec.bounds = {100, 200, 600, 700};
        spec.runtimeId = std::vector<int>{0x2a, 0x1f};
        pane = &platform->desktop().add(spec);
        ASSERT_NE(0, attach(L"-pid " + std::to_wstring(GetCurrentProcessId()), 1000));
    }
    fakeuia::Node& child(CONTROLTYPEID type, const std::wstring& name, std::vector<int> runtimeId, RECT bounds) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        spec.name = name;
        spec.runtimeId = runtimeId;
        spec.bounds = bounds;
        return pane->add(spec);
    }
    fakeuia::Node& row(const std::wstring& name, std::vector<int> runtimeId, RECT bounds) {
        fakeuia::Node& node = child(UIA_CustomControlTypeId, name, runtimeId, bounds);
        fakeuia::attach<fakeuia::LegacyIAccessibleSource>(node)->role = ROLE_SYSTEM_ROW;
        return node;
    }
    void setPreference(const wchar_t* key, const wchar_t* value) {
        native<void>("SetPreference", host->str(key), host->str(value));
    }
    // Reads the pane's children, so that their controls are made.
    void readChildren() {
        auto tops = host->longs(native<jlongArray>("GetToplevels"));
        ASSERT_EQ(1u, tops.size());
        native<jlongArray>("GetChildren", tops[0]);
        ASSERT_FALSE(host->takeException().has_value());
    }
    bool made(const std::string& key) { return LogFile::contains(", rid: " + key, 5); }

    fakeuia::Node* pane = nullptr;
    const std::vector<int> rid{42, 132456, 4, -1};
    const std::vector<int> none{};
};

}  // namespace

TEST_F(Keys, RuntimeIdsMakeTheKeyWithoutBoundsOrParent) {
    setPreference(L"deskwright.rid.append.loc", L"true");
    child(UIA_ButtonControlTypeId, L"OK", rid, {110, 220, 180, 250});
    readChildren();
    EXPECT_TRUE(made("Button_2a.20568.4.ffffffff")) << LogFile::dump();
}

TEST_F(Keys, ChildIdsAndRowNamesAreAppendedWhenAskedFor) {
    setPreference(L"deskwright.rid.append.childid", L"true");
    setPreference(L"deskwright.rid.append.row.name", L"true");
    fakeuia::Node& item = child(UIA_ListItemControlTypeId, L"Item", rid, {110, 220, 180, 250});
    fakeuia::attach<fakeuia::LegacyIAccessibleSource>(item)->childId = 5;
    row(L"Row 7", std::vector<int>{42, 132456, 4, -2}, {110, 260, 180, 280});
    readChildren();
    EXPECT_TRUE(made("ListItem_2a.20568.4.ffffffff_5"));
    EXPECT_TRUE(made("ROW_2a.20568.4.fffffffe_Row 7"));
}

TEST_F(Keys, ElementsWithoutRuntimeIdsNestUnderTheirParentsKey) {
    child(UIA_TextControlTypeId, L"Total", none, {110, 260, 180, 280});
    child(UIA_ButtonControlTypeId, L"OK", none, {110, 220, 180, 250});
    child(UIA_TextControlTypeId, L"", none, {0, 0, 0, 0});
    readChildren();
    EXPECT_TRUE(made("Text_Pane_2a.1f_Total"));
    EXPECT_TRUE(made("Button_Pane_2a.1f_OK_10.20.170.230")) << "the odd r and b stay as computed";
    EXPECT_TRUE(made("Text_Pane_2a.1f_"));
}

TEST_F(Keys, RowsWithoutRuntimeIdsUseNamesEndingInDigits) {
    row(L"Total", none, {110, 220, 180, 250});
    row(L"Row 12", none, {110, 260, 180, 280});
    readChildren();
    EXPECT_TRUE(made("ROW_Pane_2a.1f__10.20.170.230")) << LogFile::dump();
    EXPECT_TRUE(made("ROW_Pane_2a.1f_Row 12"));
}

TEST_F(Keys, RowNamesOfAnyLengthAreTestedOnAJavaThreadsStack) {
    const std::wstring longName = std::wstring(1000000, L'r') + L"7";
    row(longName, none, {110, 220, 180, 250});
    row(std::wstring(1000000, L'r'), none, {110, 260, 180, 280});
    row(L"Row\n7", none, {110, 300, 180, 320});  // '.' stops at a line break
    row(L"Row 7\n", none, {110, 340, 180, 360});
    bool read = false;
    ASSERT_TRUE(dwtest::runOnStack(dwtest::DISPATCH_STACK_BYTES, [&] {
        JNIEnv* threadEnv = host->attachCurrentThread();
        auto tops = host->longs(dll->call<jlongArray>("GetToplevels", threadEnv, self));
        if (tops.size() == 1) {
            dll->call<jlongArray>("GetChildren", threadEnv, self, tops[0]);
            read = !host->takeException().has_value();
        }
        host->detachCurrentThread();
    }));
    ASSERT_TRUE(read);
    EXPECT_TRUE(made("ROW_Pane_2a.1f_" + std::string(1000000, 'r') + "7")) << "a name ending in a digit";
    EXPECT_TRUE(made("ROW_Pane_2a.1f__10.60.170.220")) << "a name ending in a letter";
    EXPECT_TRUE(made("ROW_Pane_2a.1f__10.100.170.220")) << "a line break before the digit";
    EXPECT_TRUE(made("ROW_Pane_2a.1f__10.140.170.220")) << "a line break after the digit";
}

TEST_F(Keys, TwoWidgetsWithOneKeyShareOneControl) {
    child(UIA_TextControlTypeId, L"", none, {0, 0, 0, 0});
    child(UIA_TextControlTypeId, L"", none, {0, 0, 0, 0});
    auto tops = host->longs(native<jlongArray>("GetToplevels"));
    auto children = host->longs(native<jlongArray>("GetChildren", tops[0]));
    ASSERT_EQ(2u, children.size());
    EXPECT_EQ(children[0], children[1]) << "the later read takes the control over";
    // One control, one element held: the automation object, two controls.
    EXPECT_EQ(3, platform->outstandingReferences()) << platform->outstandingBreakdown();
}
