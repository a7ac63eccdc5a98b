// The recorder when its session ends under it: Java detaching while
// automation events, the target's system window events and real input are
// all on their way, and the target process ending in the middle of a
// recording. Afterwards nothing of the session may listen or run: no handler
// registration, no hook (input injected later produces no record), no thread
// of the recorder, no reference; and a new session records again.
#include "DriverTest.h"
#include "ImportPatch.h"
#include "InputRecorder.h"
#include "TargetProcess.h"

#include <tlhelp32.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

using namespace dwtest;

namespace {

const std::string UIA_EVENT = EVENT_PACKAGE + "UIAutomationEvent";
const std::string MSAA_EVENT = EVENT_PACKAGE + "MSAAEvent";
const std::string MOUSE_CLASS = EVENT_PACKAGE + "MouseEvent";
const std::string WIN_EVENT = EVENT_PACKAGE + "WinEvent";
const unsigned WATCH_STACK = 16384;  // the thread that waits for the target's end

// --- what the driver starts and hooks, seen at its imports -------------------------

struct Books {
    std::mutex lock;
    std::vector<std::pair<DWORD, unsigned>> threads;  // id and stack size of each thread started
    std::set<HHOOK> hooks, unhooked;
    std::set<HWINEVENTHOOK> winHooks, winUnhooked;
} books;

using BeginThread = uintptr_t(__cdecl*)(void*, unsigned, unsigned(__stdcall*)(void*), void*, unsigned, unsigned*);
BeginThread beginThread = nullptr;

void noteThread(HANDLE thread, unsigned stack) {
    if (!thread) return;
    std::lock_guard<std::mutex> guard(books.lock);
    books.threads.push_back({GetThreadId(thread), stack});
}
uintptr_t __cdecl startThread(void* security, unsigned stack, unsigned(__stdcall* body)(void*), void* arg,
                              unsigned flags, unsigned* id) {
    const uintptr_t thread = beginThread(security, stack, body, arg, flags, id);
    noteThread(reinterpret_cast<HANDLE>(thread), stack);
    return thread;
}
HANDLE WINAPI createThread(LPSECURITY_ATTRIBUTES security, SIZE_T stack, LPTHREAD_START_ROUTINE body, LPVOID arg,
                           DWORD flags, LPDWORD id) {
    const HANDLE thread = CreateThread(security, stack, body, arg, flags, id);
    noteThread(thread, static_cast<unsigned>(stack));
    return thread;
}
HHOOK WINAPI setHook(int id, HOOKPROC procedure, HINSTANCE module, DWORD thread) {
    const HHOOK hook = SetWindowsHookExW(id, procedure, module, thread);
    std::lock_guard<std::mutex> guard(books.lock);
    if (hook) books.hooks.insert(hook);
    return hook;
}
BOOL WINAPI unhook(HHOOK hook) {
    const BOOL done = UnhookWindowsHookEx(hook);
    std::lock_guard<std::mutex> guard(books.lock);
    if (done) books.unhooked.insert(hook);
    return done;
}
HWINEVENTHOOK WINAPI setWinHook(DWORD low, DWORD high, HMODULE module, WINEVENTPROC procedure, DWORD pid,
                                DWORD tid, DWORD flags) {
    const HWINEVENTHOOK hook = SetWinEventHook(low, high, module, procedure, pid, tid, flags);
    std::lock_guard<std::mutex> guard(books.lock);
    if (hook) books.winHooks.insert(hook);
    return hook;
}
BOOL WINAPI unhookWin(HWINEVENTHOOK hook) {
    const BOOL done = UnhookWinEvent(hook);
    std::lock_guard<std::mutex> guard(books.lock);
    if (done) books.winUnhooked.insert(hook);
    return done;
}

// The threads of this process, as a thread snapshot lists them.
std::set<DWORD> threadsOfProcess() {
    std::set<DWORD> ids;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return ids;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == GetCurrentProcessId()) ids.insert(entry.th32ThreadID);
    }
    CloseHandle(snapshot);
    return ids;
}

void mouseAt(POINT screen) {
    auto normalised = [](LONG v, int extent) { return static_cast<LONG>(v * 65535.0 / (extent - 1) + 0.5); };
    INPUT input{};
    input.type = INPUT_MOUSE;
    input.mi = {normalised(screen.x, GetSystemMetrics(SM_CXSCREEN)), normalised(screen.y, GetSystemMetrics(SM_CYSCREEN)),
                0, MOUSEEVENTF_MOVE | MOUSEEVENTF_ABSOLUTE, 0, 0};
    SendInput(1, &input, sizeof input);
}
void click(POINT screen) {
    mouseAt(screen);
    INPUT input[2] = {};
    input[0].type = input[1].type = INPUT_MOUSE;
    input[0].mi.dwFlags = MOUSEEVENTF_LEFTDOWN;
    input[1].mi.dwFlags = MOUSEEVENTF_LEFTUP;
    SendInput(2, input, sizeof input[0]);
}

