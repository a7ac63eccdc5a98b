// The system window events of the target (WinEvents, also called MSAA
// events): windows, dialogs and menus that come and go. The hooks are made
// out of context for the target's process only, on the dispatch thread (the
// callback then goes to Java at once) or on a thread of their own (the
// callback then posts a WinEventPoster to the dispatch queue).
#include "recording/UiaAutoEventHandler.h"

#include "common/ComPtr.h"
#include "common/Logging.h"
#include "dispatch/Runnable.h"
#include "dispatch/UiaEventQueue.h"
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"
#include "uiahelper/Surface.h"

#include <oleacc.h>

#include <deque>
#include <iterator>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

// --- names for the log ---------------------------------------------------------

// 0x8000 (EVENT_OBJECT_CREATE) to 0x8016.
const char* const OBJECT_EVENT_NAMES[] = {
    "CREATE",      "DESTROY",           "SHOW",           "HIDE",          "REORDER",
    "FOCUS",       "SELECTION",         "SELECTIONADD",   "SELECTIONREMOVE", "SELECTIONWITHIN",
    "STATECHANGE", "LOCATIONCHANGE",    "NAMECHANGE",     "DESCRIPTIONCHANGE", "VALUECHANGE",
    "PARENTCHANGE", "HELPCHANGE",       "DEFACTIONCHANGE", "ACCELERATORCHANGE", "INVOKED",
    "TEXTSELECTIONCHANGED", "CONTENTSCROLLED", "ARRANGMENTPREVIEW"};
// 1 (EVENT_SYSTEM_SOUND) to 23.
const char* const SYSTEM_EVENT_NAMES[] = {
    "SOUND",          "ALERT",           "FOREGROUND",     "MENUSTART",      "MENUEND",
    "MENUPOPUPSTART", "MENUPOPUPEND",    "CAPTURESTART",   "CAPTUREEND",     "MOVESIZESTART",
    "MOVESIZEEND",    "CONTEXTHELPSTART", "CONTEXTHELPEND", "DRAGDROPSTART", "DRAGDROPEND",
    "DIALOGSTART",    "DIALOGEND",       "SCROLLINGSTART", "SCROLLINGEND",   "SWITCHSTART",
    "SWITCHEND",      "MINIMIZESTART",   "MINIMIZEEND"};

static_assert(std::size(OBJECT_EVENT_NAMES) == 0x17, "0x8000 to 0x8016");
static_assert(std::size(SYSTEM_EVENT_NAMES) == 23, "1 to 23");

// The event's name, or its id in decimal.
std::string winEventName(DWORD event) {
    if (event >= EVENT_OBJECT_CREATE && event - EVENT_OBJECT_CREATE < std::size(OBJECT_EVENT_NAMES)) {
        return OBJECT_EVENT_NAMES[event - EVENT_OBJECT_CREATE];
    }
    if (event >= 1 && event <= std::size(SYSTEM_EVENT_NAMES)) {
        return SYSTEM_EVENT_NAMES[event - 1];
    }
    return std::to_string(event);
}

// --- what the thread that owns the hooks keeps ---------------------------------

struct RaisedEvent {
    DWORD event;
    HWND hwnd;
    LONG idObject;
    LONG idChild;
};

struct WinEventState {
    HWINEVENTHOOK hooks[4] = {};  // at most three are used
    // The last event that got past the first filter was FOREGROUND of an
    // "XLMAIN" window: the creates that follow it are not reported.
    bool excelForeground = false;
    // Windows whose client objects were created lately, with the clock then.
    std::vector<std::pair<HWND, std::int64_t>> recentWindows;
    // The system hands over the next event while one is being handled,
    // whenever the handler waits for the target (its accessible object is
    // asked for across the process boundary): such events wait here and are
    // handled after it, in the order they came.
    bool handling = false;
    std::deque<RaisedEvent> waiting;
};

// The state of the hooks made on the dispatch thread; a thread of their own
// keeps its state on its stack, so that a thread still on its way out never
// touches the hooks of the next one.
WinEventState dispatchState;
thread_local WinEventState* ownThreadState = nullptr;

