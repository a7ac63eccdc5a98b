// Walking the element tree and finding elements and the target's top-level
// windows.
#pragma once

#include "common/Logging.h"
#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

// The visitor of a walk: called with a borrowed element and its depth (0 for
// the root); true goes on into the element's children.
class TraversalCallback {
public:
    virtual ~TraversalCallback() = default;
    virtual bool operator()(IUIAutomationElement* element, int depth) = 0;
};

// Collects the windows of a subtree: elements of type Window, and elements
// whose class is listed in deskwright.toplevel.classes. Goes down only through
// windows, and through the root when that is a pane.
class EnumWindowsTraversalCallback : public TraversalCallback {
public:
    explicit EnumWindowsTraversalCallback(ElementList* list) : list_(list) {}
    bool operator()(IUIAutomationElement* element, int depth) override;

private:
    ElementList* list_;  // not owned
};

void TraverseTree(IUIAutomationElement* root, TraversalCallback& callback);
void TraverseSubtree(IUIAutomationElement* element, int depth, IUIAutomationTreeWalker* walker,
                     TraversalCallback& callback);
ElementList FindAllWindows(IUIAutomationElement* element);

// The children in the raw view, at most deskwright.max.children of them; a
// combo box's popup that hangs under the desktop ends the list.
ElementList GetChildren(IUIAutomationElement* element);
// True if an ancestor (not the element itself) has the process id; false
// for a null element.
bool HasAncestorWithPid(IUIAutomationElement* element, int pid);
// Whether an element of another process counts as the target's: when
// "deskwright.rec.element.with.different.pid" is exactly "true" and the
// target's process stands among its ancestors (a child process's window
// inside the target's). A find is logged at level 5 for the caller.
bool ChildProcessCounts(IUIAutomationElement* element, int pid, tolva::Logger& logger, const char* caller);
IUIAutomationElement* GetElementFromPoint(POINT point);
// Elements of a type name (empty: any) whose name matches the whole regex;
// a malformed regex finds nothing.
// A null root searches from the desktop; with scope 2 (children) the search
// also looks into frame windows that host another process's windows.
ElementList GetElementsByTypeAndName(IUIAutomationElement* root, const std::wstring& type,
                                     const std::wstring& nameRegex, bool firstOnly, int scope);
IUIAutomationElement* GetElementByTypeAndName(IUIAutomationElement* root, const std::wstring& type,
                                              const std::wstring& nameRegex, int scope);
ElementList GetElementsByProperty(IUIAutomationElement* root, PROPERTYID property, const VARIANT& value,
                                  int scope);
// The first top-level window whose text matches the whole regex, or null
// (also for a malformed regex).
IUIAutomationElement* GetToplevelByTitleViaHWND(const std::wstring& titleRegex);

// The parent in the raw view, or null (the desktop has none).
IUIAutomationElement* GetParent(IUIAutomationElement* element);
// True only if the platform reports the element equal to the desktop root.
bool IsDesktopElement(IUIAutomationElement* element);

ElementList GetToplevelsForPid(int pid);
ElementList GetToplevelsForPidViaHWND(int pid);
IUIAutomationElement* GetToplevelByClassName(const std::wstring& classRegex);

}  // namespace UiaHelper
