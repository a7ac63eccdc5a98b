#include "engine/UiaEventQueue.h"

#include "bridge/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaEventQueue");

UiaEventQueue* instance = nullptr;

// Wake for the queue's event or for these inputs; keys, paint and hot keys
// wait for the next entry.
const DWORD WAKE_MASK = QS_MOUSEMOVE | QS_MOUSEBUTTON | QS_POSTMESSAGE | QS_TIMER | QS_SENDMESSAGE;
const DWORD IDLE_WAIT_MS = 2000;

}  // namespace

UiaRunEvent::UiaRunEvent(Runnable* runner, bool runNow, bool quiet)
    : UiaEvent(runNow ? UIA_EVENT_RUN_NOW : UIA_EVENT_RUN_LATER),
      runner(runner),
      doneEvent(runNow ? CreateEventW(nullptr, FALSE, FALSE, nullptr) : nullptr),
      quiet(quiet) {}

UiaRunEvent::~UiaRunEvent() {
    delete runner;
    if (doneEvent) {
        CloseHandle(doneEvent);
    }
}

UiaEventQueue::UiaEventQueue(DWORD threadId)
    : wakeEvent_(CreateEventW(nullptr, FALSE, FALSE, nullptr)), threadId_(threadId) {
    InitializeCriticalSection(&lock_);
}

UiaEventQueue::~UiaEventQueue() {
    // Entries still queued are neither run nor freed: a run-now entry belongs
    // to the thread that waits for it.
    DeleteCriticalSection(&lock_);
    CloseHandle(wakeEvent_);
}

void UiaEventQueue::create(DWORD threadId) {
    if (instance) {
        TOLVA_LOG(logger, 1, "Already created");
        return;
    }
    TOLVA_LOG(logger, 7, "tid: " << threadId);
    instance = new UiaEventQueue(threadId);
}

UiaEventQueue* UiaEventQueue::getInstance() {
    if (!instance) {
        TOLVA_LOG(logger, 3, "No event queue");
    }
    return instance;
}

void UiaEventQueue::destroy() {
    TOLVA_LOG(logger, 7, "");
    delete instance;
    instance = nullptr;
}

void UiaEventQueue::post(UiaEvent* event) {
    EnterCriticalSection(&lock_);
    entries_.push_back(event);
    SetEvent(wakeEvent_);
    LeaveCriticalSection(&lock_);
}

UiaEvent* UiaEventQueue::next() {
    EnterCriticalSection(&lock_);
    for (;;) {
        if (!entries_.empty()) {
            UiaEvent* event = entries_.front();
            entries_.pop_front();
            LeaveCriticalSection(&lock_);
            return event;
        }
        LeaveCriticalSection(&lock_);
        DWORD waited = MsgWaitForMultipleObjects(1, &wakeEvent_, FALSE, IDLE_WAIT_MS, WAKE_MASK);
        if (waited == WAIT_TIMEOUT) {
            // Appended without the lock, from the only thread that takes entries.
            entries_.push_back(new UiaEvent(UIA_EVENT_IDLE));
        } else {
            MSG msg;
            while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
                TranslateMessage(&msg);
                DispatchMessageW(&msg);
            }
        }
        EnterCriticalSection(&lock_);
    }
}

void UiaEventQueue::invokeLater(Runnable* runner) {
    TOLVA_LOG(logger, 7, "runner: " << static_cast<void*>(runner));
    post(new UiaRunEvent(runner, false, false));
}

void UiaEventQueue::invokeLaterQuiet(Runnable* runner) {
    post(new UiaRunEvent(runner, false, true));
}

std::int32_t UiaEventQueue::invokeNow(Runnable* runner) {
    TOLVA_LOG(logger, 7, "runner: " << static_cast<void*>(runner));
    UiaRunEvent event(runner, true, false);
    if (GetCurrentThreadId() == threadId_) {
        // On the dispatch thread itself: run at once, nothing to wait for.
        event.result = (*runner)();
    } else {
        post(&event);
        WaitForSingleObject(event.doneEvent, INFINITE);
    }
    return event.result;
}

}  // namespace tolva
