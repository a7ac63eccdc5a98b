// Elements, element arrays and tree walkers.
//
// Every element object stands for one node. Each read that yields an element
// hands out a new object (reference count 1 for the caller), as the platform
// does; two objects are the same element when they stand for the same node.
#include "FakeUiaInternal.h"

#include <algorithm>

namespace fakeuia {
namespace detail {

namespace {

// Private interface id: answered only by the simulation's own element objects.
const IID IID_SimulatedElement = {0x2f9d7a41, 0x5c0e, 0x4b6a, {0x9e, 0x13, 0x71, 0x0a, 0xd2, 0x5b, 0x88, 0x3c}};

class Element final : public IUIAutomationElement, public Counted {
public:
    Element(State& state, Node* node) : Counted(state, kElement), node_(node) {}

    Node* node() const { return node_; }
    State* owner() const { return state_.get(); }
    ULONG releaseSelf() { return release(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomationElement)) {
            *object = static_cast<IUIAutomationElement*>(this);
        } else if (IsEqualIID(riid, IID_SimulatedElement)) {
            *object = this;
        } else {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        addRef();
        return S_OK;
    }
    FAKEUIA_COUNTED_REFS

    // --- actions and structure ------------------------------------------------
    HRESULT STDMETHODCALLTYPE SetFocus() override {
        std::lock_guard<std::mutex> lock(state_->mu);
        HRESULT hr = checkLocked("SetFocus");
        if (hr != S_OK) return hr;
        NodeData& d = D(node_);
        ++d.setFocusCalls;
        if (!d.spec.isEnabled) return UIA_E_ELEMENTNOTENABLED;
        for (Node* n : state_->nodes) D(n).spec.hasKeyboardFocus = false;
        d.spec.hasKeyboardFocus = true;
        return S_OK;
    }

    // An element whose node has no runtime id answers S_OK with a null array.
    HRESULT STDMETHODCALLTYPE GetRuntimeId(SAFEARRAY** runtimeId) override {
        if (!runtimeId) return E_POINTER;
        *runtimeId = nullptr;
        beforeRead("GetRuntimeId");
        std::vector<int> id;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            HRESULT hr = checkLocked("GetRuntimeId");
            if (hr != S_OK) return hr;
            id = *D(node_).spec.runtimeId;
        }
        if (id.empty()) return S_OK;
        *runtimeId = intSafeArray(id);
        return *runtimeId ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE FindFirst(TreeScope scope, IUIAutomationCondition* condition,
                                        IUIAutomationElement** found) override {
        if (!found) return E_POINTER;
        *found = nullptr;
        std::vector<Node*> hits;
        HRESULT hr = find("FindFirst", scope, condition, true, hits);
        if (hr == S_OK && !hits.empty()) *found = newElement(*state_, hits.front());
        return hr;
    }

    HRESULT STDMETHODCALLTYPE FindAll(TreeScope scope, IUIAutomationCondition* condition,
                                      IUIAutomationElementArray** found) override {
        if (!found) return E_POINTER;
        *found = nullptr;
        std::vector<Node*> hits;
        HRESULT hr = find("FindAll", scope, condition, false, hits);
        if (hr == S_OK) *found = newElementArray(*state_, std::move(hits));
        return hr;
    }

    HRESULT STDMETHODCALLTYPE FindFirstBuildCache(TreeScope, IUIAutomationCondition*, IUIAutomationCacheRequest*,
                                                  IUIAutomationElement** found) override {
        if (found) *found = nullptr;
        return state_->unsupportedCall("IUIAutomationElement::FindFirstBuildCache");
    }
    HRESULT STDMETHODCALLTYPE FindAllBuildCache(TreeScope, IUIAutomationCondition*, IUIAutomationCacheRequest*,
                                                IUIAutomationElementArray** found) override {
        if (found) *found = nullptr;
        return state_->unsupportedCall("IUIAutomationElement::FindAllBuildCache");
    }
    HRESULT STDMETHODCALLTYPE BuildUpdatedCache(IUIAutomationCacheRequest*, IUIAutomationElement** updated) override {
        if (updated) *updated = nullptr;
        return state_->unsupportedCall("IUIAutomationElement::BuildUpdatedCache");
    }

