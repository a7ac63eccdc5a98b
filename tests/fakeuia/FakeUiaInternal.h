// Internals of the simulated UI Automation platform, shared by its source files.
#pragma once

#include "FakeUia.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace fakeuia {
namespace detail {

// --- identifier tables (FakeUiaNames.cpp) -------------------------------------
struct IdName {
    int id;
    const wchar_t* name;
};
struct IdPair {
    int first;
    int second;
};
extern const IdName kPropertyNames[];
extern const size_t kPropertyNameCount;
extern const IdName kPatternNames[];
extern const size_t kPatternNameCount;
extern const IdPair kPatternAvailability[];  // pattern id -> Is...Available property id
extern const size_t kPatternAvailabilityCount;
extern const IdName kControlTypeNames[];
extern const size_t kControlTypeNameCount;

const wchar_t* propertyName(PROPERTYID id);  // null when unknown
const wchar_t* patternName(PATTERNID id);    // null when unknown
std::wstring localizedControlTypeName(CONTROLTYPEID id);

// --- outputs of failing calls --------------------------------------------------
// Fills a non-pointer output of a failing call with kPoisonByte.
template <class T>
void poison(T* out) {
    if (out) *out = poisoned<T>();
}
// Any output of a failing call: pointers (interfaces, BSTRs) become null,
// everything else is poisoned.
template <class T>
void clearOrPoison(T* out);
// A VARIANT output of a failing call: VT_EMPTY, its value bytes poisoned.
inline void poison(VARIANT* out) {
    if (!out) return;
    *out = poisoned<VARIANT>();
    out->vt = VT_EMPTY;
}
template <class T>
void clearOrPoison(T* out) {
    if constexpr (std::is_pointer<T>::value) {
        if (out) *out = nullptr;
    } else {
        poison(out);
    }
}

// --- kinds of counted objects ---------------------------------------------------
enum Kind { kAutomation, kElement, kArray, kWalker, kCondition, kPattern, kTextRange, kKindCount };
const char* kindName(Kind kind);

// --- the tree -------------------------------------------------------------------
struct NodeData {
    Node* self = nullptr;
    Node* parent = nullptr;
    std::vector<Node*> children;
    bool alive = true;
    NodeSpec spec;  // runtimeId always set (empty vector: none)
    std::map<std::string, HRESULT> failures;
    std::set<std::string> nullStrings;
    std::function<void(const std::string&)> beforeRead;
    std::map<PATTERNID, std::shared_ptr<PatternSource>> patterns;
    Node* labeledBy = nullptr;
    std::vector<Node*> controllerFor;
    std::vector<Node*> describedBy;
    std::vector<Node*> flowsTo;
    int setFocusCalls = 0;
    HWND window = nullptr;  // a node made from a live window by ElementFromHandle (FakeUiaWindows.cpp)
    bool parentIsDesktop = false;  // reportDesktopAsParent(): the parent step answers the desktop
};

struct Access {
    static Node* create(State* state);
    static void destroy(Node* node);
    static NodeData& data(Node& node) { return *node.d_; }
    static NodeData& data(Node* node) { return *node->d_; }
    static State& state(Node& node) { return *node.state_; }
};
inline NodeData& D(Node* node) { return Access::data(node); }

// A registered event handler. The last owner of an entry releases the
// handler; owners are only ever dropped without the lock held.
struct HandlerEntry {
    EventHandlerRecord record;
    IUnknown* held = nullptr;  // the interface pointer passed in (as that interface), AddRef'd
    HandlerEntry() = default;
    HandlerEntry(const HandlerEntry&) = delete;
    HandlerEntry& operator=(const HandlerEntry&) = delete;
    ~HandlerEntry() {
        if (held) held->Release();
    }
};
using HandlerPtr = std::shared_ptr<HandlerEntry>;

// The threads that deliver raised events: one for each raising thread, each
// running its deliveries in the order given. The destructor delivers what is
// left and ends them.
class EventThreads {
public:
    EventThreads() = default;
    ~EventThreads();
    EventThreads(const EventThreads&) = delete;
    EventThreads& operator=(const EventThreads&) = delete;

