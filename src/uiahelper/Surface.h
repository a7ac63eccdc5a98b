// The vocabulary of the platform as Java sees it (control-type, MSAA role and
// state names) and the small property getters.
#pragma once

#include "uiahelper/Common.h"

#include <array>
#include <string>

namespace UiaHelper {

// --- Vocabulary ---------------------------------------------------------------

// A type, role or pattern name that couldn't be read.
const wchar_t* const NAME_NOT_READ = L"NN";
// A control-type id outside the table of control types.
const wchar_t* const CONTROL_TYPE_UNKNOWN = L"UNKNOWN";

// Control-type names, indexed by id minus FIRST_CONTROL_TYPE_ID.
const CONTROLTYPEID FIRST_CONTROL_TYPE_ID = UIA_ButtonControlTypeId;  // 50000
extern const std::array<const wchar_t*, 41> CONTROL_TYPE_NAMES;

// MSAA role names, indexed by role value minus 1 (ROLE_SYSTEM_TITLEBAR ..
// ROLE_SYSTEM_OUTLINEBUTTON).
extern const std::array<const wchar_t*, 64> ACC_ROLE_NAMES;

// MSAA state names, indexed by bit number (STATE_SYSTEM_UNAVAILABLE ..
// STATE_SYSTEM_HASPOPUP), and the two words for whole state values.
extern const std::array<const wchar_t*, 31> ACC_STATE_NAMES;
const wchar_t* const ACC_STATE_NORMAL = L"NORMAL";  // the state 0
const wchar_t* const ACC_STATE_VALID = L"VALID";    // the state ACC_STATE_VALID_MASK
const unsigned long ACC_STATE_VALID_MASK = 0x7FFFFFFF;

// The id of a control-type name (exact match, first row first), or -1.
int ControlTypeIdFromName(const std::wstring& name);
// The platform's programmatic name without "Pattern" ("Invoke"), or "NN".
std::wstring GetPatternName(PATTERNID pattern);
// The names of the supported patterns, each followed by a blank, after one
// leading blank: " Invoke Value ", or " " for none.
std::wstring GetControlPatterns(IUIAutomationElement* element);
// The MSAA role name through the LegacyIAccessible pattern, or "NN".
std::wstring GetAccRoleName(IUIAutomationElement* element);

// --- Small getters: a fresh read each, no logging -------------------------------

HRESULT GetControlProcessId(IUIAutomationElement* element, int* pid);  // 0 first; E_INVALIDARG for null
std::wstring GetControlClassName(IUIAutomationElement* element);       // empty on failure

// The control-type name (an MSAA role name for an unreadable or Custom type),
// and the code of the type read; E_INVALIDARG and empty for a null element.
HRESULT GetControlType(IUIAutomationElement* element, std::wstring& type);
int GetControlTypeId(IUIAutomationElement* element);                 // 0 for null or a failure
HWND GetControlHwnd(IUIAutomationElement* element);                  // null for null or a failure
std::wstring GetControlHelpText(IUIAutomationElement* element);      // empty on failure
std::wstring GetControlProviderDescription(IUIAutomationElement* element);  // empty on failure
int GetControlOrientation(IUIAutomationElement* element);            // -1 for null or a failure
bool IsControlOffscreen(IUIAutomationElement* element);              // false for null or a failure
bool IsControlEnabled(IUIAutomationElement* element);                // true for null or a failure
bool HasControlFocus(IUIAutomationElement* element);                 // false for null or a failure
int GetControlLevel(IUIAutomationElement* element);                  // -1 for null or a failure

// Value, minimum and maximum of the RangeValue pattern; the code of the last
// call made. Without the pattern a success code, and the outputs untouched.
HRESULT GetRangeValue(IUIAutomationElement* element, double& value, double& minimum, double& maximum);
// Sets the value and reads it back: E_FAIL if the control took another value.
// Without the pattern a success code.
HRESULT SetRangeValue(IUIAutomationElement* element, double value);

}  // namespace UiaHelper
