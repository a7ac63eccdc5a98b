// Reading and writing a control's attributes by name, its class names, and
// the members that list relatives and search below it. All numbers, flags and
// lists reach Java as text.
#include "element/UiaControl.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "uiahelper/Regex.h"
#include "uiahelper/UiaHelper.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <unordered_map>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaControl");

const wchar_t* const CLASS_NAME_SEPARATOR = L"\r;";
const wchar_t* const GRID_ITEM_PREFIX = L"griditem";
const std::size_t GRID_ITEM_PREFIX_LENGTH = 8;
const int REAL_BUFFER = 32;

// The digits from `at` on, and the position behind them.
std::size_t DigitsFrom(const std::wstring& text, std::size_t at) {
    while (at < text.size() && text[at] >= L'0' && text[at] <= L'9') {
        ++at;
    }
    return at;
}

// The whole name is "griditem_<digits>_<digits>"; the two runs of digits.
bool SplitGridItemName(const std::wstring& attribute, std::wstring& column, std::wstring& row) {
    const std::wstring prefix = std::wstring(GRID_ITEM_PREFIX) + L"_";
    if (attribute.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    const std::size_t columnEnd = DigitsFrom(attribute, prefix.size());
    if (columnEnd == prefix.size() || columnEnd >= attribute.size() || attribute[columnEnd] != L'_') {
        return false;
    }
    const std::size_t rowEnd = DigitsFrom(attribute, columnEnd + 1);
    if (rowEnd == columnEnd + 1 || rowEnd != attribute.size()) {
        return false;
    }
    column = attribute.substr(prefix.size(), columnEnd - prefix.size());
    row = attribute.substr(columnEnd + 1);
    return true;
}

// A new string for the caller, who deletes it with delete[].
wchar_t* newText(const std::wstring& text) {
    auto* copy = new wchar_t[text.size() + 1];
    text.copy(copy, text.size());
    copy[text.size()] = L'\0';
    return copy;
}

// A 32-bit value (or a pointer of this build) as a signed 64-bit decimal, so
// that a value with the top bit set reads negative, as in a Java long.
std::wstring decimal(std::intptr_t value) {
    return std::to_wstring(static_cast<long long>(value));
}

std::wstring flag(bool value) {
    return value ? L"1" : L"0";
}

std::wstring real(double value) {
    wchar_t buffer[REAL_BUFFER];
    std::swprintf(buffer, REAL_BUFFER, L"%g", value);
    buffer[REAL_BUFFER - 1] = L'\0';
    return buffer;
}

std::wstring pair(const UiaHelper::GridPair& numbers) {
    return std::to_wstring(numbers[0]) + L"," + std::to_wstring(numbers[1]);
}

std::wstring handleText(UiaControl* control) {
    return decimal(reinterpret_cast<std::intptr_t>(control));
}

// One of the three values of the RangeValue pattern; null without the pattern
// or when the read fails.
wchar_t* rangeText(IUIAutomationElement* element, int which) {
    double values[3] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::quiet_NaN()};
    if (FAILED(UiaHelper::GetRangeValue(element, values[0], values[1], values[2])) || std::isnan(values[which])) {
        return nullptr;
    }
    return newText(real(values[which]));
}

// The scroll attributes: one read gives both values of a pair, -1 when the
// element has no Scroll pattern.
std::wstring scrollText(IUIAutomationElement* element, bool (*read)(IUIAutomationElement*, double&, double&),
                        bool horizontal) {
    double h = -1.0;
    double v = -1.0;
    read(element, h, v);
    return real(horizontal ? h : v);
}

// What a reader of one attribute works on: the control, and its element for
// the length of the read.
struct Reading {
    UiaControl& control;
    IUIAutomationElement* element;
};

}  // namespace

// --- reading ----------------------------------------------------------------------

