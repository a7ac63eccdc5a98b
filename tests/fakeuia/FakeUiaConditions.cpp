// Conditions: their COM objects (immutable wrappers around a shared Cond tree)
// and their evaluation against nodes.
#include "FakeUiaInternal.h"

#include <algorithm>
#include <cwctype>

namespace fakeuia {
namespace detail {

namespace {

// Private interface id: answered only by the simulation's own condition objects.
const IID IID_SimulatedCondition = {0x6c1e4d2a, 0x93b7, 0x4f21, {0xa5, 0x0c, 0x3e, 0x8b, 0x71, 0x2d, 0x44, 0x19}};

class ConditionObject : public Counted {
public:
    ConditionObject(State& state, CondPtr cond) : Counted(state, kCondition), cond_(std::move(cond)) {}
    const CondPtr& cond() const { return cond_; }
    State* owner() const { return state_.get(); }
    ULONG releaseSelf() { return release(); }

protected:
    CondPtr cond_;
};

template <class Iface>
class ConditionBase : public Iface, public ConditionObject {
public:
    using ConditionObject::ConditionObject;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomationCondition) ||
            IsEqualIID(riid, __uuidof(Iface))) {
            *object = static_cast<Iface*>(this);
        } else if (IsEqualIID(riid, IID_SimulatedCondition)) {
            *object = static_cast<ConditionObject*>(this);
        } else {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        addRef();
        return S_OK;
    }
    FAKEUIA_COUNTED_REFS
};

class BoolCondition final : public ConditionBase<IUIAutomationBoolCondition> {
public:
    using ConditionBase::ConditionBase;
    HRESULT STDMETHODCALLTYPE get_BooleanValue(BOOL* value) override {
        if (!value) return E_POINTER;
        *value = cond_->type == Cond::True ? TRUE : FALSE;
        return S_OK;
    }
};

class PropertyCondition final : public ConditionBase<IUIAutomationPropertyCondition> {
public:
    using ConditionBase::ConditionBase;
    HRESULT STDMETHODCALLTYPE get_PropertyId(PROPERTYID* id) override {
        if (!id) return E_POINTER;
        *id = cond_->property;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_PropertyValue(VARIANT* value) override {
        if (!value) return E_POINTER;
        VariantInit(value);
        return VariantCopy(value, const_cast<VARIANT*>(&cond_->value));
    }
    HRESULT STDMETHODCALLTYPE get_PropertyConditionFlags(PropertyConditionFlags* flags) override {
        if (!flags) return E_POINTER;
        *flags = cond_->flags;
        return S_OK;
    }
};

HRESULT childrenNative(State& state, const Cond& cond, IUIAutomationCondition*** array, int* count) {
    if (!array || !count) return E_POINTER;
    *array = nullptr;
    *count = 0;
    size_t n = cond.children.size();
    auto* out = static_cast<IUIAutomationCondition**>(CoTaskMemAlloc(sizeof(IUIAutomationCondition*) * (n ? n : 1)));
    if (!out) return E_OUTOFMEMORY;
    for (size_t i = 0; i < n; ++i) out[i] = newCondition(state, cond.children[i]);
    *array = out;
    *count = static_cast<int>(n);
    return S_OK;
}

HRESULT childrenSafeArray(State& state, const Cond& cond, SAFEARRAY** array) {
    if (!array) return E_POINTER;
    *array = nullptr;
    SAFEARRAY* sa = SafeArrayCreateVector(VT_UNKNOWN, 0, static_cast<ULONG>(cond.children.size()));
    if (!sa) return E_OUTOFMEMORY;
    for (LONG i = 0; i < static_cast<LONG>(cond.children.size()); ++i) {
        IUIAutomationCondition* c = newCondition(state, cond.children[static_cast<size_t>(i)]);
        SafeArrayPutElement(sa, &i, c);  // AddRefs
        c->Release();
    }
    *array = sa;
    return S_OK;
}

template <class Iface>
class CompositeCondition final : public ConditionBase<Iface> {
public:
    using ConditionBase<Iface>::ConditionBase;
    HRESULT STDMETHODCALLTYPE get_ChildCount(int* count) override {
        if (!count) return E_POINTER;
        *count = static_cast<int>(this->cond_->children.size());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetChildrenAsNativeArray(IUIAutomationCondition*** array, int* count) override {
        return childrenNative(*this->state_, *this->cond_, array, count);
    }
    HRESULT STDMETHODCALLTYPE GetChildren(SAFEARRAY** array) override {
        return childrenSafeArray(*this->state_, *this->cond_, array);
    }
};

class NotCondition final : public ConditionBase<IUIAutomationNotCondition> {
public:
    using ConditionBase::ConditionBase;
    HRESULT STDMETHODCALLTYPE GetChild(IUIAutomationCondition** child) override {
        if (!child) return E_POINTER;
        *child = newCondition(*state_, cond_->children.at(0));
        return S_OK;
    }
};

CondPtr boolPropertyCond(PROPERTYID id, bool value) {
    auto c = std::make_shared<Cond>();
    c->type = Cond::Property;
    c->property = id;
    c->value.vt = VT_BOOL;
    c->value.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    return c;
}

std::wstring lower(const wchar_t* s, UINT n) {
    std::wstring out(s ? s : L"", s ? n : 0);
    for (auto& ch : out) ch = static_cast<wchar_t>(std::towlower(ch));
    return out;
}

bool stringsMatch(BSTR have, BSTR want, int flags) {
    UINT hn = have ? SysStringLen(have) : 0, wn = want ? SysStringLen(want) : 0;
    std::wstring h = (flags & PropertyConditionFlags_IgnoreCase) ? lower(have, hn) : std::wstring(have ? have : L"", hn);
    std::wstring w = (flags & PropertyConditionFlags_IgnoreCase) ? lower(want, wn) : std::wstring(want ? want : L"", wn);
    if (flags & kMatchSubstring) return h.find(w) != std::wstring::npos;
    return h == w;
}

std::vector<LONG> intsOf(SAFEARRAY* sa) {
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

bool valuesMatch(const VARIANT& have, const VARIANT& want, int flags) {
    if (have.vt != want.vt) return false;
    switch (want.vt) {
    case VT_I4: return have.lVal == want.lVal;
    case VT_BOOL: return (have.boolVal != VARIANT_FALSE) == (want.boolVal != VARIANT_FALSE);
    case VT_BSTR: return stringsMatch(have.bstrVal, want.bstrVal, flags);
    case VT_I4 | VT_ARRAY: return intsOf(have.parray) == intsOf(want.parray);
    default: return false;
    }
}

}  // namespace

CondPtr trueCond() {
    static const CondPtr c = [] {
        auto t = std::make_shared<Cond>();
        t->type = Cond::True;
        return t;
    }();
    return c;
}

CondPtr falseCond() {
    static const CondPtr c = [] {
        auto f = std::make_shared<Cond>();
        f->type = Cond::False;
        return f;
    }();
    return c;
}

CondPtr controlViewCond() {
    static const CondPtr c = makeCompositeCond(Cond::Not, {boolPropertyCond(UIA_IsControlElementPropertyId, false)});
    return c;
}

CondPtr contentViewCond() {
    static const CondPtr c = makeCompositeCond(
        Cond::Not, {makeCompositeCond(Cond::Or, {boolPropertyCond(UIA_IsControlElementPropertyId, false),
                                                 boolPropertyCond(UIA_IsContentElementPropertyId, false)})});
    return c;
}

HRESULT makePropertyCond(State& state, PROPERTYID property, const VARIANT& value, int flags, CondPtr* out) {
    *out = nullptr;
    if (flags & ~(PropertyConditionFlags_IgnoreCase | kMatchSubstring)) return E_INVALIDARG;
    VARTYPE want = VT_EMPTY;
    switch (modeledType(property)) {
    case PropertyType::I4: want = VT_I4; break;
    case PropertyType::Bstr: want = VT_BSTR; break;
    case PropertyType::Bool: want = VT_BOOL; break;
    case PropertyType::I4Array: want = VT_I4 | VT_ARRAY; break;
    default: {
        std::string what = "IUIAutomation::CreatePropertyCondition(";
        if (const wchar_t* name = propertyName(property)) {
            for (const wchar_t* p = name; *p; ++p) what += static_cast<char>(*p);
        } else {
            what += std::to_string(property);
        }
        return state.unsupportedCall((what + ")").c_str());
    }
    }
    if (value.vt != want) return E_INVALIDARG;
    auto c = std::make_shared<Cond>();
    c->type = Cond::Property;
    c->property = property;
    c->flags = static_cast<PropertyConditionFlags>(flags);
    HRESULT hr = VariantCopy(&c->value, const_cast<VARIANT*>(&value));
    if (FAILED(hr)) return hr;
    *out = c;
    return S_OK;
}

CondPtr makeCompositeCond(Cond::Type type, std::vector<CondPtr> children) {
    auto c = std::make_shared<Cond>();
    c->type = type;
    c->children = std::move(children);
    return c;
}

IUIAutomationCondition* newCondition(State& state, CondPtr cond) {
    switch (cond->type) {
    case Cond::True:
    case Cond::False: return new BoolCondition(state, std::move(cond));
    case Cond::Property: return new PropertyCondition(state, std::move(cond));
    case Cond::And: return new CompositeCondition<IUIAutomationAndCondition>(state, std::move(cond));
    case Cond::Or: return new CompositeCondition<IUIAutomationOrCondition>(state, std::move(cond));
    case Cond::Not: return new NotCondition(state, std::move(cond));
    }
    return nullptr;
}

CondPtr condOf(State& state, IUnknown* condition) {
    if (!condition) return nullptr;
    void* raw = nullptr;
    if (FAILED(condition->QueryInterface(IID_SimulatedCondition, &raw)) || !raw) return nullptr;
    auto* obj = static_cast<ConditionObject*>(raw);
    CondPtr cond = obj->owner() == &state ? obj->cond() : nullptr;
    obj->releaseSelf();
    return cond;
}

bool matchesLocked(State& state, const Cond& cond, Node* node) {
    switch (cond.type) {
    case Cond::True: return true;
    case Cond::False: return false;
    case Cond::Not: return !matchesLocked(state, *cond.children.at(0), node);
    case Cond::And:
        return std::all_of(cond.children.begin(), cond.children.end(),
                           [&](const CondPtr& c) { return matchesLocked(state, *c, node); });
    case Cond::Or:
        return std::any_of(cond.children.begin(), cond.children.end(),
                           [&](const CondPtr& c) { return matchesLocked(state, *c, node); });
    case Cond::Property: {
        VARIANT have;
        readPropertyLocked(state, node, cond.property, &have);
        bool same = valuesMatch(have, cond.value, cond.flags);
        VariantClear(&have);
        return same;
    }
    }
    return false;
}

}  // namespace detail
}  // namespace fakeuia
