// Small getters of element properties: every read is a fresh call.
#include "uiahelper/UiaHelper.h"

#include "common/ComPtr.h"

#include <oleacc.h>

using tolva::Bstr;
using tolva::Variant;

namespace UiaHelper {

namespace {

// The name of a control-type id that the platform reported.
std::wstring ControlTypeName(CONTROLTYPEID id) {
    const CONTROLTYPEID row = id - FIRST_CONTROL_TYPE_ID;
    if (id < FIRST_CONTROL_TYPE_ID || row >= static_cast<CONTROLTYPEID>(CONTROL_TYPE_NAMES.size())) {
        return CONTROL_TYPE_UNKNOWN;
    }
    return CONTROL_TYPE_NAMES[static_cast<size_t>(row)];
}

// A BOOL property read with a preset value that also stands for a failure.
template <class Getter>
bool ReadFlag(IUIAutomationElement* element, Getter getter, bool whenUnread) {
    if (!element) {
        return whenUnread;
    }
    BOOL flag = whenUnread ? TRUE : FALSE;
    if (FAILED((element->*getter)(&flag))) {
        return whenUnread;
    }
    return flag == 1;
}

}  // namespace

HRESULT GetControlProcessId(IUIAutomationElement* element, int* pid) {
    *pid = 0;
    if (!element) {
        return E_INVALIDARG;
    }
    // A failed read leaves its output undefined: the 0 stays.
    int read = 0;
    const HRESULT hr = element->get_CurrentProcessId(&read);
    if (SUCCEEDED(hr)) {
        *pid = read;
    }
    return hr;
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

HRESULT GetControlType(IUIAutomationElement* element, std::wstring& type) {
    type.clear();
    if (!element) {
        return E_INVALIDARG;
    }
    CONTROLTYPEID id = 0;
    const HRESULT hr = element->get_CurrentControlType(&id);
    if (SUCCEEDED(hr)) {
        type = ControlTypeName(id);
    } else if (hr != E_ACCESSDENIED) {
        type = NAME_NOT_READ;
    }
    if (type == NAME_NOT_READ || type == CONTROL_TYPE_NAMES[UIA_CustomControlTypeId - FIRST_CONTROL_TYPE_ID]) {
        const std::wstring role = GetAccRoleName(element);
        if (role != NAME_NOT_READ && role != ACC_ROLE_NAMES[ROLE_SYSTEM_CLIENT - 1]) {
            type = role;
        }
    }
    return hr;
}

int GetControlTypeId(IUIAutomationElement* element) {
    if (!element) {
        return 0;
    }
    CONTROLTYPEID id = 0;
    if (FAILED(element->get_CurrentControlType(&id))) {
        return 0;
    }
    return id;
}

HWND GetControlHwnd(IUIAutomationElement* element) {
    if (!element) {
        return nullptr;
    }
    UIA_HWND window = nullptr;
    if (FAILED(element->get_CurrentNativeWindowHandle(&window))) {
        return nullptr;
    }
    return static_cast<HWND>(window);
}

std::wstring GetControlHelpText(IUIAutomationElement* element) {
    if (!element) {
        return std::wstring();
    }
    Bstr text;
    if (FAILED(element->get_CurrentHelpText(text.put()))) {
        return std::wstring();
    }
    return text.text();
}

std::wstring GetControlProviderDescription(IUIAutomationElement* element) {
    if (!element) {
        return std::wstring();
    }
    Variant description;
    if (FAILED(element->GetCurrentPropertyValue(UIA_ProviderDescriptionPropertyId, description.put()))) {
        return std::wstring();
    }
    // The string member, whatever the type tag says.
    const BSTR text = description.get().bstrVal;
    return text ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

int GetControlOrientation(IUIAutomationElement* element) {
    if (!element) {
        return -1;
    }
    OrientationType orientation = OrientationType_None;
    if (FAILED(element->get_CurrentOrientation(&orientation))) {
        return -1;
    }
    return orientation;
}

bool IsControlOffscreen(IUIAutomationElement* element) {
    return ReadFlag(element, &IUIAutomationElement::get_CurrentIsOffscreen, false);
}

bool IsControlEnabled(IUIAutomationElement* element) {
    return ReadFlag(element, &IUIAutomationElement::get_CurrentIsEnabled, true);
}

bool HasControlFocus(IUIAutomationElement* element) {
    return ReadFlag(element, &IUIAutomationElement::get_CurrentHasKeyboardFocus, false);
}

int GetControlLevel(IUIAutomationElement* element) {
    if (!element) {
        return -1;
    }
    Variant level;
    if (FAILED(element->GetCurrentPropertyValue(UIA_LevelPropertyId, level.put()))) {
        return -1;
    }
    // The integer member, whatever the type tag says.
    return level.get().lVal;
}

}  // namespace UiaHelper
