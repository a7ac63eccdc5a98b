// An element's identity and text.
#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "common/ComPtr.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <vector>

using tolva::Bstr;
using tolva::ComPtr;
using tolva::Preferences;

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

const RECT FAILED_BOUNDS = {-1, 0, 0, 0};
const DWORD MESSAGE_TIMEOUT_MS = 2000;
// The most characters read from a window's text. A window answers
// WM_GETTEXTLENGTH with whatever it likes, and the buffer is made before the
// text is seen: a claim beyond this reads the first this many characters.
const LONG_PTR WINDOW_TEXT_CAP = 1 << 24;
const int TITLEBARINFOEX_SIZE = 0x8C;

}  // namespace

void ImproveLongText(IUIAutomationElement* element, std::wstring& text) {
    std::wstring windowText = GetTextViaHWND(element);
    if (static_cast<int>(windowText.size()) > LONG_TEXT_LIMIT) {
        text = windowText;
    }
}

namespace {

std::wstring HexJoined(SAFEARRAY* ids, HRESULT& hr) {
    std::wstring text;
    int* data = nullptr;
    hr = SafeArrayAccessData(ids, reinterpret_cast<void**>(&data));
    if (FAILED(hr)) {
        return text;
    }
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(ids, 1, &lower);
    SafeArrayGetUBound(ids, 1, &upper);
    for (LONG i = lower; i <= upper; ++i) {
        wchar_t entry[16];
        std::swprintf(entry, 16, L"%x", static_cast<unsigned>(data[i - lower]));
        if (i > lower) {
            text += L'.';
        }
        text += entry;
    }
    SafeArrayUnaccessData(ids);
    return text;
}

// A text getter of the element: the text, or empty with a level-3 line.
template <class Getter>
std::wstring ReadText(IUIAutomationElement* element, Getter getter) {
    if (!element) {
        return std::wstring();
    }
    Bstr text;
    HRESULT hr = (element->*getter)(text.put());
    if (FAILED(hr) || !text.get()) {
        TOLVA_LOG(logger, 3, "Error: " << std::hex << hr);
        return std::wstring();
    }
    return text.text();
}

void NotifyParentWindow(IUIAutomationElement* element) {
    HWND edit = GetControlHwnd(element);
    if (!edit) {
        return;
    }
    HWND parent = ::GetParent(edit);
    if (!parent) {
        return;
    }
    const int id = _wtoi(GetControlAutomationId(element).c_str());
    if (id == 0) {
        return;
    }
    TOLVA_LOG(logger, 9, "Send notification for " << id);
    // The control id in the high half and EN_CHANGE in the low half, the other
    // way round from Windows' own layout; receivers see exactly this.
    const WPARAM wParam = (static_cast<WPARAM>(id & 0xFFFF) << 16) | 0x300;
    SendMessageW(parent, WM_COMMAND, wParam, reinterpret_cast<LPARAM>(edit));
}

}  // namespace

HRESULT GetControlRuntimeId(IUIAutomationElement* element, std::wstring& id) {
    HRESULT hr = E_INVALIDARG;
    id.clear();
    if (element) {
        SAFEARRAY* ids = nullptr;
        hr = element->GetRuntimeId(&ids);
        if (SUCCEEDED(hr) && ids) {
            id = HexJoined(ids, hr);
            SafeArrayDestroy(ids);
        }
    }
    if (Preferences::getInstance().getFlag(tolva::PREF_TEST_NONUNIQUE_RIDS)) {
        std::wstring type;
        GetControlType(element, type);
        const auto dot = id.rfind(L'.');
        if (type == L"TabItem" && dot != std::wstring::npos) {
            id.erase(dot);
        }
        TOLVA_LOG(logger, 9, "TEST:" << id);
    }
    return hr;
}

HRESULT GetControlValue(IUIAutomationElement* element, std::wstring& value) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element));
    ComPtr<IUIAutomationValuePattern> pattern;
    HRESULT hr = OpenPattern(element, UIA_ValuePatternId, pattern);
    if (FAILED(hr) || !pattern) {
        return hr;
    }
    Bstr text;
    hr = pattern->get_CurrentValue(text.put());
    if (SUCCEEDED(hr) && text.get()) {
        value = text.text();
        TOLVA_LOG(logger, 9, "len: " << value.size());
        if (static_cast<int>(value.size()) == LONG_TEXT_LIMIT) {
            ImproveLongText(element, value);
        }
    }
    return hr;
}

bool SetControlValue(IUIAutomationElement* element, const std::wstring& value) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", value: " << value);
    ComPtr<IUIAutomationValuePattern> pattern;
    HRESULT hr = OpenPattern(element, UIA_ValuePatternId, pattern);
    if (FAILED(hr) || !pattern) {
        return false;
    }
    BOOL readOnly = 1;
    hr = pattern->get_CurrentIsReadOnly(&readOnly);
    if (FAILED(hr) || readOnly != 0) {
        TOLVA_LOG(logger, 3, "Field is read-only or error: " << std::hex << hr);
        return false;
    }
    hr = pattern->SetValue(Bstr(value).get());
    const bool set = SUCCEEDED(hr);
    if (!set) {
        TOLVA_LOG(logger, 3, "Error setting value: " << std::hex << hr);
    }
    NotifyParentWindow(element);
    return set;
}

