// Self-test of the simulated UI Automation platform where the driver's own
// tests can't see it: the platform's unkind parts that the driver relies on
// (fresh objects per read, stale elements, the errors and undefined outputs
// of failing calls, nothing cached, the control view of FindAll, popups under
// the desktop, events on threads of the platform's own) and the counting the
// driver tests' teardown leans on. The automation object is made on another
// thread in the MTA, as the driver makes it.
#define __WRL_CLASSIC_COM__
#include "FakeUia.h"
#include "FakeUiaPatterns.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using fakeuia::kElementNotAvailable;
using fakeuia::Node;
using Microsoft::WRL::ComPtr;
using Element = ComPtr<IUIAutomationElement>;

struct Mta {
    Mta() { EXPECT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
    ~Mta() { CoUninitialize(); }
};

std::wstring take(BSTR s) {
    std::wstring out = s ? std::wstring(s, SysStringLen(s)) : std::wstring();
    SysFreeString(s);
    return out;
}

// The element's name, or "(none)" for no element.
std::wstring nameOf(IUIAutomationElement* e) {
    BSTR s = nullptr;
    if (!e) return L"(none)";
    EXPECT_EQ(S_OK, e->get_CurrentName(&s));
    return take(s);
}

VARIANT variant(const wchar_t* text, int number = 0) {
    VARIANT v;
    v.vt = text ? VT_BSTR : VT_I4;
    if (text) {
        v.bstrVal = SysAllocString(text);
    } else {
        v.lVal = number;
    }
    return v;
}

// desktop
//   Main (window, pid 4711, hwnd 0x1234)
//     OK (button), Cancel (button)
//     Panel (pane, not a control element)
//       Inner (edit)
//   Other (window, pid 99)
// Tests of patterns add their nodes under Main.
class FakeUia : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(S_OK, platform.install());
        Node& desktop = platform.desktop();
        main = &desktop.add({.controlType = UIA_WindowControlTypeId, .name = L"Main", .processId = 4711,
                             .bounds = {0, 0, 800, 600}, .nativeWindowHandle = fakeuia::hwnd(0x1234)});
        ok = &main->add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {10, 10, 110, 40}});
        cancel = &main->add({.controlType = UIA_ButtonControlTypeId, .name = L"Cancel", .bounds = {120, 10, 220, 40}});
        panel = &main->add({.controlType = UIA_PaneControlTypeId, .name = L"Panel", .bounds = {0, 100, 800, 600},
                            .isControlElement = false});
        inner = &panel->add({.controlType = UIA_EditControlTypeId, .name = L"Inner", .bounds = {10, 110, 300, 140}});
        other = &desktop.add({.controlType = UIA_WindowControlTypeId, .name = L"Other", .processId = 99,
                              .bounds = {900, 0, 1200, 300}});
        HRESULT hr = E_UNEXPECTED;
        std::thread([&] {
            EXPECT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
            hr = CoCreateInstance(CLSID_CUIAutomation8, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation, &automation);
            CoUninitialize();
        }).join();
        ASSERT_EQ(S_OK, hr);
        ASSERT_EQ(S_OK, automation->get_RawViewWalker(&raw));
    }
    void TearDown() override {
        raw.Reset();
        automation.Reset();
        EXPECT_EQ(0, platform.outstandingReferences()) << platform.outstandingBreakdown();
        EXPECT_EQ(expectedUnsupported, platform.unsupportedCalls());
    }

    Element root() {
        Element r;
        EXPECT_EQ(S_OK, automation->GetRootElement(&r));
        return r;
    }
    // A new element of the node of that name in the control view, or none.
    Element find(const wchar_t* name) {
        if (std::wstring(name) == L"Desktop") return root();
        ComPtr<IUIAutomationCondition> cond;
        VARIANT v = variant(name);
        EXPECT_EQ(S_OK, automation->CreatePropertyCondition(UIA_NamePropertyId, v, &cond));
        VariantClear(&v);
        Element found;
        EXPECT_EQ(S_OK, root()->FindFirst(TreeScope_Descendants, cond.Get(), &found));
        return found;
    }
    Node& add(const wchar_t* name, CONTROLTYPEID type, Node* parent = nullptr) {
        return (parent ? parent : main)->add({.controlType = type, .name = name});
    }
    template <class I>
    ComPtr<I> pattern(const wchar_t* name, PATTERNID id) {
        ComPtr<I> p;
        Element e = find(name);
        if (e) {
            EXPECT_EQ(S_OK, e->GetCurrentPatternAs(id, __uuidof(I), &p));
        }
        EXPECT_TRUE(p) << "no pattern " << id << " on " << name;
        return p;
    }

    Mta mta;
    fakeuia::Platform platform;
    Node *main = nullptr, *ok = nullptr, *cancel = nullptr, *panel = nullptr, *inner = nullptr, *other = nullptr;
    ComPtr<IUIAutomation> automation;
    ComPtr<IUIAutomationTreeWalker> raw;
    std::vector<std::string> expectedUnsupported;
};

}  // namespace