    // Queues the delivery on the calling thread's delivery thread.
    void deliver(std::function<void()> delivery);
    bool waitIdle(unsigned timeoutMs);

private:
    struct Worker {
        std::deque<std::function<void()>> deliveries;
        std::thread thread;
    };
    void run(Worker& worker);

    std::mutex mu_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::map<DWORD, std::unique_ptr<Worker>> workers_;  // by raising thread
    size_t pending_ = 0;
    bool stopping_ = false;
};

// Everything the simulated objects share. Objects keep it alive.
struct State : std::enable_shared_from_this<State> {
    State();
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    mutable std::mutex mu;
    std::vector<Node*> nodes;  // every node ever made, owned here
    Node* root = nullptr;
    int nextSerial = 1;

    std::atomic<long> refs[kKindCount];

    bool automation2 = true;
    struct ClassRecord {
        HRESULT failWith = S_OK;
        int created = 0;
        int attempts = 0;
        DWORD cookie = 0;
        bool registered = false;
    };
    ClassRecord classes[2];  // CLSID_CUIAutomation, CLSID_CUIAutomation8
    std::vector<DWORD> createdOnThreads;
    std::map<std::string, HRESULT> automationFailures;
    std::optional<DWORD> connectionTimeout;
    std::optional<DWORD> transactionTimeout;
    std::optional<bool> autoSetFocus;
    int connectionTimeoutPuts = 0;
    int transactionTimeoutPuts = 0;
    int nextAutomationSerial = 1;

    std::map<HWND, Node*> windowNodes;  // the nodes made from live windows, by window

    std::vector<std::string> unsupported;
    std::vector<PROPERTYID> unmodeledReads;
    std::vector<HandlerPtr> handlers;
    int unmatchedRemovals = 0;
    int nextHandlerSerial = 1;

