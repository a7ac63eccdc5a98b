// Event handler registrations and raising events to them.
//
// Registered handlers are AddRef'd, as the platform does, and released when
// removed. Events raised by the test (Platform::raise...) find their handlers
// at once and are delivered on the simulation's own threads (in the MTA, as
// the platform's event threads are), one for each raising thread; a delivery
// keeps its handler until it has run. The lock is never held while a handler
// runs or is released.
#include "FakeUiaInternal.h"

#include <algorithm>
#include <chrono>

namespace fakeuia {
namespace detail {

namespace {

IUnknown* identityOf(IUnknown* object) {
    IUnknown* identity = nullptr;
    if (FAILED(object->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity))) || !identity)
        return object;
    identity->Release();  // only compared, never called
    return identity;
}

bool coversLocked(Node* registered, TreeScope scope, Node* node) {
    if ((scope & TreeScope_Element) && node == registered) return true;
    if ((scope & TreeScope_Children) && D(node).parent == registered) return true;
    if ((scope & TreeScope_Descendants) && isDescendantLocked(node, registered)) return true;
    return false;
}

// The registrations an event reaches, pinned (shared) so that a concurrent
// removal cannot release a handler while it runs.
template <class Pred>
std::vector<HandlerPtr> reachedBy(State& state, Node* node, Pred pred) {
    std::vector<HandlerPtr> out;
    std::lock_guard<std::mutex> lock(state.mu);
    if (!D(node).alive) return out;
    for (const HandlerPtr& h : state.handlers) {
        const EventHandlerRecord& r = h->record;
        if (!pred(r)) continue;
        if (r.kind != EventHandlerRecord::Kind::FocusChanged && !coversLocked(r.node, r.scope, node)) continue;
        out.push_back(h);
    }
    return out;
}

}  // namespace

HRESULT registerHandler(State& state, EventHandlerRecord record, IUnknown* handler, IUnknown* element) {
    if (!handler) return E_POINTER;
    Node* node = nullptr;
    if (record.kind != EventHandlerRecord::Kind::FocusChanged) {
        if (!element) return E_POINTER;
        node = nodeOf(state, element);
        if (!node) return E_INVALIDARG;
        std::lock_guard<std::mutex> lock(state.mu);
        if (!D(node).alive) return kElementNotAvailable;
    }
    auto entry = std::make_shared<HandlerEntry>();
    record.node = node;
    record.handler = identityOf(handler);
    record.threadId = GetCurrentThreadId();
    entry->record = std::move(record);
    handler->AddRef();
    entry->held = handler;
    std::lock_guard<std::mutex> lock(state.mu);
    entry->record.serial = state.nextHandlerSerial++;
    state.handlers.push_back(std::move(entry));
    return S_OK;
}

HRESULT unregisterHandler(State& state, EventHandlerRecord::Kind kind, EVENTID eventId, IUnknown* element,
                          IUnknown* handler) {
    if (!handler) return E_POINTER;
    Node* node = nullptr;
    if (kind != EventHandlerRecord::Kind::FocusChanged) {
        if (!element) return E_POINTER;
        node = nodeOf(state, element);
        if (!node) return E_INVALIDARG;
    }
    IUnknown* identity = identityOf(handler);
    HandlerPtr removed;  // released after the lock
    std::lock_guard<std::mutex> lock(state.mu);
    auto it = std::find_if(state.handlers.begin(), state.handlers.end(), [&](const HandlerPtr& h) {
        const EventHandlerRecord& r = h->record;
        return r.kind == kind && r.handler == identity && r.node == node &&
               (kind != EventHandlerRecord::Kind::Automation || r.eventId == eventId);
    });
    if (it == state.handlers.end()) {
        ++state.unmatchedRemovals;
        return S_OK;
    }
    removed = std::move(*it);
    state.handlers.erase(it);
    return S_OK;
}

void unregisterAll(State& state, int automation) {
    std::vector<HandlerPtr> removed;  // released after the lock
    std::lock_guard<std::mutex> lock(state.mu);
    auto keep = std::stable_partition(state.handlers.begin(), state.handlers.end(),
                                      [&](const HandlerPtr& h) { return h->record.automation != automation; });
    removed.assign(std::make_move_iterator(keep), std::make_move_iterator(state.handlers.end()));
    state.handlers.erase(keep, state.handlers.end());
}

EventThreads::~EventThreads() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (auto& worker : workers_) worker.second->thread.join();
}

void EventThreads::deliver(std::function<void()> delivery) {
    std::lock_guard<std::mutex> lock(mu_);
    std::unique_ptr<Worker>& worker = workers_[GetCurrentThreadId()];
    if (!worker) {
        worker = std::make_unique<Worker>();
        Worker* own = worker.get();
        worker->thread = std::thread([this, own] { run(*own); });
    }
    worker->deliveries.push_back(std::move(delivery));
    ++pending_;
    wake_.notify_all();
}

