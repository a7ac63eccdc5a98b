// Connections come and go while Java threads keep working: four Java threads
// walk the tree, read attributes and act in a loop, one of them now and then
// releases every control and another changes preferences, while the main
// thread attaches, detaches, attaches again at once, and lets real targets
// die in the middle of those calls. Nothing may crash or hang, every round
// ends in bounded time, no handle stands for another element than the one it
// names, Java hears of each target that died while attached exactly once,
// and at the end nothing is left: no automation reference, no global Java
// reference, no kernel handle more than before.
#include "DriverTest.h"
#include "FakeUiaPatterns.h"
#include "TargetProcess.h"

#include <psapi.h>
#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

using dwtest::DriverTest;
using dwtest::TargetProcess;

namespace {

const std::string WIN_EVENT = dwtest::EVENT_PACKAGE + "WinEvent";
const int CONNECTED = 100;
const int TERMINATED = 101;
const int WORKERS = 4;
const DWORD ROUND_LIMIT_MS = 30000;

// Whole cycles of the four kinds of round, at least two. Every attach takes
// at least a second (the dispatch thread's start): the default 100 rounds
// take about three minutes. DESKWRIGHT_SOAK_ROUNDS sets another count.
int rounds() {
    const char* text = std::getenv("DESKWRIGHT_SOAK_ROUNDS");
    const int n = text ? std::atoi(text) : 0;
    return std::max(8, (n > 0 ? n : 100) + 3) / 4 * 4;
}

// The values below 0x10000 that are open handles of this process: those
// GetHandleInformation accepts.
std::vector<ULONG_PTR> openHandleValues() {
    std::vector<ULONG_PTR> values;
    for (ULONG_PTR value = 4; value < 0x10000; value += 4) {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) values.push_back(value);
    }
    return values;
}

// The kernel handles of this process. Wine doesn't count them (it answers
// 0), so then they are found one by one.
DWORD handleCount() {
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count > 0) return count;
    return static_cast<DWORD>(openHandleValues().size());
}

// What kind of object a handle stands for ("Event", "Thread", ...).
std::string handleKind(HANDLE handle) {
    alignas(8) unsigned char buffer[512] = {};
    ULONG length = 0;
    if (NtQueryObject(handle, ObjectTypeInformation, buffer, sizeof buffer, &length) < 0) return "?";
    const UNICODE_STRING& name = reinterpret_cast<const PUBLIC_OBJECT_TYPE_INFORMATION*>(buffer)->TypeName;
    std::string kind;
    for (USHORT i = 0; name.Buffer && i < name.Length / sizeof(wchar_t); ++i) kind += static_cast<char>(name.Buffer[i]);
    return kind;
}

// The open handles of this process with their kinds.
std::map<ULONG_PTR, std::string> openHandles() {
    std::map<ULONG_PTR, std::string> handles;
    for (ULONG_PTR value : openHandleValues()) handles[value] = handleKind(reinterpret_cast<HANDLE>(value));
    return handles;
}

class Soak : public DriverTest {
protected:
    std::wstring logLevels() const override { return L"*=3,tolva.Uia=5"; }

    void SetUp() override {
        DriverTest::SetUp();
        addContent(addOwnWindow(L"Own window"), L"own");
    }
    void TearDown() override {
        for (auto& target : targets) target.reset();
        DriverTest::TearDown();
    }
    // Controls named after their window, so that each name stands for one element.
    void addContent(fakeuia::Node& window, const std::wstring& tag) {
        fakeuia::attach<fakeuia::InvokeSource>(add(window, UIA_ButtonControlTypeId, L"OK " + tag, {20, 20, 80, 40}));
        fakeuia::attach<fakeuia::ValueSource>(add(window, UIA_EditControlTypeId, L"Text " + tag, {20, 50, 200, 70}),
                                              L"some text");
    }
    size_t winEvents(int type) {
        size_t n = 0;
        for (const auto& event : host->constructions(WIN_EVENT)) n += event.args[0].i == type ? 1 : 0;
        return n;
    }
    // Attaches and waits for Java to hear of the connection.
    void connect(const std::wstring& args, DWORD pid) {
        const size_t before = winEvents(CONNECTED);
        ASSERT_EQ(static_cast<jint>(pid), attach(args, 2000)) << std::string(args.begin(), args.end());
        ASSERT_TRUE(dwtest::waitUntil([&] { return winEvents(CONNECTED) > before; }, 5000)) << "no onConnect";
    }
    void detach() {
        native<void>("DetachClient");
        attached = false;
    }
    // A real target with its window on the simulated desktop.
    TargetProcess& startTarget(int round, fakeuia::Node*& node) {
        const std::wstring title = L"Soak target " + std::to_wstring(round);
        TargetProcess& target = *(targets[round % 2] = std::make_unique<TargetProcess>(title));
        node = &addWindow(title, L"DeskwrightTarget", static_cast<int>(target.pid()), target.window());
        addContent(*node, std::to_wstring(round));
        return target;
    }
    void killTarget(TargetProcess& target, fakeuia::Node& node) {
        target.kill();
        WaitForSingleObject(target.process(), 5000);
        node.remove();
    }

