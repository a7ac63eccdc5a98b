// Property values of nodes, identifier names and the reserved values.
#include "FakeUiaInternal.h"

namespace fakeuia {
namespace detail {

const wchar_t* propertyName(PROPERTYID id) {
    for (size_t i = 0; i < kPropertyNameCount; ++i)
        if (kPropertyNames[i].id == id) return kPropertyNames[i].name;
    return nullptr;
}

const wchar_t* patternName(PATTERNID id) {
    for (size_t i = 0; i < kPatternNameCount; ++i)
        if (kPatternNames[i].id == id) return kPatternNames[i].name;
    return nullptr;
}

std::wstring localizedControlTypeName(CONTROLTYPEID id) {
    // The English names the platform gives, in control type id order from 50000.
    static const wchar_t* const names[] = {
        L"button", L"calendar", L"check box", L"combo box", L"edit", L"link", L"image", L"list item",
        L"list", L"menu", L"menu bar", L"menu item", L"progress bar", L"radio button", L"scroll bar",
        L"slider", L"spinner", L"status bar", L"tab", L"tab item", L"text", L"tool bar", L"tool tip",
        L"tree", L"tree item", L"custom", L"group", L"thumb", L"data grid", L"data item", L"document",
        L"split button", L"window", L"pane", L"header", L"header item", L"table", L"title bar",
        L"separator", L"semantic zoom", L"app bar",
    };
    int i = id - UIA_ButtonControlTypeId;
    if (i >= 0 && i < static_cast<int>(sizeof(names) / sizeof(names[0]))) return names[i];
    return L"";
}

namespace {

int patternOfAvailability(PROPERTYID id) {
    for (size_t i = 0; i < kPatternAvailabilityCount; ++i)
        if (kPatternAvailability[i].second == id) return kPatternAvailability[i].first;
    return 0;
}

VARIANT bstrVariant(const std::wstring& s) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocStringLen(s.data(), static_cast<UINT>(s.size()));
    return v;
}

VARIANT i4Variant(int value) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_I4;
    v.lVal = value;
    return v;
}

VARIANT boolVariant(bool value) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_BOOL;
    v.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    return v;
}

std::vector<Node*> liveNodes(const std::vector<Node*>& nodes) {
    std::vector<Node*> out;
    for (Node* n : nodes)
        if (n && D(n).alive) out.push_back(n);
    return out;
}

// The process-wide reserved values: like the platform's, their AddRef and
// Release do nothing, and they are told apart by identity only.
class Reserved final : public IUnknown {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown)) {
            *object = static_cast<IUnknown*>(this);
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

Reserved gNotSupported;
Reserved gMixedAttribute;

}  // namespace

IUnknown* reservedNotSupportedValue() { return &gNotSupported; }
IUnknown* reservedMixedAttributeValue() { return &gMixedAttribute; }

PropertyType modeledType(PROPERTYID id) {
    switch (id) {
    case UIA_ProcessIdPropertyId:
    case UIA_ControlTypePropertyId:
    case UIA_CulturePropertyId:
    case UIA_NativeWindowHandlePropertyId:
    case UIA_OrientationPropertyId:
    case UIA_LevelPropertyId:
        return PropertyType::I4;
    case UIA_LocalizedControlTypePropertyId:
    case UIA_NamePropertyId:
    case UIA_AcceleratorKeyPropertyId:
    case UIA_AccessKeyPropertyId:
    case UIA_AutomationIdPropertyId:
    case UIA_ClassNamePropertyId:
    case UIA_HelpTextPropertyId:
    case UIA_ItemTypePropertyId:
    case UIA_FrameworkIdPropertyId:
    case UIA_ItemStatusPropertyId:
    case UIA_AriaRolePropertyId:
    case UIA_AriaPropertiesPropertyId:
    case UIA_ProviderDescriptionPropertyId:
    case UIA_FullDescriptionPropertyId:
        return PropertyType::Bstr;
    case UIA_HasKeyboardFocusPropertyId:
    case UIA_IsKeyboardFocusablePropertyId:
    case UIA_IsEnabledPropertyId:
    case UIA_IsControlElementPropertyId:
    case UIA_IsContentElementPropertyId:
    case UIA_IsPasswordPropertyId:
    case UIA_IsOffscreenPropertyId:
    case UIA_IsRequiredForFormPropertyId:
    case UIA_IsDataValidForFormPropertyId:
        return PropertyType::Bool;
    case UIA_RuntimeIdPropertyId:
        return PropertyType::I4Array;
    case UIA_BoundingRectanglePropertyId:
    case UIA_ClickablePointPropertyId:
        return PropertyType::R8Array;
    case UIA_LabeledByPropertyId:
        return PropertyType::Element;
    case UIA_ControllerForPropertyId:
    case UIA_DescribedByPropertyId:
    case UIA_FlowsToPropertyId:
        return PropertyType::ElementArray;
    default:
        return patternOfAvailability(id) ? PropertyType::Bool : PropertyType::Unmodeled;
    }
}

RECT boundsOf(Node* node) { return D(node).spec.bounds; }

bool clickablePointLocked(Node* node, POINT* pt) {
    const NodeSpec& s = D(node).spec;
    const RECT& r = s.bounds;
    if (s.isOffscreen || r.right <= r.left || r.bottom <= r.top) {
        *pt = POINT{0, 0};
        return false;
    }
    *pt = POINT{r.left + (r.right - r.left) / 2, r.top + (r.bottom - r.top) / 2};
    return true;
}

