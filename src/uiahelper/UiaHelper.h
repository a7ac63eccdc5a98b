// Stateless operations on UI Automation elements. Functions that return an
// element give the caller one reference; elements passed in are borrowed.
// Element lists are in order of discovery, one reference per non-null entry.
#pragma once

#include <uiautomation.h>
#include <windows.h>

#include <string>
#include <vector>

namespace tolva {
// The one automation object of the process, made by the dispatch thread.
extern IUIAutomation* automationObject;
}  // namespace tolva

namespace UiaHelper {

using ElementList = std::vector<IUIAutomationElement*>;

// Small getters.
HRESULT GetControlProcessId(IUIAutomationElement* element, int* pid);  // 0 first; E_INVALIDARG for null
std::wstring GetControlClassName(IUIAutomationElement* element);       // empty on failure

// Finding the target's top-level windows.
ElementList GetToplevelsForPid(int pid);
ElementList GetToplevelsForPidViaHWND(int pid);
IUIAutomationElement* GetToplevelByClassName(const std::wstring& classRegex);

void ReleaseElements(ElementList& elements);

// The screen's scaling as a factor (1.5 at 150 %), read once per process.
double GetScalingFactor();

}  // namespace UiaHelper
