// Recording mode's overlay with the real pointer: the driver watches where
// the pointer rests over a real window of this process (the simulated
// platform answers which element lies there), covers a new element of the
// target while Java prepares it, and names it in its info window.
#include "DriverTest.h"
#include "OverlayTest.h"
#include "TargetProcess.h"

#include <atomic>
#include <string>
#include <vector>

using dwtest::DriverTest;
using dwtest::OwnWindow;
using dwtest::ownWindowOf;
using dwtest::pumpFor;

namespace {

const RECT TARGET = {100, 100, 500, 400};
const int OTHER_PID = 4242;

std::wstring textOf(HWND window) {
    wchar_t text[256] = {};
    GetWindowTextW(window, text, 256);
    return text;
}

class Overlay : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        target = std::make_unique<OwnWindow>(L"STATIC", L"Target", WS_POPUP | WS_VISIBLE, TARGET);
        fakeuia::Node& window = addWindow(L"Target", L"Static", static_cast<int>(GetCurrentProcessId()), target->hwnd,
                                          TARGET);
        first = &window.add({.controlType = UIA_ButtonControlTypeId, .name = L"First", .bounds = {120, 120, 220, 170}});
        second = &window.add({.controlType = UIA_EditControlTypeId, .name = L"Second", .bounds = {260, 120, 380, 170}});
        foreign = &window.add({.controlType = UIA_PaneControlTypeId, .name = L"Plugin", .processId = OTHER_PID,
                               .bounds = {120, 250, 380, 350}});
        host->onCall(dwtest::DRIVER_CLASS, "onPrepareRecording", "(J)V",
                     [this](JNIEnv*, jobject, const std::vector<jnihost::Value>& args) {
                         prepared.push_back(args[0].j);
                         while (holdJava) Sleep(5);
                         return jnihost::Value::none();
                     });
        ASSERT_NE(0, attach(dwtest::ownPidArgs(), 1000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
    }
    void TearDown() override {
        holdJava = false;
        if (recording) record(false);
        if (attached) detachAndWait();
        target.reset();
        DriverTest::TearDown();
    }

    void record(bool on) {
        native<void>("EnableRecordingMode", jboolean(on ? JNI_TRUE : JNI_FALSE), jint{0});
        recording = on;
        if (on) {
            ASSERT_TRUE(dwtest::waitUntil([] { return IsWindowVisible(ownWindowOf(L"TolvaInfoClass")); }, 3000));
        }
    }
    // Rests the pointer at the centre of a node long enough for the overlay
    // to look (25 ms follow, 200 ms rest) and for Java to answer.
    void restOn(const RECT& r) {
        SetCursorPos((r.left + r.right) / 2, (r.top + r.bottom) / 2);
        pumpFor(600);
    }
    void restOn(fakeuia::Node& node) { restOn(node.spec().bounds); }
    std::wstring infoText() {
        const HWND info = ownWindowOf(L"TolvaInfoClass");
        return info ? textOf(GetDlgItem(info, 100)) : L"<no info window>";
    }

    std::unique_ptr<OwnWindow> target;
    fakeuia::Node* first = nullptr;
    fakeuia::Node* second = nullptr;
    fakeuia::Node* foreign = nullptr;
    std::vector<jlong> prepared;  // written by the dispatch thread, read after it answered
    std::atomic<bool> holdJava{false};
    bool recording = false;
};

// The info window: where and how it stands, its ready text, and that the
// user can only minimise it; gone with recording mode.
TEST_F(Overlay, TheInfoWindowStandsAtTheBottomLeftAndCannotBeClosed) {
    record(true);
    const HWND info = ownWindowOf(L"TolvaInfoClass");
    EXPECT_EQ(L"CueBench Element Information", textOf(info));
    RECT r{};
    GetWindowRect(info, &r);
    EXPECT_EQ(20, r.left);
    EXPECT_EQ(GetSystemMetrics(SM_CYSCREEN) - 160, r.top);
    EXPECT_EQ(300, r.right - r.left);
    const LONG_PTR exStyle = GetWindowLongPtrW(info, GWL_EXSTYLE);
    EXPECT_EQ(WS_EX_NOACTIVATE | WS_EX_TOOLWINDOW | WS_EX_TOPMOST,
              exStyle & (WS_EX_NOACTIVATE | WS_EX_TOOLWINDOW | WS_EX_TOPMOST));
    EXPECT_EQ(L"Move the mouse over an element in your application.", infoText());
    const HWND cover = ownWindowOf(L"TolvaCoverClass");
    ASSERT_NE(nullptr, cover);
    EXPECT_FALSE(IsWindowVisible(cover)) << "the cover starts hidden";
    // The overlay thread makes the cover translucent just after creating it.
    BYTE alpha = 0;
    EXPECT_TRUE(dwtest::waitUntil([&] { return GetLayeredWindowAttributes(cover, nullptr, &alpha, nullptr); }, 3000));
    EXPECT_EQ(50, alpha);

    SendMessageW(info, WM_CLOSE, 0, 0);
    EXPECT_TRUE(IsWindow(info));
    EXPECT_TRUE(IsIconic(info)) << "closing minimises";
    SendMessageW(info, WM_CLOSE, 0, 0);
    EXPECT_FALSE(IsIconic(info)) << "closing a minimised one restores it";

    record(false);
    EXPECT_TRUE(dwtest::waitUntil([] { return !ownWindowOf(L"TolvaInfoClass") && !ownWindowOf(L"TolvaCoverClass"); },
                                  3000));
}

// A second target's info window goes 80 pixels above the first one's; where
// the user dragged it, it stands again at the next recording.
TEST_F(Overlay, TheInfoWindowMakesRoomForAnotherAndKeepsItsDraggedPlace) {
    // Another program's info window (that of a driver recording another target).
    dwtest::TargetProcess other{dwtest::TargetProcess::Serving{}};
    ASSERT_TRUE(other.ready());
    ASSERT_NE(nullptr, other.makeWindow(L"TolvaInfoClass", L"Other", {20, 500, 320, 580}));
    record(true);
    RECT r{};
    GetWindowRect(ownWindowOf(L"TolvaInfoClass"), &r);
    EXPECT_EQ(GetSystemMetrics(SM_CYSCREEN) - 240, r.top);

    SetWindowPos(ownWindowOf(L"TolvaInfoClass"), nullptr, 600, 50, 0, 0, SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
    record(false);
    ASSERT_TRUE(dwtest::waitUntil([] { return !ownWindowOf(L"TolvaInfoClass"); }, 3000));
    record(true);
    GetWindowRect(ownWindowOf(L"TolvaInfoClass"), &r);
    EXPECT_EQ(600, r.left);
    EXPECT_EQ(50, r.top);
}

// One preparation per element the pointer rests on, with the cover over the
// element while Java works and the info window naming it afterwards; moving
// within the element prepares nothing new, a detour over another process's
// element and back does.
TEST_F(Overlay, ARestOnANewElementOfTheTargetIsPreparedOnce) {
    record(true);
    const jlong firstHandle = handleOf(*first);
    const jlong secondHandle = handleOf(*second);

    holdJava = true;
    SetCursorPos(170, 145);
    ASSERT_TRUE(dwtest::waitUntil([&] { return prepared.size() == 1; }, 3000)) << "no preparation";
    const HWND cover = ownWindowOf(L"TolvaCoverClass");
    EXPECT_TRUE(IsWindowVisible(cover)) << "the cover keeps the click away while Java prepares";
    RECT r{};
    GetWindowRect(cover, &r);
    EXPECT_EQ(145, r.left);
    EXPECT_EQ(120, r.top);
    EXPECT_EQ(L"Retrieving element info.\nPlease wait ...", infoText());
    holdJava = false;
    ASSERT_TRUE(dwtest::waitUntil([&] { return !IsWindowVisible(cover); }, 3000)) << "the cover stayed";
    EXPECT_EQ(L"Button First", infoText());

    SetCursorPos(180, 150);  // within the same element
    pumpFor(600);
    restOn(*second);
    restOn(*foreign);  // another process's: drops the last element
    restOn(*second);
    const std::vector<jlong> expected = {firstHandle, secondHandle, secondHandle};
    EXPECT_EQ(expected, prepared);
    EXPECT_EQ(L"Edit Second", infoText());
}

// An element of another process inside the target counts only when the
// preference says exactly "true".
TEST_F(Overlay, AChildProcessElementCountsOnlyByPreference) {
    record(true);
    restOn(*foreign);
    EXPECT_TRUE(prepared.empty());
    setPreference(L"deskwright.rec.element.with.different.pid", L"true");
    restOn(*first);
    restOn(*foreign);
    ASSERT_EQ(2u, prepared.size());
    EXPECT_EQ(handleOf(*foreign), prepared[1]);
}

// A detach while Java prepares: the preparation still ends and the cover goes,
// and with no dispatch thread left the overlay covers nothing.
TEST_F(Overlay, ADetachWhileJavaPreparesLeavesNoCover) {
    record(true);
    holdJava = true;
    SetCursorPos(170, 145);
    ASSERT_TRUE(dwtest::waitUntil([&] { return prepared.size() == 1; }, 3000));
    const HWND cover = ownWindowOf(L"TolvaCoverClass");
    ASSERT_TRUE(IsWindowVisible(cover));
    native<void>("DetachClient");
    holdJava = false;
    ASSERT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000));
    attached = false;
    SetCursorPos(300, 300);
    EXPECT_TRUE(dwtest::waitUntil([&] { return !IsWindowVisible(cover); }, 2000)) << "the cover stayed";
    SetCursorPos(170, 145);
    pumpFor(600);
    EXPECT_FALSE(IsWindowVisible(cover)) << "nothing to prepare without a dispatch thread";
}

