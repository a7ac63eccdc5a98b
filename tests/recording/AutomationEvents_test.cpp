// The recorder's UI Automation handlers through the real driver: what each
// listener mode registers on the platform, and how the events that the
// platform's own threads deliver reach Java as UIAutomationEvents.
#include "DriverTest.h"
#include "ImportPatch.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>
#include <tuple>

using namespace dwtest;
using fakeuia::EventHandlerRecord;
using fakeuia::Node;

namespace {

const std::string UIA_EVENT = EVENT_PACKAGE + "UIAutomationEvent";
const std::string CALLBACK_EVENT = EVENT_PACKAGE + "CallbackEvent";
const int OTHER_PID = 4242;

// A UIAutomationEvent as Java received it: handle, code, parameter, text.
using Seen = std::tuple<jlong, jint, jint, std::wstring>;

std::int64_t nowMillis() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const std::int64_t ticks = (static_cast<std::int64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    return (ticks - 116444736000000000LL) / 10000;
}

// The driver's GetTickCount, taken over.
std::atomic<DWORD> ticks{0};
DWORD WINAPI fakeTickCount() { return ticks; }

// "20017@Main/1", "property@Main/7[30102,...]", "structure@Main/7".
std::string describe(const EventHandlerRecord& r) {
    using Kind = EventHandlerRecord::Kind;
    const std::wstring name = r.node ? r.node->spec().name : L"-";
    std::string text = r.kind == Kind::Automation ? std::to_string(r.eventId)
                       : r.kind == Kind::PropertyChanged ? "property"
                       : r.kind == Kind::StructureChanged ? "structure" : "focus";
    text += "@" + std::string(name.begin(), name.end()) + "/" + std::to_string(r.scope);
    for (size_t i = 0; i < r.properties.size(); ++i) text += (i ? "," : "[") + std::to_string(r.properties[i]);
    return text + (r.properties.empty() ? "" : "]") + (r.withCacheRequest ? " cached" : "");
}

VARIANT variantOf(LONG number) {
    VARIANT value{};
    value.vt = VT_I4;
    value.lVal = number;
    return value;
}

class AutomationEvents : public DriverTest {
protected:
    // The target is this process, with the window "Main" that holds the
    // button "OK"; the window "Other" of another process stands beside it.
    // Without a mode, the connection's stays (with time-stamped events: all bits).
    void connect(std::optional<jint> mode = std::nullopt) {
        main = &addOwnWindow(L"Main");
        ok = &main->add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {20, 20, 80, 40}});
        other = &addWindow(L"Other", L"OtherWindow", OTHER_PID);
        ASSERT_NE(0, attach(ownPidArgs(), 1000));
        settle();  // the registration of the connection is queued behind onConnect
        if (mode) native<void>("EnableEventListeners", *mode);
    }
    // Waits until everything raised so far went through the dispatch queue:
    // the platform has delivered it, and a trigger queued behind it reached Java.
    void settle() {
        ASSERT_TRUE(platform->waitForEvents(10000)) << "the platform did not deliver";
        const size_t triggers = host->constructions(CALLBACK_EVENT).size();
        native<void>("TriggerThread");
        ASSERT_TRUE(host->waitForConstructions(CALLBACK_EVENT, triggers + 1, 10000)) << "the dispatch queue is stuck";
    }
    std::vector<Seen> seen() {
        std::vector<Seen> out;
        for (const jnihost::Construction& c : host->constructions(UIA_EVENT))
            out.emplace_back(c.args[1].j, c.args[2].i, c.args[3].i, host->text(static_cast<jstring>(c.args[4].l)));
        return out;
    }
    std::vector<std::string> registrations() {
        std::vector<std::string> out;
        for (const EventHandlerRecord& r : platform->eventHandlers()) out.push_back(describe(r));
        return out;
    }
    // The serials of the standing registrations: equal lists mean that
    // nothing was removed or added.
    std::vector<int> serials() {
        std::vector<int> out;
        for (const EventHandlerRecord& r : platform->eventHandlers()) out.push_back(r.serial);
        return out;
    }
    int registrationsMade() {
        int last = 0;
        for (const EventHandlerRecord& r : platform->eventHandlers()) last = std::max(last, r.serial);
        return last;
    }
    void raiseProperty(PROPERTYID property, VARIANT value, int reached = 1) {
        EXPECT_EQ(reached, platform->raisePropertyChangedEvent(*ok, property, value)) << "property " << property;
    }
    std::wstring parentText(Node& parent) { return L"p=" + std::to_wstring(handleOf(parent)); }

    Node* main = nullptr;
    Node* ok = nullptr;
    Node* other = nullptr;
};

