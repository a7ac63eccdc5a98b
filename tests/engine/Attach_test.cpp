// The connection parameters of AttachUiaClient, each shape against the
// simulated desktop, with this test process as the target.
#include "DriverTest.h"

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Attach : public DriverTest {
protected:
    // Attaches, and detaches again after a success.
    void expectAttach(jint pid, const std::wstring& args, const char* why) {
        EXPECT_EQ(pid, attach(args, 1000)) << why;
        if (attached) {
            native<void>("DetachClient");
            attached = false;
            EXPECT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000)) << why;
        }
    }

    const jint self = static_cast<jint>(GetCurrentProcessId());
    const std::wstring pidOfNobody = L"-pid " + std::to_wstring(GetCurrentProcessId() + 4) + L" ";
};

}  // namespace

TEST_F(Attach, TitlesPidsAndClassesFindTheirTarget) {
    const std::wstring tail(1000000, L'x');
    addWindow(L"-pid 0", L"Odd", self);
    addWindow(L"Foo", L"FooWnd", self);
    addWindow(L"Baz Bar", L"BazWnd", self);
    addWindow(L"Main", L"X", self);
    addWindow(L"Main " + tail, L"MainWnd" + tail, self);
    expectAttach(self, L"-pid 0", "pid 0 makes the whole text a title");
    expectAttach(self, pidOfNobody + L"Foo", "only the title finder hits, and its process is the result");
    expectAttach(0, L"Baz", "titles match whole");
    expectAttach(self, L"Baz.*", "a pattern over the whole title");
    expectAttach(0, L"-class X -pid " + std::to_wstring(self), "no pid: the class is the rest of the text");
    expectAttach(0, L"-class 'X' and more", "the class is X' and more");
    // Texts and patterns of any length match on the dispatch thread's stack.
    expectAttach(self, L"Main x*", "a long title by a pattern");
    expectAttach(0, L"Main x*y", "a title that differs at its end");
    expectAttach(0, L"Main (x|xx)*y", "an expression too complex for the title");
    expectAttach(self, L"-class 'MainWndx+'", "a long class by a pattern");
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
    dwtest::OwnWindow old(L"STATIC", L"Main");
    addWindow(L"Main", L"Old", 99, old.hwnd);
    native<void>("CacheExistingWindowHandles");
    expectAttach(0, L"Main", "only an old window has the title");
    dwtest::OwnWindow fresh(L"STATIC", L"Main");
    addWindow(L"Main", L"New", self, fresh.hwnd);
    expectAttach(self, L"Main", "a new window has it too");
}
