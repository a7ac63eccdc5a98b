// The native object behind every element handle. One process-wide table maps
// a stable text key to a control; the table owns every control, and a handle
// is a control's address, good exactly while the control stands in the table.
//
// Java threads and the dispatch thread use the table at once. It is guarded
// by a lock of its own, held only around table operations (never across a
// round trip to the target or a call into Java), and keeps the set of its
// controls beside the map, so that a handle check costs the same whatever
// the size of the table; each control knows the key it was made under. A control that a thread is using (a ControlRef) outlives
// its removal from the table until that use ends, and the element it holds is
// handed out with a reference of the caller's own, so that a concurrent read
// of the same widget, which swaps the element, can't pull it away.
#pragma once

#include "common/Array.h"
#include "uiahelper/Common.h"

#include <uiautomation.h>

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <string>

namespace tolva {

class UiaControl;

// One use of a control: while it is held, the control isn't deleted, even if
// it leaves the table meanwhile. Empty for a value that names no control.
class ControlRef {
public:
    ControlRef() = default;
    ~ControlRef() { reset(); }
    ControlRef(ControlRef&& other) noexcept : control_(other.control_) { other.control_ = nullptr; }
    ControlRef& operator=(ControlRef&& other) noexcept;
    ControlRef(const ControlRef&) = delete;
    ControlRef& operator=(const ControlRef&) = delete;

    explicit operator bool() const { return control_ != nullptr; }
    UiaControl* get() const { return control_; }
    UiaControl* operator->() const { return control_; }
    UiaControl& operator*() const { return *control_; }
    void reset();

private:
    friend class UiaControl;
    explicit ControlRef(UiaControl* control) : control_(control) {}
    UiaControl* control_ = nullptr;
};

class UiaControl {
public:
    explicit UiaControl(IUIAutomationElement* element);  // takes its own reference
    ~UiaControl();
    UiaControl(const UiaControl&) = delete;
    UiaControl& operator=(const UiaControl&) = delete;

    // The control of an element, found by its key or made; the caller keeps
    // its own reference. Null if no type can be found for the element.
    static UiaControl* getControl(IUIAutomationElement* element, std::wstring type, UiaControl* parent);
    // The same, with a use of the control for the caller: a control that
    // another thread may remove at once stays whole while the use is held.
    static ControlRef getControlInUse(IUIAutomationElement* element, std::wstring type, UiaControl* parent);
    // The same for an element whose runtime id the caller has read already,
    // as UiaHelper::GetControlRuntimeId gives it: the id isn't asked again.
    static ControlRef getControlInUse(IUIAutomationElement* element, std::wstring type, UiaControl* parent,
                                      const std::wstring& runtimeId);
    static bool isValidHandle(std::intptr_t handle);  // never touches the value
    // A use of the control behind a handle, or an empty one; never touches
    // the value unless it stands in the table.
    static ControlRef acquire(std::intptr_t handle);
    static void remove(std::intptr_t handle);
    static void removeControls();
    static std::size_t size();

    // The key under which a control stands; empty if it stands nowhere.
    static std::wstring keyOf(const UiaControl* control);
    // The key it was made under ("rid2"). It never changes, and a control in
    // use stays whole, so it holds even after another thread removed the
    // control from the table in the middle of a read.
    const std::wstring& key() const { return key_; }

    void setElement(IUIAutomationElement* element);  // takes its own reference
    void cacheName(const std::wstring& name);
    std::wstring shortName() const;

    // Attributes by name. getAttribute gives a new string that the caller
    // deletes with delete[], or null for an unknown name or a missing value.
    wchar_t* getAttribute(const std::wstring& name);
    bool setAttribute(const std::wstring& name, const std::wstring& value);
    // The window class, or the type for an element without one.
    std::wstring getClassName();
    // The window class (if any), then the type.
    Array<std::wstring> getClassNames();
    RECT getBounds();  // left, top, right, bottom

    // Relatives as elements, one reference each for the caller.
    UiaHelper::ElementList getChildren();
    IUIAutomationElement* getParent();
    // Searches below this control (itself included), as controls.
    Array<std::intptr_t> getElementsByProperty(const std::wstring& name, const std::wstring& value);
    Array<std::intptr_t> findAllWindows();
    // The top-level windows of a process as controls; with the preference set,
    // only those whose window class matches the pattern as a whole.
    static Array<std::intptr_t> getToplevels(int pid, bool viaHwnd, std::wstring classPattern);
    // Controls of elements, in order (0 for an element that can't be one);
    // empties the list.
    static Array<std::intptr_t> controlsOf(UiaHelper::ElementList& elements, UiaControl* parent);

    // The current element with a reference for the caller (null only for a
    // control made without one).
    ComPtr<IUIAutomationElement> getElement() const;
    // The control's handle: its address.
    std::intptr_t handle() const { return reinterpret_cast<std::intptr_t>(this); }
    std::wstring getType() const { return type; }
    std::wstring getId() const { return id; }
    HWND getHwnd() const;

    std::wstring type;  // as first seen; never refreshed
    std::wstring id;    // automation id as first seen; never refreshed

private:
    friend class ControlRef;
    friend std::ostream& operator<<(std::ostream& out, const UiaControl& control);
    void addUse() { uses_.fetch_add(1, std::memory_order_relaxed); }
    void dropUse();

    wchar_t* getGridItem(IUIAutomationElement* element, const std::wstring& attribute);
    // knownId: the runtime id as read already, or null to read it.
    static std::wstring buildKey(IUIAutomationElement* element, std::wstring& type, UiaControl* parent,
                                 const std::wstring* knownId, std::wstring& name, bool& nameRead, bool& found);
    static ControlRef findOrMake(IUIAutomationElement* element, std::wstring type, UiaControl* parent,
                                 const std::wstring* knownId);
    static std::wstring noIdKeyPart(IUIAutomationElement* element, const std::wstring& type, UiaControl* parent,
                                    std::wstring& name);

    mutable std::mutex lock_;  // guards element and name
    ComPtr<IUIAutomationElement> element_;
    std::wstring name_;  // at most 16 characters, "..." when the full name was longer
    std::wstring key_;   // the key it was made under; set before it enters the table
    // The table's ownership (1 while the control stands in it) and the uses
    // of threads; the control is deleted when this drops to 0.
    std::atomic<int> uses_{1};
};

// "Button@2f0c18<el=5e3a90,id=1001,name=OK/>"
std::ostream& operator<<(std::ostream& out, const UiaControl& control);

}  // namespace tolva