// --- registrations --------------------------------------------------------------------

const std::vector<std::string> AUTOMATION_ROWS = {
    "20006@Main/7", "20009@Main/7", "20008@Main/7", "20003@Main/7", "20007@Main/7",
    "20012@Main/7", "20010@Main/7", "20011@Main/7", "20015@Main/7"};
const std::string OPENED_ROW = "20016@Desktop/2";
const std::string CLOSED_ROW = "20017@Main/1";
const std::string PROPERTY_ROW = "property@Main/7[30102,30101,30070,30079,30086,30076]";
const std::string STRUCTURE_ROW = "structure@Main/7";

struct ModeCase {
    const char* name;
    jint mode;
    bool automation, properties, structure;
};

class Registrations : public AutomationEvents, public ::testing::WithParamInterface<ModeCase> {};

// Each mode registers its rows, in their order, on the target's window only,
// from the dispatch thread, with one handler object behind all of them.
TEST_P(Registrations, TheModeRegistersItsRowsInOrderOnTheTargetsWindows) {
    const ModeCase c = GetParam();
    connect(c.mode == -1 ? std::nullopt : std::optional<jint>(c.mode));
    std::vector<std::string> expected;
    if (c.automation) expected.push_back(OPENED_ROW);
    expected.push_back(CLOSED_ROW);
    if (c.automation) expected.insert(expected.end(), AUTOMATION_ROWS.begin(), AUTOMATION_ROWS.end());
    if (c.properties) expected.push_back(PROPERTY_ROW);
    if (c.structure) expected.push_back(STRUCTURE_ROW);
    EXPECT_EQ(expected, registrations()) << c.name;

    const DWORD dispatch = host->calls("filterEvent")[0].threadId;  // onConnect
    const std::vector<EventHandlerRecord> records = platform->eventHandlers();
    for (const EventHandlerRecord& r : records) {
        EXPECT_EQ(records[0].handler, r.handler) << describe(r) << ": another object";
        EXPECT_EQ(dispatch, r.threadId) << describe(r) << ": not registered on the dispatch thread";
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, Registrations,
                         ::testing::Values(ModeCase{"connection", -1, true, true, true},
                                           ModeCase{"automation", 0x002, true, false, false},
                                           ModeCase{"structure", 0x004, false, false, true},
                                           ModeCase{"properties", 0x008, false, true, false},
                                           ModeCase{"input_only", 0x001, false, false, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// The handler answers its three interfaces as one object, with the pointers
// of its three parts, and nothing else.
TEST_F(AutomationEvents, TheHandlerIsOneObjectBehindThreeInterfaces) {
    connect();
    ASSERT_FALSE(platform->eventHandlers().empty());
    IUnknown* object = platform->eventHandlers()[0].handler;
    void* parts[3] = {};
    const IID* iids[3] = {&IID_IUIAutomationEventHandler, &IID_IUIAutomationPropertyChangedEventHandler,
                          &IID_IUIAutomationStructureChangedEventHandler};
    for (int i = 0; i < 3; ++i) ASSERT_EQ(S_OK, object->QueryInterface(*iids[i], &parts[i])) << i;
    EXPECT_EQ(static_cast<void*>(object), parts[0]);
    EXPECT_NE(parts[0], parts[1]);
    EXPECT_NE(parts[1], parts[2]);
    void* back = nullptr;
    ASSERT_EQ(S_OK, static_cast<IUnknown*>(parts[2])->QueryInterface(IID_IUnknown, &back));
    EXPECT_EQ(static_cast<void*>(object), back);
    void* none = reinterpret_cast<void*>(1);
    EXPECT_EQ(E_NOINTERFACE, object->QueryInterface(IID_IDispatch, &none));
    EXPECT_EQ(nullptr, none);
    for (void* taken : {parts[0], parts[1], parts[2], back}) static_cast<IUnknown*>(taken)->Release();
    const ULONG held = object->AddRef();
    EXPECT_EQ(held - 1, object->Release());
}

// The current mode again changes nothing; another mode makes every
// registration anew.
TEST_F(AutomationEvents, TheSameModeAgainLeavesTheRegistrations) {
    connect();
    const std::vector<int> atConnection = serials();
    native<void>("EnableEventListeners", jint{-1});
    EXPECT_EQ(atConnection, serials()) << "the connection's mode";
    native<void>("EnableEventListeners", jint{0x00F});
    const std::vector<int> changed = serials();
    EXPECT_GT(changed.front(), atConnection.back()) << "not made anew";
    native<void>("EnableEventListeners", jint{0x00F});
    EXPECT_EQ(changed, serials()) << "a mode set twice";
}

// --- events -------------------------------------------------------------------------

// Every kind reaches Java on the dispatch thread, in the order raised, with
// its code, parameter, text and the sender's handle, stamped at arrival.
TEST_F(AutomationEvents, EveryKindReachesJavaWithItsCodeParameterTextAndHandle) {
    connect();
    const std::int64_t before = nowMillis();
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Invoke_InvokedEventId, *ok));
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Text_TextChangedEventId, *ok));
    raiseProperty(UIA_ToggleToggleStatePropertyId, variantOf(-7));
    VARIANT text{};
    text.vt = VT_BSTR;
    text.bstrVal = SysAllocString(L"tab");
    raiseProperty(UIA_AriaRolePropertyId, text);
    SysFreeString(text.bstrVal);
    VARIANT flag{};
    flag.vt = VT_BOOL;
    flag.boolVal = VARIANT_TRUE;
    raiseProperty(UIA_SelectionItemIsSelectedPropertyId, flag);
    raiseProperty(UIA_NamePropertyId, variantOf(1), 0);  // not watched
    EXPECT_EQ(1, platform->raiseStructureChangedEvent(*ok, StructureChangeType_ChildRemoved, {}));
    EXPECT_EQ(1, platform->raiseStructureChangedEvent(*ok, StructureChangeType_ChildAdded, {}));
    settle();
    ok->fail("GetParentElement", E_FAIL);
    EXPECT_EQ(1, platform->raiseStructureChangedEvent(*ok, StructureChangeType_ChildAdded, {}));
    settle();
    const std::int64_t after = nowMillis();

    const jlong button = handleOf(*ok);
    const std::vector<Seen> expected = {
        {button, UIA_Invoke_InvokedEventId, 0, L""},
        {button, UIA_Text_TextChangedEventId, 0, L""},
        {button, 4096, UIA_ToggleToggleStatePropertyId, L"-7"},
        {button, 4096, UIA_AriaRolePropertyId, L"tab"},
        {button, 4096, UIA_SelectionItemIsSelectedPropertyId, L""},  // neither text nor number
        {button, 4097, StructureChangeType_ChildRemoved, L""},       // no parent looked up
        {button, 4097, StructureChangeType_ChildAdded, parentText(*main)},
        {button, 4097, StructureChangeType_ChildAdded, L"p=0"},  // no parent to be had
    };
    EXPECT_EQ(expected, seen());

    const DWORD dispatch = host->calls("filterEvent")[0].threadId;
    for (const jnihost::Construction& c : host->constructions(UIA_EVENT)) {
        EXPECT_EQ(204, c.args[0].i);
        EXPECT_EQ("(IJIILjava/lang/String;J)V", c.signature);
        EXPECT_GE(c.args[5].j, before);
        EXPECT_LE(c.args[5].j, after);
        EXPECT_EQ(dispatch, c.threadId) << "not on the dispatch thread";
    }
}

