// The simulated platform: its shared state, the tree of nodes, the class
// factories and the records tests read.
#include "FakeUiaInternal.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace fakeuia {
namespace detail {

namespace {

const char* const kElementMethods[] = {
    "SetFocus", "GetRuntimeId", "FindFirst", "FindAll", "FindFirstBuildCache", "FindAllBuildCache",
    "BuildUpdatedCache", "GetCurrentPropertyValue", "GetCurrentPropertyValueEx", "GetCachedPropertyValue",
    "GetCachedPropertyValueEx", "GetCurrentPatternAs", "GetCachedPatternAs", "GetCurrentPattern",
    "GetCachedPattern", "GetCachedParent", "GetCachedChildren", "get_CurrentProcessId",
    "get_CurrentControlType", "get_CurrentLocalizedControlType", "get_CurrentName",
    "get_CurrentAcceleratorKey", "get_CurrentAccessKey", "get_CurrentHasKeyboardFocus",
    "get_CurrentIsKeyboardFocusable", "get_CurrentIsEnabled", "get_CurrentAutomationId",
    "get_CurrentClassName", "get_CurrentHelpText", "get_CurrentCulture", "get_CurrentIsControlElement",
    "get_CurrentIsContentElement", "get_CurrentIsPassword", "get_CurrentNativeWindowHandle",
    "get_CurrentItemType", "get_CurrentIsOffscreen", "get_CurrentOrientation", "get_CurrentFrameworkId",
    "get_CurrentIsRequiredForForm", "get_CurrentItemStatus", "get_CurrentBoundingRectangle",
    "get_CurrentLabeledBy", "get_CurrentAriaRole", "get_CurrentAriaProperties",
    "get_CurrentIsDataValidForForm", "get_CurrentControllerFor", "get_CurrentDescribedBy",
    "get_CurrentFlowsTo", "get_CurrentProviderDescription", "get_CachedProcessId", "get_CachedControlType",
    "get_CachedLocalizedControlType", "get_CachedName", "get_CachedAcceleratorKey", "get_CachedAccessKey",
    "get_CachedHasKeyboardFocus", "get_CachedIsKeyboardFocusable", "get_CachedIsEnabled",
    "get_CachedAutomationId", "get_CachedClassName", "get_CachedHelpText", "get_CachedCulture",
    "get_CachedIsControlElement", "get_CachedIsContentElement", "get_CachedIsPassword",
    "get_CachedNativeWindowHandle", "get_CachedItemType", "get_CachedIsOffscreen", "get_CachedOrientation",
    "get_CachedFrameworkId", "get_CachedIsRequiredForForm", "get_CachedItemStatus",
    "get_CachedBoundingRectangle", "get_CachedLabeledBy", "get_CachedAriaRole", "get_CachedAriaProperties",
    "get_CachedIsDataValidForForm", "get_CachedControllerFor", "get_CachedDescribedBy", "get_CachedFlowsTo",
    "get_CachedProviderDescription", "GetClickablePoint",
};

const char* const kWalkerSteps[] = {
    "GetParentElement", "GetFirstChildElement", "GetLastChildElement",
    "GetNextSiblingElement", "GetPreviousSiblingElement", "NormalizeElement",
};

const char* const kElementStringGetters[] = {
    "get_CurrentLocalizedControlType", "get_CurrentName", "get_CurrentAcceleratorKey", "get_CurrentAccessKey",
    "get_CurrentAutomationId", "get_CurrentClassName", "get_CurrentHelpText", "get_CurrentItemType",
    "get_CurrentFrameworkId", "get_CurrentItemStatus", "get_CurrentAriaRole", "get_CurrentAriaProperties",
    "get_CurrentProviderDescription",
};

const char* const kAutomationMethods[] = {
    "CompareElements", "CompareRuntimeIds", "GetRootElement", "ElementFromHandle", "ElementFromPoint",
    "GetFocusedElement", "GetRootElementBuildCache", "ElementFromHandleBuildCache",
    "ElementFromPointBuildCache", "GetFocusedElementBuildCache", "CreateTreeWalker",
    "get_ControlViewWalker", "get_ContentViewWalker", "get_RawViewWalker", "get_RawViewCondition",
    "get_ControlViewCondition", "get_ContentViewCondition", "CreateCacheRequest", "CreateTrueCondition",
    "CreateFalseCondition", "CreatePropertyCondition", "CreatePropertyConditionEx", "CreateAndCondition",
    "CreateAndConditionFromArray", "CreateAndConditionFromNativeArray", "CreateOrCondition",
    "CreateOrConditionFromArray", "CreateOrConditionFromNativeArray", "CreateNotCondition",
    "AddAutomationEventHandler", "RemoveAutomationEventHandler", "AddPropertyChangedEventHandlerNativeArray",
    "AddPropertyChangedEventHandler", "RemovePropertyChangedEventHandler", "AddStructureChangedEventHandler",
    "RemoveStructureChangedEventHandler", "AddFocusChangedEventHandler", "RemoveFocusChangedEventHandler",
    "RemoveAllEventHandlers", "IntNativeArrayToSafeArray", "IntSafeArrayToNativeArray", "RectToVariant",
    "VariantToRect", "SafeArrayToRectNativeArray", "CreateProxyFactoryEntry", "get_ProxyFactoryMapping",
    "GetPropertyProgrammaticName", "GetPatternProgrammaticName", "PollForPotentialSupportedPatterns",
    "PollForPotentialSupportedProperties", "CheckNotSupported", "get_ReservedNotSupportedValue",
    "get_ReservedMixedAttributeValue", "ElementFromIAccessible", "ElementFromIAccessibleBuildCache",
    "get_AutoSetFocus", "put_AutoSetFocus", "get_ConnectionTimeout", "put_ConnectionTimeout",
    "get_TransactionTimeout", "put_TransactionTimeout",
};

template <size_t N>
bool contains(const char* const (&list)[N], const std::string& name) {
    for (const char* entry : list)
        if (name == entry) return true;
    return false;
}

int classIndex(REFCLSID clsid) {
    if (IsEqualCLSID(clsid, CLSID_CUIAutomation)) return 0;
    if (IsEqualCLSID(clsid, CLSID_CUIAutomation8)) return 1;
    return -1;
}

// Class object for one CLSID; not counted among the simulated objects.
class Factory final : public IClassFactory {
public:
    Factory(std::shared_ptr<State> state, int index) : state_(std::move(state)), index_(index) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
            *object = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++count_; }
    ULONG STDMETHODCALLTYPE Release() override {
        ULONG n = --count_;
        if (n == 0) delete this;
        return n;
    }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        HRESULT fail;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            State::ClassRecord& rec = state_->classes[index_];
            ++rec.attempts;
            state_->createdOnThreads.push_back(GetCurrentThreadId());
            fail = rec.failWith;
        }
        if (outer) return CLASS_E_NOAGGREGATION;
        if (FAILED(fail)) return fail;
        HRESULT hr = createAutomation(*state_, riid, object);
        if (SUCCEEDED(hr)) {
            std::lock_guard<std::mutex> lock(state_->mu);
            ++state_->classes[index_].created;
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    std::shared_ptr<State> state_;
    int index_;
    std::atomic<ULONG> count_{1};
};

}  // namespace

