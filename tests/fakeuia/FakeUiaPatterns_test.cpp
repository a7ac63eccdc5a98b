// Self-test of the control patterns of the simulated UI Automation platform,
// through an automation object made with CoCreateInstance after install().
#include "FakeUia.h"
#include "FakeUiaPatterns.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using fakeuia::kElementNotAvailable;
using fakeuia::Node;

struct Mta {
    Mta() { EXPECT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
    ~Mta() { CoUninitialize(); }
};

template <class T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T* p) : p_(p) {}
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    ~Ref() { reset(); }
    void reset() {
        if (p_) p_->Release();
        p_ = nullptr;
    }
    T** put() {
        reset();
        return &p_;
    }
    void** putVoid() { return reinterpret_cast<void**>(put()); }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }

private:
    T* p_ = nullptr;
};

std::wstring take(BSTR s) {
    std::wstring out = s ? std::wstring(s, SysStringLen(s)) : std::wstring();
    SysFreeString(s);
    return out;
}

std::wstring nameOf(IUIAutomationElement* e) {
    BSTR s = nullptr;
    EXPECT_EQ(S_OK, e->get_CurrentName(&s));
    return take(s);
}

class Patterns : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(S_OK, platform.install());
        ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CUIAutomation8, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                                         automation.putVoid()));
        window = &platform.desktop().add({.controlType = UIA_WindowControlTypeId, .name = L"Main",
                                          .automationId = L"main", .processId = 42, .bounds = {0, 0, 800, 600}});
    }
    void TearDown() override {
        automation.reset();
        EXPECT_EQ(0, platform.outstandingReferences()) << platform.outstandingBreakdown();
        if (!expectUnsupported) {
            EXPECT_TRUE(platform.unsupportedCalls().empty());
        }
    }

    Node& add(const wchar_t* automationId, CONTROLTYPEID type = UIA_CustomControlTypeId, const wchar_t* name = L"",
              Node* parent = nullptr) {
        return (parent ? *parent : *window).add({.controlType = type, .name = name, .automationId = automationId});
    }

    // A new element for the node with that automation id.
    Ref<IUIAutomationElement> element(const wchar_t* automationId) {
        Ref<IUIAutomationElement> root, found;
        Ref<IUIAutomationCondition> cond;
        EXPECT_EQ(S_OK, automation->GetRootElement(root.put()));
        VARIANT v;
        v.vt = VT_BSTR;
        v.bstrVal = SysAllocString(automationId);
        EXPECT_EQ(S_OK, automation->CreatePropertyCondition(UIA_AutomationIdPropertyId, v, cond.put()));
        VariantClear(&v);
        EXPECT_EQ(S_OK, root->FindFirst(TreeScope_Descendants, cond.get(), found.put()));
        EXPECT_TRUE(found);
        return found;
    }

    template <class I>
    Ref<I> pattern(const wchar_t* automationId, PATTERNID id) {
        Ref<IUIAutomationElement> e = element(automationId);
        Ref<I> p;
        if (e) {
            EXPECT_EQ(S_OK, e->GetCurrentPatternAs(id, __uuidof(I), p.putVoid()));
        }
        EXPECT_TRUE(p);
        return p;
    }

    Mta mta;
    fakeuia::Platform platform;
    Ref<IUIAutomation> automation;
    Node* window = nullptr;
    bool expectUnsupported = false;
};

TEST_F(Patterns, EveryOpenGivesANewCountedObject) {
    Node& b = add(L"b", UIA_ButtonControlTypeId);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(b);
    Ref<IUIAutomationElement> e = element(L"b");
    Ref<IUnknown> a, c;
    ASSERT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, a.put()));
    ASSERT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, c.put()));
    ASSERT_TRUE(a && c);
    EXPECT_NE(a.get(), c.get());
    EXPECT_EQ("1 automation, 1 element, 2 pattern", platform.outstandingBreakdown());
    Ref<IUIAutomationInvokePattern> p;
    ASSERT_EQ(S_OK, a->QueryInterface(IID_IUIAutomationInvokePattern, p.putVoid()));
    EXPECT_EQ(S_OK, p->Invoke());
    EXPECT_EQ(1, invoke->invokeCount);
    Ref<IUIAutomationValuePattern> wrong;
    EXPECT_EQ(E_NOINTERFACE, a->QueryInterface(IID_IUIAutomationValuePattern, wrong.putVoid()));

    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(S_OK, e->GetCurrentPropertyValue(UIA_IsInvokePatternAvailablePropertyId, &v));
    EXPECT_EQ(VT_BOOL, v.vt);
    EXPECT_EQ(VARIANT_TRUE, v.boolVal);
    ASSERT_EQ(S_OK, e->GetCurrentPropertyValue(UIA_IsValuePatternAvailablePropertyId, &v));
    EXPECT_EQ(VARIANT_FALSE, v.boolVal);

    invoke->available = false;
    Ref<IUnknown> none;
    EXPECT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, none.put()));
    EXPECT_FALSE(none);
}

