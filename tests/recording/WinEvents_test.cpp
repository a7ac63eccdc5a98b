// The target's system window events as Java receives them: a serving target
// process makes, shows, hides and destroys windows and raises events of its
// own objects; the driver, attached to it, hooks
// them in the listener mode that Java enables and hands the survivors of its
// filters to filterEvent as MSAAEvent objects, on the dispatch thread, either
// at once (no time stamp) or posted from a thread of the hooks' own (with
// one).
#include "ImportPatch.h"
#include "LogFile.h"
#include "TargetTest.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>
#include <sstream>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

const jint REQUIRED = 0x020, ALL = 0x010, THIN = 0x040, ON_THREAD = 0x080;

// One MSAAEvent as Java got it.
struct Seen {
    jint code;
    HWND hwnd;
    jint arg;
    jlong timestamp;
    DWORD thread;
};

std::string shown(const std::vector<Seen>& events) {
    std::ostringstream text;
    for (const Seen& event : events) text << "[0x" << std::hex << event.code << std::dec << " arg " << event.arg << "]";
    return text.str();
}

// The recorder's clock, as the test sets it.
std::atomic<DWORD> ticks{0};
DWORD WINAPI testTickCount() { return ticks; }

// The driver's window event hooks as it asks for them, "first-last" in hex,
// with the thread that asked; a hook of another process than hookedPid, for
// one thread only, in context or with a module says so.
struct Hooked {
    DWORD thread;
    std::string range;
};
std::mutex hookedLock;
std::vector<Hooked> hooked;
DWORD hookedPid = 0;

HWINEVENTHOOK WINAPI recordedHook(DWORD first, DWORD last, HMODULE module, WINEVENTPROC procedure, DWORD pid,
                                  DWORD thread, DWORD flags) {
    char range[64];
    std::snprintf(range, sizeof range, "%lx-%lx%s", static_cast<unsigned long>(first), static_cast<unsigned long>(last),
                  module || pid != hookedPid || thread || (flags & WINEVENT_INCONTEXT) ? " (other arguments)" : "");
    {
        std::lock_guard<std::mutex> guard(hookedLock);
        hooked.push_back({GetCurrentThreadId(), range});
    }
    return SetWinEventHook(first, last, module, procedure, pid, thread, flags);
}

std::vector<Hooked> hookedSince(size_t from) {
    std::lock_guard<std::mutex> guard(hookedLock);
    return std::vector<Hooked>(hooked.begin() + static_cast<long>(std::min(from, hooked.size())), hooked.end());
}

// How often the hooks were made for a mode so far.
size_t hookRounds() {
    size_t rounds = 0;
    for (const dwtest::LogLine& line : LogFile::find("mode: 0x", 7)) rounds += line.method == "HookWinEvents()";
    return rounds;
}