    // --- properties by id ---------------------------------------------------------
    HRESULT STDMETHODCALLTYPE GetCurrentPropertyValue(PROPERTYID id, VARIANT* value) override {
        return propertyValue("GetCurrentPropertyValue", id, FALSE, value);
    }
    HRESULT STDMETHODCALLTYPE GetCurrentPropertyValueEx(PROPERTYID id, BOOL ignoreDefault, VARIANT* value) override {
        return propertyValue("GetCurrentPropertyValueEx", id, ignoreDefault, value);
    }
    HRESULT STDMETHODCALLTYPE GetCachedPropertyValue(PROPERTYID, VARIANT* value) override {
        return notCached("GetCachedPropertyValue", value);
    }
    HRESULT STDMETHODCALLTYPE GetCachedPropertyValueEx(PROPERTYID, BOOL, VARIANT* value) override {
        return notCached("GetCachedPropertyValueEx", value);
    }

    // --- patterns -------------------------------------------------------------------
    HRESULT STDMETHODCALLTYPE GetCurrentPatternAs(PATTERNID pattern, REFIID riid, void** object) override {
        return openPattern("GetCurrentPatternAs", pattern, riid, object);
    }
    HRESULT STDMETHODCALLTYPE GetCurrentPattern(PATTERNID pattern, IUnknown** object) override {
        return openPattern("GetCurrentPattern", pattern, IID_IUnknown, reinterpret_cast<void**>(object));
    }
    HRESULT STDMETHODCALLTYPE GetCachedPatternAs(PATTERNID, REFIID, void** object) override {
        return notCached("GetCachedPatternAs", object);
    }
    HRESULT STDMETHODCALLTYPE GetCachedPattern(PATTERNID, IUnknown** object) override {
        return notCached("GetCachedPattern", object);
    }
    HRESULT STDMETHODCALLTYPE GetCachedParent(IUIAutomationElement** parent) override {
        return notCached("GetCachedParent", parent);
    }
    HRESULT STDMETHODCALLTYPE GetCachedChildren(IUIAutomationElementArray** children) override {
        return notCached("GetCachedChildren", children);
    }

    // --- current properties -----------------------------------------------------------
#define FAKEUIA_INT_GETTER(Name, Type, expr)                                                \
    HRESULT STDMETHODCALLTYPE get_Current##Name(Type* r) override {                          \
        return getValue("get_Current" #Name, r, [](const NodeSpec& s) { return (Type)(expr); }); \
    }
#define FAKEUIA_BOOL_GETTER(Name, expr)                                                      \
    HRESULT STDMETHODCALLTYPE get_Current##Name(BOOL* r) override {                          \
        return getValue("get_Current" #Name, r, [](const NodeSpec& s) { return (expr) ? TRUE : FALSE; }); \
    }
#define FAKEUIA_STRING_GETTER(Name, expr)                                                    \
    HRESULT STDMETHODCALLTYPE get_Current##Name(BSTR* r) override {                          \
        return getString("get_Current" #Name, r, [](const NodeSpec& s) { return std::wstring(expr); }); \
    }

