// Self-test of the simulated UI Automation platform: the automation object is
// created through CoCreateInstance on a second thread in the MTA, as the
// driver does, after install() on the test's thread.
#include "FakeUia.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr HRESULT kNotAvailable = static_cast<HRESULT>(0x80040201L);

// The test's thread joins the MTA for the whole test.
struct Mta {
    Mta() { EXPECT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
    ~Mta() { CoUninitialize(); }
};

// Owns one COM reference.
template <class T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T* p) : p_(p) {}
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
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

// Runs f on a new thread in the MTA and waits for it.
template <class F>
void onMtaThread(F f) {
    std::thread t([&] {
        HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        EXPECT_EQ(S_OK, hr);
        f();
        if (SUCCEEDED(hr)) CoUninitialize();
    });
    t.join();
}

// Creates an automation object the way the driver does, on another MTA thread.
HRESULT createAutomation(REFCLSID clsid, REFIID riid, void** out, DWORD* thread = nullptr) {
    HRESULT hr = E_UNEXPECTED;
    onMtaThread([&] {
        if (thread) *thread = GetCurrentThreadId();
        hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, riid, out);
    });
    return hr;
}

void createOrFail(Ref<IUIAutomation>& automation) {
    ASSERT_EQ(S_OK, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation, automation.putVoid()));
    ASSERT_TRUE(automation);
}

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

std::vector<LONG> intsOf(SAFEARRAY* sa) {
    std::vector<LONG> out;
    if (!sa) return out;
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

#define EXPECT_NO_REFERENCES(platform) \
    EXPECT_EQ(0, (platform).outstandingReferences()) << (platform).outstandingBreakdown()

// desktop
//   Main (window, pid 4711, hwnd 0x1234)
//     OK (button, 1001)
//     Cancel (button, 1002)
//     Panel (pane, not a control element)
//       Inner (edit)
//   Other (window, pid 99)
struct Desktop {
    fakeuia::Node* main;
    fakeuia::Node* ok;
    fakeuia::Node* cancel;
    fakeuia::Node* panel;
    fakeuia::Node* inner;
    fakeuia::Node* other;
};

Desktop buildDesktop(fakeuia::Platform& platform) {
    Desktop d;
    d.main = &platform.desktop().add({.controlType = UIA_WindowControlTypeId, .name = L"Main", .className = L"MainWnd",
                                      .processId = 4711, .bounds = {0, 0, 800, 600},
                                      .nativeWindowHandle = fakeuia::hwnd(0x1234)});
    d.ok = &d.main->add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .automationId = L"1001",
                         .bounds = {10, 10, 110, 40}});
    d.cancel = &d.main->add({.controlType = UIA_ButtonControlTypeId, .name = L"Cancel", .automationId = L"1002",
                             .bounds = {120, 10, 220, 40}});
    d.panel = &d.main->add({.controlType = UIA_PaneControlTypeId, .name = L"Panel", .bounds = {0, 100, 800, 600},
                            .isControlElement = false});
    d.inner = &d.panel->add({.controlType = UIA_EditControlTypeId, .name = L"Inner", .bounds = {10, 110, 300, 140}});
    d.other = &platform.desktop().add({.controlType = UIA_WindowControlTypeId, .name = L"Other", .processId = 99,
                                       .bounds = {900, 0, 1200, 300}});
    return d;
}

IUIAutomationElement* findByName(IUIAutomation* automation, const wchar_t* name) {
    Ref<IUIAutomationElement> root;
    EXPECT_EQ(S_OK, automation->GetRootElement(root.put()));
    VARIANT v;
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(name);
    Ref<IUIAutomationCondition> cond;
    EXPECT_EQ(S_OK, automation->CreatePropertyCondition(UIA_NamePropertyId, v, cond.put()));
    VariantClear(&v);
    IUIAutomationElement* found = nullptr;
    EXPECT_EQ(S_OK, root->FindFirst(TreeScope_Descendants, cond.get(), &found));
    return found;
}

// A handler that counts its references and the events it saw.
class CountingHandler final : public IUIAutomationEventHandler, public IUIAutomationFocusChangedEventHandler {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IUIAutomationEventHandler)) {
            *object = static_cast<IUIAutomationEventHandler*>(this);
        } else if (IsEqualIID(riid, IID_IUIAutomationFocusChangedEventHandler)) {
            *object = static_cast<IUIAutomationFocusChangedEventHandler*>(this);
        } else {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives on the stack
    HRESULT STDMETHODCALLTYPE HandleAutomationEvent(IUIAutomationElement* sender, EVENTID id) override {
        lastEvent = id;
        lastSender = nameOf(sender);
        lastThread = GetCurrentThreadId();
        ++events;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE HandleFocusChangedEvent(IUIAutomationElement* sender) override {
        lastSender = nameOf(sender);
        ++focusEvents;
        return S_OK;
    }
    std::atomic<ULONG> refs{1};
    EVENTID lastEvent = 0;
    std::wstring lastSender;
    DWORD lastThread = 0;
    int events = 0;
    int focusEvents = 0;
};

}  // namespace

