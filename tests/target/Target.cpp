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
//
// A serving target also tells what its windows received, as a user's
// application sees it: mouse buttons and moves (client point and key state),
// key and character messages, the clicks of its buttons. "log" answers the
// lines gathered since the last "log", each "<window> <what>", then "end";
// "text <window>" answers "text <the window's text>".
//
// Requests on its windows (each answers "done 1", or "done 0" when the call
// failed): "destroy <window>", "show <window>", "hide <window>",
// "foreground <window>"; "notify <event> <window> <object> <child>" raises a
// system window event of the target as an application does for the objects
// it draws itself (NotifyWinEvent; event, object and child in decimal);
// "menu <window>" opens a popup menu of the window and "dialog <window>" a
// modal dialog owned by it, each closed again after 200 ms: the answer comes
// when it has closed. "stall <window> <ms>" raises a create of the window's
// first client object and then takes no message for that long. "make" of a class name that no one registered
// registers it first, with the target's own window procedure.
#include <windows.h>
#include <windowsx.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <sstream>
#include <string>
#include <vector>

namespace {

int openWindows = 0;
const UINT WM_REQUEST = WM_APP + 1;  // a thread message: LPARAM is a new std::string line
const wchar_t* const ORIGINAL_PROC = L"DeskwrightTargetProc";  // the window property of a subclassed window

// What the windows received since the last "log"; only the main thread, which
// owns every window, touches it.
std::vector<std::string> received;
bool serving = false;

const char* mouseMessageName(UINT message) {
    switch (message) {
    case WM_MOUSEMOVE: return "WM_MOUSEMOVE";
    case WM_LBUTTONDOWN: return "WM_LBUTTONDOWN";
    case WM_LBUTTONUP: return "WM_LBUTTONUP";
    case WM_LBUTTONDBLCLK: return "WM_LBUTTONDBLCLK";
    case WM_RBUTTONDOWN: return "WM_RBUTTONDOWN";
    case WM_RBUTTONUP: return "WM_RBUTTONUP";
    case WM_RBUTTONDBLCLK: return "WM_RBUTTONDBLCLK";
    case WM_MBUTTONDOWN: return "WM_MBUTTONDOWN";
    case WM_MBUTTONUP: return "WM_MBUTTONUP";
    case WM_MBUTTONDBLCLK: return "WM_MBUTTONDBLCLK";
    default: return nullptr;
    }
}

const char* keyMessageName(UINT message) {
    switch (message) {
    case WM_KEYDOWN: return "WM_KEYDOWN";
    case WM_KEYUP: return "WM_KEYUP";
    case WM_SYSKEYDOWN: return "WM_SYSKEYDOWN";
    case WM_SYSKEYUP: return "WM_SYSKEYUP";
    default: return nullptr;
    }
}

std::string utf8(const wchar_t* text, int length) {
    if (length <= 0) return std::string();
    const int n = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0) WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], n, nullptr, nullptr);
    return out;
}

// "WM_LBUTTONDOWN 30,15 MK_LBUTTON|MK_SHIFT", "WM_KEYDOWN 0x25 ext",
// "WM_CHAR a", "BN_CLICKED" (on the button's line); nothing for the rest.
std::string describe(UINT message, WPARAM wParam, LPARAM lParam) {
    char line[128] = {};
    if (const char* name = mouseMessageName(message)) {
        std::string keys;
        const struct { WPARAM bit; const char* name; } flags[] = {{MK_LBUTTON, "MK_LBUTTON"}, {MK_RBUTTON, "MK_RBUTTON"},
            {MK_MBUTTON, "MK_MBUTTON"}, {MK_SHIFT, "MK_SHIFT"}, {MK_CONTROL, "MK_CONTROL"}};
        for (const auto& flag : flags) {
            if (wParam & flag.bit) keys += (keys.empty() ? " " : "|") + std::string(flag.name);
        }
        std::snprintf(line, sizeof line, "%s %d,%d%s", name, GET_X_LPARAM(lParam), GET_Y_LPARAM(lParam), keys.c_str());
    } else if (const char* name = keyMessageName(message)) {
        std::snprintf(line, sizeof line, "%s 0x%02X%s", name, static_cast<unsigned>(wParam),
                      (lParam & (1 << 24)) ? " ext" : "");
    } else if (message == WM_CHAR || message == WM_SYSCHAR) {
        const wchar_t c = static_cast<wchar_t>(wParam);
        char code[8] = {};
        std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(c));
        const std::string shown = c > 0x20 && c != 0x7F ? utf8(&c, 1) : code;
        std::snprintf(line, sizeof line, "%s %s", message == WM_CHAR ? "WM_CHAR" : "WM_SYSCHAR", shown.c_str());
    }
    return line;
}