// A window of the target that opens gets its handlers with one
// re-installation, however often it is reported; a window of another process
// changes nothing; a window that closes and opens again counts as new.
TEST_F(AutomationEvents, WindowsOfTheTargetThatOpenAndCloseAreInstalledOnce) {
    connect();
    Node& dialog = addOwnWindow(L"Dialog");
    const int firstInstallation = registrationsMade();
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowOpenedEventId, *other));
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowOpenedEventId, dialog));
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowOpenedEventId, dialog));
    settle();
    const int perInstallation = static_cast<int>(platform->eventHandlers().size());
    EXPECT_EQ(1 + 2 * 12, perInstallation) << "the new window has no handlers";
    EXPECT_EQ(firstInstallation + perInstallation, registrationsMade()) << "not one re-installation";
    const Seen opened{handleOf(dialog), UIA_Window_WindowOpenedEventId, 0, L""};
    EXPECT_EQ(std::vector<Seen>{opened}, seen());

    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowClosedEventId, dialog));
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowOpenedEventId, dialog));
    settle();
    EXPECT_EQ(firstInstallation + 3 * perInstallation, registrationsMade()) << "closed and opened: two installations";
    EXPECT_EQ((std::vector<Seen>{opened, {handleOf(dialog), UIA_Window_WindowClosedEventId, 0, L""}, opened}), seen());
}