    // Helpers; "Locked" ones expect mu to be held.
    HRESULT unsupportedCall(const char* what);  // records, answers E_NOTIMPL
    HRESULT automationFailureLocked(const char* method) const;
    Node* makeNodeLocked(Node* parent, size_t index, const NodeSpec& spec);
};

// --- counted COM objects -------------------------------------------------------
class Counted {
public:
    Counted(State& state, Kind kind) : state_(state.shared_from_this()), kind_(kind) { ++state_->refs[kind_]; }
    virtual ~Counted() = default;
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

protected:
    ULONG addRef() {
        ++state_->refs[kind_];
        return ++count_;
    }
    ULONG release() {
        --state_->refs[kind_];
        ULONG n = --count_;
        if (n == 0) delete this;
        return n;
    }
    std::shared_ptr<State> state_;
    Kind kind_;
    std::atomic<ULONG> count_{1};
};

#define FAKEUIA_COUNTED_REFS                                          \
    ULONG STDMETHODCALLTYPE AddRef() override { return addRef(); }   \
    ULONG STDMETHODCALLTYPE Release() override { return release(); }

// --- conditions (FakeUiaConditions.cpp) -------------------------------------------
struct Cond {
    enum Type { True, False, Property, And, Or, Not };
    Type type = True;
    PROPERTYID property = 0;
    VARIANT value;  // owned
    PropertyConditionFlags flags = PropertyConditionFlags_None;
    std::vector<std::shared_ptr<const Cond>> children;
    Cond() { VariantInit(&value); }
    ~Cond() { VariantClear(&value); }
    Cond(const Cond&) = delete;
    Cond& operator=(const Cond&) = delete;
};
using CondPtr = std::shared_ptr<const Cond>;

// PropertyConditionFlags_MatchSubstring of newer platform headers.
constexpr int kMatchSubstring = 0x2;

CondPtr trueCond();
CondPtr falseCond();
CondPtr controlViewCond();  // NOT(IsControlElement == FALSE)
CondPtr contentViewCond();  // NOT(IsControlElement == FALSE OR IsContentElement == FALSE)
// Validates a property condition: S_OK, E_INVALIDARG, or E_NOTIMPL (recorded)
// for a property the simulation does not model.
HRESULT makePropertyCond(State& state, PROPERTYID property, const VARIANT& value, int flags, CondPtr* out);
CondPtr makeCompositeCond(Cond::Type type, std::vector<CondPtr> children);
IUIAutomationCondition* newCondition(State& state, CondPtr cond);
// The condition behind a simulated condition object; null for foreign objects.
// Calls QueryInterface on the object: never with the lock held.
CondPtr condOf(State& state, IUnknown* condition);
bool matchesLocked(State& state, const Cond& cond, Node* node);

// --- properties (FakeUiaProperties.cpp) --------------------------------------------
enum class PropertyType { Unmodeled, I4, Bstr, Bool, I4Array, R8Array, Element, ElementArray };
PropertyType modeledType(PROPERTYID id);
// Reads a property of a node into *out (VT_EMPTY for unmodeled ones).
void readPropertyLocked(State& state, Node* node, PROPERTYID id, VARIANT* out);
RECT boundsOf(Node* node);
bool clickablePointLocked(Node* node, POINT* pt);
SAFEARRAY* intSafeArray(const std::vector<int>& values);
SAFEARRAY* doubleSafeArray(const std::vector<double>& values);

// The process-wide reserved values (their references are not counted).
IUnknown* reservedNotSupportedValue();
IUnknown* reservedMixedAttributeValue();

// --- elements, arrays, walkers (FakeUiaElement.cpp) -------------------------------
IUIAutomationElement* newElement(State& state, Node* node);
IUIAutomationElementArray* newElementArray(State& state, std::vector<Node*> nodes);
IUIAutomationTreeWalker* newWalker(State& state, CondPtr condition);
// The node behind a simulated element; null for foreign objects or null.
// Calls QueryInterface on the object: never with the lock held.
Node* nodeOf(State& state, IUnknown* element);

// Tree helpers (lock held).
bool isDescendantLocked(Node* node, Node* ancestor);  // proper descendant
void preorderLocked(Node* start, std::vector<Node*>& out);  // start and its subtree

// --- nodes of live windows (FakeUiaWindows.cpp) -------------------------------------
// The node of a window: the tree's node with that native window handle, the
// root for the desktop window, else a node made from the window itself (kept
// outside the children lists, made once per window); null if the handle
// names no window. Lock held; sends no window messages.
Node* nodeOfWindowLocked(State& state, HWND window);
// For a node made from a window: S_OK after its properties were read afresh
// from the window, kElementNotAvailable once the window is gone. S_OK for
// every other node.
HRESULT refreshWindowNodeLocked(Node* node);
// The parent of a node made from a window: the node of its parent window, or
// the root for a top-level window.
Node* windowParentLocked(State& state, Node* node);

// Method names accepted by the failure injection.
bool isElementMethod(const std::string& name);
bool isWalkerStep(const std::string& name);
bool isElementStringGetter(const std::string& name);
bool isAutomationMethod(const std::string& name);

// --- automation object (FakeUiaAutomation.cpp) -------------------------------------
HRESULT createAutomation(State& state, REFIID riid, void** object);

// --- event handler registrations (FakeUiaEvents.cpp) -------------------------------
// Records and AddRefs `handler` (given as its event handler interface);
// `element` is null for focus-changed handlers. Never called with the lock held.
HRESULT registerHandler(State& state, EventHandlerRecord record, IUnknown* handler, IUnknown* element);
// Removes the first registration of that kind (and event id, for automation
// events) for the element's node and the handler's identity.
HRESULT unregisterHandler(State& state, EventHandlerRecord::Kind kind, EVENTID eventId, IUnknown* element,
                          IUnknown* handler);
void unregisterAll(State& state, int automation);

}  // namespace detail
}  // namespace fakeuia
