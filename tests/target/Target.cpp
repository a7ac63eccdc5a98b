// A small target application for the driver's tests: one top-level window per
// title given on the command line (hidden ones after "--hidden"), a message loop, and an end when all its
// windows are closed or it is killed. It writes its process id and each
// window's handle to standard output, one per line, once they exist.
#include <windows.h>

#include <cstdio>
#include <cwchar>

namespace {

int openWindows = 0;

LRESULT CALLBACK TargetProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_DESTROY && --openWindows == 0) {
        PostQuitMessage(0);
    }
    return DefWindowProcW(hwnd, message, wParam, lParam);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = TargetProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"DeskwrightTarget";
    RegisterClassW(&windowClass);

    std::printf("pid %lu\n", GetCurrentProcessId());
    // "--hidden" first: the windows exist but aren't shown.
    const bool hidden = argc > 1 && std::wcscmp(argv[1], L"--hidden") == 0;
    for (int i = hidden ? 2 : 1; i < argc; ++i) {
        HWND window = CreateWindowExW(0, L"DeskwrightTarget", argv[i], WS_OVERLAPPEDWINDOW | (hidden ? 0 : WS_VISIBLE),
                                      40 * i, 40 * i, 320, 200, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
        if (window) {
            ++openWindows;
            std::printf("window %p\n", static_cast<void*>(window));
        }
    }
    std::fflush(stdout);
    MSG msg;
    while (openWindows > 0 && GetMessageW(&msg, nullptr, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
    return 0;
}
