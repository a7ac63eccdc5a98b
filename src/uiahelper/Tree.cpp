// Walking the element tree in the raw view, and searching it.
#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "common/ComPtr.h"
#include "uiahelper/Regex.h"

#include <algorithm>
#include <utility>

using tolva::ComPtr;
using tolva::Preferences;

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

const int SCOPE_CHILDREN = TreeScope_Children;

// Line breaks count as blanks when a name is matched.
std::wstring NormalisedName(IUIAutomationElement* element) {
    std::wstring name = GetControlName(element);
    std::replace(name.begin(), name.end(), L'\n', L' ');
    std::replace(name.begin(), name.end(), L'\r', L' ');
    return name;
}

bool TypeFits(IUIAutomationElement* element, const std::wstring& type) {
    if (type.empty()) {
        return true;
    }
    std::wstring elementType;
    GetControlType(element, elementType);
    return elementType == type;
}

// The children of a frame window that belong to another process and match.
void AppendFrameHits(IUIAutomationElement* frame, IUIAutomationCondition* condition, const std::wstring& type,
                     const Regex& pattern, bool firstOnly, ElementList& hits) {
    int framePid = 0;
    GetControlProcessId(frame, &framePid);
    ComPtr<IUIAutomationElementArray> children;
    if (FAILED(frame->FindAll(TreeScope_Children, condition, children.put())) || !children) {
        return;
    }
    ForEachElement(children.get(), [&](ElementPtr child) {
        if (!TypeFits(child.get(), type)) {
            return true;
        }
        int childPid = 0;
        GetControlProcessId(child.get(), &childPid);
        const std::wstring name = NormalisedName(child.get());
        if (childPid != framePid && pattern.matches(name)) {
            hits.push_back(std::move(child));
            return !firstOnly;
        }
        return true;
    });
}

}  // namespace

bool EnumWindowsTraversalCallback::operator()(IUIAutomationElement* element, int depth) {
    CONTROLTYPEID type = 0;
    HRESULT hr = element->get_CurrentControlType(&type);
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 1, "No type for " << static_cast<void*>(element));
        return false;
    }
    if (type == UIA_WindowControlTypeId) {
        list_->push_back(ElementPtr::share(element));
    } else {
        const std::wstring className = GetControlClassName(element);
        for (const std::wstring& listed : Preferences::getInstance().getList(tolva::PREF_TOPLEVEL_CLASSES)) {
            if (className == listed) {
                list_->push_back(ElementPtr::share(element));
                TOLVA_LOG(logger, 9, "Added class " << className);
                break;
            }
        }
    }
    return type == UIA_WindowControlTypeId || (depth == 0 && type == UIA_PaneControlTypeId);
}

void TraverseTree(IUIAutomationElement* root, TraversalCallback& callback) {
    const tolva::AutomationRef automation = tolva::automation();
    if (!root || !automation) {
        return;
    }
    ComPtr<IUIAutomationTreeWalker> walker;
    automation->get_RawViewWalker(walker.put());
    if (!walker) {
        TOLVA_LOG(logger, 1, "Error: No walker");
        return;
    }
    TraverseSubtree(root, 0, walker.get(), callback);
}

void TraverseSubtree(IUIAutomationElement* element, int depth, IUIAutomationTreeWalker* walker,
                     TraversalCallback& callback) {
    if (!callback(element, depth)) {
        return;
    }
    ElementPtr child;
    walker->GetFirstChildElement(element, child.put());
    while (child) {
        TraverseSubtree(child.get(), depth + 1, walker, callback);
        ElementPtr next;  // a failing step leaves it null and ends the row
        walker->GetNextSiblingElement(child.get(), next.put());
        child = std::move(next);
    }
}

ElementList FindAllWindows(IUIAutomationElement* element) {
    ElementList windows;
    EnumWindowsTraversalCallback callback(&windows);
    TraverseTree(element, callback);
    return windows;
}

ElementList GetChildren(IUIAutomationElement* element) {
    ElementList children;
    if (!element) {
        return children;
    }
    const int limit = Preferences::getInstance().getInt(tolva::PREF_MAX_CHILDREN);
    std::wstring type;
    GetControlType(element, type);
    const bool comboBox = type == L"ComboBox";
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return children;
    }
    ComPtr<IUIAutomationTreeWalker> walker;
    HRESULT hr = automation->get_RawViewWalker(walker.put());
    if (FAILED(hr) || !walker) {
        TOLVA_LOG(logger, 1, "hr: " << std::hex << hr);
        return children;
    }
    ElementPtr child;
    hr = walker->GetFirstChildElement(element, child.put());
    int count = 1;
    while (SUCCEEDED(hr) && child) {
        if (comboBox) {
            const ElementPtr parent = ElementPtr::attach(GetParent(child.get()));
            if (IsDesktopElement(parent.get())) {
                TOLVA_LOG(logger, 5, "Child " << GetControlClassName(child.get()) << " is toplevel, ignore");
                break;
            }
        }
        ElementPtr next;
        if (limit <= 0 || count < limit) {
            hr = walker->GetNextSiblingElement(child.get(), next.put());
            ++count;
        }
        children.push_back(std::move(child));
        child = std::move(next);
    }
    return children;
}

