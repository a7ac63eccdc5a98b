// Check mode: the overlay, its timers, the marking of the element under the
// pointer and the Java calls of a left and a right click.
#include "overlay/UiaChecker.h"

#include "common/ComPtr.h"
#include "common/Logging.h"
#include "element/UiaControl.h"
#include "events/EventFilter.h"
#include "overlay/Highlighter.h"
#include "overlay/ProcessOverlay.h"
#include "overlay/WindowClass.h"
#include "uiahelper/Common.h"
#include "uiahelper/Naming.h"
#include "uiahelper/Regex.h"
#include "uiahelper/Surface.h"
#include "uiahelper/Tree.h"

#include <memory>
#include <utility>

namespace tolva {

const wchar_t OVERLAY_CLASS[] = L"TolvaOverlayClass";

namespace {

Logger& logger = Log::getLogger("tolva.UiaChecker");

constexpr int OVERLAY_SIZE = 50;
constexpr BYTE OVERLAY_ALPHA = 50;
const auto FACE_BRUSH = reinterpret_cast<HBRUSH>(static_cast<INT_PTR>(COLOR_BTNFACE + 1));
constexpr UINT MOUSE_PERIOD_MS = 25;
constexpr UINT REST_MS = 200;
constexpr UINT MARK_NOW_MS = 1;
constexpr UINT MARK_ON_RETURN_MS = 1000;  // after the pointer came back to the target
constexpr int MARK_MS = 30000;
constexpr int CHECK_MARK_MS = 10000;
constexpr COLORREF CHECK_FRAME_RGB = 0x404040;
constexpr UINT MENU_BASE_ID = 100;
constexpr DWORD MENU_SETTLE_MS = 300;
constexpr UINT FORWARD_TIMEOUT_MS = 1000;
constexpr int HOST_TITLE_BAR = 31;  // the host window's caption, above its client area
const wchar_t READY_TEXT[] = L"Move the mouse over an element in your application.";

constexpr UINT HIDE_FLAGS = SWP_HIDEWINDOW | SWP_NOREDRAW | SWP_NOZORDER | SWP_NOMOVE | SWP_NOSIZE;  // 0x8F
constexpr UINT SHOW_FLAGS = SWP_SHOWWINDOW | SWP_NOACTIVATE | SWP_NOREDRAW | SWP_NOZORDER | SWP_NOMOVE |
                            SWP_NOSIZE;                                                          // 0x5F
constexpr UINT SHOW_ON_TOP_FLAGS = SWP_SHOWWINDOW | SWP_NOREDRAW | SWP_NOMOVE | SWP_NOSIZE;           // 0x4B
constexpr UINT FOLLOW_FLAGS = SWP_NOACTIVATE | SWP_NOREDRAW | SWP_NOZORDER | SWP_NOSIZE;              // 0x1D

// The test tool's own window: a Java frame titled after the tool.
const wchar_t HOST_CLASS[] = L"SunAwtFrame";
const wchar_t* const HOST_TITLES[] = {LR"((^|^\* )CueBench($| \d.*))", LR"(^\[.*\.cbx\]( | \* )CueBench.*)"};

// Only the dispatch thread touches these.
std::vector<std::unique_ptr<UiaChecker>> checkers;
POINT lastPointer = {0, 0};
std::wstring lastRuntimeId;
RECT lastRectangle = {0, 0, 0, 0};
bool menuPending = false;
POINT menuPosition = {0, 0};
bool forwardClick = false;  // the last retrieval hit the host's own window
DWORD hostPid = 0;
HWND hostWindow = nullptr;

HCURSOR waitCursor() {
    static const HCURSOR cursor = LoadCursorW(nullptr, IDC_WAIT);
    return cursor;
}
HCURSOR arrowCursor() {
    static const HCURSOR cursor = LoadCursorW(nullptr, IDC_ARROW);
    return cursor;
}

void hide(HWND window) { SetWindowPos(window, nullptr, 0, 0, 0, 0, HIDE_FLAGS); }

bool RegisterOverlayClass(HINSTANCE instance) {
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = UiaChecker::WndProc;
    windowClass.hInstance = instance;
    windowClass.hbrBackground = FACE_BRUSH;
    windowClass.lpszClassName = OVERLAY_CLASS;
    if (!registerWindowClass(windowClass)) {
        TOLVA_LOG(logger, 1, "Error registering class");
        return false;
    }
    return true;
}

std::int64_t handleOf(IUIAutomationElement* element) {
    UiaControl* control = UiaControl::getControl(element, L"", nullptr);
    return control ? static_cast<std::int64_t>(control->handle()) : 0;
}

// Marks the element with a dark frame whose clicks come back to the overlay.
void HighlightElement(HWND window, IUIAutomationElement* element, int milliseconds) {
    RECT bounds{};
    if (!element || FAILED(element->get_CurrentBoundingRectangle(&bounds))) {
        return;
    }
    ShowHighlight(bounds, milliseconds, static_cast<int>(CHECK_FRAME_RGB), window);
}

void ShowContextMenu(HWND window, int x, int y) {
    const auto element = ComPtr<IUIAutomationElement>::attach(UiaChecker::GetUiaElement(window, x, y));
    if (!element) {
        return;
    }
    SetCursor(waitCursor());
    const std::int64_t handle = handleOf(element.get());
    HighlightElement(window, element.get(), CHECK_MARK_MS);
    const std::vector<std::wstring> labels = EventFilter::getInstance().callJavaContextCheck(handle);
    StopHighlight();
    // The overlay stays where it is under the menu.
    KillTimer(window, MOUSE_TIMER_ID);
    SetCursor(arrowCursor());
    if (!labels.empty()) {
        const HMENU menu = CreatePopupMenu();
        for (size_t i = 0; i < labels.size(); ++i) {
            if (i == 1) {
                AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
            }
            // The first label is the title; Java gets an item's index less one.
            AppendMenuW(menu, i == 0 ? MF_DISABLED : MF_STRING, MENU_BASE_ID + i - 1, labels[i].c_str());
        }
        AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
        AppendMenuW(menu, MF_STRING, 0, L"Cancel");
        RECT outer{};
        GetWindowRect(window, &outer);
        const HWND foreground = GetForegroundWindow();
        const int chosen = static_cast<int>(
            TrackPopupMenu(menu, TPM_RETURNCMD, outer.left + x, outer.top + y, 0, window, nullptr));
        DestroyMenu(menu);
        Sleep(MENU_SETTLE_MS);
        SetForegroundWindow(foreground);
        if (chosen != 0) {
            // Neither the pointer nor the overlay may be in the target's way
            // while Java works on it.
            POINT pointer{};
            GetCursorPos(&pointer);
            SetCursorPos(outer.right + 2, outer.bottom + 2);
            hide(window);
            SetCursor(waitCursor());
            EventFilter::getInstance().callJavaCheckSelect(handle, chosen - static_cast<int>(MENU_BASE_ID));
            SetCursor(arrowCursor());
            SetWindowPos(window, nullptr, 0, 0, 0, 0, SHOW_FLAGS);
            SetCursorPos(pointer.x, pointer.y);
            lastPointer = pointer;  // not a move
        }
    }
    SetTimer(window, MOUSE_TIMER_ID, MOUSE_PERIOD_MS, nullptr);
}

void onLeftClick(HWND window, LPARAM lParam) {
    const int x = LOWORD(lParam);
    const int y = HIWORD(lParam);
    const auto element = ComPtr<IUIAutomationElement>::attach(UiaChecker::GetUiaElement(window, x, y));
    TOLVA_LOG(logger, 9, "el: " << static_cast<void*>(element.get()) << ", cbxfwd: " << forwardClick);
    if (element) {
        SetCursor(waitCursor());
        HighlightElement(window, element.get(), CHECK_MARK_MS);
        const std::int64_t handle = handleOf(element.get());
        EventFilter::getInstance().callJavaDefaultCheck(handle);
        StopHighlight();
        SetCursor(arrowCursor());
        return;
    }
    if (forwardClick && hostWindow) {
        RECT own{};
        RECT host{};
        GetWindowRect(window, &own);
        GetWindowRect(hostWindow, &host);
        const auto fx = static_cast<std::uint16_t>(x + own.left - host.left);
        const auto fy = static_cast<std::uint16_t>(y + own.top - host.top - HOST_TITLE_BAR);
        TOLVA_LOG(logger, 9, "msg: " << WM_LBUTTONDOWN << ", fx: " << fx << ", fy: " << fy);
        DWORD_PTR answer = 0;
        SendMessageTimeoutW(hostWindow, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(fx, fy), 0, FORWARD_TIMEOUT_MS, &answer);
        SendMessageTimeoutW(hostWindow, WM_LBUTTONUP, 0, MAKELPARAM(fx, fy), 0, FORWARD_TIMEOUT_MS, &answer);
    }
}

void onMouseTimer(HWND window) {
    POINT pointer{};
    GetCursorPos(&pointer);
    if (pointer.x == lastPointer.x && pointer.y == lastPointer.y) {
        return;
    }
    lastPointer = pointer;
    RECT client{};
    GetClientRect(window, &client);
    SetWindowPos(window, nullptr, pointer.x - client.right / 2, pointer.y - client.bottom / 2, 0, 0, FOLLOW_FLAGS);
    SetTimer(window, ELEMENT_TIMER_ID, REST_MS, nullptr);
}

// The pointer has rested: the overlay goes over the target's elements only.
void onElementTimer(HWND window, bool visible) {
    TOLVA_LOG(logger, 9, "ELEMENT_TIMER_ID");
    KillTimer(window, ELEMENT_TIMER_ID);
    POINT pointer{};
    GetCursorPos(&pointer);
    if (visible) {
        hide(window);
        EndHighlightSoon();
        SetInfoText(READY_TEXT);
    }
    ComPtr<IUIAutomationElement> element;
    HRESULT hr = E_FAIL;
    if (const AutomationRef uia = automation()) {
        hr = uia->ElementFromPoint(pointer, element.put());
    }
    if (FAILED(hr) || !element) {
        TOLVA_LOG(logger, 9, "No element");
        SetTimer(window, TIMER_ID, MARK_NOW_MS, nullptr);
        return;
    }
    std::wstring runtimeId;
    UiaHelper::GetControlRuntimeId(element.get(), runtimeId);
    bool same = runtimeId == lastRuntimeId;
    if (same) {
        TOLVA_LOG(logger, 9, "still the same element id: " << runtimeId);
    } else {
        TOLVA_LOG(logger, 9, "different element old: " << lastRuntimeId << " new: " << runtimeId);
        const RECT bounds = UiaHelper::GetControlBounds(element.get());
        if (!runtimeId.empty()) {
            lastRuntimeId = runtimeId;
        } else if (EqualRect(&bounds, &lastRectangle)) {
            TOLVA_LOG(logger, 9, "rects are the same");
            same = true;
        } else {
            lastRectangle = bounds;
        }
    }
    TOLVA_LOG(logger, 9, "isSameElement: " << same);
    SetTimer(window, TIMER_ID, MARK_NOW_MS, nullptr);

    const UiaChecker* checker = FindChecker(window);
    int pid = 0;
    const bool pidRead = SUCCEEDED(UiaHelper::GetControlProcessId(element.get(), &pid));
    bool sut = checker && pidRead && static_cast<DWORD>(pid) == checker->pid();
    if (checker && !sut) {
        sut = UiaHelper::ChildProcessCounts(element.get(), static_cast<int>(checker->pid()), logger, __func__);
    }
    TOLVA_LOG(logger, 10, "sut: " << sut);
    if (!sut) {
        hide(window);
        return;
    }
    if (!visible) {
        SetTimer(window, TIMER_ID, MARK_ON_RETURN_MS, nullptr);
    }
    SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, SHOW_ON_TOP_FLAGS);
}

void onMarkTimer(HWND window, bool visible) {
    TOLVA_LOG(logger, 9, "TIMER_ID visible: " << visible);
    KillTimer(window, TIMER_ID);
    if (menuPending) {
        menuPending = false;
        ShowContextMenu(window, menuPosition.x, menuPosition.y);
        return;
    }
    if (!visible) {
        return;
    }
    POINT pointer{};
    GetCursorPos(&pointer);
    RECT outer{};
    GetWindowRect(window, &outer);
    const auto element =
        ComPtr<IUIAutomationElement>::attach(UiaChecker::GetUiaElement(window, pointer.x - outer.left, pointer.y - outer.top));
    if (element) {
        ShowElementInfo(element.get());
        HighlightElement(window, element.get(), MARK_MS);
        SetCursor(arrowCursor());
    }
}

}  // namespace

