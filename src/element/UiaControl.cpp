#include "element/UiaControl.h"

#include "bridge/Logging.h"

namespace tolva {

namespace {
Logger& logger = Log::getLogger("tolva.uia.UiaControl");
}  // namespace

std::map<std::wstring, UiaControl*> UiaControl::controls;

UiaControl::UiaControl(IUIAutomationElement* element) {
    setElement(element);
}

UiaControl::~UiaControl() {
    if (element) {
        element->Release();
    }
}

void UiaControl::setElement(IUIAutomationElement* newElement) {
    if (newElement) {
        newElement->AddRef();
    }
    if (element) {
        element->Release();
    }
    element = newElement;
}

bool UiaControl::isValidHandle(std::intptr_t handle) {
    if (handle == 0) {
        return false;
    }
    // Compares addresses only: the value is never dereferenced here.
    for (const auto& entry : controls) {
        if (reinterpret_cast<std::intptr_t>(entry.second) == handle) {
            return true;
        }
    }
    return false;
}

void UiaControl::remove(std::intptr_t handle) {
    for (auto it = controls.begin(); it != controls.end(); ++it) {
        if (reinterpret_cast<std::intptr_t>(it->second) == handle) {
            UiaControl* control = it->second;
            controls.erase(it);
            delete control;
            return;
        }
    }
}

void UiaControl::removeControls() {
    TOLVA_LOG(logger, 7, "count: " << controls.size());
    for (auto& entry : controls) {
        delete entry.second;
    }
    controls.clear();
}

// Attribute reading and writing and the class names are not part of this
// build yet.
std::wstring UiaControl::getClassName(std::intptr_t) {
    TOLVA_LOG(logger, 3, "Not yet implemented");
    return std::wstring();
}

Array<std::wstring> UiaControl::getClassNames(std::intptr_t) {
    TOLVA_LOG(logger, 3, "Not yet implemented");
    return Array<std::wstring>();
}

RECT UiaControl::getBounds(std::intptr_t) {
    TOLVA_LOG(logger, 3, "Not yet implemented");
    return RECT{-1, 0, 0, 0};
}

wchar_t* UiaControl::getAttribute(std::intptr_t, const std::wstring& name) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << name);
    return nullptr;
}

bool UiaControl::setAttribute(std::intptr_t, const std::wstring& name, const std::wstring&) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << name);
    return false;
}

}  // namespace tolva