// Two reads of one node are two objects that only CompareElements finds
// alike, and every object is counted until it is released.
TEST_F(FakeUia, EveryReadHandsOutANewCountedObject) {
    Element r1 = root(), r2 = root(), parent;
    EXPECT_NE(r1.Get(), r2.Get());
    BOOL same = FALSE;
    EXPECT_EQ(S_OK, automation->CompareElements(r1.Get(), r2.Get(), &same));
    EXPECT_TRUE(same);
    EXPECT_EQ("1 automation, 2 element, 1 walker", platform.outstandingBreakdown());
    EXPECT_EQ(L"Desktop", nameOf(r1.Get()));
    CONTROLTYPEID type = 0;
    EXPECT_EQ(S_OK, r1->get_CurrentControlType(&type));
    EXPECT_EQ(UIA_PaneControlTypeId, type);
    SAFEARRAY* id = nullptr;
    ASSERT_EQ(S_OK, r1->GetRuntimeId(&id));
    LONG* parts = nullptr;
    ASSERT_EQ(2u, id->rgsabound[0].cElements);
    SafeArrayAccessData(id, reinterpret_cast<void**>(&parts));
    EXPECT_EQ((std::vector<LONG>{0x2a, 0x10010}), std::vector<LONG>(parts, parts + 2));
    SafeArrayUnaccessData(id);
    SafeArrayDestroy(id);
    EXPECT_EQ(S_OK, raw->GetParentElement(r1.Get(), &parent));
    EXPECT_FALSE(parent) << "the desktop has no parent";
    r1.Reset();
    EXPECT_EQ("1 automation, 1 element, 1 walker", platform.outstandingBreakdown());

    cancel->update([](fakeuia::NodeSpec& s) { s.runtimeId = std::vector<int>{}; });
    id = reinterpret_cast<SAFEARRAY*>(1);
    EXPECT_EQ(S_OK, find(L"Cancel")->GetRuntimeId(&id));
    EXPECT_EQ(nullptr, id) << "a node without a runtime id";
}

// FindAll walks the control view: the panel, no control element, is left
// out and its children stand in its place. Conditions compare exactly.
TEST_F(FakeUia, FindAllSearchesTheControlViewInDocumentOrder) {
    using Names = std::vector<std::wstring>;
    const struct {
        const char* name;
        TreeScope scope;
        PROPERTYID property;  // 0: the true condition
        const wchar_t* text;  // else the number
        int number;
        Names expected;
    } rows[] = {
        {"subtree holds the root", TreeScope_Subtree, 0, nullptr, 0,
         {L"Desktop", L"Main", L"OK", L"Cancel", L"Inner", L"Other"}},
        {"children", TreeScope_Children, 0, nullptr, 0, {L"Main", L"Other"}},
        {"descendants", TreeScope_Descendants, 0, nullptr, 0, {L"Main", L"OK", L"Cancel", L"Inner", L"Other"}},
        {"element", TreeScope_Element, 0, nullptr, 0, {L"Desktop"}},
        {"name", TreeScope_Subtree, UIA_NamePropertyId, L"Cancel", 0, {L"Cancel"}},
        {"name in another case", TreeScope_Subtree, UIA_NamePropertyId, L"cancel", 0, {}},
        {"control type", TreeScope_Subtree, UIA_ControlTypePropertyId, nullptr, UIA_ButtonControlTypeId,
         {L"OK", L"Cancel"}},
        {"process id, taken from the parent", TreeScope_Descendants, UIA_ProcessIdPropertyId, nullptr, 4711,
         {L"Main", L"OK", L"Cancel", L"Inner"}},
    };
    Element desktop = root();
    for (const auto& row : rows) {
        ComPtr<IUIAutomationCondition> cond;
        VARIANT v = variant(row.text, row.number);
        ASSERT_EQ(S_OK, row.property ? automation->CreatePropertyCondition(row.property, v, &cond)
                                     : automation->CreateTrueCondition(&cond))
            << row.name;
        VariantClear(&v);
        ComPtr<IUIAutomationElementArray> found;
        ASSERT_EQ(S_OK, desktop->FindAll(row.scope, cond.Get(), &found)) << row.name;
        int length = -1;
        EXPECT_EQ(S_OK, found->get_Length(&length));
        Names names;
        Element e;
        for (int i = 0; i < length; ++i) {
            EXPECT_EQ(S_OK, found->GetElement(i, &e)) << row.name;
            names.push_back(nameOf(e.Get()));
        }
        EXPECT_EQ(row.expected, names) << row.name;
        EXPECT_EQ(E_INVALIDARG, found->GetElement(length, &e)) << row.name;
    }
    ComPtr<IUIAutomationCondition> bad;
    VARIANT one = variant(nullptr, 1), x = variant(L"x");
    EXPECT_EQ(E_INVALIDARG, automation->CreatePropertyCondition(UIA_NamePropertyId, one, &bad)) << "a wrong type";
    EXPECT_EQ(E_NOTIMPL, automation->CreatePropertyCondition(12345, one, &bad));
    EXPECT_EQ(E_NOTIMPL, automation->CreatePropertyCondition(UIA_ValueValuePropertyId, x, &bad));
    VariantClear(&x);
    expectedUnsupported = {"IUIAutomation::CreatePropertyCondition(12345)",
                           "IUIAutomation::CreatePropertyCondition(ValueValue)"};
}