WinEventState& hookState() {
    return ownThreadState ? *ownThreadState : dispatchState;
}

// Out of context, for the threads of the target's process only, which is
// never the driver's own: a hook for the own process would hear nothing but
// what it skips (WINEVENT_SKIPOWNPROCESS), so none is made for it. The flag
// itself is left out, as it adds nothing to a hook of another process, and
// Wine, taking the hook's process for its own, would skip every event.
void hookRange(WinEventState& state, int slot, DWORD pid, DWORD first, DWORD last) {
    if (state.hooks[slot]) {
        UnhookWinEvent(state.hooks[slot]);
    }
    state.hooks[slot] =
        SetWinEventHook(first, last, nullptr, UiaAutoEventHandler::HandleWinEvent, pid, 0, WINEVENT_OUTOFCONTEXT);
}

// True when a create of the same window came at most REPEAT_TICKS before
// now; drops the entries that are older than that and notes this one.
bool isRepeatedCreate(std::vector<std::pair<HWND, std::int64_t>>& recent, HWND window, std::int64_t now) {
    bool repeated = false;
    for (auto entry = recent.begin(); entry != recent.end();) {
        const std::int64_t age = now - entry->second;
        if (entry->first == window && age <= REPEAT_TICKS) {
            repeated = true;
            entry = recent.erase(entry);
        } else if (age > REPEAT_TICKS) {
            entry = recent.erase(entry);
        } else {
            ++entry;
        }
    }
    recent.emplace_back(window, now);
    return repeated;
}

// --- the accessible object of an event, for the log ------------------------------

std::wstring roleText(const VARIANT& role) {
    if (role.vt == VT_I4) {
        const LONG value = role.lVal;
        if (value >= 1 && static_cast<size_t>(value) <= UiaHelper::ACC_ROLE_NAMES.size()) {
            return UiaHelper::ACC_ROLE_NAMES[static_cast<size_t>(value - 1)];
        }
        return std::to_wstring(value);
    }
    return role.vt == VT_BSTR && role.bstrVal ? std::wstring(role.bstrVal, SysStringLen(role.bstrVal))
                                              : std::wstring();
}

// Asks the accessible object of the event's object, if there is one, for
// what `read` reads of it.
template <class Read>
void readAccessible(HWND hwnd, LONG idObject, LONG idChild, Read read) {
    ComPtr<IAccessible> accessible;
    Variant child;
    if (SUCCEEDED(AccessibleObjectFromEvent(hwnd, idObject, idChild, accessible.put(), child.put())) &&
        accessible) {
        read(accessible.get(), child.get());
    }
}

std::wstring accessibleName(HWND hwnd, LONG idObject, LONG idChild) {
    Bstr name;
    readAccessible(hwnd, idObject, idChild,
                   [&](IAccessible* accessible, const VARIANT& child) { accessible->get_accName(child, name.put()); });
    return name.text();
}

std::wstring accessibleRole(HWND hwnd, LONG idObject, LONG idChild) {
    Variant role;
    readAccessible(hwnd, idObject, idChild,
                   [&](IAccessible* accessible, const VARIANT& child) { accessible->get_accRole(child, role.put()); });
    return roleText(role.get());
}

// Whether the window's thread takes a message within a short time. The
// accessible object is asked of the target's window with messages that wait
// for its answer: a busy or hung target must not hold the thread of the
// hooks, which in the direct mode is the dispatch thread.
bool answers(HWND hwnd) {
    DWORD_PTR result = 0;
    return hwnd && SendMessageTimeoutW(hwnd, WM_NULL, 0, 0, SMTO_ABORTIFHUNG | SMTO_BLOCK, 100, &result) != 0;
}

std::int32_t javaInt(HWND window) {
    return static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(window));
}

// --- the filter ------------------------------------------------------------------

