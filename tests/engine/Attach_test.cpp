// The connection parameters of AttachUiaClient, each shape against the
// simulated desktop, with this test process as the target.
#include "DriverTest.h"

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Attach : public DriverTest {
protected:
    fakeuia::Node& topWindow(const std::wstring& name, const std::wstring& className, int pid, HWND hwnd = nullptr) {
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_WindowControlTypeId;
        spec.name = name;
        spec.className = className;
        spec.processId = pid;
        spec.bounds = {0, 0, 300, 200};
        spec.nativeWindowHandle = hwnd;
        return platform->desktop().add(spec);
    }
    // Attaches, and detaches again after a success.
    void expectAttach(jint pid, const std::wstring& args, const char* why) {
        EXPECT_EQ(pid, attach(args, 1000)) << why;
        if (attached) {
            native<void>("DetachClient");
            attached = false;
            EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000)) << why;
        }
    }
    HWND realWindow(const wchar_t* title) {
        return CreateWindowExW(0, L"STATIC", title, WS_OVERLAPPEDWINDOW, 0, 0, 100, 80, nullptr, nullptr,
                               GetModuleHandleW(nullptr), nullptr);
    }

    const jint self = static_cast<jint>(GetCurrentProcessId());
    const std::wstring pidOfNobody = L"-pid " + std::to_wstring(GetCurrentProcessId() + 4) + L" ";
};

}  // namespace

TEST_F(Attach, TitlesPidsAndClassesFindTheirTarget) {
    const std::wstring tail(1000000, L'x');
    topWindow(L"-pid 0", L"Odd", self);
    topWindow(L"Foo", L"FooWnd", self);
    topWindow(L"Baz Bar", L"BazWnd", self);
    topWindow(L"Main", L"X", self);
    topWindow(L"Main " + tail, L"MainWnd", self);
    expectAttach(self, L"-pid 0", "pid 0 makes the whole text a title");
    expectAttach(self, pidOfNobody + L"Foo", "only the title finder hits, and its process is the result");
    expectAttach(0, L"Baz", "titles match whole");
    expectAttach(self, L"Baz.*", "a pattern over the whole title");
    expectAttach(0, L"-class X -pid " + std::to_wstring(self), "no pid: the class is the rest of the text");
    expectAttach(0, L"-class 'X' and more", "the class is X' and more");
    expectAttach(0, L"Main x*y", "a title that differs at its end");
    expectAttach(0, L"-class '" + tail + L"'", "a long class option");
    expectAttach(self, pidOfNobody + L"Main " + tail, "a long title after a pid");

    // A bad regular expression finds nothing and starts no dispatch thread;
    // with a pid, the parsed pid stands, and the target is watched.
    const size_t started = LogFile::count("Start", 5);
    EXPECT_EQ(0, attach(L"Foo(", 1000));
    EXPECT_EQ(self, attach(L"-pid " + std::to_wstring(self) + L" Foo(", 1000));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    EXPECT_EQ(started, LogFile::count("Start", 5)) << "no dispatch thread";
    native<void>("DetachClient");  // finds no queue to end
    attached = false;
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
}

// A title held only by a window that was there before the cache of window
// handles finds nothing; a new window with it does.
TEST_F(Attach, WindowsThatWereThereBeforeAreNoTarget) {
    HWND old = realWindow(L"Main");
    topWindow(L"Main", L"Old", 99, old);
    native<void>("CacheExistingWindowHandles");
    expectAttach(0, L"Main", "only an old window has the title");
    HWND fresh = realWindow(L"Main");
    topWindow(L"Main", L"New", self, fresh);
    expectAttach(self, L"Main", "a new window has it too");
    DestroyWindow(old);
    DestroyWindow(fresh);
}