// A serving target with a window, on the simulated desktop with a button
// inside it whose automation events the test raises.
struct Target {
    explicit Target(fakeuia::Platform& platform) {
        if (!process.ready()) return;
        window = process.makeWindow(L"DeskwrightTarget", L"Recorded", {200, 150, 600, 450});
        if (!window) return;
        marker = process.makeWindow(L"DeskwrightTarget", L"marker", {10, 10, 60, 40}, window);
        fakeuia::NodeSpec spec{.controlType = UIA_WindowControlTypeId, .name = L"Recorded",
                               .className = L"DeskwrightTarget", .processId = static_cast<int>(process.pid()),
                               .nativeWindowHandle = window};
        GetWindowRect(window, &spec.bounds);
        node = &platform.desktop().add(spec);
        button = &node->add({.controlType = UIA_ButtonControlTypeId, .name = L"Go",
                             .processId = static_cast<int>(process.pid()),
                             .bounds = {spec.bounds.left + 100, spec.bounds.top + 100, spec.bounds.left + 200,
                                        spec.bounds.top + 140}});
    }
    POINT inside() const {
        RECT bounds{};
        GetWindowRect(window, &bounds);
        return {bounds.left + 150, bounds.top + 120};
    }
    TargetProcess process{TargetProcess::Serving{}};
    HWND window = nullptr;
    HWND marker = nullptr;
    fakeuia::Node* node = nullptr;
    fakeuia::Node* button = nullptr;
};

class RecordingFaults : public DriverTest {
protected:
    // As shipped, but for the dispatch thread's end, which the fixture waits for.
    std::wstring logLevels() const override { return L"*=2,tolva.Uia=5"; }

    void SetUp() override {
        DriverTest::SetUp();
        patch("_beginthreadex", &startThread, reinterpret_cast<void**>(&beginThread));
        patch("CreateThread", &createThread);
        patch("SetWindowsHookExW", &setHook);
        patch("UnhookWindowsHookEx", &unhook);
        patch("SetWinEventHook", &setWinHook);
        patch("UnhookWinEvent", &unhookWin);
        target = std::make_unique<Target>(*platform);
        ASSERT_TRUE(target->button) << "the target program did not start";
    }
    void TearDown() override {
        stopFlows();
        DriverTest::TearDown();
        patches.clear();
        std::lock_guard<std::mutex> guard(books.lock);
        books.threads.clear();
        books.hooks.clear();
        books.unhooked.clear();
        books.winHooks.clear();
        books.winUnhooked.clear();
    }
    template <class F>
    void patch(const char* function, F replacement, void** original = nullptr) {
        patches.push_back(std::make_unique<ImportPatch>(dll->module(), function, reinterpret_cast<void*>(replacement)));
        ASSERT_TRUE(patches.back()->applied()) << "the driver imports no " << function;
        if (original) *original = patches.back()->original();
    }

    // Attached to the target with every listener on (the connection's mode),
    // the hooks of the input and of the window events in place.
    void connect(Target& to) {
        ASSERT_EQ(static_cast<jint>(to.process.pid()), attach(L"-pid " + std::to_wstring(to.process.pid()), 5000));
        ASSERT_TRUE(waitUntil([&] { return hooksSet() >= static_cast<size_t>(2 + sessions * 2); }, 5000)) << "no input hooks";
        ++sessions;
    }
    size_t hooksSet() {
        std::lock_guard<std::mutex> guard(books.lock);
        return books.hooks.size();
    }

    // Automation events from a platform thread, the target's window events and
    // real clicks over the target, each on a thread of its own, until stopped.
    void startFlows(Target& on, bool windowEvents = true) {
        stop = false;
        flows.emplace_back([this, &on] {
            VARIANT value{};
            value.vt = VT_I4;
            for (int i = 0; !stop; ++i) {
                value.lVal = i;
                platform->raisePropertyChangedEvent(*on.button, UIA_ToggleToggleStatePropertyId, value);
                if (i % 8 == 0) Sleep(1);  // well below what the road bears: the queue stays short
            }
        });
        if (windowEvents) {
            flows.emplace_back([this, &on] {
                while (!stop && on.process.notify(EVENT_OBJECT_HIDE, on.marker, OBJID_WINDOW, CHILDID_SELF)) Sleep(2);
            });
        }
        flows.emplace_back([this, &on] {
            while (!stop) {
                click(on.inside());
                Sleep(20);
            }
        });
    }
    void stopFlows() {
        stop = true;
        for (std::thread& flow : flows) flow.join();
        flows.clear();
        platform->waitForEvents(10000);
    }
    // Waits until each kind has reached Java at least `count` times more than before.
    void expectFlowing(size_t count, bool windowEvents = true) {
        std::vector<std::string> kinds = {UIA_EVENT, MOUSE_CLASS};
        if (windowEvents) kinds.push_back(MSAA_EVENT);
        for (const std::string& kind : kinds) {
            EXPECT_TRUE(host->waitForConstructions(kind, host->constructionCount(kind) + count, 10000))
                << kind << " does not reach Java";
        }
    }

