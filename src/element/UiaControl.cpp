#include "element/UiaControl.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "uiahelper/UiaHelper.h"

#include <map>
#include <mutex>
#include <ostream>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaControl");

const std::size_t SHORT_NAME_LENGTH = 16;

// The name matches ".*\d+$" as a whole, with ECMAScript's meanings: '.' is
// any character but a line terminator, and \d one of 0 to 9. Plain code, as a
// regular-expression engine may recurse once per character of the name.
bool EndsInDigit(const std::wstring& name) {
    if (name.empty() || name.back() < L'0' || name.back() > L'9') {
        return false;
    }
    return name.find_first_of(L"\n\r\u2028\u2029") == std::wstring::npos;
}

// The table: key to control, and the set of the controls in it, so that a
// handle is tested without a walk. Only the functions of this file touch
// them, and only with the lock held.
struct Table {
    std::mutex lock;
    std::map<std::wstring, UiaControl*> byKey;
    std::unordered_set<const UiaControl*> standing;
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
    IUIAutomationElement* element = nullptr;  // only its address is written
    std::wstring name;
    {
        std::lock_guard<std::mutex> guard(control.lock_);
        element = control.element_.get();
        name = control.name_;
    }
    out << narrow(control.type) << "@" << std::hex << reinterpret_cast<std::uintptr_t>(&control) << "<el="
        << reinterpret_cast<std::uintptr_t>(element) << std::dec;
    if (!control.id.empty()) {
        out << ",id=" << narrow(control.id);
    }
    if (!name.empty()) {
        out << ",name=" << narrow(name);
    }
    return out << "/>";
}

ControlRef& ControlRef::operator=(ControlRef&& other) noexcept {
    if (this != &other) {
        reset();
        control_ = other.control_;
        other.control_ = nullptr;
    }
    return *this;
}

void ControlRef::reset() {
    if (control_) {
        control_->dropUse();
        control_ = nullptr;
    }
}

void UiaControl::dropUse() {
    if (uses_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

UiaControl::UiaControl(IUIAutomationElement* newElement) : element_(ComPtr<IUIAutomationElement>::share(newElement)) {
    if (!newElement) {
        TOLVA_LOG(logger, 3, "No element");
        return;
    }
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
}

void UiaControl::setElement(IUIAutomationElement* newElement) {
    if (!newElement) {
        TOLVA_LOG(logger, 3, "No element");
        return;
    }
    // The reference is taken first (the new and the old may be one object),
    // and the old one given up outside the lock.
    ComPtr<IUIAutomationElement> taken = ComPtr<IUIAutomationElement>::share(newElement);
    {
        std::lock_guard<std::mutex> guard(lock_);
        std::swap(element_, taken);
    }
}

ComPtr<IUIAutomationElement> UiaControl::getElement() const {
    std::lock_guard<std::mutex> guard(lock_);
    return element_;
}

void UiaControl::cacheName(const std::wstring& full) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (full.compare(0, SHORT_NAME_LENGTH, name_, 0, SHORT_NAME_LENGTH) == 0) {
            return;
        }
        name_.assign(full, 0, SHORT_NAME_LENGTH);
        if (full.size() > SHORT_NAME_LENGTH) {
            name_ += L"...";
        }
    }
    TOLVA_LOG(logger, 9, "new name: " << *this);
}

std::wstring UiaControl::shortName() const {
    std::lock_guard<std::mutex> guard(lock_);
    return name_;
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
    ComPtr<IUIAutomationElement> parentElement =
        parent ? parent->getElement() : ComPtr<IUIAutomationElement>::attach(UiaHelper::GetParent(element));

    std::wstring id;
    if (bounds.left == 0 && bounds.top == 0 && bounds.right == 0 && bounds.bottom == 0) {
        id = name;  // no location for an element without bounds
    } else {
        if (!name.empty()) {
            if (type != L"ROW" || EndsInDigit(name) ||
                preferences.getFlag(PREF_RID_APPEND_ROW_NAME)) {
                id = name;
            }
        }
        if (id.empty() || type == L"SplitButton" || type == L"Button" || type == L"TabItem" ||
            preferences.getFlag(PREF_RID_APPEND_LOC)) {
            id += LocationText(bounds, parentElement.get());
        }
    }
    ControlRef parentInUse;
    if (!parent) {
        parentInUse = getControlInUse(parentElement.get(), std::wstring(), nullptr);
    }
    UiaControl* parentControl = parent ? parent : parentInUse.get();
    if (parentControl) {
        // The key the parent control was made under: a control that another
        // thread has taken out of the table meanwhile still knows it.
        id = parentControl->key_ + L"_" + id;
    }
    return id;
}