bool isElementMethod(const std::string& name) { return contains(kElementMethods, name); }
bool isWalkerStep(const std::string& name) { return contains(kWalkerSteps, name); }
bool isElementStringGetter(const std::string& name) { return contains(kElementStringGetters, name); }
bool isAutomationMethod(const std::string& name) { return contains(kAutomationMethods, name); }

const char* kindName(Kind kind) {
    switch (kind) {
    case kAutomation: return "automation";
    case kElement: return "element";
    case kArray: return "array";
    case kWalker: return "walker";
    case kCondition: return "condition";
    case kPattern: return "pattern";
    case kTextRange: return "textrange";
    default: return "?";
    }
}

Node* Access::create(State* state) { return new Node(state); }
void Access::destroy(Node* node) { delete node; }

State::State() {
    for (auto& r : refs) r = 0;
    NodeSpec desktop;
    desktop.controlType = UIA_PaneControlTypeId;
    desktop.name = L"Desktop";
    desktop.className = L"#32769";
    desktop.frameworkId = L"Win32";
    desktop.runtimeId = std::vector<int>{0x2a, 0x10010};
    desktop.nativeWindowHandle = hwnd(0x10010);
    desktop.bounds = RECT{0, 0, 1920, 1080};
    desktop.isKeyboardFocusable = true;
    root = makeNodeLocked(nullptr, 0, desktop);
}

State::~State() {
    // Handlers still registered now were never removed by their owner, whose
    // code may be gone: they are left unreleased.
    for (auto& h : handlers) h->held = nullptr;
    for (Node* n : nodes) Access::destroy(n);
}

HRESULT State::unsupportedCall(const char* what) {
    std::lock_guard<std::mutex> lock(mu);
    unsupported.emplace_back(what);
    return E_NOTIMPL;
}

HRESULT State::automationFailureLocked(const char* method) const {
    auto it = automationFailures.find(method);
    return it == automationFailures.end() ? S_OK : it->second;
}

