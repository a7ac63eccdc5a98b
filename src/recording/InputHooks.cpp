// The input hooks: low-level mouse and keyboard hooks on a thread that does
// nothing else, and the posters that carry each event to the dispatch
// thread. The hook procedures serve the whole desktop's input: they never
// wait on Java or on the dispatch thread, only on the queue's short lock for
// one append. The mouse hook makes no call into UI Automation at all; the
// keyboard hook asks for the focused element, which must be that of the
// moment of the key.
#include "recording/InputHooks.h"

#include "common/Logging.h"
#include "common/Owners.h"
#include "dispatch/UiaEventQueue.h"
#include "element/UiaControl.h"
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/UiaHelper.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");
Logger& posterLogger = Log::getLogger("tolva.uia.MouseEventPoster");

constexpr SIZE_T HOOK_THREAD_STACK = 0x20000;
constexpr DWORD HOOK_THREAD_END_WAIT_MS = 5000;
constexpr DWORD HOOKS_READY_WAIT_MS = 5000;

// Java's InputEvent masks as the mouse hook reports them.
constexpr std::int32_t JAVA_SHIFT = 1, JAVA_CTRL = 2, JAVA_META = 4, JAVA_ALT = 8, JAVA_BUTTON1 = 16;
constexpr std::int32_t BUTTON_LEFT = 0, BUTTON_RIGHT = 1, BUTTON_MIDDLE = 2;

// Of the dispatch thread, which starts and ends the hook thread.
UniqueHandle hookThread;
DWORD hookThreadId = 0;
// Set by the hook thread once its hooks stand and its message queue exists.
// Made once and never closed on purpose: a thread left to itself after a
// time-out may still set it, and must not find the handle reused.
HANDLE hooksReady() {
    static const HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return ready;
}

// Of the hook thread alone.
UniqueHook mouseHook;
UniqueHook keyboardHook;
bool shiftDown = false, ctrlDown = false, altDown = false;
std::uint32_t lastMoveTicks = 0;  // never reset

bool isReportedMouseMessage(WPARAM message) {
    switch (message) {
    case WM_MOUSEMOVE:
    case WM_LBUTTONDOWN:
    case WM_LBUTTONUP:
    case WM_RBUTTONDOWN:
    case WM_RBUTTONUP:
    case WM_MBUTTONDOWN:
    case WM_MBUTTONUP:
        return true;
    default:
        return false;
    }
}

// One move per REPEAT_TICKS of the recorder's clock goes through; the first
// always does.
bool takeMove() {
    const auto ticks = static_cast<std::uint32_t>(recordingClock());
    if (lastMoveTicks == 0 || std::int64_t{ticks} >= std::int64_t{lastMoveTicks} + REPEAT_TICKS) {
        lastMoveTicks = ticks;
        return true;
    }
    return false;
}

std::int32_t buttonOf(WPARAM message) {
    switch (message) {
    case WM_RBUTTONDOWN:
    case WM_RBUTTONUP:
        return BUTTON_RIGHT;
    case WM_MBUTTONDOWN:
    case WM_MBUTTONUP:
        return BUTTON_MIDDLE;
    default:
        return BUTTON_LEFT;
    }
}

// The button's mask (the left one also for moves), then the modifier keys
// as the system holds them; Alt and the middle button share their bit.
std::int32_t modifiersOf(std::int32_t button) {
    std::int32_t modifiers = button == BUTTON_LEFT ? JAVA_BUTTON1 : button == BUTTON_MIDDLE ? JAVA_ALT : JAVA_META;
    if (GetAsyncKeyState(VK_SHIFT) < 0) modifiers |= JAVA_SHIFT;
    if (GetAsyncKeyState(VK_CONTROL) < 0) modifiers |= JAVA_CTRL;
    if (GetAsyncKeyState(VK_MENU) < 0) modifiers |= JAVA_ALT;
    return modifiers;
}

// The modifier flag that a key of either side moves, or null.
bool* modifierFlagOf(DWORD vk) {
    switch (vk) {
    case VK_SHIFT:
    case VK_LSHIFT:
    case VK_RSHIFT:
        return &shiftDown;
    case VK_CONTROL:
    case VK_LCONTROL:
    case VK_RCONTROL:
        return &ctrlDown;
    case VK_MENU:
    case VK_LMENU:
    case VK_RMENU:
        return &altDown;
    default:
        return nullptr;
    }
}

// The element is the target's: of its process, or, while recording and when
// the preference allows it, of a process whose window stands inside the
// target's (an ancestor of the target's process).
bool belongsTo(IUIAutomationElement* element, std::int32_t pid) {
    int elementPid = 0;
    const bool foreign = FAILED(UiaHelper::GetControlProcessId(element, &elementPid)) || elementPid != pid;
    if (!foreign) {
        return true;
    }
    return UiaAutoEventHandler::recording && UiaHelper::ChildProcessCounts(element, pid, logger, __func__);
}