void note(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (!serving) return;
    std::string what = describe(message, wParam, lParam);
    if (message == WM_COMMAND && HIWORD(wParam) == BN_CLICKED && lParam) {
        hwnd = reinterpret_cast<HWND>(lParam);
        what = "BN_CLICKED";
    }
    if (what.empty()) return;
    char window[32] = {};
    std::snprintf(window, sizeof window, "%p ", static_cast<void*>(hwnd));
    received.push_back(window + what);
}

LRESULT CALLBACK TargetProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    note(hwnd, message, wParam, lParam);
    if (message == WM_DESTROY && --openWindows == 0) {
        PostQuitMessage(0);
    }
    return DefWindowProcW(hwnd, message, wParam, lParam);
}

// The procedure of a window of a system class (Button, Edit, ...): notes what
// arrives, then hands it on.
LRESULT CALLBACK ObservedProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    note(hwnd, message, wParam, lParam);
    const WNDPROC original = reinterpret_cast<WNDPROC>(GetPropW(hwnd, ORIGINAL_PROC));
    if (message == WM_NCDESTROY) {
        RemovePropW(hwnd, ORIGINAL_PROC);
        SetWindowLongPtrW(hwnd, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(original));
    }
    return original ? CallWindowProcW(original, hwnd, message, wParam, lParam)
                    : DefWindowProcW(hwnd, message, wParam, lParam);
}

void observe(HWND window) {
    if (reinterpret_cast<WNDPROC>(GetWindowLongPtrW(window, GWLP_WNDPROC)) == TargetProc) return;
    SetPropW(window, ORIGINAL_PROC, reinterpret_cast<HANDLE>(GetWindowLongPtrW(window, GWLP_WNDPROC)));
    SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(ObservedProc));
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

void Report() {
    for (const std::string& line : received) std::printf("%s\n", line.c_str());
    received.clear();
    std::printf("end\n");
    std::fflush(stdout);
}

void ReportText(std::istringstream& in) {
    void* window = nullptr;
    in >> window;
    wchar_t text[4096] = {};
    const int length = in ? GetWindowTextW(static_cast<HWND>(window), text, 4096) : 0;
    std::printf("text %s\n", utf8(text, length).c_str());
    std::fflush(stdout);
}

void CALLBACK CloseMenu(HWND, UINT, UINT_PTR timer, DWORD) {
    KillTimer(nullptr, timer);
    EndMenu();
}

bool OpenMenu(HWND window) {
    HMENU menu = CreatePopupMenu();
    AppendMenuW(menu, MF_STRING, 1, L"Item");
    RECT bounds = {};
    GetWindowRect(window, &bounds);
    SetTimer(nullptr, 0, 200, CloseMenu);
    const BOOL opened = TrackPopupMenu(menu, TPM_RETURNCMD, bounds.left + 10, bounds.top + 10, 0, window, nullptr);
    DestroyMenu(menu);
    return opened || GetLastError() == 0;  // no item chosen is no failure
}

INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM, LPARAM) {
    if (message == WM_INITDIALOG) {
        SetTimer(dialog, 1, 200, nullptr);
        return TRUE;
    }
    if (message == WM_TIMER) {
        EndDialog(dialog, 1);
        return TRUE;
    }
    return FALSE;
}

