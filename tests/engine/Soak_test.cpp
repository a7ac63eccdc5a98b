// Connections come and go while Java threads keep working: four Java threads
// walk the tree, read attributes and act in a loop, while the main thread
// attaches, detaches, attaches again at once, and lets real targets die in
// the middle of those calls. Nothing may crash or hang, every round ends in
// bounded time, Java hears of each target that died while attached exactly
// once, and at the end nothing is left: no automation reference, no global
// Java reference, no kernel handle more than before.
#include "DriverTest.h"
#include "FakeUiaPatterns.h"
#include "TargetProcess.h"

#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

using dwtest::DriverTest;
using dwtest::TargetProcess;

namespace {

const std::string WIN_EVENT = dwtest::EVENT_PACKAGE + "WinEvent";
const int CONNECTED = 100;
const int TERMINATED = 101;
const int WORKERS = 4;
// Every attach takes at least a second (the dispatch thread's start): 100
// rounds take about three minutes. DESKWRIGHT_SOAK_ROUNDS sets another count.
const int DEFAULT_ROUNDS = 100;
const DWORD PASS_PAUSE_MS = 4;
const DWORD ROUND_LIMIT_MS = 30000;

// Whole cycles of the four kinds of round, and at least two of them.
int rounds() {
    const char* text = std::getenv("DESKWRIGHT_SOAK_ROUNDS");
    const int n = text ? std::atoi(text) : 0;
    return std::max(8, (n > 0 ? n : DEFAULT_ROUNDS) + 3) / 4 * 4;
}

// The kernel handles of this process. Wine doesn't count them (it answers
// 0), so then they are found one by one: a value is an open handle when
// GetHandleInformation accepts it.
DWORD handleCount() {
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count > 0) return count;
    for (ULONG_PTR value = 4; value < 0x10000; value += 4) {
        DWORD flags = 0;
        count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
    }
    return count;
}

// Ends the process if a round takes too long: a hang is a failure too.
class Watchdog {
public:
    Watchdog() : thread_([this] { run(); }) {}
    ~Watchdog() {
        stop_ = true;
        thread_.join();
    }
    void roundStarts(int round) {
        round_ = round;
        start_ = GetTickCount64();
    }

private:
    void run() {
        while (!stop_) {
            if (GetTickCount64() - start_ > ROUND_LIMIT_MS) {
                std::fprintf(stderr, "round %d hangs\n", round_.load());
                std::fflush(stderr);
                ExitProcess(3);
            }
            Sleep(100);
        }
    }
    std::atomic<bool> stop_{false};
    std::atomic<int> round_{0};
    std::atomic<ULONGLONG> start_{GetTickCount64()};
    std::thread thread_;
};

class Soak : public DriverTest {
protected:
    std::wstring logLevels() const override { return L"*=3,tolva.Uia=5"; }

    void SetUp() override {
        DriverTest::SetUp();
        fakeuia::Node& window = addOwnWindow(L"Own window");
        addContent(window);
    }
    void TearDown() override {
        for (auto& target : targets) target.reset();
        DriverTest::TearDown();
    }

