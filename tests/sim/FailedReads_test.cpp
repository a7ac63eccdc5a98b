// Reads that fail on the platform leave their outputs undefined (the
// simulation poisons them): every answer the driver gives after a failed read
// comes from its own start value, never from the output of the failed call.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <optional>

using dwtest::DriverTest;
using dwtest::pendingException;

namespace {

constexpr HRESULT kFailed = static_cast<HRESULT>(0x80004005L);  // E_FAIL

class FailedReads : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        top = &attachToOwnWindow(L"Target");
    }
    fakeuia::Node& add(CONTROLTYPEID type, const std::wstring& name) {
        return top->add({.controlType = type, .name = name, .bounds = {20, 20, 120, 40},
                         .nativeWindowHandle = fakeuia::hwnd(0x4242)});
    }

    fakeuia::Node* top = nullptr;
};

}  // namespace

TEST_F(FailedReads, AFailedWindowHandleReadGivesNoHandle) {
    fakeuia::Node& node = add(UIA_ButtonControlTypeId, L"OK");
    const jlong handle = handleOf(node);
    ASSERT_EQ(0x4242, native<jlong>("GetNativeHandle", handle)) << "the handle before the failure";

    node.fail("get_CurrentNativeWindowHandle", kFailed);
    EXPECT_EQ(0, native<jlong>("GetNativeHandle", handle));
    EXPECT_EQ("", pendingException(*host));
}

TEST_F(FailedReads, PatternReadsAnswerTheirDefaults) {
    fakeuia::Node& grid = add(UIA_DataGridControlTypeId, L"grid");
    fakeuia::Node& cell = grid.add({.controlType = UIA_DataItemControlTypeId, .name = L"cell"});
    auto gridSource = fakeuia::attach<fakeuia::GridSource>(grid, std::vector<std::vector<fakeuia::Node*>>{{&cell}});
    auto itemSource = fakeuia::attach<fakeuia::GridItemSource>(cell, 0, 0, &grid);
    fakeuia::Node& tree = add(UIA_TreeItemControlTypeId, L"tree");
    auto treeSource = fakeuia::attach<fakeuia::ExpandCollapseSource>(tree, ExpandCollapseState_Expanded);
    const jlong gridHandle = handleOf(grid);
    const jlong cellHandle = handleOf(cell);
    const jlong treeHandle = handleOf(tree);
    ASSERT_EQ(L"1,1", attr(gridHandle, L"colrowcount"));
    ASSERT_EQ(L"0,0", attr(cellHandle, L"colrow"));
    ASSERT_EQ(L"1", attr(treeHandle, L"expanded"));

    struct Row {
        const char* what;
        std::shared_ptr<fakeuia::PatternSourceBase> source;
        const char* method;
        jlong handle;
        const wchar_t* attribute;
        const wchar_t* expected;
    } rows[] = {
        {"rows", gridSource, "get_CurrentRowCount", gridHandle, L"colrowcount", L"1,-1"},
        {"columns", gridSource, "get_CurrentColumnCount", gridHandle, L"colrowcount", L"-1,1"},
        {"row", itemSource, "get_CurrentRow", cellHandle, L"colrow", L"0,-1"},
        {"column", itemSource, "get_CurrentColumn", cellHandle, L"colrow", L"-1,0"},
        {"expand state", treeSource, "get_CurrentExpandCollapseState", treeHandle, L"expanded", L"-1"},
    };
    for (const Row& row : rows) {
        row.source->fail(row.method, kFailed);
        EXPECT_EQ(row.expected, attr(row.handle, row.attribute)) << row.what;
        row.source->clearFailures();
    }

    // A state that can't be read counts as collapsed: a collapse calls nothing
    // and answers false, an expand expands.
    treeSource->fail("get_CurrentExpandCollapseState", kFailed);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Expand", treeHandle, JNI_FALSE));
    EXPECT_EQ(0, treeSource->collapseCalls);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("Expand", treeHandle, JNI_TRUE));
    EXPECT_EQ(1, treeSource->expandCalls);
    EXPECT_EQ("", pendingException(*host));
}
