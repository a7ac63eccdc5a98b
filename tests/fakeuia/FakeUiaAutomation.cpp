// The automation object: IUIAutomation, and IUIAutomation2 while switched on.
#include "FakeUiaInternal.h"

namespace fakeuia {
namespace detail {

namespace {

std::vector<LONG> longsOf(SAFEARRAY* sa) {
    std::vector<LONG> out;
    if (!sa || SafeArrayGetDim(sa) != 1) return out;
    LONG lo = 0, hi = -1;
    SafeArrayGetLBound(sa, 1, &lo);
    SafeArrayGetUBound(sa, 1, &hi);
    for (LONG i = lo; i <= hi; ++i) {
        LONG v = 0;
        SafeArrayGetElement(sa, &i, &v);
        out.push_back(v);
    }
    return out;
}

std::vector<double> doublesOf(SAFEARRAY* sa) {
    std::vector<double> out;
    if (!sa || SafeArrayGetDim(sa) != 1) return out;
    LONG lo = 0, hi = -1;
    SafeArrayGetLBound(sa, 1, &lo);
    SafeArrayGetUBound(sa, 1, &hi);
    for (LONG i = lo; i <= hi; ++i) {
        double v = 0;
        SafeArrayGetElement(sa, &i, &v);
        out.push_back(v);
    }
    return out;
}

bool isVarType(SAFEARRAY* sa, VARTYPE want) {
    VARTYPE vt = VT_EMPTY;
    return sa && SUCCEEDED(SafeArrayGetVartype(sa, &vt)) && vt == want;
}

RECT rectOf(double l, double t, double w, double h) {
    return RECT{static_cast<LONG>(l), static_cast<LONG>(t), static_cast<LONG>(l + w), static_cast<LONG>(t + h)};
}

bool contains(const RECT& r, POINT pt) { return pt.x >= r.left && pt.x < r.right && pt.y >= r.top && pt.y < r.bottom; }

// Deepest node (of `node` and its subtree) whose bounds contain pt; offscreen
// nodes and their subtrees are skipped; among equally deep ones the first in
// document order (the topmost) wins.
void hitTestLocked(Node* node, POINT pt, int depth, Node** best, int* bestDepth) {
    const NodeSpec& s = D(node).spec;
    if (s.isOffscreen) return;
    if (depth > *bestDepth && contains(s.bounds, pt)) {
        *best = node;
        *bestDepth = depth;
    }
    for (Node* c : D(node).children) hitTestLocked(c, pt, depth + 1, best, bestDepth);
}

BSTR allocString(const wchar_t* s) { return SysAllocString(s); }

class Automation final : public IUIAutomation2, public Counted {
public:
    explicit Automation(State& state) : Counted(state, kAutomation) {
        std::lock_guard<std::mutex> lock(state_->mu);
        serial_ = state_->nextAutomationSerial++;
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        bool answer = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomation);
        if (!answer && IsEqualIID(riid, IID_IUIAutomation2)) {
            std::lock_guard<std::mutex> lock(state_->mu);
            answer = state_->automation2;
        }
        if (!answer) return E_NOINTERFACE;
        *object = static_cast<IUIAutomation2*>(this);
        addRef();
        return S_OK;
    }
    FAKEUIA_COUNTED_REFS

