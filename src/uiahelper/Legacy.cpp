#include "uiahelper/UiaHelper.h"

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