std::int32_t CheckerRegistrator::operator()() {
    TOLVA_LOG(logger, 7, "start: " << start_);
    if (!start_) {
        StopChecking();
        SetCoverEnabled(true);
        return 0;
    }
    std::vector<RECT> rectangles;
    SetCoverEnabled(false);
    // Without a top-level window the target's own process id stands.
    DWORD pid = static_cast<DWORD>(pid_);
    VARIANT windowType{};
    windowType.vt = VT_I4;
    windowType.lVal = UiaHelper::ControlTypeIdFromName(L"Window");
    for (const std::intptr_t handle : UiaControl::getToplevels(pid_, viaHwnd_, classPattern_)) {
        const ControlRef control = UiaControl::acquire(handle);
        if (!control) {
            continue;
        }
        const ComPtr<IUIAutomationElement> top = control->getElement();
        int topPid = 0;
        if (SUCCEEDED(UiaHelper::GetControlProcessId(top.get(), &topPid))) {
            pid = static_cast<DWORD>(topPid);
        }
        rectangles.push_back(UiaHelper::GetControlBounds(top.get()));
        for (const auto& child : UiaHelper::GetElementsByProperty(top.get(), UIA_ControlTypePropertyId, windowType,
                                                                  TreeScope_Children)) {
            ComPtr<IUnknown> pattern;
            if (child && SUCCEEDED(child->GetCurrentPattern(UIA_WindowPatternId, pattern.put())) && pattern) {
                rectangles.push_back(UiaHelper::GetControlBounds(child.get()));
            }
        }
    }
    UiaChecker::StartChecking(pid, rectangles);
    return 0;
}