// The raw view has every node. A popup hung under the desktop is the
// desktop's first child in every step, with its subtree; a node that only
// reports the desktop as its parent keeps its place among its siblings.
TEST_F(FakeUia, TheRawViewHasEveryNodeAndPopupsHangUnderTheDesktop) {
    Node& popup = main->insert(0, {.controlType = UIA_ListControlTypeId, .name = L"Popup"});
    popup.add({.controlType = UIA_ListItemControlTypeId, .name = L"Item"});
    popup.hangUnderDesktop();
    cancel->reportDesktopAsParent();
    EXPECT_EQ(&platform.desktop(), popup.parent());
    using Step = decltype(&IUIAutomationTreeWalker::GetParentElement);
    const Step first = &IUIAutomationTreeWalker::GetFirstChildElement,
               last = &IUIAutomationTreeWalker::GetLastChildElement,
               next = &IUIAutomationTreeWalker::GetNextSiblingElement,
               previous = &IUIAutomationTreeWalker::GetPreviousSiblingElement,
               up = &IUIAutomationTreeWalker::GetParentElement;
    const struct {
        const wchar_t* from;
        Step step;
        const wchar_t* expected;
    } rows[] = {
        {L"Desktop", first, L"Popup"}, {L"Popup", up, L"Desktop"},  {L"Popup", first, L"Item"},
        {L"Popup", next, L"Main"},     {L"Main", first, L"OK"},      {L"Desktop", last, L"Other"},
        {L"Other", next, L"(none)"},   {L"OK", previous, L"(none)"}, {L"Main", last, L"Panel"},
        {L"Inner", up, L"Panel"},      {L"Inner", first, L"(none)"}, {L"Cancel", up, L"Desktop"},
        {L"Cancel", previous, L"OK"},  {L"Desktop", up, L"(none)"},
    };
    for (const auto& row : rows) {
        Element from = find(row.from), to;
        ASSERT_TRUE(from) << "no element " << row.from;
        EXPECT_EQ(S_OK, (raw.Get()->*row.step)(from.Get(), &to));
        EXPECT_EQ(std::wstring(row.expected), nameOf(to.Get())) << "from " << row.from;
    }
}

// An element whose node left the tree fails every read with the platform's
// "not available"; the node's whole subtree leaves with it.
TEST_F(FakeUia, ARemovedNodeIsNotAvailable) {
    Element e = find(L"OK"), innerElement = find(L"Inner"), panelElement, sibling;
    ASSERT_EQ(S_OK, raw->GetLastChildElement(find(L"Main").Get(), &panelElement));
    ASSERT_EQ(L"Panel", nameOf(panelElement.Get()));
    EXPECT_TRUE(ok->inTree());
    ok->remove();
    panel->remove();
    EXPECT_FALSE(ok->inTree());
    EXPECT_EQ(nullptr, ok->parent());
    EXPECT_FALSE(inner->inTree());
    BSTR s = reinterpret_cast<BSTR>(1);
    VARIANT v;
    RECT r;
    CONTROLTYPEID type;
    SAFEARRAY* id = reinterpret_cast<SAFEARRAY*>(1);
    IUIAutomationElement* step = reinterpret_cast<IUIAutomationElement*>(1);
    const std::pair<const char*, std::function<HRESULT()>> reads[] = {
        {"name", [&] { return e->get_CurrentName(&s); }},
        {"control type", [&] { return e->get_CurrentControlType(&type); }},
        {"runtime id", [&] { return e->GetRuntimeId(&id); }},
        {"property", [&] { return e->GetCurrentPropertyValue(UIA_NamePropertyId, &v); }},
        {"bounds", [&] { return e->get_CurrentBoundingRectangle(&r); }},
        {"next sibling", [&] { return raw->GetNextSiblingElement(e.Get(), &step); }},
        {"name below the removed panel", [&] { return innerElement->get_CurrentName(&s); }},
        {"name of the removed panel", [&] { return panelElement->get_CurrentName(&s); }},
    };
    for (const auto& read : reads) EXPECT_EQ(kElementNotAvailable, read.second()) << read.first;
    EXPECT_EQ(nullptr, s);
    EXPECT_EQ(nullptr, id);
    EXPECT_EQ(nullptr, step);
    EXPECT_FALSE(find(L"Inner"));
    ASSERT_EQ(S_OK, raw->GetPreviousSiblingElement(find(L"Cancel").Get(), &sibling));
    EXPECT_FALSE(sibling) << "the removed node left its siblings' list";
    EXPECT_THROW(platform.desktop().remove(), std::logic_error);
}