// Whether an event that got past the foreground rule goes up, and its arg.
bool passes(WinEventState& state, DWORD event, HWND hwnd, LONG idObject, LONG idChild,
            const std::wstring& className, std::int32_t& arg) {
    switch (event) {
    case EVENT_OBJECT_CREATE:
    case EVENT_OBJECT_DESTROY:
        // WPF's own windows, and the window objects themselves, are not what
        // a recording follows: only the items of a window's client area.
        if (className.find(L"HwndWrapper[") != std::wstring::npos || idObject != OBJID_CLIENT) {
            return false;
        }
        if (event == EVENT_OBJECT_CREATE && idChild != CHILDID_SELF &&
            (UiaAutoEventHandler::listenersMode() & LISTEN_THIN_CREATES) &&
            isRepeatedCreate(state.recentWindows, hwnd, recordingClock())) {
            return false;
        }
        arg = idChild;
        return true;
    case EVENT_SYSTEM_DIALOGSTART:
    case EVENT_SYSTEM_DIALOGEND:
    case EVENT_OBJECT_SHOW:
    case EVENT_OBJECT_HIDE:
        arg = 0;
        return true;
    case EVENT_SYSTEM_MENUSTART:
    case EVENT_SYSTEM_MENUEND:
    case EVENT_SYSTEM_MENUPOPUPSTART:
    case EVENT_SYSTEM_MENUPOPUPEND: {
        HWND parent = GetParent(hwnd);
        TOLVA_LOG(logger, 10, "p: " << parent);
        arg = javaInt(parent);
        return true;
    }
    default:
        return false;
    }
}

}  // namespace

// Carries one system window event from the thread of the hooks to Java.
class WinEventPoster : public Runnable {
public:
    WinEventPoster(std::int32_t event, std::int32_t hwnd, std::int32_t arg)
        : event_(event), hwnd_(hwnd), arg_(arg), timestamp_(currentTimeMillis()) {}

    std::int32_t operator()() override {
        MSAAEvent record(event_, hwnd_, arg_, timestamp_);
        EventFilter::getInstance().callJava(&record);
        return 0;
    }

private:
    std::int32_t event_;
    std::int32_t hwnd_;
    std::int32_t arg_;
    std::int64_t timestamp_;
};

void UiaAutoEventHandler::HookWinEvents(std::int32_t hookMode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << hookMode);
    const DWORD pid = static_cast<DWORD>(targetPid.load());
    if (pid == 0 || pid == GetCurrentProcessId()) {
        // Process 0 would be the whole desktop; the own process is skipped.
        TOLVA_LOG(logger, 5, "No hook for process " << pid);
        return;
    }
    WinEventState& state = hookState();
    if (hookMode & LISTEN_REQUIRED_WINEVENTS) {
        TOLVA_LOG(logger, 9, "add required WinEvents");
        hookRange(state, 0, pid, EVENT_OBJECT_CREATE, EVENT_OBJECT_HIDE);
        hookRange(state, 1, pid, EVENT_SYSTEM_FOREGROUND, EVENT_SYSTEM_MENUPOPUPEND);
        hookRange(state, 2, pid, EVENT_SYSTEM_DIALOGSTART, EVENT_SYSTEM_DIALOGEND);
    } else if (hookMode & LISTEN_ALL_WINEVENTS) {
        TOLVA_LOG(logger, 9, "add WinEvents");
        hookRange(state, 0, pid, EVENT_MIN, 0x7FFFFFFF);
    }
}

void UiaAutoEventHandler::UnhookWinEvents() {
    TOLVA_LOG(logger, 7, "");
    WinEventState& state = hookState();
    if (!state.hooks[0]) {
        return;
    }
    for (HWINEVENTHOOK& hook : state.hooks) {
        if (hook) {
            UnhookWinEvent(hook);
            hook = nullptr;
        }
    }
}

DWORD WINAPI UiaAutoEventHandler::WinEventThreadProc(void*) {
    TOLVA_LOG(logger, 7, "started");
    MSG message;
    // The queue exists before anything else, so that a quit posted early is kept.
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    WinEventState state;
    ownThreadState = &state;
    HookWinEvents(winEventMode);
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    UnhookWinEvents();
    ownThreadState = nullptr;
    if (SUCCEEDED(com)) {
        CoUninitialize();
    }
    TOLVA_LOG(logger, 9, "done");
    return 0;
}

