// What every topic of the element helpers shares: the automation object and
// the element list.
#pragma once

#include "common/ComPtr.h"

#include <uiautomation.h>
#include <windows.h>

#include <memory>
#include <vector>

namespace tolva {

// A use of the one automation object of the process. The object is made by
// the dispatch thread and given up at its end; a use keeps it alive until the
// use ends, so that a Java thread in the middle of a call can finish it.
using AutomationRef = std::shared_ptr<IUIAutomation>;

// A use of the current automation object; empty when there is none (before
// the first attach, after a detach, a failed attach or the target's end).
AutomationRef automation();
// The dispatch thread's side: takes over the caller's reference of a newly
// made object, and gives the current one up, handing back the last owner.
void installAutomation(IUIAutomation* created);
AutomationRef withdrawAutomation();

}  // namespace tolva

namespace UiaHelper {

using ElementPtr = tolva::ComPtr<IUIAutomationElement>;

// The class of a store app's core window, which its frame window hosts.
inline const wchar_t* const CORE_WINDOW_CLASS = L"Windows.UI.Core.CoreWindow";
// The elements of a walk or a search, in the order found; each non-null entry
// holds one reference, given up with the list.
using ElementList = std::vector<ElementPtr>;

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

// Visits the entries of an element array in order, each as an element of its
// own; an entry that can't be read, or is null, is passed over. The visit
// returns false to stop. A null array has no entries.
template <class Visit>
void ForEachElement(IUIAutomationElementArray* array, Visit&& visit) {
    int length = 0;
    if (!array || FAILED(array->get_Length(&length))) {
        return;
    }
    for (int i = 0; i < length; ++i) {
        ElementPtr element;
        if (SUCCEEDED(array->GetElement(i, element.put())) && element && !visit(std::move(element))) {
            return;
        }
    }
}

}  // namespace UiaHelper
