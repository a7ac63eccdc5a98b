// What every topic of the element helpers shares: the automation object and
// the element list.
#pragma once

#include "uiahelper/ComPtr.h"

#include <uiautomation.h>
#include <windows.h>

#include <vector>

namespace tolva {
// The one automation object of the process, made by the dispatch thread.
extern IUIAutomation* automationObject;
}  // namespace tolva

namespace UiaHelper {

using ElementList = std::vector<IUIAutomationElement*>;

// Releases every non-null entry and empties the list.
void ReleaseElements(ElementList& elements);

// Asks the element for a pattern by id, with the pattern's own interface. A
// success code with a null pattern means the element doesn't support it; a
// null element gives E_INVALIDARG.
template <class Pattern>
HRESULT OpenPattern(IUIAutomationElement* element, PATTERNID id, tolva::ComPtr<Pattern>& pattern) {
    if (!element) {
        return E_INVALIDARG;
    }
    return element->GetCurrentPatternAs(id, __uuidof(Pattern), reinterpret_cast<void**>(pattern.put()));
}

}  // namespace UiaHelper