    void problem(const std::string& text) {
        std::lock_guard<std::mutex> guard(problemsLock);
        if (problems.size() < 20) problems.push_back(text);
    }
    // Name, value and key of a control: the first key read for a name is the
    // one it must keep (a control's element that went away reads no name).
    void checkKey(const std::vector<std::optional<std::wstring>>& values) {
        if (values.size() != 3) return problem("GetAttributes gave " + std::to_string(values.size()) + " entries");
        if (!values[0] || values[0]->empty() || !values[2]) return;
        std::lock_guard<std::mutex> guard(problemsLock);
        ++keyChecks;
        auto [known, first] = keys.emplace(*values[0], *values[2]);
        if (!first && known->second != *values[2] && problems.size() < 20) {
            problems.push_back(narrow(*values[0]) + " under " + narrow(*values[2]) + ", before under " +
                               narrow(known->second));
        }
    }
    static std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

    // One Java thread: the tree, attributes and an action, over and over;
    // the first also releases every control now and then, the second changes
    // a preference while the others read theirs.
    void work(int index, std::atomic<bool>& stop) {
        JNIEnv* threadEnv = host->attachCurrentThread();
        const jobjectArray names = host->stringArray({L"name", L"value", L"rid2"});
        // After each native: counts the call and tells whether it threw.
        auto thrown = [&] {
            ++calls;
            auto exception = host->takeException();
            if (exception && exception->className != dwtest::INVALID_HANDLE_EXCEPTION) {
                problem("unexpected exception " + exception->className);
            }
            return exception.has_value();
        };
        for (int pass = 0; !stop; ++pass) {
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
                for (jlong child : thrown() ? std::vector<jlong>{} : host->longs(children)) {
                    jobjectArray values = dll->call<jobjectArray>("GetAttributes", threadEnv, self, child, names);
                    if (thrown()) continue;
                    checkKey(host->strings(values));
                    dll->call<jlong>("GetParent", threadEnv, self, child);
                    if (thrown()) continue;
                    dll->call<void>("Invoke", threadEnv, self, child);
                    thrown();
                }
            }
            dll->call<jlong>("GetElementFromPoint", threadEnv, self, jint{30}, jint{30});
            thrown();
            if (index == 0 && pass % 3 == 2) {
                dll->call<void>("ReleaseControls", threadEnv, self);
                ++releases;
            } else if (index == 1) {
                dll->call<void>("SetPreference", threadEnv, self, host->str(L"deskwright.soak.pass"),
                                pass % 2 ? host->str(std::to_wstring(pass)) : nullptr);
            }
            threadEnv->PopLocalFrame(nullptr);
            // The test host keeps every object and reference it ever made, for
            // its checks: a worker that never rests would fill the address
            // space of a 32-bit run within a minute.
            Sleep(4);
        }
        host->detachCurrentThread();
    }

    // The kernel handles once every connection has ended and the Java
    // threads stand between two calls: their count, and which they are.
    struct Handles {
        DWORD count;
        std::map<ULONG_PTR, std::string> kinds;
    };
    Handles quietHandles() {
        EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(10000));
        EXPECT_TRUE(waitForReleases(10000)) << platform->outstandingBreakdown();
        pause = true;
        EXPECT_TRUE(dwtest::waitUntil([&] { return parked == WORKERS; }, 10000));
        // Threads that have logged their end may still be leaving, more slowly
        // on a loaded machine: the count is read until it has stopped falling
        // for half a second (at most 5 s). A handle that stays is counted.
        DWORD count = ~DWORD{0};
        for (int still = 0, reads = 0; still < 5 && reads < 50; ++reads) {
            Sleep(100);
            host->violations();  // the host lets go of threads that ended while attached
            const DWORD now = handleCount();
            still = now < count ? 0 : still + 1;
            count = std::min(count, now);
        }
        Handles handles{count, openHandles()};
        pause = false;
        return handles;
    }

    std::unique_ptr<TargetProcess> targets[2];
    std::atomic<bool> pause{false};
    std::atomic<int> parked{0};
    std::atomic<long> calls{0};
    std::atomic<long> releases{0};
    std::mutex problemsLock;  // guards the three below
    std::vector<std::string> problems;
    std::map<std::wstring, std::wstring> keys;  // name to key
    long keyChecks = 0;
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
    Handles before{};
    std::atomic<bool> stop{false};
    std::vector<std::thread> workers;
    for (int i = 0; i < WORKERS; ++i) workers.emplace_back([&, i] { work(i, stop); });
    const int total = rounds();
    const int baselineRound = std::max(3, total / 16 * 4 + 3);
    const DWORD self = GetCurrentProcessId();
    size_t diedWhileAttached = 0;
    ULONGLONG slowest = 0;
    const ULONGLONG start = GetTickCount64();
    // A round that takes too long ends the process: a hang is a failure too.
    std::atomic<int> current{0};
    std::atomic<ULONGLONG> roundStart{start};
    std::atomic<bool> roundsDone{false};
    std::thread watchdog([&] {
        for (; !roundsDone; Sleep(100)) {
            if (GetTickCount64() - roundStart > ROUND_LIMIT_MS) {
                std::fprintf(stderr, "round %d hangs\n", current.load());
                std::fflush(stderr);
                ExitProcess(3);
            }
        }
    });
    // The rounds, in a function of their own: a failed assertion ends them,
    // and the threads are still stopped and joined.
    auto runRounds = [&] {
        for (int round = 0; round < total && !HasFatalFailure(); ++round) {
            current = round;
            roundStart = GetTickCount64();
            fakeuia::Node* node = nullptr;
            switch (round % 4) {
            case 0:  // attach and detach
                connect(dwtest::ownPidArgs(), self);
                Sleep(50);
                detach();
                break;
            case 1:  // detach and attach again at once
                connect(dwtest::ownPidArgs(), self);
                detach();
                connect(dwtest::ownPidArgs(), self);
                Sleep(50);
                detach();
                break;
            case 2: {  // the target dies in the middle of the calls
                TargetProcess& target = startTarget(round, node);
                ASSERT_TRUE(target.ready()) << "target.exe did not start";
                connect(L"-pid " + std::to_wstring(target.pid()), target.pid());
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
                connect(L"Soak target " + std::to_wstring(round), target.pid());
                detach();
                killTarget(target, *node);
                break;
            }
            }
            slowest = std::max(slowest, GetTickCount64() - roundStart);
            if (round == baselineRound) before = quietHandles();
        }
    };
    runRounds();
    roundsDone = true;
    watchdog.join();
    const ULONGLONG elapsed = GetTickCount64() - start;
    const Handles after = quietHandles();
    std::ostringstream newHandles;
    for (const auto& [value, kind] : after.kinds) {
        if (!before.kinds.count(value)) newHandles << " 0x" << std::hex << value << std::dec << " " << kind;
    }
    stop = true;
    for (std::thread& worker : workers) worker.join();
    Sleep(500);  // a terminate that comes late would be one too many
    PROCESS_MEMORY_COUNTERS memory = {};
    memory.cb = sizeof memory;
    GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);

    std::cout << "rounds: " << total << ", " << elapsed / total << " ms each (slowest " << slowest
              << " ms), native calls: " << calls.load() << "\nkernel handles: " << before.count << " before, "
              << after.count << " after; onTerminate: " << winEvents(TERMINATED) << " of " << diedWhileAttached
              << "; peak working set: " << memory.PeakWorkingSetSize / 1024 << " KiB; releases: " << releases.load()
              << ", keys checked: " << keyChecks << std::endl;
    for (const std::string& problem : problems) ADD_FAILURE() << problem;
    EXPECT_EQ(diedWhileAttached, winEvents(TERMINATED)) << "one onTerminate per target that died while attached";
    EXPECT_EQ(0u, host->globalRefCount());
    EXPECT_EQ(0, platform->outstandingReferences());
    EXPECT_LE(after.count, before.count + 1) << "kernel handles pile up; open now and not at round "
                                               << baselineRound << ":" << newHandles.str();
    EXPECT_GT(calls.load(), 0);
    EXPECT_GT(releases.load(), 0) << "controls were released while in use";
    EXPECT_GT(keyChecks, 0) << "keys were checked";
}