std::wstring GetControlName(IUIAutomationElement* element) {
    std::wstring name;
    if (element) {
        Bstr text;
        if (SUCCEEDED(element->get_CurrentName(text.put())) && text.get()) {
            name = text.text();
        }
    }
    if (static_cast<int>(name.size()) == LONG_TEXT_LIMIT) {
        ImproveLongText(element, name);
    } else if (name.empty() && GetControlTypeId(element) == UIA_WindowControlTypeId) {
        name = GetTextViaHWND(element);
    }
    if (Preferences::getInstance().getFlag(tolva::PREF_TEST_NONUNIQUE_ROW_NAMES)) {
        if (name.compare(0, 5, L"Zeile") == 0) {
            name = L"Zeile ohne Index";
        } else if (name.find(L"Zeile") != std::wstring::npos) {
            TOLVA_LOG(logger, 9, "get value for " << static_cast<void*>(element));
            GetControlValue(element, name);
        }
        TOLVA_LOG(logger, 9, static_cast<void*>(element) << ": " << name);
    }
    return name;
}

std::wstring GetControlAutomationId(IUIAutomationElement* element) {
    if (!element) {
        return std::wstring();
    }
    Bstr text;
    HRESULT hr = element->get_CurrentAutomationId(text.put());
    if (FAILED(hr) || !text.get()) {
        TOLVA_LOG(logger, 3, "Error: " << std::hex << hr);
        return std::wstring();
    }
    if (SysStringLen(text.get()) != 0) {
        return text.text();
    }
    if (GetControlTypeId(element) == UIA_ButtonControlTypeId) {
        return GetTitleBarButtonName(element);
    }
    return std::wstring();
}

std::wstring GetControlFrameworkId(IUIAutomationElement* element) {
    return ReadText(element, &IUIAutomationElement::get_CurrentFrameworkId);
}

std::wstring GetControlAriaRole(IUIAutomationElement* element) {
    return ReadText(element, &IUIAutomationElement::get_CurrentAriaRole);
}

std::wstring GetControlAriaProperties(IUIAutomationElement* element) {
    return ReadText(element, &IUIAutomationElement::get_CurrentAriaProperties);
}

std::wstring GetControlFullDescription(IUIAutomationElement* element) {
    if (!element) {
        return std::wstring();
    }
    tolva::Variant value;
    HRESULT hr = element->GetCurrentPropertyValue(UIA_FullDescriptionPropertyId, value.put());
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 3, "Error: " << std::hex << hr);
        return std::wstring();
    }
    // The string member is taken as it stands; an empty VARIANT has none.
    return value.text();
}

RECT GetControlBounds(IUIAutomationElement* element) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element));
    RECT bounds = FAILED_BOUNDS;
    if (element) {
        RECT read;
        HRESULT hr = element->get_CurrentBoundingRectangle(&read);
        if (SUCCEEDED(hr)) {
            bounds = read;
        } else {
            TOLVA_LOG(logger, 3, "Failed to get bounds: " << std::hex << hr);
        }
    }
    TOLVA_LOG(logger, 9, bounds.left << ", " << bounds.top << ", " << bounds.right << ", " << bounds.bottom);
    return bounds;
}

std::wstring GetTitleBarButtonName(IUIAutomationElement* element) {
    ComPtr<IUIAutomationElement> titleBar = ComPtr<IUIAutomationElement>::attach(GetParent(element));
    if (!titleBar) {
        return std::wstring();
    }
    std::wstring type;
    GetControlType(titleBar.get(), type);
    if (type != L"TitleBar") {
        return std::wstring();
    }
    HWND window = nullptr;
    {
        ComPtr<IUIAutomationElement> frame = ComPtr<IUIAutomationElement>::attach(GetParent(titleBar.get()));
        window = GetControlHwnd(frame.get());
    }
    const RECT bounds = GetControlBounds(element);
    const LONG x = bounds.left + (bounds.right - bounds.left) / 2;
    const LONG y = bounds.top + (bounds.bottom - bounds.top) / 2;
    TITLEBARINFOEX info = {};
    info.cbSize = TITLEBARINFOEX_SIZE;
    SendMessageW(window, WM_GETTITLEBARINFOEX, 0, reinterpret_cast<LPARAM>(&info));
    static const wchar_t* const names[] = {L"Minimize", L"Maximize", L"Help", L"Close"};
    for (int index = 2; index <= 5; ++index) {
        const RECT& button = info.rgrect[index];
        if (button.left <= x && x <= button.right && button.top <= y && y <= button.bottom) {
            return names[index - 2];
        }
    }
    return std::wstring();
}

std::wstring GetWindowTextViaMessage(HWND window) {
    DWORD_PTR answer = 0;
    if (!SendMessageTimeoutW(window, WM_GETTEXTLENGTH, 0, 0, SMTO_NORMAL, MESSAGE_TIMEOUT_MS, &answer) ||
        static_cast<LONG_PTR>(answer) <= 0) {
        return std::wstring();
    }
    const std::size_t length = static_cast<std::size_t>((std::min)(static_cast<LONG_PTR>(answer), WINDOW_TEXT_CAP));
    try {
        std::vector<wchar_t> buffer(length + 1, L'\0');
        SendMessageW(window, WM_GETTEXT, length + 1, reinterpret_cast<LPARAM>(buffer.data()));
        buffer.back() = L'\0';  // the text ends at its first null, and within the buffer
        return std::wstring(buffer.data());
    } catch (const std::bad_alloc&) {
        TOLVA_LOG(logger, 3, "No memory for a window text of " << length << " characters");
        return std::wstring();
    }
}

std::wstring GetTextViaHWND(IUIAutomationElement* element) {
    HWND window = GetControlHwnd(element);
    if (!window) {
        TOLVA_LOG(logger, 3, "unabled to get HWND");
        return std::wstring();
    }
    std::wstring text = GetWindowTextViaMessage(window);
    TOLVA_LOG(logger, 9, "Text from hwnd: " << text);
    return text;
}

}  // namespace UiaHelper
