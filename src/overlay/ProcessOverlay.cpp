// The process overlay of recording mode and its thread.
#include "overlay/ProcessOverlay.h"

#include "common/ComPtr.h"
#include "common/Logging.h"
#include "common/Owners.h"
#include "dispatch/UiaEventQueue.h"
#include "overlay/WindowClass.h"
#include "recording/AutoEventPosters.h"
#include "uiahelper/Common.h"
#include "uiahelper/Naming.h"
#include "uiahelper/Surface.h"
#include "uiahelper/Tree.h"

#include <objbase.h>
#include <process.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace tolva {

DWORD overlayThreadId = 0;

const wchar_t COVER_CLASS[] = L"TolvaCoverClass";
const wchar_t INFO_CLASS[] = L"TolvaInfoClass";
const wchar_t INFO_READY_TEXT[] = L"Move the mouse over an element in your application.";
const wchar_t INFO_BUSY_TEXT[] = L"Retrieving element info.\nPlease wait ...";

namespace {

Logger& logger = Log::getLogger("tolva.ProcessOverlay");

const unsigned OVERLAY_STACK_SIZE = 0x10000;
// A thread that has only just started may have no message queue yet, and a
// message posted to it then is refused: the quit is tried a few times.
const int QUIT_ATTEMPTS = 20;
const DWORD QUIT_RETRY_MS = 10;

void forgetLastElement();

unsigned __stdcall overlayThreadProc(void* param) {
    const auto pid = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(param));
    MSG message;
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);  // makes the message queue now
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        ProcessOverlay overlay(pid);
        while (GetMessageW(&message, nullptr, 0, 0) > 0) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        // The overlay goes after the apartment, as it came after it; the
        // element it holds is given up while the apartment still stands.
        forgetLastElement();
        CoUninitialize();
    }
    return 0;
}

void postQuit(DWORD threadId) {
    for (int attempt = 0; attempt < QUIT_ATTEMPTS; ++attempt) {
        if (PostThreadMessageW(threadId, WM_QUIT, 0, 0)) {
            return;
        }
        Sleep(QUIT_RETRY_MS);
    }
    TOLVA_LOG(logger, 3, "The overlay thread takes no messages: " << GetLastError());
}

}  // namespace

namespace {

constexpr int COVER_SIZE = 50;
constexpr BYTE COVER_ALPHA = 50;
constexpr COLORREF BUSY_RGB = 0x7070F0;
const auto FACE_BRUSH = reinterpret_cast<HBRUSH>(static_cast<INT_PTR>(COLOR_BTNFACE + 1));
constexpr UINT MOUSE_PERIOD_MS = 25;
constexpr UINT REST_MS = 200;

constexpr int INFO_WIDTH = 300;
constexpr int INFO_HEIGHT = 80;
constexpr int INFO_LEFT = 20;
constexpr int INFO_TEXT_ID = 100;
constexpr int NO_POSITION = -65000;
const wchar_t INFO_TITLE[] = L"CueBench Element Information";
const wchar_t COVER_TITLE[] = L"TolvaCoverWindow";

constexpr UINT SHOW_FLAGS = SWP_SHOWWINDOW | SWP_NOREDRAW | SWP_NOMOVE | SWP_NOSIZE;                     // 0x4B
constexpr UINT HIDE_FLAGS = SWP_HIDEWINDOW | SWP_NOREDRAW | SWP_NOZORDER | SWP_NOMOVE | SWP_NOSIZE;     // 0x8F
constexpr UINT FOLLOW_FLAGS = SWP_NOREDRAW | SWP_NOZORDER | SWP_NOSIZE;                                 // 0x0D
constexpr UINT PLACE_FLAGS = SWP_NOACTIVATE | SWP_NOZORDER | SWP_NOSIZE;                                // 0x15

// The overlay's state. Only the overlay thread writes it, but coverEnabled
// (the dispatch thread's) and the info window (read by check mode's thread).
DWORD targetPid = 0;
HWND coverWindow = nullptr;
std::atomic<HWND> infoWindow{nullptr};
HFONT infoFont = nullptr;
ComPtr<IUIAutomationElement> lastElement;
bool preparing = false;
std::atomic<bool> coverEnabled{true};
POINT lastPointer = {0, 0};
// Where the user left the info window, for the next recording of the process.
POINT savedInfoPosition = {NO_POSITION, NO_POSITION};
POINT createdInfoPosition = {0, 0};

HCURSOR cursor(LPCWSTR id) { return LoadCursorW(nullptr, id); }

void forgetLastElement() { lastElement.reset(); }

void hide(HWND window) { SetWindowPos(window, nullptr, 0, 0, 0, 0, HIDE_FLAGS); }
void showOnTop(HWND window) { SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SHOW_FLAGS); }