    FAKEUIA_INT_GETTER(ProcessId, int, s.processId)
    FAKEUIA_INT_GETTER(ControlType, CONTROLTYPEID, s.controlType)
    FAKEUIA_STRING_GETTER(LocalizedControlType,
                          s.localizedControlType ? *s.localizedControlType : localizedControlTypeName(s.controlType))
    FAKEUIA_STRING_GETTER(Name, s.name)
    FAKEUIA_STRING_GETTER(AcceleratorKey, s.acceleratorKey)
    FAKEUIA_STRING_GETTER(AccessKey, s.accessKey)
    FAKEUIA_BOOL_GETTER(HasKeyboardFocus, s.hasKeyboardFocus)
    FAKEUIA_BOOL_GETTER(IsKeyboardFocusable, s.isKeyboardFocusable)
    FAKEUIA_BOOL_GETTER(IsEnabled, s.isEnabled)
    FAKEUIA_STRING_GETTER(AutomationId, s.automationId)
    FAKEUIA_STRING_GETTER(ClassName, s.className)
    FAKEUIA_STRING_GETTER(HelpText, s.helpText)
    FAKEUIA_INT_GETTER(Culture, int, s.culture)
    FAKEUIA_BOOL_GETTER(IsControlElement, s.isControlElement)
    FAKEUIA_BOOL_GETTER(IsContentElement, s.isContentElement)
    FAKEUIA_BOOL_GETTER(IsPassword, s.isPassword)
    FAKEUIA_INT_GETTER(NativeWindowHandle, UIA_HWND, s.nativeWindowHandle)
    FAKEUIA_STRING_GETTER(ItemType, s.itemType)
    FAKEUIA_BOOL_GETTER(IsOffscreen, s.isOffscreen)
    FAKEUIA_INT_GETTER(Orientation, OrientationType, s.orientation)
    FAKEUIA_STRING_GETTER(FrameworkId, s.frameworkId)
    FAKEUIA_BOOL_GETTER(IsRequiredForForm, s.isRequiredForForm)
    FAKEUIA_STRING_GETTER(ItemStatus, s.itemStatus)
    FAKEUIA_INT_GETTER(BoundingRectangle, RECT, s.bounds)
    FAKEUIA_STRING_GETTER(AriaRole, s.ariaRole)
    FAKEUIA_STRING_GETTER(AriaProperties, s.ariaProperties)
    FAKEUIA_BOOL_GETTER(IsDataValidForForm, s.isDataValidForForm)
    FAKEUIA_STRING_GETTER(ProviderDescription, s.providerDescription)

#undef FAKEUIA_INT_GETTER
#undef FAKEUIA_BOOL_GETTER
#undef FAKEUIA_STRING_GETTER

    HRESULT STDMETHODCALLTYPE get_CurrentLabeledBy(IUIAutomationElement** r) override {
        if (!r) return E_POINTER;
        *r = nullptr;
        Node* label = nullptr;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            HRESULT hr = checkLocked("get_CurrentLabeledBy");
            if (hr != S_OK) return hr;
            label = D(node_).labeledBy;
            if (label && !D(label).alive) label = nullptr;
        }
        if (label) *r = newElement(*state_, label);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_CurrentControllerFor(IUIAutomationElementArray** r) override {
        return relation("get_CurrentControllerFor", &NodeData::controllerFor, r);
    }
    HRESULT STDMETHODCALLTYPE get_CurrentDescribedBy(IUIAutomationElementArray** r) override {
        return relation("get_CurrentDescribedBy", &NodeData::describedBy, r);
    }
    HRESULT STDMETHODCALLTYPE get_CurrentFlowsTo(IUIAutomationElementArray** r) override {
        return relation("get_CurrentFlowsTo", &NodeData::flowsTo, r);
    }