// A closed window whose control was given up and that can't tell its type
// any more makes an invalid control: it is dropped and nothing reaches Java.
// A closed window whose control stands keeps its type and goes up.
TEST_F(AutomationEvents, AClosedWindowWithoutAControlOrATypeReachesNobody) {
    connect();
    Node& tools = addOwnWindow(L"Tools");
    platform->raiseAutomationEvent(UIA_Window_WindowOpenedEventId, tools);
    settle();
    const size_t before = seen().size();
    native<void>("ReleaseControls");
    main->fail("get_CurrentControlType", fakeuia::kElementNotAvailable);
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowClosedEventId, *main));
    settle();
    EXPECT_EQ(before, seen().size()) << "the invalid window went up";
    EXPECT_EQ(1u, LogFile::count("Invalid element", 5));

    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowClosedEventId, tools));
    settle();
    ASSERT_EQ(before + 1, seen().size());
    jlong toolsHandle = 0;
    for (jlong top : toplevels()) toolsHandle = attr(top, L"name") == L"Tools" ? top : toolsHandle;
    EXPECT_EQ((Seen{toolsHandle, UIA_Window_WindowClosedEventId, 0, L""}), seen().back());
}

// When the target's window closes and its windows can't be listed any more,
// the re-installation finds no top-level window: only the desktop's handler
// stands, and the closed event goes up without a control, as handle 0.
TEST_F(AutomationEvents, AnEventAfterAnInstallationWithoutWindowsGoesUpWithoutAControl) {
    connect();
    platform->desktop().fail("FindAll", E_FAIL);
    EXPECT_EQ(1, platform->raiseAutomationEvent(UIA_Window_WindowClosedEventId, *main));
    settle();
    EXPECT_EQ(std::vector<std::string>{OPENED_ROW}, registrations());
    EXPECT_EQ((std::vector<Seen>{{0, UIA_Window_WindowClosedEventId, 0, L""}}), seen());
}

// Child-added events of one parent: with 0x100 they name the parent, and
// with 0x200 as well one that comes within 200 ticks of the last is dropped,
// restarting the period.
struct ThinningCase {
    const char* name;
    jint mode;
    bool named;
    bool thinned;
};

class ChildAdded : public AutomationEvents, public ::testing::WithParamInterface<ThinningCase> {};

