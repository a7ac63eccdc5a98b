// The operations that the natives call on the automation back end. Those whose
// helpers are not part of this build yet (attributes, actions, overlays)
// report so and give their defaults.
#include "engine/Uia.h"

#include "bridge/Logging.h"
#include "element/UiaControl.h"
#include "engine/EngineRunnables.h"
#include "engine/UiaEventQueue.h"
#include "bridge/Preferences.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/UiaHelper.h"

#include <regex>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.Uia");

void notYet(const char* operation) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << operation);
}

UiaControl* controlOf(Handle handle) {
    return reinterpret_cast<UiaControl*>(handle);
}

// The handles of the controls of these elements, made in order; releases the
// elements. An element that can't be made a control gives 0.
Array<Handle> handlesOf(UiaHelper::ElementList& elements, UiaControl* parent) {
    Array<Handle> handles(static_cast<std::int32_t>(elements.size()));
    for (std::size_t i = 0; i < elements.size(); ++i) {
        handles[static_cast<std::int32_t>(i)] =
            reinterpret_cast<Handle>(UiaControl::getControl(elements[i], std::wstring(), parent));
        TOLVA_LOG(logger, 9, "c: " << std::hex << handles[static_cast<std::int32_t>(i)]);
    }
    UiaHelper::ReleaseElements(elements);
    return handles;
}

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

// The control of an element, or 0; releases the element.
Handle handleOfElement(IUIAutomationElement* element, const char* what) {
    if (!element) {
        return 0;
    }
    auto handle = reinterpret_cast<Handle>(UiaControl::getControl(element, std::wstring(), nullptr));
    if (handle != 0) {
        TOLVA_LOG(logger, 9, what << std::hex << handle);
    }
    element->Release();
    return handle;
}

}  // namespace

int Uia::checkHandle(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    if (!UiaControl::isValidHandle(handle)) {
        TOLVA_LOG(logger, 3, "Invalid handle");
        return 1;
    }
    UiaControl* control = controlOf(handle);
    bool gone = false;
    std::wstring type;
    HRESULT hr = UiaHelper::GetControlType(control->element, type);
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 3, "Control does no longer exist (" << std::hex << hr << ")");
        gone = true;
    } else if (type != control->type) {
        TOLVA_LOG(logger, 3, "Control seems not to exist any longer");
        gone = true;
    }
    if (!gone && !UiaHelper::IsDesktopElement(control->element)) {
        IUIAutomationElement* parent = UiaHelper::GetParent(control->element);
        if (parent) {
            parent->Release();
        } else {
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

Array<Handle> Uia::getChildren(Handle handle) {
    UiaControl* control = controlOf(handle);
    UiaHelper::ElementList children = UiaHelper::GetChildren(control->element);
    TOLVA_LOG(logger, 9, "len: " << children.size());
    UiaHelper::ElementList kept;
    for (IUIAutomationElement* child : children) {
        if (omitted(child)) {
            child->Release();
        } else {
            kept.push_back(child);
        }
    }
    return handlesOf(kept, control);
}

Handle Uia::getParent(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    return handleOfElement(UiaHelper::GetParent(controlOf(handle)->element), "p: ");
}

Handle Uia::getElementFromPoint(int x, int y) {
    TOLVA_LOG(logger, 7, "x: " << x << ", y: " << y);
    return handleOfElement(UiaHelper::GetElementFromPoint(POINT{x, y}), "c: ");
}

Array<Handle> Uia::getToplevels() {
    TOLVA_LOG(logger, 7, "pid: " << pid << ", via hwnd: " << viaHwnd);
    UiaHelper::ElementList windows =
        viaHwnd ? UiaHelper::GetToplevelsForPidViaHWND(pid) : UiaHelper::GetToplevelsForPid(pid);
    if (Preferences::getInstance().getFlag(PREF_RESTRICT_TOPS_TO_CLASS) && !className.empty()) {
        const std::wregex pattern(className, std::regex::ECMAScript);
        for (std::size_t i = 0; i < windows.size();) {
            const std::wstring windowClass = UiaHelper::GetControlClassName(windows[i]);
            if (std::regex_match(windowClass, pattern)) {
                ++i;
                continue;
            }
            TOLVA_LOG(logger, 9, "omit " << windowClass);
            if (windows[i]) {
                windows[i]->Release();
            }
            windows.erase(windows.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    return handlesOf(windows, nullptr);
}

Array<Handle> Uia::getElementsByProperty(Handle, const std::wstring&, const std::wstring&) {
    notYet("getElementsByProperty");
    return Array<Handle>();
}

Array<Handle> Uia::findAllWindows(Handle handle) {
    UiaHelper::ElementList windows = UiaHelper::FindAllWindows(controlOf(handle)->element);
    return handlesOf(windows, nullptr);
}

Array<std::wstring> Uia::getChildrenWithAttributes(Handle, NameList&) {
    notYet("getChildrenWithAttributes");
    return Array<std::wstring>();
}

Array<std::wstring> Uia::getAttributes(Handle, NameList& names) {
    notYet("getAttributes");
    return Array<std::wstring>(names.size());
}

void Uia::getHierarchyWithAttributes(Handle, NameList&, Array<Handle>&, std::vector<std::wstring>&, int) {
    notYet("getHierarchyWithAttributes");
}


std::int32_t Uia::highlight(Handle, int, int) {
    notYet("highlight");
    return 0;
}

std::int32_t Uia::enableEventListeners(std::int32_t mode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << mode);
    if (mode == UiaAutoEventHandler::listenersMode()) {
        return mode;
    }
    UiaEventQueue::getInstance()->invokeNow(new EventHandlerRegistrator(this, mode));
    UiaAutoEventHandler::setListenersMode(mode);
    return mode;
}

void Uia::enableCheckMode(bool, std::int32_t) {
    notYet("enableCheckMode");
}

void Uia::enableRecordingMode(bool, std::int32_t) {
    notYet("enableRecordingMode");
}

void Uia::simulateMouseEvent(Handle, int, int, int, int, int, int) {
    notYet("simulateMouseEvent");
}

void Uia::simulateKeyStroke(Handle, wchar_t, int, int) {
    notYet("simulateKeyStroke");
}

void Uia::setFocus(Handle) {
    notYet("setFocus");
}

bool Uia::moveControl(Handle, int, int) {
    notYet("moveControl");
    return false;
}

bool Uia::resizeControl(Handle, int, int) {
    notYet("resizeControl");
    return false;
}

bool Uia::closeControl(Handle) {
    notYet("closeControl");
    return false;
}

bool Uia::bringToFront(Handle) {
    notYet("bringToFront");
    return false;
}

bool Uia::doDefaultAction(Handle) {
    notYet("doDefaultAction");
    return false;
}

bool Uia::invoke(Handle) {
    notYet("invoke");
    return false;
}

void Uia::select(Handle, int) {
    notYet("select");
}

bool Uia::toggle(Handle, int) {
    notYet("toggle");
    return false;
}

bool Uia::expand(Handle, int) {
    notYet("expand");
    return false;
}

bool Uia::scroll(Handle, double, double) {
    notYet("scroll");
    return false;
}

int Uia::scrollIntoView(Handle) {
    notYet("scrollIntoView");
    return 0;
}

}  // namespace tolva