TEST_F(Patterns, RangeValueClampsLikeASlider) {
    Node& s = add(L"slider", UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(s, 5.0, 0.0, 10.0);
    range->smallChange = 0.5;
    auto p = pattern<IUIAutomationRangeValuePattern>(L"slider", UIA_RangeValuePatternId);
    double d = -1;
    ASSERT_EQ(S_OK, p->get_CurrentValue(&d));
    EXPECT_EQ(5.0, d);
    ASSERT_EQ(S_OK, p->get_CurrentMaximum(&d));
    EXPECT_EQ(10.0, d);
    ASSERT_EQ(S_OK, p->get_CurrentSmallChange(&d));
    EXPECT_EQ(0.5, d);
    EXPECT_EQ(S_OK, p->SetValue(15));
    ASSERT_EQ(S_OK, p->get_CurrentValue(&d));
    EXPECT_EQ(10.0, d);
    EXPECT_EQ(S_OK, p->SetValue(-3));
    EXPECT_EQ(0.0, range->value);
    EXPECT_EQ(S_OK, p->SetValue(7.5));
    EXPECT_EQ(7.5, range->value);
    EXPECT_EQ(3, range->setValueCalls);
    EXPECT_EQ((std::vector<double>{15, -3, 7.5}), range->setValueArguments);

    range->clamps = false;
    EXPECT_EQ(E_INVALIDARG, p->SetValue(11));
    EXPECT_EQ(7.5, range->value);
    range->readOnly = true;
    EXPECT_EQ(fakeuia::kElementNotEnabled, p->SetValue(1));
    BOOL ro = FALSE;
    ASSERT_EQ(S_OK, p->get_CurrentIsReadOnly(&ro));
    EXPECT_TRUE(ro);
    EXPECT_EQ(fakeuia::kNotCached, p->get_CachedValue(&d));
}

TEST_F(Patterns, ValueReadOnlyRefusesSetValue) {
    Node& edit = add(L"edit", UIA_EditControlTypeId);
    auto value = fakeuia::attach<fakeuia::ValueSource>(edit, L"fixed", true);
    auto p = pattern<IUIAutomationValuePattern>(L"edit", UIA_ValuePatternId);
    BSTR s = SysAllocString(L"new");
    EXPECT_EQ(fakeuia::kElementNotEnabled, p->SetValue(s));
    BSTR got = nullptr;
    ASSERT_EQ(S_OK, p->get_CurrentValue(&got));
    EXPECT_EQ(L"fixed", take(got));
    value->readOnly = false;
    EXPECT_EQ(S_OK, p->SetValue(s));
    SysFreeString(s);
    EXPECT_EQ(L"new", value->value);
    EXPECT_EQ(2, value->setValueCalls);
    BOOL ro = TRUE;
    ASSERT_EQ(S_OK, p->get_CurrentIsReadOnly(&ro));
    EXPECT_FALSE(ro);
    got = nullptr;
    EXPECT_EQ(fakeuia::kNotCached, p->get_CachedValue(&got));
    EXPECT_EQ(nullptr, got);
}

TEST_F(Patterns, ToggleCyclesWithAndWithoutThirdState) {
    Node& two = add(L"two", UIA_CheckBoxControlTypeId);
    Node& three = add(L"three", UIA_CheckBoxControlTypeId);
    auto t2 = fakeuia::attach<fakeuia::ToggleSource>(two);
    auto t3 = fakeuia::attach<fakeuia::ToggleSource>(three, ToggleState_Off, true);
    auto p2 = pattern<IUIAutomationTogglePattern>(L"two", UIA_TogglePatternId);
    auto p3 = pattern<IUIAutomationTogglePattern>(L"three", UIA_TogglePatternId);
    std::vector<ToggleState> seen2, seen3;
    for (int i = 0; i < 3; ++i) {
        ToggleState st = ToggleState_Indeterminate;
        EXPECT_EQ(S_OK, p2->Toggle());
        EXPECT_EQ(S_OK, p2->get_CurrentToggleState(&st));
        seen2.push_back(st);
        EXPECT_EQ(S_OK, p3->Toggle());
        EXPECT_EQ(S_OK, p3->get_CurrentToggleState(&st));
        seen3.push_back(st);
    }
    EXPECT_EQ((std::vector<ToggleState>{ToggleState_On, ToggleState_Off, ToggleState_On}), seen2);
    EXPECT_EQ((std::vector<ToggleState>{ToggleState_On, ToggleState_Indeterminate, ToggleState_Off}), seen3);
    EXPECT_EQ(3, t2->toggleCalls);
    EXPECT_EQ(3, t3->toggleCalls);
}

TEST_F(Patterns, GridGetItemTakesRowThenColumn) {
    Node& grid = add(L"grid", UIA_DataGridControlTypeId);
    std::vector<std::vector<Node*>> cells(2);
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) {
            std::wstring name = L"r" + std::to_wstring(r) + L"c" + std::to_wstring(c);
            cells[static_cast<size_t>(r)].push_back(
                &grid.add({.controlType = UIA_DataItemControlTypeId, .name = name, .automationId = name}));
        }
    auto g = fakeuia::attach<fakeuia::GridSource>(grid, cells);
    EXPECT_EQ(2, g->rowCount);
    EXPECT_EQ(3, g->columnCount);
    auto p = pattern<IUIAutomationGridPattern>(L"grid", UIA_GridPatternId);
    Ref<IUIAutomationElement> cell;
    ASSERT_EQ(S_OK, p->GetItem(1, 2, cell.put()));
    ASSERT_TRUE(cell);
    EXPECT_EQ(L"r1c2", nameOf(cell.get()));
    EXPECT_EQ(E_INVALIDARG, p->GetItem(2, 0, cell.put()));
    EXPECT_FALSE(cell);
    EXPECT_EQ(E_INVALIDARG, p->GetItem(0, 3, cell.put()));
    EXPECT_EQ(E_INVALIDARG, p->GetItem(-1, 0, cell.put()));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{1, 2}, {2, 0}, {0, 3}, {-1, 0}}), g->getItemCalls);
    int n = 0;
    ASSERT_EQ(S_OK, p->get_CurrentColumnCount(&n));
    EXPECT_EQ(3, n);

    auto item = fakeuia::attach<fakeuia::GridItemSource>(*cells[1][2], 1, 2, &grid);
    auto gi = pattern<IUIAutomationGridItemPattern>(L"r1c2", UIA_GridItemPatternId);
    ASSERT_EQ(S_OK, gi->get_CurrentColumn(&n));
    EXPECT_EQ(2, n);
    ASSERT_EQ(S_OK, gi->get_CurrentRowSpan(&n));
    EXPECT_EQ(1, n);
    Ref<IUIAutomationElement> container;
    ASSERT_EQ(S_OK, gi->get_CurrentContainingGrid(container.put()));
    ASSERT_TRUE(container);
    BSTR id = nullptr;
    ASSERT_EQ(S_OK, container->get_CurrentAutomationId(&id));
    EXPECT_EQ(L"grid", take(id));
}