class WinEvents : public dwtest::TargetTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        TargetTest::SetUp();
        main = target.makeWindow(L"DeskwrightTarget", L"Recorded main", {100, 100, 500, 400});
        ASSERT_NE(nullptr, main);
        marker = target.makeWindow(L"DeskwrightTarget", L"marker", {10, 10, 60, 40}, main);
        ASSERT_NE(nullptr, marker);
        platform->desktop().add(specOf(main, UIA_WindowControlTypeId));
        attachToTarget();
        dispatchThread = host->calls("filterEvent").at(0).threadId;
    }

    bool onThread() const { return GetParam(); }
    // Enables the listeners of the mode, in this test's thread mode.
    // With an event bit, it returns once the hooks hear the target: a thread
    // of the hooks makes them when it has started.
    void listen(jint mode) {
        native<void>("EnableEventListeners", jint(mode | (onThread() ? ON_THREAD : 0)));
        ASSERT_EQ("", dwtest::pendingException(*host));
        if (!(mode & (REQUIRED | ALL))) return;
        const size_t before = of(marker).size();
        bool heard = false;
        for (int round = 0; round < 25 && !heard; ++round) {
            ASSERT_TRUE(target.notify(EVENT_OBJECT_HIDE, marker, OBJID_WINDOW, CHILDID_SELF));
            heard = dwtest::waitUntil([&] { return of(marker).size() > before; }, 200);
        }
        ASSERT_TRUE(heard) << "the hooks don't hear the target";
    }

    std::vector<Seen> all() {
        std::vector<Seen> events;
        for (const jnihost::Construction& made : host->constructions(dwtest::EVENT_PACKAGE + "MSAAEvent")) {
            if (made.args.size() < 4) continue;
            events.push_back({made.args[1].i, reinterpret_cast<HWND>(static_cast<intptr_t>(made.args[2].i)),
                              made.args[3].i, made.args.size() > 4 ? made.args[4].j : -1, made.threadId});
        }
        return events;
    }
    // The events of one window.
    std::vector<Seen> of(HWND window) {
        std::vector<Seen> events;
        for (const Seen& event : all()) if (event.hwnd == window) events.push_back(event);
        return events;
    }
    // Waits until every event that the target raised before has gone through
    // the driver: the target raises a HIDE of the marker, which always goes
    // up, and the events of one target thread come in order.
    bool settle() {
        const size_t before = of(marker).size();
        if (!target.notify(EVENT_OBJECT_HIDE, marker, OBJID_WINDOW, CHILDID_SELF)) return false;
        return dwtest::waitUntil([&] { return of(marker).size() > before; }, 5000);
    }
    // The events of a window that came in while the target did `what`.
    template <class F>
    std::vector<Seen> during(HWND window, F what) {
        EXPECT_TRUE(settle()) << "the marker did not arrive";
        const size_t before = of(window).size();
        what();
        EXPECT_TRUE(settle()) << "the marker did not arrive";
        std::vector<Seen> events = of(window);
        return std::vector<Seen>(events.begin() + static_cast<long>(before), events.end());
    }
    std::vector<Seen> notified(HWND window, DWORD event, LONG object, LONG child) {
        return during(window, [&] { EXPECT_TRUE(target.notify(event, window, object, child)); });
    }

    HWND main = nullptr;
    HWND marker = nullptr;
    DWORD dispatchThread = 0;
};

std::string modeName(const ::testing::TestParamInfo<bool>& info) { return info.param ? "OnThread" : "Direct"; }

}  // namespace

// Real windows of the target shown and hidden, and the objects inside its
// windows created and destroyed, reach Java with the event's code, window and
// arg, on the dispatch thread; a time stamp only when posted.
TEST_P(WinEvents, WindowsAndTheirObjectsComeAndGo) {
    listen(REQUIRED);
    HWND item = target.makeWindow(L"DeskwrightTarget", L"item", {80, 10, 180, 60}, main);
    ASSERT_NE(nullptr, item);
    ASSERT_TRUE(settle());
    EXPECT_EQ("[0x8002 arg 0]", shown(of(item))) << "made visible: SHOW; the window object's CREATE stays out";

    EXPECT_EQ("[0x8003 arg 0]", shown(during(item, [&] { EXPECT_TRUE(target.hide(item)); })));
    EXPECT_EQ("[0x8002 arg 0]", shown(during(item, [&] { EXPECT_TRUE(target.show(item)); })));
    EXPECT_EQ("[0x8000 arg 3]", shown(notified(item, EVENT_OBJECT_CREATE, OBJID_CLIENT, 3)));
    EXPECT_EQ("[0x8001 arg 3]", shown(notified(item, EVENT_OBJECT_DESTROY, OBJID_CLIENT, 3)));
    for (const Seen& event : during(item, [&] { EXPECT_TRUE(target.destroy(item)); })) {
        EXPECT_NE(EVENT_OBJECT_DESTROY, static_cast<DWORD>(event.code)) << "the window object's DESTROY stays out";
    }

    const jlong now = static_cast<jlong>(time(nullptr)) * 1000;
    for (const Seen& event : all()) {
        EXPECT_EQ(dispatchThread, event.thread) << "filterEvent off the dispatch thread";
        if (onThread()) {
            EXPECT_NEAR(static_cast<double>(now), static_cast<double>(event.timestamp), 60000.0) << "posted: stamped";
        } else {
            EXPECT_EQ(0, event.timestamp) << "at once: no time stamp";
        }
    }
    EXPECT_EQ(host->calls("filterEvent").size(), 1 + all().size()) << "each event went to filterEvent";
}