// A failing call leaves its non-pointer outputs undefined (here: poisoned),
// a VARIANT empty and an element null. Names of calls are checked when set.
TEST_F(FakeUia, InjectedFailuresPoisonTheOutputs) {
    Element e = find(L"OK"), step;
    for (const char* method : {"get_CurrentBoundingRectangle", "get_CurrentIsEnabled", "GetCurrentPropertyValue",
                               "GetNextSiblingElement"})
        ok->fail(method, E_FAIL);
    ok->fail("get_CurrentControlType", E_ACCESSDENIED);
    CONTROLTYPEID type = 0;
    RECT rect{};
    BOOL enabled = TRUE;
    VARIANT value;
    VariantInit(&value);
    EXPECT_EQ(E_ACCESSDENIED, e->get_CurrentControlType(&type));
    EXPECT_EQ(fakeuia::poisoned<CONTROLTYPEID>(), type);
    EXPECT_EQ(E_FAIL, e->get_CurrentBoundingRectangle(&rect));
    EXPECT_EQ(fakeuia::poisoned<LONG>(), rect.left);
    EXPECT_EQ(fakeuia::poisoned<LONG>(), rect.bottom);
    EXPECT_EQ(E_FAIL, e->get_CurrentIsEnabled(&enabled));
    EXPECT_EQ(fakeuia::poisoned<BOOL>(), enabled);
    EXPECT_EQ(E_FAIL, e->GetCurrentPropertyValue(UIA_LevelPropertyId, &value));
    EXPECT_EQ(VT_EMPTY, value.vt);
    EXPECT_EQ(fakeuia::poisoned<LONG>(), value.lVal);
    EXPECT_EQ(E_FAIL, raw->GetNextSiblingElement(e.Get(), &step));
    EXPECT_FALSE(step);
    EXPECT_THROW(ok->fail("get_CurrentNmae", E_FAIL), std::invalid_argument);
    EXPECT_THROW(ok->nullString("get_CurrentControlType"), std::invalid_argument);
    EXPECT_THROW(platform.fail("GetRoot", E_FAIL), std::invalid_argument);
}

// No cache is ever built; a property the simulation does not model reads as
// empty and is listed; a pattern that is not there is S_OK with null. By
// point: the deepest element there that is not offscreen, else the desktop.
TEST_F(FakeUia, WhatIsNotThereAndLookups) {
    Element e = find(L"Cancel");
    BSTR s = nullptr;
    EXPECT_EQ(fakeuia::kNotCached, e->get_CachedName(&s));
    ComPtr<IUIAutomationCacheRequest> cache;
    EXPECT_EQ(E_NOTIMPL, automation->CreateCacheRequest(&cache));
    expectedUnsupported = {"IUIAutomation::CreateCacheRequest"};
    VARIANT v;
    ASSERT_EQ(S_OK, e->GetCurrentPropertyValue(UIA_ValueValuePropertyId, &v));
    EXPECT_EQ(VT_EMPTY, v.vt);
    EXPECT_EQ(std::vector<PROPERTYID>{UIA_ValueValuePropertyId}, platform.unmodeledPropertyReads());
    ComPtr<IUnknown> none;
    EXPECT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, none.ReleaseAndGetAddressOf()));
    EXPECT_FALSE(none);
    EXPECT_EQ(S_OK, automation->GetPatternProgrammaticName(UIA_InvokePatternId, &s));
    EXPECT_EQ(L"InvokePattern", take(s));

    ASSERT_EQ(S_OK, automation->ElementFromHandle(fakeuia::hwnd(0x1234), &e));
    EXPECT_EQ(L"Main", nameOf(e.Get()));
    EXPECT_EQ(kElementNotAvailable, automation->ElementFromHandle(fakeuia::hwnd(0x9999), &e));
    const struct {
        POINT at;
        bool cancelOffscreen;
        const wchar_t* expected;
    } points[] = {{{50, 120}, false, L"Inner"}, {{150, 20}, false, L"Cancel"}, {{150, 20}, true, L"Main"},
                  {{1500, 900}, true, L"Desktop"}};
    for (const auto& row : points) {
        cancel->update([&](fakeuia::NodeSpec& spec) { spec.isOffscreen = row.cancelOffscreen; });
        ASSERT_EQ(S_OK, automation->ElementFromPoint(row.at, &e));
        EXPECT_EQ(std::wstring(row.expected), nameOf(e.Get())) << row.at.x << "," << row.at.y;
    }
}

namespace {

// A handler that counts its references and the events it saw.
struct Handler final : IUIAutomationEventHandler {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        bool mine = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomationEventHandler);
        *out = mine ? this : nullptr;
        return mine ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives on the stack
    HRESULT STDMETHODCALLTYPE HandleAutomationEvent(IUIAutomationElement* sender, EVENTID) override {
        lastSender = nameOf(sender);
        lastThread = GetCurrentThreadId();
        ++events;
        return S_OK;
    }
    std::atomic<ULONG> refs{1};
    std::wstring lastSender;
    DWORD lastThread = 0;
    int events = 0;
};

}  // namespace

