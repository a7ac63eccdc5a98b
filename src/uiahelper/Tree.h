// Walking the element tree and finding elements and the target's top-level
// windows.
#pragma once

#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

ElementList GetToplevelsForPid(int pid);
ElementList GetToplevelsForPidViaHWND(int pid);
IUIAutomationElement* GetToplevelByClassName(const std::wstring& classRegex);

}  // namespace UiaHelper
