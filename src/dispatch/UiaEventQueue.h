// The work queue of the dispatch thread. Any thread may post; only the
// dispatch thread takes entries, pumping its Windows messages while it waits.
// It takes them in batches, one lock for all that stand in the queue, and a
// poster wakes it only when the queue was empty, so that a burst of events
// costs neither a lock hand-over nor a wake-up per event.
// At the end of the dispatch loop the queue ends: it takes no more work, and
// every entry still in it is completed without running, so that no caller
// waits for work that will never run. A poster may keep the queue as long as
// it likes; an ended queue turns its work away at once.
#pragma once

#include "common/Owners.h"
#include "dispatch/Runnable.h"

#include <windows.h>

#include <cstdint>
#include <deque>
#include <memory>

namespace tolva {

// Queue entry ids; they reuse the numbers of Windows messages, but an entry is
// never sent or posted as a message.
enum UiaEventId : std::int32_t {
    UIA_EVENT_TRIGGER = 0,      // WM_NULL: send a CallbackEvent up to Java
    UIA_EVENT_QUIT = 18,        // WM_QUIT: end the dispatch loop
    UIA_EVENT_IDLE = 289,       // WM_ENTERIDLE: the wait timed out
    UIA_EVENT_RUN_LATER = 1024, // WM_USER: run a Runnable, nobody waits
    UIA_EVENT_RUN_NOW = 1025,   // WM_USER + 1: run a Runnable, the caller waits
};

class UiaEvent {
public:
    explicit UiaEvent(std::int32_t id) : id(id) {}
    virtual ~UiaEvent() = default;
    UiaEvent(const UiaEvent&) = delete;
    UiaEvent& operator=(const UiaEvent&) = delete;

    std::int32_t id;
};

class UiaRunEvent : public UiaEvent {
public:
    // Takes the runner.
    UiaRunEvent(Runnable* runner, bool runNow, bool quiet);

    std::unique_ptr<Runnable> runner;
    UniqueHandle doneEvent;  // run-now only: auto-reset, signalled when the work is done
    bool quiet;              // no trace line in the dispatch loop
    std::int32_t result = 0;
};

// What becomes of an entry that leaves the queue: a run-now event belongs to
// its waiting caller and goes back to it (signalled, and never touched again);
// any other entry is deleted.
struct HandBack {
    void operator()(UiaEvent* event) const;
};
using QueueEntry = std::unique_ptr<UiaEvent, HandBack>;

class UiaEventQueue {
public:
    static void create(DWORD threadId);
    // The current queue, or null (logged "No event queue").
    static std::shared_ptr<UiaEventQueue> getInstance();
    // Ends the current queue (see above) and forgets it; dispatch thread.
    static void destroy();

    // An ended queue deletes the event unrun.
    void post(std::unique_ptr<UiaEvent> event);
    QueueEntry next();  // dispatch thread

    // Each takes the runner; an ended queue deletes it unrun.
    void invokeLater(Runnable* runner);
    void invokeLaterQuiet(Runnable* runner);
    // The runner's result; 0 if the queue has ended before the runner ran.
    std::int32_t invokeNow(Runnable* runner);

    DWORD threadId() const { return threadId_; }

private:
    explicit UiaEventQueue(DWORD threadId);
    ~UiaEventQueue();
    bool enqueue(QueueEntry& entry);  // false, with the entry untouched, once ended
    void end();

    std::deque<QueueEntry> entries_;  // guarded by lock_
    // The dispatch thread's batch: all that stood in entries_ when it last
    // looked, taken in one go and run in order before it looks again.
    std::deque<QueueEntry> taken_;
    CRITICAL_SECTION lock_;
    UniqueHandle wakeEvent_;
    DWORD threadId_;
    bool ended_ = false;  // guarded by lock_
};

}  // namespace tolva