// A burst of events reaches Java in the order the target raised them, though
// each one's accessible object is asked of the target while the next ones
// already come in.
TEST_P(WinEvents, EventsKeepTheirOrder) {
    listen(REQUIRED);
    std::string expected;
    const std::vector<Seen> burst = during(main, [&] {
        for (LONG child = 1; child <= 12; ++child) {
            EXPECT_TRUE(target.notify(child % 3 ? EVENT_OBJECT_CREATE : EVENT_OBJECT_SHOW, main, OBJID_CLIENT, child));
            expected += child % 3 ? "[0x8000 arg " + std::to_string(child) + "]" : "[0x8002 arg 0]";
        }
    });
    EXPECT_EQ(expected, shown(burst));
}

// Which events go up, in the mode that hooks every event: the filters alone
// decide. A menu event carries the parent of its window.
TEST_P(WinEvents, FiltersChooseWhatGoesUp) {
    listen(ALL);
    HWND plain = target.makeWindow(L"DeskwrightTarget", L"plain", {80, 10, 180, 60}, main);
    HWND wpf = target.makeWindow(L"HwndWrapper[App;;1234]", L"wpf", {80, 70, 180, 120}, main);
    ASSERT_TRUE(plain && wpf);
    struct Row {
        const char* name;
        HWND* window;
        DWORD event;
        LONG object;
        LONG child;
        std::string expected;
    } rows[] = {
        {"client object created", &plain, EVENT_OBJECT_CREATE, OBJID_CLIENT, 2, "[0x8000 arg 2]"},
        {"client object destroyed", &plain, EVENT_OBJECT_DESTROY, OBJID_CLIENT, 2, "[0x8001 arg 2]"},
        {"client itself created", &plain, EVENT_OBJECT_CREATE, OBJID_CLIENT, CHILDID_SELF, "[0x8000 arg 0]"},
        {"window object created", &plain, EVENT_OBJECT_CREATE, OBJID_WINDOW, 2, ""},
        {"window object destroyed", &plain, EVENT_OBJECT_DESTROY, OBJID_WINDOW, CHILDID_SELF, ""},
        {"WPF client created", &wpf, EVENT_OBJECT_CREATE, OBJID_CLIENT, 2, ""},
        {"WPF client destroyed", &wpf, EVENT_OBJECT_DESTROY, OBJID_CLIENT, 2, ""},
        {"WPF window shown", &wpf, EVENT_OBJECT_SHOW, OBJID_WINDOW, CHILDID_SELF, "[0x8002 arg 0]"},
        {"shown, child given", &plain, EVENT_OBJECT_SHOW, OBJID_CLIENT, 5, "[0x8002 arg 0]"},
        {"hidden", &plain, EVENT_OBJECT_HIDE, OBJID_WINDOW, CHILDID_SELF, "[0x8003 arg 0]"},
        {"dialog start", &plain, EVENT_SYSTEM_DIALOGSTART, OBJID_WINDOW, CHILDID_SELF, "[0x10 arg 0]"},
        {"dialog end", &plain, EVENT_SYSTEM_DIALOGEND, OBJID_WINDOW, CHILDID_SELF, "[0x11 arg 0]"},
        {"menu start of a top-level window", &main, EVENT_SYSTEM_MENUSTART, OBJID_WINDOW, CHILDID_SELF, "[0x4 arg 0]"},
        {"menu end of a top-level window", &main, EVENT_SYSTEM_MENUEND, OBJID_WINDOW, CHILDID_SELF, "[0x5 arg 0]"},
        {"popup start of a child", &plain, EVENT_SYSTEM_MENUPOPUPSTART, OBJID_CLIENT, CHILDID_SELF, "[0x6 arg main]"},
        {"popup end of a child", &plain, EVENT_SYSTEM_MENUPOPUPEND, OBJID_CLIENT, CHILDID_SELF, "[0x7 arg main]"},
        {"foreground", &main, EVENT_SYSTEM_FOREGROUND, OBJID_WINDOW, CHILDID_SELF, ""},
        {"focus", &plain, EVENT_OBJECT_FOCUS, OBJID_CLIENT, CHILDID_SELF, ""},
        {"name change", &plain, EVENT_OBJECT_NAMECHANGE, OBJID_WINDOW, CHILDID_SELF, ""},
        {"location change", &plain, EVENT_OBJECT_LOCATIONCHANGE, OBJID_WINDOW, CHILDID_SELF, ""},
        {"capture start", &plain, EVENT_SYSTEM_CAPTURESTART, OBJID_WINDOW, CHILDID_SELF, ""},
        {"unknown id 100", &plain, 100, OBJID_WINDOW, CHILDID_SELF, ""},
    };
    const std::string mainArg = "arg " + std::to_string(static_cast<jint>(reinterpret_cast<intptr_t>(main))) + "]";
    for (Row& row : rows) {
        std::string expected = row.expected;
        const auto at = expected.find("arg main]");
        if (at != std::string::npos) expected.replace(at, 9, mainArg);
        EXPECT_EQ(expected, shown(notified(*row.window, row.event, row.object, row.child))) << row.name;
    }
    // Every event but LOCATIONCHANGE is looked at and logged, an unknown id by its number.
    EXPECT_TRUE(LogFile::contains("100, hWnd: ", 10)) << "the unknown id in the log";
    EXPECT_TRUE(LogFile::contains("NAMECHANGE, hWnd: ", 10));
    EXPECT_FALSE(LogFile::contains("LOCATIONCHANGE", 10));
}