// Handlers are held while registered; events reach the ones that match, on a
// thread of the platform's own; removing one that isn't there is counted.
TEST_F(FakeUia, EventHandlersAreHeldAndCalledOnThreadsOfThePlatform) {
    Element desktop = root();
    Handler handler;
    ASSERT_EQ(S_OK, automation->AddAutomationEventHandler(UIA_Window_WindowOpenedEventId, desktop.Get(),
                                                          TreeScope_Subtree, nullptr, &handler));
    EXPECT_EQ(2u, handler.refs.load());
    EXPECT_EQ(1u, platform.eventHandlers().size());
    EXPECT_EQ(0, platform.raiseAutomationEvent(UIA_Invoke_InvokedEventId, *other));
    EXPECT_EQ(1, platform.raiseAutomationEvent(UIA_Window_WindowOpenedEventId, *other));
    ASSERT_TRUE(platform.waitForEvents(5000));
    EXPECT_EQ(1, handler.events);
    EXPECT_EQ(L"Other", handler.lastSender);
    EXPECT_NE(GetCurrentThreadId(), handler.lastThread) << "delivered on the raising thread";

    ASSERT_EQ(S_OK, automation->RemoveAutomationEventHandler(UIA_Window_WindowOpenedEventId, desktop.Get(), &handler));
    EXPECT_EQ(1u, handler.refs.load());
    EXPECT_EQ(S_OK, automation->RemoveAutomationEventHandler(UIA_Window_WindowOpenedEventId, desktop.Get(), &handler));
    EXPECT_EQ(1, platform.unmatchedHandlerRemovals());
    ASSERT_EQ(S_OK, automation->AddAutomationEventHandler(UIA_Window_WindowOpenedEventId, desktop.Get(),
                                                          TreeScope_Subtree, nullptr, &handler));
    ASSERT_EQ(S_OK, automation->RemoveAllEventHandlers());
    EXPECT_EQ(1u, handler.refs.load());
    EXPECT_TRUE(platform.eventHandlers().empty());
}

// Readers on four threads while the tree changes under them: a read answers
// S_OK or "not available", nothing else, and every object is released.
TEST_F(FakeUia, ManyThreadsReadWhileTheTreeChanges) {
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            ComPtr<IUIAutomationCondition> all;
            failures += FAILED(automation->CreateTrueCondition(&all));
            for (int i = 0; i < 200 && !stop; ++i) {
                Element desktop, child, e;
                ComPtr<IUIAutomationElementArray> found;
                int n = 0;
                failures += FAILED(automation->GetRootElement(&desktop)) ||
                            FAILED(desktop->FindAll(TreeScope_Subtree, all.Get(), &found)) ||
                            FAILED(raw->GetFirstChildElement(desktop.Get(), &child)) || FAILED(found->get_Length(&n));
                for (int k = 0; k < n; ++k) {
                    BSTR s = nullptr;
                    found->GetElement(k, &e);
                    HRESULT hr = e->get_CurrentName(&s);
                    failures += hr != S_OK && hr != kElementNotAvailable;
                    SysFreeString(s);
                }
            }
            all.Reset();
            CoUninitialize();
        });
    }
    for (int i = 0; i < 100; ++i) {
        Node& n = main->add({.name = L"transient"});
        n.add({.name = L"child"});
        n.remove();
    }
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
}

// --- patterns --------------------------------------------------------------------

// Each open is a new counted object of the attached source, answering only
// its own interface; a pattern not available is S_OK with null.
TEST_F(FakeUia, PatternsAreNewCountedObjectsOfTheAttachedSource) {
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(add(L"b", UIA_ButtonControlTypeId));
    Element e = find(L"b");
    ComPtr<IUnknown> a, c;
    ASSERT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, a.ReleaseAndGetAddressOf()));
    ASSERT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, c.ReleaseAndGetAddressOf()));
    ASSERT_TRUE(a && c);
    EXPECT_NE(a.Get(), c.Get());
    EXPECT_EQ("1 automation, 1 element, 1 walker, 2 pattern", platform.outstandingBreakdown());
    ComPtr<IUIAutomationInvokePattern> p;
    ComPtr<IUIAutomationValuePattern> wrong;
    ASSERT_EQ(S_OK, a.As(&p));
    EXPECT_EQ(E_NOINTERFACE, a.As(&wrong));
    EXPECT_EQ(S_OK, p->Invoke());
    EXPECT_EQ(1, invoke->invokeCount);
    invoke->available = false;
    EXPECT_EQ(S_OK, e->GetCurrentPattern(UIA_InvokePatternId, a.ReleaseAndGetAddressOf()));
    EXPECT_FALSE(a);
}

