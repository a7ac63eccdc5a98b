#include "engine/Uia.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "element/UiaControl.h"
#include "engine/EngineRunnables.h"
#include "dispatch/UiaEventQueue.h"
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"
#include "overlay/Highlighter.h"
#include "overlay/ProcessOverlay.h"
#include "overlay/UiaChecker.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/Common.h"

#include <process.h>

#include <cerrno>
#include <iostream>
#include <memory>
#include <utility>

namespace tolva {

std::vector<HWND> existingWindows;

namespace {

Logger& logger = Log::getLogger("tolva.Uia");

const unsigned DISPATCH_STACK_SIZE = 0x100000;
const DWORD START_WAIT_MS = 1000;
const DWORD ATTEMPT_SPACING_MS = 1000;
// How long the dispatch thread's end waits for Java threads still in a call
// to let go of the automation object; after that the last of them releases it.
const DWORD LAST_USES_WAIT_MS = 10000;

BOOL CALLBACK CollectWindow(HWND hwnd, LPARAM windows) {
    reinterpret_cast<std::vector<HWND>*>(windows)->push_back(hwnd);
    return TRUE;
}

// An environment variable of the process by its wide name; false if it isn't
// set at all. A variable set to the empty text counts as set.
bool readEnvironment(const wchar_t* name, std::wstring& value) {
    SetLastError(ERROR_SUCCESS);
    DWORD length = GetEnvironmentVariableW(name, nullptr, 0);
    if (length == 0) {
        value.clear();
        return GetLastError() != ERROR_ENVVAR_NOT_FOUND;
    }
    std::vector<wchar_t> buffer(length);
    length = GetEnvironmentVariableW(name, buffer.data(), length);
    value.assign(buffer.data(), length);
    return true;
}

}  // namespace

Uia& Uia::getInstance() {
    static Uia instance;
    return instance;
}

Uia::Uia() {
    TOLVA_LOG(logger, 7, "");
}

Uia::~Uia() {
    TOLVA_LOG(logger, 7, "");
}

// ---------------------------------------------------------------------------
// The dispatch thread

unsigned __stdcall Uia::uiaThreadProc(void* param) {
    Uia* uia = static_cast<Uia*>(param);
    tolva_logSetThreadName("Dispatch");
    TOLVA_LOG(logger, 5, "Start");
    UiaEventQueue::create(GetCurrentThreadId());

    // Without a thread behind it the queue ends at once, so that nobody
    // waits for it.
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 1, "Initialization failed: " << std::hex << hr);
        UiaEventQueue::destroy();
        return 1;
    }
    hr = uia->createAutomationObject();
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 1, "Automation error: " << std::hex << hr);
        UiaEventQueue::destroy();
        withdrawAutomation().reset();
        CoUninitialize();
        return 2;
    }
    EventFilter::getInstance().attachThread();

    while (uia->readAndDispatch()) {
    }

    UiaEventQueue::destroy();  // work behind the quit comes back unrun
    // The overlays of this thread go with it; check mode ends with them.
    StopChecking();
    SetCoverEnabled(true);
    StopHighlight();
    uia->removeEventHandler();
    EventFilter::getInstance().detachThread();
    UiaControl::removeControls();
    uia->releaseAutomation();
    CoUninitialize();
    TOLVA_LOG(logger, 5, "Done");
    return 0;
}

bool Uia::readAndDispatch() {
    bool goOn = true;
    const std::shared_ptr<UiaEventQueue> queue = UiaEventQueue::getInstance();
    if (!queue) {
        return false;
    }
    // A run-now event goes back to its waiting caller when the entry goes,
    // at the end of this function.
    const QueueEntry event = queue->next();
    const std::int32_t id = event->id;
    switch (id) {
    case UIA_EVENT_RUN_LATER:
    case UIA_EVENT_RUN_NOW: {
        auto* run = static_cast<UiaRunEvent*>(event.get());
        if (!run->quiet) {
            TOLVA_LOG(logger, 9, (id == UIA_EVENT_RUN_LATER ? "run " : "run now ")
                                     << std::hex << static_cast<void*>(run->runner.get()));
        }
        run->result = (*run->runner)();
        break;
    }
    case UIA_EVENT_IDLE:
        break;
    case UIA_EVENT_QUIT:
        TOLVA_LOG(logger, 9, "quit");
        goOn = false;
        break;
    case UIA_EVENT_TRIGGER: {
        WinClientEvent trigger(EVENT_CALLBACK, 0, 0);
        EventFilter::getInstance().callJava(&trigger);
        break;
    }
    default:
        TOLVA_LOG(logger, 3, "Unhandled messsage " << id);
        break;
    }
    return goOn;
}

