// A simulated Microsoft UI Automation platform for tests.
//
// The driver creates its automation object with
//   CoCreateInstance(CLSID_CUIAutomation[8], NULL, CLSCTX_INPROC_SERVER, IID_IUIAutomation, ...)
// and Platform::install() registers class objects for both CLSIDs in this
// process, so the driver's unchanged code receives the simulated automation
// object. The test describes a desktop as a tree of Nodes; every element the
// driver reads is a fresh COM object for one of those nodes, as with the real
// platform.
//
// Apartments: install() must be called on a thread in the multi-threaded
// apartment (CoInitializeEx(NULL, COINIT_MULTITHREADED)), and the driver's
// threads that call CoCreateInstance must be in the MTA too: a class object
// registered from the MTA is found only by MTA callers.
//
// Threads: every simulated object may be called from any thread at once. The
// tree and all records are guarded by one lock that is never held while the
// simulation calls code outside itself (event handlers, pattern sources,
// QueryInterface on objects handed in by the caller).
//
// Anything the simulation does not model answers E_NOTIMPL and is recorded as
// "Interface::Method" in Platform::unsupportedCalls(), so a test can fail on it.
//
// How the simulated platform behaves:
// - Views: the raw view walker walks every node. The control view walker and
//   the content view walker use the platform's conditions
//   (NOT IsControlElement==FALSE, and NOT (IsControlElement==FALSE OR
//   IsContentElement==FALSE)); as every node is a control and a content
//   element unless its NodeSpec says otherwise, all three walk all nodes by
//   default. A walker over a condition skips the nodes that do not match and
//   puts their matching descendants in their place; the root is in every view.
// - FindFirst/FindAll search the element (TreeScope_Element), its children
//   and/or its descendants in document order, filtered by the control view
//   as the platform's default cache request does. TreeScope_Parent and
//   TreeScope_Ancestors are recorded as unsupported.
// - ElementFromHandle answers for every live window: the node with that
//   native window handle, the root for the desktop window, else an element
//   made from the window itself (class name, text as name, handle, process
//   id, bounds, visibility, control type Window, or Pane for a child window,
//   runtime id {0x2a, handle}); its reads go to the window afresh and fail
//   with kElementNotAvailable once the window is gone. Such elements are
//   outside the tree's children lists; their parent is their parent window's.
// - Every read that yields an element hands out a new object (count 1 for
//   the caller); CompareElements is TRUE for objects of the same node.
// - GetRuntimeId of a node without a runtime id answers S_OK with a null array.
// - get_Cached* / GetCached* answer kNotCached: no cache is ever built.
//   Cache requests themselves (CreateCacheRequest, ...BuildCache) are unsupported.
// - GetCurrentPropertyValue[Ex] models the properties of NodeSpec, the
//   element-valued ones set on the Node, and Is<Pattern>Available; any other id
//   reads as VT_EMPTY (or as the reserved not-supported value with
//   ignoreDefaultValue) and is listed in unmodeledPropertyReads().
//   CreatePropertyCondition accepts the modeled I4, BSTR, BOOL properties and
//   the runtime id (value type must match: else E_INVALIDARG); conditions on
//   other properties are recorded as unsupported.
// - A failing call leaves its non-pointer outputs (numbers, flags, enums,
//   rectangles, points, window handles, and the value bytes of a VARIANT,
//   whose type stays VT_EMPTY) filled with kPoisonByte, as the real platform
//   leaves them undefined; only interface pointers and BSTRs are set to null.
// - GetCurrentPattern[As] answers S_OK with null unless a PatternSource is
//   attached to the node.
// - Get/Property/PatternProgrammaticName: the identifier's name without "UIA_"
//   and "PropertyId" ("Name") or "Id" ("InvokePattern").
// - Events raised by the test (Platform::raise...) are delivered as the
//   platform delivers them: on threads of the simulation's own (in the MTA),
//   never on the raising thread. Each raising thread has a delivery thread of
//   its own, so the events of one raising thread arrive in the order raised;
//   waitForEvents() waits until every event raised so far was delivered.
// - Event handlers are recorded and AddRef'd; Remove... releases them;
//   RemoveAllEventHandlers removes those added through that automation
//   object. Removing a handler that is not registered answers S_OK and is
//   counted in unmatchedHandlerRemovals().
#pragma once

