// Pattern sources and the pattern objects they hand out.
//
// Every pattern object is a counted COM object of the platform ("pattern";
// text ranges "textrange") that keeps its source alive and refers to its
// node. A call first checks the node (kElementNotAvailable once removed) with
// the platform's lock, then the source's injected failure, then works on the
// source's fields under the source's mutex. Neither lock is held while the
// object calls out (new elements, removing or moving the node, QueryInterface).
#include "FakeUiaPatterns.h"
#include "FakeUiaInternal.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace fakeuia {

using detail::Access;
using detail::Counted;
using detail::D;
using detail::State;

// --- the common part of the sources ---------------------------------------------------------

PatternSourceBase::PatternSourceBase(const char* interfaceName, const char* const* methods, size_t methodCount)
    : interface_(interfaceName), methods_(methods), methodCount_(methodCount) {}

void PatternSourceBase::fail(const std::string& method, HRESULT hr) {
    bool known = std::any_of(methods_, methods_ + methodCount_, [&](const char* m) { return method == m; });
    if (!known) throw std::invalid_argument("fakeuia: " + std::string(interface_) + " has no method " + method);
    std::lock_guard<std::mutex> lock(mu);
    failures_[method] = hr;
}

void PatternSourceBase::clearFailure(const std::string& method) {
    std::lock_guard<std::mutex> lock(mu);
    failures_.erase(method);
}

void PatternSourceBase::clearFailures() {
    std::lock_guard<std::mutex> lock(mu);
    failures_.clear();
}

HRESULT PatternSourceBase::injectedFailure(const char* method) const {
    std::lock_guard<std::mutex> lock(mu);
    auto it = failures_.find(method);
    return it == failures_.end() ? S_OK : it->second;
}

namespace {

// --- the common part of the pattern objects -------------------------------------------------

template <class Itf, class Src>
class PatternObject : public Itf, public Counted {
public:
    PatternObject(Node& node, std::shared_ptr<Src> source, REFIID iid, detail::Kind kind = detail::kPattern)
        : Counted(Access::state(node), kind), node_(&node), src_(std::move(source)), iid_(iid) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, iid_)) {
            *object = static_cast<Itf*>(this);
            addRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return addRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return release(); }

protected:
    bool aliveNow() const {
        std::lock_guard<std::mutex> lock(state_->mu);
        return D(node_).alive;
    }

    // An action: `count` always runs (on a node in the tree), `behave` only
    // without an injected failure; both under the source's mutex.
    template <class C, class F>
    HRESULT act(const char* method, C count, F behave) {
        if (!aliveNow()) return kElementNotAvailable;
        HRESULT hr = src_->injectedFailure(method);
        std::lock_guard<std::mutex> lock(src_->mu);
        count(*src_);
        return hr != S_OK ? hr : behave(*src_);
    }
    template <class C>
    HRESULT counted(const char* method, C count) {
        return act(method, count, [](Src&) { return S_OK; });
    }

    // S_OK when the call may read the source.
    HRESULT enter(const char* method) {
        if (!aliveNow()) return kElementNotAvailable;
        return src_->injectedFailure(method);
    }

    template <class T, class F>
    HRESULT get(const char* method, T* out, F read) {
        if (!out) return E_POINTER;
        HRESULT hr = enter(method);
        if (hr != S_OK) {
            detail::poison(out);
            return hr;
        }
        std::lock_guard<std::mutex> lock(src_->mu);
        *out = static_cast<T>(read(*src_));
        return S_OK;
    }
    template <class F>
    HRESULT getBool(const char* method, BOOL* out, F read) {
        return get(method, out, [&](Src& s) { return read(s) ? TRUE : FALSE; });
    }
    template <class F>
    HRESULT getString(const char* method, BSTR* out, F read) {
        if (!out) return E_POINTER;
        *out = nullptr;
        HRESULT hr = enter(method);
        if (hr != S_OK) return hr;
        std::wstring value;
        {
            std::lock_guard<std::mutex> lock(src_->mu);
            value = read(*src_);
        }
        *out = SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
        return *out ? S_OK : E_OUTOFMEMORY;
    }
    template <class F>
    HRESULT getElement(const char* method, IUIAutomationElement** out, F read) {
        if (!out) return E_POINTER;
        *out = nullptr;
        HRESULT hr = enter(method);
        if (hr != S_OK) return hr;
        Node* node = nullptr;
        {
            std::lock_guard<std::mutex> lock(src_->mu);
            node = read(*src_);
        }
        if (node) *out = detail::newElement(*state_, node);
        return S_OK;
    }
    template <class F>
    HRESULT getArray(const char* method, IUIAutomationElementArray** out, F read) {
        if (!out) return E_POINTER;
        *out = nullptr;
        HRESULT hr = enter(method);
        if (hr != S_OK) return hr;
        std::vector<Node*> nodes;
        {
            std::lock_guard<std::mutex> lock(src_->mu);
            nodes = read(*src_);
        }
        *out = detail::newElementArray(*state_, std::move(nodes));
        return S_OK;
    }

    template <class T>
    HRESULT cached(const char* method, T* out) {
        if (!out) return E_POINTER;
        detail::clearOrPoison(out);
        HRESULT hr = src_->injectedFailure(method);
        return hr != S_OK ? hr : kNotCached;
    }

    HRESULT unsupported(const char* interfaceName, const char* method) {
        std::string what = std::string(interfaceName) + "::" + method;
        return state_->unsupportedCall(what.c_str());
    }
    HRESULT unsupported(const char* method) { return unsupported(src_->interfaceName(), method); }

    Node* node_;
    std::shared_ptr<Src> src_;
    IID iid_;
};

// open() of every source: a new object of type Obj answering riid.
template <class Obj, class Src>
HRESULT openObject(Src& source, Node& node, REFIID riid, void** object) {
    if (!object) return E_POINTER;
    *object = nullptr;
    {
        std::lock_guard<std::mutex> lock(source.mu);
        if (!source.available) return S_OK;
    }
    auto self = std::static_pointer_cast<Src>(source.shared_from_this());
    Obj* obj = new Obj(node, std::move(self));
    HRESULT hr = obj->QueryInterface(riid, object);
    obj->Release();
    return hr;
}

#define FAKEUIA_SOURCE_BASE(itf, methods) PatternSourceBase(itf, methods, sizeof(methods) / sizeof(methods[0]))

const char* const kInvokeMethods[] = {"Invoke"};
const char* const kSelectionMethods[] = {"GetCurrentSelection", "get_CurrentCanSelectMultiple",
                                         "get_CurrentIsSelectionRequired", "GetCachedSelection",
                                         "get_CachedCanSelectMultiple", "get_CachedIsSelectionRequired"};
const char* const kValueMethods[] = {"SetValue", "get_CurrentValue", "get_CurrentIsReadOnly", "get_CachedValue",
                                     "get_CachedIsReadOnly"};
const char* const kRangeValueMethods[] = {
    "SetValue",           "get_CurrentValue",      "get_CurrentIsReadOnly", "get_CurrentMaximum",
    "get_CurrentMinimum", "get_CurrentLargeChange", "get_CurrentSmallChange", "get_CachedValue",
    "get_CachedIsReadOnly", "get_CachedMaximum",   "get_CachedMinimum",     "get_CachedLargeChange",
    "get_CachedSmallChange"};
const char* const kScrollMethods[] = {"Scroll",
                                      "SetScrollPercent",
                                      "get_CurrentHorizontalScrollPercent",
                                      "get_CurrentVerticalScrollPercent",
                                      "get_CurrentHorizontalViewSize",
                                      "get_CurrentVerticalViewSize",
                                      "get_CurrentHorizontallyScrollable",
                                      "get_CurrentVerticallyScrollable",
                                      "get_CachedHorizontalScrollPercent",
                                      "get_CachedVerticalScrollPercent",
                                      "get_CachedHorizontalViewSize",
                                      "get_CachedVerticalViewSize",
                                      "get_CachedHorizontallyScrollable",
                                      "get_CachedVerticallyScrollable"};