    // --- cached properties: nothing is ever cached ---------------------------------------
#define FAKEUIA_CACHED(Name, Type) \
    HRESULT STDMETHODCALLTYPE get_Cached##Name(Type* r) override { return notCached("get_Cached" #Name, r); }
    FAKEUIA_CACHED(ProcessId, int)
    FAKEUIA_CACHED(ControlType, CONTROLTYPEID)
    FAKEUIA_CACHED(LocalizedControlType, BSTR)
    FAKEUIA_CACHED(Name, BSTR)
    FAKEUIA_CACHED(AcceleratorKey, BSTR)
    FAKEUIA_CACHED(AccessKey, BSTR)
    FAKEUIA_CACHED(HasKeyboardFocus, BOOL)
    FAKEUIA_CACHED(IsKeyboardFocusable, BOOL)
    FAKEUIA_CACHED(IsEnabled, BOOL)
    FAKEUIA_CACHED(AutomationId, BSTR)
    FAKEUIA_CACHED(ClassName, BSTR)
    FAKEUIA_CACHED(HelpText, BSTR)
    FAKEUIA_CACHED(Culture, int)
    FAKEUIA_CACHED(IsControlElement, BOOL)
    FAKEUIA_CACHED(IsContentElement, BOOL)
    FAKEUIA_CACHED(IsPassword, BOOL)
    FAKEUIA_CACHED(NativeWindowHandle, UIA_HWND)
    FAKEUIA_CACHED(ItemType, BSTR)
    FAKEUIA_CACHED(IsOffscreen, BOOL)
    FAKEUIA_CACHED(Orientation, OrientationType)
    FAKEUIA_CACHED(FrameworkId, BSTR)
    FAKEUIA_CACHED(IsRequiredForForm, BOOL)
    FAKEUIA_CACHED(ItemStatus, BSTR)
    FAKEUIA_CACHED(BoundingRectangle, RECT)
    FAKEUIA_CACHED(LabeledBy, IUIAutomationElement*)
    FAKEUIA_CACHED(AriaRole, BSTR)
    FAKEUIA_CACHED(AriaProperties, BSTR)
    FAKEUIA_CACHED(IsDataValidForForm, BOOL)
    FAKEUIA_CACHED(ControllerFor, IUIAutomationElementArray*)
    FAKEUIA_CACHED(DescribedBy, IUIAutomationElementArray*)
    FAKEUIA_CACHED(FlowsTo, IUIAutomationElementArray*)
    FAKEUIA_CACHED(ProviderDescription, BSTR)
#undef FAKEUIA_CACHED

    // The centre of the bounds; no clickable point (gotClickable FALSE) for an
    // offscreen node or empty bounds.
    HRESULT STDMETHODCALLTYPE GetClickablePoint(POINT* clickable, BOOL* gotClickable) override {
        if (!clickable || !gotClickable) return E_POINTER;
        std::lock_guard<std::mutex> lock(state_->mu);
        HRESULT hr = checkLocked("GetClickablePoint");
        if (hr != S_OK) {
            poison(clickable);
            poison(gotClickable);
            return hr;
        }
        *clickable = POINT{0, 0};
        *gotClickable = clickablePointLocked(node_, clickable) ? TRUE : FALSE;
        return S_OK;
    }

private:
    // Injected failure, else dead node, else S_OK. Lock held.
    HRESULT checkLocked(const char* method) const {
        const NodeData& d = D(node_);
        auto it = d.failures.find(method);
        if (it != d.failures.end()) return it->second;
        if (!d.alive) return kElementNotAvailable;
        return refreshWindowNodeLocked(node_);
    }

    // The test's hook of the node, called without the lock.
    void beforeRead(const char* method) const {
        std::function<void(const std::string&)> hook;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            hook = D(node_).beforeRead;
        }
        if (hook) hook(method);
    }

    template <class T, class F>
    HRESULT getValue(const char* method, T* out, F read) {
        if (!out) return E_POINTER;
        beforeRead(method);
        std::lock_guard<std::mutex> lock(state_->mu);
        HRESULT hr = checkLocked(method);
        if (hr != S_OK) {
            poison(out);
            return hr;
        }
        *out = read(D(node_).spec);
        return S_OK;
    }

    template <class F>
    HRESULT getString(const char* method, BSTR* out, F read) {
        if (!out) return E_POINTER;
        *out = nullptr;
        beforeRead(method);
        std::wstring value;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            HRESULT hr = checkLocked(method);
            if (hr != S_OK) return hr;
            if (D(node_).nullStrings.count(method)) return S_OK;
            value = read(D(node_).spec);
        }
        *out = SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
        return *out ? S_OK : E_OUTOFMEMORY;
    }