#include <windows.h>
#include <ole2.h>
#include <uiautomation.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fakeuia {

namespace detail {
struct State;
struct NodeData;
struct Access;
class EventThreads;
}  // namespace detail

// HRESULT of every read on an element whose node has left the tree.
constexpr HRESULT kElementNotAvailable = static_cast<HRESULT>(0x80040201L);  // UIA_E_ELEMENTNOTAVAILABLE
// HRESULT of every get_Cached* / GetCached* read: no cache request is ever
// built by the simulation, so nothing is cached (the real platform answers
// E_INVALIDARG for a property or pattern that is not in the cache).
constexpr HRESULT kNotCached = E_INVALIDARG;

// The properties of one node. Every field has a default, so designated
// initializers (a GCC/Clang extension in C++17; keep the declaration order)
// work without warnings under -Wall -Wextra:
//   app.add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .automationId = L"1001"});
struct NodeSpec {
    CONTROLTYPEID controlType = UIA_CustomControlTypeId;
    std::wstring name{};
    std::wstring className{};
    std::wstring automationId{};
    std::wstring frameworkId{};  // empty: the parent's (unless the parent is the desktop), at add()
    int processId = 0;           // 0: the parent's (unless the parent is the desktop), at add()
    RECT bounds{};               // screen coordinates: left, top, right, bottom
    UIA_HWND nativeWindowHandle = nullptr;
    // Unset: a unique id {kRuntimeIdPrefix, serial} is given at add().
    // Set to an empty vector: the node has none (GetRuntimeId answers S_OK with
    // a null array, the RuntimeId property is VT_EMPTY).
    std::optional<std::vector<int>> runtimeId{};
    bool isOffscreen = false;
    bool hasKeyboardFocus = false;
    bool isEnabled = true;
    bool isKeyboardFocusable = false;
    // Every node is in the control and the content view unless set otherwise;
    // the control/content view walkers and FindFirst/FindAll skip the others.
    bool isControlElement = true;
    bool isContentElement = true;
    bool isPassword = false;
    std::wstring helpText{};
    std::wstring ariaRole{};
    std::wstring ariaProperties{};
    std::wstring fullDescription{};  // UIA_FullDescriptionPropertyId
    std::wstring providerDescription{};
    // Unset: the English name of the control type ("button", "window", ...).
    std::optional<std::wstring> localizedControlType{};
    std::wstring acceleratorKey{};
    std::wstring accessKey{};
    std::wstring itemType{};
    std::wstring itemStatus{};
    int culture = 0;
    OrientationType orientation = OrientationType_None;
    int level = 0;  // UIA_LevelPropertyId: depth in a tree or an outline
    bool isRequiredForForm = false;
    bool isDataValidForForm = true;
};

// The byte that fills the non-pointer outputs of a failing call.
constexpr unsigned char kPoisonByte = 0xA5;
// A value of T as a failing call leaves it (T is a number, enum, flag or struct).
template <class T>
T poisoned() {
    T value;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&value);
    for (size_t i = 0; i < sizeof value; ++i) bytes[i] = kPoisonByte;
    return value;
}

// First number of the runtime ids the simulation gives to nodes without one.
constexpr int kRuntimeIdPrefix = 0x7f;

// Turns a number into a window handle for NodeSpec::nativeWindowHandle.
inline UIA_HWND hwnd(std::uintptr_t value) { return reinterpret_cast<UIA_HWND>(value); }

class Node;

// Source of the pattern objects of a node, attached with Node::attachPattern.
// open() is called without the platform's lock, once for every
// GetCurrentPattern / GetCurrentPatternAs on an element of the node; it
// returns a new reference to an object answering riid (IID_IUnknown for
// GetCurrentPattern), or S_OK with *object null to report "not supported now".
class PatternSource {
public:
    virtual ~PatternSource() = default;
    virtual HRESULT open(Node& node, REFIID riid, void** object) = 0;
};

