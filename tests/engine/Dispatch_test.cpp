// The dispatch thread as Java sees it: attaching to a target by process id,
// the automation object it creates, the events it sends up, and its end.
#include "DriverTest.h"

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

const char* const EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/";

std::wstring ownPidArgs() {
    return L"-pid " + std::to_wstring(GetCurrentProcessId());
}

class Dispatch : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        addOwnWindow(L"Target main window");
    }
    // Attaches to this test process, as the target, and waits until the
    // connection has reached Java.
    void attachToSelf() {
        ASSERT_EQ(static_cast<jint>(GetCurrentProcessId()), attach(ownPidArgs(), 1000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
        ASSERT_TRUE(LogFile::waitFor("mode: 0x", 5000, 7));
    }
    int timeoutPuts() { return platform->connectionTimeoutPuts() + platform->transactionTimeoutPuts(); }
    DWORD dispatchThreadId() {
        auto calls = host->calls("filterEvent");
        return calls.empty() ? 0 : calls[0].threadId;
    }
};

class DispatchWithoutTimestamps : public Dispatch {
protected:
    jnihost::JavaHost::Options hostOptions() const override {
        jnihost::JavaHost::Options options;
        options.timestampedEvents = false;
        return options;
    }
};

// The process environment, as the driver reads it; an empty value is set, not
// removed.
void setEnvironment(const wchar_t* name, const wchar_t* value) {
    SetEnvironmentVariableW(name, value);
}

// GetTickCount64 moves in steps of about 16 ms.
const ULONGLONG TICK = 16;

}  // namespace

TEST_F(Dispatch, AttachByPidConnectsOnTheDispatchThread) {
    attachToSelf();
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));

    auto connected = host->constructions(std::string(EVENT) + "WinEvent");
    ASSERT_EQ(1u, connected.size());
    EXPECT_EQ("(IJI)V", connected[0].signature);
    EXPECT_EQ(100, connected[0].args[0].i);
    EXPECT_EQ(jlong{0}, connected[0].args[1].j);

    const DWORD dispatch = dispatchThreadId();
    EXPECT_NE(GetCurrentThreadId(), dispatch);
    EXPECT_EQ(dispatch, connected[0].threadId);
    auto started = LogFile::find("Start", 5);
    ASSERT_FALSE(started.empty());
    EXPECT_EQ("Dispatch", started[0].thread);

    // A host with time stamps gets every listener bit.
    EXPECT_TRUE(LogFile::contains("Events with timestamp: 1", 9));
    EXPECT_TRUE(LogFile::contains("mode: 0xffffffff", 7));
    EXPECT_EQ(1, platform->createdCount(CLSID_CUIAutomation));
    EXPECT_EQ(0, platform->createdCount(CLSID_CUIAutomation8));
}

TEST_F(Dispatch, TriggerThreadSendsOneCallbackEventFromTheDispatchThread) {
    attachToSelf();
    native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForConstructions(std::string(EVENT) + "CallbackEvent", 1, 5000));
    ASSERT_TRUE(host->waitForCalls("filterEvent", 2, 5000));
    auto callbacks = host->constructions(std::string(EVENT) + "CallbackEvent");
    ASSERT_EQ(1u, callbacks.size());
    EXPECT_EQ("()V", callbacks[0].signature);
    EXPECT_EQ(dispatchThreadId(), callbacks[0].threadId);
    auto filtered = host->calls("filterEvent");
    EXPECT_EQ(dispatchThreadId(), filtered[1].threadId);
    EXPECT_EQ(callbacks[0].object, filtered[1].args[0].l) << "the new CallbackEvent goes to filterEvent";
}

TEST_F(Dispatch, DetachEndsTheThreadWithoutTerminateAndReleasesEverything) {
    attachToSelf();
    detachAndWait();
    EXPECT_TRUE(waitForReleases(5000)) << platform->outstandingBreakdown();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    EXPECT_EQ(1u, host->constructions(std::string(EVENT) + "WinEvent").size()) << "no terminate event";
    EXPECT_TRUE(LogFile::contains("quit", 9));
    EXPECT_EQ(0u, host->globalRefCount()) << "the callback reference goes with the thread";
}

TEST_F(Dispatch, EnableEventListenersFromTheDispatchThreadRunsAtOnce) {
    attachToSelf();
    // Java calls back into the driver from inside filterEvent, on the dispatch
    // thread: the work runs there at once instead of waiting for itself.
    host->onCall("net/tolva/apps/cuebench/client/win/deskwright/DefaultDeskwright", "filterEvent",
                 "(Lnet/tolva/apps/cuebench/client/win/deskwright/event/WinEvent;)Z",
                 [this](JNIEnv* callEnv, jobject callSelf, const std::vector<jnihost::Value>&) {
                     dll->call<void>("EnableEventListeners", callEnv, callSelf, jint{0x12});
                     return jnihost::Value::of(jboolean{JNI_TRUE});
                 });
    native<void>("TriggerThread");
    ASSERT_TRUE(LogFile::waitFor("mode: 0x12", 5000, 7));
    auto registered = LogFile::find("mode: 0x12", 7);
    for (const auto& line : registered) {
        EXPECT_EQ("Dispatch", line.thread);
    }
    ASSERT_TRUE(LogFile::waitFor("runner: ", 5000, 7));
}

