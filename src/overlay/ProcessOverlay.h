// The process overlay of recording mode: while the pointer rests on a new
// element of the target, a small cover keeps clicks away from it until Java
// has prepared it, and an info window names the element. The object lives on
// the stack of the overlay thread and brackets the life of its windows.
#pragma once

#include <uiautomation.h>
#include <windows.h>

namespace tolva {

// The cover's timers: the pointer followed every 25 ms, and its rest of
// 200 ms on an element.
constexpr UINT_PTR COVER_MOUSE_TIMER_ID = 1234;
constexpr UINT_PTR COVER_ELEMENT_TIMER_ID = 1235;
// To the info window: wParam points at the new text (a wide string).
constexpr UINT INFO_TEXT_MESSAGE = WM_USER + 2;

extern const wchar_t COVER_CLASS[];
extern const wchar_t INFO_CLASS[];
extern const wchar_t INFO_READY_TEXT[];
extern const wchar_t INFO_BUSY_TEXT[];

class ProcessOverlay {
public:
    explicit ProcessOverlay(DWORD pid);
    ~ProcessOverlay();
    ProcessOverlay(const ProcessOverlay&) = delete;
    ProcessOverlay& operator=(const ProcessOverlay&) = delete;

    static LRESULT CALLBACK CoverWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    static LRESULT CALLBACK InfoWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    // The element at the screen point, looked for with the window out of the
    // way if it is shown; the caller owns the reference. Null if none.
    static IUIAutomationElement* UiaGetElement(HWND window, int x, int y);
};

// The info window's text, from any thread; nothing without an info window.
void SetInfoText(const wchar_t* text);
// Names the element in the info window: its control type and its name.
void ShowElementInfo(IUIAutomationElement* element);
// Check mode switches the cover off while it runs.
void SetCoverEnabled(bool enabled);

// Thread id of the process overlay's thread, 0 while none runs.
extern DWORD overlayThreadId;

// Starts the overlay's thread for the target's process: the overlay's windows
// live and die there. False, logged, if the thread can't be started.
bool startOverlayThread(DWORD pid);
// Asks the overlay's thread to end, if one runs; doesn't wait for it.
void stopOverlayThread();

}  // namespace tolva