// A foreground "XLMAIN" window holds back the creates that follow it, until
// any other event comes.
TEST_P(WinEvents, CreatesAfterAnExcelForegroundAreIgnored) {
    listen(REQUIRED);
    HWND excel = target.makeWindow(L"XLMAIN", L"Book1", {150, 150, 450, 350});
    HWND other = target.makeWindow(L"DeskwrightTarget", L"Other", {200, 200, 400, 300});
    ASSERT_TRUE(excel && other);
    ASSERT_TRUE(settle());
    const size_t ignored = LogFile::count(" - ignored", 5);
    const size_t before = of(excel).size();
    ASSERT_TRUE(target.foreground(excel));
    ASSERT_TRUE(target.notify(EVENT_OBJECT_CREATE, excel, OBJID_CLIENT, 7));
    ASSERT_TRUE(target.notify(EVENT_OBJECT_CREATE, excel, OBJID_CLIENT, 8));
    ASSERT_TRUE(settle());  // its HIDE of the marker ends the foreground's hold
    std::vector<Seen> held = of(excel);
    held.erase(held.begin(), held.begin() + static_cast<long>(before));
    EXPECT_EQ("", shown(held)) << "the creates behind the foreground went up";
    EXPECT_EQ(ignored + 2, LogFile::count(" - ignored", 5));
    EXPECT_EQ("[0x8000 arg 9]", shown(notified(excel, EVENT_OBJECT_CREATE, OBJID_CLIENT, 9)));

    ASSERT_TRUE(target.foreground(other));
    EXPECT_EQ("[0x8000 arg 1]", shown(notified(other, EVENT_OBJECT_CREATE, OBJID_CLIENT, 1)))
        << "the foreground of another class holds nothing back";
}