TEST(FakeUia, CreationThroughBothClsidsIsCounted) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    EXPECT_TRUE(platform.installed());

    Ref<IUIAutomation> a8, a;
    DWORD thread = 0;
    ASSERT_EQ(S_OK, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation, a8.putVoid(), &thread));
    ASSERT_EQ(S_OK, createAutomation(CLSID_CUIAutomation, IID_IUIAutomation, a.putVoid()));
    EXPECT_EQ(1, platform.createdCount(CLSID_CUIAutomation8));
    EXPECT_EQ(1, platform.createdCount(CLSID_CUIAutomation));
    ASSERT_EQ(2u, platform.createdOnThreads().size());
    EXPECT_EQ(thread, platform.createdOnThreads()[0]);
    EXPECT_NE(GetCurrentThreadId(), platform.createdOnThreads()[0]);
    EXPECT_EQ(2, platform.outstandingReferences());
    EXPECT_EQ("2 automation", platform.outstandingBreakdown());

    a8.reset();
    a.reset();
    platform.uninstall();
    EXPECT_FALSE(platform.installed());
    Ref<IUIAutomation> after;
    createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation, after.putVoid());  // not ours any more
    EXPECT_EQ(1, platform.createdCount(CLSID_CUIAutomation8));
    EXPECT_TRUE(platform.unsupportedCalls().empty());
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, FailCreationFailsOneClsid) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    platform.failCreation(CLSID_CUIAutomation8, E_ACCESSDENIED);
    Ref<IUIAutomation> a;
    EXPECT_EQ(E_ACCESSDENIED, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation, a.putVoid()));
    EXPECT_FALSE(a);
    EXPECT_EQ(0, platform.createdCount(CLSID_CUIAutomation8));
    EXPECT_EQ(1, platform.creationAttempts(CLSID_CUIAutomation8));
    EXPECT_EQ(S_OK, createAutomation(CLSID_CUIAutomation, IID_IUIAutomation, a.putVoid()));
    EXPECT_EQ(1, platform.createdCount(CLSID_CUIAutomation));
    platform.failCreation(CLSID_CUIAutomation8, S_OK);
    EXPECT_EQ(S_OK, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation, a.putVoid()));
    EXPECT_EQ(1, platform.createdCount(CLSID_CUIAutomation8));
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, Automation2FollowsTheSwitch) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomation2> a2;
    EXPECT_EQ(S_OK, a->QueryInterface(IID_IUIAutomation2, a2.putVoid()));
    EXPECT_TRUE(a2);
    Ref<IUnknown> other;
    EXPECT_EQ(E_NOINTERFACE, a->QueryInterface(IID_IUIAutomation3, other.putVoid()));
    EXPECT_EQ(E_NOINTERFACE, a->QueryInterface(IID_IUIAutomation6, other.putVoid()));

    platform.setAutomation2(false);
    EXPECT_EQ(E_NOINTERFACE, a->QueryInterface(IID_IUIAutomation2, a2.putVoid()));
    EXPECT_FALSE(a2);
    Ref<IUIAutomation2> direct;
    EXPECT_EQ(E_NOINTERFACE, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation2, direct.putVoid()));
    platform.setAutomation2(true);
    EXPECT_EQ(S_OK, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation2, direct.putVoid()));
    direct.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, TimeoutsAreRecorded) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Ref<IUIAutomation2> a2;
    ASSERT_EQ(S_OK, createAutomation(CLSID_CUIAutomation8, IID_IUIAutomation2, a2.putVoid()));
    EXPECT_FALSE(platform.connectionTimeout().has_value());
    EXPECT_FALSE(platform.transactionTimeout().has_value());
    DWORD value = 0;
    EXPECT_EQ(S_OK, a2->get_ConnectionTimeout(&value));
    EXPECT_EQ(2000u, value);
    EXPECT_EQ(S_OK, a2->get_TransactionTimeout(&value));
    EXPECT_EQ(20000u, value);

    EXPECT_EQ(S_OK, a2->put_ConnectionTimeout(5000));
    EXPECT_EQ(S_OK, a2->put_TransactionTimeout(7000));
    EXPECT_EQ(S_OK, a2->put_TransactionTimeout(9000));
    EXPECT_EQ(5000u, platform.connectionTimeout().value_or(0));
    EXPECT_EQ(9000u, platform.transactionTimeout().value_or(0));
    EXPECT_EQ(1, platform.connectionTimeoutPuts());
    EXPECT_EQ(2, platform.transactionTimeoutPuts());
    EXPECT_EQ(S_OK, a2->get_ConnectionTimeout(&value));
    EXPECT_EQ(5000u, value);
    EXPECT_EQ(S_OK, a2->get_TransactionTimeout(&value));
    EXPECT_EQ(9000u, value);
    BOOL autoFocus = FALSE;
    EXPECT_EQ(S_OK, a2->get_AutoSetFocus(&autoFocus));
    EXPECT_TRUE(autoFocus);
    EXPECT_EQ(S_OK, a2->put_AutoSetFocus(FALSE));
    EXPECT_EQ(false, platform.autoSetFocus().value_or(true));
    a2.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, RootElementTwiceGivesTwoObjectsForOneNode) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationElement> r1, r2;
    ASSERT_EQ(S_OK, a->GetRootElement(r1.put()));
    ASSERT_EQ(S_OK, a->GetRootElement(r2.put()));
    EXPECT_NE(r1.get(), r2.get());
    BOOL same = FALSE;
    EXPECT_EQ(S_OK, a->CompareElements(r1.get(), r2.get(), &same));
    EXPECT_TRUE(same);
    EXPECT_EQ(3, platform.outstandingReferences());
    EXPECT_EQ("1 automation, 2 element", platform.outstandingBreakdown());

    EXPECT_EQ(L"Desktop", nameOf(r1.get()));
    CONTROLTYPEID type = 0;
    EXPECT_EQ(S_OK, r1->get_CurrentControlType(&type));
    EXPECT_EQ(UIA_PaneControlTypeId, type);
    SAFEARRAY* id = nullptr;
    ASSERT_EQ(S_OK, r1->GetRuntimeId(&id));
    EXPECT_EQ((std::vector<LONG>{0x2a, 0x10010}), intsOf(id));
    SAFEARRAY* id2 = nullptr;
    ASSERT_EQ(S_OK, r2->GetRuntimeId(&id2));
    EXPECT_EQ(S_OK, a->CompareRuntimeIds(id, id2, &same));
    EXPECT_TRUE(same);
    SafeArrayDestroy(id);
    SafeArrayDestroy(id2);

    Ref<IUIAutomationTreeWalker> walker;
    ASSERT_EQ(S_OK, a->get_RawViewWalker(walker.put()));
    Ref<IUIAutomationElement> parent;
    EXPECT_EQ(S_OK, walker->GetParentElement(r1.get(), parent.put()));
    EXPECT_FALSE(parent);

    r1.reset();
    EXPECT_EQ(3, platform.outstandingReferences()) << platform.outstandingBreakdown();
    r2.reset();
    walker.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, RawWalkerNavigatesTheTree) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    buildDesktop(platform);
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationTreeWalker> w;
    ASSERT_EQ(S_OK, a->get_RawViewWalker(w.put()));
    Ref<IUIAutomationElement> root, main, other, none, ok, cancel, panel, inner, back;
    ASSERT_EQ(S_OK, a->GetRootElement(root.put()));
    ASSERT_EQ(S_OK, w->GetFirstChildElement(root.get(), main.put()));
    EXPECT_EQ(L"Main", nameOf(main.get()));
    ASSERT_EQ(S_OK, w->GetNextSiblingElement(main.get(), other.put()));
    EXPECT_EQ(L"Other", nameOf(other.get()));
    EXPECT_EQ(S_OK, w->GetNextSiblingElement(other.get(), none.put()));
    EXPECT_FALSE(none);
    ASSERT_EQ(S_OK, w->GetLastChildElement(root.get(), back.put()));
    EXPECT_EQ(L"Other", nameOf(back.get()));
    ASSERT_EQ(S_OK, w->GetFirstChildElement(main.get(), ok.put()));
    EXPECT_EQ(L"OK", nameOf(ok.get()));
    EXPECT_EQ(S_OK, w->GetPreviousSiblingElement(ok.get(), none.put()));
    EXPECT_FALSE(none);
    ASSERT_EQ(S_OK, w->GetNextSiblingElement(ok.get(), cancel.put()));
    EXPECT_EQ(L"Cancel", nameOf(cancel.get()));
    ASSERT_EQ(S_OK, w->GetPreviousSiblingElement(cancel.get(), back.put()));
    EXPECT_EQ(L"OK", nameOf(back.get()));
    ASSERT_EQ(S_OK, w->GetLastChildElement(main.get(), panel.put()));
    EXPECT_EQ(L"Panel", nameOf(panel.get()));
    ASSERT_EQ(S_OK, w->GetFirstChildElement(panel.get(), inner.put()));
    EXPECT_EQ(L"Inner", nameOf(inner.get()));
    EXPECT_EQ(S_OK, w->GetFirstChildElement(inner.get(), none.put()));
    EXPECT_FALSE(none);
    ASSERT_EQ(S_OK, w->GetParentElement(inner.get(), back.put()));
    EXPECT_EQ(L"Panel", nameOf(back.get()));
    ASSERT_EQ(S_OK, w->GetParentElement(main.get(), back.put()));
    BOOL same = FALSE;
    EXPECT_EQ(S_OK, a->CompareElements(back.get(), root.get(), &same));
    EXPECT_TRUE(same);

    // The control view leaves the panel (not a control element) out and puts
    // its children in its place.
    Ref<IUIAutomationTreeWalker> cw;
    ASSERT_EQ(S_OK, a->get_ControlViewWalker(cw.put()));
    ASSERT_EQ(S_OK, cw->GetLastChildElement(main.get(), back.put()));
    EXPECT_EQ(L"Inner", nameOf(back.get()));
    ASSERT_EQ(S_OK, cw->GetParentElement(inner.get(), back.put()));
    EXPECT_EQ(L"Main", nameOf(back.get()));
    ASSERT_EQ(S_OK, cw->GetNextSiblingElement(cancel.get(), back.put()));
    EXPECT_EQ(L"Inner", nameOf(back.get()));
    ASSERT_EQ(S_OK, cw->NormalizeElement(panel.get(), back.put()));
    EXPECT_EQ(L"Main", nameOf(back.get()));
    Ref<IUIAutomationCondition> viewCond;
    ASSERT_EQ(S_OK, cw->get_Condition(viewCond.put()));
    Ref<IUIAutomationNotCondition> notCond;
    EXPECT_EQ(S_OK, viewCond->QueryInterface(IID_IUIAutomationNotCondition, notCond.putVoid()));

    // A walker over a condition of the test's own.
    VARIANT v;
    v.vt = VT_I4;
    v.lVal = UIA_ButtonControlTypeId;
    Ref<IUIAutomationCondition> buttons;
    ASSERT_EQ(S_OK, a->CreatePropertyCondition(UIA_ControlTypePropertyId, v, buttons.put()));
    Ref<IUIAutomationTreeWalker> bw;
    ASSERT_EQ(S_OK, a->CreateTreeWalker(buttons.get(), bw.put()));
    ASSERT_EQ(S_OK, bw->GetFirstChildElement(root.get(), back.put()));
    EXPECT_EQ(L"OK", nameOf(back.get()));
    ASSERT_EQ(S_OK, bw->GetNextSiblingElement(back.get(), none.put()));
    EXPECT_EQ(L"Cancel", nameOf(none.get()));

    for (auto* r : {&root, &main, &other, &none, &ok, &cancel, &panel, &inner, &back}) r->reset();
    w.reset();
    cw.reset();
    bw.reset();
    viewCond.reset();
    notCond.reset();
    buttons.reset();
    a.reset();
    EXPECT_TRUE(platform.unsupportedCalls().empty());
    EXPECT_NO_REFERENCES(platform);
}