    template <class T>
    HRESULT notCached(const char* method, T* out) {
        if (!out) return E_POINTER;
        clearOrPoison(out);
        std::lock_guard<std::mutex> lock(state_->mu);
        auto it = D(node_).failures.find(method);
        return it != D(node_).failures.end() ? it->second : kNotCached;
    }

    HRESULT relation(const char* method, std::vector<Node*> NodeData::*member, IUIAutomationElementArray** out) {
        if (!out) return E_POINTER;
        *out = nullptr;
        std::vector<Node*> nodes;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            HRESULT hr = checkLocked(method);
            if (hr != S_OK) return hr;
            for (Node* n : D(node_).*member)
                if (n && D(n).alive) nodes.push_back(n);
        }
        *out = newElementArray(*state_, std::move(nodes));
        return S_OK;
    }

    HRESULT propertyValue(const char* method, PROPERTYID id, BOOL ignoreDefault, VARIANT* value) {
        if (!value) return E_POINTER;
        beforeRead(method);
        std::lock_guard<std::mutex> lock(state_->mu);
        HRESULT hr = checkLocked(method);
        if (hr != S_OK) {
            poison(value);
            return hr;
        }
        VariantInit(value);
        if (modeledType(id) != PropertyType::Unmodeled) {
            readPropertyLocked(*state_, node_, id, value);
            return S_OK;
        }
        state_->unmodeledReads.push_back(id);
        if (ignoreDefault) {
            value->vt = VT_UNKNOWN;
            value->punkVal = reservedNotSupportedValue();
        }
        return S_OK;
    }

    HRESULT openPattern(const char* method, PATTERNID pattern, REFIID riid, void** object) {
        if (!object) return E_POINTER;
        *object = nullptr;
        std::shared_ptr<PatternSource> source;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            HRESULT hr = checkLocked(method);
            if (hr != S_OK) return hr;
            auto it = D(node_).patterns.find(pattern);
            if (it != D(node_).patterns.end()) source = it->second;
        }
        if (!source) return S_OK;  // the node does not support the pattern
        return source->open(*node_, riid, object);
    }

    // Element, children and descendants in document order, filtered by the
    // control view (the platform's default tree filter) and the condition.
    HRESULT find(const char* method, TreeScope scope, IUIAutomationCondition* condition, bool firstOnly,
                 std::vector<Node*>& hits) {
        if (!condition) return E_POINTER;
        if (scope & (TreeScope_Parent | TreeScope_Ancestors)) {
            std::string what = std::string("IUIAutomationElement::") + method + "(TreeScope_Parent/Ancestors)";
            return state_->unsupportedCall(what.c_str());
        }
        if ((scope & TreeScope_Subtree) == 0) return E_INVALIDARG;
        CondPtr cond = condOf(*state_, condition);
        if (!cond) return E_INVALIDARG;
        std::lock_guard<std::mutex> lock(state_->mu);
        HRESULT hr = checkLocked(method);
        if (hr != S_OK) return hr;
        std::vector<Node*> candidates;
        if (scope & TreeScope_Element) candidates.push_back(node_);
        if (scope & TreeScope_Descendants) {
            for (Node* c : D(node_).children) preorderLocked(c, candidates);
        } else if (scope & TreeScope_Children) {
            candidates.insert(candidates.end(), D(node_).children.begin(), D(node_).children.end());
        }
        const CondPtr filter = controlViewCond();
        for (Node* n : candidates) {
            if (n != state_->root && !matchesLocked(*state_, *filter, n)) continue;
            if (!matchesLocked(*state_, *cond, n)) continue;
            hits.push_back(n);
            if (firstOnly) break;
        }
        return S_OK;
    }

    Node* node_;
};

