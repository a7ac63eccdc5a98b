// The COM object that receives the target's UI Automation events, and the
// installation of everything that listens. The three event operations run on
// the platform's threads: they take what they need of the sender and post it
// to the dispatch queue, where the control table and Java may be used.
#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"
#include "dispatch/UiaEventQueue.h"
#include "element/UiaControl.h"
#include "recording/AutoEventPosters.h"
#include "uiahelper/UiaHelper.h"

#include <mutex>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

std::atomic<std::int32_t> mode{0x1F};

// lastWindowRid: the runtime id of the window last reported as opened,
// written by the platform's threads, several at once.
std::mutex windowRidLock;
std::wstring windowRid;

// The registrations on each top-level window, in their order.
enum class Registration { Automation, Properties, Structure };
struct WindowRegistration {
    std::int32_t needs;  // mode bit, 0 for always
    Registration kind;
    EVENTID eventId;
    TreeScope scope;
    const char* failure;
};
const WindowRegistration WINDOW_REGISTRATIONS[] = {
    {0, Registration::Automation, UIA_Window_WindowClosedEventId, TreeScope_Element,
     "Failed to register window closed handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_AsyncContentLoadedEventId, TreeScope_Subtree,
     "Failed to register invoke handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_Invoke_InvokedEventId, TreeScope_Subtree,
     "Failed to register invoke handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_LayoutInvalidatedEventId, TreeScope_Subtree,
     "Failed to register selected handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_MenuOpenedEventId, TreeScope_Subtree,
     "Failed to register selected handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_MenuClosedEventId, TreeScope_Subtree,
     "Failed to register selected handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_SelectionItem_ElementSelectedEventId, TreeScope_Subtree,
     "Failed to register selected handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_SelectionItem_ElementAddedToSelectionEventId,
     TreeScope_Subtree, "Failed to register add to selection handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_SelectionItem_ElementRemovedFromSelectionEventId,
     TreeScope_Subtree, "Failed to register remove from selection handler "},
    {LISTEN_AUTOMATION, Registration::Automation, UIA_Text_TextChangedEventId, TreeScope_Subtree,
     "Failed to register text changed handler "},
    {LISTEN_PROPERTIES, Registration::Properties, 0, TreeScope_Subtree,
     "Failed to register property changed handler "},
    {LISTEN_STRUCTURE, Registration::Structure, 0, TreeScope_Subtree,
     "Failed to register structure changed handler "},
};

PROPERTYID WATCHED_PROPERTIES[] = {
    UIA_AriaPropertiesPropertyId,
    UIA_AriaRolePropertyId,
    UIA_ExpandCollapseExpandCollapseStatePropertyId,
    UIA_SelectionItemIsSelectedPropertyId,
    UIA_ToggleToggleStatePropertyId,
    UIA_WindowWindowInteractionStatePropertyId,
};

// Hands work to the dispatch thread; after the connection's end there is
// none, and the work goes.
void post(Runnable* work) {
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->invokeLater(work);
    } else {
        delete work;
    }
}

std::wstring runtimeIdOf(IUIAutomationElement* element, HRESULT& hr) {
    std::wstring rid;
    hr = UiaHelper::GetControlRuntimeId(element, rid);
    return rid;
}

std::wstring valueOf(IUIAutomationElement* element) {
    std::wstring value;
    UiaHelper::GetControlValue(element, value);
    return value;
}

// The new value of a property as text: a string as it stands, a 32-bit
// number in decimal, anything else empty.
std::wstring textOf(const VARIANT& value) {
    if (value.vt == VT_BSTR) {
        return value.bstrVal ? std::wstring(value.bstrVal, SysStringLen(value.bstrVal)) : std::wstring();
    }
    if (value.vt == VT_I4) {
        return std::to_wstring(value.lVal);
    }
    return std::wstring();
}

