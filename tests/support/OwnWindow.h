// Real windows of the test process, for tests whose driver reads or drives a
// window of its own.
#pragma once

#include <windows.h>

namespace dwtest {

// A top-level window of the calling thread, destroyed with the object.
struct OwnWindow {
    OwnWindow(const wchar_t* className, const wchar_t* title, DWORD style = WS_OVERLAPPEDWINDOW,
              RECT r = {0, 0, 200, 100})
        : hwnd(CreateWindowExW(0, className, title, style, r.left, r.top, r.right - r.left, r.bottom - r.top,
                               nullptr, nullptr, GetModuleHandleW(nullptr), nullptr)) {}
    ~OwnWindow() { DestroyWindow(hwnd); }
    OwnWindow(const OwnWindow&) = delete;
    OwnWindow& operator=(const OwnWindow&) = delete;
    HWND hwnd;
};

// Registers a window class of this module with that procedure.
inline void registerClass(const wchar_t* name, WNDPROC procedure) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = procedure;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = name;
    RegisterClassW(&windowClass);
}

// The foreground window once the focus changes that the display server
// still delivers have come in: the same for 300 ms while the calling thread
// takes its messages (at most 3 s). Under X a window made foreground hears of
// it late, and a late focus event can take the foreground back from a window
// made foreground after it.
inline HWND settledForeground() {
    HWND last = GetForegroundWindow();
    for (int same = 0, step = 0; same < 6 && step < 60; ++step) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
        Sleep(50);
        const HWND now = GetForegroundWindow();
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

}  // namespace dwtest