TEST_F(Dispatch, ATimeoutUnderOneSecondMakesNoAttempt) {
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(0, attach(ownPidArgs(), 999));
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed + TICK, 1000u + 250u) << "the one-second start wait and the pause after a miss";
    EXPECT_FALSE(LogFile::contains("find via pid", 9));
    EXPECT_TRUE(LogFile::contains("Process could not be determined", 3));
    EXPECT_TRUE(LogFile::waitFor("Done", 5000, 5)) << "the dispatch thread quits";
    EXPECT_EQ(0u, host->calls("filterEvent").size());
}

TEST_F(Dispatch, ATimeoutOfOneSecondMakesOneAttemptAndNoSleep) {
    const std::wstring args = L"-pid " + std::to_wstring(GetCurrentProcessId() + 4);  // no such windows
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(0, attach(args, 1000));
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_EQ(1u, LogFile::count("find via pid", 9));
    EXPECT_EQ(0u, LogFile::count("retry", 9));
    EXPECT_LT(elapsed, 1000u + 250u + 900u);
}

TEST_F(Dispatch, AttemptsAreTimeoutDividedBySecondsAndSpacedBySeconds) {
    const std::wstring args = L"-pid " + std::to_wstring(GetCurrentProcessId() + 4);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(0, attach(args, 3500));
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_EQ(3u, LogFile::count("find via pid", 9));
    EXPECT_EQ(2u, LogFile::count("retry", 9));
    EXPECT_GE(elapsed + TICK, 1000u + 2000u + 250u);
}

TEST_F(Dispatch, SetTimeoutsGoesToTheAutomationObject) {
    attachToSelf();
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsUia8"));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("SetTimeouts", jint{3000}, jint{40000}));
    EXPECT_EQ(std::optional<DWORD>(3000), platform->connectionTimeout());
    EXPECT_EQ(std::optional<DWORD>(40000), platform->transactionTimeout());
}

TEST_F(Dispatch, SetTimeoutsWithoutAutomation2DoesNothing) {
    platform->setAutomation2(false);
    attachToSelf();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsUia8"));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("SetTimeouts", jint{3000}, jint{40000}));
    EXPECT_EQ(0, timeoutPuts());
    EXPECT_TRUE(LogFile::contains("Error setting timeouts: ", 3));
}

TEST_F(Dispatch, Uia8WithAnEmptyValueCreatesTheNewClassAndSetsNoTimeouts) {
    setEnvironment(L"CUEBENCH_WIN_UIA8", L"");
    attachToSelf();
    EXPECT_EQ(1, platform->createdCount(CLSID_CUIAutomation8));
    EXPECT_EQ(0, platform->createdCount(CLSID_CUIAutomation));
    EXPECT_EQ(0, timeoutPuts());
    EXPECT_TRUE(LogFile::contains("Using Uia8", 5));
}

TEST_F(Dispatch, Uia8WithOneNumberOrABadSecondSetsNoTimeouts) {
    setEnvironment(L"CUEBENCH_WIN_UIA8", L"1000,x");
    attachToSelf();
    EXPECT_EQ(1, platform->createdCount(CLSID_CUIAutomation8));
    EXPECT_EQ(0, timeoutPuts());
}

TEST_F(Dispatch, Uia8WithASingleNumberSetsNoTimeouts) {
    setEnvironment(L"CUEBENCH_WIN_UIA8", L"1000");
    attachToSelf();
    EXPECT_EQ(0, timeoutPuts());
}

TEST_F(Dispatch, Uia8WithTwoNumbersSetsBothTimeouts) {
    setEnvironment(L"CUEBENCH_WIN_UIA8", L"2000,20000");
    attachToSelf();
    EXPECT_EQ(std::optional<DWORD>(2000), platform->connectionTimeout());
    EXPECT_EQ(std::optional<DWORD>(20000), platform->transactionTimeout());
}

TEST_F(Dispatch, AFailingUia8FallsBackToTheClassicClass) {
    setEnvironment(L"CUEBENCH_WIN_UIA8", L"");
    platform->failCreation(CLSID_CUIAutomation8, REGDB_E_CLASSNOTREG);
    attachToSelf();
    EXPECT_EQ(1, platform->createdCount(CLSID_CUIAutomation));
    EXPECT_TRUE(LogFile::contains("Error creating automation object 8: ", 1));
}

TEST_F(Dispatch, ViaHwndNeedsExactlyTrue) {
    setEnvironment(L"CUEBENCH_WIN_VIA_HWND", L"TRUE");
    attachToSelf();
    EXPECT_TRUE(LogFile::contains("via hwnd: 0", 5));
}

TEST_F(Dispatch, NeitherAutomationClassEndsTheThreadWithCodeTwo) {
    platform->failCreation(CLSID_CUIAutomation, REGDB_E_CLASSNOTREG);
    EXPECT_EQ(0, attach(ownPidArgs(), 3000));
    EXPECT_TRUE(LogFile::contains("Dispatch thread terminated prematurely: 2", 1));
    EXPECT_FALSE(LogFile::contains("find via pid", 9));
}

TEST_F(DispatchWithoutTimestamps, AHostWithoutTimestampsKeepsTheDefaultMode) {
    attachToSelf();
    EXPECT_TRUE(LogFile::contains("Events with timestamp: 0", 9));
    EXPECT_FALSE(LogFile::contains("Java exception", 3)) << "the probe's error is cleared quietly";
    EXPECT_TRUE(LogFile::contains("mode: 0x1f", 7));
    EXPECT_FALSE(LogFile::contains("mode: 0xffffffff", 7));
}
