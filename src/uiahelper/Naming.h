// An element's identity and text: runtime id, name, value, automation id,
// framework, bounds and accessibility texts. A text of exactly
// LONG_TEXT_LIMIT characters is taken as possibly cut short, and the window's
// own text is tried instead.
#pragma once

#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

const int LONG_TEXT_LIMIT = 4096;

// Lower-case hex entries joined by "."; E_INVALIDARG for a null element.
HRESULT GetControlRuntimeId(IUIAutomationElement* element, std::wstring& id);
// The Value pattern's value into `value`; without the pattern a success code
// and `value` as it came in. The element must not be null.
HRESULT GetControlValue(IUIAutomationElement* element, std::wstring& value);
// True if the value was set; notifies the parent window in any case. The
// element must not be null.
bool SetControlValue(IUIAutomationElement* element, const std::wstring& value);
std::wstring GetControlName(IUIAutomationElement* element);
std::wstring GetControlAutomationId(IUIAutomationElement* element);
std::wstring GetControlFrameworkId(IUIAutomationElement* element);
std::wstring GetControlAriaRole(IUIAutomationElement* element);
std::wstring GetControlAriaProperties(IUIAutomationElement* element);
std::wstring GetControlFullDescription(IUIAutomationElement* element);
// Left, top, right, bottom; the failed bounds are {-1, 0, 0, 0}.
RECT GetControlBounds(IUIAutomationElement* element);
// The caption button ("Minimize", "Maximize", "Help", "Close") that a button
// of a title bar stands on, or empty.
std::wstring GetTitleBarButtonName(IUIAutomationElement* element);
// The text of the element's window, read with window messages.
std::wstring GetTextViaHWND(IUIAutomationElement* element);
std::wstring GetWindowTextViaMessage(HWND window);
// A text of exactly LONG_TEXT_LIMIT characters may have been cut: the
// element's window text replaces it when that is longer.
void ImproveLongText(IUIAutomationElement* element, std::wstring& text);

}  // namespace UiaHelper