TEST_F(Patterns, TableColumnHeadersKeepARemovedHeader) {
    Node& table = add(L"table", UIA_TableControlTypeId);
    Node& h1 = add(L"h1", UIA_HeaderItemControlTypeId, L"Name", &table);
    Node& h2 = add(L"h2", UIA_HeaderItemControlTypeId, L"Size", &table);
    Node& h3 = add(L"h3", UIA_HeaderItemControlTypeId, L"Date", &table);
    auto t = fakeuia::attach<fakeuia::TableSource>(table);
    t->columnHeaders = {&h1, &h2, &h3};
    t->major = RowOrColumnMajor_ColumnMajor;
    auto p = pattern<IUIAutomationTablePattern>(L"table", UIA_TablePatternId);
    h2.remove();
    Ref<IUIAutomationElementArray> headers;
    ASSERT_EQ(S_OK, p->GetCurrentColumnHeaders(headers.put()));
    int length = 0;
    ASSERT_EQ(S_OK, headers->get_Length(&length));
    ASSERT_EQ(3, length);
    Ref<IUIAutomationElement> e0, e1, e2;
    ASSERT_EQ(S_OK, headers->GetElement(0, e0.put()));
    ASSERT_EQ(S_OK, headers->GetElement(1, e1.put()));
    ASSERT_EQ(S_OK, headers->GetElement(2, e2.put()));
    EXPECT_EQ(L"Name", nameOf(e0.get()));
    EXPECT_EQ(L"Date", nameOf(e2.get()));
    BSTR s = nullptr;
    EXPECT_EQ(kElementNotAvailable, e1->get_CurrentName(&s));
    EXPECT_EQ(nullptr, s);
    RowOrColumnMajor major = RowOrColumnMajor_RowMajor;
    ASSERT_EQ(S_OK, p->get_CurrentRowOrColumnMajor(&major));
    EXPECT_EQ(RowOrColumnMajor_ColumnMajor, major);
    Ref<IUIAutomationElementArray> rows;
    ASSERT_EQ(S_OK, p->GetCurrentRowHeaders(rows.put()));
    ASSERT_EQ(S_OK, rows->get_Length(&length));
    EXPECT_EQ(0, length);

    Node& cell = add(L"cell", UIA_DataItemControlTypeId, L"x", &table);
    auto ti = fakeuia::attach<fakeuia::TableItemSource>(cell);
    ti->columnHeaderItems = {&h3};
    auto pi = pattern<IUIAutomationTableItemPattern>(L"cell", UIA_TableItemPatternId);
    Ref<IUIAutomationElementArray> items;
    ASSERT_EQ(S_OK, pi->GetCurrentColumnHeaderItems(items.put()));
    ASSERT_EQ(S_OK, items->get_Length(&length));
    EXPECT_EQ(1, length);
    EXPECT_EQ(fakeuia::kNotCached, pi->GetCachedRowHeaderItems(items.put()));
    EXPECT_FALSE(items);
}