wchar_t* UiaControl::getAttribute(const std::wstring& attribute) {
    TOLVA_LOG(logger, 7, *this << ", name: " << attribute);
    using Reader = std::function<wchar_t*(const Reading&)>;
    auto text = [](std::wstring (*read)(IUIAutomationElement*)) {
        return Reader([read](const Reading& r) { return newText(read(r.element)); });
    };
    static const std::unordered_map<std::wstring, Reader> readers = {
        {L"name",
         [](const Reading& r) {
             std::wstring full = UiaHelper::GetControlName(r.element);
             r.control.cacheName(full);
             return newText(full);
         }},
        {L"classnames",
         [](const Reading& r) {
             std::wstring joined;
             const Array<std::wstring> names = r.control.getClassNames();
             for (std::int32_t i = 0; i < names.size(); ++i) {
                 joined += (i > 0 ? CLASS_NAME_SEPARATOR : L"") + names[i];
             }
             return newText(joined);
         }},
        {L"hwnd",
         [](const Reading& r) {
             // Window handles carry 32 bits in either build, sign-extended
             // as the system does.
             const auto window = reinterpret_cast<std::intptr_t>(UiaHelper::GetControlHwnd(r.element));
             return newText(decimal(static_cast<std::int32_t>(window)));
         }},
        {L"rid",
         [](const Reading& r) -> wchar_t* {
             std::wstring id;
             if (FAILED(UiaHelper::GetControlRuntimeId(r.element, id))) {
                 return nullptr;
             }
             return newText(id);
         }},
        {L"rid2",
         [](const Reading& r) {
             return newText(r.control.key().empty() ? UiaHelper::NAME_NOT_READ : r.control.key());
         }},
        {L"id", [](const Reading& r) { return newText(r.control.id); }},
        {L"framework", text(UiaHelper::GetControlFrameworkId)},
        {L"element",
         [](const Reading& r) { return newText(decimal(reinterpret_cast<std::intptr_t>(r.element))); }},
        {L"aria-props", text(UiaHelper::GetControlAriaProperties)},
        {L"aria-role", text(UiaHelper::GetControlAriaRole)},
        {L"desc", text(UiaHelper::GetControlFullDescription)},
        {L"enabled", [](const Reading& r) { return newText(flag(UiaHelper::IsControlEnabled(r.element))); }},
        {L"focus", [](const Reading& r) { return newText(flag(UiaHelper::HasControlFocus(r.element))); }},
        {L"help", text(UiaHelper::GetControlHelpText)},
        {L"level", [](const Reading& r) { return newText(decimal(UiaHelper::GetControlLevel(r.element))); }},
        {L"orientation",
         [](const Reading& r) { return newText(decimal(UiaHelper::GetControlOrientation(r.element))); }},
        {L"pid",
         [](const Reading& r) {
             int pid = 0;
             UiaHelper::GetControlProcessId(r.element, &pid);
             return newText(decimal(pid));
         }},
        {L"provider", text(UiaHelper::GetControlProviderDescription)},
        {L"visible", [](const Reading& r) { return newText(flag(!UiaHelper::IsControlOffscreen(r.element))); }},
        {L"patterns", text(UiaHelper::GetControlPatterns)},
        {L"expanded", [](const Reading& r) { return newText(decimal(UiaHelper::GetExpandState(r.element))); }},
        {L"colrow", [](const Reading& r) { return newText(pair(UiaHelper::GetGridItemColumnAndRow(r.element))); }},
        {L"colrowcount",
         [](const Reading& r) { return newText(pair(UiaHelper::GetGridColumnAndRowCount(r.element))); }},
        {L"accdesc", text(UiaHelper::GetAccDescription)},
        {L"accstate", text(UiaHelper::GetAccStateNames)},
        {L"accvalue", text(UiaHelper::GetAccValue)},
        {L"hscrollpercent",
         [](const Reading& r) { return newText(scrollText(r.element, UiaHelper::GetScrollPercent, true)); }},
        {L"vscrollpercent",
         [](const Reading& r) { return newText(scrollText(r.element, UiaHelper::GetScrollPercent, false)); }},
        {L"hviewsize", [](const Reading& r) { return newText(scrollText(r.element, UiaHelper::GetViewSize, true)); }},
        {L"vviewsize", [](const Reading& r) { return newText(scrollText(r.element, UiaHelper::GetViewSize, false)); }},
        {L"selected", [](const Reading& r) { return newText(flag(UiaHelper::IsSelected(r.element))); }},
        {L"colheaders",
         [](const Reading& r) {
             UiaHelper::ElementList headers = UiaHelper::GetColumnHeaders(r.element);
             std::wstring joined;
             for (std::size_t i = 0; i < headers.size(); ++i) {
                 joined += (i > 0 ? L"," : L"") + handleText(getControl(headers[i].get(), std::wstring(), nullptr));
             }
             return newText(joined);
         }},
        {L"text", text(UiaHelper::GetControlText)},
        {L"text:readonly", [](const Reading& r) { return newText(flag(UiaHelper::IsTextReadOnly(r.element))); }},
        {L"toggled", [](const Reading& r) { return newText(decimal(UiaHelper::GetToggleState(r.element))); }},
        {L"value",
         [](const Reading& r) -> wchar_t* {
             std::wstring value;
             if (FAILED(UiaHelper::GetControlValue(r.element, value))) {
                 return nullptr;
             }
             return newText(value);
         }},
        {L"rangevalue", [](const Reading& r) { return rangeText(r.element, 0); }},
        {L"rangemin", [](const Reading& r) { return rangeText(r.element, 1); }},
        {L"rangemax", [](const Reading& r) { return rangeText(r.element, 2); }},
        {L"interaction-state",
         [](const Reading& r) { return newText(decimal(UiaHelper::GetControlInteractionState(r.element))); }},
        {L"modal", [](const Reading& r) { return newText(flag(UiaHelper::IsControlModal(r.element))); }},
        {L"foreground",
         [](const Reading& r) {
             HWND window = UiaHelper::GetControlHwnd(r.element);
             return newText(flag(window && window == GetForegroundWindow()));
         }},
        {L"windowstyle",
         [](const Reading& r) {
             HWND window = UiaHelper::GetControlHwnd(r.element);
             return newText(decimal(window ? GetWindowLongW(window, GWL_STYLE) : 0));
         }},
        {L"throw exception",
         [](const Reading&) -> wchar_t* {
             // A deliberate fault on the calling thread, for testing the host's
             // handling of a crash in native code.
             std::printf("tid: %u\n", static_cast<unsigned>(GetCurrentThreadId()));
             std::fflush(stdout);
             volatile int* nowhere = nullptr;
             static_cast<void>(*nowhere);
             return nullptr;
         }},
    };

    wchar_t* result = nullptr;
    const ComPtr<IUIAutomationElement> element = getElement();
    auto reader = readers.find(attribute);
    if (reader != readers.end()) {
        result = reader->second(Reading{*this, element.get()});
    } else if (attribute.compare(0, GRID_ITEM_PREFIX_LENGTH, GRID_ITEM_PREFIX) == 0) {
        result = getGridItem(element.get(), attribute);
    }
    if (result) {
        TOLVA_LOG(logger, 9, "res: " << result);
    }
    return result;
}