    // --- elements ------------------------------------------------------------------
    HRESULT STDMETHODCALLTYPE CompareElements(IUIAutomationElement* el1, IUIAutomationElement* el2,
                                              BOOL* areSame) override {
        if (!areSame) return E_POINTER;
        HRESULT hr = injected("CompareElements");
        if (hr == S_OK && (!el1 || !el2)) hr = E_POINTER;
        Node* a = hr == S_OK ? nodeOf(*state_, el1) : nullptr;
        Node* b = hr == S_OK ? nodeOf(*state_, el2) : nullptr;
        if (hr == S_OK && (!a || !b)) hr = E_INVALIDARG;
        if (hr != S_OK) {
            poison(areSame);
            return hr;
        }
        *areSame = a == b ? TRUE : FALSE;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE CompareRuntimeIds(SAFEARRAY* id1, SAFEARRAY* id2, BOOL* areSame) override {
        if (!areSame) return E_POINTER;
        *areSame = FALSE;
        if (HRESULT hr = injected("CompareRuntimeIds")) return hr;
        if (!id1 || !id2) return E_INVALIDARG;
        if (!isVarType(id1, VT_I4) || !isVarType(id2, VT_I4)) return E_INVALIDARG;
        *areSame = longsOf(id1) == longsOf(id2) ? TRUE : FALSE;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetRootElement(IUIAutomationElement** root) override {
        if (!root) return E_POINTER;
        *root = nullptr;
        if (HRESULT hr = injected("GetRootElement")) return hr;
        *root = newElement(*state_, state_->root);
        return S_OK;
    }

    // The node with that native window handle, the root for the desktop
    // window, or an element made from any other live window;
    // UIA_E_ELEMENTNOTAVAILABLE when the handle names no window.
    HRESULT STDMETHODCALLTYPE ElementFromHandle(UIA_HWND hwnd, IUIAutomationElement** element) override {
        if (!element) return E_POINTER;
        *element = nullptr;
        if (HRESULT hr = injected("ElementFromHandle")) return hr;
        if (!hwnd) return E_INVALIDARG;
        Node* found = nullptr;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            found = nodeOfWindowLocked(*state_, static_cast<HWND>(hwnd));
        }
        if (!found) return kElementNotAvailable;
        *element = newElement(*state_, found);
        return S_OK;
    }

    // The deepest onscreen node whose bounds contain the point; the root when none.
    HRESULT STDMETHODCALLTYPE ElementFromPoint(POINT pt, IUIAutomationElement** element) override {
        if (!element) return E_POINTER;
        *element = nullptr;
        if (HRESULT hr = injected("ElementFromPoint")) return hr;
        Node* best = nullptr;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            best = state_->root;
            int bestDepth = 0;
            for (Node* c : D(state_->root).children) hitTestLocked(c, pt, 1, &best, &bestDepth);
        }
        *element = newElement(*state_, best);
        return S_OK;
    }

    // The first node (document order) with keyboard focus; else the node of
    // the window that has the system's focus (or of its nearest ancestor that
    // a node names); the root when none.
    HRESULT STDMETHODCALLTYPE GetFocusedElement(IUIAutomationElement** element) override {
        if (!element) return E_POINTER;
        *element = nullptr;
        if (HRESULT hr = injected("GetFocusedElement")) return hr;
        GUITHREADINFO input{};
        input.cbSize = sizeof input;
        HWND window = GetGUIThreadInfo(0, &input) ? input.hwndFocus : nullptr;
        Node* focused = nullptr;
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            std::vector<Node*> all;
            preorderLocked(state_->root, all);
            for (Node* n : all)
                if (D(n).spec.hasKeyboardFocus) {
                    focused = n;
                    break;
                }
            for (; !focused && window; window = GetAncestor(window, GA_PARENT)) {
                for (Node* n : all)
                    if (D(n).spec.nativeWindowHandle == window) focused = n;
            }
            if (!focused) focused = state_->root;
        }
        *element = newElement(*state_, focused);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetRootElementBuildCache(IUIAutomationCacheRequest*, IUIAutomationElement** out) override {
        return unsupported("GetRootElementBuildCache", out);
    }
    HRESULT STDMETHODCALLTYPE ElementFromHandleBuildCache(UIA_HWND, IUIAutomationCacheRequest*,
                                                          IUIAutomationElement** out) override {
        return unsupported("ElementFromHandleBuildCache", out);
    }
    HRESULT STDMETHODCALLTYPE ElementFromPointBuildCache(POINT, IUIAutomationCacheRequest*,
                                                         IUIAutomationElement** out) override {
        return unsupported("ElementFromPointBuildCache", out);
    }
    HRESULT STDMETHODCALLTYPE GetFocusedElementBuildCache(IUIAutomationCacheRequest*, IUIAutomationElement** out) override {
        return unsupported("GetFocusedElementBuildCache", out);
    }

