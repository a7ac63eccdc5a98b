// Acting on one element through a control pattern or through the window
// system: focus, move, resize, close, invoke, select, expand, toggle, scroll,
// and finding the window that an element lives in.
#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "common/ComPtr.h"

#include <utility>

using tolva::ComPtr;
using tolva::Preferences;

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

// UIA_ScrollPatternNoScroll: the percentage that leaves an axis as it is.
const double NO_SCROLL = -1.0;
// SWP_NOSIZE | SWP_NOMOVE: only the z-order changes.
const UINT RAISE_FLAGS = SWP_NOSIZE | SWP_NOMOVE;

ElementPtr ParentOf(IUIAutomationElement* element) {
    return ElementPtr::attach(GetParent(element));
}

// The desktop, or null with a level-1 line: without it no walk up can end.
ElementPtr ReadDesktop() {
    ElementPtr desktop;
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return desktop;  // no connection any more: nothing to walk up to
    }
    if (FAILED(automation->GetRootElement(desktop.put())) || !desktop) {
        TOLVA_LOG(logger, 1, "No root");
        desktop.reset();
    }
    return desktop;
}

bool SameElement(IUIAutomationElement* element, IUIAutomationElement* other) {
    const tolva::AutomationRef automation = tolva::automation();
    BOOL same = FALSE;
    const HRESULT hr = automation ? automation->CompareElements(element, other, &same) : E_FAIL;
    return SUCCEEDED(hr) && same == 1;
}

// The element's own window handle if it answers the search of GetHwndParent
// (the element has the wanted type, or any type is wanted), else 0.
HWND OwnWindowOfType(IUIAutomationElement* element, const std::wstring& type) {
    HWND window = GetControlHwnd(element);
    if (!window || type.empty()) {
        return window;
    }
    std::wstring elementType;
    GetControlType(element, elementType);
    return elementType == type ? window : nullptr;
}

// Whether SetToggleState has to toggle a control in this state.
bool NeedsToggle(int mode, ToggleState state) {
    switch (mode) {
    case TOGGLE_ANY:
        return true;
    case TOGGLE_ON:
        return state != ToggleState_On;
    case TOGGLE_OFF:
        return state != ToggleState_Off;
    default:
        return false;
    }
}

using ScrollGetter = HRESULT (STDMETHODCALLTYPE IUIAutomationScrollPattern::*)(double*);

// Both values of an axis pair of the Scroll pattern. Each output is stored
// as soon as it is read, so a failed vertical read leaves the horizontal one.
bool ReadScrollPair(IUIAutomationElement* element, ScrollGetter horizontalGetter, ScrollGetter verticalGetter,
                    double& horizontal, double& vertical) {
    ComPtr<IUIAutomationScrollPattern> scroll;
    if (FAILED(OpenPattern(element, UIA_ScrollPatternId, scroll)) || !scroll) {
        return false;
    }
    double value = 0.0;
    if (FAILED((scroll.get()->*horizontalGetter)(&value))) {
        return false;
    }
    horizontal = value;
    value = 0.0;
    if (FAILED((scroll.get()->*verticalGetter)(&value))) {
        return false;
    }
    vertical = value;
    return true;
}

// Whether the window is what the user sees at the point: the top window
// there, or its child at the point, or its parent (one level only).
bool WindowShownAt(HWND window, POINT point) {
    HWND shown = WindowFromPoint(point);
    if (shown == window) {
        return true;
    }
    RECT outer{};
    GetWindowRect(shown, &outer);
    // Relative to the outer rectangle, not to the client area.
    const POINT relative = {point.x - outer.left, point.y - outer.top};
    if (ChildWindowFromPoint(shown, relative) == window) {
        return true;
    }
    return ::GetParent(shown) == window;
}

// Raises a window that SetForegroundWindow refused: topmost and back, so it
// stands above the others without staying always on top.
bool RaiseWindow(HWND window) {
    const bool raised = SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, RAISE_FLAGS) == 1;
    SetWindowPos(window, HWND_NOTOPMOST, 0, 0, 0, 0, RAISE_FLAGS);
    return raised;
}

}  // namespace

