// The end of a connection as Java meets it: the target's end and the watch
// over it, natives called after a detach, a failed attach or the target's
// end; natives that are still running when the end comes; and a second
// connection in the same process.
#include "DriverTest.h"
#include "ImportPatch.h"
#include "TargetProcess.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

using dwtest::DriverTest;
using dwtest::DRIVER_CLASS;
using dwtest::FILTER_SIGNATURE;
using dwtest::ownPidArgs;
using dwtest::TargetProcess;

namespace {

const std::string WIN_EVENT = dwtest::EVENT_PACKAGE + "WinEvent";
const std::string CALLBACK_EVENT = dwtest::EVENT_PACKAGE + "CallbackEvent";
const unsigned BOUND_MS = 10000;

// Sends the process's standard output into a file for a while.
class StdoutCapture {
public:
    StdoutCapture() {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        path_ = std::wstring(dir) + L"deskwright-stdout-" + std::to_wstring(GetCurrentProcessId()) + L".txt";
        std::fflush(stdout);
        saved_ = _dup(1);
        const int file = _wopen(path_.c_str(), _O_CREAT | _O_TRUNC | _O_WRONLY, _S_IREAD | _S_IWRITE);
        _dup2(file, 1);
        _close(file);
    }
    ~StdoutCapture() { restore(); }
    std::string restore() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            _dup2(saved_, 1);
            _close(saved_);
            saved_ = -1;
        }
        std::ifstream in(path_.c_str());
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }

private:
    std::wstring path_;
    int saved_ = -1;
};

// A manual-reset event that closes itself.
class Signal {
public:
    Signal() : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Signal() { CloseHandle(event_); }
    void set() { SetEvent(event_); }
    bool wait(DWORD ms) { return WaitForSingleObject(event_, ms) == WAIT_OBJECT_0; }

private:
    HANDLE event_;
};

// Work on a Java thread of its own. A thread that doesn't come back in time
// is left behind (the process ends it), so that the test can still report.
class JavaThread {
public:
    JavaThread(jnihost::JavaHost& host, std::function<void(JNIEnv*)> work)
        : thread_([this, &host, work] {
              JNIEnv* env = host.attachCurrentThread();
              work(env);
              host.detachCurrentThread();
              done_.set();
          }) {}
    ~JavaThread() {
        if (done_.wait(0)) {
            thread_.join();
        } else {
            thread_.detach();
        }
    }
    bool finishedWithin(DWORD ms) { return done_.wait(ms); }

private:
    Signal done_;
    std::thread thread_;
};

// _beginthreadex as the driver meets it in a test: the first threads start,
// then the C runtime refuses.
using BeginThread = std::uintptr_t(__cdecl*)(void*, unsigned, unsigned(__stdcall*)(void*), void*, unsigned,
                                             unsigned*);
BeginThread realBeginThread = nullptr;
std::atomic<int> threadsLetThrough{0};

std::uintptr_t __cdecl refusingBeginThread(void* security, unsigned stack, unsigned(__stdcall* start)(void*),
                                           void* arg, unsigned flags, unsigned* id) {
    if (threadsLetThrough-- > 0) return realBeginThread(security, stack, start, arg, flags, id);
    errno = EAGAIN;
    return 0;
}

