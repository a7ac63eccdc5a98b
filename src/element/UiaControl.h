// The native object behind every element handle. One process-wide table maps
// a stable text key to a control; the table owns every control, and a handle
// is a control's address, good exactly while the control stands in the table.
#pragma once

#include "bridge/Array.h"

#include <uiautomation.h>

#include <cstdint>
#include <map>
#include <string>

namespace tolva {

class UiaControl {
public:
    explicit UiaControl(IUIAutomationElement* element);  // takes its own reference
    ~UiaControl();
    UiaControl(const UiaControl&) = delete;
    UiaControl& operator=(const UiaControl&) = delete;

    static bool isValidHandle(std::intptr_t handle);
    static void remove(std::intptr_t handle);
    static void removeControls();

    void setElement(IUIAutomationElement* element);  // takes its own reference

    // Reading and writing by handle (the handle has been checked).
    static std::wstring getClassName(std::intptr_t handle);
    static Array<std::wstring> getClassNames(std::intptr_t handle);
    static RECT getBounds(std::intptr_t handle);
    // A new string that the caller deletes with delete[], or null.
    static wchar_t* getAttribute(std::intptr_t handle, const std::wstring& name);
    static bool setAttribute(std::intptr_t handle, const std::wstring& name, const std::wstring& value);

    IUIAutomationElement* element = nullptr;  // one counted reference, owned
    std::wstring type;
    std::wstring id;
    std::wstring name;

    static std::map<std::wstring, UiaControl*> controls;
};

}  // namespace tolva
