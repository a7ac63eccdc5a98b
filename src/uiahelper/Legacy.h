// What an element says through the MSAA bridge (the LegacyIAccessible pattern).
#pragma once

#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

// The MSAA child id; 0 without the pattern or on a failure.
int GetControlChildId(IUIAutomationElement* element);
// The names of the set MSAA state bits in ascending order, joined by ","; "NORMAL"
// for the state 0, "VALID" for 0x7FFFFFFF; empty without the pattern or on a failure.
std::wstring GetAccStateNames(IUIAutomationElement* element);
// The MSAA value; empty without the pattern or on a failure.
std::wstring GetAccValue(IUIAutomationElement* element);
// The MSAA description, or failing that the description of the accessible
// object at the element's top-left corner.
std::wstring GetAccDescription(IUIAutomationElement* element);

}  // namespace UiaHelper
