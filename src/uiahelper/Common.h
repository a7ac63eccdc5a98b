// What every topic of the element helpers shares: the automation object and
// the element list.
#pragma once

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

}  // namespace UiaHelper
