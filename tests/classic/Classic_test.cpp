// The classic back end through the natives: the test target started or
// found as a real process, the client library brought into it by its
// message hook, and the natives answered over the shared-memory channel
// from the target's real windows. Where a client would misbehave, the test
// is the client itself: it opens the driver's queue and sends what it likes.
#include "DriverTest.h"
#include "InputRecorder.h"
#include "LogFile.h"
#include "OwnWindow.h"
#include "TargetProcess.h"
#include "tolvacore/ipc/ShmQueue.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using dwtest::DriverTest;
using dwtest::LogFile;
using dwtest::TargetProcess;
using dwtest::waitUntil;
using tolva::tolvacore::ipc::ShmException;
using tolva::tolvacore::ipc::ShmQueue;

namespace {

const int DRIVER_QUEUE_OFFSET = 0x10000;
const char* const CONNECTED_EVENT = "WinEvent";

struct Search {
    DWORD pid;
    std::vector<HWND> found;
};

BOOL CALLBACK collectShown(HWND window, LPARAM param) {
    auto* s = reinterpret_cast<Search*>(param);
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    if (owner == s->pid && IsWindowVisible(window)) s->found.push_back(window);
    return TRUE;
}

// The visible top-level windows of a process, as the system lists them.
std::vector<HWND> visibleTopsOf(DWORD pid) {
    Search search{pid, {}};
    EnumWindows(&collectShown, reinterpret_cast<LPARAM>(&search));
    std::sort(search.found.begin(), search.found.end());
    return search.found;
}

std::vector<HWND> asWindows(const std::vector<jlong>& handles) {
    std::vector<HWND> windows;
    for (jlong handle : handles) windows.push_back(reinterpret_cast<HWND>(static_cast<intptr_t>(handle)));
    std::sort(windows.begin(), windows.end());
    return windows;
}

jlong handleOfWindow(HWND window) { return static_cast<jlong>(reinterpret_cast<intptr_t>(window)); }

class Classic : public DriverTest {
protected:
    void TearDown() override {
        if (classicAttached) {
            native<void>("DetachClient");
            classicAttached = false;
        }
        for (DWORD pid : started) {
            HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
            if (process) {
                TerminateProcess(process, 0);
                WaitForSingleObject(process, 5000);
                CloseHandle(process);
            }
        }
        // The channel's thread ends with the client's end or the target's.
        EXPECT_TRUE(waitUntil([&] { return !connected(); }, 10000)) << "the channel stayed up";
        // On its way out it lets go of the Java host, which goes with this
        // fixture: the host must outlive every channel thread that is ending.
        if (!channelStaysUp) {
            EXPECT_TRUE(waitUntil([] { return channelThreads("start") == channelThreads("done"); }, 10000))
                << "a channel thread did not end";
        }
        DriverTest::TearDown();
    }

    jint startClient(const std::wstring& command) {
        const jint pid = native<jint>("StartClient", host->str(command));
        if (pid) {
            started.push_back(static_cast<DWORD>(pid));
            classicAttached = true;
        }
        return pid;
    }
    jint attachClient(DWORD threadId) {
        const jint pid = native<jint>("AttachClient__I", jint(threadId));
        classicAttached = classicAttached || pid != 0;
        return pid;
    }
    bool connected() { return native<jboolean>("IsConnected") != JNI_FALSE; }
    bool waitConnected() { return waitUntil([&] { return connected(); }, 10000); }
    std::vector<jlong> tops() { return host->longs(native<jlongArray>("GetToplevels")); }
    std::vector<jlong> childrenOf(jlong handle) {
        jlongArray array = native<jlongArray>("GetChildren", handle);
        EXPECT_FALSE(host->isNull(array)) << "GetChildren gave null";
        return host->longs(array);
    }

    // The events Java's filterEvent got, of a class (slash form).
    std::vector<jobject> eventsOf(const std::string& className) {
        std::vector<jobject> events;
        for (const auto& call : host->calls("filterEvent")) {
            if (!call.args.empty() && host->classNameOf(call.args[0].l) == className) events.push_back(call.args[0].l);
        }
        return events;
    }
    bool waitForEvent(const std::string& className, size_t count = 1) {
        return waitUntil([&] { return eventsOf(className).size() >= count; }, 10000);
    }