void registerOnWindow(IUIAutomation* automation, IUIAutomationElement* window, UiaAutoEventHandler* handler,
                      std::int32_t installMode, bool& result) {
    for (const WindowRegistration& registration : WINDOW_REGISTRATIONS) {
        if (registration.needs && !(installMode & registration.needs)) {
            continue;
        }
        HRESULT hr = S_OK;
        switch (registration.kind) {
        case Registration::Automation:
            if (registration.eventId == UIA_AsyncContentLoadedEventId) {
                TOLVA_LOG(logger, 9, "add AutomationEventHandlers");
            }
            hr = automation->AddAutomationEventHandler(registration.eventId, window, registration.scope, nullptr,
                                                       static_cast<IUIAutomationEventHandler*>(handler));
            break;
        case Registration::Properties:
            TOLVA_LOG(logger, 9, "add PropertyChangedEventHandler");
            hr = automation->AddPropertyChangedEventHandlerNativeArray(
                window, registration.scope, nullptr, static_cast<IUIAutomationPropertyChangedEventHandler*>(handler),
                WATCHED_PROPERTIES, static_cast<int>(sizeof WATCHED_PROPERTIES / sizeof WATCHED_PROPERTIES[0]));
            break;
        case Registration::Structure:
            TOLVA_LOG(logger, 9, "add StructureChangedEventHandler");
            hr = automation->AddStructureChangedEventHandler(
                window, registration.scope, nullptr, static_cast<IUIAutomationStructureChangedEventHandler*>(handler));
            break;
        }
        if (FAILED(hr)) {
            TOLVA_LOG(logger, 1, registration.failure << std::hex << hr);
            result = false;
        }
    }
}

// Window opened on the desktop's children, which reports the windows of
// every process; false if the root can't be had or the handler isn't taken.
bool registerWindowOpened(IUIAutomation* automation, UiaAutoEventHandler* handler, std::int32_t installMode) {
    ComPtr<IUIAutomationElement> root;
    HRESULT hr = automation->GetRootElement(root.put());
    if (FAILED(hr) || !root) {
        TOLVA_LOG(logger, 1, "No root");
        return false;
    }
    TOLVA_LOG(logger, 9, "root: " << static_cast<void*>(root.get()));
    if (installMode & LISTEN_AUTOMATION) {
        TOLVA_LOG(logger, 9, "add WindowOpenedEventHandler");
        hr = automation->AddAutomationEventHandler(UIA_Window_WindowOpenedEventId, root.get(), TreeScope_Children,
                                                   nullptr, static_cast<IUIAutomationEventHandler*>(handler));
        if (FAILED(hr)) {
            TOLVA_LOG(logger, 1, "Failed to register window opened handler " << std::hex << hr);
            return false;
        }
    }
    return true;
}

void startWinEvents(std::int32_t installMode) {
    UiaAutoEventHandler::winEventsOnThread = (installMode & LISTEN_WINEVENTS_ON_THREAD) != 0;
    if (!UiaAutoEventHandler::winEventsOnThread) {
        UiaAutoEventHandler::HookWinEvents(installMode);
        return;
    }
    UiaAutoEventHandler::winEventMode = installMode;
    DWORD threadId = 0;
    HANDLE thread = CreateThread(nullptr, 0x10000, UiaAutoEventHandler::WinEventThreadProc, nullptr, 0, &threadId);
    if (thread) {
        UiaAutoEventHandler::winEventThreadId = threadId;
        CloseHandle(thread);
    } else {
        TOLVA_LOG(logger, 1, "No thread for window events: " << GetLastError());
    }
}

}  // namespace

// --- the COM object --------------------------------------------------------------

UiaAutoEventHandler::UiaAutoEventHandler() {
    TOLVA_LOG(logger, 7, "");
}

UiaAutoEventHandler::~UiaAutoEventHandler() {
    TOLVA_LOG(logger, 7, "");
}

