#include "element/UiaControl.h"

#include "bridge/Logging.h"
#include "bridge/Preferences.h"
#include "uiahelper/UiaHelper.h"

#include <map>
#include <mutex>
#include <ostream>
#include <regex>
#include <unordered_map>
#include <vector>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaControl");

const std::size_t SHORT_NAME_LENGTH = 16;

// The table: key to control, and control to key. Only the functions of this
// file touch them, and only with the lock held.
struct Table {
    std::mutex lock;
    std::map<std::wstring, UiaControl*> byKey;
    std::unordered_map<const UiaControl*, std::wstring> keyOf;
};

Table& table() {
    static Table instance;
    return instance;
}

std::string narrow(const std::wstring& text) {
    if (text.empty()) {
        return std::string();
    }
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string result(size, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &result[0], size, nullptr, nullptr);
    return result;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const UiaControl& control) {
    out << narrow(control.type) << "@" << std::hex << reinterpret_cast<std::uintptr_t>(&control) << "<el="
        << reinterpret_cast<std::uintptr_t>(control.element) << std::dec;
    if (!control.id.empty()) {
        out << ",id=" << narrow(control.id);
    }
    if (!control.name.empty()) {
        out << ",name=" << narrow(control.name);
    }
    return out << "/>";
}

UiaControl::UiaControl(IUIAutomationElement* newElement) {
    element = newElement;
    if (!newElement) {
        TOLVA_LOG(logger, 3, "No element");
        return;
    }
    newElement->AddRef();
    HRESULT hr = UiaHelper::GetControlType(newElement, type);
    if (FAILED(hr)) {
        type.clear();
        TOLVA_LOG(logger, 3, *this << " failed to get a type " << std::hex << hr);
        return;
    }
    id = UiaHelper::GetControlAutomationId(newElement);
    cacheName(UiaHelper::GetControlName(newElement));
    TOLVA_LOG(logger, 7, *this);
}

UiaControl::~UiaControl() {
    TOLVA_LOG(logger, 7, *this);
    if (element) {
        element->Release();
    }
}

void UiaControl::setElement(IUIAutomationElement* newElement) {
    if (!newElement) {
        TOLVA_LOG(logger, 3, "No element");
        return;
    }
    newElement->AddRef();  // first: the new and the old may be one object
    if (element) {
        element->Release();
    }
    element = newElement;
}

void UiaControl::cacheName(std::wstring full) {
    if (full.compare(0, SHORT_NAME_LENGTH, name, 0, SHORT_NAME_LENGTH) == 0) {
        return;
    }
    name = full.substr(0, SHORT_NAME_LENGTH);
    if (full.size() > SHORT_NAME_LENGTH) {
        name += L"...";
    }
    TOLVA_LOG(logger, 9, "new name: " << *this);
}

// The location of an element relative to its parent, as the key shows it:
// x and y relative, then right and bottom less the relative x and y.
static std::wstring LocationText(const RECT& bounds, IUIAutomationElement* parent) {
    long x = bounds.left;
    long y = bounds.top;
    long r = bounds.right;
    long b = bounds.bottom;
    if (parent) {
        const RECT parentBounds = UiaHelper::GetControlBounds(parent);
        x = bounds.left - parentBounds.left;
        y = bounds.top - parentBounds.top;
        r = bounds.right - x;
        b = bounds.bottom - y;
    }
    return L"_" + std::to_wstring(x) + L"." + std::to_wstring(y) + L"." + std::to_wstring(r) + L"." +
           std::to_wstring(b);
}

std::wstring UiaControl::noIdKeyPart(IUIAutomationElement* element, const std::wstring& type, UiaControl* parent,
                                     std::wstring& name) {
    TOLVA_LOG(logger, 5, "empty id");
    Preferences& preferences = Preferences::getInstance();
    const RECT bounds = UiaHelper::GetControlBounds(element);
    name = UiaHelper::GetControlName(element);
    IUIAutomationElement* parentElement = parent ? parent->element : UiaHelper::GetParent(element);
    const bool ownParent = !parent && parentElement;

    std::wstring id;
    if (bounds.left == 0 && bounds.top == 0 && bounds.right == 0 && bounds.bottom == 0) {
        id = name;  // no location for an element without bounds
    } else {
        if (!name.empty()) {
            static const std::wregex endsInDigit(L".*\\d+$", std::regex::ECMAScript);
            if (type != L"ROW" || std::regex_match(name, endsInDigit) ||
                preferences.getFlag(PREF_RID_APPEND_ROW_NAME)) {
                id = name;
            }
        }
        if (id.empty() || type == L"SplitButton" || type == L"Button" || type == L"TabItem" ||
            preferences.getFlag(PREF_RID_APPEND_LOC)) {
            id += LocationText(bounds, parentElement);
        }
    }
    UiaControl* parentControl = parent ? parent : getControl(parentElement, std::wstring(), nullptr);
    if (parentControl) {
        id = keyOf(parentControl) + L"_" + id;
    }
    if (ownParent) {
        parentElement->Release();
    }
    return id;
}

