// Check mode: an overlay under the pointer through which the user picks
// elements of the target for checks. Runs on the dispatch thread, whose
// message loop serves the overlay's timers and clicks.
#pragma once

#include "dispatch/Runnable.h"

#include <uiautomation.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolva {

// The overlay's timers: the pointer followed every 25 ms, its rest of
// 200 ms on an element, and the marking or the menu.
constexpr UINT_PTR MOUSE_TIMER_ID = 998;
constexpr UINT_PTR ELEMENT_TIMER_ID = 999;
constexpr UINT_PTR TIMER_ID = 1001;
extern const wchar_t OVERLAY_CLASS[];

// Starts check mode over the target's windows, or ends it. The target is
// named as the back end knows it, for its top-level windows.
class CheckerRegistrator : public Runnable {
public:
    CheckerRegistrator(bool start, int pid, bool viaHwnd, std::wstring classPattern)
        : start_(start), pid_(pid), viaHwnd_(viaHwnd), classPattern_(std::move(classPattern)) {}
    std::int32_t operator()() override;

private:
    bool start_;
    int pid_;
    bool viaHwnd_;
    std::wstring classPattern_;
};

// One started check: its overlay window rides under the pointer.
class UiaChecker {
public:
    UiaChecker(HINSTANCE instance, RECT rectangle, DWORD pid);
    ~UiaChecker();
    UiaChecker(const UiaChecker&) = delete;
    UiaChecker& operator=(const UiaChecker&) = delete;

    static void StartChecking(DWORD pid, const std::vector<RECT>& rectangles);
    // Finds the test tool's own window, whose clicks check mode passes on.
    static void UpdateCueBenchPid();
    // The element under a point of the overlay (coordinates relative to it),
    // looked for with the overlay out of the way; null unless it is the
    // target's. The caller owns the reference.
    static IUIAutomationElement* GetUiaElement(HWND window, int x, int y);
    static LRESULT CALLBACK WndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

    HWND window() const { return window_; }
    DWORD pid() const { return pid_; }

private:
    bool CreateOverlay(HINSTANCE instance, RECT rectangle);

    HINSTANCE instance_;
    HWND window_ = nullptr;
    DWORD pid_;
};

void StopChecking();
UiaChecker* FindChecker(HWND window);

}  // namespace tolva
