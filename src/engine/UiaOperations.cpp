// The reading operations that the natives call on the automation back end:
// handle checks, child lists with their omission rules, the flat attribute
// results, relatives, searches and top-level windows.
#include "engine/Uia.h"

#include "common/Logging.h"
#include "common/NullMarkers.h"
#include "element/UiaControl.h"
#include "engine/EngineRunnables.h"
#include "dispatch/UiaEventQueue.h"
#include "common/Preferences.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/UiaHelper.h"

#include <utility>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.Uia");

// An offscreen child is left out when it is an invisible whitespace, or when
// its MSAA states hold one of the listed words.
bool omitted(IUIAutomationElement* child) {
    if (!UiaHelper::IsControlOffscreen(child)) {
        return false;
    }
    std::wstring type;
    UiaHelper::GetControlType(child, type);
    const RECT bounds = UiaHelper::GetControlBounds(child);
    if (bounds.left == bounds.right && bounds.top == bounds.bottom && type == L"WHITESPACE") {
        TOLVA_LOG(logger, 9, "Omit invisible " << type);
        return true;
    }
    const std::wstring states = UiaHelper::GetAccStateNames(child);
    for (const std::wstring& entry : Preferences::getInstance().getList(PREF_OMIT_STATES)) {
        if (states.find(entry) != std::wstring::npos) {
            TOLVA_LOG(logger, 9, "Omit " << states);
            return true;
        }
    }
    return false;
}

// A handle as Java reads it in a flat result: the sign-extended value in decimal.
std::wstring decimalHandle(Handle handle) {
    return std::to_wstring(static_cast<long long>(handle));
}

// One entry per name, written from `slot` on: the attribute's text, or
// NULL_ATTRIBUTE where it has none. A control that couldn't be made (0), or
// that another thread has removed since, has no attributes.
void appendAttributes(Handle handle, NameList& names, std::wstring* slot) {
    ControlRef control = UiaControl::acquire(handle);
    for (std::int32_t j = 0; j < names.size(); ++j) {
        wchar_t* value = control && names[j] ? control->getAttribute(names[j]) : nullptr;
        if (value) {
            slot[j] = value;
            delete[] value;
        } else {
            slot[j] = NULL_ATTRIBUTE;
        }
    }
}

// The control of an element, or 0.
Handle handleOfElement(const UiaHelper::ElementPtr& element, const char* what) {
    if (!element) {
        return 0;
    }
    auto handle = reinterpret_cast<Handle>(UiaControl::getControl(element.get(), std::wstring(), nullptr));
    if (handle != 0) {
        TOLVA_LOG(logger, 9, what << std::hex << handle);
    }
    return handle;
}

}  // namespace

int Uia::checkHandle(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    if (!UiaControl::isValidHandle(handle)) {
        TOLVA_LOG(logger, 3, "Invalid handle");
        return 1;
    }
    ControlRef control = UiaControl::acquire(handle);
    if (!control) {
        return 1;  // removed by another thread since the test above
    }
    const ComPtr<IUIAutomationElement> element = control->getElement();
    bool gone = false;
    std::wstring type;
    HRESULT hr = UiaHelper::GetControlType(element.get(), type);
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 3, "Control does no longer exist (" << std::hex << hr << ")");
        gone = true;
    } else if (type != control->type) {
        TOLVA_LOG(logger, 3, "Control seems not to exist any longer");
        gone = true;
    }
    if (!gone && !UiaHelper::IsDesktopElement(element.get())) {
        const UiaHelper::ElementPtr parent = UiaHelper::ElementPtr::attach(UiaHelper::GetParent(element.get()));
        if (!parent) {
            TOLVA_LOG(logger, 3, "Control does not have a parent");
            gone = true;
        }
    }
    if (gone) {
        UiaControl::remove(handle);
        return 2;
    }
    return 0;
}

Array<Handle> Uia::getChildren(UiaControl& control) {
    UiaHelper::ElementList children = control.getChildren();
    UiaHelper::ElementList kept;
    kept.reserve(children.size());
    for (UiaHelper::ElementPtr& child : children) {
        if (!omitted(child.get())) {
            kept.push_back(std::move(child));
        }
    }
    return UiaControl::controlsOf(kept, &control);
}

Handle Uia::getParent(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    return handleOfElement(UiaHelper::ElementPtr::attach(control.getParent()), "p: ");
}

Handle Uia::getElementFromPoint(int x, int y) {
    TOLVA_LOG(logger, 7, "x: " << x << ", y: " << y);
    return handleOfElement(UiaHelper::ElementPtr::attach(UiaHelper::GetElementFromPoint(POINT{x, y})), "c: ");
}

Array<Handle> Uia::getToplevels() {
    return UiaControl::getToplevels(pid, viaHwnd, className);
}

Array<Handle> Uia::getElementsByProperty(UiaControl& control, const std::wstring& name, const std::wstring& value) {
    return control.getElementsByProperty(name, value);
}

Array<Handle> Uia::findAllWindows(UiaControl& control) {
    return control.findAllWindows();
}

Array<std::wstring> Uia::getChildrenWithAttributes(UiaControl& control, NameList& names) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    Array<Handle> children = getChildren(control);
    const std::int32_t stride = names.size() + 1;
    Array<std::wstring> flat(children.size() * stride);
    for (std::int32_t i = 0; i < children.size(); ++i) {
        flat[i * stride] = decimalHandle(children[i]);
        appendAttributes(children[i], names, &flat[i * stride + 1]);
    }
    return flat;
}

Array<std::wstring> Uia::getAttributes(UiaControl& control, NameList& names) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    Array<std::wstring> flat(names.size());
    appendAttributes(control.handle(), names, flat.begin());
    return flat;
}

void Uia::getHierarchyWithAttributes(UiaControl& control, NameList& names, Array<Handle>& excluded,
                                     std::vector<std::wstring>& out, int depth) {
    appendHierarchy(control.handle(), names, excluded, out, depth);
}

// The entries of a control and of its subtree. A child that couldn't be made
// (0), or that another thread has removed since, has no attributes and no
// subtree.
void Uia::appendHierarchy(Handle handle, NameList& names, Array<Handle>& excluded, std::vector<std::wstring>& out,
                          int depth) {
    for (Handle skipped : excluded) {
        if (skipped == handle) {
            TOLVA_LOG(logger, 9, std::hex << handle << " excluded");
            return;
        }
    }
    out.push_back(std::to_wstring(depth));
    out.push_back(decimalHandle(handle));
    TOLVA_LOG(logger, 9, depth << ", " << out.back());
    const std::size_t first = out.size();
    out.resize(first + static_cast<std::size_t>(names.size()));
    appendAttributes(handle, names, &out[first]);
    ControlRef control = UiaControl::acquire(handle);
    if (!control) {
        return;  // not a control (any longer): no subtree to list
    }
    Array<Handle> children = getChildren(*control);
    for (Handle child : children) {
        appendHierarchy(child, names, excluded, out, depth + 1);
    }
}

std::int32_t Uia::enableEventListeners(std::int32_t mode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << mode);
    if (mode == UiaAutoEventHandler::listenersMode()) {
        return mode;
    }
    // Without a connection there is nothing to install now; the mode holds
    // for the next one.
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->invokeNow(new EventHandlerRegistrator(this, mode));
    }
    UiaAutoEventHandler::setListenersMode(mode);
    return mode;
}

}  // namespace tolva