namespace {

// One event, from the foreground rule on; an event that goes up goes to Java
// at once on the dispatch thread, or is posted from a thread of its own.
void handleOne(WinEventState& state, const RaisedEvent& raised) {
    const DWORD event = raised.event;
    const HWND hwnd = raised.hwnd;
    if (event == EVENT_OBJECT_CREATE && state.excelForeground) {
        TOLVA_LOG(logger, 5, winEventName(event) << ", hWnd: " << hwnd << " - ignored");
        return;
    }
    wchar_t classBuffer[257] = {};
    const int classLength = hwnd ? GetClassNameW(hwnd, classBuffer, 257) : 0;
    const std::wstring className(classBuffer, classLength > 0 ? static_cast<size_t>(classLength) : 0);
    state.excelForeground = event == EVENT_SYSTEM_FOREGROUND && className == L"XLMAIN";

    const bool awake = answers(hwnd);
    const std::wstring name = awake ? accessibleName(hwnd, raised.idObject, raised.idChild) : std::wstring();
    const std::wstring role = awake ? accessibleRole(hwnd, raised.idObject, raised.idChild) : std::wstring();
    TOLVA_LOG(logger, 10, winEventName(event) << ", hWnd: " << hwnd << " (" << className << ") , o:"
                                              << raised.idObject << ", c: " << raised.idChild << ", " << name << " "
                                              << role);

    std::int32_t arg = 0;
    if (!passes(state, event, hwnd, raised.idObject, raised.idChild, className, arg)) {
        return;
    }
    const std::int32_t code = static_cast<std::int32_t>(event);
    // Only the dispatch thread may call Java; a thread of the hooks' own
    // posts, whatever the flag says while it is on its way out.
    if (ownThreadState) {
        auto queue = UiaEventQueue::getInstance();
        auto* poster = new (std::nothrow) WinEventPoster(code, javaInt(hwnd), arg);
        if (queue && poster) {
            queue->invokeLater(poster);
        } else {
            delete poster;
        }
    } else {
        MSAAEvent record(code, javaInt(hwnd), arg);
        EventFilter::getInstance().callJava(&record);
    }
}

}  // namespace

// A thread that has not yet made its message queue refuses the post: the
// quit is posted again until it is taken or the thread is gone, for at most
// about 100 ms.
void UiaAutoEventHandler::QuitWinEventThread(DWORD threadId) {
    for (int tries = 0; tries < 50; ++tries) {
        if (PostThreadMessageW(threadId, WM_QUIT, 0, 0) || GetLastError() != ERROR_INVALID_THREAD_ID) {
            return;
        }
        HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, threadId);
        const bool gone = !thread || WaitForSingleObject(thread, 0) == WAIT_OBJECT_0;
        if (thread) {
            CloseHandle(thread);
        }
        if (gone) {
            return;
        }
        Sleep(2);
    }
    TOLVA_LOG(logger, 1, "The thread of the window events takes no quit: " << threadId);
}

void CALLBACK UiaAutoEventHandler::HandleWinEvent(HWINEVENTHOOK, DWORD event, HWND hwnd, LONG idObject, LONG idChild,
                                                  DWORD, DWORD) {
    if (event == EVENT_OBJECT_LOCATIONCHANGE) {
        return;
    }
    // The system's thread: nothing may escape, and nothing waits for long.
    WinEventState& state = hookState();
    if (state.handling) {
        try {
            state.waiting.push_back({event, hwnd, idObject, idChild});
        } catch (...) {
            TOLVA_LOG(logger, 1, "Event lost: " << event);
        }
        return;
    }
    state.handling = true;
    try {
        handleOne(state, {event, hwnd, idObject, idChild});
        while (!state.waiting.empty()) {
            const RaisedEvent next = state.waiting.front();
            state.waiting.pop_front();
            handleOne(state, next);
        }
    } catch (...) {
        TOLVA_LOG(logger, 1, "Events lost: " << state.waiting.size() + 1);
        state.waiting.clear();
    }
    state.handling = false;
}

}  // namespace tolva
