// A small target application for the driver's tests: one top-level window per
// title given on the command line (hidden ones after "--hidden"), a message loop, and an end when all its
// windows are closed or it is killed. It writes its process id and each
// window's handle to standard output, one per line, once they exist.
//
// With "--serve" it makes windows on request instead: each line on standard
// input, "make <parent> <x> <y> <width> <height> <class> <text>" (parent a
// window handle in hex, 0 for a top-level window; text in UTF-8, to the end of
// the line), makes a visible window of that class and answers "made <handle>"
// (0 when it failed). It ends when its input closes or it is killed.
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <sstream>
#include <string>

namespace {

int openWindows = 0;
const UINT WM_REQUEST = WM_APP + 1;  // a thread message: LPARAM is a new std::string line

LRESULT CALLBACK TargetProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_DESTROY && --openWindows == 0) {
        PostQuitMessage(0);
    }
    return DefWindowProcW(hwnd, message, wParam, lParam);
}

std::wstring wide(const std::string& text) {
    if (text.empty()) return std::wstring();
    std::wstring out(text.size(), L'\0');
    int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0],
                                static_cast<int>(out.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

// Standard input, line by line, to the main thread; a quit at its end.
DWORD WINAPI ReadRequests(void* mainThread) {
    const DWORD thread = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(mainThread));
    char line[4096];
    while (std::fgets(line, sizeof line, stdin)) {
        PostThreadMessageW(thread, WM_REQUEST, 0, reinterpret_cast<LPARAM>(new std::string(line)));
    }
    PostThreadMessageW(thread, WM_QUIT, 0, 0);
    return 0;
}

void Serve(const std::string& request) {
    std::istringstream in(request);
    std::string verb;
    void* parent = nullptr;
    int x = 0, y = 0, width = 0, height = 0;
    std::string className;
    in >> verb >> parent >> x >> y >> width >> height >> className;
    std::string text;
    std::getline(in >> std::ws, text);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    HWND made = nullptr;
    if (verb == "make" && in) {
        const DWORD style = WS_VISIBLE | (parent ? WS_CHILD : WS_OVERLAPPEDWINDOW);
        made = CreateWindowExW(0, wide(className).c_str(), wide(text).c_str(), style, x, y, width, height,
                               static_cast<HWND>(parent), nullptr, GetModuleHandleW(nullptr), nullptr);
    }
    std::printf("made %p\n", static_cast<void*>(made));
    std::fflush(stdout);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = TargetProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"DeskwrightTarget";
    RegisterClassW(&windowClass);

    std::printf("pid %lu\n", GetCurrentProcessId());
    MSG msg;
    if (argc > 1 && std::wcscmp(argv[1], L"--serve") == 0) {
        PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // the queue exists before requests come
        void* self = reinterpret_cast<void*>(static_cast<std::uintptr_t>(GetCurrentThreadId()));
        CloseHandle(CreateThread(nullptr, 0, ReadRequests, self, 0, nullptr));
        std::printf("ready\n");
        std::fflush(stdout);
        while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
            if (!msg.hwnd && msg.message == WM_REQUEST) {
                std::string* request = reinterpret_cast<std::string*>(msg.lParam);
                Serve(*request);
                delete request;
                continue;
            }
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
        return 0;
    }
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
    while (openWindows > 0 && GetMessageW(&msg, nullptr, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
    return 0;
}