    // The channel threads that logged the word, as their start and their end.
    static size_t channelThreads(const char* word) {
        size_t count = 0;
        for (const auto& line : LogFile::find(word, 5)) count += line.logger == "tolva.ShmComm" ? 1 : 0;
        return count;
    }

    bool classicAttached = false;
    // A failed attach leaves its channel waiting for a client that never
    // comes; nothing ends it before the process does.
    bool channelStaysUp = false;
    std::vector<DWORD> started;
};

std::string receivedBy(TargetProcess& target) {
    std::string lines;
    for (const auto& r : target.received()) lines += r.what + "; ";
    return lines;
}

std::string classOf(HWND window) {
    char name[256] = {};
    GetClassNameA(window, name, 256);
    return name;
}

}  // namespace

// StartClient starts the target; its client connects, and the natives
// answer from the target's real windows: its top-level windows, their
// classes, bounds, native handles, parents and (no) children.
TEST_F(Classic, StartClientAnswersFromTheTargetsWindows) {
    const jint pid = startClient(L"target.exe \"Classic A\" \"Classic B\"");
    ASSERT_NE(0, pid);
    ASSERT_TRUE(waitConnected()) << "the client never said connected";
    EXPECT_TRUE(waitUntil([&] { return visibleTopsOf(pid).size() == 2; }, 5000));
    EXPECT_EQ(visibleTopsOf(pid), asWindows(tops()));
    EXPECT_NE(0, native<jint>("GetThreadId"));

    for (jlong top : tops()) {
        HWND window = reinterpret_cast<HWND>(static_cast<intptr_t>(top));
        EXPECT_EQ(top, native<jlong>("GetNativeHandle", top));
        EXPECT_EQ("'DeskwrightTarget'", show(native<jstring>("GetClassName", top)));
        EXPECT_EQ("['DeskwrightTarget']", show(native<jobjectArray>("GetClassNames", top)));
        RECT rect{};
        GetWindowRect(window, &rect);
        EXPECT_EQ("[" + std::to_string(rect.left) + "," + std::to_string(rect.top) + "," +
                      std::to_string(rect.right - rect.left) + "," + std::to_string(rect.bottom - rect.top) + "]",
                  show(native<jintArray>("GetBounds", top)));
        EXPECT_EQ(0, native<jlong>("GetParent", top));
        EXPECT_TRUE(childrenOf(top).empty()) << "no children: an empty array";
        EXPECT_EQ("'This client can't run script'", show(native<jstring>("EvalJS", top, host->str(L"1+1"))));
    }
    // A handle the client doesn't know gets the empty answers, from the client.
    const jlong stranger = 0x7FFF0000;
    EXPECT_EQ(0, native<jlong>("GetNativeHandle", stranger));
    EXPECT_EQ("''", show(native<jstring>("GetClassName", stranger)));
    EXPECT_EQ("[]", show(native<jobjectArray>("GetClassNames", stranger)));
    EXPECT_EQ("[0,0,0,0]", show(native<jintArray>("GetBounds", stranger)));
    EXPECT_TRUE(childrenOf(stranger).empty());
    EXPECT_EQ("", thrown());

    // A second start while attached starts nothing.
    EXPECT_EQ(0, native<jint>("StartClient", host->str(L"target.exe \"Classic C\"")));
    EXPECT_TRUE(LogFile::contains("Already running", 3));
}