SAFEARRAY* intSafeArray(const std::vector<int>& values) {
    SAFEARRAY* sa = SafeArrayCreateVector(VT_I4, 0, static_cast<ULONG>(values.size()));
    if (!sa) return nullptr;
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i) {
        LONG v = values[static_cast<size_t>(i)];
        SafeArrayPutElement(sa, &i, &v);
    }
    return sa;
}

SAFEARRAY* doubleSafeArray(const std::vector<double>& values) {
    SAFEARRAY* sa = SafeArrayCreateVector(VT_R8, 0, static_cast<ULONG>(values.size()));
    if (!sa) return nullptr;
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i) {
        double v = values[static_cast<size_t>(i)];
        SafeArrayPutElement(sa, &i, &v);
    }
    return sa;
}

void readPropertyLocked(State& state, Node* node, PROPERTYID id, VARIANT* out) {
    VariantInit(out);
    const NodeData& d = D(node);
    const NodeSpec& s = d.spec;
    switch (id) {
    case UIA_RuntimeIdPropertyId:
        if (!s.runtimeId->empty()) {
            out->vt = VT_I4 | VT_ARRAY;
            out->parray = intSafeArray(*s.runtimeId);
        }
        return;
    case UIA_BoundingRectanglePropertyId: {
        const RECT& r = s.bounds;
        out->vt = VT_R8 | VT_ARRAY;
        out->parray = doubleSafeArray({double(r.left), double(r.top), double(r.right - r.left), double(r.bottom - r.top)});
        return;
    }
    case UIA_ClickablePointPropertyId: {
        POINT pt;
        if (clickablePointLocked(node, &pt)) {
            out->vt = VT_R8 | VT_ARRAY;
            out->parray = doubleSafeArray({double(pt.x), double(pt.y)});
        }
        return;
    }
    case UIA_ProcessIdPropertyId: *out = i4Variant(s.processId); return;
    case UIA_ControlTypePropertyId: *out = i4Variant(s.controlType); return;
    case UIA_CulturePropertyId: *out = i4Variant(s.culture); return;
    case UIA_NativeWindowHandlePropertyId:
        // The platform hands window handles out as 32-bit numbers.
        *out = i4Variant(static_cast<int>(reinterpret_cast<std::intptr_t>(s.nativeWindowHandle)));
        return;
    case UIA_OrientationPropertyId: *out = i4Variant(s.orientation); return;
    case UIA_LevelPropertyId: *out = i4Variant(s.level); return;
    case UIA_LocalizedControlTypePropertyId:
        *out = bstrVariant(s.localizedControlType ? *s.localizedControlType : localizedControlTypeName(s.controlType));
        return;
    case UIA_NamePropertyId: *out = bstrVariant(s.name); return;
    case UIA_AcceleratorKeyPropertyId: *out = bstrVariant(s.acceleratorKey); return;
    case UIA_AccessKeyPropertyId: *out = bstrVariant(s.accessKey); return;
    case UIA_AutomationIdPropertyId: *out = bstrVariant(s.automationId); return;
    case UIA_ClassNamePropertyId: *out = bstrVariant(s.className); return;
    case UIA_HelpTextPropertyId: *out = bstrVariant(s.helpText); return;
    case UIA_ItemTypePropertyId: *out = bstrVariant(s.itemType); return;
    case UIA_FrameworkIdPropertyId: *out = bstrVariant(s.frameworkId); return;
    case UIA_ItemStatusPropertyId: *out = bstrVariant(s.itemStatus); return;
    case UIA_AriaRolePropertyId: *out = bstrVariant(s.ariaRole); return;
    case UIA_AriaPropertiesPropertyId: *out = bstrVariant(s.ariaProperties); return;
    case UIA_ProviderDescriptionPropertyId: *out = bstrVariant(s.providerDescription); return;
    case UIA_FullDescriptionPropertyId: *out = bstrVariant(s.fullDescription); return;
    case UIA_HasKeyboardFocusPropertyId: *out = boolVariant(s.hasKeyboardFocus); return;
    case UIA_IsKeyboardFocusablePropertyId: *out = boolVariant(s.isKeyboardFocusable); return;
    case UIA_IsEnabledPropertyId: *out = boolVariant(s.isEnabled); return;
    case UIA_IsControlElementPropertyId: *out = boolVariant(s.isControlElement); return;
    case UIA_IsContentElementPropertyId: *out = boolVariant(s.isContentElement); return;
    case UIA_IsPasswordPropertyId: *out = boolVariant(s.isPassword); return;
    case UIA_IsOffscreenPropertyId: *out = boolVariant(s.isOffscreen); return;
    case UIA_IsRequiredForFormPropertyId: *out = boolVariant(s.isRequiredForForm); return;
    case UIA_IsDataValidForFormPropertyId: *out = boolVariant(s.isDataValidForForm); return;
    case UIA_LabeledByPropertyId:
        if (d.labeledBy && D(d.labeledBy).alive) {
            out->vt = VT_UNKNOWN;
            out->punkVal = newElement(state, d.labeledBy);
        }
        return;
    case UIA_ControllerForPropertyId:
    case UIA_DescribedByPropertyId:
    case UIA_FlowsToPropertyId: {
        const std::vector<Node*>& rel = id == UIA_ControllerForPropertyId ? d.controllerFor
                                        : id == UIA_DescribedByPropertyId ? d.describedBy
                                                                          : d.flowsTo;
        out->vt = VT_UNKNOWN;
        out->punkVal = newElementArray(state, liveNodes(rel));
        return;
    }
    default:
        break;
    }
    if (int pattern = patternOfAvailability(id)) {
        *out = boolVariant(d.patterns.count(pattern) != 0);
        return;
    }
}

}  // namespace detail
}  // namespace fakeuia