Node* State::makeNodeLocked(Node* parent, size_t index, const NodeSpec& spec) {
    Node* node = Access::create(this);
    NodeData& d = D(node);
    d.self = node;
    d.spec = spec;
    if (!d.spec.runtimeId) d.spec.runtimeId = std::vector<int>{kRuntimeIdPrefix, nextSerial++};
    if (parent) {
        NodeData& p = D(parent);
        if (parent != root) {
            if (d.spec.processId == 0) d.spec.processId = p.spec.processId;
            if (d.spec.frameworkId.empty()) d.spec.frameworkId = p.spec.frameworkId;
        }
        d.parent = parent;
        index = std::min(index, p.children.size());
        p.children.insert(p.children.begin() + static_cast<std::ptrdiff_t>(index), node);
    }
    nodes.push_back(node);
    return node;
}

bool isDescendantLocked(Node* node, Node* ancestor) {
    for (Node* p = D(node).parent; p; p = D(p).parent)
        if (p == ancestor) return true;
    return false;
}

void preorderLocked(Node* start, std::vector<Node*>& out) {
    out.push_back(start);
    for (Node* c : D(start).children) preorderLocked(c, out);
}

}  // namespace detail

using detail::D;

// --- Node ---------------------------------------------------------------------------

Node::Node(detail::State* state) : state_(state), d_(new detail::NodeData) {}
Node::~Node() = default;

Node& Node::add(const NodeSpec& spec) { return insert(static_cast<size_t>(-1), spec); }

Node& Node::insert(size_t index, const NodeSpec& spec) {
    std::lock_guard<std::mutex> lock(state_->mu);
    if (!d_->alive) throw std::logic_error("fakeuia: adding to a removed node");
    return *state_->makeNodeLocked(this, index, spec);
}

void Node::remove() {
    std::lock_guard<std::mutex> lock(state_->mu);
    if (this == state_->root) throw std::logic_error("fakeuia: the desktop cannot be removed");
    if (!d_->alive) return;
    if (d_->parent) {
        auto& siblings = D(d_->parent).children;
        siblings.erase(std::find(siblings.begin(), siblings.end(), this));
    }
    d_->parent = nullptr;
    std::vector<Node*> subtree;
    detail::preorderLocked(this, subtree);
    for (Node* n : subtree) D(n).alive = false;
}

bool Node::inTree() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return d_->alive;
}

bool Node::isRoot() const { return this == state_->root; }

Node* Node::parent() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return d_->parent;
}

std::vector<Node*> Node::children() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return d_->children;
}

NodeSpec Node::spec() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return d_->spec;
}

void Node::set(const NodeSpec& spec) {
    std::lock_guard<std::mutex> lock(state_->mu);
    std::optional<std::vector<int>> keep = d_->spec.runtimeId;
    d_->spec = spec;
    if (!d_->spec.runtimeId) d_->spec.runtimeId = keep;
}

std::vector<int> Node::runtimeId() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return *d_->spec.runtimeId;
}

void Node::hangUnderDesktop() {
    std::lock_guard<std::mutex> lock(state_->mu);
    if (this == state_->root) throw std::logic_error("fakeuia: the desktop cannot hang under itself");
    if (!d_->alive || d_->parent == state_->root) return;
    auto& siblings = D(d_->parent).children;
    siblings.erase(std::find(siblings.begin(), siblings.end(), this));
    auto& tops = D(state_->root).children;
    tops.insert(tops.begin(), this);
    d_->parent = state_->root;
}

void Node::reportDesktopAsParent() {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->parentIsDesktop = true;
}

void Node::focus() {
    std::lock_guard<std::mutex> lock(state_->mu);
    for (Node* n : state_->nodes) D(n).spec.hasKeyboardFocus = false;
    d_->spec.hasKeyboardFocus = true;
}

int Node::setFocusCalls() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return d_->setFocusCalls;
}

void Node::setLabeledBy(Node* label) {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->labeledBy = label;
}

void Node::setControllerFor(const std::vector<Node*>& nodes) {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->controllerFor = nodes;
}

void Node::setDescribedBy(const std::vector<Node*>& nodes) {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->describedBy = nodes;
}

void Node::setFlowsTo(const std::vector<Node*>& nodes) {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->flowsTo = nodes;
}

void Node::fail(const std::string& method, HRESULT hr) {
    if (!detail::isElementMethod(method) && !detail::isWalkerStep(method))
        throw std::invalid_argument("fakeuia: no element method or walker step named " + method);
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->failures[method] = hr;
}

void Node::nullString(const std::string& getter) {
    if (!detail::isElementStringGetter(getter))
        throw std::invalid_argument("fakeuia: no string getter named " + getter);
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->nullStrings.insert(getter);
}

void Node::clearFailure(const std::string& methodOrGetter) {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->failures.erase(methodOrGetter);
    d_->nullStrings.erase(methodOrGetter);
}

void Node::clearFailures() {
    std::lock_guard<std::mutex> lock(state_->mu);
    d_->failures.clear();
    d_->nullStrings.clear();
}