// A serving target with child windows, found by its thread and by a title:
// children and parents as the system has them, class names of each kind.
TEST_F(Classic, AttachClientByThreadAndByTitleSeesTheWindowTree) {
    TargetProcess target{TargetProcess::Serving{}};
    ASSERT_TRUE(target.ready());
    HWND top = target.makeWindow(L"DeskwrightTarget", L"Classic tree", {100, 100, 400, 300});
    ASSERT_NE(nullptr, top);
    HWND button = target.makeWindow(L"Button", L"Press", {10, 10, 80, 30}, top);
    HWND edit = target.makeWindow(L"Edit", L"text", {10, 50, 120, 24}, top);
    ASSERT_TRUE(button && edit);
    const DWORD thread = GetWindowThreadProcessId(top, nullptr);

    EXPECT_EQ(jint(target.pid()), attachClient(thread));
    ASSERT_TRUE(waitConnected());
    EXPECT_EQ(std::vector<HWND>{top}, asWindows(tops()));
    EXPECT_EQ(asWindows({handleOfWindow(button), handleOfWindow(edit)}), asWindows(childrenOf(handleOfWindow(top))));
    EXPECT_EQ(handleOfWindow(top), native<jlong>("GetParent", handleOfWindow(button)));
    EXPECT_EQ("'" + classOf(button) + "'", show(native<jstring>("GetClassName", handleOfWindow(button))));
    EXPECT_EQ("'" + classOf(edit) + "'", show(native<jstring>("GetClassName", handleOfWindow(edit))));
    EXPECT_EQ(jint(thread), native<jint>("GetThreadId"));
    EXPECT_EQ(0, attachClient(thread)) << "a second attach while attached";
    // A title that matches, with an attach that fails, and one that doesn't compile.
    EXPECT_EQ(0, native<jint>("AttachClient__Ljava_lang_String_2", host->str(L"Classic tree")));
    EXPECT_EQ(1u, LogFile::count("No matching window", 3));
    EXPECT_EQ(0, native<jint>("AttachClient__Ljava_lang_String_2", host->str(L"Classic (tree")));
    EXPECT_EQ(2u, LogFile::count("No matching window", 3));
    EXPECT_TRUE(connected()) << "the failed attaches left the connection alone";

    // Detached: the client leaves the target and the channel ends.
    native<void>("DetachClient");
    classicAttached = false;
    EXPECT_TRUE(waitUntil([&] { return !connected(); }, 10000)) << "still connected after the detach";

    // Found again by a title expression, as a whole-string match.
    EXPECT_EQ(0, native<jint>("AttachClient__Ljava_lang_String_2", host->str(L"Classic")));
    EXPECT_EQ(3u, LogFile::count("No matching window", 3)) << "a part of the title is no match";
    EXPECT_EQ(jint(target.pid()), native<jint>("AttachClient__Ljava_lang_String_2", host->str(L"Classic t.*")));
    classicAttached = true;
    ASSERT_TRUE(waitConnected()) << "no new connection after the detach";
    EXPECT_EQ(std::vector<HWND>{top}, asWindows(tops()));
}

// What the user does in the target reaches Java as event records of the
// client, and TriggerThread comes back as a CallbackEvent.
TEST_F(Classic, TheUsersInputAndTriggerThreadReachJava) {
    dwtest::InputRestorer restore;
    TargetProcess target{TargetProcess::Serving{}};
    ASSERT_TRUE(target.ready());
    HWND window = target.makeWindow(L"DeskwrightTarget", L"Classic input", {100, 100, 500, 400});
    ASSERT_NE(nullptr, window);
    ASSERT_NE(0, attachClient(GetWindowThreadProcessId(window, nullptr)));
    ASSERT_TRUE(waitConnected());
    ASSERT_TRUE(target.foreground(window));
    POINT client = {40, 30};
    ClientToScreen(window, &client);
    SetCursorPos(client.x, client.y);
    INPUT clicks[2] = {};
    clicks[0].type = clicks[1].type = INPUT_MOUSE;
    clicks[0].mi.dwFlags = MOUSEEVENTF_LEFTDOWN;
    clicks[1].mi.dwFlags = MOUSEEVENTF_LEFTUP;
    SendInput(2, clicks, sizeof(INPUT));
    ASSERT_TRUE(waitForEvent("net/tolva/apps/cuebench/client/win/deskwright/event/MouseEvent", 2))
        << "no mouse events from the client; the target received: " << receivedBy(target);
    jobject press = eventsOf("net/tolva/apps/cuebench/client/win/deskwright/event/MouseEvent").at(0);
    EXPECT_EQ(WM_LBUTTONDOWN, host->field(press, "code").i);
    EXPECT_EQ(handleOfWindow(window), host->field(press, "handle").j);
    EXPECT_EQ(40, host->field(press, "x").i);
    EXPECT_EQ(30, host->field(press, "y").i);
    EXPECT_EQ(client.x, host->field(press, "screenX").i);
    EXPECT_EQ(client.y, host->field(press, "screenY").i);
    EXPECT_EQ(0, host->field(press, "button").i);

    INPUT keys[2] = {};
    keys[0].type = keys[1].type = INPUT_KEYBOARD;
    keys[0].ki.wVk = keys[1].ki.wVk = 'Q';
    keys[1].ki.dwFlags = KEYEVENTF_KEYUP;
    SendInput(2, keys, sizeof(INPUT));
    ASSERT_TRUE(waitForEvent("net/tolva/apps/cuebench/client/win/deskwright/event/KeyboardEvent", 2))
        << "the target received: " << receivedBy(target);
    jobject key = eventsOf("net/tolva/apps/cuebench/client/win/deskwright/event/KeyboardEvent").at(0);
    EXPECT_EQ(WM_KEYDOWN, host->field(key, "code").i);
    EXPECT_EQ('Q', host->field(key, "vk").i);

    native<void>("TriggerThread");
    EXPECT_TRUE(waitUntil([&] { return !host->constructions("net/tolva/apps/cuebench/client/win/deskwright/event/CallbackEvent").empty(); }, 5000))
        << "TriggerThread gave no CallbackEvent";
}

