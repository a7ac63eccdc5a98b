// A serving target process whose real windows the simulated tree names, for
// the suites that cross the process boundary: window messages, system window
// events, and real input sent to the target and heard by the recorder.
#pragma once

#include "DriverTest.h"
#include "InputRecorder.h"
#include "TargetProcess.h"

#include <optional>
#include <string>
#include <vector>

namespace dwtest {

// "a | b | c".
inline std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : " | ") + line;
    return text;
}

// A modifier key as a low-level hook may name it, sideless as windows get it.
inline DWORD sideless(DWORD vk) {
    switch (vk) {
    case VK_LSHIFT: case VK_RSHIFT: return VK_SHIFT;
    case VK_LCONTROL: case VK_RCONTROL: return VK_CONTROL;
    case VK_LMENU: case VK_RMENU: return VK_MENU;
    default: return vk;
    }
}

// A point relative to a window's top-left corner, on the screen.
inline POINT screenOf(HWND window, POINT relative) {
    RECT rect{};
    GetWindowRect(window, &rect);
    return {rect.left + relative.x, rect.top + relative.y};
}

class TargetTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_TRUE(target.ready()) << "the target program did not start";
    }
    // The node of one of the target's windows: its class, bounds, handle,
    // the target's process, and its text as the name unless one is given.
    fakeuia::NodeSpec specOf(HWND window, CONTROLTYPEID type, std::optional<std::wstring> name = std::nullopt) {
        wchar_t text[256] = {};
        GetClassNameW(window, text, 256);
        fakeuia::NodeSpec spec{.controlType = type, .className = text, .processId = static_cast<int>(target.pid()),
                               .nativeWindowHandle = window};
        InternalGetWindowText(window, text, 256);
        spec.name = name ? *name : std::wstring(text);
        GetWindowRect(window, &spec.bounds);
        return spec;
    }
    // Attaches to the target by its process id; returns once Java has onConnect.
    void attachToTarget() {
        ASSERT_EQ(static_cast<jint>(target.pid()), attach(L"-pid " + std::to_wstring(target.pid()), 5000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000)) << "no onConnect";
    }

    TargetProcess target{TargetProcess::Serving{}};
};

// With the target's window "Input target" at (200, 150, 600, 450) and an Edit
// in it at (20, 80) of 280 x 30, and the system's input recorded.
class RealInputTest : public TargetTest {
protected:
    void SetUp() override {
        TargetTest::SetUp();
        ASSERT_TRUE(recorder.ok()) << "the test's own low-level hooks are not in place";
        main = target.makeWindow(L"DeskwrightTarget", L"Input target", {200, 150, 600, 450});
        ASSERT_NE(nullptr, main);
        edit = target.makeWindow(L"Edit", L"", {20, 80, 300, 110}, main);
        ASSERT_NE(nullptr, edit);
    }
    // Waits until the input so far has passed the hooks, then forgets it.
    // (It doesn't ask the target: a right click on its Edit opens a context
    // menu, whose loop leaves the target's requests unanswered.)
    void drain() {
        recorder.settle();
        recorder.clear();
    }

    InputRestorer restorer;  // ends after the recorder: its own input isn't recorded
    InputRecorder recorder;
    HWND main = nullptr, edit = nullptr;
};

}  // namespace dwtest