    // Nothing of the ended session listens or runs: no registration, every
    // hook taken down, every thread the driver started (but those given) gone
    // from the process, no reference held.
    void expectNothingLeft(unsigned keptStack) {
        EXPECT_TRUE(platform->eventHandlers().empty()) << platform->eventHandlers().size() << " registrations stand";
        std::vector<DWORD> recorder;
        {
            std::lock_guard<std::mutex> guard(books.lock);
            for (const auto& [id, stack] : books.threads) {
                if (stack != keptStack) recorder.push_back(id);
            }
        }
        EXPECT_FALSE(recorder.empty()) << "no thread seen";
        const bool gone = waitUntil([&] {
            const std::set<DWORD> now = threadsOfProcess();
            for (DWORD id : recorder) {
                if (now.count(id)) return false;
            }
            return true;
        }, 5000);
        EXPECT_TRUE(gone) << "a thread of the driver is left";
        std::lock_guard<std::mutex> guard(books.lock);
        EXPECT_EQ(books.hooks, books.unhooked) << "an input hook stands";
        EXPECT_EQ(books.winHooks, books.winUnhooked) << "a window event hook stands";
        EXPECT_TRUE(waitForReleases(5000)) << "outstanding: " << platform->outstandingBreakdown();
    }
    // Input and window events after the end produce no record at all.
    void expectDeaf(Target& of) {
        const size_t calls = host->callCount("filterEvent");
        click(of.inside());
        of.process.notify(EVENT_OBJECT_HIDE, of.marker, OBJID_WINDOW, CHILDID_SELF);
        platform->raisePropertyChangedEvent(*of.button, UIA_ToggleToggleStatePropertyId, VARIANT{});
        Sleep(500);
        EXPECT_EQ(calls, host->callCount("filterEvent")) << "a record came after the end";
    }
    // The natives Java may still call, each returning at once.
    void expectNativesReturn() {
        const jlong stale = 0x1234560;
        const std::vector<std::pair<const char*, std::function<void()>>> calls = {
            {"GetToplevels", [&] { native<jlongArray>("GetToplevels"); }},
            {"GetChildren", [&] { native<jlongArray>("GetChildren", stale); }},
            {"EnableEventListeners", [&] { native<void>("EnableEventListeners", jint{0x1F}); }},
            {"TriggerThread", [&] { native<void>("TriggerThread"); }},
            {"DetachClient", [&] { native<void>("DetachClient"); }},
        };
        for (const auto& [name, call] : calls) {
            const auto start = std::chrono::steady_clock::now();
            call();
            host->takeException();
            const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
            EXPECT_LT(ms, 2000.0) << name << " took long";
        }
    }

    std::vector<std::unique_ptr<ImportPatch>> patches;
    InputRestorer restorer;
    std::unique_ptr<Target> target;
    std::atomic<bool> stop{false};
    std::vector<std::thread> flows;
    int sessions = 0;
};

}  // namespace

// Java detaches while all three kinds of events are on their way; the watch
// over the target stays, as it does until the target ends.
TEST_F(RecordingFaults, DetachInFlightLeavesNothingAndAReattachRecords) {
    connect(*target);
    startFlows(*target);
    expectFlowing(3);
    detachAndWait();
    Sleep(300);  // the flows go on against the ended session
    stopFlows();
    expectNothingLeft(WATCH_STACK);
    expectDeaf(*target);

    connect(*target);
    startFlows(*target);
    expectFlowing(3);
    stopFlows();
}

// The target ends while events flow: the session ends by itself and says so
// to Java, nothing of it stays, every native returns at once, and a new
// target can be recorded.
TEST_F(RecordingFaults, TheTargetEndingMidRecordingEndsTheSessionCleanly) {
    connect(*target);
    startFlows(*target, false);  // the window events' requests go to the target that ends
    expectFlowing(3, false);
    target->process.kill();
    EXPECT_TRUE(host->waitForConstructions(WIN_EVENT, 2, 10000)) << "no onTerminate";
    Sleep(300);
    stopFlows();
    expectNothingLeft(0);  // the watch ends with the target too
    expectNativesReturn();
    target->node->remove();  // the ended target's window leaves the desktop

    Target next(*platform);
    ASSERT_TRUE(next.button) << "the second target did not start";
    connect(next);
    startFlows(next);
    expectFlowing(3);
    stopFlows();
}