// A popup hung under the desktop is the desktop's first child in every step;
// a provider that only reports the desktop as the parent keeps its node where it was.
TEST(FakeUia, PopupsHangUnderTheDesktopInEveryStep) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Desktop d = buildDesktop(platform);
    fakeuia::Node& popup = d.main->insert(0, {.controlType = UIA_ListControlTypeId, .name = L"Popup"});
    popup.add({.controlType = UIA_ListItemControlTypeId, .name = L"Item"});
    popup.hangUnderDesktop();
    d.cancel->reportDesktopAsParent();
    EXPECT_EQ(&platform.desktop(), popup.parent());
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationTreeWalker> w;
    ASSERT_EQ(S_OK, a->get_RawViewWalker(w.put()));
    Ref<IUIAutomationElement> root, step, up;
    ASSERT_EQ(S_OK, a->GetRootElement(root.put()));
    ASSERT_EQ(S_OK, w->GetFirstChildElement(root.get(), step.put()));
    EXPECT_EQ(L"Popup", nameOf(step.get()));
    ASSERT_EQ(S_OK, w->GetParentElement(step.get(), up.put()));
    EXPECT_EQ(L"Desktop", nameOf(up.get()));
    ASSERT_EQ(S_OK, w->GetFirstChildElement(step.get(), up.put()));
    EXPECT_EQ(L"Item", nameOf(up.get())) << "the subtree goes with it";
    ASSERT_EQ(S_OK, w->GetNextSiblingElement(step.get(), up.put()));
    EXPECT_EQ(L"Main", nameOf(up.get()));
    ASSERT_EQ(S_OK, w->GetFirstChildElement(up.get(), step.put()));
    EXPECT_EQ(L"OK", nameOf(step.get())) << "the owner's children no longer hold the popup";
    Ref<IUIAutomationElement> cancel(findByName(a.get(), L"Cancel"));
    ASSERT_EQ(S_OK, w->GetParentElement(cancel.get(), up.put()));
    EXPECT_EQ(L"Desktop", nameOf(up.get()));
    ASSERT_EQ(S_OK, w->GetPreviousSiblingElement(cancel.get(), up.put()));
    EXPECT_EQ(L"OK", nameOf(up.get()));

    for (auto* r : {&root, &step, &up, &cancel}) r->reset();
    w.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, FindAllWithSubtreeIncludesTheRoot) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    buildDesktop(platform);
    platform.desktop().children()[0]->children()[2]->update([](fakeuia::NodeSpec& s) { s.isControlElement = true; });
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationElement> root;
    ASSERT_EQ(S_OK, a->GetRootElement(root.put()));
    Ref<IUIAutomationCondition> all;
    ASSERT_EQ(S_OK, a->CreateTrueCondition(all.put()));

    Ref<IUIAutomationElementArray> found;
    ASSERT_EQ(S_OK, root->FindAll(TreeScope_Subtree, all.get(), found.put()));
    int length = 0;
    EXPECT_EQ(S_OK, found->get_Length(&length));
    ASSERT_EQ(7, length);
    std::vector<std::wstring> names;
    for (int i = 0; i < length; ++i) {
        Ref<IUIAutomationElement> e;
        ASSERT_EQ(S_OK, found->GetElement(i, e.put()));
        names.push_back(nameOf(e.get()));
    }
    EXPECT_EQ((std::vector<std::wstring>{L"Desktop", L"Main", L"OK", L"Cancel", L"Panel", L"Inner", L"Other"}), names);
    Ref<IUIAutomationElement> first;
    ASSERT_EQ(S_OK, found->GetElement(0, first.put()));
    BOOL same = FALSE;
    EXPECT_EQ(S_OK, a->CompareElements(first.get(), root.get(), &same));
    EXPECT_TRUE(same);
    EXPECT_EQ(E_INVALIDARG, found->GetElement(7, first.put()));

    ASSERT_EQ(S_OK, root->FindAll(TreeScope_Children, all.get(), found.put()));
    EXPECT_EQ(S_OK, found->get_Length(&length));
    EXPECT_EQ(2, length);
    ASSERT_EQ(S_OK, root->FindAll(TreeScope_Descendants, all.get(), found.put()));
    EXPECT_EQ(S_OK, found->get_Length(&length));
    EXPECT_EQ(6, length);

    // Property conditions, ignoring case, and the composite conditions.
    VARIANT v;
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(L"cancel");
    Ref<IUIAutomationCondition> byName, byNameCase, buttons, both, either, notButton;
    ASSERT_EQ(S_OK, a->CreatePropertyCondition(UIA_NamePropertyId, v, byName.put()));
    ASSERT_EQ(S_OK, a->CreatePropertyConditionEx(UIA_NamePropertyId, v, PropertyConditionFlags_IgnoreCase,
                                                 byNameCase.put()));
    VariantClear(&v);
    Ref<IUIAutomationElement> hit;
    EXPECT_EQ(S_OK, root->FindFirst(TreeScope_Descendants, byName.get(), hit.put()));
    EXPECT_FALSE(hit);
    ASSERT_EQ(S_OK, root->FindFirst(TreeScope_Descendants, byNameCase.get(), hit.put()));
    ASSERT_TRUE(hit);
    EXPECT_EQ(L"Cancel", nameOf(hit.get()));
    v.vt = VT_I4;
    v.lVal = UIA_ButtonControlTypeId;
    ASSERT_EQ(S_OK, a->CreatePropertyCondition(UIA_ControlTypePropertyId, v, buttons.put()));
    ASSERT_EQ(S_OK, a->CreateAndCondition(buttons.get(), byNameCase.get(), both.put()));
    ASSERT_EQ(S_OK, root->FindAll(TreeScope_Subtree, both.get(), found.put()));
    EXPECT_EQ(S_OK, found->get_Length(&length));
    EXPECT_EQ(1, length);
    ASSERT_EQ(S_OK, a->CreateNotCondition(buttons.get(), notButton.put()));
    ASSERT_EQ(S_OK, a->CreateOrCondition(byNameCase.get(), notButton.get(), either.put()));
    ASSERT_EQ(S_OK, root->FindAll(TreeScope_Subtree, either.get(), found.put()));
    EXPECT_EQ(S_OK, found->get_Length(&length));
    EXPECT_EQ(6, length);  // all but OK
    Ref<IUIAutomationAndCondition> andCond;
    ASSERT_EQ(S_OK, both->QueryInterface(IID_IUIAutomationAndCondition, andCond.putVoid()));
    int children = 0;
    EXPECT_EQ(S_OK, andCond->get_ChildCount(&children));
    EXPECT_EQ(2, children);
    IUIAutomationCondition** parts = nullptr;
    EXPECT_EQ(S_OK, andCond->GetChildrenAsNativeArray(&parts, &children));
    ASSERT_EQ(2, children);
    Ref<IUIAutomationPropertyCondition> prop;
    ASSERT_EQ(S_OK, parts[0]->QueryInterface(IID_IUIAutomationPropertyCondition, prop.putVoid()));
    PROPERTYID pid = 0;
    EXPECT_EQ(S_OK, prop->get_PropertyId(&pid));
    EXPECT_EQ(UIA_ControlTypePropertyId, pid);
    for (int i = 0; i < children; ++i) parts[i]->Release();
    CoTaskMemFree(parts);

    // A value of the wrong type, and a property the simulation does not model.
    v.vt = VT_I4;
    v.lVal = 1;
    Ref<IUIAutomationCondition> bad;
    EXPECT_EQ(E_INVALIDARG, a->CreatePropertyCondition(UIA_NamePropertyId, v, bad.put()));
    EXPECT_EQ(E_NOTIMPL, a->CreatePropertyCondition(12345, v, bad.put()));
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(L"x");
    EXPECT_EQ(E_NOTIMPL, a->CreatePropertyCondition(UIA_ValueValuePropertyId, v, bad.put()));
    VariantClear(&v);
    EXPECT_EQ((std::vector<std::string>{"IUIAutomation::CreatePropertyCondition(12345)",
                                        "IUIAutomation::CreatePropertyCondition(ValueValue)"}),
              platform.unsupportedCalls());

    for (auto* r : {&all, &byName, &byNameCase, &buttons, &both, &either, &notButton}) r->reset();
    root.reset();
    found.reset();
    first.reset();
    hit.reset();
    andCond.reset();
    prop.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, RemovedNodeIsNotAvailable) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Desktop d = buildDesktop(platform);
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationElement> ok(findByName(a.get(), L"OK"));
    Ref<IUIAutomationElement> main(findByName(a.get(), L"Main"));
    ASSERT_TRUE(ok && main);
    // The panel is no control element, so FindFirst skips it; the raw view has it.
    EXPECT_EQ(nullptr, findByName(a.get(), L"Panel"));
    Ref<IUIAutomationTreeWalker> w;
    ASSERT_EQ(S_OK, a->get_RawViewWalker(w.put()));
    Ref<IUIAutomationElement> panel;
    ASSERT_EQ(S_OK, w->GetLastChildElement(main.get(), panel.put()));
    ASSERT_TRUE(panel);
    EXPECT_TRUE(d.ok->inTree());
    d.ok->remove();
    EXPECT_FALSE(d.ok->inTree());
    EXPECT_EQ(nullptr, d.ok->parent());

    BSTR s = nullptr;
    EXPECT_EQ(kNotAvailable, ok->get_CurrentName(&s));
    EXPECT_EQ(nullptr, s);
    CONTROLTYPEID type = 0;
    EXPECT_EQ(kNotAvailable, ok->get_CurrentControlType(&type));
    SAFEARRAY* id = nullptr;
    EXPECT_EQ(kNotAvailable, ok->GetRuntimeId(&id));
    VARIANT v;
    EXPECT_EQ(kNotAvailable, ok->GetCurrentPropertyValue(UIA_NamePropertyId, &v));
    RECT r;
    EXPECT_EQ(kNotAvailable, ok->get_CurrentBoundingRectangle(&r));
    Ref<IUIAutomationElement> next;
    EXPECT_EQ(kNotAvailable, w->GetNextSiblingElement(ok.get(), next.put()));
    EXPECT_FALSE(next);

    // A whole subtree leaves with its root.
    d.panel->remove();
    EXPECT_FALSE(d.inner->inTree());
    EXPECT_EQ(kNotAvailable, panel->get_CurrentName(&s));
    EXPECT_EQ(nullptr, findByName(a.get(), L"Inner"));
    Ref<IUIAutomationElement> cancel(findByName(a.get(), L"Cancel"));
    ASSERT_TRUE(cancel);
    EXPECT_EQ(S_OK, w->GetPreviousSiblingElement(cancel.get(), next.put()));
    EXPECT_FALSE(next);
    EXPECT_THROW(platform.desktop().remove(), std::logic_error);

    ok.reset();
    main.reset();
    panel.reset();
    cancel.reset();
    w.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, FailureInjection) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Desktop d = buildDesktop(platform);
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationElement> ok(findByName(a.get(), L"OK"));
    Ref<IUIAutomationElement> ok2(findByName(a.get(), L"OK"));
    ASSERT_TRUE(ok && ok2);

    d.ok->fail("get_CurrentControlType", E_ACCESSDENIED);
    CONTROLTYPEID type = 0;
    EXPECT_EQ(E_ACCESSDENIED, ok->get_CurrentControlType(&type));
    EXPECT_EQ(E_ACCESSDENIED, ok2->get_CurrentControlType(&type));
    EXPECT_EQ(L"OK", nameOf(ok.get()));
    // A failing read poisons its non-pointer outputs; a VARIANT stays empty.
    EXPECT_EQ(fakeuia::poisoned<CONTROLTYPEID>(), type);
    d.ok->fail("get_CurrentBoundingRectangle", E_FAIL);
    d.ok->fail("get_CurrentIsEnabled", E_FAIL);
    d.ok->fail("GetCurrentPropertyValue", E_FAIL);
    RECT rect{};
    BOOL enabled = TRUE;
    VARIANT value;
    VariantInit(&value);
    EXPECT_EQ(E_FAIL, ok->get_CurrentBoundingRectangle(&rect));
    EXPECT_EQ(fakeuia::poisoned<LONG>(), rect.left);
    EXPECT_EQ(fakeuia::poisoned<LONG>(), rect.bottom);
    EXPECT_EQ(E_FAIL, ok->get_CurrentIsEnabled(&enabled));
    EXPECT_EQ(fakeuia::poisoned<BOOL>(), enabled);
    EXPECT_EQ(E_FAIL, ok->GetCurrentPropertyValue(UIA_LevelPropertyId, &value));
    EXPECT_EQ(VT_EMPTY, value.vt);
    EXPECT_EQ(fakeuia::poisoned<LONG>(), value.lVal);
    d.ok->clearFailures();
    EXPECT_EQ(S_OK, ok->get_CurrentControlType(&type));
    EXPECT_EQ(UIA_ButtonControlTypeId, type);

    d.ok->nullString("get_CurrentName");
    BSTR s = reinterpret_cast<BSTR>(1);
    EXPECT_EQ(S_OK, ok->get_CurrentName(&s));
    EXPECT_EQ(nullptr, s);
    d.ok->clearFailures();
    EXPECT_EQ(L"OK", nameOf(ok.get()));

    Ref<IUIAutomationTreeWalker> w;
    ASSERT_EQ(S_OK, a->get_RawViewWalker(w.put()));
    d.ok->fail("GetNextSiblingElement", E_FAIL);
    Ref<IUIAutomationElement> next;
    EXPECT_EQ(E_FAIL, w->GetNextSiblingElement(ok.get(), next.put()));
    EXPECT_FALSE(next);
    Ref<IUIAutomationElement> cancel(findByName(a.get(), L"Cancel"));
    EXPECT_EQ(S_OK, w->GetPreviousSiblingElement(cancel.get(), next.put()));  // other steps work
    EXPECT_TRUE(next);
    EXPECT_THROW(d.ok->fail("get_CurrentNmae", E_FAIL), std::invalid_argument);
    EXPECT_THROW(d.ok->nullString("get_CurrentControlType"), std::invalid_argument);

    platform.fail("GetRootElement", E_OUTOFMEMORY);
    Ref<IUIAutomationElement> root;
    EXPECT_EQ(E_OUTOFMEMORY, a->GetRootElement(root.put()));
    EXPECT_FALSE(root);
    platform.clearFailure("GetRootElement");
    EXPECT_EQ(S_OK, a->GetRootElement(root.put()));
    EXPECT_THROW(platform.fail("GetRoot", E_FAIL), std::invalid_argument);

    ok.reset();
    ok2.reset();
    cancel.reset();
    next.reset();
    root.reset();
    w.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, PropertiesAndLookups) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Desktop d = buildDesktop(platform);
    d.cancel->update([](fakeuia::NodeSpec& s) {
        s.fullDescription = L"Closes without saving";
        s.helpText = L"help";
        s.ariaRole = L"button";
        s.runtimeId = std::vector<int>{};  // none
    });
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationElement> cancel(findByName(a.get(), L"Cancel"));
    ASSERT_TRUE(cancel);

    VARIANT v;
    ASSERT_EQ(S_OK, cancel->GetCurrentPropertyValue(UIA_FullDescriptionPropertyId, &v));
    ASSERT_EQ(VT_BSTR, v.vt);
    EXPECT_STREQ(L"Closes without saving", v.bstrVal);
    VariantClear(&v);
    ASSERT_EQ(S_OK, cancel->GetCurrentPropertyValue(UIA_ProcessIdPropertyId, &v));  // taken from the parent
    EXPECT_EQ(VT_I4, v.vt);
    EXPECT_EQ(4711, v.lVal);
    ASSERT_EQ(S_OK, cancel->GetCurrentPropertyValue(UIA_BoundingRectanglePropertyId, &v));
    ASSERT_EQ(VT_R8 | VT_ARRAY, v.vt);
    RECT rect{};
    EXPECT_EQ(S_OK, a->VariantToRect(v, &rect));
    EXPECT_EQ(120, rect.left);
    EXPECT_EQ(220, rect.right);
    VariantClear(&v);
    BSTR s = nullptr;
    ASSERT_EQ(S_OK, cancel->get_CurrentLocalizedControlType(&s));
    EXPECT_EQ(L"button", take(s));
    ASSERT_EQ(S_OK, cancel->get_CurrentHelpText(&s));
    EXPECT_EQ(L"help", take(s));
    SAFEARRAY* id = reinterpret_cast<SAFEARRAY*>(1);
    EXPECT_EQ(S_OK, cancel->GetRuntimeId(&id));
    EXPECT_EQ(nullptr, id);
    POINT pt{};
    BOOL got = FALSE;
    EXPECT_EQ(S_OK, cancel->GetClickablePoint(&pt, &got));
    EXPECT_TRUE(got);
    EXPECT_EQ(170, pt.x);
    EXPECT_EQ(25, pt.y);

    // Unmodeled properties read as empty (or "not supported"), and are recorded.
    ASSERT_EQ(S_OK, cancel->GetCurrentPropertyValue(UIA_ValueValuePropertyId, &v));
    EXPECT_EQ(VT_EMPTY, v.vt);
    ASSERT_EQ(S_OK, cancel->GetCurrentPropertyValueEx(UIA_ValueValuePropertyId, TRUE, &v));
    ASSERT_EQ(VT_UNKNOWN, v.vt);
    BOOL notSupported = FALSE;
    EXPECT_EQ(S_OK, a->CheckNotSupported(v, &notSupported));
    EXPECT_TRUE(notSupported);
    VariantClear(&v);
    EXPECT_EQ((std::vector<PROPERTYID>{UIA_ValueValuePropertyId, UIA_ValueValuePropertyId}),
              platform.unmodeledPropertyReads());
    ASSERT_EQ(S_OK, cancel->GetCurrentPropertyValue(UIA_IsInvokePatternAvailablePropertyId, &v));
    EXPECT_EQ(VT_BOOL, v.vt);
    EXPECT_EQ(VARIANT_FALSE, v.boolVal);
    Ref<IUnknown> pattern;
    EXPECT_EQ(S_OK, cancel->GetCurrentPattern(UIA_InvokePatternId, pattern.put()));
    EXPECT_FALSE(pattern);
    EXPECT_EQ(fakeuia::kNotCached, cancel->get_CachedName(&s));

    // Lookups by handle, point and focus.
    Ref<IUIAutomationElement> e;
    ASSERT_EQ(S_OK, a->ElementFromHandle(fakeuia::hwnd(0x1234), e.put()));
    EXPECT_EQ(L"Main", nameOf(e.get()));
    EXPECT_EQ(kNotAvailable, a->ElementFromHandle(fakeuia::hwnd(0x9999), e.put()));
    ASSERT_EQ(S_OK, a->ElementFromPoint(POINT{50, 120}, e.put()));
    EXPECT_EQ(L"Inner", nameOf(e.get()));
    ASSERT_EQ(S_OK, a->ElementFromPoint(POINT{150, 20}, e.put()));
    EXPECT_EQ(L"Cancel", nameOf(e.get()));
    d.cancel->update([](fakeuia::NodeSpec& s) { s.isOffscreen = true; });
    ASSERT_EQ(S_OK, a->ElementFromPoint(POINT{150, 20}, e.put()));
    EXPECT_EQ(L"Main", nameOf(e.get()));
    ASSERT_EQ(S_OK, a->ElementFromPoint(POINT{1500, 900}, e.put()));
    EXPECT_EQ(L"Desktop", nameOf(e.get()));
    ASSERT_EQ(S_OK, a->GetFocusedElement(e.put()));
    EXPECT_EQ(L"Desktop", nameOf(e.get()));
    Ref<IUIAutomationElement> ok(findByName(a.get(), L"OK"));
    EXPECT_EQ(S_OK, ok->SetFocus());
    EXPECT_EQ(1, d.ok->setFocusCalls());
    ASSERT_EQ(S_OK, a->GetFocusedElement(e.put()));
    EXPECT_EQ(L"OK", nameOf(e.get()));
    BOOL focused = FALSE;
    EXPECT_EQ(S_OK, ok->get_CurrentHasKeyboardFocus(&focused));
    EXPECT_TRUE(focused);

    // Programmatic names and conversions.
    EXPECT_EQ(S_OK, a->GetPropertyProgrammaticName(UIA_NamePropertyId, &s));
    EXPECT_EQ(L"Name", take(s));
    EXPECT_EQ(S_OK, a->GetPatternProgrammaticName(UIA_InvokePatternId, &s));
    EXPECT_EQ(L"InvokePattern", take(s));
    int ints[3] = {1, 2, 3};
    SAFEARRAY* sa = nullptr;
    ASSERT_EQ(S_OK, a->IntNativeArrayToSafeArray(ints, 3, &sa));
    EXPECT_EQ((std::vector<LONG>{1, 2, 3}), intsOf(sa));
    SafeArrayDestroy(sa);
    sa = SafeArrayCreateVector(VT_R8, 0, 8);
    double rects[8] = {1, 2, 10, 20, 5, 5, 1, 1};
    for (LONG i = 0; i < 8; ++i) SafeArrayPutElement(sa, &i, &rects[i]);
    RECT* out = nullptr;
    int count = 0;
    ASSERT_EQ(S_OK, a->SafeArrayToRectNativeArray(sa, &out, &count));
    ASSERT_EQ(2, count);
    EXPECT_EQ(11, out[0].right);
    EXPECT_EQ(22, out[0].bottom);
    EXPECT_EQ(6, out[1].right);
    CoTaskMemFree(out);
    SafeArrayDestroy(sa);

    // Calls the simulation does not support are answered E_NOTIMPL and recorded.
    Ref<IUIAutomationCacheRequest> cache;
    EXPECT_EQ(E_NOTIMPL, a->CreateCacheRequest(cache.put()));
    ASSERT_EQ(1u, platform.unsupportedCalls().size());
    EXPECT_EQ("IUIAutomation::CreateCacheRequest", platform.unsupportedCalls()[0]);

    cancel.reset();
    e.reset();
    ok.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, EventHandlersAreHeldAndReleased) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Desktop d = buildDesktop(platform);
    Ref<IUIAutomation> a;
    createOrFail(a);
    Ref<IUIAutomationElement> root;
    ASSERT_EQ(S_OK, a->GetRootElement(root.put()));
    CountingHandler handler;

    ASSERT_EQ(S_OK, a->AddAutomationEventHandler(UIA_Window_WindowOpenedEventId, root.get(), TreeScope_Subtree,
                                                 nullptr, &handler));
    ASSERT_EQ(S_OK, a->AddFocusChangedEventHandler(nullptr, &handler));
    EXPECT_EQ(3u, handler.refs.load());
    auto records = platform.eventHandlers();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(fakeuia::EventHandlerRecord::Kind::Automation, records[0].kind);
    EXPECT_EQ(UIA_Window_WindowOpenedEventId, records[0].eventId);
    EXPECT_EQ(&platform.desktop(), records[0].node);
    EXPECT_EQ(TreeScope_Subtree, records[0].scope);
    EXPECT_EQ(fakeuia::EventHandlerRecord::Kind::FocusChanged, records[1].kind);

    EXPECT_EQ(1, platform.raiseAutomationEvent(UIA_Window_WindowOpenedEventId, *d.other));
    ASSERT_TRUE(platform.waitForEvents(5000));
    EXPECT_EQ(1, handler.events);
    EXPECT_EQ(L"Other", handler.lastSender);
    EXPECT_NE(GetCurrentThreadId(), handler.lastThread) << "delivered on the raising thread";
    EXPECT_EQ(0, platform.raiseAutomationEvent(UIA_Invoke_InvokedEventId, *d.other));
    EXPECT_EQ(1, platform.raiseFocusChangedEvent(*d.ok));
    ASSERT_TRUE(platform.waitForEvents(5000));
    EXPECT_EQ(L"OK", handler.lastSender);

    ASSERT_EQ(S_OK, a->RemoveAutomationEventHandler(UIA_Window_WindowOpenedEventId, root.get(), &handler));
    EXPECT_EQ(2u, handler.refs.load());
    EXPECT_EQ(S_OK, a->RemoveAutomationEventHandler(UIA_Window_WindowOpenedEventId, root.get(), &handler));
    EXPECT_EQ(1, platform.unmatchedHandlerRemovals());
    ASSERT_EQ(S_OK, a->RemoveAllEventHandlers());
    EXPECT_EQ(1u, handler.refs.load());
    EXPECT_TRUE(platform.eventHandlers().empty());

    root.reset();
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}