// --- Pattern actions ---------------------------------------------------------

void SetControlFocus(IUIAutomationElement* element) {
    if (!element) {
        return;
    }
    BOOL focused = FALSE;
    if (SUCCEEDED(element->get_CurrentHasKeyboardFocus(&focused)) && !focused) {
        TOLVA_LOG(logger, 9, "setting Focus");
        if (FAILED(element->SetFocus())) {
            TOLVA_LOG(logger, 9, "Setting the focus failed.");
        }
        return;
    }
    TOLVA_LOG(logger, 9, "Setting focus not necessary since component had focus already.");
}

bool MoveControl(IUIAutomationElement* element, int x, int y) {
    ComPtr<IUIAutomationTransformPattern> transform;
    if (FAILED(OpenPattern(element, UIA_TransformPatternId, transform)) || !transform) {
        TOLVA_LOG(logger, 9, "Transformation not possible");
        return false;
    }
    // True means only that the control can be transformed: a refused move
    // isn't reported.
    transform->Move(x, y);
    return true;
}

bool ResizeControl(IUIAutomationElement* element, int width, int height) {
    ComPtr<IUIAutomationTransformPattern> transform;
    if (FAILED(OpenPattern(element, UIA_TransformPatternId, transform)) || !transform) {
        TOLVA_LOG(logger, 9, "Transformation not possible");
        return false;
    }
    transform->Resize(width, height);  // the result isn't reported, as with Move
    return true;
}

bool CloseControl(IUIAutomationElement* element) {
    // A core window hangs inside a frame, and only the frame can be closed.
    ElementPtr top;
    if (GetControlClassName(element) == CORE_WINDOW_CLASS) {
        top = ElementPtr::attach(GetTopParent(element));
        if (top) {
            TOLVA_LOG(logger, 9, "Close top: " << static_cast<void*>(top.get()));
        }
    }
    ComPtr<IUIAutomationWindowPattern> window;
    if (FAILED(OpenPattern(top ? top.get() : element, UIA_WindowPatternId, window)) || !window) {
        TOLVA_LOG(logger, 9, "Closing not possible");
        return false;
    }
    window->Close();  // a window that stays open isn't reported
    return true;
}

bool DoDefaultAction(IUIAutomationElement* element) {
    ComPtr<IUIAutomationLegacyIAccessiblePattern> legacy;
    if (FAILED(OpenPattern(element, UIA_LegacyIAccessiblePatternId, legacy)) || !legacy) {
        return false;
    }
    // Only S_OK counts: S_FALSE is an MSAA server saying it did nothing.
    return legacy->DoDefaultAction() == S_OK;
}

bool DoInvoke(IUIAutomationElement* element) {
    ComPtr<IUIAutomationInvokePattern> invoke;
    if (FAILED(OpenPattern(element, UIA_InvokePatternId, invoke)) || !invoke) {
        TOLVA_LOG(logger, 9, "Invocation not possible");
        return false;
    }
    const HRESULT hr = invoke->Invoke();
    TOLVA_LOG(logger, 9, "res: " << std::hex << hr);
    return true;
}

bool DoSelect(IUIAutomationElement* element, int mode) {
    ComPtr<IUIAutomationSelectionItemPattern> item;
    if (FAILED(OpenPattern(element, UIA_SelectionItemPatternId, item)) || !item) {
        TOLVA_LOG(logger, 9, "Selection not possible");
        return false;
    }
    HRESULT hr = S_OK;
    if (mode == 1) {
        hr = item->AddToSelection();
    } else if (mode == -1) {
        hr = item->RemoveFromSelection();
    } else {
        hr = item->Select();
    }
    return SUCCEEDED(hr);
}