const char* const kExpandCollapseMethods[] = {"Expand", "Collapse", "get_CurrentExpandCollapseState",
                                              "get_CachedExpandCollapseState"};
const char* const kGridMethods[] = {"GetItem", "get_CurrentRowCount", "get_CurrentColumnCount",
                                    "get_CachedRowCount", "get_CachedColumnCount"};
const char* const kGridItemMethods[] = {"get_CurrentContainingGrid", "get_CurrentRow",       "get_CurrentColumn",
                                        "get_CurrentRowSpan",        "get_CurrentColumnSpan", "get_CachedContainingGrid",
                                        "get_CachedRow",             "get_CachedColumn",      "get_CachedRowSpan",
                                        "get_CachedColumnSpan"};
const char* const kMultipleViewMethods[] = {"GetViewName",           "SetCurrentView",        "get_CurrentCurrentView",
                                            "GetCurrentSupportedViews", "get_CachedCurrentView", "GetCachedSupportedViews"};
const char* const kWindowMethods[] = {"Close",
                                      "WaitForInputIdle",
                                      "SetWindowVisualState",
                                      "get_CurrentCanMaximize",
                                      "get_CurrentCanMinimize",
                                      "get_CurrentIsModal",
                                      "get_CurrentIsTopmost",
                                      "get_CurrentWindowVisualState",
                                      "get_CurrentWindowInteractionState",
                                      "get_CachedCanMaximize",
                                      "get_CachedCanMinimize",
                                      "get_CachedIsModal",
                                      "get_CachedIsTopmost",
                                      "get_CachedWindowVisualState",
                                      "get_CachedWindowInteractionState"};
const char* const kSelectionItemMethods[] = {"Select",
                                             "AddToSelection",
                                             "RemoveFromSelection",
                                             "get_CurrentIsSelected",
                                             "get_CurrentSelectionContainer",
                                             "get_CachedIsSelected",
                                             "get_CachedSelectionContainer"};
const char* const kDockMethods[] = {"SetDockPosition", "get_CurrentDockPosition", "get_CachedDockPosition"};
const char* const kTableMethods[] = {"GetCurrentRowHeaders",        "GetCurrentColumnHeaders",
                                     "get_CurrentRowOrColumnMajor", "GetCachedRowHeaders",
                                     "GetCachedColumnHeaders",      "get_CachedRowOrColumnMajor"};
const char* const kTableItemMethods[] = {"GetCurrentRowHeaderItems", "GetCurrentColumnHeaderItems",
                                         "GetCachedRowHeaderItems", "GetCachedColumnHeaderItems"};
// The text pattern's methods and those of its ranges.
const char* const kTextMethods[] = {"RangeFromPoint",
                                    "RangeFromChild",
                                    "GetSelection",
                                    "GetVisibleRanges",
                                    "get_DocumentRange",
                                    "get_SupportedTextSelection",
                                    "Clone",
                                    "Compare",
                                    "CompareEndpoints",
                                    "ExpandToEnclosingUnit",
                                    "FindAttribute",
                                    "FindText",
                                    "GetAttributeValue",
                                    "GetBoundingRectangles",
                                    "GetEnclosingElement",
                                    "GetText",
                                    "Move",
                                    "MoveEndpointByUnit",
                                    "MoveEndpointByRange",
                                    "Select",
                                    "AddToSelection",
                                    "RemoveFromSelection",
                                    "ScrollIntoView",
                                    "GetChildren"};
const char* const kToggleMethods[] = {"Toggle", "get_CurrentToggleState", "get_CachedToggleState"};
const char* const kTransformMethods[] = {"Move",
                                         "Resize",
                                         "Rotate",
                                         "get_CurrentCanMove",
                                         "get_CurrentCanResize",
                                         "get_CurrentCanRotate",
                                         "get_CachedCanMove",
                                         "get_CachedCanResize",
                                         "get_CachedCanRotate"};
const char* const kScrollItemMethods[] = {"ScrollIntoView"};
const char* const kLegacyMethods[] = {"Select",
                                      "DoDefaultAction",
                                      "SetValue",
                                      "get_CurrentChildId",
                                      "get_CurrentName",
                                      "get_CurrentValue",
                                      "get_CurrentDescription",
                                      "get_CurrentRole",
                                      "get_CurrentState",
                                      "get_CurrentHelp",
                                      "get_CurrentKeyboardShortcut",
                                      "GetCurrentSelection",
                                      "get_CurrentDefaultAction",
                                      "get_CachedChildId",
                                      "get_CachedName",
                                      "get_CachedValue",
                                      "get_CachedDescription",
                                      "get_CachedRole",
                                      "get_CachedState",
                                      "get_CachedHelp",
                                      "get_CachedKeyboardShortcut",
                                      "GetCachedSelection",
                                      "get_CachedDefaultAction",
                                      "GetIAccessible"};
const char* const kItemContainerMethods[] = {"FindItemByProperty"};
const char* const kVirtualizedItemMethods[] = {"Realize"};
const char* const kSynchronizedInputMethods[] = {"StartListening", "Cancel"};

// --- Invoke ---------------------------------------------------------------------------------

class InvokeObject final : public PatternObject<IUIAutomationInvokePattern, InvokeSource> {
public:
    InvokeObject(Node& node, std::shared_ptr<InvokeSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationInvokePattern) {}
    HRESULT STDMETHODCALLTYPE Invoke() override {
        return counted("Invoke", [](InvokeSource& s) { ++s.invokeCount; });
    }
};

// --- Selection ------------------------------------------------------------------------------