class ElementArray final : public IUIAutomationElementArray, public Counted {
public:
    ElementArray(State& state, std::vector<Node*> nodes) : Counted(state, kArray), nodes_(std::move(nodes)) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomationElementArray)) {
            *object = static_cast<IUIAutomationElementArray*>(this);
            addRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    FAKEUIA_COUNTED_REFS

    HRESULT STDMETHODCALLTYPE get_Length(int* length) override {
        if (!length) return E_POINTER;
        *length = static_cast<int>(nodes_.size());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetElement(int index, IUIAutomationElement** element) override {
        if (!element) return E_POINTER;
        *element = nullptr;
        if (index < 0 || static_cast<size_t>(index) >= nodes_.size()) return E_INVALIDARG;
        Node* node = nodes_[static_cast<size_t>(index)];
        if (!node) return E_FAIL;  // an entry the provider couldn't give
        *element = newElement(*state_, node);
        return S_OK;
    }

private:
    std::vector<Node*> nodes_;
};

// A walker over the view of one condition: a node is in the view when it
// matches (the root always is); the view children of a node are its children
// in the view, with the view children of those out of it put in their place.
class TreeWalker final : public IUIAutomationTreeWalker, public Counted {
public:
    TreeWalker(State& state, CondPtr view) : Counted(state, kWalker), view_(std::move(view)) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomationTreeWalker)) {
            *object = static_cast<IUIAutomationTreeWalker*>(this);
            addRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    FAKEUIA_COUNTED_REFS

    HRESULT STDMETHODCALLTYPE GetParentElement(IUIAutomationElement* element, IUIAutomationElement** parent) override {
        return step("GetParentElement", element, parent, [this](Node* n) -> Node* {
            if (n == state_->root) return nullptr;
            if (D(n).window) return windowParentLocked(*state_, n);
            return D(n).parentIsDesktop ? state_->root : viewParent(n);
        });
    }
    HRESULT STDMETHODCALLTYPE GetFirstChildElement(IUIAutomationElement* element, IUIAutomationElement** first) override {
        return step("GetFirstChildElement", element, first, [this](Node* n) -> Node* {
            std::vector<Node*> kids;
            viewChildren(n, kids);
            return kids.empty() ? nullptr : kids.front();
        });
    }
    HRESULT STDMETHODCALLTYPE GetLastChildElement(IUIAutomationElement* element, IUIAutomationElement** last) override {
        return step("GetLastChildElement", element, last, [this](Node* n) -> Node* {
            std::vector<Node*> kids;
            viewChildren(n, kids);
            return kids.empty() ? nullptr : kids.back();
        });
    }
    HRESULT STDMETHODCALLTYPE GetNextSiblingElement(IUIAutomationElement* element, IUIAutomationElement** next) override {
        return step("GetNextSiblingElement", element, next, [this](Node* n) { return sibling(n, true); });
    }
    HRESULT STDMETHODCALLTYPE GetPreviousSiblingElement(IUIAutomationElement* element,
                                                        IUIAutomationElement** previous) override {
        return step("GetPreviousSiblingElement", element, previous, [this](Node* n) { return sibling(n, false); });
    }
    HRESULT STDMETHODCALLTYPE NormalizeElement(IUIAutomationElement* element, IUIAutomationElement** normalized) override {
        return step("NormalizeElement", element, normalized, [this](Node* n) -> Node* {
            for (Node* m = n; m; m = D(m).parent)
                if (inView(m)) return m;
            return state_->root;
        });
    }

#define FAKEUIA_WALKER_CACHE(Method)                                                                     \
    HRESULT STDMETHODCALLTYPE Method##BuildCache(IUIAutomationElement*, IUIAutomationCacheRequest*,      \
                                                 IUIAutomationElement** out) override {                   \
        if (out) *out = nullptr;                                                                          \
        return state_->unsupportedCall("IUIAutomationTreeWalker::" #Method "BuildCache");                \
    }
    FAKEUIA_WALKER_CACHE(GetParentElement)
    FAKEUIA_WALKER_CACHE(GetFirstChildElement)
    FAKEUIA_WALKER_CACHE(GetLastChildElement)
    FAKEUIA_WALKER_CACHE(GetNextSiblingElement)
    FAKEUIA_WALKER_CACHE(GetPreviousSiblingElement)
    FAKEUIA_WALKER_CACHE(NormalizeElement)
#undef FAKEUIA_WALKER_CACHE

    HRESULT STDMETHODCALLTYPE get_Condition(IUIAutomationCondition** condition) override {
        if (!condition) return E_POINTER;
        *condition = newCondition(*state_, view_);
        return S_OK;
    }

private:
    template <class F>
    HRESULT step(const char* method, IUIAutomationElement* element, IUIAutomationElement** out, F move) {
        if (!out) return E_POINTER;
        *out = nullptr;
        if (!element) return E_POINTER;
        Node* node = nodeOf(*state_, element);
        if (!node) return E_INVALIDARG;
        Node* result = nullptr;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            const NodeData& d = D(node);
            auto it = d.failures.find(method);
            if (it != d.failures.end()) return it->second;
            if (!d.alive) return kElementNotAvailable;
            if (HRESULT hr = refreshWindowNodeLocked(node)) return hr;
            result = move(node);
        }
        if (result) *out = newElement(*state_, result);
        return S_OK;
    }

    bool inView(Node* n) const { return n == state_->root || matchesLocked(*state_, *view_, n); }

    void viewChildren(Node* n, std::vector<Node*>& out) const {
        for (Node* c : D(n).children) {
            if (inView(c))
                out.push_back(c);
            else
                viewChildren(c, out);
        }
    }

    Node* viewParent(Node* n) const {
        for (Node* p = D(n).parent; p; p = D(p).parent)
            if (inView(p)) return p;
        return state_->root;
    }

    Node* sibling(Node* n, bool next) const {
        if (n == state_->root) return nullptr;
        Node* parent = viewParent(n);
        std::vector<Node*> kids;
        viewChildren(parent, kids);
        // A node of the view is one of its view parent's view children, which
        // stand in document order: its neighbour there is the sibling.
        auto self = std::find(kids.begin(), kids.end(), n);
        if (self != kids.end()) {
            if (next) return self + 1 == kids.end() ? nullptr : *(self + 1);
            return self == kids.begin() ? nullptr : *(self - 1);
        }
        std::vector<Node*> order;  // document order below the view parent
        preorderLocked(parent, order);
        auto pos = [&](Node* x) { return std::find(order.begin(), order.end(), x) - order.begin(); };
        const auto at = pos(n);
        if (next) {
            for (Node* k : kids)
                if (pos(k) > at && !isDescendantLocked(k, n)) return k;
            return nullptr;
        }
        for (auto it = kids.rbegin(); it != kids.rend(); ++it)
            if (pos(*it) < at) return *it;
        return nullptr;
    }

    CondPtr view_;
};

}  // namespace

IUIAutomationElement* newElement(State& state, Node* node) { return new Element(state, node); }

IUIAutomationElementArray* newElementArray(State& state, std::vector<Node*> nodes) {
    return new ElementArray(state, std::move(nodes));
}

IUIAutomationTreeWalker* newWalker(State& state, CondPtr condition) {
    return new TreeWalker(state, std::move(condition));
}

Node* nodeOf(State& state, IUnknown* element) {
    if (!element) return nullptr;
    void* raw = nullptr;
    if (FAILED(element->QueryInterface(IID_SimulatedElement, &raw)) || !raw) return nullptr;
    auto* e = static_cast<Element*>(raw);
    Node* node = e->owner() == &state ? e->node() : nullptr;
    e->releaseSelf();
    return node;
}

}  // namespace detail
}  // namespace fakeuia
