// The vocabulary of the platform as Java sees it (control-type, MSAA role and
// state names) and the small property getters.
#pragma once

#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

HRESULT GetControlProcessId(IUIAutomationElement* element, int* pid);  // 0 first; E_INVALIDARG for null
std::wstring GetControlClassName(IUIAutomationElement* element);       // empty on failure

}  // namespace UiaHelper