// The character of the key with the modifiers as the hook has followed them.
wchar_t characterOf(const KBDLLHOOKSTRUCT& key) {
    BYTE keyState[256] = {};
    if (shiftDown) keyState[VK_SHIFT] = 0x80;
    if (ctrlDown) keyState[VK_CONTROL] = 0x80;
    if (altDown) keyState[VK_MENU] = 0x80;
    wchar_t buffer[2] = {};
    // The flags word carries Alt: with it the key is read as for a menu.
    ToUnicode(key.vkCode, key.scanCode, keyState, buffer, 1, altDown ? 1 : 0);
    return buffer[0];
}

// Posts the key on the focused element if that is the target's.
void reportKey(WPARAM message, const KBDLLHOOKSTRUCT& key) {
    const AutomationRef automation = tolva::automation();
    if (!automation) {
        return;
    }
    ComPtr<IUIAutomationElement> element;
    if (FAILED(automation->GetFocusedElement(element.put())) || !element) {
        return;
    }
    if (!belongsTo(element.get(), UiaAutoEventHandler::targetPid)) {
        return;
    }
    const wchar_t character = characterOf(key);
    TOLVA_LOG(logger, 5, message << ", vk: " << key.vkCode << ", scan: " << key.scanCode << ", shift: " << shiftDown
                                 << ", ctrl: " << ctrlDown << ", alt: " << altDown << ", c: "
                                 << character << ", " << int(character));
    if (const auto queue = UiaEventQueue::getInstance()) {
        queue->invokeLater(new KeyEventPoster(element.get(), static_cast<std::int32_t>(message),
                                              static_cast<std::int32_t>(key.vkCode), character, shiftDown, ctrlDown,
                                              altDown));
    }
}

}  // namespace

// --- the hook thread --------------------------------------------------------------------

bool UiaAutoEventHandler::InstallHooks(std::int32_t pid) {
    TOLVA_LOG(logger, 7, "pid: " << pid);
    targetPid = pid;
    if (hookThread) {
        UninstallHooks();
    }
    if (hooksReady()) {
        ResetEvent(hooksReady());
    }
    DWORD threadId = 0;
    hookThread.reset(CreateThread(nullptr, HOOK_THREAD_STACK, hookThreadProc,
                                  reinterpret_cast<void*>(static_cast<std::intptr_t>(pid)),
                                  STACK_SIZE_PARAM_IS_A_RESERVATION, &threadId));
    if (!hookThread) {
        TOLVA_LOG(logger, 1, "No input hook thread: " << GetLastError());
        return true;
    }
    hookThreadId = threadId;
    // So that input right after the return is recorded, and the quit message
    // of an early UninstallHooks finds a queue.
    if (hooksReady()) {
        WaitForSingleObject(hooksReady(), HOOKS_READY_WAIT_MS);
    }
    return true;
}

void UiaAutoEventHandler::UninstallHooks() {
    TOLVA_LOG(logger, 7, "");
    if (!hookThread) {
        return;
    }
    PostThreadMessageW(hookThreadId, WM_QUIT, 0, 0);
    const DWORD outcome = WaitForSingleObject(hookThread.get(), HOOK_THREAD_END_WAIT_MS);
    TOLVA_LOG(logger, 9, "uninstalled: " << outcome);
    // After the time-out the thread is left to itself.
    hookThread.reset();
    hookThreadId = 0;
}

bool UiaAutoEventHandler::hooksInstalled() {
    return static_cast<bool>(hookThread);
}

DWORD WINAPI UiaAutoEventHandler::hookThreadProc(void* pidPointer) {
    const auto pid = static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(pidPointer));
    // The keyboard hook asks UI Automation for the focused element.
    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    MSG message;
    PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // the queue exists before WM_QUIT can come
    InstallWindowsHooks(pid);
    if (hooksReady()) {
        SetEvent(hooksReady());
    }
    // The hooks are served from inside the peek and the wait; nothing is
    // dispatched.
    for (bool quit = false; !quit;) {
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            if (message.message == WM_QUIT) {
                quit = true;
                break;
            }
        }
        if (!quit) {
            WaitMessage();
        }
    }
    UninstallWindowsHooks();
    if (SUCCEEDED(com)) {
        CoUninitialize();
    }
    return 0;
}

bool UiaAutoEventHandler::InstallWindowsHooks(std::int32_t pid) {
    TOLVA_LOG(logger, 7, "pid: " << pid);
    if (mouseHook && keyboardHook) {
        return true;
    }
    mouseHook.reset(SetWindowsHookExW(WH_MOUSE_LL, MouseProc, GetModuleHandleW(nullptr), 0));
    if (!mouseHook) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return false;
    }
    keyboardHook.reset(SetWindowsHookExW(WH_KEYBOARD_LL, KeyboardProc, GetModuleHandleW(nullptr), 0));
    if (!keyboardHook) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return false;
    }
    TOLVA_LOG(logger, 9, "msh: " << static_cast<void*>(mouseHook.get())
                                 << ", kbh: " << static_cast<void*>(keyboardHook.get()));
    return true;
}