void UiaChecker::StartChecking(DWORD pid, const std::vector<RECT>& rectangles) {
    TOLVA_LOG(logger, 7, "pid: " << pid << ", rcount" << rectangles.size());
    UpdateCueBenchPid();
    POINT pointer{};
    GetCursorPos(&pointer);
    checkers.push_back(std::make_unique<UiaChecker>(
        GetModuleHandleW(nullptr), RECT{pointer.x, pointer.y, pointer.x + OVERLAY_SIZE, pointer.y + OVERLAY_SIZE},
        pid));
}

void UiaChecker::UpdateCueBenchPid() {
    hostPid = 0;
    hostWindow = nullptr;
    const UiaHelper::Regex titles[] = {UiaHelper::Regex(HOST_TITLES[0]), UiaHelper::Regex(HOST_TITLES[1])};
    for (HWND w = FindWindowExW(nullptr, nullptr, HOST_CLASS, nullptr); w;
         w = FindWindowExW(nullptr, w, HOST_CLASS, nullptr)) {
        wchar_t text[512] = {};
        GetWindowTextW(w, text, 512);
        if (titles[0].matches(text) || titles[1].matches(text)) {
            GetWindowThreadProcessId(w, &hostPid);
            hostWindow = w;
            break;
        }
    }
    TOLVA_LOG(logger, 7, "cbxpid: " << hostPid << ", cbxhwnd: " << static_cast<void*>(hostWindow));
}

