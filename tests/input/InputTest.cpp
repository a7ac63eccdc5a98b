#include "InputTest.h"

namespace dwtest {

namespace {

fakeuia::NodeSpec specOf(CONTROLTYPEID type, const std::wstring& name, RECT bounds) {
    fakeuia::NodeSpec spec;
    spec.controlType = type;
    spec.name = name;
    spec.bounds = bounds;
    return spec;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace

void RecordedInput::SetUp() {
    DriverTest::SetUp();
    if (HasFatalFailure()) {
        return;
    }
    calls = std::make_unique<PlatformCalls>(dll->module());
    ASSERT_EQ("", joined(calls->missing())) << "functions that the driver doesn't import by name";
    // The scan codes of a US keyboard for the keys of the tests.
    calls->scanCodes = {{VK_SHIFT, 0x2a}, {VK_CONTROL, 0x1d}, {VK_MENU, 0x38}, {'A', 0x1e},
                        {'Q', 0x10},      {VK_F4, 0x3e},      {VK_RETURN, 0x1c}};
}

void RecordedInput::TearDown() {
    calls.reset();
    DriverTest::TearDown();
}

void RecordedInput::erasePreference(const std::wstring& key) {
    native<void>("SetPreference", host->str(key), static_cast<jstring>(nullptr));
}

void InputOnElements::SetUp() {
    RecordedInput::SetUp();
    if (HasFatalFailure()) {
        return;
    }
    const RECT bounds = {100, 200, 300, 240};
    top = &attachToOwnWindow(L"Target");
    buttonNode = &top->add(specOf(UIA_ButtonControlTypeId, L"OK", bounds));
    fakeuia::Node& bar = top->add(specOf(UIA_MenuBarControlTypeId, L"bar", {10, 10, 410, 30}));
    fakeuia::Node& item = bar.add(specOf(UIA_MenuItemControlTypeId, L"File", bounds));
    fakeuia::Node& noBounds = top->add(specOf(UIA_TextControlTypeId, L"nowhere", {0, 0, 0, 0}));
    fakeuia::Node& unknown = top->add(specOf(UIA_TextControlTypeId, L"unknown", bounds));
    button = handleOf(*buttonNode);
    menuItem = handleOf(item);
    unbounded = handleOf(noBounds);
    unreadable = handleOf(unknown);
    unknown.fail("get_CurrentBoundingRectangle", E_FAIL);
    for (jlong handle : {button, menuItem, unbounded, unreadable}) {
        ASSERT_NE(0, handle);
    }
}

void InputOnElements::TearDown() {
    EXPECT_EQ("", thrown());
    RecordedInput::TearDown();
}

}  // namespace dwtest