bool OpenDialog(HWND owner) {
    struct {
        DLGTEMPLATE dialog;
        WORD menu, windowClass, title;
    } layout = {};
    layout.dialog.style = WS_POPUP | WS_CAPTION | WS_VISIBLE | DS_MODALFRAME;
    layout.dialog.cx = 120;
    layout.dialog.cy = 60;
    return DialogBoxIndirectParamW(GetModuleHandleW(nullptr), &layout.dialog, owner, DialogProc, 0) == 1;
}

// The requests on one window; false for an unknown verb.
bool ServeWindow(const std::string& verb, std::istringstream& in) {
    unsigned long event = 0;
    if (verb == "notify") in >> event;  // then the window, as for the others
    void* window = nullptr;
    in >> window;
    const HWND hwnd = in ? static_cast<HWND>(window) : nullptr;
    bool done = false;
    if (verb == "destroy") {
        done = hwnd && DestroyWindow(hwnd);
    } else if (verb == "show" || verb == "hide") {
        done = hwnd && IsWindow(hwnd);
        if (done) ShowWindow(hwnd, verb == "show" ? SW_SHOW : SW_HIDE);
    } else if (verb == "foreground") {
        done = hwnd && SetForegroundWindow(hwnd);
    } else if (verb == "notify") {
        long object = 0, child = 0;
        in >> object >> child;
        done = !in.fail();
        if (done) NotifyWinEvent(event, hwnd, object, child);
    } else if (verb == "stall") {
        // stall <window> <ms>: raises a create of the window's first client
        // object, then answers no message for that long, as a busy application.
        unsigned long ms = 0;
        in >> ms;
        done = hwnd && !in.fail();
        if (done) {
            NotifyWinEvent(EVENT_OBJECT_CREATE, hwnd, OBJID_CLIENT, 1);
            Sleep(ms);
        }
    } else if (verb == "menu") {
        done = hwnd && OpenMenu(hwnd);
    } else if (verb == "dialog") {
        done = hwnd && OpenDialog(hwnd);
    } else {
        return false;
    }
    std::printf("done %d\n", done ? 1 : 0);
    std::fflush(stdout);
    return true;
}

// A class of the target's own by that name, unless one exists already.
void registerClass(const std::wstring& name) {
    WNDCLASSW known = {};
    if (name.empty() || GetClassInfoW(GetModuleHandleW(nullptr), name.c_str(), &known) ||
        GetClassInfoW(nullptr, name.c_str(), &known)) {
        return;
    }
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = TargetProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    windowClass.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
    windowClass.lpszClassName = name.c_str();
    RegisterClassW(&windowClass);
}

void Serve(const std::string& request) {
    std::istringstream in(request);
    std::string verb;
    in >> verb;
    if (verb == "log") return Report();
    if (verb == "text") return ReportText(in);
    if (verb != "make" && ServeWindow(verb, in)) return;
    void* parent = nullptr;
    int x = 0, y = 0, width = 0, height = 0;
    std::string className;
    in >> parent >> x >> y >> width >> height >> className;
    const bool whole = !in.fail();
    std::string text;  // may be empty
    std::getline(in >> std::ws, text);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    HWND made = nullptr;
    if (verb == "make" && whole) {
        registerClass(wide(className));
        const DWORD style = WS_VISIBLE | (parent ? WS_CHILD : WS_OVERLAPPEDWINDOW);
        made = CreateWindowExW(0, wide(className).c_str(), wide(text).c_str(), style, x, y, width, height,
                               static_cast<HWND>(parent), nullptr, GetModuleHandleW(nullptr), nullptr);
        if (made) observe(made);
    }
    std::printf("made %p\n", static_cast<void*>(made));
    std::fflush(stdout);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = TargetProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
    windowClass.lpszClassName = L"DeskwrightTarget";
    RegisterClassW(&windowClass);

    std::printf("pid %lu\n", GetCurrentProcessId());
    MSG msg;
    if (argc > 1 && std::wcscmp(argv[1], L"--serve") == 0) {
        serving = true;
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