// The refusals and corrections of the real controls, each with the state it
// leaves. Every call that reaches a source is counted, refused or not.
TEST_F(FakeUia, PatternsRefuseAndCorrectAsTheControlsDo) {
    auto value = fakeuia::attach<fakeuia::ValueSource>(add(L"edit", UIA_EditControlTypeId), L"fixed", true);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(add(L"slider", UIA_SliderControlTypeId), 5.0, 0.0, 10.0);
    Node& gridNode = add(L"grid", UIA_DataGridControlTypeId);
    std::vector<std::vector<Node*>> cells(2);
    for (int r = 0; r < 6; ++r)
        cells[r / 3].push_back(&add((L"r" + std::to_wstring(r / 3) + L"c" + std::to_wstring(r % 3)).c_str(),
                                    UIA_DataItemControlTypeId, &gridNode));
    auto grid = fakeuia::attach<fakeuia::GridSource>(gridNode, cells);
    fakeuia::attach<fakeuia::WindowSource>(add(L"dlg", UIA_WindowControlTypeId))->canMaximize = false;
    Node& paneNode = main->add({.controlType = UIA_PaneControlTypeId, .name = L"pane", .bounds = {10, 20, 110, 70}});
    auto transform = fakeuia::attach<fakeuia::TransformSource>(paneNode);
    auto scroll = fakeuia::attach<fakeuia::ScrollSource>(add(L"list", UIA_ListControlTypeId));
    scroll->verticallyScrollable = true;
    scroll->verticalPercent = 0;
    auto leaf = fakeuia::attach<fakeuia::ExpandCollapseSource>(add(L"leaf", UIA_TreeItemControlTypeId),
                                                               ExpandCollapseState_LeafNode);
    auto pv = pattern<IUIAutomationValuePattern>(L"edit", UIA_ValuePatternId);
    auto pr = pattern<IUIAutomationRangeValuePattern>(L"slider", UIA_RangeValuePatternId);
    auto pg = pattern<IUIAutomationGridPattern>(L"grid", UIA_GridPatternId);
    auto pw = pattern<IUIAutomationWindowPattern>(L"dlg", UIA_WindowPatternId);
    auto pt = pattern<IUIAutomationTransformPattern>(L"pane", UIA_TransformPatternId);
    auto ps = pattern<IUIAutomationScrollPattern>(L"list", UIA_ScrollPatternId);
    auto pl = pattern<IUIAutomationExpandCollapsePattern>(L"leaf", UIA_ExpandCollapsePatternId);
    Element pane = find(L"pane"), cell;
    BSTR fresh = SysAllocString(L"new");
    const auto bounds = [&](RECT expected) {
        RECT r{};
        return SUCCEEDED(pane->get_CurrentBoundingRectangle(&r)) && EqualRect(&r, &expected);
    };
    const struct {
        const char* name;
        HRESULT expected;
        std::function<HRESULT()> call;
        std::function<bool()> after;
    } rows[] = {
        {"read-only value", fakeuia::kElementNotEnabled, [&] { return pv->SetValue(fresh); },
         [&] { return value->value == L"fixed"; }},
        {"writable value", S_OK, [&] { value->readOnly = false; return pv->SetValue(fresh); },
         [&] { return value->value == L"new" && value->setValueCalls == 2; }},
        {"range above the maximum", S_OK, [&] { return pr->SetValue(15); }, [&] { return range->value == 10.0; }},
        {"range below the minimum", S_OK, [&] { return pr->SetValue(-3); }, [&] { return range->value == 0.0; }},
        {"range inside", S_OK, [&] { return pr->SetValue(7.5); }, [&] { return range->value == 7.5; }},
        {"range that doesn't clamp", E_INVALIDARG, [&] { range->clamps = false; return pr->SetValue(11); },
         [&] { return range->value == 7.5; }},
        {"read-only range", fakeuia::kElementNotEnabled, [&] { range->readOnly = true; return pr->SetValue(1); },
         [&] { return range->value == 7.5 && range->setValueArguments == std::vector<double>{15, -3, 7.5, 11, 1}; }},
        {"grid cell: row, then column", S_OK, [&] { return pg->GetItem(1, 2, &cell); },
         [&] { return nameOf(cell.Get()) == L"r1c2"; }},
        {"grid row beyond", E_INVALIDARG, [&] { return pg->GetItem(2, 0, &cell); }, [&] { return !cell; }},
        {"grid column beyond", E_INVALIDARG, [&] { return pg->GetItem(0, 3, &cell); }, nullptr},
        {"grid row below", E_INVALIDARG, [&] { return pg->GetItem(-1, 0, &cell); },
         [&] { return grid->getItemCalls.size() == 4; }},
        {"maximize what can't", fakeuia::kInvalidOperation,
         [&] { return pw->SetWindowVisualState(WindowVisualState_Maximized); }, nullptr},
        {"move", S_OK, [&] { return pt->Move(200, 300); }, [&] { return bounds({200, 300, 300, 350}); }},
        {"resize", S_OK, [&] { return pt->Resize(40, 25); }, [&] { return bounds({200, 300, 240, 325}); }},
        {"rotate what can't", fakeuia::kInvalidOperation, [&] { return pt->Rotate(90); },
         [&] { return transform->rotateCalls == 1; }},
        {"move what can't", fakeuia::kInvalidOperation, [&] { transform->canMove = false; return pt->Move(0, 0); },
         [&] { return bounds({200, 300, 240, 325}); }},
        {"scroll to a percent", S_OK, [&] { return ps->SetScrollPercent(fakeuia::kNoScroll, 40); },
         [&] { return scroll->verticalPercent == 40 && scroll->horizontalPercent == fakeuia::kNoScroll; }},
        {"percent above 100", E_INVALIDARG, [&] { return ps->SetScrollPercent(fakeuia::kNoScroll, 150); }, nullptr},
        {"negative percent", E_INVALIDARG, [&] { return ps->SetScrollPercent(-5, 10); }, nullptr},
        {"percent on an axis that can't scroll", fakeuia::kInvalidOperation,
         [&] { return ps->SetScrollPercent(10, 10); }, [&] { return scroll->verticalPercent == 40; }},
        {"large step", S_OK, [&] { return ps->Scroll(ScrollAmount_NoAmount, ScrollAmount_LargeIncrement); },
         [&] { return scroll->verticalPercent == 50; }},
        {"small step back", S_OK, [&] { return ps->Scroll(ScrollAmount_NoAmount, ScrollAmount_SmallDecrement); },
         [&] { return scroll->verticalPercent == 49; }},
        {"step on an axis that can't scroll", fakeuia::kInvalidOperation,
         [&] { return ps->Scroll(ScrollAmount_SmallIncrement, ScrollAmount_NoAmount); },
         [&] { return scroll->setScrollPercentCalls == 4 && scroll->scrollCalls == 3; }},
        {"expand a leaf", fakeuia::kInvalidOperation, [&] { return pl->Expand(); }, nullptr},
        {"collapse a leaf", fakeuia::kInvalidOperation, [&] { return pl->Collapse(); },
         [&] { return leaf->state == ExpandCollapseState_LeafNode && leaf->collapseCalls == 1; }},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, row.call()) << row.name;
        if (row.after) {
            EXPECT_TRUE(row.after()) << row.name << ": the state after";
        }
    }
    SysFreeString(fresh);
}

