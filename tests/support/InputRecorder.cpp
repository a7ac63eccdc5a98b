#include "InputRecorder.h"

#include <cstdio>

namespace dwtest {

namespace {

InputRecorder* active = nullptr;  // the recorder that the hooks feed

const char* messageName(UINT message) {
    switch (message) {
    case WM_MOUSEMOVE: return "WM_MOUSEMOVE";
    case WM_LBUTTONDOWN: return "WM_LBUTTONDOWN";
    case WM_LBUTTONUP: return "WM_LBUTTONUP";
    case WM_RBUTTONDOWN: return "WM_RBUTTONDOWN";
    case WM_RBUTTONUP: return "WM_RBUTTONUP";
    case WM_MBUTTONDOWN: return "WM_MBUTTONDOWN";
    case WM_MBUTTONUP: return "WM_MBUTTONUP";
    case WM_MOUSEWHEEL: return "WM_MOUSEWHEEL";
    case WM_KEYDOWN: return "WM_KEYDOWN";
    case WM_KEYUP: return "WM_KEYUP";
    case WM_SYSKEYDOWN: return "WM_SYSKEYDOWN";
    case WM_SYSKEYUP: return "WM_SYSKEYUP";
    default: return "WM_?";
    }
}

}  // namespace

bool InputEvent::isDown() const {
    switch (message) {
    case WM_LBUTTONDOWN: case WM_RBUTTONDOWN: case WM_MBUTTONDOWN: case WM_KEYDOWN: case WM_SYSKEYDOWN: return true;
    default: return false;
    }
}

std::string InputEvent::show() const {
    char text[96] = {};
    if (mouse) {
        std::snprintf(text, sizeof text, "%s %ld,%ld", messageName(message), point.x, point.y);
    } else {
        std::snprintf(text, sizeof text, "%s 0x%02lX%s", messageName(message), vk, extended() ? " ext" : "");
    }
    return text;
}

InputRecorder::InputRecorder() {
    InitializeCriticalSection(&lock_);
    QueryPerformanceFrequency(&frequency_);
    QueryPerformanceCounter(&start_);
    if (active) return;  // one at a time
    active = this;
    ready_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    thread_ = CreateThread(nullptr, 0, run, this, 0, &threadId_);
    if (thread_) WaitForSingleObject(ready_, 5000);
}

InputRecorder::~InputRecorder() {
    if (thread_) {
        PostThreadMessageW(threadId_, WM_QUIT, 0, 0);
        WaitForSingleObject(thread_, 5000);
        CloseHandle(thread_);
    }
    if (ready_) CloseHandle(ready_);
    if (active == this) active = nullptr;
    DeleteCriticalSection(&lock_);
}

DWORD WINAPI InputRecorder::run(void* self) {
    InputRecorder& recorder = *static_cast<InputRecorder*>(self);
    MSG msg;
    PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // the queue exists before WM_QUIT can come
    HHOOK mouse = SetWindowsHookExW(WH_MOUSE_LL, mouseProc, GetModuleHandleW(nullptr), 0);
    HHOOK keyboard = SetWindowsHookExW(WH_KEYBOARD_LL, keyboardProc, GetModuleHandleW(nullptr), 0);
    recorder.installed_ = mouse && keyboard;
    SetEvent(recorder.ready_);
    while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
        DispatchMessageW(&msg);
    }
    if (mouse) UnhookWindowsHookEx(mouse);
    if (keyboard) UnhookWindowsHookEx(keyboard);
    return 0;
}

LRESULT CALLBACK InputRecorder::mouseProc(int code, WPARAM wParam, LPARAM lParam) {
    if (code == HC_ACTION && active) {
        const MSLLHOOKSTRUCT& info = *reinterpret_cast<const MSLLHOOKSTRUCT*>(lParam);
        InputEvent event;
        event.mouse = true;
        event.message = static_cast<UINT>(wParam);
        event.point = info.pt;
        event.flags = info.flags;
        event.time = info.time;
        event.ms = active->now();
        active->add(event);
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}

LRESULT CALLBACK InputRecorder::keyboardProc(int code, WPARAM wParam, LPARAM lParam) {
    if (code == HC_ACTION && active) {
        const KBDLLHOOKSTRUCT& info = *reinterpret_cast<const KBDLLHOOKSTRUCT*>(lParam);
        InputEvent event;
        event.message = static_cast<UINT>(wParam);
        event.vk = info.vkCode;
        event.scan = info.scanCode;
        event.flags = info.flags;
        event.time = info.time;
        event.ms = active->now();
        active->add(event);
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}

double InputRecorder::now() const {
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart - start_.QuadPart) * 1000.0 / static_cast<double>(frequency_.QuadPart);
}

void InputRecorder::add(const InputEvent& event) {
    EnterCriticalSection(&lock_);
    events_.push_back(event);
    LeaveCriticalSection(&lock_);
}

std::vector<InputEvent> InputRecorder::events() const {
    EnterCriticalSection(&lock_);
    std::vector<InputEvent> copy = events_;
    LeaveCriticalSection(&lock_);
    return copy;
}

std::vector<InputEvent> InputRecorder::settle(unsigned quietMs, unsigned timeoutMs) const {
    const double end = now() + timeoutMs;
    size_t seen = events().size();
    double since = now();
    while (now() < end) {
        Sleep(10);
        const size_t count = events().size();
        if (count != seen) {
            seen = count;
            since = now();
        } else if (now() - since >= quietMs) {
            break;
        }
    }
    return events();
}

void InputRecorder::clear() {
    EnterCriticalSection(&lock_);
    events_.clear();
    LeaveCriticalSection(&lock_);
}

InputRestorer::InputRestorer() { GetCursorPos(&pointer_); }

InputRestorer::~InputRestorer() {
    const struct { int vk; DWORD up; } held[] = {{VK_LBUTTON, MOUSEEVENTF_LEFTUP}, {VK_RBUTTON, MOUSEEVENTF_RIGHTUP},
        {VK_MBUTTON, MOUSEEVENTF_MIDDLEUP}, {VK_SHIFT, 0}, {VK_CONTROL, 0}, {VK_MENU, 0}, {VK_RMENU, 0}};
    for (const auto& key : held) {
        if (!(GetAsyncKeyState(key.vk) & 0x8000)) continue;
        INPUT input = {};
        if (key.up) {
            input.type = INPUT_MOUSE;
            input.mi.dwFlags = key.up;
        } else {
            input.type = INPUT_KEYBOARD;
            input.ki.wVk = static_cast<WORD>(key.vk);
            input.ki.dwFlags = KEYEVENTF_KEYUP | (key.vk == VK_RMENU ? KEYEVENTF_EXTENDEDKEY : 0);
        }
        SendInput(1, &input, sizeof input);
    }
    SetCursorPos(pointer_.x, pointer_.y);
}

}  // namespace dwtest