TEST_F(Patterns, TextDocumentRangeGivesTextAndReadOnly) {
    Node& doc = add(L"doc", UIA_DocumentControlTypeId);
    auto text = fakeuia::attach<fakeuia::TextSource>(doc, L"Hello, world", true);
    auto p = pattern<IUIAutomationTextPattern>(L"doc", UIA_TextPatternId);
    Ref<IUIAutomationTextRange> range;
    ASSERT_EQ(S_OK, p->get_DocumentRange(range.put()));
    ASSERT_TRUE(range);
    EXPECT_EQ("1 automation, 1 pattern, 1 textrange", platform.outstandingBreakdown());
    BSTR s = nullptr;
    ASSERT_EQ(S_OK, range->GetText(-1, &s));
    EXPECT_EQ(L"Hello, world", take(s));
    ASSERT_EQ(S_OK, range->GetText(5, &s));
    EXPECT_EQ(L"Hello", take(s));
    ASSERT_EQ(S_OK, range->GetText(100, &s));
    EXPECT_EQ(L"Hello, world", take(s));
    EXPECT_EQ(3, text->getTextCalls);

    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(S_OK, range->GetAttributeValue(fakeuia::kIsReadOnlyAttributeId, &v));
    EXPECT_EQ(VT_BOOL, v.vt);
    EXPECT_EQ(VARIANT_TRUE, v.boolVal);
    text->readOnly = false;
    ASSERT_EQ(S_OK, range->GetAttributeValue(fakeuia::kIsReadOnlyAttributeId, &v));
    EXPECT_EQ(VARIANT_FALSE, v.boolVal);
    ASSERT_EQ(S_OK, range->GetAttributeValue(fakeuia::kFontNameAttributeId, &v));
    EXPECT_EQ(VT_UNKNOWN, v.vt);
    Ref<IUnknown> notSupported;
    ASSERT_EQ(S_OK, automation->get_ReservedNotSupportedValue(notSupported.put()));
    EXPECT_EQ(notSupported.get(), v.punkVal);
    VariantClear(&v);

    Ref<IUIAutomationElement> enclosing;
    ASSERT_EQ(S_OK, range->GetEnclosingElement(enclosing.put()));
    ASSERT_TRUE(enclosing);
    Ref<IUIAutomationTextRange> clone;
    ASSERT_EQ(S_OK, range->Clone(clone.put()));
    ASSERT_EQ(S_OK, clone->GetText(2, &s));
    EXPECT_EQ(L"He", take(s));

    expectUnsupported = true;
    int moved = 7;
    EXPECT_EQ(E_NOTIMPL, range->Move(TextUnit_Word, 1, &moved));
    EXPECT_EQ(0, moved);
    Ref<IUIAutomationTextRangeArray> ranges;
    EXPECT_EQ(E_NOTIMPL, p->GetSelection(ranges.put()));
    EXPECT_EQ((std::vector<std::string>{"IUIAutomationTextRange::Move", "IUIAutomationTextPattern::GetSelection"}),
              platform.unsupportedCalls());

    doc.remove();
    EXPECT_EQ(kElementNotAvailable, range->GetText(-1, &s));
    EXPECT_EQ(kElementNotAvailable, p->get_DocumentRange(clone.put()));
}