// Toggle goes Off, On, Off; with a third state Off, On, Indeterminate, Off.
TEST_F(FakeUia, ToggleCyclesWithAndWithoutTheThirdState) {
    fakeuia::attach<fakeuia::ToggleSource>(add(L"two", UIA_CheckBoxControlTypeId));
    fakeuia::attach<fakeuia::ToggleSource>(add(L"three", UIA_CheckBoxControlTypeId), ToggleState_Off, true);
    const std::pair<const wchar_t*, std::vector<ToggleState>> rows[] = {
        {L"two", {ToggleState_On, ToggleState_Off, ToggleState_On}},
        {L"three", {ToggleState_On, ToggleState_Indeterminate, ToggleState_Off}}};
    for (const auto& [name, expected] : rows) {
        auto p = pattern<IUIAutomationTogglePattern>(name, UIA_TogglePatternId);
        std::vector<ToggleState> seen(3, ToggleState_Off);
        for (ToggleState& state : seen) {
            EXPECT_EQ(S_OK, p->Toggle());
            EXPECT_EQ(S_OK, p->get_CurrentToggleState(&state));
        }
        EXPECT_EQ(expected, seen) << name;
    }
}

// A pattern object of a removed node answers "not available" before it
// reaches the source, and keeps its source alive; element lists keep stale
// elements, as the platform's do.
TEST_F(FakeUia, PatternsOfARemovedNodeAreNotAvailable) {
    Node& b = add(L"b", UIA_ButtonControlTypeId);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(b);
    auto value = fakeuia::attach<fakeuia::ValueSource>(b, L"x");
    auto pi = pattern<IUIAutomationInvokePattern>(L"b", UIA_InvokePatternId);
    auto pv = pattern<IUIAutomationValuePattern>(L"b", UIA_ValuePatternId);
    b.remove();
    EXPECT_EQ(kElementNotAvailable, pi->Invoke());
    EXPECT_EQ(0, invoke->invokeCount);
    BSTR s = reinterpret_cast<BSTR>(1);
    EXPECT_EQ(kElementNotAvailable, pv->get_CurrentValue(&s));
    EXPECT_EQ(nullptr, s);
    BOOL readOnly = TRUE;
    EXPECT_EQ(kElementNotAvailable, pv->get_CurrentIsReadOnly(&readOnly));
    EXPECT_EQ(fakeuia::poisoned<BOOL>(), readOnly) << "a failing read poisons its output";
    std::weak_ptr<fakeuia::ValueSource> weak = value;
    value.reset();
    b.detachPattern(UIA_ValuePatternId);
    EXPECT_FALSE(weak.expired());
    pv.Reset();
    EXPECT_TRUE(weak.expired());

    Node& table = add(L"table", UIA_TableControlTypeId);
    auto t = fakeuia::attach<fakeuia::TableSource>(table);
    t->columnHeaders = {&add(L"Name", UIA_HeaderItemControlTypeId, &table),
                        &add(L"Size", UIA_HeaderItemControlTypeId, &table)};
    auto pt = pattern<IUIAutomationTablePattern>(L"table", UIA_TablePatternId);
    t->columnHeaders[0]->remove();
    ComPtr<IUIAutomationElementArray> headers;
    ASSERT_EQ(S_OK, pt->GetCurrentColumnHeaders(&headers));
    int length = 0;
    ASSERT_EQ(S_OK, headers->get_Length(&length));
    ASSERT_EQ(2, length);
    Element gone, kept;
    ASSERT_EQ(S_OK, headers->GetElement(0, &gone));
    ASSERT_EQ(S_OK, headers->GetElement(1, &kept));
    EXPECT_EQ(kElementNotAvailable, gone->get_CurrentName(&s));
    EXPECT_EQ(L"Size", nameOf(kept.Get()));
}