HRESULT Uia::createAutomationObject() {
    TOLVA_LOG(logger, 7, "");
    HRESULT hr = S_OK;
    withdrawAutomation().reset();  // none is left by a connection that has ended
    std::wstring uia8;
    std::wstring viaHwndValue;
    const bool uia8Set = readEnvironment(L"CUEBENCH_WIN_UIA8", uia8);
    if (readEnvironment(L"CUEBENCH_WIN_VIA_HWND", viaHwndValue)) {
        viaHwnd = viaHwndValue == L"true";
    }
    UiaAutoEventHandler::viaHwnd = viaHwnd;
    TOLVA_LOG(logger, 5, "via hwnd: " << viaHwnd);

    bool created = false;
    if (uia8Set) {
        ComPtr<IUIAutomation> object;
        hr = CoCreateInstance(CLSID_CUIAutomation8, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                              reinterpret_cast<void**>(object.put()));
        if (FAILED(hr) || !object) {
            TOLVA_LOG(logger, 1, "Error creating automation object 8: " << std::hex << hr);
        } else {
            installAutomation(object.detach());
            created = true;
            TOLVA_LOG(logger, 5, "Using Uia8");
            std::wcout << L"Using Uia8" << std::endl;
            std::vector<std::wstring> timeouts = splitString(uia8, L',');
            if (timeouts.size() > 1) {
                const int connection = parseIntOr(timeouts[0], -1);
                const int transaction = parseIntOr(timeouts[1], -1);
                if (connection >= 0 && transaction >= 0) {
                    setTimeouts(connection, transaction);
                }
            }
        }
    }
    if (!created) {
        ComPtr<IUIAutomation> object;
        hr = CoCreateInstance(CLSID_CUIAutomation, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                              reinterpret_cast<void**>(object.put()));
        if (object) {
            installAutomation(object.detach());
        }
    }
    return hr;
}

void Uia::releaseAutomation() {
    AutomationRef last = withdrawAutomation();
    const ULONGLONG end = GetTickCount64() + LAST_USES_WAIT_MS;
    while (last && last.use_count() > 1 && GetTickCount64() < end) {
        Sleep(10);
    }
    if (last.use_count() > 1) {
        TOLVA_LOG(logger, 3, "Automation object still in use: " << last.use_count() - 1);
    }
}

bool Uia::setTimeouts(int connectionTimeout, int transactionTimeout) {
    TOLVA_LOG(logger, 7, "ct: " << connectionTimeout << ", tt: " << transactionTimeout);
    const AutomationRef automation = tolva::automation();
    if (!automation) {
        TOLVA_LOG(logger, 3, "No automation object");
        return false;
    }
    ComPtr<IUIAutomation2> automation2;
    HRESULT hr = automation->QueryInterface(IID_IUIAutomation2, reinterpret_cast<void**>(automation2.put()));
    if (FAILED(hr) || !automation2) {
        TOLVA_LOG(logger, 3, "Error setting timeouts: " << std::hex << hr);
        return false;
    }
    DWORD previousConnection = 0;
    DWORD previousTransaction = 0;
    automation2->get_ConnectionTimeout(&previousConnection);
    automation2->get_TransactionTimeout(&previousTransaction);
    TOLVA_LOG(logger, 9, "prev ct: " << previousConnection << ", prev tt:" << previousTransaction);
    automation2->put_ConnectionTimeout(static_cast<DWORD>(connectionTimeout));
    automation2->put_TransactionTimeout(static_cast<DWORD>(transactionTimeout));
    return true;
}

bool Uia::isUia8() {
    const AutomationRef automation = tolva::automation();
    if (!automation) {
        return false;
    }
    ComPtr<IUIAutomation2> automation2;
    HRESULT hr = automation->QueryInterface(IID_IUIAutomation2, reinterpret_cast<void**>(automation2.put()));
    return SUCCEEDED(hr) && automation2;
}

// Both may come after the dispatch thread has ended (a detach by Java, then
// the target's end), when there is no queue any more to post to.
void Uia::triggerThread() {
    TOLVA_LOG(logger, 7, "");
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->post(std::make_unique<UiaEvent>(UIA_EVENT_TRIGGER));
    }
}

void Uia::detach() {
    TOLVA_LOG(logger, 7, "");
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->post(std::make_unique<UiaEvent>(UIA_EVENT_QUIT));
    }
}

// ---------------------------------------------------------------------------
// Attaching

