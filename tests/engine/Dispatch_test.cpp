// The dispatch thread as Java sees it: attaching to a target by process id,
// the automation object it creates, the events it sends up, and its end.
#include "DriverTest.h"

#include <chrono>

using dwtest::DriverTest;
using dwtest::EVENT_PACKAGE;
using dwtest::LogFile;
using dwtest::ownPidArgs;

namespace {

class Dispatch : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        addOwnWindow(L"Target main window");
    }
    // Attaches to this test process, as the target, and waits until the
    // connection has reached Java.
    void attachToSelf() {
        const size_t connects = host->calls("filterEvent").size();
        ASSERT_EQ(static_cast<jint>(GetCurrentProcessId()), attach(ownPidArgs(), 1000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", connects + 1, 5000));
        ASSERT_TRUE(LogFile::waitFor("mode: 0x", 5000, 7));
    }
    void detachAndWaitForTheEnd() {
        native<void>("DetachClient");
        attached = false;
        ASSERT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000));
    }
    int timeoutPuts() { return platform->connectionTimeoutPuts() + platform->transactionTimeoutPuts(); }
};

// The driver's waits are timed by a tick that moves in steps of about 16 ms.
const ULONGLONG TICK = 16;

}  // namespace

TEST_F(Dispatch, AConnectionLivesOnTheDispatchThreadUntilTheDetach) {
    attachToSelf();
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    auto connected = host->constructions(EVENT_PACKAGE + "WinEvent");
    ASSERT_EQ(1u, connected.size());
    EXPECT_EQ("(IJI)V", connected[0].signature);
    EXPECT_EQ(100, connected[0].args[0].i);
    EXPECT_EQ(jlong{0}, connected[0].args[1].j);
    const DWORD dispatch = host->calls("filterEvent")[0].threadId;
    EXPECT_NE(GetCurrentThreadId(), dispatch);
    EXPECT_EQ(dispatch, connected[0].threadId);
    EXPECT_EQ((std::vector<DWORD>{dispatch}), platform->createdOnThreads());
    EXPECT_EQ(1, platform->createdCount(CLSID_CUIAutomation));
    // A host with time stamps gets every listener bit.
    EXPECT_TRUE(LogFile::contains("mode: 0xffffffff", 7));

    native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForCalls("filterEvent", 2, 5000));
    auto callbacks = host->constructions(EVENT_PACKAGE + "CallbackEvent");
    ASSERT_EQ(1u, callbacks.size());
    EXPECT_EQ("()V", callbacks[0].signature);
    EXPECT_EQ(dispatch, callbacks[0].threadId);
    auto filtered = host->calls("filterEvent");
    EXPECT_EQ(dispatch, filtered[1].threadId);
    EXPECT_EQ(callbacks[0].object, filtered[1].args[0].l) << "the new CallbackEvent goes to filterEvent";

    detachAndWait();
    EXPECT_TRUE(waitForReleases(5000)) << platform->outstandingBreakdown();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    EXPECT_EQ(1u, host->constructions(EVENT_PACKAGE + "WinEvent").size()) << "no terminate event";
    EXPECT_EQ(0u, host->globalRefCount()) << "the callback reference goes with the thread";
}

TEST_F(Dispatch, EnableEventListenersFromTheDispatchThreadRunsAtOnce) {
    attachToSelf();
    // Java calls back into the driver from inside filterEvent, on the dispatch
    // thread: the work runs there at once instead of waiting for itself.
    host->onCall(dwtest::DRIVER_CLASS, "filterEvent", dwtest::FILTER_SIGNATURE,
                 [this](JNIEnv* callEnv, jobject callSelf, const std::vector<jnihost::Value>&) {
                     dll->call<void>("EnableEventListeners", callEnv, callSelf, jint{0x12});
                     return jnihost::Value::of(jboolean{JNI_TRUE});
                 });
    native<void>("TriggerThread");
    ASSERT_TRUE(LogFile::waitFor("mode: 0x12", 5000, 7));
    for (const auto& line : LogFile::find("mode: 0x12", 7)) EXPECT_EQ("Dispatch", line.thread);
    ASSERT_TRUE(LogFile::waitFor("runner: ", 5000, 7)) << "the filterEvent call came back";
}

