// Acting on one element through a control pattern or through the window
// system, and finding the window an element lives in.
#pragma once

#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

// Toggle modes of SetToggleState.
const int TOGGLE_ANY = 0;
const int TOGGLE_ON = 1;
const int TOGGLE_OFF = 2;

void SetControlFocus(IUIAutomationElement* element);
bool MoveControl(IUIAutomationElement* element, int x, int y);
bool ResizeControl(IUIAutomationElement* element, int width, int height);
bool CloseControl(IUIAutomationElement* element);
bool DoDefaultAction(IUIAutomationElement* element);
bool DoInvoke(IUIAutomationElement* element);
// 1 adds to the selection, -1 removes from it, anything else selects.
bool DoSelect(IUIAutomationElement* element, int mode);
// False, with no call, if the element is in the wanted state already.
bool DoExpand(IUIAutomationElement* element, bool expand);
// ExpandCollapseState, or -1 without the pattern.
int GetExpandState(IUIAutomationElement* element);
// ToggleState, or -1 without the pattern.
int GetToggleState(IUIAutomationElement* element);
// Toggles at most once, towards the mode (TOGGLE_ANY, TOGGLE_ON, TOGGLE_OFF).
bool SetToggleState(IUIAutomationElement* element, int mode);

// The ancestor (or the element itself) that is a child of the desktop, with a
// reference for the caller; null for the desktop and for orphans.
IUIAutomationElement* GetTopParent(IUIAutomationElement* element);
// The nearest window handle from the element up, of an element of the given
// control type (empty: any); never the desktop's.
HWND GetHwndParent(IUIAutomationElement* element, std::wstring type);
bool IsForeground(IUIAutomationElement* element);
bool BringToFront(IUIAutomationElement* element);

// The nearest ScrollItem pattern from the element up, with a reference for
// the caller, or null.
IUIAutomationScrollItemPattern* GetScrollItemPattern(IUIAutomationElement* element);
bool ScrollIntoView(IUIAutomationElement* element);
bool GetScrollPercent(IUIAutomationElement* element, double& horizontal, double& vertical);
bool GetViewSize(IUIAutomationElement* element, double& horizontal, double& vertical);
// A negative percentage leaves that axis as it is.
bool DoScroll(IUIAutomationElement* element, double horizontal, double vertical);

}  // namespace UiaHelper