HRESULT STDMETHODCALLTYPE UiaAutoEventHandler::QueryInterface(REFIID iid, void** out) {
    if (!out) {
        return E_POINTER;
    }
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IUIAutomationEventHandler)) {
        *out = static_cast<IUIAutomationEventHandler*>(this);
    } else if (IsEqualIID(iid, IID_IUIAutomationPropertyChangedEventHandler)) {
        *out = static_cast<IUIAutomationPropertyChangedEventHandler*>(this);
    } else if (IsEqualIID(iid, IID_IUIAutomationStructureChangedEventHandler)) {
        *out = static_cast<IUIAutomationStructureChangedEventHandler*>(this);
    } else {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

ULONG STDMETHODCALLTYPE UiaAutoEventHandler::AddRef() {
    return refs_.fetch_add(1) + 1;
}

ULONG STDMETHODCALLTYPE UiaAutoEventHandler::Release() {
    const ULONG left = refs_.fetch_sub(1) - 1;
    if (left == 0) {
        TOLVA_LOG(logger, 5, "delete");
        delete this;
    }
    return left;
}

// --- the event operations, on the platform's threads -----------------------------
// None of them may let an exception out into the platform.

HRESULT STDMETHODCALLTYPE UiaAutoEventHandler::HandleAutomationEvent(IUIAutomationElement* sender, EVENTID eventId) {
    if (!sender) {
        return S_OK;
    }
    try {
        if (eventId == UIA_Window_WindowOpenedEventId) {
            int pid = 0;
            HRESULT hr = sender->get_CurrentProcessId(&pid);
            if (FAILED(hr)) {
                TOLVA_LOG(logger, 1, "Could not get the PID " << std::hex << hr);
                return S_OK;
            }
            if (pid != targetPid) {
                return S_OK;  // window opened comes for every process
            }
        }
        TOLVA_LOG(logger, 7, "sender: " << static_cast<void*>(sender) << ", id: " << eventId << " ("
                                        << automationEventName(eventId) << ")");
        HRESULT hr = S_OK;
        const std::wstring rid = runtimeIdOf(sender, hr);
        TOLVA_LOG(logger, 9, "rid: " << rid << ", n: " << UiaHelper::GetControlName(sender));
        switch (eventId) {
        case UIA_Text_TextChangedEventId:
            TOLVA_LOG(logger, 10, "text: " << valueOf(sender));
            break;
        case UIA_Window_WindowOpenedEventId:
            if (!exchangeLastWindowRid(rid)) {
                return S_OK;  // reported already
            }
            UiaHelper::GetControlName(sender);
            post(new AutoEventHandlersInstaller(targetPid));
            break;
        case UIA_Window_WindowClosedEventId:
            exchangeLastWindowRid(L"");
            post(new AutoEventHandlersInstaller(targetPid));
            break;
        default:
            break;
        }
        // A closed window is looked up at dispatch as it stands then, as always.
        const bool ridHolds = SUCCEEDED(hr) && eventId != UIA_Window_WindowClosedEventId;
        post(new UiaAutoEventPoster(sender, eventId, 0, L"", ridHolds ? rid : std::wstring()));
    } catch (...) {
        TOLVA_LOG(logger, 1, "Event lost: " << eventId);
    }
    return S_OK;
}

HRESULT STDMETHODCALLTYPE UiaAutoEventHandler::HandlePropertyChangedEvent(IUIAutomationElement* sender,
                                                                        PROPERTYID propertyId, VARIANT newValue) {
    if (!sender) {
        return S_OK;
    }
    try {
        TOLVA_LOG(logger, 7, "sender: " << static_cast<void*>(sender) << ", prop: " << propertyId
                                        << ", vt: " << newValue.vt);
        std::wstring text;
        HRESULT hr = S_OK;
        std::wstring rid = runtimeIdOf(sender, hr);
        if (SUCCEEDED(hr)) {
            TOLVA_LOG(logger, 9, "rid: " << rid << ", name: " << UiaHelper::GetControlName(sender));
            text = textOf(newValue);
            TOLVA_LOG(logger, 9, "v: " << text);
        }
        post(new UiaAutoEventPoster(sender, EVENT_PROPERTY_CHANGED, propertyId, std::move(text),
                                    SUCCEEDED(hr) ? std::move(rid) : std::wstring()));
    } catch (...) {
        TOLVA_LOG(logger, 1, "Event lost: " << propertyId);
    }
    return S_OK;
}

HRESULT STDMETHODCALLTYPE UiaAutoEventHandler::HandleStructureChangedEvent(IUIAutomationElement* sender,
                                                                         StructureChangeType changeType,
                                                                         SAFEARRAY*) {
    if (!sender) {
        return S_OK;
    }
    try {
        TOLVA_LOG(logger, 7, "sender: " << static_cast<void*>(sender) << ", ct: " << changeType);
        TOLVA_LOG(logger, 10, "cls: " << UiaHelper::GetControlClassName(sender));
        post(new UiaAutoEventPoster(sender, EVENT_STRUCTURE_CHANGED, changeType, L""));
    } catch (...) {
        TOLVA_LOG(logger, 1, "Event lost: " << changeType);
    }
    return S_OK;
}

bool UiaAutoEventHandler::exchangeLastWindowRid(const std::wstring& rid) {
    std::lock_guard<std::mutex> guard(windowRidLock);
    if (windowRid == rid) {
        return false;
    }
    windowRid = rid;
    return true;
}

// --- the listener mode and the installation, on the dispatch thread --------------

std::int32_t UiaAutoEventHandler::listenersMode() {
    return mode;
}

std::int32_t UiaAutoEventHandler::setListenersMode(std::int32_t newMode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << newMode);
    TOLVA_LOG(logger, 9, "prev mode: 0x" << std::hex << mode.load());
    mode = newMode;
    return newMode;
}