// The finders run once a second, after the dispatch thread's one-second
// start, as many times as the time-out holds whole seconds.
TEST_F(Dispatch, AttemptsAreTheTimeoutInWholeSecondsSpacedBySeconds) {
    const struct { jint timeoutMs; size_t attempts; ULONGLONG atLeastMs, belowMs; } rows[] = {
        {999, 0, 1000 + 250, 10000},  // the start wait and the pause after a miss
        {1000, 1, 0, 1000 + 250 + 900},
        {3500, 3, 1000 + 2000 + 250, 10000},
    };
    const std::wstring nobody = L"-pid " + std::to_wstring(GetCurrentProcessId() + 4);  // no such windows
    for (const auto& row : rows) {
        const size_t before = LogFile::count("find via pid", 9);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, attach(nobody, row.timeoutMs)) << row.timeoutMs;
        const auto elapsed = static_cast<ULONGLONG>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                        std::chrono::steady_clock::now() - start)
                                                        .count());
        EXPECT_EQ(row.attempts, LogFile::count("find via pid", 9) - before) << row.timeoutMs;
        EXPECT_GE(elapsed + TICK, row.atLeastMs) << row.timeoutMs;
        EXPECT_LT(elapsed, row.belowMs) << row.timeoutMs;
        EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000)) << row.timeoutMs << ": the dispatch thread quits";
    }
    EXPECT_EQ(0u, host->calls("filterEvent").size());
}

// CUEBENCH_WIN_UIA8 chooses the newer automation class (an empty value is
// set, not removed) and, with two numbers, its time-outs; SetTimeouts sets
// them later where the automation object has them.
TEST_F(Dispatch, TheAutomationClassAndItsTimeouts) {
    const struct {
        const wchar_t* uia8;  // null: not set
        bool automation2;
        bool failUia8;
        const CLSID* created;
        int puts;  // time-outs set at the start
        DWORD connection, transaction;
    } rows[] = {
        {nullptr, true, false, &CLSID_CUIAutomation, 0, 0, 0},
        {L"", true, false, &CLSID_CUIAutomation8, 0, 0, 0},
        {L"1000,x", true, false, &CLSID_CUIAutomation8, 0, 0, 0},
        {L"1000", true, false, &CLSID_CUIAutomation8, 0, 0, 0},
        {L"2000,20000", true, false, &CLSID_CUIAutomation8, 2, 2000, 20000},
        {L"", true, true, &CLSID_CUIAutomation, 0, 0, 0},  // falls back to the classic class
        {nullptr, false, false, &CLSID_CUIAutomation, 0, 0, 0},
    };
    for (const auto& row : rows) {
        const std::string name = row.uia8 ? "UIA8='" + std::string(row.uia8, row.uia8 + wcslen(row.uia8)) + "'"
                                           : std::string(row.automation2 ? "unset" : "no IUIAutomation2");
        SetEnvironmentVariableW(L"CUEBENCH_WIN_UIA8", row.uia8);
        platform->setAutomation2(row.automation2);
        platform->failCreation(CLSID_CUIAutomation8, row.failUia8 ? REGDB_E_CLASSNOTREG : S_OK);
        const int created = platform->createdCount(*row.created);
        const int puts = timeoutPuts();
        attachToSelf();
        EXPECT_EQ(created + 1, platform->createdCount(*row.created)) << name;
        EXPECT_EQ(row.puts, timeoutPuts() - puts) << name;
        if (row.puts) {
            EXPECT_EQ(row.connection, platform->connectionTimeout()) << name;
            EXPECT_EQ(row.transaction, platform->transactionTimeout()) << name;
        }
        EXPECT_EQ(row.automation2, native<jboolean>("IsUia8") == JNI_TRUE) << name;
        EXPECT_EQ(row.automation2, native<jboolean>("SetTimeouts", jint{3000}, jint{40000}) == JNI_TRUE) << name;
        if (row.automation2) {
            EXPECT_EQ(std::optional<DWORD>(3000), platform->connectionTimeout()) << name;
            EXPECT_EQ(std::optional<DWORD>(40000), platform->transactionTimeout()) << name;
        } else {
            EXPECT_EQ(row.puts, timeoutPuts() - puts) << name;
        }
        detachAndWaitForTheEnd();
    }

    // Neither class: the dispatch thread ends before any finder runs.
    platform->failCreation(CLSID_CUIAutomation, REGDB_E_CLASSNOTREG);
    SetEnvironmentVariableW(L"CUEBENCH_WIN_UIA8", nullptr);
    const size_t attempts = LogFile::count("find via pid", 9);
    EXPECT_EQ(0, attach(ownPidArgs(), 3000));
    EXPECT_TRUE(LogFile::contains("Dispatch thread terminated prematurely: 2", 1));
    EXPECT_EQ(attempts, LogFile::count("find via pid", 9));
}