// A text range is counted and stale with its node; cached reads of patterns
// fail and their unmodeled calls are listed.
TEST_F(FakeUia, TextRangesAndWhatPatternsLeaveOut) {
    Node& doc = add(L"doc", UIA_DocumentControlTypeId);
    fakeuia::attach<fakeuia::TextSource>(doc, L"Hello, world", true);
    auto p = pattern<IUIAutomationTextPattern>(L"doc", UIA_TextPatternId);
    ComPtr<IUIAutomationTextRange> range;
    ASSERT_EQ(S_OK, p->get_DocumentRange(&range));
    EXPECT_EQ("1 automation, 1 walker, 1 pattern, 1 textrange", platform.outstandingBreakdown());
    BSTR s = nullptr;
    ASSERT_EQ(S_OK, range->GetText(-1, &s));
    EXPECT_EQ(L"Hello, world", take(s));

    int moved = 7;
    EXPECT_EQ(E_NOTIMPL, range->Move(TextUnit_Word, 1, &moved));
    EXPECT_EQ(0, moved);
    ComPtr<IUIAutomationTextRangeArray> ranges;
    EXPECT_EQ(E_NOTIMPL, p->GetSelection(&ranges));
    fakeuia::attach<fakeuia::LegacyIAccessibleSource>(add(L"item", UIA_ListItemControlTypeId));
    auto pl = pattern<IUIAutomationLegacyIAccessiblePattern>(L"item", UIA_LegacyIAccessiblePatternId);
    IAccessible* acc = nullptr;
    EXPECT_EQ(E_NOTIMPL, pl->GetIAccessible(&acc));
    expectedUnsupported = {"IUIAutomationTextRange::Move", "IUIAutomationTextPattern::GetSelection",
                           "IUIAutomationLegacyIAccessiblePattern::GetIAccessible"};
    DWORD role = 0;
    EXPECT_EQ(fakeuia::kNotCached, pl->get_CachedRole(&role));

    doc.remove();
    EXPECT_EQ(kElementNotAvailable, range->GetText(-1, &s));
    EXPECT_EQ(kElementNotAvailable, p->get_DocumentRange(&range));
}

// A failure injected into a source answers its call, which still counts and
// changes nothing, with its string output null; names are checked when set.
TEST_F(FakeUia, InjectedPatternFailures) {
    Node& edit = add(L"edit", UIA_EditControlTypeId);
    auto value = fakeuia::attach<fakeuia::ValueSource>(edit, L"abc");
    auto grid = fakeuia::attach<fakeuia::GridSource>(edit);
    for (const char* unknown : {"Invoke", "get_CurrentName"}) {
        EXPECT_THROW(value->fail(unknown, E_FAIL), std::invalid_argument) << unknown;
    }
    EXPECT_THROW(grid->fail("GetElement", E_FAIL), std::invalid_argument);
    value->fail("get_CurrentValue", E_ACCESSDENIED);
    value->fail("SetValue", E_FAIL);
    value->fail("get_CachedIsReadOnly", E_OUTOFMEMORY);
    auto p = pattern<IUIAutomationValuePattern>(L"edit", UIA_ValuePatternId);
    BSTR s = reinterpret_cast<BSTR>(1);
    EXPECT_EQ(E_ACCESSDENIED, p->get_CurrentValue(&s));
    EXPECT_EQ(nullptr, s);
    BSTR nv = SysAllocString(L"new");
    EXPECT_EQ(E_FAIL, p->SetValue(nv));
    SysFreeString(nv);
    EXPECT_EQ(1, value->setValueCalls);
    EXPECT_EQ(L"abc", value->value);
    BOOL b = FALSE;
    EXPECT_EQ(E_OUTOFMEMORY, p->get_CachedIsReadOnly(&b));
}
