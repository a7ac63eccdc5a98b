#include "uiahelper/UiaHelper.h"

#include <oleacc.h>

using tolva::ComPtr;

namespace UiaHelper {

int GetControlChildId(IUIAutomationElement* element) {
    int childId = 0;
    ComPtr<IUIAutomationLegacyIAccessiblePattern> legacy;
    if (SUCCEEDED(OpenPattern(element, UIA_LegacyIAccessiblePatternId, legacy)) && legacy) {
        int read = 0;
        if (SUCCEEDED(legacy->get_CurrentChildId(&read))) {
            childId = read;
        }
    }
    return childId;
}

std::wstring GetAccStateNames(IUIAutomationElement* element) {
    std::wstring names;
    ComPtr<IUIAutomationLegacyIAccessiblePattern> legacy;
    if (FAILED(OpenPattern(element, UIA_LegacyIAccessiblePatternId, legacy)) || !legacy) {
        return names;
    }
    DWORD state = 0;
    if (FAILED(legacy->get_CurrentState(&state))) {
        return names;
    }
    if (state == 0) {
        return ACC_STATE_NORMAL;
    }
    if (state == ACC_STATE_VALID_MASK) {
        return ACC_STATE_VALID;
    }
    for (size_t bit = 0; bit < ACC_STATE_NAMES.size(); ++bit) {
        if (state & (1UL << bit)) {
            if (!names.empty()) {
                names += L',';
            }
            names += ACC_STATE_NAMES[bit];
        }
    }
    return names;
}

}  // namespace UiaHelper

namespace UiaHelper {

std::wstring GetAccValue(IUIAutomationElement* element) {
    ComPtr<IUIAutomationLegacyIAccessiblePattern> legacy;
    if (FAILED(OpenPattern(element, UIA_LegacyIAccessiblePatternId, legacy)) || !legacy) {
        return std::wstring();
    }
    tolva::Bstr value;
    if (FAILED(legacy->get_CurrentValue(value.put()))) {
        return std::wstring();
    }
    return value.text();
}

std::wstring GetAccDescription(IUIAutomationElement* element) {
    std::wstring description;
    ComPtr<IUIAutomationLegacyIAccessiblePattern> legacy;
    if (SUCCEEDED(OpenPattern(element, UIA_LegacyIAccessiblePatternId, legacy)) && legacy) {
        tolva::Bstr read;
        if (SUCCEEDED(legacy->get_CurrentDescription(read.put()))) {
            description = read.text();
        }
    }
    if (!description.empty()) {
        return description;
    }
    // Without a description of its own, the accessible object at the
    // element's top-left corner may have one.
    const RECT bounds = GetControlBounds(element);
    tolva::ComPtr<IAccessible> accessible;
    tolva::Variant child;
    const POINT corner = {bounds.left, bounds.top};
    if (SUCCEEDED(AccessibleObjectFromPoint(corner, accessible.put(), child.put())) && accessible) {
        tolva::Bstr read;
        if (SUCCEEDED(accessible->get_accDescription(child.get(), read.put()))) {
            description = read.text();
        }
    }
    return description;
}

}  // namespace UiaHelper