TEST_F(Patterns, LegacyIAccessibleAnswersRoleStateAndDefaultAction) {
    Node& item = add(L"item", UIA_ListItemControlTypeId);
    auto legacy = fakeuia::attach<fakeuia::LegacyIAccessibleSource>(item);
    legacy->childId = 3;
    legacy->role = 0x22;     // ROLE_SYSTEM_LISTITEM
    legacy->state = 0x200002;  // STATE_SYSTEM_SELECTABLE | STATE_SYSTEM_SELECTED
    legacy->name = L"Item 3";
    legacy->defaultAction = L"Double Click";
    legacy->defaultActionResult = S_FALSE;
    auto p = pattern<IUIAutomationLegacyIAccessiblePattern>(L"item", UIA_LegacyIAccessiblePatternId);
    int child = 0;
    ASSERT_EQ(S_OK, p->get_CurrentChildId(&child));
    EXPECT_EQ(3, child);
    DWORD d = 0;
    ASSERT_EQ(S_OK, p->get_CurrentRole(&d));
    EXPECT_EQ(0x22u, d);
    ASSERT_EQ(S_OK, p->get_CurrentState(&d));
    EXPECT_EQ(0x200002u, d);
    BSTR s = nullptr;
    ASSERT_EQ(S_OK, p->get_CurrentName(&s));
    EXPECT_EQ(L"Item 3", take(s));
    ASSERT_EQ(S_OK, p->get_CurrentDefaultAction(&s));
    EXPECT_EQ(L"Double Click", take(s));
    ASSERT_EQ(S_OK, p->get_CurrentHelp(&s));
    EXPECT_EQ(L"", take(s));
    EXPECT_EQ(S_FALSE, p->DoDefaultAction());
    EXPECT_EQ(1, legacy->doDefaultActionCalls);
    EXPECT_EQ(S_OK, p->Select(2));  // SELFLAG_TAKESELECTION
    EXPECT_EQ(std::vector<long>{2}, legacy->selectFlags);
    EXPECT_EQ(S_OK, p->SetValue(L"v"));
    EXPECT_EQ(L"v", legacy->value);
    EXPECT_EQ(fakeuia::kNotCached, p->get_CachedRole(&d));

    expectUnsupported = true;
    IAccessible* acc = nullptr;
    EXPECT_EQ(E_NOTIMPL, p->GetIAccessible(&acc));
    EXPECT_EQ(std::vector<std::string>{"IUIAutomationLegacyIAccessiblePattern::GetIAccessible"},
              platform.unsupportedCalls());
}

TEST_F(Patterns, WindowCloseRemovesTheNode) {
    Node& dlg = add(L"dlg", UIA_WindowControlTypeId);
    auto w = fakeuia::attach<fakeuia::WindowSource>(dlg);
    w->closeRemovesNode = true;
    w->canMaximize = false;
    auto p = pattern<IUIAutomationWindowPattern>(L"dlg", UIA_WindowPatternId);
    Ref<IUIAutomationElement> e = element(L"dlg");
    BOOL idle = FALSE;
    EXPECT_EQ(S_OK, p->WaitForInputIdle(500, &idle));
    EXPECT_TRUE(idle);
    EXPECT_EQ(std::vector<int>{500}, w->waitForInputIdleArguments);
    EXPECT_EQ(fakeuia::kInvalidOperation, p->SetWindowVisualState(WindowVisualState_Maximized));
    EXPECT_EQ(S_OK, p->SetWindowVisualState(WindowVisualState_Minimized));
    WindowVisualState vs = WindowVisualState_Normal;
    ASSERT_EQ(S_OK, p->get_CurrentWindowVisualState(&vs));
    EXPECT_EQ(WindowVisualState_Minimized, vs);
    EXPECT_EQ(S_OK, p->Close());
    EXPECT_EQ(1, w->closeCalls);
    EXPECT_FALSE(dlg.inTree());
    BSTR s = nullptr;
    EXPECT_EQ(kElementNotAvailable, e->get_CurrentName(&s));
    EXPECT_EQ(kElementNotAvailable, p->Close());
    EXPECT_EQ(1, w->closeCalls);
    BOOL b = TRUE;
    EXPECT_EQ(kElementNotAvailable, p->get_CurrentIsModal(&b));
    EXPECT_EQ(fakeuia::poisoned<BOOL>(), b) << "a failing read poisons its output";
}

TEST_F(Patterns, TransformMoveAndResizeUpdateTheBounds) {
    Node& pane = window->add({.controlType = UIA_PaneControlTypeId, .automationId = L"pane", .bounds = {10, 20, 110, 70}});
    auto t = fakeuia::attach<fakeuia::TransformSource>(pane);
    auto p = pattern<IUIAutomationTransformPattern>(L"pane", UIA_TransformPatternId);
    Ref<IUIAutomationElement> e = element(L"pane");
    EXPECT_EQ(S_OK, p->Move(200, 300));
    RECT r{};
    ASSERT_EQ(S_OK, e->get_CurrentBoundingRectangle(&r));
    EXPECT_EQ(200, r.left);
    EXPECT_EQ(300, r.top);
    EXPECT_EQ(300, r.right);
    EXPECT_EQ(350, r.bottom);
    EXPECT_EQ(S_OK, p->Resize(40, 25));
    ASSERT_EQ(S_OK, e->get_CurrentBoundingRectangle(&r));
    EXPECT_EQ(200, r.left);
    EXPECT_EQ(300, r.top);
    EXPECT_EQ(240, r.right);
    EXPECT_EQ(325, r.bottom);
    EXPECT_EQ((std::vector<std::pair<double, double>>{{200, 300}}), t->moveArguments);
    EXPECT_EQ((std::vector<std::pair<double, double>>{{40, 25}}), t->resizeArguments);
    EXPECT_EQ(fakeuia::kInvalidOperation, p->Rotate(90));
    EXPECT_EQ(1, t->rotateCalls);
    t->canMove = false;
    EXPECT_EQ(fakeuia::kInvalidOperation, p->Move(0, 0));
    EXPECT_EQ(200, pane.spec().bounds.left);
}