// Busy: the cover's colour and the wait cursor; idle: the face colour and
// the arrow.
void paintCover(HWND window, bool busy) {
    const HDC dc = GetDC(window);
    if (!dc) {
        return;
    }
    RECT client{};
    GetClientRect(window, &client);
    if (busy) {
        UniqueGdi<HBRUSH> brush(CreateSolidBrush(BUSY_RGB));
        FillRect(dc, &client, brush.get());
        SetCursor(cursor(IDC_WAIT));
    } else {
        FillRect(dc, &client, FACE_BRUSH);
        SetCursor(cursor(IDC_ARROW));
    }
    ReleaseDC(window, dc);
}

// The classes of both windows: redrawn whole on a size change, in the face
// colour. A class that can't be registered leaves its window unmade.
void registerOverlayClass(HINSTANCE instance, const wchar_t* name, WNDPROC procedure, LPCWSTR cursorId) {
    WNDCLASSW windowClass{};
    windowClass.style = CS_VREDRAW | CS_HREDRAW;
    windowClass.lpfnWndProc = procedure;
    windowClass.hInstance = instance;
    windowClass.hCursor = cursor(cursorId);
    windowClass.hbrBackground = FACE_BRUSH;
    windowClass.lpszClassName = name;
    if (!registerWindowClass(windowClass)) {
        TOLVA_LOG(logger, 3, "Class not registered: " << GetLastError());
    }
}

HWND makeCover(HINSTANCE instance) {
    registerOverlayClass(instance, COVER_CLASS, ProcessOverlay::CoverWndProc, IDC_WAIT);
    POINT pointer{};
    GetCursorPos(&pointer);
    const HWND cover = CreateWindowExW(WS_EX_NOACTIVATE | WS_EX_LAYERED | WS_EX_TOPMOST, COVER_CLASS, COVER_TITLE,
                                       WS_POPUP, pointer.x - COVER_SIZE / 2, pointer.y - COVER_SIZE / 2, COVER_SIZE,
                                       COVER_SIZE, nullptr, nullptr, instance, nullptr);
    if (!cover) {
        TOLVA_LOG(logger, 3, "No cover window: " << GetLastError());
        return nullptr;
    }
    SetLayeredWindowAttributes(cover, 0, COVER_ALPHA, LWA_ALPHA);
    UpdateWindow(cover);  // hidden until an element is prepared
    return cover;
}

HWND makeInfo(HINSTANCE instance) {
    registerOverlayClass(instance, INFO_CLASS, ProcessOverlay::InfoWndProc, IDC_ARROW);
    int top = GetSystemMetrics(SM_CYSCREEN) - INFO_HEIGHT - 80;
    // Another target's info window stands there already: this one goes above.
    if (FindWindowW(INFO_CLASS, nullptr)) {
        top -= INFO_HEIGHT;
    }
    const HWND info = CreateWindowExW(WS_EX_NOACTIVATE | WS_EX_TOOLWINDOW | WS_EX_TOPMOST, INFO_CLASS, INFO_TITLE,
                                      WS_SYSMENU | WS_MINIMIZEBOX, INFO_LEFT, top, INFO_WIDTH, INFO_HEIGHT, nullptr,
                                      nullptr, instance, nullptr);
    if (!info) {
        TOLVA_LOG(logger, 3, "No info window: " << GetLastError());
        return nullptr;
    }
    const HWND text = CreateWindowExW(0, L"Static", INFO_READY_TEXT, WS_CHILD | WS_VISIBLE | SS_EDITCONTROL, 5, 5,
                                      282, 40, info, reinterpret_cast<HMENU>(static_cast<INT_PTR>(INFO_TEXT_ID)),
                                      instance, nullptr);
    LOGFONTW font{};
    font.lfHeight = 18;
    font.lfWeight = FW_NORMAL;
    font.lfPitchAndFamily = VARIABLE_PITCH;
    wcscpy_s(font.lfFaceName, L"Courier New");
    infoFont = CreateFontIndirectW(&font);
    if (text && infoFont) {
        SendMessageW(text, WM_SETFONT, reinterpret_cast<WPARAM>(infoFont), TRUE);
    }
    ShowWindow(info, SW_SHOWNORMAL);
    UpdateWindow(info);
    return info;
}

