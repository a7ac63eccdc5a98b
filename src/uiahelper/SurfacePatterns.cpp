// The small readers and writers that go through a control pattern: the MSAA
// role and the range value.
#include "uiahelper/UiaHelper.h"

#include "common/ComPtr.h"

using tolva::ComPtr;

namespace UiaHelper {

std::wstring GetAccRoleName(IUIAutomationElement* element) {
    std::wstring name = NAME_NOT_READ;
    if (!element) {
        return name;
    }
    ComPtr<IUIAutomationLegacyIAccessiblePattern> legacy;
    if (FAILED(OpenPattern(element, UIA_LegacyIAccessiblePatternId, legacy)) || !legacy) {
        return name;
    }
    DWORD role = 0;
    if (SUCCEEDED(legacy->get_CurrentRole(&role)) && role >= 1 && role <= ACC_ROLE_NAMES.size()) {
        name = ACC_ROLE_NAMES[role - 1];
    }
    return name;
}

HRESULT GetRangeValue(IUIAutomationElement* element, double& value, double& minimum, double& maximum) {
    if (!element) {
        return E_INVALIDARG;
    }
    ComPtr<IUIAutomationRangeValuePattern> range;
    HRESULT hr = OpenPattern(element, UIA_RangeValuePatternId, range);
    if (FAILED(hr) || !range) {
        return hr;
    }
    hr = range->get_CurrentValue(&value);
    if (SUCCEEDED(hr)) {
        hr = range->get_CurrentMinimum(&minimum);
    }
    if (SUCCEEDED(hr)) {
        hr = range->get_CurrentMaximum(&maximum);
    }
    return hr;
}

HRESULT SetRangeValue(IUIAutomationElement* element, double value) {
    if (!element) {
        return E_INVALIDARG;
    }
    ComPtr<IUIAutomationRangeValuePattern> range;
    HRESULT hr = OpenPattern(element, UIA_RangeValuePatternId, range);
    if (FAILED(hr) || !range) {
        return hr;
    }
    hr = range->SetValue(value);
    if (FAILED(hr)) {
        return hr;
    }
    double taken = 0.0;
    hr = range->get_CurrentValue(&taken);
    if (SUCCEEDED(hr) && taken != value) {
        // The control clamped or rounded the value although it reported success.
        return E_FAIL;
    }
    return hr;
}

}  // namespace UiaHelper