// With the thinning bit, a create of a window's client objects within 200
// ticks of the last one is dropped; 201 ticks later it goes up. Destroys and
// creates of the client itself are never thinned.
TEST_P(WinEvents, RepeatedCreatesAreThinnedBy200Ticks) {
    dwtest::ImportPatch clock(dll->module(), "GetTickCount", reinterpret_cast<void*>(&testTickCount));
    ASSERT_TRUE(clock.applied()) << "the driver doesn't import GetTickCount";
    ticks = GetTickCount();
    HWND second = target.makeWindow(L"DeskwrightTarget", L"second", {80, 10, 180, 60}, main);
    ASSERT_NE(nullptr, second);
    listen(REQUIRED | THIN);
    struct Step {
        const char* name;
        DWORD advance;
        HWND* window;
        DWORD event;
        LONG child;
        std::string expected;
    } steps[] = {
        {"first create", 0, &main, EVENT_OBJECT_CREATE, 1, "[0x8000 arg 1]"},
        {"another window between", 100, &second, EVENT_OBJECT_CREATE, 1, "[0x8000 arg 1]"},
        {"200 ticks after the first", 100, &main, EVENT_OBJECT_CREATE, 2, ""},
        {"200 after the dropped one", 200, &main, EVENT_OBJECT_CREATE, 3, ""},
        {"a destroy is not thinned", 0, &main, EVENT_OBJECT_DESTROY, 3, "[0x8001 arg 3]"},
        {"nor the client itself", 0, &main, EVENT_OBJECT_CREATE, CHILDID_SELF, "[0x8000 arg 0]"},
        {"201 after the last", 201, &main, EVENT_OBJECT_CREATE, 4, "[0x8000 arg 4]"},
        {"the other window's old entry", 0, &second, EVENT_OBJECT_CREATE, 2, "[0x8000 arg 2]"},
        {"at once again", 0, &main, EVENT_OBJECT_CREATE, 5, ""},
    };
    for (const Step& step : steps) {
        ticks += step.advance;
        EXPECT_EQ(step.expected, shown(notified(*step.window, step.event, OBJID_CLIENT, step.child))) << step.name;
    }
}

// The event bits choose the hooked ranges: every event, or only the three
// ranges that a recording needs, which shut every event out; without either
// bit no hook. Each hook is for the target's process, out of context, made on
// the dispatch thread or on the hooks' own.
TEST_P(WinEvents, TheModeChoosesTheHookedRanges) {
    dwtest::ImportPatch patch(dll->module(), "SetWinEventHook", reinterpret_cast<void*>(&recordedHook));
    ASSERT_TRUE(patch.applied()) << "the driver doesn't import SetWinEventHook";
    hookedPid = target.pid();
    ASSERT_TRUE(settle()) << "the connection's hooks are made";
    const struct {
        const char* name;
        jint mode;
        std::string ranges;
    } rows[] = {{"all", ALL, "1-7fffffff"},
                {"required", REQUIRED, "8000-8003 3-7 10-11"},
                {"required shuts all out", REQUIRED | ALL, "8000-8003 3-7 10-11"},
                {"neither", THIN, ""}};
    for (const auto& row : rows) {
        const size_t from = hookedSince(0).size(), rounds = hookRounds();
        listen(row.mode);
        ASSERT_TRUE(dwtest::waitUntil([&] { return hookRounds() > rounds; }, 5000)) << row.name << ": not hooked";
        std::string ranges;
        for (const Hooked& hook : hookedSince(from)) {
            ranges += (ranges.empty() ? "" : " ") + hook.range;
            EXPECT_EQ(!onThread(), hook.thread == dispatchThread) << row.name << ": " << hook.range;
        }
        EXPECT_EQ(row.ranges, ranges) << row.name;
    }
}