// "griditem_<column>_<row>": the handle of the grid's item there, "0" when it
// can't be had; null for any other name of the family.
wchar_t* UiaControl::getGridItem(IUIAutomationElement* element, const std::wstring& attribute) {
    std::wstring columnDigits;
    std::wstring rowDigits;
    if (!SplitGridItemName(attribute, columnDigits, rowDigits)) {
        return nullptr;
    }
    const int column = _wtoi(columnDigits.c_str());
    const int row = _wtoi(rowDigits.c_str());
    const UiaHelper::ElementPtr item = UiaHelper::ElementPtr::attach(UiaHelper::GetGridItem(element, column, row));
    UiaControl* control = getControl(item.get(), std::wstring(), nullptr);
    return newText(handleText(control));
}

// --- writing ----------------------------------------------------------------------

bool UiaControl::setAttribute(const std::wstring& attribute, const std::wstring& value) {
    TOLVA_LOG(logger, 7, *this << ", name: " << attribute << ", value: " << value);
    const ComPtr<IUIAutomationElement> element = getElement();
    bool result = false;
    if (attribute == L"horizscroll" || attribute == L"vertscroll") {
        // A value that isn't a number is a failed write, not a fault that
        // would escape into the Java VM.
        double percent = 0.0;
        bool parsed = true;
        try {
            percent = std::stod(value);
        } catch (const std::exception& e) {
            TOLVA_LOG(logger, 9, "Not a number: " << value << " (" << e.what() << ")");
            parsed = false;
        }
        if (parsed) {
            result = attribute == L"horizscroll" ? UiaHelper::DoScroll(element.get(), percent, -1.0)
                                                 : UiaHelper::DoScroll(element.get(), -1.0, percent);
        }
    } else if (attribute == L"value") {
        result = UiaHelper::SetControlValue(element.get(), value);
    } else if (attribute == L"rangevalue") {
        result = SUCCEEDED(UiaHelper::SetRangeValue(element.get(), _wtof(value.c_str())));
    }
    if (!result) {
        TOLVA_LOG(logger, 9, "Failed to set the attribute " << attribute);
    }
    return result;
}

// --- class names and bounds ---------------------------------------------------------

std::wstring UiaControl::getClassName() {
    TOLVA_LOG(logger, 7, *this);
    const ComPtr<IUIAutomationElement> element = getElement();
    std::wstring className = UiaHelper::GetControlClassName(element.get());
    return className.empty() ? type : className;
}

