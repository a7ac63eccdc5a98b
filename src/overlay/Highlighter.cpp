// The highlight frame and the runner that Java's Highlight reaches.
#include "overlay/Highlighter.h"

#include "common/Logging.h"
#include "common/Owners.h"
#include "element/UiaControl.h"
#include "overlay/WindowClass.h"
#include "uiahelper/UiaHelper.h"

namespace tolva {

const wchar_t HIGHLIGHTER_CLASS[] = L"TolvaHighlighterClass";

namespace {

Logger& logger = Log::getLogger("tolva.Highlighter");

constexpr DWORD HIGHLIGHT_STYLE = WS_POPUP | WS_VISIBLE;
constexpr DWORD HIGHLIGHT_EX_STYLE = WS_EX_NOACTIVATE | WS_EX_TOPMOST;

// Shared by every instance, since a highlight is a singleton. Only the
// dispatch thread, whose loop serves the window, touches them.
Highlighter* current = nullptr;
HWND window = nullptr;  // keeps its last value after the window is gone
int color = static_cast<int>(DEFAULT_HIGHLIGHT_RGB);
HWND forwardWindow = nullptr;
bool classRegistered = false;

bool coverMode() { return color == HIGHLIGHT_COVER; }

// A frame FRAME_WIDTH pixels wide: the whole rectangle less its inside. At
// six pixels or less the inside is empty and the frame solid.
void shapeAsFrame(HWND frame, int width, int height) {
    UniqueGdi<HRGN> outer(CreateRectRgn(0, 0, width, height));
    UniqueGdi<HRGN> whole(CreateRectRgn(0, 0, width, height));
    UniqueGdi<HRGN> inner(CreateRectRgn(FRAME_WIDTH, FRAME_WIDTH, width - FRAME_WIDTH, height - FRAME_WIDTH));
    if (!outer || !whole || !inner) {
        TOLVA_LOG(logger, 3, "No region for the frame");
        return;
    }
    CombineRgn(outer.get(), whole.get(), inner.get(), RGN_DIFF);
    // The system owns the region from here on.
    if (SetWindowRgn(frame, outer.get(), TRUE)) {
        outer.release();
    }
}

// Hands a click on the highlight to the forward window, at the same screen
// point in that window's coordinates, and ends the highlight.
void forwardClick(HWND own, UINT message, WPARAM wParam, LPARAM lParam) {
    const auto x = static_cast<std::uint16_t>(LOWORD(lParam));
    const auto y = static_cast<std::uint16_t>(HIWORD(lParam));
    RECT ownRect{};
    RECT forwardRect{};
    GetWindowRect(own, &ownRect);
    GetWindowRect(forwardWindow, &forwardRect);
    const auto fx = static_cast<std::uint16_t>(x + ownRect.left - forwardRect.left);
    const auto fy = static_cast<std::uint16_t>(y + ownRect.top - forwardRect.top);
    const HWND target = forwardWindow;
    delete current;
    TOLVA_LOG(logger, 9, "msg: " << message << ", fx: " << fx << ", fy: " << fy);
    PostMessageW(target, message, wParam, MAKELPARAM(fx, fy));
}

}  // namespace

std::int32_t HighlightRunner::operator()() {
    if (duration_ <= 0) {
        StopHighlight();
        return 0;
    }
    // The native waits for this runner with the control in use; a use of its
    // own keeps it from resting on that.
    ControlRef control = UiaControl::acquire(control_);
    if (!control) {
        return 0;
    }
    if (!UiaHelper::IsForeground(control->getElement().get())) {
        // Hidden behind another window: an earlier highlight stays as it is.
        TOLVA_LOG(logger, 9, "not in the foreground");
        return 0;
    }
    ShowHighlight(control->getBounds(), duration_, color_, nullptr);
    return 0;
}

void ShowHighlight(RECT rectangle, int duration, int color, HWND forwardWindow) {
    StopHighlight();
    if (duration <= 0) {
        return;
    }
    current = new Highlighter(rectangle, duration, color, forwardWindow);
    current->Highlight();
}

void StopHighlight() {
    delete current;
}

void EndHighlightSoon() {
    if (current && window) {
        SetTimer(window, HIGHLIGHT_TIMER_ID, 0, nullptr);
    }
}

Highlighter::Highlighter(RECT rectangle, int duration, int newColor, HWND newForwardWindow)
    : rectangle_(rectangle), duration_(duration) {
    TOLVA_LOG(logger, 7, "r: [" << rectangle.left << "," << rectangle.top << "," << rectangle.right << ","
                                << rectangle.bottom << "], d: " << duration << ", c: " << newColor
                                << ", fw: " << static_cast<void*>(newForwardWindow));
    color = newColor == HIGHLIGHT_DEFAULT_COLOR ? static_cast<int>(DEFAULT_HIGHLIGHT_RGB) : newColor;
    forwardWindow = newForwardWindow;
}

Highlighter::~Highlighter() {
    // The window's own timer message may be what deletes this; nothing of
    // the window is used after DestroyWindow.
    if (current == this) {
        current = nullptr;
    }
    if (window) {
        KillTimer(window, HIGHLIGHT_TIMER_ID);
        DestroyWindow(window);
    }
}

void Highlighter::Highlight() {
    const HINSTANCE instance = GetModuleHandleW(nullptr);
    if (!classRegistered) {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = WndProc;
        windowClass.hInstance = instance;
        windowClass.hCursor = LoadCursorW(nullptr, IDC_ARROW);
        windowClass.lpszClassName = HIGHLIGHTER_CLASS;
        classRegistered = registerWindowClass(windowClass);
    }
    const int width = rectangle_.right - rectangle_.left;
    const int height = rectangle_.bottom - rectangle_.top;
    const DWORD exStyle = coverMode() ? HIGHLIGHT_EX_STYLE | WS_EX_LAYERED : HIGHLIGHT_EX_STYLE;
    window = CreateWindowExW(exStyle, HIGHLIGHTER_CLASS, L"", HIGHLIGHT_STYLE, rectangle_.left, rectangle_.top, width,
                             height, nullptr, nullptr, instance, nullptr);
    if (window) {
        if (coverMode()) {
            SetLayeredWindowAttributes(window, 0, COVER_ALPHA, LWA_ALPHA);
        } else {
            shapeAsFrame(window, width, height);
        }
        UpdateWindow(window);
        ShowWindow(window, SW_SHOWNORMAL);
        SetTimer(window, HIGHLIGHT_TIMER_ID, static_cast<UINT>(duration_), nullptr);
    } else {
        TOLVA_LOG(logger, 3, "No highlight window: " << GetLastError());
    }
    TOLVA_LOG(logger, 9, "wnd: " << static_cast<void*>(window));
}

LRESULT CALLBACK Highlighter::WndProc(HWND own, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case WM_ERASEBKGND: {
        if (coverMode()) {
            return DefWindowProcW(own, message, wParam, lParam);
        }
        const auto dc = reinterpret_cast<HDC>(wParam);
        SetDCBrushColor(dc, static_cast<COLORREF>(color));
        RECT client{};
        GetClientRect(own, &client);
        FillRect(dc, &client, static_cast<HBRUSH>(GetStockObject(DC_BRUSH)));
        return 0;
    }
    case WM_PAINT: {
        if (!coverMode()) {
            return DefWindowProcW(own, message, wParam, lParam);
        }
        PAINTSTRUCT paint{};
        const HDC dc = BeginPaint(own, &paint);
        RECT client{};
        GetClientRect(own, &client);
        UniqueGdi<HBRUSH> brush(CreateSolidBrush(COVER_RGB));
        FillRect(dc, &client, brush.get());
        brush.reset();
        SetCursor(LoadCursorW(nullptr, IDC_WAIT));
        EndPaint(own, &paint);
        return 0;
    }
    case WM_TIMER:
        delete current;
        return 0;
    case WM_LBUTTONDOWN:
    case WM_RBUTTONDOWN:
        if (forwardWindow) {
            forwardClick(own, message, wParam, lParam);
        }
        return 0;
    default:
        return DefWindowProcW(own, message, wParam, lParam);
    }
}

}  // namespace tolva