// The element is the target's: of its process or, when the preference
// allows it, of a process whose element stands under one of the target's.
bool ofTarget(IUIAutomationElement* element) {
    int pid = 0;
    UiaHelper::GetControlProcessId(element, &pid);
    return static_cast<DWORD>(pid) == targetPid ||
           UiaHelper::ChildProcessCounts(element, static_cast<int>(targetPid), logger, __func__);
}

// Java prepares the element on the dispatch thread; the end of that comes
// back as COVER_DONE_MESSAGE. Without a dispatch thread nothing is prepared.
void startPrepare(HWND cover, IUIAutomationElement* element) {
    const std::shared_ptr<UiaEventQueue> queue = UiaEventQueue::getInstance();
    if (!queue) {
        TOLVA_LOG(logger, 3, "No dispatch thread: nothing prepared");
        paintCover(cover, false);
        hide(cover);
        return;
    }
    preparing = true;
    SetInfoText(INFO_BUSY_TEXT);
    element->AddRef();  // the end's, which gives it up
    queue->invokeLater(new PrepareRecordingStart(element));
    queue->invokeLater(new PrepareRecordingEnd(cover, element));
}

// The pointer has rested: the element under it, if the target's and new,
// is covered and prepared.
void examine(HWND cover) {
    KillTimer(cover, COVER_ELEMENT_TIMER_ID);
    POINT pointer{};
    GetCursorPos(&pointer);
    const auto element = ComPtr<IUIAutomationElement>::attach(ProcessOverlay::UiaGetElement(cover, pointer.x, pointer.y));
    if (!element) {
        return;
    }
    if (!ofTarget(element.get())) {
        hide(cover);
        // Coming back to the same element after a detour counts as new.
        if (lastElement && !preparing) {
            lastElement.reset();
        }
        return;
    }
    if (preparing || !coverEnabled) {
        return;
    }
    // Without a last element, or when the platform can't compare (it may
    // leave anything in the answer then), the element counts as new.
    BOOL same = FALSE;
    const AutomationRef uia = automation();
    if (lastElement && uia && SUCCEEDED(uia->CompareElements(element.get(), lastElement.get(), &same)) && same) {
        return;
    }
    showOnTop(cover);
    paintCover(cover, true);
    startPrepare(cover, element.get());
    lastElement = ComPtr<IUIAutomationElement>::share(element.get());
}

}  // namespace

ProcessOverlay::ProcessOverlay(DWORD pid) {
    TOLVA_LOG(logger, 7, "pid: " << pid);
    preparing = false;
    targetPid = pid;
    const HINSTANCE instance = GetModuleHandleW(nullptr);
    coverWindow = makeCover(instance);
    // Overlays of several targets start apart.
    srand(pid * 8);
    Sleep(static_cast<DWORD>(rand() % 100));
    infoWindow = makeInfo(instance);
    if (coverWindow) {
        SetTimer(coverWindow, COVER_MOUSE_TIMER_ID, MOUSE_PERIOD_MS, nullptr);
    }
}

ProcessOverlay::~ProcessOverlay() {
    TOLVA_LOG(logger, 7, "");
    if (coverWindow) {
        KillTimer(coverWindow, COVER_MOUSE_TIMER_ID);
    }
    if (const HWND info = infoWindow.exchange(nullptr)) {
        DestroyWindow(info);
    }
    if (coverWindow) {
        DestroyWindow(coverWindow);
        coverWindow = nullptr;
    }
    lastElement.reset();
}