bool EventThreads::waitIdle(unsigned timeoutMs) {
    std::unique_lock<std::mutex> lock(mu_);
    return idle_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return pending_ == 0; });
}

void EventThreads::run(Worker& worker) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !worker.deliveries.empty(); });
        if (worker.deliveries.empty()) break;  // stopping, and all delivered
        std::function<void()> delivery = std::move(worker.deliveries.front());
        worker.deliveries.pop_front();
        lock.unlock();
        delivery();
        delivery = nullptr;  // what it holds goes before it counts as delivered
        lock.lock();
        if (--pending_ == 0) idle_.notify_all();
    }
    lock.unlock();
    CoUninitialize();
}

}  // namespace detail

using detail::D;
using detail::HandlerPtr;
using Kind = EventHandlerRecord::Kind;

std::vector<EventHandlerRecord> Platform::eventHandlers() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    std::vector<EventHandlerRecord> out;
    for (const HandlerPtr& h : state_->handlers) out.push_back(h->record);
    return out;
}

int Platform::unmatchedHandlerRemovals() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->unmatchedRemovals;
}

void Platform::releaseEventHandlers() {
    std::vector<HandlerPtr> removed;  // released after the lock
    std::lock_guard<std::mutex> lock(state_->mu);
    removed.swap(state_->handlers);
}

namespace {

// Each reached handler gets the event with a sender of its own, made now;
// the delivery holds the handler and the sender until it has run.
template <class Call>
int deliverTo(detail::State& state, detail::EventThreads& threads, Node& node, std::vector<HandlerPtr> targets,
              Call call) {
    for (HandlerPtr& h : targets) {
        IUIAutomationElement* sender = detail::newElement(state, &node);
        threads.deliver([h = std::move(h), sender, call]() {
            call(h->held, sender);
            sender->Release();
        });
    }
    return static_cast<int>(targets.size());
}

}  // namespace

int Platform::raiseAutomationEvent(EVENTID eventId, Node& node) {
    auto targets = detail::reachedBy(*state_, &node, [&](const EventHandlerRecord& r) {
        return r.kind == Kind::Automation && r.eventId == eventId;
    });
    return deliverTo(*state_, *events_, node, std::move(targets), [eventId](IUnknown* held, IUIAutomationElement* sender) {
        static_cast<IUIAutomationEventHandler*>(held)->HandleAutomationEvent(sender, eventId);
    });
}

int Platform::raisePropertyChangedEvent(Node& node, PROPERTYID property, const VARIANT& newValue) {
    auto targets = detail::reachedBy(*state_, &node, [&](const EventHandlerRecord& r) {
        return r.kind == Kind::PropertyChanged &&
               std::find(r.properties.begin(), r.properties.end(), property) != r.properties.end();
    });
    // The deliveries share a copy of the value, cleared after the last.
    struct OwnedValue {
        explicit OwnedValue(const VARIANT& from) {
            VariantInit(&value);
            VariantCopy(&value, const_cast<VARIANT*>(&from));
        }
        ~OwnedValue() { VariantClear(&value); }
        VARIANT value;
    };
    auto owned = std::make_shared<OwnedValue>(newValue);
    return deliverTo(*state_, *events_, node, std::move(targets),
                     [property, owned](IUnknown* held, IUIAutomationElement* sender) {
                         static_cast<IUIAutomationPropertyChangedEventHandler*>(held)
                             ->HandlePropertyChangedEvent(sender, property, owned->value);
                     });
}

int Platform::raiseStructureChangedEvent(Node& node, StructureChangeType change, const std::vector<int>& runtimeId) {
    auto targets = detail::reachedBy(*state_, &node,
                                     [&](const EventHandlerRecord& r) { return r.kind == Kind::StructureChanged; });
    return deliverTo(*state_, *events_, node, std::move(targets),
                     [change, runtimeId](IUnknown* held, IUIAutomationElement* sender) {
                         SAFEARRAY* id = detail::intSafeArray(runtimeId);
                         static_cast<IUIAutomationStructureChangedEventHandler*>(held)
                             ->HandleStructureChangedEvent(sender, change, id);
                         if (id) SafeArrayDestroy(id);
                     });
}

int Platform::raiseFocusChangedEvent(Node& node) {
    auto targets = detail::reachedBy(*state_, &node,
                                     [&](const EventHandlerRecord& r) { return r.kind == Kind::FocusChanged; });
    return deliverTo(*state_, *events_, node, std::move(targets), [](IUnknown* held, IUIAutomationElement* sender) {
        static_cast<IUIAutomationFocusChangedEventHandler*>(held)->HandleFocusChangedEvent(sender);
    });
}

bool Platform::waitForEvents(unsigned timeoutMs) { return events_->waitIdle(timeoutMs); }

}  // namespace fakeuia