bool DoExpand(IUIAutomationElement* element, bool expand) {
    ComPtr<IUIAutomationExpandCollapsePattern> pattern;
    if (FAILED(OpenPattern(element, UIA_ExpandCollapsePatternId, pattern)) || !pattern) {
        TOLVA_LOG(logger, 9, "Expand/Collapse not possible");
        return false;
    }
    // A failed read counts as collapsed (its output is undefined).
    ExpandCollapseState state = ExpandCollapseState_Collapsed;
    if (FAILED(pattern->get_CurrentExpandCollapseState(&state))) {
        state = ExpandCollapseState_Collapsed;
    }
    if (expand && state != ExpandCollapseState_Expanded) {
        return SUCCEEDED(pattern->Expand());
    }
    if (!expand && state != ExpandCollapseState_Collapsed) {
        return SUCCEEDED(pattern->Collapse());
    }
    // Already in the wanted state: Java relies on false here.
    return false;
}

int GetExpandState(IUIAutomationElement* element) {
    ComPtr<IUIAutomationExpandCollapsePattern> pattern;
    if (FAILED(OpenPattern(element, UIA_ExpandCollapsePatternId, pattern)) || !pattern) {
        return -1;
    }
    // A failed read leaves its output undefined: the start value -1 stays.
    ExpandCollapseState state = ExpandCollapseState_Collapsed;
    if (FAILED(pattern->get_CurrentExpandCollapseState(&state))) {
        return -1;
    }
    return static_cast<int>(state);
}

int GetToggleState(IUIAutomationElement* element) {
    ComPtr<IUIAutomationTogglePattern> toggle;
    if (FAILED(OpenPattern(element, UIA_TogglePatternId, toggle)) || !toggle) {
        return -1;
    }
    ToggleState state = ToggleState_Off;
    if (FAILED(toggle->get_CurrentToggleState(&state))) {
        return -1;
    }
    return static_cast<int>(state);
}

bool SetToggleState(IUIAutomationElement* element, int mode) {
    ComPtr<IUIAutomationTogglePattern> toggle;
    if (FAILED(OpenPattern(element, UIA_TogglePatternId, toggle)) || !toggle) {
        return false;
    }
    ToggleState state = ToggleState_Off;
    HRESULT hr = toggle->get_CurrentToggleState(&state);
    if (FAILED(hr)) {
        return false;
    }
    // One toggle at most, and no read back: a three-state control may land on
    // its third state.
    if (NeedsToggle(mode, state)) {
        hr = toggle->Toggle();
    }
    return SUCCEEDED(hr);
}

// --- The window of an element ---------------------------------------------------

IUIAutomationElement* GetTopParent(IUIAutomationElement* element) {
    if (!element) {
        return nullptr;
    }
    ElementPtr desktop = ReadDesktop();
    if (!desktop || SameElement(element, desktop.get())) {
        return nullptr;
    }
    ElementPtr current = ElementPtr::share(element);
    for (;;) {
        ElementPtr parent = ParentOf(current.get());
        if (!parent) {
            TOLVA_LOG(logger, 9, GetControlName(current.get()) << " is orphaned");
            return nullptr;
        }
        if (SameElement(parent.get(), desktop.get())) {
            return current.detach();  // the caller's reference
        }
        current = std::move(parent);
    }
}

HWND GetHwndParent(IUIAutomationElement* element, std::wstring type) {
    if (!element) {
        return nullptr;
    }
    ElementPtr desktop = ReadDesktop();
    if (!desktop || SameElement(element, desktop.get())) {
        return nullptr;
    }
    HWND result = nullptr;
    ElementPtr current = ElementPtr::share(element);
    for (;;) {
        result = OwnWindowOfType(current.get(), type);
        ElementPtr parent = ParentOf(current.get());
        if (!parent) {
            TOLVA_LOG(logger, 9, static_cast<void*>(current.get()) << " is orphaned");
            break;
        }
        // The desktop's own handle is never a result.
        if (result || SameElement(parent.get(), desktop.get())) {
            break;
        }
        current = std::move(parent);
    }
    TOLVA_LOG(logger, 9, "res: " << static_cast<void*>(result));
    return result;
}