TEST_F(Patterns, PatternOfARemovedNodeFails) {
    Node& b = add(L"b", UIA_ButtonControlTypeId);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(b);
    auto value = fakeuia::attach<fakeuia::ValueSource>(b, L"x");
    auto pi = pattern<IUIAutomationInvokePattern>(L"b", UIA_InvokePatternId);
    auto pv = pattern<IUIAutomationValuePattern>(L"b", UIA_ValuePatternId);
    b.remove();
    EXPECT_EQ(kElementNotAvailable, pi->Invoke());
    EXPECT_EQ(0, invoke->invokeCount);
    BSTR s = nullptr;
    EXPECT_EQ(kElementNotAvailable, pv->get_CurrentValue(&s));
    EXPECT_EQ(nullptr, s);
    // The pattern objects keep their source alive.
    std::weak_ptr<fakeuia::ValueSource> weak = value;
    value.reset();
    b.detachPattern(UIA_ValuePatternId);
    EXPECT_FALSE(weak.expired());
    pv.reset();
    EXPECT_TRUE(weak.expired());
}

TEST_F(Patterns, FailureInjection) {
    Node& edit = add(L"edit", UIA_EditControlTypeId);
    auto value = fakeuia::attach<fakeuia::ValueSource>(edit, L"abc");
    EXPECT_THROW(value->fail("Invoke", E_FAIL), std::invalid_argument);
    EXPECT_THROW(value->fail("get_CurrentName", E_FAIL), std::invalid_argument);
    value->fail("get_CurrentValue", E_ACCESSDENIED);
    value->fail("SetValue", E_FAIL);
    value->fail("get_CachedIsReadOnly", E_OUTOFMEMORY);
    auto p = pattern<IUIAutomationValuePattern>(L"edit", UIA_ValuePatternId);
    BSTR s = nullptr;
    EXPECT_EQ(E_ACCESSDENIED, p->get_CurrentValue(&s));
    EXPECT_EQ(nullptr, s);
    BSTR nv = SysAllocString(L"new");
    EXPECT_EQ(E_FAIL, p->SetValue(nv));
    EXPECT_EQ(1, value->setValueCalls);
    EXPECT_EQ(L"abc", value->value);
    BOOL b = FALSE;
    EXPECT_EQ(E_OUTOFMEMORY, p->get_CachedIsReadOnly(&b));
    value->clearFailure("SetValue");
    EXPECT_EQ(S_OK, p->SetValue(nv));
    SysFreeString(nv);
    EXPECT_EQ(L"new", value->value);
    value->clearFailures();
    ASSERT_EQ(S_OK, p->get_CurrentValue(&s));
    EXPECT_EQ(L"new", take(s));

    auto grid = fakeuia::attach<fakeuia::GridSource>(edit);
    EXPECT_THROW(grid->fail("GetElement", E_FAIL), std::invalid_argument);
    grid->fail("GetItem", E_FAIL);
    auto pg = pattern<IUIAutomationGridPattern>(L"edit", UIA_GridPatternId);
    Ref<IUIAutomationElement> cell;
    EXPECT_EQ(E_FAIL, pg->GetItem(0, 0, cell.put()));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 0}}), grid->getItemCalls);
}

TEST_F(Patterns, ScrollPercentsAndAmounts) {
    Node& list = add(L"list", UIA_ListControlTypeId);
    auto sc = fakeuia::attach<fakeuia::ScrollSource>(list);
    sc->verticallyScrollable = true;
    sc->verticalPercent = 0;
    sc->verticalViewSize = 25;
    auto p = pattern<IUIAutomationScrollPattern>(L"list", UIA_ScrollPatternId);
    EXPECT_EQ(S_OK, p->SetScrollPercent(fakeuia::kNoScroll, 40));
    double d = 0;
    ASSERT_EQ(S_OK, p->get_CurrentVerticalScrollPercent(&d));
    EXPECT_EQ(40, d);
    ASSERT_EQ(S_OK, p->get_CurrentHorizontalScrollPercent(&d));
    EXPECT_EQ(fakeuia::kNoScroll, d);
    EXPECT_EQ(E_INVALIDARG, p->SetScrollPercent(fakeuia::kNoScroll, 150));
    EXPECT_EQ(E_INVALIDARG, p->SetScrollPercent(-5, 10));
    EXPECT_EQ(fakeuia::kInvalidOperation, p->SetScrollPercent(10, 10));
    EXPECT_EQ(40, sc->verticalPercent);
    EXPECT_EQ(S_OK, p->Scroll(ScrollAmount_NoAmount, ScrollAmount_LargeIncrement));
    EXPECT_EQ(50, sc->verticalPercent);
    EXPECT_EQ(S_OK, p->Scroll(ScrollAmount_NoAmount, ScrollAmount_SmallDecrement));
    EXPECT_EQ(49, sc->verticalPercent);
    EXPECT_EQ(fakeuia::kInvalidOperation, p->Scroll(ScrollAmount_SmallIncrement, ScrollAmount_NoAmount));
    EXPECT_EQ(4, sc->setScrollPercentCalls);
    EXPECT_EQ(3, sc->scrollCalls);
    BOOL b = TRUE;
    ASSERT_EQ(S_OK, p->get_CurrentHorizontallyScrollable(&b));
    EXPECT_FALSE(b);
}

