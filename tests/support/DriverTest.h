// The world of a driver test: a Java host, the simulated automation platform,
// the real deskwright.dll loaded and initialised as a Java VM does it
// (JNI_OnLoad, then SetupNativeLogging on the "main" Java thread), and the
// checks at the end of every test: the driver released every automation
// object it was given, made no misuse of JNI and left no pin behind.
#pragma once

#include "Deskwright.h"
#include "LogFile.h"
#include "OwnWindow.h"

#include "FakeUia.h"
#include "JniHost.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace dwtest {

extern const char* const INVALID_HANDLE_EXCEPTION;
extern const std::string EVENT_PACKAGE;  // "net/.../deskwright/event/"
extern const char* const DRIVER_CLASS;
extern const char* const FILTER_SIGNATURE;

// "-pid <this process>".
std::wstring ownPidArgs();
// A window handle as Java holds it.
inline jlong java(HWND window) { return static_cast<jlong>(reinterpret_cast<intptr_t>(window)); }

class DriverTest : public ::testing::Test {
protected:
    // Host options must be chosen before SetUp; a test fixture may override.
    virtual jnihost::JavaHost::Options hostOptions() const { return {}; }
    // The driver's log levels (TOLVA_LOG_LEVELS); the tests read what it logs.
    virtual std::wstring logLevels() const { return L"*=10"; }

    void SetUp() override;
    void TearDown() override;

    template <class R, class... A>
    R native(const std::string& method, A... args) {
        return dll->call<R>(method, env, self, args...);
    }

    // AttachUiaClient with Java text; returns the pid or 0.
    jint attach(const std::wstring& args, jint timeoutMs);
    // DetachClient, then waits until the dispatch thread has let go of the
    // automation platform.
    void detachAndWait();
    // Waits for the driver to release every automation object.
    bool waitForReleases(unsigned timeoutMs);
    // A top-level window on the simulated desktop, of this test process unless
    // another pid is given.
    fakeuia::Node& addOwnWindow(const std::wstring& name);
    fakeuia::Node& addWindow(const std::wstring& name, const std::wstring& className, int pid, HWND hwnd = nullptr,
                             RECT bounds = {10, 10, 410, 310});
    // A child of a node; `more` fills in the rest of its description.
    static fakeuia::Node& add(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name,
                              RECT bounds = {20, 40, 120, 60},
                              const std::function<void(fakeuia::NodeSpec&)>& more = {});
    // Such a window, with the driver attached to this process and connected.
    fakeuia::Node& attachToOwnWindow(const std::wstring& name);
    // The handle of a node, found as Java finds it: the desktop as the parent
    // of a top-level window, then down through the child lists.
    jlong handleOf(fakeuia::Node& node);
    void setPreference(const std::wstring& key, const std::wstring& value);
    // Java's view of elements: an attribute (nullopt for null), the top-level
    // windows, children, and the names of handles ("<0>" for 0, "<null>").
    std::optional<std::wstring> attr(jlong handle, const std::wstring& name);
    std::vector<jlong> toplevels();
    std::vector<jlong> children(jlong handle);
    std::vector<std::wstring> names(const std::vector<jlong>& handles);
    // Takes the pending exception: its message if it is an
    // InvalidHandleException, "class: message" if not, "" if none.
    std::string thrown();
    // Java results as text, to compare whole: "null", "[1,2]", "'text'",
    // "['a',null]".
    std::string show(jlongArray array);
    std::string show(jintArray array);
    std::string show(jstring text);
    std::string show(jobjectArray strings);

    std::unique_ptr<jnihost::JavaHost> host;
    std::unique_ptr<fakeuia::Platform> platform;
    std::unique_ptr<Deskwright> dll;
    JNIEnv* env = nullptr;
    jobject self = nullptr;
    bool attached = false;
    // The driver's log goes to the output of a failed test, unless the test
    // names its failure well enough itself (and logs too much to print).
    bool dumpLogOnFailure = true;
};

bool waitUntil(const std::function<bool()>& condition, unsigned timeoutMs);

// Waits until every dispatch thread that started has ended (as the log of
// tolva.Uia at level 5 tells).
bool waitForDispatchThreadsToEnd(unsigned timeoutMs);

// The calling thread's pending Java exception as "class: message", or "".
std::string pendingException(jnihost::JavaHost& host);

}  // namespace dwtest
