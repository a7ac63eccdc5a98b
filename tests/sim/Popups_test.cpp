// A drop-down hangs under the desktop, as the platform shows it: the driver
// finds it among the target's top-level windows, with the desktop as its
// parent, and no longer among its owner's children.
#include "DriverTest.h"

#include <algorithm>

using Popups = dwtest::DriverTest;
using Names = std::vector<std::wstring>;

TEST_F(Popups, AnOpenDropDownIsATopLevelWindowOfTheTarget) {
    fakeuia::Node& top = attachToOwnWindow(L"Target");
    fakeuia::Node& combo = top.add({.controlType = UIA_ComboBoxControlTypeId, .name = L"combo"});
    combo.add({.controlType = UIA_EditControlTypeId, .name = L"edit"});
    fakeuia::Node& drop = combo.add({.controlType = UIA_ListControlTypeId, .name = L"drop", .className = L"ComboLBox"});
    drop.add({.controlType = UIA_ListItemControlTypeId, .name = L"first"});
    drop.hangUnderDesktop();

    const std::vector<jlong> tops = toplevels();
    ASSERT_EQ((Names{L"drop", L"Target"}), names(tops));
    const jlong desktop = native<jlong>("GetParent", tops[1]);
    EXPECT_NE(0, desktop);
    EXPECT_EQ(desktop, native<jlong>("GetParent", tops[0]));

    const std::vector<jlong> inTarget = children(tops[1]);
    ASSERT_EQ(1u, inTarget.size());
    EXPECT_EQ((Names{L"edit"}), names(children(inTarget[0]))) << "the combo box keeps the rest";
    const std::vector<jlong> items = children(tops[0]);
    ASSERT_EQ((Names{L"first"}), names(items));
    EXPECT_EQ(tops[0], native<jlong>("GetParent", items[0]));
    EXPECT_EQ("", dwtest::pendingException(*host));
}