void Node::beforeRead(std::function<void(const std::string& method)> hook) {
    std::function<void(const std::string&)> old;  // destroyed without the lock
    std::lock_guard<std::mutex> lock(state_->mu);
    old.swap(d_->beforeRead);
    d_->beforeRead = std::move(hook);
}

void Node::attachPattern(PATTERNID pattern, std::shared_ptr<PatternSource> source) {
    std::shared_ptr<PatternSource> old;  // released without the lock
    std::lock_guard<std::mutex> lock(state_->mu);
    old = std::move(d_->patterns[pattern]);
    d_->patterns[pattern] = std::move(source);
}

void Node::detachPattern(PATTERNID pattern) {
    std::shared_ptr<PatternSource> old;  // released without the lock
    std::lock_guard<std::mutex> lock(state_->mu);
    auto it = d_->patterns.find(pattern);
    if (it == d_->patterns.end()) return;
    old = std::move(it->second);
    d_->patterns.erase(it);
}

// --- Platform -----------------------------------------------------------------------

Platform::Platform() : state_(std::make_shared<detail::State>()), events_(std::make_unique<detail::EventThreads>()) {}

Platform::~Platform() {
    events_.reset();  // delivers what was raised, then ends the delivery threads
    uninstall();
}

HRESULT Platform::install() {
    const CLSID* clsids[2] = {&CLSID_CUIAutomation, &CLSID_CUIAutomation8};
    for (int i = 0; i < 2; ++i) {
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            if (state_->classes[i].registered) continue;
        }
        auto* factory = new detail::Factory(state_, i);
        DWORD cookie = 0;
        HRESULT hr = CoRegisterClassObject(*clsids[i], factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie);
        factory->Release();  // COM holds it while registered
        if (FAILED(hr)) {
            uninstall();
            return hr;
        }
        std::lock_guard<std::mutex> lock(state_->mu);
        state_->classes[i].cookie = cookie;
        state_->classes[i].registered = true;
    }
    return S_OK;
}

void Platform::uninstall() {
    for (auto& rec : state_->classes) {
        DWORD cookie = 0;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            if (!rec.registered) continue;
            cookie = rec.cookie;
            rec.registered = false;
            rec.cookie = 0;
        }
        CoRevokeClassObject(cookie);
    }
}

bool Platform::installed() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->classes[0].registered && state_->classes[1].registered;
}

Node& Platform::desktop() { return *state_->root; }

void Platform::setAutomation2(bool on) {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->automation2 = on;
}

void Platform::failCreation(REFCLSID clsid, HRESULT hr) {
    int i = detail::classIndex(clsid);
    if (i < 0) throw std::invalid_argument("fakeuia: not an automation CLSID");
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->classes[i].failWith = hr;
}

void Platform::fail(const std::string& automationMethod, HRESULT hr) {
    if (!detail::isAutomationMethod(automationMethod))
        throw std::invalid_argument("fakeuia: no IUIAutomation method named " + automationMethod);
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->automationFailures[automationMethod] = hr;
}

void Platform::clearFailure(const std::string& automationMethod) {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->automationFailures.erase(automationMethod);
}

int Platform::createdCount(REFCLSID clsid) const {
    int i = detail::classIndex(clsid);
    std::lock_guard<std::mutex> lock(state_->mu);
    return i < 0 ? 0 : state_->classes[i].created;
}

int Platform::creationAttempts(REFCLSID clsid) const {
    int i = detail::classIndex(clsid);
    std::lock_guard<std::mutex> lock(state_->mu);
    return i < 0 ? 0 : state_->classes[i].attempts;
}

std::vector<DWORD> Platform::createdOnThreads() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->createdOnThreads;
}

std::optional<DWORD> Platform::connectionTimeout() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->connectionTimeout;
}

std::optional<DWORD> Platform::transactionTimeout() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->transactionTimeout;
}

std::optional<bool> Platform::autoSetFocus() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->autoSetFocus;
}

int Platform::connectionTimeoutPuts() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->connectionTimeoutPuts;
}

int Platform::transactionTimeoutPuts() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->transactionTimeoutPuts;
}

std::vector<std::string> Platform::unsupportedCalls() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->unsupported;
}

void Platform::clearUnsupportedCalls() {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->unsupported.clear();
}

std::vector<PROPERTYID> Platform::unmodeledPropertyReads() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->unmodeledReads;
}

long Platform::outstandingReferences() const {
    long total = 0;
    for (auto& r : state_->refs) total += r.load();
    return total;
}

std::string Platform::outstandingBreakdown() const {
    std::ostringstream out;
    for (int k = 0; k < detail::kKindCount; ++k) {
        long n = state_->refs[k].load();
        if (n == 0) continue;
        if (out.tellp() > 0) out << ", ";
        out << n << ' ' << detail::kindName(static_cast<detail::Kind>(k));
    }
    return out.tellp() > 0 ? out.str() : std::string("none");
}

}  // namespace fakeuia