// Terminate asks the client to end the target: the process ends, and so
// does the connection.
TEST_F(Classic, TerminateEndsTheTargetThroughItsClient) {
    const jint pid = startClient(L"target.exe \"Classic ending\"");
    ASSERT_NE(0, pid);
    ASSERT_TRUE(waitConnected());
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    ASSERT_NE(nullptr, process);
    native<void>("Terminate");
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(process, 5000)) << "the target is still running";
    CloseHandle(process);
    EXPECT_TRUE(waitUntil([&] { return !connected(); }, 5000));
    classicAttached = false;
}

// The target dies while a Java thread keeps calling: the calls end with
// empty answers, the connection ends, and nothing hangs.
TEST_F(Classic, TheTargetDyingMidCallEndsTheConnection) {
    const jint pid = startClient(L"target.exe \"Classic doomed\"");
    ASSERT_NE(0, pid);
    ASSERT_TRUE(waitConnected());
    const jlong top = tops().at(0);
    std::atomic<bool> stop{false};
    std::atomic<int> calls{0};
    std::thread caller([&] {
        JNIEnv* callerEnv = host->attachCurrentThread();
        while (!stop) {
            dll->call<jlong>("GetParent", callerEnv, self, top);
            ++calls;
        }
        host->detachCurrentThread();
    });
    Sleep(300);
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    TerminateProcess(process, 3);
    WaitForSingleObject(process, 5000);
    CloseHandle(process);
    EXPECT_TRUE(waitUntil([&] { return !connected(); }, 10000));
    const int before = calls;
    Sleep(300);
    stop = true;
    caller.join();
    EXPECT_GT(calls.load(), before) << "calls after the end hang";
    EXPECT_TRUE(tops().empty());
    classicAttached = false;
}

// The start and attach failures: a command that starts nothing, a thread
// that doesn't exist, and one that has no message queue.
TEST_F(Classic, StartsAndAttachesThatCantSucceedGiveZero) {
    EXPECT_EQ(0, native<jint>("StartClient", host->str(L"no-such-program.exe")));
    EXPECT_TRUE(LogFile::contains("Error: ", 1));
    EXPECT_FALSE(connected());

    // A thread that never takes a message: about 2.5 s of knocking, then 0.
    std::atomic<bool> release{false};
    std::atomic<DWORD> quiet{0};
    std::thread sleeper([&] {
        quiet = GetCurrentThreadId();
        while (!release) Sleep(10);
    });
    while (!quiet) Sleep(1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, attachClient(quiet));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    release = true;
    sleeper.join();
    EXPECT_GE(ms.count(), 2400);
    EXPECT_LT(ms.count(), 10000);
    EXPECT_TRUE(LogFile::contains("Probably no message queue", 5));
    EXPECT_FALSE(connected());
    channelStaysUp = true;  // until the next start or attach
}