class Lifecycle : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        window = &addOwnWindow(L"Target main window");
        window->add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {20, 20, 80, 40}});
    }
    void TearDown() override {
        window->beforeRead(nullptr);
        if (attached) {
            native<void>("DetachClient");
            attached = false;
        }
        EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(BOUND_MS));
        DriverTest::TearDown();
    }
    // A real target with its window on the simulated desktop; attached to.
    void connectTo(TargetProcess& target, const wchar_t* title, size_t connections) {
        ASSERT_TRUE(target.ready()) << "target.exe did not start";
        addWindow(title, L"", static_cast<int>(target.pid()), target.window(), {500, 500, 600, 600});
        ASSERT_EQ(static_cast<jint>(target.pid()), attach(L"-pid " + std::to_wstring(target.pid()), 1000));
        ASSERT_TRUE(host->waitForConstructions(WIN_EVENT, connections, 5000)) << "no onConnect";
    }
    void connect(size_t connections) {
        ASSERT_EQ(static_cast<jint>(GetCurrentProcessId()), attach(ownPidArgs(), 1000));
        ASSERT_TRUE(host->waitForConstructions(WIN_EVENT, connections, 5000)) << "no onConnect";
    }
    // The dispatch thread is held in Java (in filterEvent of a CallbackEvent)
    // for a while, so that what is posted now stands behind what comes next.
    void holdDispatchThreadInJava(DWORD ms) {
        host->onCall(DRIVER_CLASS, "filterEvent", FILTER_SIGNATURE,
                     [this, ms](JNIEnv*, jobject, const std::vector<jnihost::Value>& args) {
                         if (host->classNameOf(args[0].l) == CALLBACK_EVENT) {
                             inJava.set();
                             Sleep(ms);
                         }
                         return jnihost::Value::of(jboolean{JNI_TRUE});
                     });
        native<void>("TriggerThread");
        ASSERT_TRUE(inJava.wait(5000));
    }
    // What the natives without a handle give when there is no connection.
    void expectDefaults(const char* when) {
        SCOPED_TRACE(when);
        EXPECT_EQ(JNI_FALSE, native<jboolean>("IsUia8"));
        EXPECT_EQ(JNI_FALSE, native<jboolean>("SetTimeouts", jint{1000}, jint{2000}));
        jlongArray tops = native<jlongArray>("GetToplevels");
        ASSERT_FALSE(host->isNull(tops));
        EXPECT_TRUE(host->longs(tops).empty());
        EXPECT_EQ(jlong{0}, native<jlong>("GetElementFromPoint", jint{30}, jint{30}));
        EXPECT_EQ("", dwtest::pendingException(*host));
    }

    fakeuia::Node* window = nullptr;
    Signal inJava;
};

}  // namespace

TEST_F(Lifecycle, AfterADetachOrAFailedAttachNativesGiveTheirDefaults) {
    connect(1);
    EXPECT_NE(jlong{0}, native<jlong>("GetElementFromPoint", jint{30}, jint{30}));
    detachAndWait();
    for (const char* when : {"after a detach", "after a failed attach"}) {
        ASSERT_TRUE(waitForReleases(5000)) << when << ": " << platform->outstandingBreakdown();
        expectDefaults(when);
        native<void>("EnableEventListeners", jint{0x3});  // no queue to wait for
        EXPECT_EQ(0, attach(L"-pid " + std::to_wstring(GetCurrentProcessId() + 4), 1000));
    }
}

TEST_F(Lifecycle, AHandleNativeRunningWhenTheConnectionEndsComesBack) {
    connect(1);
    const jlong handle = handleOf(*window);
    ASSERT_NE(jlong{0}, handle);
    // The handle check reads the window's type once; the poller is held at
    // its next read, inside the native's own work, until the end is over.
    std::atomic<DWORD> poller{0};
    std::atomic<int> typeReads{0};
    Signal held;
    Signal release;
    window->beforeRead([&](const std::string& method) {
        if (GetCurrentThreadId() == poller && method == "get_CurrentControlType" && ++typeReads == 2) {
            held.set();
            release.wait(BOUND_MS);
        }
    });
    std::atomic<int> children{-1};
    JavaThread java(*host, [&](JNIEnv* threadEnv) {
        poller = GetCurrentThreadId();
        jlongArray got = dll->call<jlongArray>("GetChildren", threadEnv, self, handle);
        children = static_cast<int>(host->longs(got).size());
    });
    ASSERT_TRUE(held.wait(5000)) << "the poller never got inside the native";
    detachAndWait();
    release.set();
    ASSERT_TRUE(java.finishedWithin(BOUND_MS));
    EXPECT_EQ(0, children.load()) << "no automation object, no children";
}