TEST_P(ChildAdded, ParentNamedAndRepeatsThinnedByTheMode) {
    const ThinningCase c = GetParam();
    connect(c.mode == -1 ? std::nullopt : std::optional<jint>(c.mode));
    ImportPatch clock(dll->module(), "GetTickCount", reinterpret_cast<void*>(&fakeTickCount));
    ASSERT_TRUE(clock.applied());
    ticks = 5000000;
    for (DWORD step : {0u, 200u, 201u}) {
        ticks += step;
        EXPECT_EQ(1, platform->raiseStructureChangedEvent(*ok, StructureChangeType_ChildAdded, {}));
        settle();  // the clock is read when the event is dispatched
    }
    const Seen added{handleOf(*ok), 4097, StructureChangeType_ChildAdded, c.named ? parentText(*main) : L""};
    EXPECT_EQ(std::vector<Seen>(c.thinned ? 2 : 3, added), seen()) << c.name;
}

INSTANTIATE_TEST_SUITE_P(Modes, ChildAdded,
                         ::testing::Values(ThinningCase{"connection", -1, true, true},
                                           ThinningCase{"parent", 0x104, true, false},
                                           ThinningCase{"thinningWithoutParent", 0x204, false, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// A detach while the platform still delivers leaves no registration, and
// every handler object made is destroyed; the teardown finds no reference.
TEST_F(AutomationEvents, DetachWhileEventsAreInFlightLeavesNoHandler) {
    connect();
    std::atomic<bool> stop{false};
    std::thread raiser([&] {
        for (int i = 0; i < 5000 && !stop; ++i) platform->raiseAutomationEvent(UIA_Invoke_InvokedEventId, *ok);
    });
    EXPECT_TRUE(host->waitForConstructions(UIA_EVENT, 20, 10000));
    detachAndWait();
    stop = true;
    raiser.join();
    ASSERT_TRUE(platform->waitForEvents(10000));
    EXPECT_TRUE(platform->eventHandlers().empty());
    size_t made = 0, deleted = 0;
    for (const LogLine& line : LogFile::lines()) {
        if (line.logger != "tolva.uia.UiaAutoEvents") continue;
        made += line.level == 7 && line.method == "UiaAutoEventHandler()" ? 1 : 0;
        deleted += line.level == 5 && line.message == "delete" ? 1 : 0;
    }
    EXPECT_GE(made, 1u);
    EXPECT_EQ(made, deleted) << "a handler object outlived the detach";
}

// --- a burst -------------------------------------------------------------------------

class AutomationBurst : public AutomationEvents {
protected:
    std::wstring logLevels() const override { return L"*=2,tolva.Uia=5"; }  // the dispatch thread's end
};

// 100,000 property changes from 4 raising threads, each on a button of its
// own: all arrive, and those of one thread in the order raised.
TEST_F(AutomationBurst, EventsOfFourThreadsArriveCompleteAndInOrder) {
    dumpLogOnFailure = false;
    connect();
    const int threads = 4, perThread = 25000;
    std::vector<Node*> buttons;
    for (int t = 0; t < threads; ++t) {
        buttons.push_back(&main->add({.controlType = UIA_ButtonControlTypeId, .name = L"B" + std::to_wstring(t),
                                      .bounds = {100, 20 + 30 * t, 160, 40 + 30 * t}}));
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> raisers;
    for (int t = 0; t < threads; ++t) {
        raisers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                platform->raisePropertyChangedEvent(*buttons[t], UIA_ToggleToggleStatePropertyId, variantOf(i));
        });
    }
    for (std::thread& raiser : raisers) raiser.join();
    ASSERT_TRUE(host->waitForConstructions(UIA_EVENT, threads * perThread, 110000));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d events from %d threads in %.2f s: %.0f events/s\n", threads * perThread, threads, seconds,
                threads * perThread / seconds);

    std::map<jlong, int> next;  // by handle: the value each thread's next event must carry
    for (const auto& [handle, code, param, text] : seen()) {
        ASSERT_EQ(next[handle], std::stoi(text)) << "out of order on " << handle;
        ++next[handle];
    }
    ASSERT_EQ(static_cast<size_t>(threads), next.size());
    for (int t = 0; t < threads; ++t) EXPECT_EQ(perThread, next[handleOf(*buttons[t])]) << "button " << t;
}

}  // namespace