void StopChecking() {
    while (!checkers.empty()) {
        checkers.pop_back();
    }
    EndHighlightSoon();
}

UiaChecker* FindChecker(HWND window) {
    for (const auto& checker : checkers) {
        if (checker->window() == window) {
            return checker.get();
        }
    }
    return nullptr;
}

UiaChecker::UiaChecker(HINSTANCE instance, RECT rectangle, DWORD pid) : instance_(instance), pid_(pid) {
    CreateOverlay(instance, rectangle);
    if (window_) {
        SetTimer(window_, MOUSE_TIMER_ID, MOUSE_PERIOD_MS, nullptr);
    }
}

UiaChecker::~UiaChecker() {
    TOLVA_LOG(logger, 9, "wnd: " << static_cast<void*>(window_));
    if (window_) {
        DestroyWindow(window_);
    }
}

bool UiaChecker::CreateOverlay(HINSTANCE instance, RECT rectangle) {
    if (!RegisterOverlayClass(instance)) {
        return false;
    }
    window_ = CreateWindowExW(WS_EX_NOACTIVATE | WS_EX_LAYERED | WS_EX_TOPMOST, OVERLAY_CLASS, L"", WS_POPUP,
                              rectangle.left, rectangle.top, rectangle.right - rectangle.left,
                              rectangle.bottom - rectangle.top, nullptr, nullptr, instance, nullptr);
    if (window_) {
        SetLayeredWindowAttributes(window_, 0, OVERLAY_ALPHA, LWA_ALPHA);
        ShowWindow(window_, SW_SHOWNORMAL);
    }
    TOLVA_LOG(logger, 9, "wnd: " << static_cast<void*>(window_));
    return window_ != nullptr;
}

