// A drop-down hangs under the desktop, as the platform shows it: the driver
// finds it among the target's top-level windows, with the desktop as its
// parent, and no longer among its owner's children.
#include "DriverTest.h"

#include <algorithm>

using dwtest::DriverTest;

namespace {

class Popups : public DriverTest {
protected:
    std::wstring name(jlong handle) {
        jstring value = native<jstring>("GetAttribute", handle, host->str(L"name"));
        return host->isNull(value) ? L"<null>" : host->text(value);
    }
    std::vector<std::wstring> names(const std::vector<jlong>& handles) {
        std::vector<std::wstring> out;
        for (jlong handle : handles) out.push_back(name(handle));
        return out;
    }
    std::vector<jlong> children(jlong handle) { return host->longs(native<jlongArray>("GetChildren", handle)); }
};

}  // namespace

TEST_F(Popups, AnOpenDropDownIsATopLevelWindowOfTheTarget) {
    fakeuia::Node& top = attachToOwnWindow(L"Target");
    fakeuia::Node& combo = top.add({.controlType = UIA_ComboBoxControlTypeId, .name = L"combo"});
    combo.add({.controlType = UIA_EditControlTypeId, .name = L"edit"});
    fakeuia::Node& drop = combo.add({.controlType = UIA_ListControlTypeId, .name = L"drop", .className = L"ComboLBox"});
    drop.add({.controlType = UIA_ListItemControlTypeId, .name = L"first"});
    drop.hangUnderDesktop();

    const std::vector<jlong> tops = host->longs(native<jlongArray>("GetToplevels"));
    ASSERT_EQ((std::vector<std::wstring>{L"drop", L"Target"}), names(tops));
    const jlong desktop = native<jlong>("GetParent", tops[1]);
    EXPECT_NE(0, desktop);
    EXPECT_EQ(desktop, native<jlong>("GetParent", tops[0]));

    const std::vector<jlong> inTarget = children(tops[1]);
    ASSERT_EQ(1u, inTarget.size());
    EXPECT_EQ((std::vector<std::wstring>{L"edit"}), names(children(inTarget[0]))) << "the combo box keeps the rest";
    const std::vector<jlong> items = children(tops[0]);
    ASSERT_EQ((std::vector<std::wstring>{L"first"}), names(items));
    EXPECT_EQ(tops[0], native<jlong>("GetParent", items[0]));
    EXPECT_EQ("", dwtest::pendingException(*host));
}