TEST_F(Patterns, ExpandCollapseAndLeafNodes) {
    Node& tree = add(L"node", UIA_TreeItemControlTypeId);
    Node& leaf = add(L"leaf", UIA_TreeItemControlTypeId);
    auto ec = fakeuia::attach<fakeuia::ExpandCollapseSource>(tree);
    auto el = fakeuia::attach<fakeuia::ExpandCollapseSource>(leaf, ExpandCollapseState_LeafNode);
    auto p = pattern<IUIAutomationExpandCollapsePattern>(L"node", UIA_ExpandCollapsePatternId);
    auto pl = pattern<IUIAutomationExpandCollapsePattern>(L"leaf", UIA_ExpandCollapsePatternId);
    EXPECT_EQ(S_OK, p->Expand());
    ExpandCollapseState st = ExpandCollapseState_LeafNode;
    ASSERT_EQ(S_OK, p->get_CurrentExpandCollapseState(&st));
    EXPECT_EQ(ExpandCollapseState_Expanded, st);
    EXPECT_EQ(S_OK, p->Collapse());
    EXPECT_EQ(ExpandCollapseState_Collapsed, ec->state);
    EXPECT_EQ(fakeuia::kInvalidOperation, pl->Expand());
    EXPECT_EQ(fakeuia::kInvalidOperation, pl->Collapse());
    EXPECT_EQ(ExpandCollapseState_LeafNode, el->state);
    EXPECT_EQ(1, ec->expandCalls);
    EXPECT_EQ(1, el->collapseCalls);
}

TEST_F(Patterns, SelectionAndSelectionItems) {
    Node& list = add(L"list", UIA_ListControlTypeId);
    Node& a = add(L"a", UIA_ListItemControlTypeId, L"A", &list);
    Node& b = add(L"b", UIA_ListItemControlTypeId, L"B", &list);
    auto sel = fakeuia::attach<fakeuia::SelectionSource>(list);
    sel->canSelectMultiple = true;
    sel->selection = {&b, &a};
    auto ia = fakeuia::attach<fakeuia::SelectionItemSource>(a, true, &list);
    auto p = pattern<IUIAutomationSelectionPattern>(L"list", UIA_SelectionPatternId);
    Ref<IUIAutomationElementArray> arr;
    ASSERT_EQ(S_OK, p->GetCurrentSelection(arr.put()));
    int n = 0;
    ASSERT_EQ(S_OK, arr->get_Length(&n));
    ASSERT_EQ(2, n);
    Ref<IUIAutomationElement> first;
    ASSERT_EQ(S_OK, arr->GetElement(0, first.put()));
    EXPECT_EQ(L"B", nameOf(first.get()));
    BOOL multi = FALSE;
    ASSERT_EQ(S_OK, p->get_CurrentCanSelectMultiple(&multi));
    EXPECT_TRUE(multi);

    auto pa = pattern<IUIAutomationSelectionItemPattern>(L"a", UIA_SelectionItemPatternId);
    EXPECT_EQ(S_OK, pa->RemoveFromSelection());
    BOOL selected = TRUE;
    ASSERT_EQ(S_OK, pa->get_CurrentIsSelected(&selected));
    EXPECT_FALSE(selected);
    EXPECT_EQ(S_OK, pa->Select());
    EXPECT_EQ(S_OK, pa->AddToSelection());
    EXPECT_TRUE(ia->isSelected);
    EXPECT_EQ(1, ia->selectCalls);
    EXPECT_EQ(1, ia->addToSelectionCalls);
    EXPECT_EQ(1, ia->removeFromSelectionCalls);
    Ref<IUIAutomationElement> container;
    ASSERT_EQ(S_OK, pa->get_CurrentSelectionContainer(container.put()));
    ASSERT_TRUE(container);
    BSTR id = nullptr;
    ASSERT_EQ(S_OK, container->get_CurrentAutomationId(&id));
    EXPECT_EQ(L"list", take(id));
}

