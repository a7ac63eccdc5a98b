// The native object behind every element handle. One process-wide table maps
// a stable text key to a control; the table owns every control, and a handle
// is a control's address, good exactly while the control stands in the table.
//
// The table is guarded by a lock of its own, held only around table
// operations (never across a call into the platform or into Java), and keeps
// a second index from control to key, so that a handle check costs the same
// whatever the size of the table.
#pragma once

#include "bridge/Array.h"

#include <uiautomation.h>

#include <cstdint>
#include <iosfwd>
#include <string>

namespace tolva {

class UiaControl {
public:
    explicit UiaControl(IUIAutomationElement* element);  // takes its own reference
    ~UiaControl();
    UiaControl(const UiaControl&) = delete;
    UiaControl& operator=(const UiaControl&) = delete;

    // The control of an element, found by its key or made; the caller keeps
    // its own reference. Null if no type can be found for the element.
    static UiaControl* getControl(IUIAutomationElement* element, std::wstring type, UiaControl* parent);
    static bool isValidHandle(std::intptr_t handle);  // never touches the value
    static void remove(std::intptr_t handle);
    static void removeControls();
    // The key under which a control stands ("rid2"); empty if it stands nowhere.
    static std::wstring keyOf(const UiaControl* control);
    static std::size_t size();

    void setElement(IUIAutomationElement* element);  // takes its own reference
    void cacheName(std::wstring name);

    // Reading and writing by handle (the handle has been checked).
    static std::wstring getClassName(std::intptr_t handle);
    static Array<std::wstring> getClassNames(std::intptr_t handle);
    static RECT getBounds(std::intptr_t handle);
    // A new string that the caller deletes with delete[], or null.
    static wchar_t* getAttribute(std::intptr_t handle, const std::wstring& name);
    static bool setAttribute(std::intptr_t handle, const std::wstring& name, const std::wstring& value);

    IUIAutomationElement* element = nullptr;  // one counted reference, owned
    std::wstring type;  // as first seen; never refreshed
    std::wstring id;    // automation id as first seen; never refreshed
    std::wstring name;  // at most 16 characters, "..." when the full name was longer

private:
    static std::wstring buildKey(IUIAutomationElement* element, std::wstring& type, UiaControl* parent,
                                 std::wstring& name, bool& nameRead, bool& found);
    static std::wstring noIdKeyPart(IUIAutomationElement* element, const std::wstring& type, UiaControl* parent,
                                    std::wstring& name);
};

// "Button@2f0c18<el=5e3a90,id=1001,name=OK/>"
std::ostream& operator<<(std::ostream& out, const UiaControl& control);

}  // namespace tolva
