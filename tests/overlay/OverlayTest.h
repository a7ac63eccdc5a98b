// What the tests of the driver's own windows share: waiting while this
// thread's windows paint, finding the driver's windows of this process (other
// test processes share the display), and reading what a window painted.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace dwtest {

// Lets this thread's own windows paint while the driver works on its threads.
inline void pumpFor(int ms) {
    const DWORD end = GetTickCount() + static_cast<DWORD>(ms);
    do {
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
        Sleep(10);
    } while (static_cast<int>(end - GetTickCount()) > 0);
}

// The top-level windows of a class that belong to this process.
inline std::vector<HWND> ownWindowsOf(const wchar_t* className) {
    std::vector<HWND> found;
    for (HWND w = FindWindowExW(nullptr, nullptr, className, nullptr); w;
         w = FindWindowExW(nullptr, w, className, nullptr)) {
        DWORD pid = 0;
        GetWindowThreadProcessId(w, &pid);
        if (pid == GetCurrentProcessId()) found.push_back(w);
    }
    return found;
}

inline HWND ownWindowOf(const wchar_t* className) {
    const std::vector<HWND> found = ownWindowsOf(className);
    return found.empty() ? nullptr : found.front();
}

inline std::string shown(const RECT& r) {
    return "[" + std::to_string(r.left) + "," + std::to_string(r.top) + "," + std::to_string(r.right) + "," +
           std::to_string(r.bottom) + "]";
}

// What a window painted at a point of its own. (Under Wine on Xvfb a window
// with a hollow region, as the highlight's frame, shows nothing on the screen.)
inline COLORREF paintedPixel(HWND window, int x, int y) {
    const HDC dc = GetDC(window);
    const COLORREF pixel = GetPixel(dc, x, y);
    ReleaseDC(window, dc);
    return pixel;
}

}  // namespace dwtest
