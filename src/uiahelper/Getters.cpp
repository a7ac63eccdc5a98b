// Small getters of element properties: every read is a fresh call.
#include "uiahelper/UiaHelper.h"

#include "uiahelper/ComPtr.h"

namespace UiaHelper {

HRESULT GetControlProcessId(IUIAutomationElement* element, int* pid) {
    *pid = 0;
    if (!element) {
        return E_INVALIDARG;
    }
    return element->get_CurrentProcessId(pid);
}

std::wstring GetControlClassName(IUIAutomationElement* element) {
    if (!element) {
        return std::wstring();
    }
    tolva::Bstr name;
    if (FAILED(element->get_CurrentClassName(name.put()))) {
        return std::wstring();
    }
    return name.text();
}

}  // namespace UiaHelper