TEST_F(Lifecycle, RunNowWorkBehindTheQuitComesBackWithItsDefault) {
    connect(1);
    holdDispatchThreadInJava(500);
    native<void>("DetachClient");
    attached = false;
    JavaThread listeners(*host, [&](JNIEnv* threadEnv) {
        dll->call<void>("EnableEventListeners", threadEnv, self, jint{0x3});
    });
    EXPECT_TRUE(listeners.finishedWithin(BOUND_MS)) << "EnableEventListeners waits for ever";
    EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000));
}

TEST_F(Lifecycle, ASecondConnectionRightAfterADetachIsWhole) {
    connect(1);
    const DWORD first = host->calls("filterEvent")[0].threadId;
    holdDispatchThreadInJava(300);
    // The callback object and the classes of the connect and callback events.
    const size_t connectedRefs = host->globalRefCount();
    native<void>("DetachClient");
    connect(2);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));

    host->onCall(DRIVER_CLASS, "filterEvent", FILTER_SIGNATURE,
                 [](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                     return jnihost::Value::of(jboolean{JNI_TRUE});
                 });
    native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForConstructions(CALLBACK_EVENT, 2, 5000));
    const DWORD second = host->constructions(CALLBACK_EVENT)[1].threadId;
    EXPECT_NE(first, second) << "a new dispatch thread";
    EXPECT_EQ(connectedRefs, host->globalRefCount()) << "the new callback object and classes, none of the old";
    EXPECT_EQ(2u, host->constructions(WIN_EVENT).size()) << "two connects, no terminate";
    std::vector<jlong> tops = host->longs(native<jlongArray>("GetToplevels"));
    EXPECT_EQ(1u, tops.size());
}

TEST_F(Lifecycle, TheTargetsEndReachesJavaOnTheDispatchThread) {
    TargetProcess target(L"Short Lived");
    connectTo(target, L"Short Lived", 1);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    const DWORD dispatch = host->calls("filterEvent")[0].threadId;
    StdoutCapture output;
    target.kill();
    ASSERT_TRUE(host->waitForConstructions(WIN_EVENT, 2, 5000)) << "no terminate event";
    EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000));
    const std::string printed = output.restore();
    attached = false;  // the dispatch thread has ended by itself
    auto events = host->constructions(WIN_EVENT);
    EXPECT_EQ(101, events[1].args[0].i);
    EXPECT_EQ(dispatch, events[1].threadId);
    EXPECT_NE(std::string::npos, printed.find("terminated\n")) << printed;
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    expectDefaults("after the target's end");
}

// The watch ends with a Java detach: the old target's end tells nobody, and
// leaves the next connection alone.
TEST_F(Lifecycle, AfterADetachTheOldTargetsEndTellsNobody) {
    TargetProcess old(L"Old Target");
    connectTo(old, L"Old Target", 1);
    detachAndWait();
    connect(2);
    StdoutCapture output;
    old.kill();
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(old.process(), 5000));
    EXPECT_FALSE(host->waitForConstructions(WIN_EVENT, 3, 1500)) << "a terminate for the new connection";
    EXPECT_EQ(std::string::npos, output.restore().find("terminated"));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    native<void>("TriggerThread");
    EXPECT_TRUE(host->waitForConstructions(CALLBACK_EVENT, 1, 5000)) << "the new connection still runs";
}

TEST_F(Lifecycle, ThreadsThatCannotStartLeaveNoHalfConnection) {
    dwtest::ImportPatch patch(dll->module(), "_beginthreadex", reinterpret_cast<void*>(&refusingBeginThread));
    ASSERT_TRUE(patch.applied()) << "the driver imports no _beginthreadex";
    realBeginThread = reinterpret_cast<BeginThread>(patch.original());

    threadsLetThrough = 0;  // no dispatch thread
    EXPECT_EQ(0, attach(ownPidArgs(), 1000));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    expectDefaults("without a dispatch thread");

    threadsLetThrough = 1;  // a dispatch thread, but no shutdown thread
    connect(1);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    native<void>("TriggerThread");
    EXPECT_TRUE(host->waitForConstructions(CALLBACK_EVENT, 1, 5000)) << "the connection works";
    detachAndWait();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
}