// A target that takes no message for a while holds neither the dispatch
// thread nor the event: Java's calls go on, and the event goes up before the
// target wakes.
TEST_P(WinEvents, ABusyTargetHoldsNothingUp) {
    listen(REQUIRED);
    ASSERT_TRUE(settle());
    std::thread busy([&] { EXPECT_TRUE(target.stall(main, 4000)); });
    const bool heard = dwtest::waitUntil([&] { return of(main).size() == 1; }, 2500);
    const ULONGLONG start = GetTickCount64();
    native<void>("EnableEventListeners", jint(REQUIRED | THIN | (onThread() ? ON_THREAD : 0)));
    const ULONGLONG took = GetTickCount64() - start;
    busy.join();
    EXPECT_TRUE(heard) << "the create of the busy target came late";
    EXPECT_EQ("[0x8000 arg 1]", shown(of(main)));
    EXPECT_GT(1000u, took) << "Java waited for the busy target";
}

// Every change of the mode ends the thread of the hooks, also one made right
// after entering the thread mode, before the new thread could have begun; a
// detach ends the last. No hook is left behind to report an event twice.
TEST_P(WinEvents, TheThreadsOfTheHooksEndOnEveryChangeAndOnDetach) {
    for (int round = 0; round < 8; ++round) {
        native<void>("EnableEventListeners", jint(REQUIRED | ON_THREAD | (round % 2 ? THIN : 0)));
        native<void>("EnableEventListeners", jint(REQUIRED | (round % 2 ? THIN : 0)));
    }
    listen(REQUIRED);
    EXPECT_EQ("[0x8000 arg 1]", shown(notified(main, EVENT_OBJECT_CREATE, OBJID_CLIENT, 1))) << "once, not twice";
    std::vector<HANDLE> threads;  // those not ended and gone yet, by their log names "t<id>"
    size_t started = 0;
    for (const dwtest::LogLine& line : LogFile::find("started", 7)) {
        if (line.logger != "tolva.uia.UiaAutoEvents") continue;
        ++started;
        const DWORD id = std::stoul(line.thread.substr(1));
        HANDLE thread = OpenThread(SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION, FALSE, id);
        if (thread) threads.push_back(thread);
    }
    EXPECT_LE(8u, started);
    detachAndWait();
    for (HANDLE thread : threads) {
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 2000)) << "thread " << GetThreadId(thread) << " lives on";
        CloseHandle(thread);
    }
}

INSTANTIATE_TEST_SUITE_P(Direct, WinEvents, ::testing::Values(false), modeName);
INSTANTIATE_TEST_SUITE_P(OnThread, WinEvents, ::testing::Values(true), modeName);

// The driver attached to the test's own process hooks nothing: a hook would
// hear only what it skips.
class OwnProcessWinEvents : public DriverTest, public ::testing::WithParamInterface<bool> {};

TEST_P(OwnProcessWinEvents, TheOwnProcessIsNotHooked) {
    dwtest::ImportPatch patch(dll->module(), "SetWinEventHook", reinterpret_cast<void*>(&recordedHook));
    ASSERT_TRUE(patch.applied());
    attachToOwnWindow(L"Own window");
    const size_t rounds = hookRounds();
    native<void>("EnableEventListeners", jint(ALL | (GetParam() ? ON_THREAD : 0)));
    ASSERT_TRUE(dwtest::waitUntil([&] { return hookRounds() > rounds; }, 5000)) << "the hooks were not made";
    EXPECT_TRUE(hookedSince(0).empty()) << hookedSince(0)[0].range;
}

INSTANTIATE_TEST_SUITE_P(Direct, OwnProcessWinEvents, ::testing::Values(false), modeName);
INSTANTIATE_TEST_SUITE_P(OnThread, OwnProcessWinEvents, ::testing::Values(true), modeName);