std::wstring UiaControl::buildKey(IUIAutomationElement* element, std::wstring& type, UiaControl* parent,
                                  const std::wstring* knownId, std::wstring& name, bool& nameRead,
                                  bool& found) {
    Preferences& preferences = Preferences::getInstance();
    std::wstring id;
    if (knownId) {
        id = *knownId;
    } else {
        HRESULT hr = UiaHelper::GetControlRuntimeId(element, id);
        if (FAILED(hr)) {
            TOLVA_LOG(logger, 3, "Failed to get an id " << std::hex << hr);
            id.clear();
        }
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
    std::wstring key;
    key.reserve(type.size() + 1 + id.size());
    key.append(type).append(1, L'_').append(id);
    return key;
}

UiaControl* UiaControl::getControl(IUIAutomationElement* element, std::wstring type, UiaControl* parent) {
    return getControlInUse(element, std::move(type), parent).get();
}

ControlRef UiaControl::getControlInUse(IUIAutomationElement* element, std::wstring type, UiaControl* parent) {
    return findOrMake(element, std::move(type), parent, nullptr);
}

ControlRef UiaControl::getControlInUse(IUIAutomationElement* element, std::wstring type, UiaControl* parent,
                                       const std::wstring& runtimeId) {
    return findOrMake(element, std::move(type), parent, &runtimeId);
}

ControlRef UiaControl::findOrMake(IUIAutomationElement* element, std::wstring type, UiaControl* parent,
                                  const std::wstring* knownId) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", type: " << type
                                << ", p: " << static_cast<void*>(parent));
    std::wstring name;
    bool nameRead = false;
    bool found = false;
    const std::wstring key = buildKey(element, type, parent, knownId, name, nameRead, found);
    if (!found) {
        return ControlRef();
    }
    ControlRef hit;
    {
        std::lock_guard<std::mutex> guard(table().lock);
        auto entry = table().byKey.find(key);
        if (entry != table().byKey.end()) {
            entry->second->addUse();
            hit = ControlRef(entry->second);
        }
    }
    if (!hit) {
        auto* made = new UiaControl(element);
        made->key_ = key;
        {
            std::lock_guard<std::mutex> guard(table().lock);
            auto inserted = table().byKey.emplace(key, made);
            if (inserted.second) {
                table().standing.insert(made);
                made->addUse();
                TOLVA_LOG(logger, 5, "c: " << *made << ", rid: " << key);
                return ControlRef(made);
            }
            inserted.first->second->addUse();  // another thread made it meanwhile
            hit = ControlRef(inserted.first->second);
        }
        made->dropUse();
    }
    // A control found under the key takes the new element. It may have left
    // the table meanwhile; the use keeps it whole until this is done.
    hit->setElement(element);
    hit->cacheName(nameRead ? name : UiaHelper::GetControlName(element));
    TOLVA_LOG(logger, 10, "c: " << *hit.get() << ", rid: " << key);
    return hit;
}

bool UiaControl::isValidHandle(std::intptr_t handle) {
    if (handle == 0) {
        return false;
    }
    std::lock_guard<std::mutex> guard(table().lock);
    return table().standing.count(reinterpret_cast<const UiaControl*>(handle)) != 0;
}

ControlRef UiaControl::acquire(std::intptr_t handle) {
    if (handle == 0) {
        return ControlRef();
    }
    std::lock_guard<std::mutex> guard(table().lock);
    auto found = table().standing.find(reinterpret_cast<const UiaControl*>(handle));
    if (found == table().standing.end()) {
        return ControlRef();
    }
    auto* control = const_cast<UiaControl*>(*found);
    control->addUse();
    return ControlRef(control);
}

std::wstring UiaControl::keyOf(const UiaControl* control) {
    std::lock_guard<std::mutex> guard(table().lock);
    return table().standing.count(control) != 0 ? control->key_ : std::wstring();
}

std::size_t UiaControl::size() {
    std::lock_guard<std::mutex> guard(table().lock);
    return table().byKey.size();
}

void UiaControl::remove(std::intptr_t handle) {
    UiaControl* control = nullptr;
    {
        std::lock_guard<std::mutex> guard(table().lock);
        auto found = table().standing.find(reinterpret_cast<const UiaControl*>(handle));
        if (found == table().standing.end()) {
            return;
        }
        control = const_cast<UiaControl*>(*found);
        table().byKey.erase(control->key_);
        table().standing.erase(found);
    }
    TOLVA_LOG(logger, 9, "delete " << *control);
    control->dropUse();
}

void UiaControl::removeControls() {
    std::vector<UiaControl*> all;
    {
        std::lock_guard<std::mutex> guard(table().lock);
        for (auto& entry : table().byKey) {
            all.push_back(entry.second);
        }
        table().byKey.clear();
        table().standing.clear();
    }
    TOLVA_LOG(logger, 9, "Deleting " << all.size() << " controls");
    for (UiaControl* control : all) {
        control->dropUse();
    }
}

}  // namespace tolva
