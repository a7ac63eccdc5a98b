// The connection parameters of AttachUiaClient, each shape against the
// simulated desktop, with this test process as the target.
#include "DriverTest.h"

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Attach : public DriverTest {
protected:
    fakeuia::Node& topWindow(const std::wstring& name, const std::wstring& className, int pid) {
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_WindowControlTypeId;
        spec.name = name;
        spec.className = className;
        spec.processId = pid;
        spec.bounds = {0, 0, 300, 200};
        return platform->desktop().add(spec);
    }
    int self() const { return static_cast<int>(GetCurrentProcessId()); }
    std::wstring nobody() const { return std::to_wstring(GetCurrentProcessId() + 4); }
    std::wstring preference(const wchar_t* key) {
        return host->text(native<jstring>("GetPreference", host->str(key)));
    }
};

}  // namespace

TEST_F(Attach, PidZeroMakesTheWholeTextATitle) {
    topWindow(L"-pid 0", L"Odd", self());
    EXPECT_EQ(self(), attach(L"-pid 0", 1000));
    EXPECT_FALSE(LogFile::contains("find via pid", 9));
    EXPECT_TRUE(LogFile::contains("found via title", 9));
}

TEST_F(Attach, OnlyTheTitleFinderHitsAndItsProcessIsTheResult) {
    topWindow(L"Foo", L"FooWnd", self());
    EXPECT_EQ(self(), attach(L"-pid " + nobody() + L" Foo", 1000));
    EXPECT_EQ(1u, LogFile::count("find via pid", 9));
    EXPECT_EQ(1u, LogFile::count("found via title", 9));
}

TEST_F(Attach, TitlesMatchWhole) {
    topWindow(L"Foo Bar", L"FooWnd", self());
    EXPECT_EQ(0, attach(L"Foo", 1000));
    EXPECT_EQ(self(), attach(L"Foo.*", 1000));
}

TEST_F(Attach, AClassHitSetsTheRestrictionPreference) {
    topWindow(L"Main", L"SunAwtFrame", self());
    EXPECT_EQ(L"", preference(L"deskwright.restrict.tops.to.class"));
    EXPECT_EQ(self(), attach(L"-pid " + nobody() + L" -class 'SunAwt.*'", 1000));
    EXPECT_TRUE(LogFile::contains("found via class", 9));
    EXPECT_EQ(L"true", preference(L"deskwright.restrict.tops.to.class"));
}

TEST_F(Attach, ClassOptionsTakeTheRestOfTheText) {
    topWindow(L"Main", L"X", self());
    EXPECT_EQ(0, attach(L"-class X -pid " + std::to_wstring(self()), 1000));
    EXPECT_TRUE(LogFile::contains("class: X -pid ", 7)) << "no pid: the class is the rest of the text";
    EXPECT_FALSE(LogFile::contains("find via pid", 9));
    EXPECT_EQ(0, attach(L"-class 'X' and more", 1000));
    EXPECT_TRUE(LogFile::contains("class: X' and more,", 7));
}

TEST_F(Attach, BadRegularExpressions) {
    EXPECT_EQ(0, attach(L"Foo(", 1000));
    EXPECT_TRUE(LogFile::contains("Process could not be determined", 3));
    EXPECT_FALSE(LogFile::contains("Start", 5)) << "no dispatch thread";

    // With a pid, the parsed pid stands, and the target is watched.
    EXPECT_EQ(self(), attach(L"-pid " + std::to_wstring(self()) + L" Foo(", 1000));
    EXPECT_FALSE(LogFile::contains("Start", 5));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    native<void>("DetachClient");  // finds no queue to end
    attached = false;
    EXPECT_TRUE(LogFile::contains("No event queue", 3));
}

TEST_F(Attach, AWindowThatWasThereBeforeIsNotTheTarget) {
    HWND old = CreateWindowExW(0, L"STATIC", L"Main", WS_OVERLAPPEDWINDOW, 0, 0, 100, 80, nullptr, nullptr,
                               GetModuleHandleW(nullptr), nullptr);
    topWindow(L"Main", L"Old", 99).update([old](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = old; });
    native<void>("CacheExistingWindowHandles");
    EXPECT_TRUE(LogFile::contains("size: ", 9));
    EXPECT_EQ(0, attach(L"Main", 1000)) << "only an old window has the title";

    HWND fresh = CreateWindowExW(0, L"STATIC", L"Main", WS_OVERLAPPEDWINDOW, 0, 0, 100, 80, nullptr, nullptr,
                                 GetModuleHandleW(nullptr), nullptr);
    topWindow(L"Main", L"New", self()).update([fresh](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = fresh; });
    EXPECT_EQ(self(), attach(L"Main", 1000));
    EXPECT_TRUE(LogFile::contains("found new win: ", 9));
    DestroyWindow(old);
    DestroyWindow(fresh);
}

TEST_F(Attach, AStoreAppIsTheCoreWindowInItsFrame) {
    fakeuia::Node& frame = topWindow(L"Calculator", L"ApplicationFrameWindow", 88);
    fakeuia::NodeSpec core;
    core.controlType = UIA_WindowControlTypeId;
    core.name = L"Calculator";
    core.className = L"Windows.UI.Core.CoreWindow";
    core.processId = self();
    frame.add(core);
    EXPECT_EQ(self(), attach(L"Calculator", 1000));
}

TEST_F(Attach, AFrameWithoutCoreWindowFindsNothing) {
    topWindow(L"Calculator", L"ApplicationFrameWindow", 88);
    EXPECT_EQ(0, attach(L"Calculator", 1000));
    EXPECT_TRUE(LogFile::contains("CoreWindow not found", 3));
}

TEST_F(Attach, TitlesAndParametersOfAnyLength) {
    const std::wstring tail(1000000, L'x');
    topWindow(L"Main " + tail, L"MainWnd", self());
    EXPECT_EQ(0, attach(L"Main x*y", 1000)) << "a title that differs at its end";
    EXPECT_EQ(0, attach(L"-class '" + tail + L"'", 1000)) << "a long class option";
    EXPECT_TRUE(LogFile::contains("class: " + std::string(1000000, 'x') + ",", 7));
    EXPECT_EQ(self(), attach(L"-pid " + nobody() + L" Main " + tail, 1000)) << "a long title after a pid";
}

TEST_F(Attach, ClassesOfAnyLength) {
    const std::wstring tail(1000000, L'x');
    topWindow(L"Main", L"SunAwtFrame" + tail, self());
    topWindow(L"Tool", L"Tool" + tail, self());
    EXPECT_EQ(self(), attach(L"-pid " + nobody() + L" -class 'SunAwt.*'", 1000));
    EXPECT_EQ(L"true", preference(L"deskwright.restrict.tops.to.class"));
    auto tops = host->longs(native<jlongArray>("GetToplevels"));
    ASSERT_EQ(1u, tops.size()) << "only the class of the option stays";
    EXPECT_EQ(L"Main", host->text(native<jstring>("GetAttribute", tops[0], host->str(L"name"))));
}