    // --- walkers and conditions --------------------------------------------------------
    HRESULT STDMETHODCALLTYPE CreateTreeWalker(IUIAutomationCondition* condition,
                                               IUIAutomationTreeWalker** walker) override {
        if (!walker) return E_POINTER;
        *walker = nullptr;
        if (HRESULT hr = injected("CreateTreeWalker")) return hr;
        if (!condition) return E_POINTER;
        CondPtr cond = condOf(*state_, condition);
        if (!cond) return E_INVALIDARG;
        *walker = newWalker(*state_, std::move(cond));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ControlViewWalker(IUIAutomationTreeWalker** walker) override {
        return walkerOf("get_ControlViewWalker", controlViewCond(), walker);
    }
    HRESULT STDMETHODCALLTYPE get_ContentViewWalker(IUIAutomationTreeWalker** walker) override {
        return walkerOf("get_ContentViewWalker", contentViewCond(), walker);
    }
    HRESULT STDMETHODCALLTYPE get_RawViewWalker(IUIAutomationTreeWalker** walker) override {
        return walkerOf("get_RawViewWalker", trueCond(), walker);
    }
    HRESULT STDMETHODCALLTYPE get_RawViewCondition(IUIAutomationCondition** condition) override {
        return conditionOf("get_RawViewCondition", trueCond(), condition);
    }
    HRESULT STDMETHODCALLTYPE get_ControlViewCondition(IUIAutomationCondition** condition) override {
        return conditionOf("get_ControlViewCondition", controlViewCond(), condition);
    }
    HRESULT STDMETHODCALLTYPE get_ContentViewCondition(IUIAutomationCondition** condition) override {
        return conditionOf("get_ContentViewCondition", contentViewCond(), condition);
    }
    HRESULT STDMETHODCALLTYPE CreateCacheRequest(IUIAutomationCacheRequest** out) override {
        return unsupported("CreateCacheRequest", out);
    }
    HRESULT STDMETHODCALLTYPE CreateTrueCondition(IUIAutomationCondition** condition) override {
        return conditionOf("CreateTrueCondition", trueCond(), condition);
    }
    HRESULT STDMETHODCALLTYPE CreateFalseCondition(IUIAutomationCondition** condition) override {
        return conditionOf("CreateFalseCondition", falseCond(), condition);
    }
    HRESULT STDMETHODCALLTYPE CreatePropertyCondition(PROPERTYID id, VARIANT value,
                                                      IUIAutomationCondition** condition) override {
        return propertyCondition("CreatePropertyCondition", id, value, PropertyConditionFlags_None, condition);
    }
    HRESULT STDMETHODCALLTYPE CreatePropertyConditionEx(PROPERTYID id, VARIANT value, PropertyConditionFlags flags,
                                                        IUIAutomationCondition** condition) override {
        return propertyCondition("CreatePropertyConditionEx", id, value, flags, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateAndCondition(IUIAutomationCondition* c1, IUIAutomationCondition* c2,
                                                 IUIAutomationCondition** condition) override {
        IUIAutomationCondition* both[2] = {c1, c2};
        return composite("CreateAndCondition", Cond::And, both, 2, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateAndConditionFromArray(SAFEARRAY* conditions,
                                                          IUIAutomationCondition** condition) override {
        return compositeFromArray("CreateAndConditionFromArray", Cond::And, conditions, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateAndConditionFromNativeArray(IUIAutomationCondition** conditions, int count,
                                                                IUIAutomationCondition** condition) override {
        return composite("CreateAndConditionFromNativeArray", Cond::And, conditions, count, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateOrCondition(IUIAutomationCondition* c1, IUIAutomationCondition* c2,
                                                IUIAutomationCondition** condition) override {
        IUIAutomationCondition* both[2] = {c1, c2};
        return composite("CreateOrCondition", Cond::Or, both, 2, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateOrConditionFromArray(SAFEARRAY* conditions,
                                                         IUIAutomationCondition** condition) override {
        return compositeFromArray("CreateOrConditionFromArray", Cond::Or, conditions, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateOrConditionFromNativeArray(IUIAutomationCondition** conditions, int count,
                                                               IUIAutomationCondition** condition) override {
        return composite("CreateOrConditionFromNativeArray", Cond::Or, conditions, count, condition);
    }
    HRESULT STDMETHODCALLTYPE CreateNotCondition(IUIAutomationCondition* inner,
                                                 IUIAutomationCondition** condition) override {
        return composite("CreateNotCondition", Cond::Not, &inner, 1, condition);
    }

    // --- events ----------------------------------------------------------------------------
    HRESULT STDMETHODCALLTYPE AddAutomationEventHandler(EVENTID eventId, IUIAutomationElement* element,
                                                        TreeScope scope, IUIAutomationCacheRequest* cacheRequest,
                                                        IUIAutomationEventHandler* handler) override {
        if (HRESULT hr = injected("AddAutomationEventHandler")) return hr;
        EventHandlerRecord r;
        r.kind = EventHandlerRecord::Kind::Automation;
        r.eventId = eventId;
        r.scope = scope;
        r.withCacheRequest = cacheRequest != nullptr;
        r.automation = serial_;
        return registerHandler(*state_, std::move(r), handler, element);
    }
    HRESULT STDMETHODCALLTYPE RemoveAutomationEventHandler(EVENTID eventId, IUIAutomationElement* element,
                                                           IUIAutomationEventHandler* handler) override {
        if (HRESULT hr = injected("RemoveAutomationEventHandler")) return hr;
        return unregisterHandler(*state_, EventHandlerRecord::Kind::Automation, eventId, element, handler);
    }
    HRESULT STDMETHODCALLTYPE AddPropertyChangedEventHandlerNativeArray(
        IUIAutomationElement* element, TreeScope scope, IUIAutomationCacheRequest* cacheRequest,
        IUIAutomationPropertyChangedEventHandler* handler, PROPERTYID* properties, int count) override {
        if (HRESULT hr = injected("AddPropertyChangedEventHandlerNativeArray")) return hr;
        if (count < 0 || (count > 0 && !properties)) return E_INVALIDARG;
        std::vector<PROPERTYID> ids(properties, properties + count);
        return addPropertyHandler(element, scope, cacheRequest, handler, std::move(ids));
    }
    HRESULT STDMETHODCALLTYPE AddPropertyChangedEventHandler(IUIAutomationElement* element, TreeScope scope,
                                                             IUIAutomationCacheRequest* cacheRequest,
                                                             IUIAutomationPropertyChangedEventHandler* handler,
                                                             SAFEARRAY* properties) override {
        if (HRESULT hr = injected("AddPropertyChangedEventHandler")) return hr;
        if (!isVarType(properties, VT_I4)) return E_INVALIDARG;
        std::vector<PROPERTYID> ids;
        for (LONG v : longsOf(properties)) ids.push_back(static_cast<PROPERTYID>(v));
        return addPropertyHandler(element, scope, cacheRequest, handler, std::move(ids));
    }
    HRESULT STDMETHODCALLTYPE RemovePropertyChangedEventHandler(IUIAutomationElement* element,
                                                                IUIAutomationPropertyChangedEventHandler* handler) override {
        if (HRESULT hr = injected("RemovePropertyChangedEventHandler")) return hr;
        return unregisterHandler(*state_, EventHandlerRecord::Kind::PropertyChanged, 0, element, handler);
    }
    HRESULT STDMETHODCALLTYPE AddStructureChangedEventHandler(IUIAutomationElement* element, TreeScope scope,
                                                              IUIAutomationCacheRequest* cacheRequest,
                                                              IUIAutomationStructureChangedEventHandler* handler) override {
        if (HRESULT hr = injected("AddStructureChangedEventHandler")) return hr;
        EventHandlerRecord r;
        r.kind = EventHandlerRecord::Kind::StructureChanged;
        r.eventId = UIA_StructureChangedEventId;
        r.scope = scope;
        r.withCacheRequest = cacheRequest != nullptr;
        r.automation = serial_;
        return registerHandler(*state_, std::move(r), handler, element);
    }
    HRESULT STDMETHODCALLTYPE RemoveStructureChangedEventHandler(
        IUIAutomationElement* element, IUIAutomationStructureChangedEventHandler* handler) override {
        if (HRESULT hr = injected("RemoveStructureChangedEventHandler")) return hr;
        return unregisterHandler(*state_, EventHandlerRecord::Kind::StructureChanged, 0, element, handler);
    }
    HRESULT STDMETHODCALLTYPE AddFocusChangedEventHandler(IUIAutomationCacheRequest* cacheRequest,
                                                          IUIAutomationFocusChangedEventHandler* handler) override {
        if (HRESULT hr = injected("AddFocusChangedEventHandler")) return hr;
        EventHandlerRecord r;
        r.kind = EventHandlerRecord::Kind::FocusChanged;
        r.eventId = UIA_AutomationFocusChangedEventId;
        r.scope = TreeScope_Subtree;
        r.withCacheRequest = cacheRequest != nullptr;
        r.automation = serial_;
        return registerHandler(*state_, std::move(r), handler, nullptr);
    }
    HRESULT STDMETHODCALLTYPE RemoveFocusChangedEventHandler(IUIAutomationFocusChangedEventHandler* handler) override {
        if (HRESULT hr = injected("RemoveFocusChangedEventHandler")) return hr;
        return unregisterHandler(*state_, EventHandlerRecord::Kind::FocusChanged, 0, nullptr, handler);
    }
    // Removes the handlers registered through this automation object.
    HRESULT STDMETHODCALLTYPE RemoveAllEventHandlers() override {
        if (HRESULT hr = injected("RemoveAllEventHandlers")) return hr;
        unregisterAll(*state_, serial_);
        return S_OK;
    }

    // --- conversions -------------------------------------------------------------------------
    HRESULT STDMETHODCALLTYPE IntNativeArrayToSafeArray(int* array, int count, SAFEARRAY** safeArray) override {
        if (!safeArray) return E_POINTER;
        *safeArray = nullptr;
        if (HRESULT hr = injected("IntNativeArrayToSafeArray")) return hr;
        if (count < 0 || (count > 0 && !array)) return E_INVALIDARG;
        *safeArray = intSafeArray(std::vector<int>(array, array + count));
        return *safeArray ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE IntSafeArrayToNativeArray(SAFEARRAY* intArray, int** array, int* count) override {
        if (!array || !count) return E_POINTER;
        *array = nullptr;
        *count = 0;
        if (HRESULT hr = injected("IntSafeArrayToNativeArray")) return hr;
        if (!isVarType(intArray, VT_I4)) return E_INVALIDARG;
        std::vector<LONG> values = longsOf(intArray);
        auto* out = static_cast<int*>(CoTaskMemAlloc(sizeof(int) * (values.empty() ? 1 : values.size())));
        if (!out) return E_OUTOFMEMORY;
        for (size_t i = 0; i < values.size(); ++i) out[i] = static_cast<int>(values[i]);
        *array = out;
        *count = static_cast<int>(values.size());
        return S_OK;
    }
    // Rectangles travel as VT_R8 arrays of left, top, width, height.
    HRESULT STDMETHODCALLTYPE RectToVariant(RECT rc, VARIANT* var) override {
        if (!var) return E_POINTER;
        VariantInit(var);
        if (HRESULT hr = injected("RectToVariant")) return hr;
        var->parray = doubleSafeArray({double(rc.left), double(rc.top), double(rc.right - rc.left),
                                       double(rc.bottom - rc.top)});
        if (!var->parray) return E_OUTOFMEMORY;
        var->vt = VT_R8 | VT_ARRAY;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE VariantToRect(VARIANT var, RECT* rc) override {
        if (!rc) return E_POINTER;
        *rc = RECT{};
        if (HRESULT hr = injected("VariantToRect")) return hr;
        if (var.vt != (VT_R8 | VT_ARRAY)) return E_INVALIDARG;
        std::vector<double> v = doublesOf(var.parray);
        if (v.size() != 4) return E_INVALIDARG;
        *rc = rectOf(v[0], v[1], v[2], v[3]);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SafeArrayToRectNativeArray(SAFEARRAY* rects, RECT** rectArray, int* count) override {
        if (!rectArray || !count) return E_POINTER;
        *rectArray = nullptr;
        *count = 0;
        if (HRESULT hr = injected("SafeArrayToRectNativeArray")) return hr;
        if (!isVarType(rects, VT_R8)) return E_INVALIDARG;
        std::vector<double> v = doublesOf(rects);
        if (v.size() % 4 != 0) return E_INVALIDARG;
        size_t n = v.size() / 4;
        if (n == 0) return S_OK;
        auto* out = static_cast<RECT*>(CoTaskMemAlloc(sizeof(RECT) * n));
        if (!out) return E_OUTOFMEMORY;
        for (size_t i = 0; i < n; ++i) out[i] = rectOf(v[4 * i], v[4 * i + 1], v[4 * i + 2], v[4 * i + 3]);
        *rectArray = out;
        *count = static_cast<int>(n);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE CreateProxyFactoryEntry(IUIAutomationProxyFactory*,
                                                      IUIAutomationProxyFactoryEntry** out) override {
        return unsupported("CreateProxyFactoryEntry", out);
    }
    HRESULT STDMETHODCALLTYPE get_ProxyFactoryMapping(IUIAutomationProxyFactoryMapping** out) override {
        return unsupported("get_ProxyFactoryMapping", out);
    }

    // Names are the identifiers' names without "UIA_" and "PropertyId"
    // ("Name", "ControlType") or "Id" ("InvokePattern"); E_INVALIDARG for ids
    // the platform headers do not define.
    HRESULT STDMETHODCALLTYPE GetPropertyProgrammaticName(PROPERTYID property, BSTR* name) override {
        if (!name) return E_POINTER;
        *name = nullptr;
        if (HRESULT hr = injected("GetPropertyProgrammaticName")) return hr;
        const wchar_t* n = propertyName(property);
        if (!n) return E_INVALIDARG;
        *name = allocString(n);
        return *name ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE GetPatternProgrammaticName(PATTERNID pattern, BSTR* name) override {
        if (!name) return E_POINTER;
        *name = nullptr;
        if (HRESULT hr = injected("GetPatternProgrammaticName")) return hr;
        const wchar_t* n = patternName(pattern);
        if (!n) return E_INVALIDARG;
        *name = allocString(n);
        return *name ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE PollForPotentialSupportedPatterns(IUIAutomationElement*, SAFEARRAY** ids,
                                                                SAFEARRAY** names) override {
        if (ids) *ids = nullptr;
        if (names) *names = nullptr;
        return state_->unsupportedCall("IUIAutomation::PollForPotentialSupportedPatterns");
    }
    HRESULT STDMETHODCALLTYPE PollForPotentialSupportedProperties(IUIAutomationElement*, SAFEARRAY** ids,
                                                                  SAFEARRAY** names) override {
        if (ids) *ids = nullptr;
        if (names) *names = nullptr;
        return state_->unsupportedCall("IUIAutomation::PollForPotentialSupportedProperties");
    }
    HRESULT STDMETHODCALLTYPE CheckNotSupported(VARIANT value, BOOL* isNotSupported) override {
        if (!isNotSupported) return E_POINTER;
        *isNotSupported = FALSE;
        if (HRESULT hr = injected("CheckNotSupported")) return hr;
        *isNotSupported = value.vt == VT_UNKNOWN && value.punkVal == reservedNotSupportedValue() ? TRUE : FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ReservedNotSupportedValue(IUnknown** value) override {
        if (!value) return E_POINTER;
        *value = nullptr;
        if (HRESULT hr = injected("get_ReservedNotSupportedValue")) return hr;
        *value = reservedNotSupportedValue();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ReservedMixedAttributeValue(IUnknown** value) override {
        if (!value) return E_POINTER;
        *value = nullptr;
        if (HRESULT hr = injected("get_ReservedMixedAttributeValue")) return hr;
        *value = reservedMixedAttributeValue();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ElementFromIAccessible(IAccessible*, int, IUIAutomationElement** out) override {
        return unsupported("ElementFromIAccessible", out);
    }
    HRESULT STDMETHODCALLTYPE ElementFromIAccessibleBuildCache(IAccessible*, int, IUIAutomationCacheRequest*,
                                                               IUIAutomationElement** out) override {
        return unsupported("ElementFromIAccessibleBuildCache", out);
    }

    // --- IUIAutomation2: values per object; the platform records every put_ ------
    HRESULT STDMETHODCALLTYPE get_AutoSetFocus(BOOL* value) override {
        if (!value) return E_POINTER;
        if (HRESULT hr = injected("get_AutoSetFocus")) return hr;
        *value = autoSetFocus_.load() ? TRUE : FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_AutoSetFocus(BOOL value) override {
        if (HRESULT hr = injected("put_AutoSetFocus")) return hr;
        autoSetFocus_ = value != FALSE;
        std::lock_guard<std::mutex> lock(state_->mu);
        state_->autoSetFocus = value != FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ConnectionTimeout(DWORD* value) override {
        if (!value) return E_POINTER;
        if (HRESULT hr = injected("get_ConnectionTimeout")) return hr;
        *value = connectionTimeout_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_ConnectionTimeout(DWORD value) override {
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            ++state_->connectionTimeoutPuts;
        }
        if (HRESULT hr = injected("put_ConnectionTimeout")) return hr;
        connectionTimeout_ = value;
        std::lock_guard<std::mutex> lock(state_->mu);
        state_->connectionTimeout = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_TransactionTimeout(DWORD* value) override {
        if (!value) return E_POINTER;
        if (HRESULT hr = injected("get_TransactionTimeout")) return hr;
        *value = transactionTimeout_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_TransactionTimeout(DWORD value) override {
        {
            std::lock_guard<std::mutex> lock(state_->mu);
            ++state_->transactionTimeoutPuts;
        }
        if (HRESULT hr = injected("put_TransactionTimeout")) return hr;
        transactionTimeout_ = value;
        std::lock_guard<std::mutex> lock(state_->mu);
        state_->transactionTimeout = value;
        return S_OK;
    }

private:
    HRESULT injected(const char* method) {
        std::lock_guard<std::mutex> lock(state_->mu);
        return state_->automationFailureLocked(method);
    }

    template <class T>
    HRESULT unsupported(const char* method, T** out) {
        if (out) *out = nullptr;
        return state_->unsupportedCall((std::string("IUIAutomation::") + method).c_str());
    }

    HRESULT walkerOf(const char* method, CondPtr view, IUIAutomationTreeWalker** walker) {
        if (!walker) return E_POINTER;
        *walker = nullptr;
        if (HRESULT hr = injected(method)) return hr;
        *walker = newWalker(*state_, std::move(view));
        return S_OK;
    }

    HRESULT conditionOf(const char* method, CondPtr cond, IUIAutomationCondition** condition) {
        if (!condition) return E_POINTER;
        *condition = nullptr;
        if (HRESULT hr = injected(method)) return hr;
        *condition = newCondition(*state_, std::move(cond));
        return S_OK;
    }

    HRESULT propertyCondition(const char* method, PROPERTYID id, const VARIANT& value, int flags,
                              IUIAutomationCondition** condition) {
        if (!condition) return E_POINTER;
        *condition = nullptr;
        if (HRESULT hr = injected(method)) return hr;
        CondPtr cond;
        HRESULT hr = makePropertyCond(*state_, id, value, flags, &cond);
        if (FAILED(hr)) return hr;
        *condition = newCondition(*state_, std::move(cond));
        return S_OK;
    }

    HRESULT composite(const char* method, Cond::Type type, IUIAutomationCondition** parts, int count,
                      IUIAutomationCondition** condition) {
        if (!condition) return E_POINTER;
        *condition = nullptr;
        if (HRESULT hr = injected(method)) return hr;
        if (count < 1 || !parts) return E_INVALIDARG;
        std::vector<CondPtr> children;
        for (int i = 0; i < count; ++i) {
            if (!parts[i]) return E_POINTER;
            CondPtr c = condOf(*state_, parts[i]);
            if (!c) return E_INVALIDARG;
            children.push_back(std::move(c));
        }
        *condition = newCondition(*state_, makeCompositeCond(type, std::move(children)));
        return S_OK;
    }

    HRESULT compositeFromArray(const char* method, Cond::Type type, SAFEARRAY* conditions,
                               IUIAutomationCondition** condition) {
        if (!condition) return E_POINTER;
        *condition = nullptr;
        if (HRESULT hr = injected(method)) return hr;
        if (!isVarType(conditions, VT_UNKNOWN) || SafeArrayGetDim(conditions) != 1) return E_INVALIDARG;
        LONG lo = 0, hi = -1;
        SafeArrayGetLBound(conditions, 1, &lo);
        SafeArrayGetUBound(conditions, 1, &hi);
        if (hi < lo) return E_INVALIDARG;
        std::vector<CondPtr> children;
        for (LONG i = lo; i <= hi; ++i) {
            IUnknown* part = nullptr;
            SafeArrayGetElement(conditions, &i, &part);  // AddRefs
            CondPtr c = part ? condOf(*state_, part) : nullptr;
            if (part) part->Release();
            if (!c) return E_INVALIDARG;
            children.push_back(std::move(c));
        }
        *condition = newCondition(*state_, makeCompositeCond(type, std::move(children)));
        return S_OK;
    }

    HRESULT addPropertyHandler(IUIAutomationElement* element, TreeScope scope, IUIAutomationCacheRequest* cacheRequest,
                               IUIAutomationPropertyChangedEventHandler* handler, std::vector<PROPERTYID> ids) {
        EventHandlerRecord r;
        r.kind = EventHandlerRecord::Kind::PropertyChanged;
        r.eventId = UIA_AutomationPropertyChangedEventId;
        r.scope = scope;
        r.properties = std::move(ids);
        r.withCacheRequest = cacheRequest != nullptr;
        r.automation = serial_;
        return registerHandler(*state_, std::move(r), handler, element);
    }

    int serial_ = 0;
    std::atomic<bool> autoSetFocus_{true};
    std::atomic<DWORD> connectionTimeout_{2000};    // the platform's defaults
    std::atomic<DWORD> transactionTimeout_{20000};
};

}  // namespace

HRESULT createAutomation(State& state, REFIID riid, void** object) {
    auto* automation = new Automation(state);
    HRESULT hr = automation->QueryInterface(riid, object);
    automation->Release();
    return hr;
}

}  // namespace detail
}  // namespace fakeuia