    void addContent(fakeuia::Node& window) {
        fakeuia::attach<fakeuia::InvokeSource>(
            window.add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {20, 20, 80, 40}}));
        fakeuia::attach<fakeuia::ValueSource>(
            window.add({.controlType = UIA_EditControlTypeId, .name = L"Text", .bounds = {20, 50, 200, 70}}),
            L"some text");
    }

    size_t winEvents(int type) {
        size_t n = 0;
        for (const auto& event : host->constructions(WIN_EVENT)) n += event.args[0].i == type ? 1 : 0;
        return n;
    }
    // Attaches and waits for Java to hear of the connection.
    void connect(const std::wstring& args, jint pid) {
        const size_t before = winEvents(CONNECTED);
        ASSERT_EQ(pid, attach(args, 2000)) << narrow(args);
        ASSERT_TRUE(dwtest::waitUntil([&] { return winEvents(CONNECTED) > before; }, 5000)) << "no onConnect";
    }
    void detach() {
        native<void>("DetachClient");
        attached = false;
    }
    jint ownPid() const { return static_cast<jint>(GetCurrentProcessId()); }
    static std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

    // A real target with its window on the simulated desktop.
    TargetProcess& startTarget(int round, fakeuia::Node*& node) {
        const std::wstring title = L"Soak target " + std::to_wstring(round);
        targets[round % 2] = std::make_unique<TargetProcess>(title);
        TargetProcess& target = *targets[round % 2];
        node = &addWindow(title, L"DeskwrightTarget", static_cast<int>(target.pid()), target.window());
        addContent(*node);
        return target;
    }
    void killTarget(TargetProcess& target, fakeuia::Node& node) {
        target.kill();
        WaitForSingleObject(target.process(), 5000);
        node.remove();
    }

    // One Java thread: the tree, attributes and an action, over and over.
    void work(std::atomic<bool>& stop) {
        JNIEnv* threadEnv = host->attachCurrentThread();
        const jobjectArray names = host->stringArray({L"name", L"value", L"rid2"});
        // After each native: counts the call and tells whether it threw.
        auto thrown = [&] {
            ++calls;
            auto exception = host->takeException();
            if (exception && exception->className != dwtest::INVALID_HANDLE_EXCEPTION) {
                std::lock_guard<std::mutex> guard(problemsLock);
                problems.push_back("unexpected exception " + exception->className);
            }
            return exception.has_value();
        };
        while (!stop) {
            if (pause) {
                ++parked;
                while (pause && !stop) Sleep(5);
                --parked;
                continue;
            }
            threadEnv->PushLocalFrame(256);
            std::vector<jlong> tops = host->longs(dll->call<jlongArray>("GetToplevels", threadEnv, self));
            thrown();
            for (jlong top : tops) {
                jlongArray children = dll->call<jlongArray>("GetChildren", threadEnv, self, top);
                if (thrown()) continue;
                for (jlong child : host->longs(children)) {
                    dll->call<jobjectArray>("GetAttributes", threadEnv, self, child, names);
                    if (thrown()) continue;
                    dll->call<jlong>("GetParent", threadEnv, self, child);
                    if (thrown()) continue;
                    dll->call<void>("Invoke", threadEnv, self, child);
                    thrown();
                }
            }
            dll->call<jlong>("GetElementFromPoint", threadEnv, self, jint{30}, jint{30});
            thrown();
            threadEnv->PopLocalFrame(nullptr);
            // The test host keeps every object and reference it ever made, for
            // its checks: a worker that never rests would fill the address
            // space of a 32-bit run within a minute.
            Sleep(PASS_PAUSE_MS);
        }
        host->detachCurrentThread();
    }

    // The kernel handles once every connection has ended and the Java
    // threads stand between two calls.
    DWORD quietHandleCount() {
        EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(10000));
        EXPECT_TRUE(waitForReleases(10000)) << platform->outstandingBreakdown();
        pause = true;
        EXPECT_TRUE(dwtest::waitUntil([&] { return parked == WORKERS; }, 10000));
        Sleep(200);  // threads that have logged their end may still be leaving
        host->violations();  // the host lets go of threads that ended while attached
        const DWORD count = handleCount();
        pause = false;
        return count;
    }

    std::unique_ptr<TargetProcess> targets[2];
    std::atomic<bool> pause{false};
    std::atomic<int> parked{0};
    std::atomic<long> calls{0};
    std::mutex problemsLock;
    std::vector<std::string> problems;
};

}  // namespace