std::wstring UiaControl::buildKey(IUIAutomationElement* element, std::wstring& type, UiaControl* parent,
                                  std::wstring& name, bool& nameRead, bool& found) {
    Preferences& preferences = Preferences::getInstance();
    std::wstring id;
    HRESULT hr = UiaHelper::GetControlRuntimeId(element, id);
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 3, "Failed to get an id " << std::hex << hr);
        id.clear();
    }
    if (!id.empty() && preferences.getFlag(PREF_RID_APPEND_CHILDID)) {
        const int childId = UiaHelper::GetControlChildId(element);
        if (childId != 0) {
            id += L"_" + std::to_wstring(childId);
        }
    }
    if (type.empty()) {
        UiaHelper::GetControlType(element, type);
        if (type.empty()) {
            TOLVA_LOG(logger, 3, "Couldn't get a type for " << id);
            found = false;
            return std::wstring();
        }
    }
    if (id.empty()) {
        id = noIdKeyPart(element, type, parent, name);
        nameRead = true;
    } else if (type == L"ROW" && preferences.getFlag(PREF_RID_APPEND_ROW_NAME)) {
        id += L"_" + UiaHelper::GetControlName(element);
    }
    found = true;
    return type + L"_" + id;
}

UiaControl* UiaControl::getControl(IUIAutomationElement* element, std::wstring type, UiaControl* parent) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", type: " << type
                                << ", p: " << static_cast<void*>(parent));
    std::wstring name;
    bool nameRead = false;
    bool found = false;
    const std::wstring key = buildKey(element, type, parent, name, nameRead, found);
    if (!found) {
        return nullptr;
    }
    UiaControl* control = nullptr;
    {
        std::lock_guard<std::mutex> guard(table().lock);
        auto hit = table().byKey.find(key);
        if (hit != table().byKey.end()) {
            control = hit->second;
        }
    }
    if (control) {
        control->setElement(element);
        control->cacheName(nameRead ? name : UiaHelper::GetControlName(control->element));
        TOLVA_LOG(logger, 10, "c: " << *control << ", rid: " << key);
        return control;
    }
    auto* made = new UiaControl(element);
    {
        std::lock_guard<std::mutex> guard(table().lock);
        auto inserted = table().byKey.emplace(key, made);
        if (inserted.second) {
            table().keyOf[made] = key;
            control = made;
        } else {
            control = inserted.first->second;  // another thread made it meanwhile
        }
    }
    if (control != made) {
        delete made;
        control->setElement(element);
    }
    TOLVA_LOG(logger, 5, "c: " << *control << ", rid: " << key);
    return control;
}

bool UiaControl::isValidHandle(std::intptr_t handle) {
    if (handle == 0) {
        return false;
    }
    std::lock_guard<std::mutex> guard(table().lock);
    return table().keyOf.count(reinterpret_cast<const UiaControl*>(handle)) != 0;
}

std::wstring UiaControl::keyOf(const UiaControl* control) {
    std::lock_guard<std::mutex> guard(table().lock);
    auto found = table().keyOf.find(control);
    return found == table().keyOf.end() ? std::wstring() : found->second;
}

std::size_t UiaControl::size() {
    std::lock_guard<std::mutex> guard(table().lock);
    return table().byKey.size();
}

void UiaControl::remove(std::intptr_t handle) {
    UiaControl* control = nullptr;
    {
        std::lock_guard<std::mutex> guard(table().lock);
        auto found = table().keyOf.find(reinterpret_cast<const UiaControl*>(handle));
        if (found == table().keyOf.end()) {
            return;
        }
        control = const_cast<UiaControl*>(found->first);
        table().byKey.erase(found->second);
        table().keyOf.erase(found);
    }
    TOLVA_LOG(logger, 9, "delete " << *control);
    delete control;
}

void UiaControl::removeControls() {
    std::vector<UiaControl*> all;
    {
        std::lock_guard<std::mutex> guard(table().lock);
        for (auto& entry : table().byKey) {
            all.push_back(entry.second);
        }
        table().byKey.clear();
        table().keyOf.clear();
    }
    TOLVA_LOG(logger, 9, "Deleting " << all.size() << " controls");
    for (UiaControl* control : all) {
        delete control;
    }
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