// One node of the simulated desktop. Nodes are owned by their Platform and stay
// valid (also after remove()) until the Platform and every object handed out
// for them are gone; tests keep them as Node&.
class Node {
public:
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Appends a child (at the end, or before the child at `index`).
    Node& add(const NodeSpec& spec);
    Node& insert(size_t index, const NodeSpec& spec);

    // The node and its subtree leave the tree. Elements the driver holds for
    // them then fail every read with kElementNotAvailable. A removed node
    // cannot come back; the root cannot be removed.
    void remove();
    bool inTree() const;
    bool isRoot() const;
    Node* parent() const;  // null for the root and for removed nodes
    std::vector<Node*> children() const;

    // The current properties, and replacing them (the runtime id stays when
    // the new NodeSpec leaves it unset). update() reads, calls `change`
    // without the lock, and writes back: it is not atomic against other writers.
    NodeSpec spec() const;
    void set(const NodeSpec& spec);
    template <class F>
    void update(F&& change) {
        NodeSpec s = spec();
        change(s);
        set(s);
    }
    std::vector<int> runtimeId() const;  // empty when the node has none

    // A popup, such as a combo box's drop-down list: the node (with its
    // subtree) leaves its owner's children and becomes the first (topmost)
    // child of the desktop, as the real platform shows such windows. Every
    // step agrees: its parent is the desktop, it is among the desktop's
    // children and siblings, and no longer below its owner.
    void hangUnderDesktop();
    // A provider's inconsistency: the node stays among its parent's children
    // for the walker's child and sibling steps, but the walker's parent step
    // reports the desktop. Drivers must survive such a tree.
    void reportDesktopAsParent();

    // Moves the keyboard focus here (clears it on every other node), as
    // IUIAutomationElement::SetFocus does.
    void focus();
    int setFocusCalls() const;  // IUIAutomationElement::SetFocus calls on this node

    // Element-valued properties (LabeledBy, ControllerFor, DescribedBy, FlowsTo).
    void setLabeledBy(Node* label);
    void setControllerFor(const std::vector<Node*>& nodes);
    void setDescribedBy(const std::vector<Node*>& nodes);
    void setFlowsTo(const std::vector<Node*>& nodes);

    // Failure injection. `method` is an IUIAutomationElement method name
    // ("get_CurrentControlType", "FindAll", "GetCurrentPropertyValue", ...),
    // which then fails with hr on every element of this node, or a tree walker
    // step ("GetParentElement", "GetFirstChildElement", "GetLastChildElement",
    // "GetNextSiblingElement", "GetPreviousSiblingElement", "NormalizeElement"),
    // which then fails when asked relative to this node. Unknown names throw
    // std::invalid_argument.
    void fail(const std::string& method, HRESULT hr);
    // A BSTR getter ("get_CurrentName", ...) that succeeds with a null BSTR.
    void nullString(const std::string& getter);
    void clearFailure(const std::string& methodOrGetter);
    void clearFailures();
    // Called on the reading thread, without the lock, before each property
    // read (get_Current*, GetCurrentPropertyValue[Ex], GetRuntimeId) on an element of this
    // node, with the method name: a test can hold a reader there. Empty: none.
    void beforeRead(std::function<void(const std::string& method)> hook);

    // Patterns: GetCurrentPattern(As) of an element of this node asks the
    // source; the Is<Pattern>Available properties answer TRUE for attached ones.
    void attachPattern(PATTERNID pattern, std::shared_ptr<PatternSource> source);
    void detachPattern(PATTERNID pattern);

private:
    friend struct detail::Access;
    explicit Node(detail::State* state);
    ~Node();
    detail::State* state_;
    std::unique_ptr<detail::NodeData> d_;
};

