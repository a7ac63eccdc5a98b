// What the system's input queue carries, seen from the test process: low-level
// mouse and keyboard hooks on a thread of their own record every event, with
// the event's own time and a stamp of the performance counter, until the
// recorder ends. One recorder at a time.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace dwtest {

struct InputEvent {
    bool mouse = false;  // else a key
    UINT message = 0;    // WM_MOUSEMOVE, WM_LBUTTONDOWN, ... or WM_KEYDOWN, WM_SYSKEYUP, ...
    POINT point{};       // mouse: the screen point
    DWORD vk = 0;        // keys: virtual key and scan code
    DWORD scan = 0;
    DWORD flags = 0;     // LLMHF_* or LLKHF_*
    DWORD time = 0;      // the event's time stamp, in milliseconds
    double ms = 0;       // when the hook saw it, in milliseconds since the recorder started

    bool injected() const { return (flags & (mouse ? LLMHF_INJECTED : LLKHF_INJECTED)) != 0; }
    bool extended() const { return !mouse && (flags & LLKHF_EXTENDED) != 0; }
    bool isMove() const { return mouse && message == WM_MOUSEMOVE; }
    bool isKey() const { return !mouse; }
    bool isButton() const { return mouse && message != WM_MOUSEMOVE && message != WM_MOUSEWHEEL; }
    bool isDown() const;  // a button or key press
    // "WM_LBUTTONDOWN 130,115", "WM_KEYDOWN 0x25 ext"; " injected" is not shown.
    std::string show() const;
};

class InputRecorder {
public:
    InputRecorder();  // the hooks are in place when it returns, if ok()
    ~InputRecorder();
    InputRecorder(const InputRecorder&) = delete;
    InputRecorder& operator=(const InputRecorder&) = delete;

    bool ok() const { return installed_; }
    // Every event so far.
    std::vector<InputEvent> events() const;
    // Waits until no event has come for quietMs (at most timeoutMs); the events.
    std::vector<InputEvent> settle(unsigned quietMs = 150, unsigned timeoutMs = 5000) const;
    // Forgets what was recorded.
    void clear();

private:
    static DWORD WINAPI run(void* self);
    static LRESULT CALLBACK mouseProc(int code, WPARAM wParam, LPARAM lParam);
    static LRESULT CALLBACK keyboardProc(int code, WPARAM wParam, LPARAM lParam);
    void add(const InputEvent& event);
    double now() const;

    mutable CRITICAL_SECTION lock_;
    std::vector<InputEvent> events_;
    LARGE_INTEGER start_{};
    LARGE_INTEGER frequency_{};
    HANDLE thread_ = nullptr;
    DWORD threadId_ = 0;
    HANDLE ready_ = nullptr;
    bool installed_ = false;
};

// Puts the pointer back where it was and releases every button and modifier
// key that is still down, when it ends: what a test's input leaves behind
// must not reach the next test.
class InputRestorer {
public:
    InputRestorer();
    ~InputRestorer();
    InputRestorer(const InputRestorer&) = delete;
    InputRestorer& operator=(const InputRestorer&) = delete;

private:
    POINT pointer_{};
};

}  // namespace dwtest