LRESULT CALLBACK ProcessOverlay::CoverWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_TIMER && wParam == COVER_MOUSE_TIMER_ID) {
        POINT pointer{};
        GetCursorPos(&pointer);
        if (pointer.x != lastPointer.x || pointer.y != lastPointer.y) {
            lastPointer = pointer;
            SetTimer(window, COVER_ELEMENT_TIMER_ID, REST_MS, nullptr);
            SetWindowPos(window, nullptr, pointer.x - COVER_SIZE / 2, pointer.y - COVER_SIZE / 2, 0, 0, FOLLOW_FLAGS);
        }
        return 0;
    }
    if (message == WM_TIMER && wParam == COVER_ELEMENT_TIMER_ID) {
        examine(window);
        return 0;
    }
    if (message == COVER_DONE_MESSAGE) {
        paintCover(window, false);
        hide(window);
        // Without an element the preparation never ran (the dispatch
        // thread ended first): the element counts as new next time.
        if (const auto element = reinterpret_cast<IUIAutomationElement*>(wParam)) {
            ShowElementInfo(element);
        } else {
            SetInfoText(INFO_READY_TEXT);
            lastElement.reset();
        }
        preparing = false;
        // Whatever lies under the pointer now is looked at at once.
        SetTimer(window, COVER_ELEMENT_TIMER_ID, 0, nullptr);
        return 0;
    }
    return DefWindowProcW(window, message, wParam, lParam);
}

LRESULT CALLBACK ProcessOverlay::InfoWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case WM_CREATE: {
        const auto* create = reinterpret_cast<const CREATESTRUCTW*>(lParam);
        createdInfoPosition = {create->x, create->y};
        return 0;
    }
    case WM_SHOWWINDOW:
        if (savedInfoPosition.x != NO_POSITION && savedInfoPosition.y != NO_POSITION) {
            TOLVA_LOG(logger, 9, "x: " << savedInfoPosition.x << ", y: " << savedInfoPosition.y);
            SetWindowPos(window, nullptr, savedInfoPosition.x, savedInfoPosition.y, 0, 0, PLACE_FLAGS);
            createdInfoPosition = savedInfoPosition;
        }
        return 0;
    case WM_CLOSE:
        // The user can't close it, only minimise it and bring it back.
        SendMessageW(window, WM_SYSCOMMAND, IsIconic(window) ? SC_RESTORE : SC_MINIMIZE, 0);
        return 0;
    case INFO_TEXT_MESSAGE:
        SendDlgItemMessageW(window, INFO_TEXT_ID, WM_SETTEXT, 0, static_cast<LPARAM>(wParam));
        return 0;
    case WM_DESTROY: {
        if (infoFont) {
            DeleteObject(infoFont);
            infoFont = nullptr;
        }
        RECT r{};
        GetWindowRect(window, &r);
        if (r.left != createdInfoPosition.x || r.top != createdInfoPosition.y) {
            savedInfoPosition = {r.left, r.top};
        }
        return 0;
    }
    default:
        return DefWindowProcW(window, message, wParam, lParam);
    }
}

IUIAutomationElement* ProcessOverlay::UiaGetElement(HWND window, int x, int y) {
    const bool visible = IsWindowVisible(window) == TRUE;
    if (visible) {
        hide(window);
    }
    IUIAutomationElement* element = nullptr;
    HRESULT hr = E_FAIL;
    if (const AutomationRef uia = automation()) {
        hr = uia->ElementFromPoint(POINT{x, y}, &element);
    }
    if (visible) {
        showOnTop(window);
    }
    if (FAILED(hr)) {
        if (element) {
            element->Release();
        }
        return nullptr;
    }
    TOLVA_LOG(logger, 10, "cls: " << UiaHelper::GetControlClassName(element));
    return element;
}

void SetInfoText(const wchar_t* text) {
    if (const HWND info = infoWindow) {
        SendMessageW(info, INFO_TEXT_MESSAGE, reinterpret_cast<WPARAM>(text), 0);
    }
}

void ShowElementInfo(IUIAutomationElement* element) {
    if (!element || !infoWindow) {
        return;
    }
    std::wstring type;
    UiaHelper::GetControlType(element, type);
    const std::wstring text = type + L" " + UiaHelper::GetControlName(element);
    SetInfoText(text.c_str());
}

void SetCoverEnabled(bool enabled) {
    coverEnabled = enabled;
}

bool startOverlayThread(DWORD pid) {
    const UniqueHandle thread(reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, OVERLAY_STACK_SIZE, &overlayThreadProc, reinterpret_cast<void*>(std::uintptr_t{pid}), 0, nullptr)));
    if (!thread) {
        TOLVA_LOG(logger, 1, "Overlay thread not started: " << errno);
        return false;
    }
    overlayThreadId = GetThreadId(thread.get());
    return true;
}

void stopOverlayThread() {
    if (overlayThreadId != 0) {
        postQuit(overlayThreadId);
        overlayThreadId = 0;
    }
}

}  // namespace tolva