// Thread id 0 names no process. A process that can't be opened counts as
// 64-bit, so the 32-bit driver shows the mismatch box, which waits for the
// user (here the test answers it); the 64-bit driver knocks in vain.
TEST_F(Classic, ThreadIdZeroAttachesNothing) {
    std::wstring boxText;
    std::atomic<bool> done{false};
    std::thread answerer([&] {
        while (!done) {
            HWND box = FindWindowW(L"#32770", L"Error");
            if (box) {
                wchar_t text[256] = {};
                GetDlgItemTextW(box, 0xFFFF, text, 256);
                boxText = text;
                PostMessageW(box, WM_COMMAND, IDOK, 0);
                return;
            }
            Sleep(20);
        }
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, attachClient(0));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    done = true;
    answerer.join();
    if (sizeof(void*) == 4) {
        EXPECT_EQ(L"Please launch a 64-bit wrapper to deal with a 64-bit process.", boxText);
    } else {
        channelStaysUp = true;  // the failed attach's channel
        EXPECT_EQ(L"", boxText) << "no box in the 64-bit driver";
        EXPECT_GE(ms.count(), 2400) << "the knocking at thread 0";
        EXPECT_TRUE(LogFile::contains("Probably no message queue", 5));
    }
    EXPECT_FALSE(connected());
}

// The test as the client: a message other than "connected" is answered 0
// and changes nothing; "connected" with the id of no queue still connects
// (Java hears of it, requests then have nowhere to go and don't hang); the
// client's records reach Java, a malformed one is answered all the same;
// the client's end of the queue ends the connection.
TEST_F(Classic, AClientThatMisbehavesNeitherHangsNorBreaksTheDriver) {
    // A thread with a message queue that never takes a message: the hook
    // goes in, but the client library never runs, so the test can be the client.
    std::atomic<DWORD> threadId{0};
    HANDLE release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread quiet([&] {
        MSG message;
        PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);
        threadId = GetCurrentThreadId();
        WaitForSingleObject(release, INFINITE);
    });
    while (!threadId) Sleep(1);
    EXPECT_EQ(jint(GetCurrentProcessId()), attachClient(threadId));
    EXPECT_FALSE(connected());

    std::shared_ptr<ShmQueue> queue;
    ASSERT_NO_THROW(queue = ShmQueue::attachQueue(static_cast<int>(threadId) + DRIVER_QUEUE_OFFSET));
    auto message = [&](const std::wstring& text, const std::function<void(ShmQueue&)>& more) {
        queue->setupMessage("ClientMessage") << text;
        if (more) more(*queue);
        queue->send();
        queue->readAndDispatch(nullptr, 0);
    };
    message(L"hello", nullptr);
    int answer = -1;
    *queue >> answer;
    EXPECT_EQ(0, answer);
    EXPECT_FALSE(connected());
    EXPECT_TRUE(host->calls("filterEvent").empty());

    void* const async = reinterpret_cast<void*>(0x1234);
    message(L"connected", [&](ShmQueue& q) { q << 0x7FFFFF00 << async << reinterpret_cast<void*>(0x5678); });
    void* filter = nullptr;
    *queue >> filter;
    EXPECT_NE(nullptr, filter);
    EXPECT_TRUE(connected());
    ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000)) << "Java never heard of the connection";
    EXPECT_EQ(100, host->field(host->calls("filterEvent")[0].args[0].l, "type").i);
    EXPECT_TRUE(LogFile::waitFor("No queue of id", 5000, 1)) << "the client's queue that isn't there";
    native<void>("TriggerThread");  // nowhere to go: returns

    // A mouse record from the client, then one with a wrong marker.
    queue->setupCall(filter);
    queue->push(0x1E000000);
    *queue << 202 << std::int64_t(0x4321) << 0x201 << 5 << 6 << 105 << 206 << 1 << 17;
    queue->send();
    queue->readAndDispatch(nullptr, 0);
    *queue >> answer;
    EXPECT_EQ(0, answer);
    ASSERT_TRUE(host->waitForCalls("filterEvent", 2, 5000));
    jobject mouse = host->calls("filterEvent")[1].args[0].l;
    EXPECT_EQ("net/tolva/apps/cuebench/client/win/deskwright/event/MouseEvent", host->classNameOf(mouse));
    EXPECT_EQ(0x4321, host->field(mouse, "handle").j);
    EXPECT_EQ(206, host->field(mouse, "screenY").i);
    EXPECT_EQ(17, host->field(mouse, "modifiers").i);

    queue->setupCall(filter);
    queue->push(0x1F000000);
    *queue << 202;
    queue->send();
    queue->readAndDispatch(nullptr, 0);
    answer = -1;
    *queue >> answer;
    EXPECT_EQ(0, answer) << "a malformed record is answered all the same";
    EXPECT_EQ(2u, host->calls("filterEvent").size());
    EXPECT_TRUE(connected());

    queue.reset();  // the client lets go of its end
    EXPECT_TRUE(waitUntil([&] { return !connected(); }, 5000)) << "the channel outlived its client";
    SetEvent(release);
    quiet.join();
    CloseHandle(release);
}