void UiaAutoEventHandler::UninstallWindowsHooks() {
    TOLVA_LOG(logger, 7, "");
    mouseHook.reset();
    keyboardHook.reset();
}

// --- the hook procedures ------------------------------------------------------------------

LRESULT CALLBACK UiaAutoEventHandler::MouseProc(int nCode, WPARAM wParam, LPARAM lParam) {
    if (nCode == HC_ACTION && isReportedMouseMessage(wParam) && (wParam != WM_MOUSEMOVE || takeMove())) {
        const auto* mouse = reinterpret_cast<const MSLLHOOKSTRUCT*>(lParam);
        const std::int32_t button = buttonOf(wParam);
        // Nothing may leave a hook procedure but its result; a poster that
        // can't be made is an event lost.
        try {
            if (const auto queue = UiaEventQueue::getInstance()) {
                queue->invokeLaterQuiet(new MouseEventPoster(targetPid, static_cast<std::int32_t>(wParam),
                                                             mouse->pt.x, mouse->pt.y, button, modifiersOf(button)));
            }
        } catch (...) {
        }
    }
    return CallNextHookEx(mouseHook.get(), nCode, wParam, lParam);
}

LRESULT CALLBACK UiaAutoEventHandler::KeyboardProc(int nCode, WPARAM wParam, LPARAM lParam) {
    if (nCode == HC_ACTION) {
        const auto& key = *reinterpret_cast<const KBDLLHOOKSTRUCT*>(lParam);
        bool* modifier = modifierFlagOf(key.vkCode);
        if (modifier && (wParam == WM_KEYDOWN || wParam == WM_SYSKEYDOWN)) {
            *modifier = true;
        }
        try {
            reportKey(wParam, key);
        } catch (...) {
        }
        // After the report: the release of a modifier still reports it down.
        if (modifier && (wParam == WM_KEYUP || wParam == WM_SYSKEYUP)) {
            *modifier = false;
        }
    }
    return CallNextHookEx(nullptr, nCode, wParam, lParam);
}

// --- the posters --------------------------------------------------------------------------

MouseEventPoster::MouseEventPoster(std::int32_t pid, std::int32_t code, std::int32_t x, std::int32_t y,
                                   std::int32_t button, std::int32_t modifiers)
    : pid_(pid), code_(code), x_(x), y_(y), modifiers_(modifiers), button_(button),
      timestamp_(currentTimeMillis()) {}

IUIAutomationElement* MouseEventPoster::elementFromPoint(std::int32_t x, std::int32_t y, std::int32_t pid) {
    ComPtr<IUIAutomationElement> element = ComPtr<IUIAutomationElement>::attach(UiaHelper::GetElementFromPoint({x, y}));
    if (!element || !belongsTo(element.get(), pid)) {
        return nullptr;
    }
    return element.detach();
}

std::int32_t MouseEventPoster::operator()() {
    // A point outside the target ends the run silently.
    const ComPtr<IUIAutomationElement> element = ComPtr<IUIAutomationElement>::attach(elementFromPoint(x_, y_, pid_));
    if (!element) {
        return 0;
    }
    const ControlRef control = UiaControl::getControlInUse(element.get(), L"", nullptr);
    if (!control) {
        TOLVA_LOG(posterLogger, 5, "Element " << static_cast<void*>(element.get()) << " no longer exists");
        return 0;
    }
    TOLVA_LOG(posterLogger, 9, "code: " << code_ << ", x: " << x_ << ", y: " << y_ << ", mod: " << modifiers_);
    const RECT bounds = control->getBounds();
    MouseEvent event(static_cast<std::int64_t>(control->handle()), code_, x_ - bounds.left, y_ - bounds.top, x_, y_,
                     button_, modifiers_, timestamp_);
    EventFilter::getInstance().callJava(&event);
    return 0;
}

KeyEventPoster::KeyEventPoster(IUIAutomationElement* element, std::int32_t code, std::int32_t vk,
                               std::int32_t character, bool shift, bool ctrl, bool alt)
    : element_(ComPtr<IUIAutomationElement>::share(element)), code_(code), vk_(vk), character_(character),
      shift_(shift), ctrl_(ctrl), alt_(alt), timestamp_(currentTimeMillis()) {}

std::int32_t KeyEventPoster::operator()() {
    const void* const element = element_.get();
    const ControlRef control = UiaControl::getControlInUse(element_.get(), L"", nullptr);
    element_.reset();
    if (!control) {
        TOLVA_LOG(logger, 5, "Element " << element << " no longer exists");
        return 0;
    }
    KeyEvent event(static_cast<std::int64_t>(control->handle()), code_, vk_, character_, shift_, ctrl_, alt_,
                   timestamp_);
    EventFilter::getInstance().callJava(&event);
    return 0;
}

}  // namespace tolva
