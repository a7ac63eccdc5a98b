// Finding the target and its windows: the discovery through window handles,
// the restriction of the top-level windows to the class that was attached by,
// a target that can't be opened, and the searches of windows and of the
// element at a point.
#include "DriverTest.h"

#include "ImportPatch.h"

#include <algorithm>
#include <thread>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Discovery : public DriverTest {
protected:
    void TearDown() override {
        if (pump.joinable()) {
            PostThreadMessageW(pumpThreadId, WM_QUIT, 0, 0);
            pump.join();  // the thread's windows go with it
        }
        SetEnvironmentVariableW(L"CUEBENCH_WIN_VIA_HWND", nullptr);
        DriverTest::TearDown();
    }
    fakeuia::Node& add(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name,
                       const std::wstring& className, int pid = 0) {
        return parent.add({.controlType = type, .name = name, .className = className, .processId = pid,
                           .bounds = {20, 20, 60, 40}});
    }
    // Real top-level windows of this process, (title, visible) each. A thread
    // of their own makes them and pumps their messages until the end, as a
    // target's windows are served while the Java thread waits for the driver.
    std::vector<HWND> realWindows(const std::vector<std::pair<std::wstring, bool>>& specs) {
        std::vector<HWND> made;
        HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        pump = std::thread([&] {
            for (const auto& spec : specs) {
                made.push_back(CreateWindowExW(0, L"STATIC", spec.first.c_str(),
                                               WS_OVERLAPPEDWINDOW | (spec.second ? WS_VISIBLE : 0), 0, 0, 100, 50,
                                               nullptr, nullptr, GetModuleHandleW(nullptr), nullptr));
            }
            MSG message;
            PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // the queue for the quit
            pumpThreadId = GetCurrentThreadId();
            SetEvent(ready);
            while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
        });
        WaitForSingleObject(ready, 5000);
        CloseHandle(ready);
        return made;
    }
    std::vector<std::wstring> toplevelNames() { return names(toplevels()); }
    int self() const { return static_cast<int>(GetCurrentProcessId()); }
    int nobody() const { return self() + 4; }

    std::thread pump;
    DWORD pumpThreadId = 0;
};

using Names = std::vector<std::wstring>;

// Stands in for the system's OpenProcess in the driver: access is refused.
HANDLE WINAPI RefusingOpenProcess(DWORD, BOOL, DWORD) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

}  // namespace

TEST_F(Discovery, ThroughWindowHandlesATitleIsMatchedWithTheWindowText) {
    SetEnvironmentVariableW(L"CUEBENCH_WIN_VIA_HWND", L"true");
    const std::vector<HWND> real = realWindows({{L"Window text 42", true}, {L"Hidden title", false}});
    addWindow(L"Automation name", L"TestWindow", self(), real[0]);
    addWindow(L"Hidden title", L"TestWindow", self(), real[1]);
    struct Row { const wchar_t* title; int pid; };
    const Row rows[] = {
        {L"Automation name", 0},
        {L"Hidden title", 0},
        {L"Window text", 0},  // matches a part only
        {L"Window text \\d+", self()},
    };
    for (const Row& row : rows) EXPECT_EQ(row.pid, attach(row.title, 1000)) << testing::PrintToString(row.title);
}

TEST_F(Discovery, TopLevelWindowsAreRestrictedToTheClassOfTheAttach) {
    addWindow(L"Main", L"SunAwtFrame", self());
    addWindow(L"Tip", L"SunAwtWindow", self());
    addWindow(L"Other", L"TestWindow", self());
    ASSERT_EQ(self(), attach(L"-class 'SunAwt.*'", 1000));
    EXPECT_EQ(L"true", host->text(native<jstring>("GetPreference", host->str(L"deskwright.restrict.tops.to.class"))));
    struct Row { const wchar_t* restrict; Names tops; };
    const Row rows[] = {
        {nullptr, {L"Main", L"Tip"}},  // as the attach left it
        {L"false", {L"Main", L"Tip", L"Other"}},
        {L"TRUE", {L"Main", L"Tip", L"Other"}},
        {L"true", {L"Main", L"Tip"}},
    };
    for (const Row& row : rows) {
        if (row.restrict) setPreference(L"deskwright.restrict.tops.to.class", row.restrict);
        EXPECT_EQ(row.tops, toplevelNames()) << testing::PrintToString(row.restrict ? row.restrict : L"(attach)");
    }
    detachAndWait();
    ASSERT_EQ(self(), attach(L"-pid " + std::to_wstring(self()), 1000));
    EXPECT_EQ((Names{L"Main", L"Tip", L"Other"}), toplevelNames()) << "without a class the restriction keeps all";
}

TEST_F(Discovery, ATargetThatCannotBeOpenedStaysAttached) {
    addWindow(L"Main", L"TestWindow", self());
    {
        dwtest::ImportPatch refuse(dll->module(), "OpenProcess", reinterpret_cast<void*>(&RefusingOpenProcess));
        ASSERT_TRUE(refuse.applied());
        EXPECT_EQ(self(), attach(L"-pid " + std::to_wstring(self()), 1000));
    }
    EXPECT_TRUE(LogFile::contains("Error: 5", 1));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected")) << "attached is set before the process is opened";
    EXPECT_EQ(Names{L"Main"}, toplevelNames()) << "the connection works without a watch";
    detachAndWait();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
}

TEST_F(Discovery, AllWindowsBelowAnElementAreFoundThroughWindowsOnly) {
    fakeuia::Node& top = attachToOwnWindow(L"Target");
    add(add(top, UIA_PaneControlTypeId, L"pane", L"Panel"), UIA_WindowControlTypeId, L"behind a pane", L"Dlg");
    add(add(top, UIA_WindowControlTypeId, L"dialog", L"Dlg"), UIA_WindowControlTypeId, L"inner", L"Dlg");
    add(add(top, UIA_CustomControlTypeId, L"canvas", L"SunAwtCanvas"), UIA_WindowControlTypeId, L"in canvas", L"Dlg");
    const jlong topHandle = handleOf(top);
    struct Row { const wchar_t* classes; Names found; };
    const Row rows[] = {
        {L"", {L"Target", L"dialog", L"inner"}},
        {L"Panel,SunAwtCanvas", {L"Target", L"pane", L"dialog", L"inner", L"canvas"}},
    };
    for (const Row& row : rows) {
        setPreference(L"deskwright.toplevel.classes", row.classes);
        EXPECT_EQ(row.found, names(host->longs(native<jlongArray>("FindAllWindows", topHandle))))
            << testing::PrintToString(row.classes);
    }
}

TEST_F(Discovery, TheElementAtAPointIsTheControlJavaKnows) {
    fakeuia::Node& top = attachToOwnWindow(L"Target");
    const jlong buttonHandle = handleOf(add(top, UIA_ButtonControlTypeId, L"OK", L"Button"));
    EXPECT_EQ(buttonHandle, native<jlong>("GetElementFromPoint", jint{30}, jint{30}));
    EXPECT_EQ(handleOf(top), native<jlong>("GetElementFromPoint", jint{200}, jint{100}));
    EXPECT_EQ(handleOf(platform->desktop()), native<jlong>("GetElementFromPoint", jint{5000}, jint{5000}));
    platform->fail("ElementFromPoint", E_FAIL);
    EXPECT_EQ(jlong{0}, native<jlong>("GetElementFromPoint", jint{30}, jint{30}));
}
