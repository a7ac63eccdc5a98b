// Event handler registrations and raising events to them.
//
// Registered handlers are AddRef'd, as the platform does, and released when
// removed. Events are raised by the test (Platform::raise...), on the test's
// thread, which therefore has to be in the MTA as the platform's event threads
// are; the lock is never held while a handler runs or is released.
#include "FakeUiaInternal.h"

#include <algorithm>

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

int Platform::raiseAutomationEvent(EVENTID eventId, Node& node) {
    auto targets = detail::reachedBy(*state_, &node, [&](const EventHandlerRecord& r) {
        return r.kind == Kind::Automation && r.eventId == eventId;
    });
    for (const HandlerPtr& h : targets) {
        IUIAutomationElement* sender = detail::newElement(*state_, &node);
        static_cast<IUIAutomationEventHandler*>(h->held)->HandleAutomationEvent(sender, eventId);
        sender->Release();
    }
    return static_cast<int>(targets.size());
}

int Platform::raisePropertyChangedEvent(Node& node, PROPERTYID property, const VARIANT& newValue) {
    auto targets = detail::reachedBy(*state_, &node, [&](const EventHandlerRecord& r) {
        return r.kind == Kind::PropertyChanged &&
               std::find(r.properties.begin(), r.properties.end(), property) != r.properties.end();
    });
    for (const HandlerPtr& h : targets) {
        IUIAutomationElement* sender = detail::newElement(*state_, &node);
        static_cast<IUIAutomationPropertyChangedEventHandler*>(h->held)
            ->HandlePropertyChangedEvent(sender, property, newValue);
        sender->Release();
    }
    return static_cast<int>(targets.size());
}

int Platform::raiseStructureChangedEvent(Node& node, StructureChangeType change, const std::vector<int>& runtimeId) {
    auto targets = detail::reachedBy(*state_, &node,
                                     [&](const EventHandlerRecord& r) { return r.kind == Kind::StructureChanged; });
    for (const HandlerPtr& h : targets) {
        IUIAutomationElement* sender = detail::newElement(*state_, &node);
        SAFEARRAY* id = detail::intSafeArray(runtimeId);
        static_cast<IUIAutomationStructureChangedEventHandler*>(h->held)
            ->HandleStructureChangedEvent(sender, change, id);
        if (id) SafeArrayDestroy(id);
        sender->Release();
    }
    return static_cast<int>(targets.size());
}

int Platform::raiseFocusChangedEvent(Node& node) {
    auto targets = detail::reachedBy(*state_, &node,
                                     [&](const EventHandlerRecord& r) { return r.kind == Kind::FocusChanged; });
    for (const HandlerPtr& h : targets) {
        IUIAutomationElement* sender = detail::newElement(*state_, &node);
        static_cast<IUIAutomationFocusChangedEventHandler*>(h->held)->HandleFocusChangedEvent(sender);
        sender->Release();
    }
    return static_cast<int>(targets.size());
}

}  // namespace fakeuia