TEST_F(Patterns, MultipleViewAndDock) {
    Node& files = add(L"files", UIA_ListControlTypeId);
    auto mv = fakeuia::attach<fakeuia::MultipleViewSource>(files);
    mv->views = {{1, L"Icons"}, {4, L"Details"}};
    mv->currentView = 1;
    auto p = pattern<IUIAutomationMultipleViewPattern>(L"files", UIA_MultipleViewPatternId);
    BSTR s = nullptr;
    ASSERT_EQ(S_OK, p->GetViewName(4, &s));
    EXPECT_EQ(L"Details", take(s));
    EXPECT_EQ(E_INVALIDARG, p->GetViewName(2, &s));
    EXPECT_EQ(S_OK, p->SetCurrentView(4));
    EXPECT_EQ(E_INVALIDARG, p->SetCurrentView(3));
    int v = 0;
    ASSERT_EQ(S_OK, p->get_CurrentCurrentView(&v));
    EXPECT_EQ(4, v);
    SAFEARRAY* sa = nullptr;
    ASSERT_EQ(S_OK, p->GetCurrentSupportedViews(&sa));
    ASSERT_NE(nullptr, sa);
    LONG i = 1, id = 0;
    ASSERT_EQ(S_OK, SafeArrayGetElement(sa, &i, &id));
    EXPECT_EQ(4, id);
    SafeArrayDestroy(sa);
    EXPECT_EQ(2, mv->setCurrentViewCalls);

    Node& bar = add(L"bar", UIA_ToolBarControlTypeId);
    auto dock = fakeuia::attach<fakeuia::DockSource>(bar);
    auto pd = pattern<IUIAutomationDockPattern>(L"bar", UIA_DockPatternId);
    EXPECT_EQ(S_OK, pd->SetDockPosition(DockPosition_Left));
    DockPosition pos = DockPosition_None;
    ASSERT_EQ(S_OK, pd->get_CurrentDockPosition(&pos));
    EXPECT_EQ(DockPosition_Left, pos);
    EXPECT_EQ(1, dock->setDockPositionCalls);
}

TEST_F(Patterns, ItemsAndInputCounters) {
    Node& list = add(L"list", UIA_ListControlTypeId);
    Node& a = add(L"a", UIA_ListItemControlTypeId, L"Alpha", &list);
    Node& b = add(L"b", UIA_ListItemControlTypeId, L"Beta", &list);
    auto ic = fakeuia::attach<fakeuia::ItemContainerSource>(list);
    ic->items = {&a, &b};
    auto si = fakeuia::attach<fakeuia::ScrollItemSource>(b);
    auto vi = fakeuia::attach<fakeuia::VirtualizedItemSource>(b);
    auto sy = fakeuia::attach<fakeuia::SynchronizedInputSource>(b);

    auto pc = pattern<IUIAutomationItemContainerPattern>(L"list", UIA_ItemContainerPatternId);
    VARIANT v;
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(L"Beta");
    Ref<IUIAutomationElement> found;
    ASSERT_EQ(S_OK, pc->FindItemByProperty(nullptr, UIA_NamePropertyId, v, found.put()));
    ASSERT_TRUE(found);
    EXPECT_EQ(L"Beta", nameOf(found.get()));
    Ref<IUIAutomationElement> after;
    EXPECT_EQ(S_OK, pc->FindItemByProperty(found.get(), UIA_NamePropertyId, v, after.put()));
    EXPECT_FALSE(after);
    VariantClear(&v);
    VARIANT none;
    VariantInit(&none);
    ASSERT_EQ(S_OK, pc->FindItemByProperty(nullptr, 0, none, found.put()));
    EXPECT_EQ(L"Alpha", nameOf(found.get()));
    EXPECT_EQ(3, ic->findItemByPropertyCalls);

    auto ps = pattern<IUIAutomationScrollItemPattern>(L"b", UIA_ScrollItemPatternId);
    auto pv = pattern<IUIAutomationVirtualizedItemPattern>(L"b", UIA_VirtualizedItemPatternId);
    auto py = pattern<IUIAutomationSynchronizedInputPattern>(L"b", UIA_SynchronizedInputPatternId);
    EXPECT_EQ(S_OK, ps->ScrollIntoView());
    EXPECT_EQ(S_OK, pv->Realize());
    EXPECT_EQ(S_OK, py->StartListening(SynchronizedInputType_LeftMouseDown));
    EXPECT_EQ(S_OK, py->Cancel());
    EXPECT_EQ(1, si->scrollIntoViewCalls);
    EXPECT_EQ(1, vi->realizeCalls);
    EXPECT_EQ(1, sy->startListeningCalls);
    EXPECT_EQ(std::vector<SynchronizedInputType>{SynchronizedInputType_LeftMouseDown}, sy->startListeningArguments);
    EXPECT_EQ(1, sy->cancelCalls);
}

TEST_F(Patterns, ActionsFromSeveralThreadsAreAllCounted) {
    Node& b = add(L"b", UIA_ButtonControlTypeId);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(b);
    auto p = pattern<IUIAutomationInvokePattern>(L"b", UIA_InvokePatternId);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            for (int i = 0; i < 250; ++i) p->Invoke();
            CoUninitialize();
        });
    for (auto& t : threads) t.join();
    std::lock_guard<std::mutex> lock(invoke->mu);
    EXPECT_EQ(1000, invoke->invokeCount);
}

}  // namespace