bool HasAncestorWithPid(IUIAutomationElement* element, int pid) {
    if (!element) {
        return false;
    }
    ElementPtr current = ElementPtr::share(element);
    for (;;) {
        ComPtr<IUIAutomationElement> parent = ComPtr<IUIAutomationElement>::attach(GetParent(current.get()));
        if (!parent) {
            return false;
        }
        int parentPid = 0;
        if (SUCCEEDED(GetControlProcessId(parent.get(), &parentPid)) && parentPid == pid) {
            return true;
        }
        current = parent;
    }
}

bool ChildProcessCounts(IUIAutomationElement* element, int pid, tolva::Logger& logger, const char* caller) {
    if (!Preferences::getInstance().getFlag(tolva::PREF_REC_ELEMENT_WITH_DIFFERENT_PID) ||
        !HasAncestorWithPid(element, pid)) {
        return false;
    }
    TOLVA_LOG_AS(logger, 5, caller, "Found ancestor with PID");
    return true;
}

IUIAutomationElement* GetElementFromPoint(POINT point) {
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return nullptr;
    }
    IUIAutomationElement* element = nullptr;
    HRESULT hr = automation->ElementFromPoint(point, &element);
    TOLVA_LOG(logger, 9, "hr: " << std::hex << hr << ", el: " << static_cast<void*>(element));
    return element;
}

ElementList GetElementsByTypeAndName(IUIAutomationElement* root, const std::wstring& type,
                                     const std::wstring& nameRegex, bool firstOnly, int scope) {
    ElementList hits;
    const Regex pattern(nameRegex);
    if (!pattern.valid()) {
        TOLVA_LOG(logger, 1, pattern.error());
        return hits;
    }
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return hits;
    }
    ComPtr<IUIAutomationElement> desktop;
    if (!root) {
        if (FAILED(automation->GetRootElement(desktop.put())) || !desktop) {
            return hits;
        }
        root = desktop.get();
    }
    ComPtr<IUIAutomationCondition> condition;
    automation->CreateTrueCondition(condition.put());
    ComPtr<IUIAutomationElementArray> found;
    root->FindAll(static_cast<TreeScope>(scope), condition.get(), found.put());
    ForEachElement(found.get(), [&](ElementPtr element) {
        const bool hit = TypeFits(element.get(), type) && pattern.matches(NormalisedName(element.get()));
        if (hit) {
            hits.push_back(element);
            if (firstOnly) {
                return false;
            }
        }
        if (GetControlClassName(element.get()) == L"ApplicationFrameWindow" && scope == SCOPE_CHILDREN) {
            AppendFrameHits(element.get(), condition.get(), type, pattern, firstOnly, hits);
        }
        return true;
    });
    TOLVA_LOG(logger, 9, "count: " << hits.size());
    return hits;
}

IUIAutomationElement* GetElementByTypeAndName(IUIAutomationElement* root, const std::wstring& type,
                                              const std::wstring& nameRegex, int scope) {
    ElementList hits = GetElementsByTypeAndName(root, type, nameRegex, true, scope);
    return hits.empty() ? nullptr : hits.front().detach();
}

ElementList GetElementsByProperty(IUIAutomationElement* root, PROPERTYID property, const VARIANT& value,
                                  int scope) {
    ElementList found;
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return found;
    }
    ComPtr<IUIAutomationElement> desktop;
    if (!root) {
        if (FAILED(automation->GetRootElement(desktop.put())) || !desktop) {
            return found;
        }
        root = desktop.get();
    }
    ComPtr<IUIAutomationElementArray> array;
    {
        ComPtr<IUIAutomationCondition> condition;
        automation->CreatePropertyCondition(property, value, condition.put());
        if (condition) {
            root->FindAll(static_cast<TreeScope>(scope), condition.get(), array.put());
        }
    }
    if (array) {
        int length = 0;
        array->get_Length(&length);
        for (int i = 0; i < length; ++i) {
            ElementPtr element;
            array->GetElement(i, element.put());
            found.push_back(std::move(element));
        }
    }
    return found;
}

}  // namespace UiaHelper