bool IsForeground(IUIAutomationElement* element) {
    HWND window = GetHwndParent(element, std::wstring());
    if (!window) {
        return true;  // nothing that could hide it can be told
    }
    const RECT bounds = GetControlBounds(element);
    const POINT centre = {bounds.left + (bounds.right - bounds.left) / 2,
                          bounds.top + (bounds.bottom - bounds.top) / 2};
    return WindowShownAt(window, centre);
}

bool BringToFront(IUIAutomationElement* element) {
    if (Preferences::getInstance().getFlag(tolva::PREF_FRONT_VIA_FOCUS)) {
        ElementPtr top = ElementPtr::attach(GetTopParent(element));
        TOLVA_LOG(logger, 9, "top: " << static_cast<void*>(top.get()));
        if (top) {
            SetControlFocus(top.get());
            return true;
        }
    }
    HWND window = GetHwndParent(element, L"Window");
    if (!window) {
        return false;
    }
    if (GetForegroundWindow() == window) {
        return true;
    }
    bool done = SetForegroundWindow(window) != 0;
    TOLVA_LOG(logger, 9, "hWnd: " << static_cast<void*>(window) << ", fg: " << done);
    if (!done) {
        done = RaiseWindow(window);
    }
    return done;
}

// --- Scrolling -------------------------------------------------------------------

IUIAutomationScrollItemPattern* GetScrollItemPattern(IUIAutomationElement* element) {
    if (!element) {
        return nullptr;
    }
    ComPtr<IUIAutomationScrollItemPattern> pattern;
    ElementPtr current = ElementPtr::share(element);
    while (current) {
        if (SUCCEEDED(OpenPattern(current.get(), UIA_ScrollItemPatternId, pattern)) && pattern) {
            break;
        }
        pattern.reset();
        ElementPtr parent = ParentOf(current.get());
        TOLVA_LOG(logger, 9, "parent: " << static_cast<void*>(parent.get()));
        current = std::move(parent);
    }
    return pattern.detach();  // the caller's reference
}

bool ScrollIntoView(IUIAutomationElement* element) {
    ComPtr<IUIAutomationScrollItemPattern> pattern =
        ComPtr<IUIAutomationScrollItemPattern>::attach(GetScrollItemPattern(element));
    if (!pattern) {
        return false;
    }
    const HRESULT hr = pattern->ScrollIntoView();
    const bool done = hr == S_OK;
    if (!done) {
        TOLVA_LOG(logger, 3, "Scrolling did not succeed: " << std::hex << hr);
    }
    pattern.reset();
    TOLVA_LOG(logger, 9, "res: " << done);
    return done;
}

bool GetScrollPercent(IUIAutomationElement* element, double& horizontal, double& vertical) {
    return ReadScrollPair(element, &IUIAutomationScrollPattern::get_CurrentHorizontalScrollPercent,
                          &IUIAutomationScrollPattern::get_CurrentVerticalScrollPercent, horizontal, vertical);
}

bool GetViewSize(IUIAutomationElement* element, double& horizontal, double& vertical) {
    return ReadScrollPair(element, &IUIAutomationScrollPattern::get_CurrentHorizontalViewSize,
                          &IUIAutomationScrollPattern::get_CurrentVerticalViewSize, horizontal, vertical);
}

bool DoScroll(IUIAutomationElement* element, double horizontal, double vertical) {
    if (horizontal < 0) {
        horizontal = NO_SCROLL;
    }
    if (vertical < 0) {
        vertical = NO_SCROLL;
    }
    ComPtr<IUIAutomationScrollPattern> scroll;
    if (FAILED(OpenPattern(element, UIA_ScrollPatternId, scroll)) || !scroll) {
        return false;
    }
    const HRESULT hr = scroll->SetScrollPercent(horizontal, vertical);
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 3, "Scrolling failed: " << std::hex << hr);
    }
    return SUCCEEDED(hr);
}

}  // namespace UiaHelper