// One registration of an event handler, as recorded by the platform.
struct EventHandlerRecord {
    enum class Kind { Automation, PropertyChanged, StructureChanged, FocusChanged };
    Kind kind = Kind::Automation;
    EVENTID eventId = 0;             // UIA_*EventId (Automation kind), else the kind's event id
    Node* node = nullptr;            // null for focus-changed handlers
    TreeScope scope = TreeScope_Element;
    std::vector<PROPERTYID> properties{};  // PropertyChanged kind
    bool withCacheRequest = false;
    IUnknown* handler = nullptr;     // identity (IUnknown) of the handler; held by the platform
    DWORD threadId = 0;              // thread that registered it
    int automation = 0;              // serial of the automation object it was added through
    int serial = 0;                  // 1 for the first registration of the platform, and so on
};

class Platform {
public:
    Platform();
    // uninstall()s (so destroy it while the thread is still in the MTA);
    // objects still held by the driver stay usable.
    ~Platform();
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    // CoRegisterClassObject for CLSID_CUIAutomation and CLSID_CUIAutomation8
    // (CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE); call it in the MTA.
    HRESULT install();
    void uninstall();
    bool installed() const;

    // The root: control type Pane, name "Desktop", runtime id {0x2a, 0x10010},
    // native window handle 0x10010, no parent.
    Node& desktop();

    // --- switches --------------------------------------------------------
    // Whether automation objects answer QueryInterface(IID_IUIAutomation2).
    // IUIAutomation3..6 are never answered.
    void setAutomation2(bool on);
    // CreateInstance through this CLSID fails with hr (S_OK: succeeds again).
    void failCreation(REFCLSID clsid, HRESULT hr);
    // An IUIAutomation method ("GetRootElement", "ElementFromHandle", ...)
    // fails with hr. Unknown names throw std::invalid_argument.
    void fail(const std::string& automationMethod, HRESULT hr);
    void clearFailure(const std::string& automationMethod);

    // --- records ---------------------------------------------------------
    int createdCount(REFCLSID clsid) const;      // automation objects made
    int creationAttempts(REFCLSID clsid) const;  // CreateInstance calls
    std::vector<DWORD> createdOnThreads() const; // thread of each CreateInstance call
    std::optional<DWORD> connectionTimeout() const;   // last put_, unset if never
    std::optional<DWORD> transactionTimeout() const;
    std::optional<bool> autoSetFocus() const;
    int connectionTimeoutPuts() const;
    int transactionTimeoutPuts() const;

    // "Interface::Method" of every call the simulation does not support.
    std::vector<std::string> unsupportedCalls() const;
    void clearUnsupportedCalls();
    // Property ids read (GetCurrentPropertyValue[Ex]) that no node models;
    // they read as VT_EMPTY, or as the reserved not-supported value when the
    // caller ignores default values.
    std::vector<PROPERTYID> unmodeledPropertyReads() const;

    // References held on simulated objects (automation objects, elements,
    // arrays, walkers, conditions, patterns; not the class factories).
    long outstandingReferences() const;
    std::string outstandingBreakdown() const;  // "3 element, 1 walker", or "none"

    // --- events ----------------------------------------------------------
    std::vector<EventHandlerRecord> eventHandlers() const;
    int unmatchedHandlerRemovals() const;  // Remove...EventHandler that found nothing
    // Hands the event to the handlers registered for the node (by scope) at
    // the time of the call, each with a new sender element; returns how many
    // it reaches. The handlers are called later, on the delivery thread of
    // the calling thread, without the lock.
    int raiseAutomationEvent(EVENTID eventId, Node& node);
    int raisePropertyChangedEvent(Node& node, PROPERTYID property, const VARIANT& newValue);
    int raiseStructureChangedEvent(Node& node, StructureChangeType change, const std::vector<int>& runtimeId);
    int raiseFocusChangedEvent(Node& node);
    // Waits until every event raised so far has been delivered (its handler
    // returned); false on time-out.
    bool waitForEvents(unsigned timeoutMs);
    // Drops (and releases) every registered handler. Not done by the
    // destructor: the handlers' code may be unloaded by then.
    void releaseEventHandlers();

private:
    std::shared_ptr<detail::State> state_;
    std::unique_ptr<detail::EventThreads> events_;
};

}  // namespace fakeuia