bool UiaAutoEventHandler::InstallAutoEventHandlers(std::int32_t pid, std::int32_t installMode) {
    TOLVA_LOG(logger, 7, "pid: " << pid << ", mode: 0x" << std::hex << installMode);
    bool result = true;
    targetPid = pid;
    if (!eventHandler) {
        eventHandler = new UiaAutoEventHandler();
    }
    const AutomationRef automationObject = automation();
    if (!automationObject) {
        TOLVA_LOG(logger, 1, "No automation object");
        return false;
    }
    if (!registerWindowOpened(automationObject.get(), eventHandler, installMode)) {
        result = false;
    }
    const Array<std::intptr_t> toplevels = UiaControl::getToplevels(pid, viaHwnd, L"");
    hasToplevels = toplevels.size() > 0;
    if (!hasToplevels) {
        TOLVA_LOG(logger, 5, "No toplevels");
        return false;
    }
    for (std::intptr_t handle : toplevels) {
        ControlRef control = UiaControl::acquire(handle);
        ComPtr<IUIAutomationElement> window = control ? control->getElement() : nullptr;
        if (!window) {
            continue;  // gone meanwhile
        }
        TOLVA_LOG(logger, 9, "target: " << *control);
        registerOnWindow(automationObject.get(), window.get(), eventHandler, installMode, result);
    }
    startWinEvents(installMode);
    return result;
}

void UiaAutoEventHandler::UninstallAutoEventHandlers() {
    TOLVA_LOG(logger, 7, "");
    if (eventHandler) {
        if (const AutomationRef automationObject = automation()) {
            automationObject->RemoveAllEventHandlers();
        }
        eventHandler->Release();
        eventHandler = nullptr;
    }
    if (!winEventsOnThread) {
        UnhookWinEvents();
    } else {
        QuitWinEventThread(winEventThreadId);
        Sleep(100);
    }
}

}  // namespace tolva