TEST(FakeUia, ManyThreadsAtOnce) {
    Mta mta;
    fakeuia::Platform platform;
    ASSERT_EQ(S_OK, platform.install());
    Desktop d = buildDesktop(platform);
    Ref<IUIAutomation> a;
    createOrFail(a);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            Ref<IUIAutomationCondition> all;
            Ref<IUIAutomationTreeWalker> w;
            if (FAILED(a->CreateTrueCondition(all.put())) || FAILED(a->get_RawViewWalker(w.put()))) ++failures;
            for (int i = 0; i < 200 && !stop; ++i) {
                Ref<IUIAutomationElement> root, child;
                Ref<IUIAutomationElementArray> found;
                if (FAILED(a->GetRootElement(root.put()))) ++failures;
                if (FAILED(root->FindAll(TreeScope_Subtree, all.get(), found.put()))) ++failures;
                int n = 0;
                found->get_Length(&n);
                for (int k = 0; k < n; ++k) {
                    Ref<IUIAutomationElement> e;
                    found->GetElement(k, e.put());
                    BSTR s = nullptr;
                    HRESULT hr = e->get_CurrentName(&s);  // may have been removed meanwhile
                    if (hr != S_OK && hr != kNotAvailable) ++failures;
                    SysFreeString(s);
                }
                if (FAILED(w->GetFirstChildElement(root.get(), child.put()))) ++failures;
            }
            all.reset();
            w.reset();
            CoUninitialize();
        });
    }
    for (int i = 0; i < 100; ++i) {
        fakeuia::Node& n = d.main->add({.name = L"transient"});
        n.add({.name = L"child"});
        n.remove();
    }
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    a.reset();
    EXPECT_NO_REFERENCES(platform);
}