IUIAutomationElement* UiaChecker::GetUiaElement(HWND window, int x, int y) {
    forwardClick = false;
    RECT outer{};
    GetWindowRect(window, &outer);
    const POINT point = {x + outer.left, y + outer.top};
    hide(window);
    IUIAutomationElement* element = nullptr;
    HRESULT hr = E_FAIL;
    if (const AutomationRef uia = automation()) {
        hr = uia->ElementFromPoint(point, &element);
    }
    SetWindowPos(window, nullptr, 0, 0, 0, 0, SHOW_FLAGS);
    if (FAILED(hr) || !element) {
        TOLVA_LOG(logger, 3, "Error retrieving element: " << std::hex << hr);
        // The platform may leave something in the answer on failure: only a
        // success gives an element.
        if (element && FAILED(hr)) {
            element->Release();
        }
        return nullptr;
    }
    TOLVA_LOG(logger, 10, "cls: " << UiaHelper::GetControlClassName(element));
    const UiaChecker* checker = FindChecker(window);
    if (!checker) {
        return element;
    }
    int pid = 0;
    const bool pidRead = SUCCEEDED(UiaHelper::GetControlProcessId(element, &pid));
    bool foreign = !(pidRead && static_cast<DWORD>(pid) != GetCurrentProcessId() && static_cast<DWORD>(pid) == checker->pid());
    if (foreign && UiaHelper::ChildProcessCounts(element, static_cast<int>(checker->pid()), logger, __func__)) {
        foreign = false;
    }
    if (foreign) {
        element->Release();
        forwardClick = static_cast<DWORD>(pid) == hostPid;
        return nullptr;
    }
    return element;
}

LRESULT CALLBACK UiaChecker::WndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case WM_LBUTTONDOWN:
        onLeftClick(window, lParam);
        return 0;
    case WM_RBUTTONDOWN:
        KillTimer(window, TIMER_ID);
        menuPosition = {LOWORD(lParam), HIWORD(lParam)};
        menuPending = true;
        SetTimer(window, TIMER_ID, 0, nullptr);
        return 0;
    case WM_TIMER: {
        const bool visible = IsWindowVisible(window) == TRUE;
        if (wParam == MOUSE_TIMER_ID) {
            onMouseTimer(window);
        } else if (wParam == ELEMENT_TIMER_ID) {
            onElementTimer(window, visible);
        } else if (wParam == TIMER_ID) {
            onMarkTimer(window, visible);
        }
        return 0;
    }
    default:
        return DefWindowProcW(window, message, wParam, lParam);
    }
}

}  // namespace tolva