int Uia::setup(const std::wstring& title, const std::wstring& classRegex, int targetPid, int timeoutMs) {
    TOLVA_LOG(logger, 7, "title: " << title << ", class: " << classRegex << ", pid: " << targetPid
                                   << ", to: " << timeoutMs);
    UniqueHandle thread = startDispatchThread();
    if (!thread) {
        return 0;
    }
    if (WaitForSingleObject(thread.get(), START_WAIT_MS) == WAIT_OBJECT_0) {
        DWORD exitCode = 0;
        GetExitCodeThread(thread.get(), &exitCode);
        TOLVA_LOG(logger, 1, "Dispatch thread terminated prematurely: " << exitCode);
        return 0;
    }
    dispatchThread_ = std::move(thread);
    int found = 0;
    const int attempts = timeoutMs / 1000;
    for (int i = 0; i < attempts; ++i) {
        const std::shared_ptr<UiaEventQueue> queue = UiaEventQueue::getInstance();
        if (!queue) {
            break;  // the thread has ended meanwhile
        }
        if (targetPid != 0) {
            TOLVA_LOG(logger, 9, "find via pid");
            if (queue->invokeNow(new ProcessByPidFinder(targetPid, viaHwnd)) != 0) {
                found = targetPid;
                TOLVA_LOG(logger, 9, "found pid");
                break;
            }
        }
        if (!title.empty()) {
            TOLVA_LOG(logger, 9, "find via title");
            found = queue->invokeNow(new ProcessByTitleFinder(title, &existingWindows, viaHwnd));
            if (found != 0) {
                TOLVA_LOG(logger, 9, "found via title");
                break;
            }
        }
        if (!classRegex.empty()) {
            TOLVA_LOG(logger, 9, "find via class");
            found = queue->invokeNow(new ProcessByClassFinder(classRegex));
            if (found != 0) {
                TOLVA_LOG(logger, 9, "found via class");
                Preferences::getInstance().setPreference(PREF_RESTRICT_TOPS_TO_CLASS, L"true");
                break;
            }
        }
        if (i < attempts - 1) {
            Sleep(ATTEMPT_SPACING_MS);
            TOLVA_LOG(logger, 9, "retry");
        }
    }
    TOLVA_LOG(logger, 9, "pid: " << found);

    if (found != 0) {
        pid = found;
        className = classRegex;
        if (auto queue = UiaEventQueue::getInstance()) {
            queue->invokeLater(new Connector());
            queue->invokeLater(new EventHandlerRegistrator(this));
        }
    } else {
        detach();
    }
    return found;
}

UniqueHandle Uia::startDispatchThread() {
    UniqueHandle thread(reinterpret_cast<HANDLE>(
        _beginthreadex(nullptr, DISPATCH_STACK_SIZE, &Uia::uiaThreadProc, this, 0, nullptr)));
    if (!thread) {
        TOLVA_LOG(logger, 1, "Dispatch thread could not be started: " << errno);
    }
    return thread;
}

bool Uia::awaitDispatchEnd(DWORD timeoutMs) {
    if (!dispatchThread_) {
        return true;
    }
    if (WaitForSingleObject(dispatchThread_.get(), timeoutMs) != WAIT_OBJECT_0) {
        return false;
    }
    dispatchThread_.reset();
    return true;
}

void Uia::cacheExistingWindows() {
    TOLVA_LOG(logger, 7, "");
    std::vector<HWND> windows;
    EnumWindows(CollectWindow, reinterpret_cast<LPARAM>(&windows));
    existingWindows.swap(windows);
    TOLVA_LOG(logger, 9, "size: " << existingWindows.size());
}

void Uia::registerEventHandler(std::int32_t mode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << mode);
    UiaAutoEventHandler::UninstallAutoEventHandlers();
    UiaAutoEventHandler::InstallAutoEventHandlers(pid, mode);
    if ((mode & 1) && !UiaAutoEventHandler::hooksInstalled()) {
        UiaAutoEventHandler::InstallHooks(pid);
    } else if (!(mode & 1) && UiaAutoEventHandler::hooksInstalled()) {
        UiaAutoEventHandler::UninstallHooks();
    }
    TOLVA_LOG(logger, 9, "done");
}

void Uia::removeEventHandler() {
    TOLVA_LOG(logger, 7, "");
    UiaAutoEventHandler::UninstallHooks();
    UiaAutoEventHandler::UninstallAutoEventHandlers();
}

void Uia::processTerminated() {
    TOLVA_LOG(logger, 7, "");
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->invokeLater(new Terminator());
    }
}

}  // namespace tolva
