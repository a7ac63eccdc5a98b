#include "dispatch/UiaEventQueue.h"

#include "common/Logging.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaEventQueue");

// The current queue. Never destroyed itself, like its lock: a poster may
// come at any time, also while the process ends. Posters share the lock, so
// that the platform's threads don't queue up behind each other for it.
SRWLOCK instanceLock = SRWLOCK_INIT;
std::shared_ptr<UiaEventQueue>* const instance = new std::shared_ptr<UiaEventQueue>();

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

void HandBack::operator()(UiaEvent* event) const {
    if (event->id == UIA_EVENT_RUN_NOW) {
        SetEvent(static_cast<UiaRunEvent*>(event)->doneEvent.get());
    } else {
        delete event;
    }
}

UiaEventQueue::UiaEventQueue(DWORD threadId)
    : wakeEvent_(CreateEventW(nullptr, FALSE, FALSE, nullptr)), threadId_(threadId) {
    InitializeCriticalSection(&lock_);
}

UiaEventQueue::~UiaEventQueue() {
    // end() has emptied the queue; entries that came later were turned away.
    DeleteCriticalSection(&lock_);
}

void UiaEventQueue::create(DWORD threadId) {
    TOLVA_LOG(logger, 7, "tid: " << threadId);
    std::shared_ptr<UiaEventQueue> made(new UiaEventQueue(threadId), [](UiaEventQueue* queue) { delete queue; });
    AcquireSRWLockExclusive(&instanceLock);
    const bool taken = !*instance;
    if (taken) {
        instance->swap(made);
    }
    ReleaseSRWLockExclusive(&instanceLock);
    if (!taken) {
        TOLVA_LOG(logger, 1, "Already created");
    }
}

std::shared_ptr<UiaEventQueue> UiaEventQueue::getInstance() {
    AcquireSRWLockShared(&instanceLock);
    std::shared_ptr<UiaEventQueue> queue = *instance;  // copying a shared_ptr doesn't throw
    ReleaseSRWLockShared(&instanceLock);
    if (!queue) {
        TOLVA_LOG(logger, 3, "No event queue");
    }
    return queue;
}

void UiaEventQueue::destroy() {
    TOLVA_LOG(logger, 7, "");
    std::shared_ptr<UiaEventQueue> ending;
    AcquireSRWLockExclusive(&instanceLock);
    ending.swap(*instance);
    ReleaseSRWLockExclusive(&instanceLock);
    if (ending) {
        ending->end();
    }
}

void UiaEventQueue::end() {
    std::deque<QueueEntry> left;  // waiting callers get the default result
    left.swap(taken_);
    EnterCriticalSection(&lock_);
    ended_ = true;
    std::move(entries_.begin(), entries_.end(), std::back_inserter(left));
    entries_.clear();
    LeaveCriticalSection(&lock_);
    TOLVA_LOG(logger, 9, "left: " << left.size());
}

bool UiaEventQueue::enqueue(QueueEntry& entry) {
    EnterCriticalSection(&lock_);
    const bool taken = !ended_;
    if (taken) {
        // The dispatch thread waits only after it found the queue empty.
        const bool wake = entries_.empty();
        entries_.push_back(std::move(entry));
        if (wake) {
            SetEvent(wakeEvent_.get());
        }
    }
    LeaveCriticalSection(&lock_);
    return taken;
}

void UiaEventQueue::post(std::unique_ptr<UiaEvent> event) {
    QueueEntry entry(event.release());
    if (!enqueue(entry)) {
        TOLVA_LOG(logger, 9, "ended, dropped: " << entry->id);
    }
}

QueueEntry UiaEventQueue::next() {
    for (;;) {
        if (!taken_.empty()) {
            QueueEntry event = std::move(taken_.front());
            taken_.pop_front();
            return event;
        }
        EnterCriticalSection(&lock_);
        taken_.swap(entries_);
        LeaveCriticalSection(&lock_);
        if (!taken_.empty()) {
            continue;
        }
        HANDLE wake = wakeEvent_.get();
        DWORD waited = MsgWaitForMultipleObjects(1, &wake, FALSE, IDLE_WAIT_MS, WAKE_MASK);
        if (waited == WAIT_TIMEOUT) {
            QueueEntry idle(new UiaEvent(UIA_EVENT_IDLE));
            EnterCriticalSection(&lock_);
            entries_.push_back(std::move(idle));
            LeaveCriticalSection(&lock_);
        } else {
            MSG msg;
            while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
                TranslateMessage(&msg);
                DispatchMessageW(&msg);
            }
        }
    }
}

void UiaEventQueue::invokeLater(Runnable* runner) {
    TOLVA_LOG(logger, 7, "runner: " << static_cast<void*>(runner));
    post(std::make_unique<UiaRunEvent>(runner, false, false));
}

void UiaEventQueue::invokeLaterQuiet(Runnable* runner) {
    post(std::make_unique<UiaRunEvent>(runner, false, true));
}

std::int32_t UiaEventQueue::invokeNow(Runnable* runner) {
    TOLVA_LOG(logger, 7, "runner: " << static_cast<void*>(runner));
    UiaRunEvent event(runner, true, false);
    if (GetCurrentThreadId() == threadId_) {
        // On the dispatch thread itself: run at once, nothing to wait for.
        event.result = (*runner)();
        return event.result;
    }
    // The queue holds the event, which stays this caller's, until it hands it
    // back: after the work has run, or unrun when the queue ends.
    QueueEntry entry(&event);
    if (enqueue(entry)) {
        WaitForSingleObject(event.doneEvent.get(), INFINITE);
    } else {
        entry.release();  // never queued: nothing to hand back
        TOLVA_LOG(logger, 5, "ended, not run: " << static_cast<void*>(runner));
    }
    return event.result;
}

}  // namespace tolva