// A detach that comes while the dispatch thread is busy, before the cover
// asks for a preparation: the queue ends before it reaches the preparation,
// which Java never sees. The cover is still freed: it goes, the info window
// is ready again, and after a new attach the element is prepared.
TEST_F(Overlay, APreparationTheEndedQueueNeverRanFreesTheCover) {
    std::atomic<bool> holdFilter{false}, inFilter{false};
    host->onCall(dwtest::DRIVER_CLASS, "filterEvent", dwtest::FILTER_SIGNATURE,
                 [&](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                     inFilter = true;
                     while (holdFilter) Sleep(5);
                     return jnihost::Value::of(jboolean{JNI_TRUE});
                 });
    record(true);
    SetCursorPos(300, 300);
    pumpFor(300);
    holdFilter = true;
    native<void>("TriggerThread");
    ASSERT_TRUE(dwtest::waitUntil([&] { return inFilter.load(); }, 3000));
    native<void>("DetachClient");  // queued behind Java's filterEvent
    attached = false;
    SetCursorPos(170, 145);
    const HWND cover = ownWindowOf(L"TolvaCoverClass");
    ASSERT_TRUE(dwtest::waitUntil([&] { return IsWindowVisible(cover); }, 3000)) << "no preparation asked for";
    holdFilter = false;
    ASSERT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000));
    EXPECT_TRUE(prepared.empty()) << "the ended queue ran the preparation";
    EXPECT_TRUE(dwtest::waitUntil([&] { return !IsWindowVisible(cover); }, 2000)) << "the cover stayed";
    EXPECT_EQ(L"Move the mouse over an element in your application.", infoText());

    ASSERT_NE(0, attach(dwtest::ownPidArgs(), 1000));
    SetCursorPos(300, 300);
    pumpFor(300);
    SetCursorPos(170, 145);
    EXPECT_TRUE(dwtest::waitUntil([&] { return prepared.size() == 1; }, 3000)) << "the cover was left busy";
}

}  // namespace