class SelectionObject final : public PatternObject<IUIAutomationSelectionPattern, SelectionSource> {
public:
    SelectionObject(Node& node, std::shared_ptr<SelectionSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationSelectionPattern) {}
    HRESULT STDMETHODCALLTYPE GetCurrentSelection(IUIAutomationElementArray** r) override {
        return getArray("GetCurrentSelection", r, [](SelectionSource& s) { return s.selection; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCanSelectMultiple(BOOL* r) override {
        return getBool("get_CurrentCanSelectMultiple", r, [](SelectionSource& s) { return s.canSelectMultiple; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentIsSelectionRequired(BOOL* r) override {
        return getBool("get_CurrentIsSelectionRequired", r,
                       [](SelectionSource& s) { return s.isSelectionRequired; });
    }
    HRESULT STDMETHODCALLTYPE GetCachedSelection(IUIAutomationElementArray** r) override {
        return cached("GetCachedSelection", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedCanSelectMultiple(BOOL* r) override {
        return cached("get_CachedCanSelectMultiple", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedIsSelectionRequired(BOOL* r) override {
        return cached("get_CachedIsSelectionRequired", r);
    }
};

// --- Value ----------------------------------------------------------------------------------

class ValueObject final : public PatternObject<IUIAutomationValuePattern, ValueSource> {
public:
    ValueObject(Node& node, std::shared_ptr<ValueSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationValuePattern) {}
    HRESULT STDMETHODCALLTYPE SetValue(BSTR val) override {
        std::wstring v = val ? std::wstring(val, SysStringLen(val)) : std::wstring();
        return act(
            "SetValue", [](ValueSource& s) { ++s.setValueCalls; },
            [&](ValueSource& s) {
                if (s.readOnly) return kElementNotEnabled;
                s.value = v;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentValue(BSTR* r) override {
        return getString("get_CurrentValue", r, [](ValueSource& s) { return s.value; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentIsReadOnly(BOOL* r) override {
        return getBool("get_CurrentIsReadOnly", r, [](ValueSource& s) { return s.readOnly; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedValue(BSTR* r) override { return cached("get_CachedValue", r); }
    HRESULT STDMETHODCALLTYPE get_CachedIsReadOnly(BOOL* r) override { return cached("get_CachedIsReadOnly", r); }
};

// --- RangeValue -----------------------------------------------------------------------------

class RangeValueObject final : public PatternObject<IUIAutomationRangeValuePattern, RangeValueSource> {
public:
    RangeValueObject(Node& node, std::shared_ptr<RangeValueSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationRangeValuePattern) {}
    HRESULT STDMETHODCALLTYPE SetValue(double val) override {
        return act(
            "SetValue",
            [&](RangeValueSource& s) {
                ++s.setValueCalls;
                s.setValueArguments.push_back(val);
            },
            [&](RangeValueSource& s) {
                if (s.readOnly) return kElementNotEnabled;
                if (s.clamps) {
                    s.value = std::min(std::max(val, s.minimum), s.maximum);
                    return S_OK;
                }
                if (!(val >= s.minimum && val <= s.maximum)) return E_INVALIDARG;
                s.value = val;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentValue(double* r) override {
        return get("get_CurrentValue", r, [](RangeValueSource& s) { return s.value; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentIsReadOnly(BOOL* r) override {
        return getBool("get_CurrentIsReadOnly", r, [](RangeValueSource& s) { return s.readOnly; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentMaximum(double* r) override {
        return get("get_CurrentMaximum", r, [](RangeValueSource& s) { return s.maximum; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentMinimum(double* r) override {
        return get("get_CurrentMinimum", r, [](RangeValueSource& s) { return s.minimum; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentLargeChange(double* r) override {
        return get("get_CurrentLargeChange", r, [](RangeValueSource& s) { return s.largeChange; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentSmallChange(double* r) override {
        return get("get_CurrentSmallChange", r, [](RangeValueSource& s) { return s.smallChange; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedValue(double* r) override { return cached("get_CachedValue", r); }
    HRESULT STDMETHODCALLTYPE get_CachedIsReadOnly(BOOL* r) override { return cached("get_CachedIsReadOnly", r); }
    HRESULT STDMETHODCALLTYPE get_CachedMaximum(double* r) override { return cached("get_CachedMaximum", r); }
    HRESULT STDMETHODCALLTYPE get_CachedMinimum(double* r) override { return cached("get_CachedMinimum", r); }
    HRESULT STDMETHODCALLTYPE get_CachedLargeChange(double* r) override {
        return cached("get_CachedLargeChange", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedSmallChange(double* r) override {
        return cached("get_CachedSmallChange", r);
    }
};

// --- Scroll ---------------------------------------------------------------------------------

class ScrollObject final : public PatternObject<IUIAutomationScrollPattern, ScrollSource> {
public:
    ScrollObject(Node& node, std::shared_ptr<ScrollSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationScrollPattern) {}

    HRESULT STDMETHODCALLTYPE Scroll(ScrollAmount h, ScrollAmount v) override {
        return act(
            "Scroll",
            [&](ScrollSource& s) {
                ++s.scrollCalls;
                s.scrollArguments.emplace_back(h, v);
            },
            [&](ScrollSource& s) {
                double nh = s.horizontalPercent, nv = s.verticalPercent;
                HRESULT hr = step(s, h, s.horizontallyScrollable, &nh);
                if (hr == S_OK) hr = step(s, v, s.verticallyScrollable, &nv);
                if (hr != S_OK) return hr;
                s.horizontalPercent = nh;
                s.verticalPercent = nv;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE SetScrollPercent(double h, double v) override {
        return act(
            "SetScrollPercent",
            [&](ScrollSource& s) {
                ++s.setScrollPercentCalls;
                s.setScrollPercentArguments.emplace_back(h, v);
            },
            [&](ScrollSource& s) {
                auto valid = [](double p) { return p == kNoScroll || (p >= 0 && p <= 100); };
                if (!valid(h) || !valid(v)) return E_INVALIDARG;
                if ((h != kNoScroll && !s.horizontallyScrollable) ||
                    (v != kNoScroll && !s.verticallyScrollable))
                    return kInvalidOperation;
                if (h != kNoScroll) s.horizontalPercent = h;
                if (v != kNoScroll) s.verticalPercent = v;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentHorizontalScrollPercent(double* r) override {
        return get("get_CurrentHorizontalScrollPercent", r, [](ScrollSource& s) { return s.horizontalPercent; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentVerticalScrollPercent(double* r) override {
        return get("get_CurrentVerticalScrollPercent", r, [](ScrollSource& s) { return s.verticalPercent; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentHorizontalViewSize(double* r) override {
        return get("get_CurrentHorizontalViewSize", r, [](ScrollSource& s) { return s.horizontalViewSize; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentVerticalViewSize(double* r) override {
        return get("get_CurrentVerticalViewSize", r, [](ScrollSource& s) { return s.verticalViewSize; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentHorizontallyScrollable(BOOL* r) override {
        return getBool("get_CurrentHorizontallyScrollable", r,
                       [](ScrollSource& s) { return s.horizontallyScrollable; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentVerticallyScrollable(BOOL* r) override {
        return getBool("get_CurrentVerticallyScrollable", r, [](ScrollSource& s) { return s.verticallyScrollable; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedHorizontalScrollPercent(double* r) override {
        return cached("get_CachedHorizontalScrollPercent", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedVerticalScrollPercent(double* r) override {
        return cached("get_CachedVerticalScrollPercent", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedHorizontalViewSize(double* r) override {
        return cached("get_CachedHorizontalViewSize", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedVerticalViewSize(double* r) override {
        return cached("get_CachedVerticalViewSize", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedHorizontallyScrollable(BOOL* r) override {
        return cached("get_CachedHorizontallyScrollable", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedVerticallyScrollable(BOOL* r) override {
        return cached("get_CachedVerticallyScrollable", r);
    }

private:
    static HRESULT step(const ScrollSource& s, ScrollAmount amount, bool scrollable, double* percent) {
        double delta = 0;
        switch (amount) {
        case ScrollAmount_NoAmount: return S_OK;
        case ScrollAmount_SmallDecrement: delta = -s.smallStep; break;
        case ScrollAmount_SmallIncrement: delta = s.smallStep; break;
        case ScrollAmount_LargeDecrement: delta = -s.largeStep; break;
        case ScrollAmount_LargeIncrement: delta = s.largeStep; break;
        default: return E_INVALIDARG;
        }
        if (!scrollable) return kInvalidOperation;
        *percent = std::min(100.0, std::max(0.0, std::max(0.0, *percent) + delta));
        return S_OK;
    }
};

// --- ExpandCollapse -------------------------------------------------------------------------

class ExpandCollapseObject final : public PatternObject<IUIAutomationExpandCollapsePattern, ExpandCollapseSource> {
public:
    ExpandCollapseObject(Node& node, std::shared_ptr<ExpandCollapseSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationExpandCollapsePattern) {}
    HRESULT STDMETHODCALLTYPE Expand() override {
        return act(
            "Expand", [](ExpandCollapseSource& s) { ++s.expandCalls; },
            [](ExpandCollapseSource& s) { return to(s, ExpandCollapseState_Expanded); });
    }
    HRESULT STDMETHODCALLTYPE Collapse() override {
        return act(
            "Collapse", [](ExpandCollapseSource& s) { ++s.collapseCalls; },
            [](ExpandCollapseSource& s) { return to(s, ExpandCollapseState_Collapsed); });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentExpandCollapseState(ExpandCollapseState* r) override {
        return get("get_CurrentExpandCollapseState", r, [](ExpandCollapseSource& s) { return s.state; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedExpandCollapseState(ExpandCollapseState* r) override {
        return cached("get_CachedExpandCollapseState", r);
    }

private:
    static HRESULT to(ExpandCollapseSource& s, ExpandCollapseState state) {
        if (s.state == ExpandCollapseState_LeafNode) return kInvalidOperation;
        s.state = state;
        return S_OK;
    }
};

// --- Grid -----------------------------------------------------------------------------------

class GridObject final : public PatternObject<IUIAutomationGridPattern, GridSource> {
public:
    GridObject(Node& node, std::shared_ptr<GridSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationGridPattern) {}
    HRESULT STDMETHODCALLTYPE GetItem(int row, int column, IUIAutomationElement** element) override {
        if (!element) return E_POINTER;
        *element = nullptr;
        Node* cell = nullptr;
        HRESULT hr = act(
            "GetItem", [&](GridSource& s) { s.getItemCalls.emplace_back(row, column); },
            [&](GridSource& s) {
                if (row < 0 || column < 0 || row >= s.rowCount || column >= s.columnCount) return E_INVALIDARG;
                auto r = static_cast<size_t>(row), c = static_cast<size_t>(column);
                if (r < s.cells.size() && c < s.cells[r].size()) cell = s.cells[r][c];
                return S_OK;
            });
        if (hr == S_OK && cell) *element = detail::newElement(*state_, cell);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE get_CurrentRowCount(int* r) override {
        return get("get_CurrentRowCount", r, [](GridSource& s) { return s.rowCount; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentColumnCount(int* r) override {
        return get("get_CurrentColumnCount", r, [](GridSource& s) { return s.columnCount; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedRowCount(int* r) override { return cached("get_CachedRowCount", r); }
    HRESULT STDMETHODCALLTYPE get_CachedColumnCount(int* r) override { return cached("get_CachedColumnCount", r); }
};

// --- GridItem -------------------------------------------------------------------------------

class GridItemObject final : public PatternObject<IUIAutomationGridItemPattern, GridItemSource> {
public:
    GridItemObject(Node& node, std::shared_ptr<GridItemSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationGridItemPattern) {}
    HRESULT STDMETHODCALLTYPE get_CurrentContainingGrid(IUIAutomationElement** r) override {
        return getElement("get_CurrentContainingGrid", r, [](GridItemSource& s) { return s.containingGrid; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentRow(int* r) override {
        return get("get_CurrentRow", r, [](GridItemSource& s) { return s.row; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentColumn(int* r) override {
        return get("get_CurrentColumn", r, [](GridItemSource& s) { return s.column; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentRowSpan(int* r) override {
        return get("get_CurrentRowSpan", r, [](GridItemSource& s) { return s.rowSpan; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentColumnSpan(int* r) override {
        return get("get_CurrentColumnSpan", r, [](GridItemSource& s) { return s.columnSpan; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedContainingGrid(IUIAutomationElement** r) override {
        return cached("get_CachedContainingGrid", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedRow(int* r) override { return cached("get_CachedRow", r); }
    HRESULT STDMETHODCALLTYPE get_CachedColumn(int* r) override { return cached("get_CachedColumn", r); }
    HRESULT STDMETHODCALLTYPE get_CachedRowSpan(int* r) override { return cached("get_CachedRowSpan", r); }
    HRESULT STDMETHODCALLTYPE get_CachedColumnSpan(int* r) override { return cached("get_CachedColumnSpan", r); }
};

// --- MultipleView ---------------------------------------------------------------------------

class MultipleViewObject final : public PatternObject<IUIAutomationMultipleViewPattern, MultipleViewSource> {
public:
    MultipleViewObject(Node& node, std::shared_ptr<MultipleViewSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationMultipleViewPattern) {}
    HRESULT STDMETHODCALLTYPE GetViewName(int view, BSTR* name) override {
        if (!name) return E_POINTER;
        *name = nullptr;
        HRESULT hr = enter("GetViewName");
        if (hr != S_OK) return hr;
        std::wstring found;
        bool known = false;
        {
            std::lock_guard<std::mutex> lock(src_->mu);
            for (auto& v : src_->views)
                if (v.first == view) {
                    found = v.second;
                    known = true;
                    break;
                }
        }
        if (!known) return E_INVALIDARG;
        *name = SysAllocStringLen(found.data(), static_cast<UINT>(found.size()));
        return *name ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE SetCurrentView(int view) override {
        return act(
            "SetCurrentView", [](MultipleViewSource& s) { ++s.setCurrentViewCalls; },
            [&](MultipleViewSource& s) {
                for (auto& v : s.views)
                    if (v.first == view) {
                        s.currentView = view;
                        return S_OK;
                    }
                return E_INVALIDARG;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCurrentView(int* r) override {
        return get("get_CurrentCurrentView", r, [](MultipleViewSource& s) { return s.currentView; });
    }
    HRESULT STDMETHODCALLTYPE GetCurrentSupportedViews(SAFEARRAY** r) override {
        if (!r) return E_POINTER;
        *r = nullptr;
        HRESULT hr = enter("GetCurrentSupportedViews");
        if (hr != S_OK) return hr;
        std::vector<int> ids;
        {
            std::lock_guard<std::mutex> lock(src_->mu);
            for (auto& v : src_->views) ids.push_back(v.first);
        }
        *r = detail::intSafeArray(ids);
        return *r ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE get_CachedCurrentView(int* r) override { return cached("get_CachedCurrentView", r); }
    HRESULT STDMETHODCALLTYPE GetCachedSupportedViews(SAFEARRAY** r) override {
        return cached("GetCachedSupportedViews", r);
    }
};

// --- Window ---------------------------------------------------------------------------------

class WindowObject final : public PatternObject<IUIAutomationWindowPattern, WindowSource> {
public:
    WindowObject(Node& node, std::shared_ptr<WindowSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationWindowPattern) {}
    HRESULT STDMETHODCALLTYPE Close() override {
        bool removeNode = false;
        HRESULT hr = act(
            "Close", [](WindowSource& s) { ++s.closeCalls; },
            [&](WindowSource& s) {
                removeNode = s.closeRemovesNode;
                return S_OK;
            });
        if (removeNode && !node_->isRoot()) node_->remove();
        return hr;
    }
    HRESULT STDMETHODCALLTYPE WaitForInputIdle(int milliseconds, BOOL* success) override {
        if (!success) return E_POINTER;
        *success = FALSE;
        return act(
            "WaitForInputIdle",
            [&](WindowSource& s) {
                ++s.waitForInputIdleCalls;
                s.waitForInputIdleArguments.push_back(milliseconds);
            },
            [&](WindowSource& s) {
                *success = s.waitForInputIdleResult;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE SetWindowVisualState(WindowVisualState state) override {
        return act(
            "SetWindowVisualState", [](WindowSource& s) { ++s.setWindowVisualStateCalls; },
            [&](WindowSource& s) {
                if (state != WindowVisualState_Normal && state != WindowVisualState_Maximized &&
                    state != WindowVisualState_Minimized)
                    return E_INVALIDARG;
                if ((state == WindowVisualState_Maximized && !s.canMaximize) ||
                    (state == WindowVisualState_Minimized && !s.canMinimize))
                    return kInvalidOperation;
                s.visualState = state;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCanMaximize(BOOL* r) override {
        return getBool("get_CurrentCanMaximize", r, [](WindowSource& s) { return s.canMaximize; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCanMinimize(BOOL* r) override {
        return getBool("get_CurrentCanMinimize", r, [](WindowSource& s) { return s.canMinimize; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentIsModal(BOOL* r) override {
        return getBool("get_CurrentIsModal", r, [](WindowSource& s) { return s.isModal; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentIsTopmost(BOOL* r) override {
        return getBool("get_CurrentIsTopmost", r, [](WindowSource& s) { return s.isTopmost; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentWindowVisualState(WindowVisualState* r) override {
        return get("get_CurrentWindowVisualState", r, [](WindowSource& s) { return s.visualState; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentWindowInteractionState(WindowInteractionState* r) override {
        return get("get_CurrentWindowInteractionState", r, [](WindowSource& s) { return s.interactionState; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedCanMaximize(BOOL* r) override { return cached("get_CachedCanMaximize", r); }
    HRESULT STDMETHODCALLTYPE get_CachedCanMinimize(BOOL* r) override { return cached("get_CachedCanMinimize", r); }
    HRESULT STDMETHODCALLTYPE get_CachedIsModal(BOOL* r) override { return cached("get_CachedIsModal", r); }
    HRESULT STDMETHODCALLTYPE get_CachedIsTopmost(BOOL* r) override { return cached("get_CachedIsTopmost", r); }
    HRESULT STDMETHODCALLTYPE get_CachedWindowVisualState(WindowVisualState* r) override {
        return cached("get_CachedWindowVisualState", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedWindowInteractionState(WindowInteractionState* r) override {
        return cached("get_CachedWindowInteractionState", r);
    }
};

// --- SelectionItem --------------------------------------------------------------------------

class SelectionItemObject final : public PatternObject<IUIAutomationSelectionItemPattern, SelectionItemSource> {
public:
    SelectionItemObject(Node& node, std::shared_ptr<SelectionItemSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationSelectionItemPattern) {}
    HRESULT STDMETHODCALLTYPE Select() override {
        return act(
            "Select", [](SelectionItemSource& s) { ++s.selectCalls; },
            [](SelectionItemSource& s) {
                s.isSelected = true;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE AddToSelection() override {
        return act(
            "AddToSelection", [](SelectionItemSource& s) { ++s.addToSelectionCalls; },
            [](SelectionItemSource& s) {
                s.isSelected = true;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE RemoveFromSelection() override {
        return act(
            "RemoveFromSelection", [](SelectionItemSource& s) { ++s.removeFromSelectionCalls; },
            [](SelectionItemSource& s) {
                s.isSelected = false;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentIsSelected(BOOL* r) override {
        return getBool("get_CurrentIsSelected", r, [](SelectionItemSource& s) { return s.isSelected; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentSelectionContainer(IUIAutomationElement** r) override {
        return getElement("get_CurrentSelectionContainer", r, [](SelectionItemSource& s) { return s.container; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedIsSelected(BOOL* r) override { return cached("get_CachedIsSelected", r); }
    HRESULT STDMETHODCALLTYPE get_CachedSelectionContainer(IUIAutomationElement** r) override {
        return cached("get_CachedSelectionContainer", r);
    }
};

// --- Dock -----------------------------------------------------------------------------------

class DockObject final : public PatternObject<IUIAutomationDockPattern, DockSource> {
public:
    DockObject(Node& node, std::shared_ptr<DockSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationDockPattern) {}
    HRESULT STDMETHODCALLTYPE SetDockPosition(DockPosition position) override {
        return act(
            "SetDockPosition", [](DockSource& s) { ++s.setDockPositionCalls; },
            [&](DockSource& s) {
                if (position < DockPosition_Top || position > DockPosition_None) return E_INVALIDARG;
                s.position = position;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentDockPosition(DockPosition* r) override {
        return get("get_CurrentDockPosition", r, [](DockSource& s) { return s.position; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedDockPosition(DockPosition* r) override {
        return cached("get_CachedDockPosition", r);
    }
};

// --- Table ----------------------------------------------------------------------------------

class TableObject final : public PatternObject<IUIAutomationTablePattern, TableSource> {
public:
    TableObject(Node& node, std::shared_ptr<TableSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationTablePattern) {}
    HRESULT STDMETHODCALLTYPE GetCurrentRowHeaders(IUIAutomationElementArray** r) override {
        return getArray("GetCurrentRowHeaders", r, [](TableSource& s) { return s.rowHeaders; });
    }
    HRESULT STDMETHODCALLTYPE GetCurrentColumnHeaders(IUIAutomationElementArray** r) override {
        return getArray("GetCurrentColumnHeaders", r, [](TableSource& s) { return s.columnHeaders; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentRowOrColumnMajor(RowOrColumnMajor* r) override {
        return get("get_CurrentRowOrColumnMajor", r, [](TableSource& s) { return s.major; });
    }
    HRESULT STDMETHODCALLTYPE GetCachedRowHeaders(IUIAutomationElementArray** r) override {
        return cached("GetCachedRowHeaders", r);
    }
    HRESULT STDMETHODCALLTYPE GetCachedColumnHeaders(IUIAutomationElementArray** r) override {
        return cached("GetCachedColumnHeaders", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedRowOrColumnMajor(RowOrColumnMajor* r) override {
        return cached("get_CachedRowOrColumnMajor", r);
    }
};

// --- TableItem ------------------------------------------------------------------------------

class TableItemObject final : public PatternObject<IUIAutomationTableItemPattern, TableItemSource> {
public:
    TableItemObject(Node& node, std::shared_ptr<TableItemSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationTableItemPattern) {}
    HRESULT STDMETHODCALLTYPE GetCurrentRowHeaderItems(IUIAutomationElementArray** r) override {
        return getArray("GetCurrentRowHeaderItems", r, [](TableItemSource& s) { return s.rowHeaderItems; });
    }
    HRESULT STDMETHODCALLTYPE GetCurrentColumnHeaderItems(IUIAutomationElementArray** r) override {
        return getArray("GetCurrentColumnHeaderItems", r, [](TableItemSource& s) { return s.columnHeaderItems; });
    }
    HRESULT STDMETHODCALLTYPE GetCachedRowHeaderItems(IUIAutomationElementArray** r) override {
        return cached("GetCachedRowHeaderItems", r);
    }
    HRESULT STDMETHODCALLTYPE GetCachedColumnHeaderItems(IUIAutomationElementArray** r) override {
        return cached("GetCachedColumnHeaderItems", r);
    }
};

// --- Text -----------------------------------------------------------------------------------

// A range over the whole document of a TextSource.
class TextRangeObject final : public PatternObject<IUIAutomationTextRange, TextSource> {
public:
    TextRangeObject(Node& node, std::shared_ptr<TextSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationTextRange, detail::kTextRange) {}

    HRESULT STDMETHODCALLTYPE Clone(IUIAutomationTextRange** cloned) override {
        if (!cloned) return E_POINTER;
        *cloned = nullptr;
        HRESULT hr = enter("Clone");
        if (hr != S_OK) return hr;
        *cloned = new TextRangeObject(*node_, src_);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Compare(IUIAutomationTextRange*, BOOL* same) override {
        if (same) *same = FALSE;
        return range("Compare");
    }
    HRESULT STDMETHODCALLTYPE CompareEndpoints(TextPatternRangeEndpoint, IUIAutomationTextRange*,
                                               TextPatternRangeEndpoint, int* value) override {
        if (value) *value = 0;
        return range("CompareEndpoints");
    }
    HRESULT STDMETHODCALLTYPE ExpandToEnclosingUnit(TextUnit) override { return range("ExpandToEnclosingUnit"); }
    HRESULT STDMETHODCALLTYPE FindAttribute(TEXTATTRIBUTEID, VARIANT, BOOL, IUIAutomationTextRange** found) override {
        if (found) *found = nullptr;
        return range("FindAttribute");
    }
    HRESULT STDMETHODCALLTYPE FindText(BSTR, BOOL, BOOL, IUIAutomationTextRange** found) override {
        if (found) *found = nullptr;
        return range("FindText");
    }
    HRESULT STDMETHODCALLTYPE GetAttributeValue(TEXTATTRIBUTEID attr, VARIANT* value) override {
        if (!value) return E_POINTER;
        VariantInit(value);
        HRESULT hr = enter("GetAttributeValue");
        if (hr != S_OK) return hr;
        if (attr == kIsReadOnlyAttributeId) {
            std::lock_guard<std::mutex> lock(src_->mu);
            value->vt = VT_BOOL;
            value->boolVal = src_->readOnly ? VARIANT_TRUE : VARIANT_FALSE;
        } else {
            value->vt = VT_UNKNOWN;
            value->punkVal = detail::reservedNotSupportedValue();
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetBoundingRectangles(SAFEARRAY** rects) override {
        if (rects) *rects = nullptr;
        return range("GetBoundingRectangles");
    }
    HRESULT STDMETHODCALLTYPE GetEnclosingElement(IUIAutomationElement** element) override {
        if (!element) return E_POINTER;
        *element = nullptr;
        HRESULT hr = enter("GetEnclosingElement");
        if (hr != S_OK) return hr;
        *element = detail::newElement(*state_, node_);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetText(int maxLength, BSTR* text) override {
        if (!text) return E_POINTER;
        *text = nullptr;
        if (!aliveNow()) return kElementNotAvailable;
        HRESULT hr = src_->injectedFailure("GetText");
        std::wstring value;
        {
            std::lock_guard<std::mutex> lock(src_->mu);
            ++src_->getTextCalls;
            value = src_->documentText;
        }
        if (hr != S_OK) return hr;
        if (maxLength < -1) return E_INVALIDARG;
        if (maxLength >= 0 && value.size() > static_cast<size_t>(maxLength)) value.resize(static_cast<size_t>(maxLength));
        *text = SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
        return *text ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE Move(TextUnit, int, int* moved) override {
        if (moved) *moved = 0;
        return range("Move");
    }
    HRESULT STDMETHODCALLTYPE MoveEndpointByUnit(TextPatternRangeEndpoint, TextUnit, int, int* moved) override {
        if (moved) *moved = 0;
        return range("MoveEndpointByUnit");
    }
    HRESULT STDMETHODCALLTYPE MoveEndpointByRange(TextPatternRangeEndpoint, IUIAutomationTextRange*,
                                                  TextPatternRangeEndpoint) override {
        return range("MoveEndpointByRange");
    }
    HRESULT STDMETHODCALLTYPE Select() override { return range("Select"); }
    HRESULT STDMETHODCALLTYPE AddToSelection() override { return range("AddToSelection"); }
    HRESULT STDMETHODCALLTYPE RemoveFromSelection() override { return range("RemoveFromSelection"); }
    HRESULT STDMETHODCALLTYPE ScrollIntoView(BOOL) override { return range("ScrollIntoView"); }
    HRESULT STDMETHODCALLTYPE GetChildren(IUIAutomationElementArray** children) override {
        if (children) *children = nullptr;
        return range("GetChildren");
    }

private:
    HRESULT range(const char* method) { return unsupported("IUIAutomationTextRange", method); }
};

class TextObject final : public PatternObject<IUIAutomationTextPattern, TextSource> {
public:
    TextObject(Node& node, std::shared_ptr<TextSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationTextPattern) {}
    HRESULT STDMETHODCALLTYPE RangeFromPoint(POINT, IUIAutomationTextRange** r) override {
        if (r) *r = nullptr;
        return unsupported("RangeFromPoint");
    }
    HRESULT STDMETHODCALLTYPE RangeFromChild(IUIAutomationElement*, IUIAutomationTextRange** r) override {
        if (r) *r = nullptr;
        return unsupported("RangeFromChild");
    }
    HRESULT STDMETHODCALLTYPE GetSelection(IUIAutomationTextRangeArray** r) override {
        if (r) *r = nullptr;
        return unsupported("GetSelection");
    }
    HRESULT STDMETHODCALLTYPE GetVisibleRanges(IUIAutomationTextRangeArray** r) override {
        if (r) *r = nullptr;
        return unsupported("GetVisibleRanges");
    }
    HRESULT STDMETHODCALLTYPE get_DocumentRange(IUIAutomationTextRange** r) override {
        if (!r) return E_POINTER;
        *r = nullptr;
        HRESULT hr = enter("get_DocumentRange");
        if (hr != S_OK) return hr;
        *r = new TextRangeObject(*node_, src_);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_SupportedTextSelection(SupportedTextSelection* r) override {
        return get("get_SupportedTextSelection", r, [](TextSource& s) { return s.supportedTextSelection; });
    }
};

// --- Toggle ---------------------------------------------------------------------------------

class ToggleObject final : public PatternObject<IUIAutomationTogglePattern, ToggleSource> {
public:
    ToggleObject(Node& node, std::shared_ptr<ToggleSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationTogglePattern) {}
    HRESULT STDMETHODCALLTYPE Toggle() override {
        return act(
            "Toggle", [](ToggleSource& s) { ++s.toggleCalls; },
            [](ToggleSource& s) {
                switch (s.state) {
                case ToggleState_Off: s.state = ToggleState_On; break;
                case ToggleState_On: s.state = s.threeState ? ToggleState_Indeterminate : ToggleState_Off; break;
                default: s.state = ToggleState_Off; break;
                }
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentToggleState(ToggleState* r) override {
        return get("get_CurrentToggleState", r, [](ToggleSource& s) { return s.state; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedToggleState(ToggleState* r) override {
        return cached("get_CachedToggleState", r);
    }
};

// --- Transform ------------------------------------------------------------------------------

class TransformObject final : public PatternObject<IUIAutomationTransformPattern, TransformSource> {
public:
    TransformObject(Node& node, std::shared_ptr<TransformSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationTransformPattern) {}
    HRESULT STDMETHODCALLTYPE Move(double x, double y) override {
        HRESULT hr = act(
            "Move", [&](TransformSource& s) { s.moveArguments.emplace_back(x, y); },
            [](TransformSource& s) { return s.canMove ? S_OK : kInvalidOperation; });
        if (hr != S_OK) return hr;
        node_->update([&](NodeSpec& spec) {
            LONG width = spec.bounds.right - spec.bounds.left, height = spec.bounds.bottom - spec.bounds.top;
            spec.bounds.left = static_cast<LONG>(std::lround(x));
            spec.bounds.top = static_cast<LONG>(std::lround(y));
            spec.bounds.right = spec.bounds.left + width;
            spec.bounds.bottom = spec.bounds.top + height;
        });
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Resize(double width, double height) override {
        HRESULT hr = act(
            "Resize", [&](TransformSource& s) { s.resizeArguments.emplace_back(width, height); },
            [&](TransformSource& s) {
                if (!s.canResize) return kInvalidOperation;
                return width < 0 || height < 0 ? E_INVALIDARG : S_OK;
            });
        if (hr != S_OK) return hr;
        node_->update([&](NodeSpec& spec) {
            spec.bounds.right = spec.bounds.left + static_cast<LONG>(std::lround(width));
            spec.bounds.bottom = spec.bounds.top + static_cast<LONG>(std::lround(height));
        });
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Rotate(double degrees) override {
        return act(
            "Rotate",
            [&](TransformSource& s) {
                ++s.rotateCalls;
                s.rotateArguments.push_back(degrees);
            },
            [](TransformSource& s) { return s.canRotate ? S_OK : kInvalidOperation; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCanMove(BOOL* r) override {
        return getBool("get_CurrentCanMove", r, [](TransformSource& s) { return s.canMove; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCanResize(BOOL* r) override {
        return getBool("get_CurrentCanResize", r, [](TransformSource& s) { return s.canResize; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentCanRotate(BOOL* r) override {
        return getBool("get_CurrentCanRotate", r, [](TransformSource& s) { return s.canRotate; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedCanMove(BOOL* r) override { return cached("get_CachedCanMove", r); }
    HRESULT STDMETHODCALLTYPE get_CachedCanResize(BOOL* r) override { return cached("get_CachedCanResize", r); }
    HRESULT STDMETHODCALLTYPE get_CachedCanRotate(BOOL* r) override { return cached("get_CachedCanRotate", r); }
};

// --- ScrollItem -----------------------------------------------------------------------------

class ScrollItemObject final : public PatternObject<IUIAutomationScrollItemPattern, ScrollItemSource> {
public:
    ScrollItemObject(Node& node, std::shared_ptr<ScrollItemSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationScrollItemPattern) {}
    HRESULT STDMETHODCALLTYPE ScrollIntoView() override {
        return counted("ScrollIntoView", [](ScrollItemSource& s) { ++s.scrollIntoViewCalls; });
    }
};

// --- LegacyIAccessible ----------------------------------------------------------------------

class LegacyObject final : public PatternObject<IUIAutomationLegacyIAccessiblePattern, LegacyIAccessibleSource> {
public:
    using S = LegacyIAccessibleSource;
    LegacyObject(Node& node, std::shared_ptr<S> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationLegacyIAccessiblePattern) {}
    HRESULT STDMETHODCALLTYPE Select(LONG flags) override {
        return counted("Select", [&](S& s) {
            ++s.selectCalls;
            s.selectFlags.push_back(flags);
        });
    }
    HRESULT STDMETHODCALLTYPE DoDefaultAction() override {
        return act(
            "DoDefaultAction", [](S& s) { ++s.doDefaultActionCalls; },
            [](S& s) { return s.defaultActionResult; });
    }
    HRESULT STDMETHODCALLTYPE SetValue(LPCWSTR value) override {
        std::wstring v = value ? std::wstring(value) : std::wstring();
        return act(
            "SetValue", [](S& s) { ++s.setValueCalls; },
            [&](S& s) {
                s.value = v;
                return S_OK;
            });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentChildId(int* r) override {
        return get("get_CurrentChildId", r, [](S& s) { return s.childId; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentName(BSTR* r) override {
        return getString("get_CurrentName", r, [](S& s) { return s.name; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentValue(BSTR* r) override {
        return getString("get_CurrentValue", r, [](S& s) { return s.value; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentDescription(BSTR* r) override {
        return getString("get_CurrentDescription", r, [](S& s) { return s.description; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentRole(DWORD* r) override {
        return get("get_CurrentRole", r, [](S& s) { return s.role; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentState(DWORD* r) override {
        return get("get_CurrentState", r, [](S& s) { return s.state; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentHelp(BSTR* r) override {
        return getString("get_CurrentHelp", r, [](S& s) { return s.help; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentKeyboardShortcut(BSTR* r) override {
        return getString("get_CurrentKeyboardShortcut", r, [](S& s) { return s.keyboardShortcut; });
    }
    HRESULT STDMETHODCALLTYPE GetCurrentSelection(IUIAutomationElementArray** r) override {
        return getArray("GetCurrentSelection", r, [](S& s) { return s.selection; });
    }
    HRESULT STDMETHODCALLTYPE get_CurrentDefaultAction(BSTR* r) override {
        return getString("get_CurrentDefaultAction", r, [](S& s) { return s.defaultAction; });
    }
    HRESULT STDMETHODCALLTYPE get_CachedChildId(int* r) override { return cached("get_CachedChildId", r); }
    HRESULT STDMETHODCALLTYPE get_CachedName(BSTR* r) override { return cached("get_CachedName", r); }
    HRESULT STDMETHODCALLTYPE get_CachedValue(BSTR* r) override { return cached("get_CachedValue", r); }
    HRESULT STDMETHODCALLTYPE get_CachedDescription(BSTR* r) override { return cached("get_CachedDescription", r); }
    HRESULT STDMETHODCALLTYPE get_CachedRole(DWORD* r) override { return cached("get_CachedRole", r); }
    HRESULT STDMETHODCALLTYPE get_CachedState(DWORD* r) override { return cached("get_CachedState", r); }
    HRESULT STDMETHODCALLTYPE get_CachedHelp(BSTR* r) override { return cached("get_CachedHelp", r); }
    HRESULT STDMETHODCALLTYPE get_CachedKeyboardShortcut(BSTR* r) override {
        return cached("get_CachedKeyboardShortcut", r);
    }
    HRESULT STDMETHODCALLTYPE GetCachedSelection(IUIAutomationElementArray** r) override {
        return cached("GetCachedSelection", r);
    }
    HRESULT STDMETHODCALLTYPE get_CachedDefaultAction(BSTR* r) override {
        return cached("get_CachedDefaultAction", r);
    }
    HRESULT STDMETHODCALLTYPE GetIAccessible(IAccessible** r) override {
        if (r) *r = nullptr;
        return unsupported("GetIAccessible");
    }
};

// --- ItemContainer --------------------------------------------------------------------------

class ItemContainerObject final : public PatternObject<IUIAutomationItemContainerPattern, ItemContainerSource> {
public:
    ItemContainerObject(Node& node, std::shared_ptr<ItemContainerSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationItemContainerPattern) {}
    HRESULT STDMETHODCALLTYPE FindItemByProperty(IUIAutomationElement* startAfter, PROPERTYID property, VARIANT value,
                                                 IUIAutomationElement** found) override {
        if (!found) return E_POINTER;
        *found = nullptr;
        std::vector<Node*> items;
        HRESULT hr = act(
            "FindItemByProperty", [](ItemContainerSource& s) { ++s.findItemByPropertyCalls; },
            [&](ItemContainerSource& s) {
                items = s.items;
                return S_OK;
            });
        if (hr != S_OK) return hr;
        VARTYPE expected = VT_EMPTY;
        if (property != 0) {
            switch (detail::modeledType(property)) {
            case detail::PropertyType::I4: expected = VT_I4; break;
            case detail::PropertyType::Bstr: expected = VT_BSTR; break;
            case detail::PropertyType::Bool: expected = VT_BOOL; break;
            default: return E_INVALIDARG;
            }
            if (value.vt != expected) return E_INVALIDARG;
        }
        Node* start = startAfter ? detail::nodeOf(*state_, startAfter) : nullptr;
        if (startAfter && !start) return E_INVALIDARG;
        Node* hit = nullptr;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            size_t i = 0;
            if (start) {
                auto it = std::find(items.begin(), items.end(), start);
                if (it == items.end()) return E_INVALIDARG;
                i = static_cast<size_t>(it - items.begin()) + 1;
            }
            for (; i < items.size() && !hit; ++i) {
                Node* n = items[i];
                if (!n || !D(n).alive) continue;
                if (property == 0) {
                    hit = n;
                    break;
                }
                VARIANT v;
                VariantInit(&v);
                detail::readPropertyLocked(*state_, n, property, &v);
                bool equal = v.vt == expected &&
                             ((expected == VT_I4 && v.lVal == value.lVal) ||
                              (expected == VT_BOOL && (v.boolVal != VARIANT_FALSE) == (value.boolVal != VARIANT_FALSE)) ||
                              (expected == VT_BSTR && SysStringLen(v.bstrVal) == SysStringLen(value.bstrVal) &&
                               std::wstring(v.bstrVal ? v.bstrVal : L"", SysStringLen(v.bstrVal)) ==
                                   std::wstring(value.bstrVal ? value.bstrVal : L"", SysStringLen(value.bstrVal))));
                VariantClear(&v);
                if (equal) hit = n;
            }
        }
        if (hit) *found = detail::newElement(*state_, hit);
        return S_OK;
    }
};

// --- VirtualizedItem ------------------------------------------------------------------------

class VirtualizedItemObject final
    : public PatternObject<IUIAutomationVirtualizedItemPattern, VirtualizedItemSource> {
public:
    VirtualizedItemObject(Node& node, std::shared_ptr<VirtualizedItemSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationVirtualizedItemPattern) {}
    HRESULT STDMETHODCALLTYPE Realize() override {
        return counted("Realize", [](VirtualizedItemSource& s) { ++s.realizeCalls; });
    }
};

// --- SynchronizedInput ----------------------------------------------------------------------

class SynchronizedInputObject final
    : public PatternObject<IUIAutomationSynchronizedInputPattern, SynchronizedInputSource> {
public:
    SynchronizedInputObject(Node& node, std::shared_ptr<SynchronizedInputSource> s)
        : PatternObject(node, std::move(s), IID_IUIAutomationSynchronizedInputPattern) {}
    HRESULT STDMETHODCALLTYPE StartListening(SynchronizedInputType type) override {
        return counted("StartListening", [&](SynchronizedInputSource& s) {
            ++s.startListeningCalls;
            s.startListeningArguments.push_back(type);
        });
    }
    HRESULT STDMETHODCALLTYPE Cancel() override {
        return counted("Cancel", [](SynchronizedInputSource& s) { ++s.cancelCalls; });
    }
};

}  // namespace

// --- the sources ----------------------------------------------------------------------------

#define FAKEUIA_OPEN(Source, Object)                                  \
    HRESULT Source::open(Node& node, REFIID riid, void** object) {    \
        return openObject<Object>(*this, node, riid, object);        \
    }

InvokeSource::InvokeSource() : FAKEUIA_SOURCE_BASE("IUIAutomationInvokePattern", kInvokeMethods) {}
FAKEUIA_OPEN(InvokeSource, InvokeObject)

SelectionSource::SelectionSource() : FAKEUIA_SOURCE_BASE("IUIAutomationSelectionPattern", kSelectionMethods) {}
FAKEUIA_OPEN(SelectionSource, SelectionObject)

ValueSource::ValueSource() : FAKEUIA_SOURCE_BASE("IUIAutomationValuePattern", kValueMethods) {}
ValueSource::ValueSource(std::wstring v, bool ro) : ValueSource() {
    value = std::move(v);
    readOnly = ro;
}
FAKEUIA_OPEN(ValueSource, ValueObject)

RangeValueSource::RangeValueSource() : FAKEUIA_SOURCE_BASE("IUIAutomationRangeValuePattern", kRangeValueMethods) {}
RangeValueSource::RangeValueSource(double v, double lo, double hi) : RangeValueSource() {
    value = v;
    minimum = lo;
    maximum = hi;
}
FAKEUIA_OPEN(RangeValueSource, RangeValueObject)

ScrollSource::ScrollSource() : FAKEUIA_SOURCE_BASE("IUIAutomationScrollPattern", kScrollMethods) {}
FAKEUIA_OPEN(ScrollSource, ScrollObject)

ExpandCollapseSource::ExpandCollapseSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationExpandCollapsePattern", kExpandCollapseMethods) {}
ExpandCollapseSource::ExpandCollapseSource(ExpandCollapseState s) : ExpandCollapseSource() { state = s; }
FAKEUIA_OPEN(ExpandCollapseSource, ExpandCollapseObject)

GridSource::GridSource() : FAKEUIA_SOURCE_BASE("IUIAutomationGridPattern", kGridMethods) {}
GridSource::GridSource(std::vector<std::vector<Node*>> c) : GridSource() {
    cells = std::move(c);
    rowCount = static_cast<int>(cells.size());
    for (auto& row : cells) columnCount = std::max(columnCount, static_cast<int>(row.size()));
}
FAKEUIA_OPEN(GridSource, GridObject)

GridItemSource::GridItemSource() : FAKEUIA_SOURCE_BASE("IUIAutomationGridItemPattern", kGridItemMethods) {}
GridItemSource::GridItemSource(int r, int c, Node* grid) : GridItemSource() {
    row = r;
    column = c;
    containingGrid = grid;
}
FAKEUIA_OPEN(GridItemSource, GridItemObject)

MultipleViewSource::MultipleViewSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationMultipleViewPattern", kMultipleViewMethods) {}
FAKEUIA_OPEN(MultipleViewSource, MultipleViewObject)

WindowSource::WindowSource() : FAKEUIA_SOURCE_BASE("IUIAutomationWindowPattern", kWindowMethods) {}
FAKEUIA_OPEN(WindowSource, WindowObject)

SelectionItemSource::SelectionItemSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationSelectionItemPattern", kSelectionItemMethods) {}
SelectionItemSource::SelectionItemSource(bool selected, Node* c) : SelectionItemSource() {
    isSelected = selected;
    container = c;
}
FAKEUIA_OPEN(SelectionItemSource, SelectionItemObject)

DockSource::DockSource() : FAKEUIA_SOURCE_BASE("IUIAutomationDockPattern", kDockMethods) {}
FAKEUIA_OPEN(DockSource, DockObject)

TableSource::TableSource() : FAKEUIA_SOURCE_BASE("IUIAutomationTablePattern", kTableMethods) {}
FAKEUIA_OPEN(TableSource, TableObject)

TableItemSource::TableItemSource() : FAKEUIA_SOURCE_BASE("IUIAutomationTableItemPattern", kTableItemMethods) {}
FAKEUIA_OPEN(TableItemSource, TableItemObject)

TextSource::TextSource() : FAKEUIA_SOURCE_BASE("IUIAutomationTextPattern", kTextMethods) {}
TextSource::TextSource(std::wstring text, bool ro) : TextSource() {
    documentText = std::move(text);
    readOnly = ro;
}
FAKEUIA_OPEN(TextSource, TextObject)

ToggleSource::ToggleSource() : FAKEUIA_SOURCE_BASE("IUIAutomationTogglePattern", kToggleMethods) {}
ToggleSource::ToggleSource(ToggleState s, bool three) : ToggleSource() {
    state = s;
    threeState = three;
}
FAKEUIA_OPEN(ToggleSource, ToggleObject)

TransformSource::TransformSource() : FAKEUIA_SOURCE_BASE("IUIAutomationTransformPattern", kTransformMethods) {}
TransformSource::TransformSource(bool move, bool resize, bool rotate) : TransformSource() {
    canMove = move;
    canResize = resize;
    canRotate = rotate;
}
FAKEUIA_OPEN(TransformSource, TransformObject)

ScrollItemSource::ScrollItemSource() : FAKEUIA_SOURCE_BASE("IUIAutomationScrollItemPattern", kScrollItemMethods) {}
FAKEUIA_OPEN(ScrollItemSource, ScrollItemObject)

LegacyIAccessibleSource::LegacyIAccessibleSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationLegacyIAccessiblePattern", kLegacyMethods) {}
FAKEUIA_OPEN(LegacyIAccessibleSource, LegacyObject)

ItemContainerSource::ItemContainerSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationItemContainerPattern", kItemContainerMethods) {}
FAKEUIA_OPEN(ItemContainerSource, ItemContainerObject)

VirtualizedItemSource::VirtualizedItemSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationVirtualizedItemPattern", kVirtualizedItemMethods) {}
FAKEUIA_OPEN(VirtualizedItemSource, VirtualizedItemObject)

SynchronizedInputSource::SynchronizedInputSource()
    : FAKEUIA_SOURCE_BASE("IUIAutomationSynchronizedInputPattern", kSynchronizedInputMethods) {}
FAKEUIA_OPEN(SynchronizedInputSource, SynchronizedInputObject)

}  // namespace fakeuia