TEST_F(Soak, ConnectionsComeAndGoWhileJavaThreadsWork) {
    // The first rounds make what lives as long as the process (COM, window
    // classes, class factories, what the system and Wine keep after the first
    // process starts and thread ends; measured: a few handles more over the
    // first cycles, then none, for any number of rounds). The count of handles
    // starts after the first quarter of the rounds, at the end of a cycle,
    // and ends after the last cycle in the same state: no connection, the
    // last two targets dead but still held, the Java threads between two calls.
    DWORD handlesBefore = 0;
    std::atomic<bool> stop{false};
    std::vector<std::thread> workers;
    for (int i = 0; i < WORKERS; ++i) {
        workers.emplace_back([&] { work(stop); });
    }
    const int total = rounds();
    const int baselineRound = std::max(3, total / 16 * 4 + 3);
    size_t diedWhileAttached = 0;
    ULONGLONG slowest = 0;
    const ULONGLONG start = GetTickCount64();
    {
        Watchdog watchdog;
        for (int round = 0; round < total && !HasFatalFailure(); ++round) {
            watchdog.roundStarts(round);
            const ULONGLONG roundStart = GetTickCount64();
            fakeuia::Node* node = nullptr;
            switch (round % 4) {
            case 0:  // attach and detach
                connect(dwtest::ownPidArgs(), ownPid());
                Sleep(50);
                detach();
                break;
            case 1:  // detach and attach again at once
                connect(dwtest::ownPidArgs(), ownPid());
                detach();
                connect(dwtest::ownPidArgs(), ownPid());
                Sleep(50);
                detach();
                break;
            case 2: {  // the target dies in the middle of the calls
                TargetProcess& target = startTarget(round, node);
                ASSERT_TRUE(target.ready()) << "target.exe did not start";
                connect(L"-pid " + std::to_wstring(target.pid()), static_cast<jint>(target.pid()));
                Sleep(50);
                killTarget(target, *node);
                ++diedWhileAttached;
                ASSERT_TRUE(dwtest::waitUntil([&] { return winEvents(TERMINATED) == diedWhileAttached; }, 10000))
                    << "no onTerminate in round " << round;
                attached = false;
                break;
            }
            case 3: {  // the target dies after a detach: nobody hears of it
                TargetProcess& target = startTarget(round, node);
                ASSERT_TRUE(target.ready()) << "target.exe did not start";
                connect(L"Soak target " + std::to_wstring(round), static_cast<jint>(target.pid()));
                detach();
                killTarget(target, *node);
                break;
            }
            }
            slowest = std::max(slowest, GetTickCount64() - roundStart);
            if (round == baselineRound) handlesBefore = quietHandleCount();
        }
    }
    const ULONGLONG elapsed = GetTickCount64() - start;
    const DWORD handlesAfter = quietHandleCount();
    stop = true;
    for (std::thread& worker : workers) worker.join();
    Sleep(500);  // a terminate that comes late would be one too many
    PROCESS_MEMORY_COUNTERS memory = {};
    memory.cb = sizeof memory;
    GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);

    std::cout << "rounds: " << total << ", " << elapsed / total << " ms each (slowest " << slowest
              << " ms), native calls: " << calls.load() << "\n"
              << "kernel handles: " << handlesBefore << " before, " << handlesAfter << " after; global refs: "
              << host->globalRefCount() << "; automation references: " << platform->outstandingReferences() << "\n"
              << "targets died while attached: " << diedWhileAttached << ", onTerminate: " << winEvents(TERMINATED)
              << ", onConnect: " << winEvents(CONNECTED) << "\n"
              << "peak working set: " << memory.PeakWorkingSetSize / 1024
              << " KiB, peak pagefile usage: " << memory.PeakPagefileUsage / 1024 << " KiB" << std::endl;

    for (const std::string& problem : problems) ADD_FAILURE() << problem;
    EXPECT_EQ(diedWhileAttached, winEvents(TERMINATED)) << "one onTerminate per target that died while attached";
    EXPECT_EQ(0u, host->globalRefCount());
    EXPECT_EQ(0, platform->outstandingReferences());
    EXPECT_LE(handlesAfter, handlesBefore + 1) << "kernel handles pile up";
    EXPECT_GT(calls.load(), 0);
}