Array<std::wstring> UiaControl::getClassNames() {
    TOLVA_LOG(logger, 7, *this);
    const ComPtr<IUIAutomationElement> element = getElement();
    std::wstring className = UiaHelper::GetControlClassName(element.get());
    if (className.empty()) {
        Array<std::wstring> names(1);
        names[0] = type;
        return names;
    }
    Array<std::wstring> names(2);
    names[0] = className;
    names[1] = type;
    return names;
}

RECT UiaControl::getBounds() {
    TOLVA_LOG(logger, 7, *this);
    const ComPtr<IUIAutomationElement> element = getElement();
    return UiaHelper::GetControlBounds(element.get());
}

HWND UiaControl::getHwnd() const {
    return UiaHelper::GetControlHwnd(getElement().get());
}

// --- relatives and searches ---------------------------------------------------------

UiaHelper::ElementList UiaControl::getChildren() {
    TOLVA_LOG(logger, 7, *this);
    const ComPtr<IUIAutomationElement> element = getElement();
    UiaHelper::ElementList children = UiaHelper::GetChildren(element.get());
    TOLVA_LOG(logger, 9, "len: " << children.size());
    return children;
}

IUIAutomationElement* UiaControl::getParent() {
    TOLVA_LOG(logger, 7, *this);
    const ComPtr<IUIAutomationElement> element = getElement();
    return UiaHelper::GetParent(element.get());
}

Array<std::intptr_t> UiaControl::controlsOf(UiaHelper::ElementList& elements, UiaControl* parent) {
    Array<std::intptr_t> controls(static_cast<std::int32_t>(elements.size()));
    for (std::size_t i = 0; i < elements.size(); ++i) {
        UiaControl* control = getControl(elements[i].get(), std::wstring(), parent);
        controls[static_cast<std::int32_t>(i)] = reinterpret_cast<std::intptr_t>(control);
        TOLVA_LOG(logger, 9, "c: " << static_cast<void*>(control));
    }
    elements.clear();
    return controls;
}

Array<std::intptr_t> UiaControl::getToplevels(int pid, bool viaHwnd, std::wstring classPattern) {
    TOLVA_LOG(logger, 7, "pid: " << pid << ", via hwnd: " << viaHwnd);
    UiaHelper::ElementList windows =
        viaHwnd ? UiaHelper::GetToplevelsForPidViaHWND(pid) : UiaHelper::GetToplevelsForPid(pid);
    if (Preferences::getInstance().getFlag(PREF_RESTRICT_TOPS_TO_CLASS) && !classPattern.empty()) {
        const UiaHelper::Regex pattern(classPattern);
        if (!pattern.valid()) {
            TOLVA_LOG(logger, 1, pattern.error());
        }
        for (std::size_t i = 0; i < windows.size();) {
            const std::wstring windowClass = UiaHelper::GetControlClassName(windows[i].get());
            if (pattern.matches(windowClass)) {
                ++i;
                continue;
            }
            TOLVA_LOG(logger, 9, "omit " << windowClass);
            windows.erase(windows.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    return controlsOf(windows, nullptr);
}

Array<std::intptr_t> UiaControl::getElementsByProperty(const std::wstring& property, const std::wstring& value) {
    TOLVA_LOG(logger, 7, *this << ", name: " << property << ", value: " << value);
    PROPERTYID id = 0;
    if (property == L"desc") {
        id = UIA_FullDescriptionPropertyId;
    } else if (property == L"id") {
        id = UIA_AutomationIdPropertyId;
    } else if (property == L"name") {
        id = UIA_NamePropertyId;
    } else if (property == L"type") {
        id = UIA_ControlTypePropertyId;
    } else {
        TOLVA_LOG(logger, 3, property << " not supported");
        return Array<std::intptr_t>();
    }
    const Variant wanted = id == UIA_ControlTypePropertyId
                               ? Variant(static_cast<LONG>(UiaHelper::ControlTypeIdFromName(value)))
                               : Variant(value);
    const ComPtr<IUIAutomationElement> element = getElement();
    UiaHelper::ElementList found =
        UiaHelper::GetElementsByProperty(element.get(), id, wanted.get(), TreeScope_Subtree);
    return controlsOf(found, nullptr);
}

Array<std::intptr_t> UiaControl::findAllWindows() {
    TOLVA_LOG(logger, 7, *this);
    const ComPtr<IUIAutomationElement> element = getElement();
    UiaHelper::ElementList windows = UiaHelper::FindAllWindows(element.get());
    return controlsOf(windows, nullptr);
}

}  // namespace tolva
