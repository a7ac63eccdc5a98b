// Check mode with the real pointer and real clicks: the overlay rides under
// the pointer over elements of a target process (the simulated platform
// answers which element lies where), marks the element, and hands Java the
// default check on a left click and the chosen check of a menu on a right
// click.
#include "DriverTest.h"
#include "OverlayTest.h"
#include "Screenshot.h"
#include "TargetProcess.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

using dwtest::DriverTest;
using dwtest::ownWindowOf;
using dwtest::paintedPixel;
using dwtest::pumpFor;
using dwtest::shown;

namespace {

const int OTHER_PID = 4242;
const RECT BUTTON = {150, 150, 250, 200};
const RECT PLUGIN = {300, 300, 420, 380};  // of a child process, inside the target's window
const RECT ELSEWHERE = {600, 100, 700, 200};  // another program's window

POINT centre(const RECT& r) { return {(r.left + r.right) / 2, (r.top + r.bottom) / 2}; }

void click(DWORD down, DWORD up) {
    INPUT input[2] = {};
    input[0].type = input[1].type = INPUT_MOUSE;
    input[0].mi.dwFlags = down;
    input[1].mi.dwFlags = up;
    SendInput(2, input, sizeof(INPUT));
}

// A real move of the pointer, as a user's hand makes it.
void moveTo(POINT p) {
    INPUT input = {};
    input.type = INPUT_MOUSE;
    input.mi.dx = MulDiv(p.x, 65535, GetSystemMetrics(SM_CXSCREEN) - 1);
    input.mi.dy = MulDiv(p.y, 65535, GetSystemMetrics(SM_CYSCREEN) - 1);
    input.mi.dwFlags = MOUSEEVENTF_MOVE | MOUSEEVENTF_ABSOLUTE;
    SendInput(1, &input, sizeof(INPUT));
}

class CheckMode : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_TRUE(target.ready());
        const int pid = static_cast<int>(target.pid());
        fakeuia::Node& window = addWindow(L"Target", L"TargetWindow", pid, nullptr, {100, 100, 500, 400});
        button = &window.add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .processId = pid, .bounds = BUTTON});
        plugin = &window.add({.controlType = UIA_PaneControlTypeId, .name = L"Plugin", .processId = OTHER_PID,
                              .bounds = PLUGIN});
        addWindow(L"Other", L"OtherWindow", OTHER_PID, nullptr, ELSEWHERE);
        auto record = [this](const char* what) {
            return [this, what](JNIEnv*, jobject, const std::vector<jnihost::Value>& args) {
                std::lock_guard<std::mutex> guard(lock);
                javaCalls.push_back(std::string(what) + " " + std::to_string(args[0].j == buttonHandle ? 1 : args[0].j) +
                                    (args.size() > 1 ? " " + std::to_string(args[1].i) : ""));
                return jnihost::Value::none();
            };
        };
        host->onCall(dwtest::DRIVER_CLASS, "onDefaultCheck", "(J)V", [this, record](JNIEnv* e, jobject o, const auto& a) {
            duringCheck = ownWindowOf(L"TolvaHighlighterClass");
            return record("default")(e, o, a);
        });
        host->onCall(dwtest::DRIVER_CLASS, "onCheckSelect", "(JI)V", record("select"));
        host->onCall(dwtest::DRIVER_CLASS, "onContextCheck", "(J)[Ljava/lang/String;",
                     [this](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                         return labels.empty() ? jnihost::Value::ofObject(nullptr)
                                               : jnihost::Value::ofObject(host->stringArray(labels));
                     });
        ASSERT_EQ(pid, attach(L"-pid " + std::to_wstring(pid), 3000));
        buttonHandle = handleOf(*button);
    }
    void TearDown() override {
        if (checking) native<void>("EnableCheckMode", jboolean(JNI_FALSE), jint{0});
        pumpFor(100);
        if (attached) detachAndWait();
        DriverTest::TearDown();
    }

    void check(bool on) {
        native<void>("EnableCheckMode", jboolean(on ? JNI_TRUE : JNI_FALSE), jint{0});
        checking = on;
        // Check mode starts and ends on the dispatch thread, in its own time.
        ASSERT_TRUE(dwtest::waitUntil([on] { return (ownWindowOf(L"TolvaOverlayClass") != nullptr) == on; }, 3000));
    }
    // Rests the pointer at a point long enough for the overlay to look, come
    // back and mark (200 ms rest, 1000 ms on a return to the target).
    void restAt(POINT p, int ms = 1500) {
        SetCursorPos(p.x, p.y);
        pumpFor(ms);
    }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> guard(lock);
        return javaCalls;
    }

    dwtest::TargetProcess target{dwtest::TargetProcess::Serving{}};
    fakeuia::Node* button = nullptr;
    fakeuia::Node* plugin = nullptr;
    jlong buttonHandle = 0;
    std::vector<std::wstring> labels;
    std::mutex lock;
    std::vector<std::string> javaCalls;  // "default 1" for the button, "select 1 <index>"
    std::atomic<HWND> duringCheck{nullptr};
    bool checking = false;
};

// The overlay: a translucent 50 by 50 window centred under the resting
// pointer over the target, hidden over anything else; the element under it
// is framed in dark grey after a second on the target.
TEST_F(CheckMode, TheOverlayRidesOverTheTargetAndMarksItsElement) {
    restAt({700, 500}, 300);
    check(true);
    const HWND overlay = ownWindowOf(L"TolvaOverlayClass");
    const LONG_PTR exStyle = GetWindowLongPtrW(overlay, GWL_EXSTYLE);
    EXPECT_EQ(WS_EX_NOACTIVATE | WS_EX_LAYERED | WS_EX_TOPMOST,
              exStyle & (WS_EX_NOACTIVATE | WS_EX_LAYERED | WS_EX_TOPMOST));
    // The dispatch thread makes the window translucent just after creating it.
    BYTE alpha = 0;
    EXPECT_TRUE(dwtest::waitUntil([&] { return GetLayeredWindowAttributes(overlay, nullptr, &alpha, nullptr); }, 3000));
    EXPECT_EQ(50, alpha);

    restAt(centre(BUTTON));
    EXPECT_TRUE(IsWindowVisible(overlay));
    RECT r{};
    GetWindowRect(overlay, &r);
    EXPECT_EQ("[175,150,225,200]", shown(r)) << "centred on the pointer";
    const HWND frame = ownWindowOf(L"TolvaHighlighterClass");
    ASSERT_NE(nullptr, frame) << "no marking";
    GetWindowRect(frame, &r);
    EXPECT_EQ(shown(BUTTON), shown(r));
    EXPECT_EQ(COLORREF{0x404040}, paintedPixel(frame, 1, 20));

    restAt(centre(ELSEWHERE), 600);
    EXPECT_FALSE(IsWindowVisible(overlay)) << "over another program the overlay is out of the way";
    EXPECT_EQ(nullptr, ownWindowOf(L"TolvaHighlighterClass")) << "the marking of the element left behind";

    check(false);
    EXPECT_TRUE(dwtest::waitUntil([] { return !ownWindowOf(L"TolvaOverlayClass"); }, 3000));
}

// Check mode's marking beside recording's info window as a user sees them,
// kept as a screenshot: the dark frame's edges around the element and the
// target unchanged inside it, away from the overlay under the pointer.
TEST_F(CheckMode, TheScreenshotShowsTheMarkingAndTheInfoWindow) {
    ASSERT_NE(nullptr, target.makeWindow(L"TargetWindow", L"Target", {100, 100, 500, 400}));
    restAt({700, 500}, 300);
    native<void>("EnableRecordingMode", jboolean(JNI_TRUE), jint{0});
    ASSERT_TRUE(dwtest::waitUntil([] { return IsWindowVisible(ownWindowOf(L"TolvaInfoClass")); }, 3000));
    const HWND info = ownWindowOf(L"TolvaInfoClass");
    RECT infoRect{}, area{};
    GetWindowRect(info, &infoRect);
    const RECT targetArea = {90, 90, 510, 410};
    UnionRect(&area, &targetArea, &infoRect);
    const dwtest::Screenshot before = dwtest::Screenshot::ofScreen(area);

    check(true);
    restAt(centre(BUTTON));
    ASSERT_NE(nullptr, ownWindowOf(L"TolvaHighlighterClass")) << "no marking";
    const dwtest::Screenshot shot = dwtest::Screenshot::composed(area, &before);
    ASSERT_TRUE(shot.savePng(dwtest::screenshotPath(L"check-mode-marking.png")));
    native<void>("EnableRecordingMode", jboolean(JNI_FALSE), jint{0});

    // The overlay covers the element's middle, (175,150) to (225,200).
    for (const POINT& p : {POINT{150, 160}, POINT{152, 190}, POINT{249, 160}, POINT{160, 150}, POINT{240, 199}}) {
        EXPECT_EQ(COLORREF{0x404040}, shot.at(p.x, p.y)) << "the frame at (" << p.x << "," << p.y << ")";
    }
    for (const POINT& p : {POINT{153, 160}, POINT{165, 185}, POINT{246, 196}, POINT{149, 160}, POINT{260, 175}}) {
        EXPECT_EQ(before.at(p.x, p.y), shot.at(p.x, p.y)) << "the target at (" << p.x << "," << p.y << ")";
    }
    POINT inInfo = {8, 8};
    ClientToScreen(info, &inInfo);
    EXPECT_EQ(paintedPixel(info, 8, 8), shot.at(inInfo.x, inInfo.y)) << "the info window is in the picture";
}

// A left click on a marked element asks Java for its default check, with the
// element framed while Java works.
TEST_F(CheckMode, ALeftClickAsksForTheDefaultCheck) {
    check(true);
    restAt(centre(BUTTON));
    click(MOUSEEVENTF_LEFTDOWN, MOUSEEVENTF_LEFTUP);
    ASSERT_TRUE(dwtest::waitUntil([&] { return !calls().empty(); }, 3000));
    EXPECT_EQ(std::vector<std::string>{"default 1"}, calls());
    EXPECT_NE(nullptr, duringCheck.load()) << "the element was framed while Java checked";
}

// A click on the marking's frame, which lies over what it marks, comes back
// to the overlay as the overlay's own click at the same point of the screen,
// and ends the marking. (The click is posted to the frame: which window the
// display system hands a real click among stacked topmost windows is its own
// business under Wine.)
TEST_F(CheckMode, AClickOnTheFrameReachesTheOverlay) {
    check(true);
    restAt(centre(BUTTON));
    const HWND frame = ownWindowOf(L"TolvaHighlighterClass");
    ASSERT_NE(nullptr, frame);
    RECT overlay{};
    GetWindowRect(ownWindowOf(L"TolvaOverlayClass"), &overlay);
    // The frame's bottom edge under the pointer: (200, 198) on the screen.
    PostMessageW(frame, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(50, 48));
    ASSERT_TRUE(dwtest::waitUntil([&] { return !calls().empty(); }, 3000));
    EXPECT_EQ(std::vector<std::string>{"default 1"}, calls());
    EXPECT_FALSE(IsWindow(frame)) << "a forwarded click ends the marking";
    const std::string at = "msg: 513, fx: " + std::to_string(200 - overlay.left) + ", fy: " +
                           std::to_string(198 - overlay.top);
    EXPECT_EQ(1u, dwtest::LogFile::count(at, 9)) << at;
}

// The test tool's own window (a Java frame titled after the tool) is found
// when check mode starts: a click that the overlay catches over one of its
// elements, before the overlay has stepped aside, goes on to that window.
TEST_F(CheckMode, AClickMeantForTheTestToolsWindowReachesIt) {
    dwtest::TargetProcess tool{dwtest::TargetProcess::Serving{}};
    ASSERT_TRUE(tool.ready());
    const RECT frameRect = {600, 250, 800, 400};
    const HWND toolWindow = tool.makeWindow(L"SunAwtFrame", L"CueBench 4.2", frameRect);
    ASSERT_NE(nullptr, toolWindow);
    addWindow(L"CueBench 4.2", L"SunAwtFrame", static_cast<int>(tool.pid()), toolWindow, frameRect);
    check(true);
    restAt(centre(BUTTON));
    tool.received();  // what the pointer did there so far
    SetCursorPos(610, 260);
    pumpFor(80);  // the overlay has followed (25 ms), the element isn't looked at yet (200 ms)
    RECT overlay{};
    GetWindowRect(ownWindowOf(L"TolvaOverlayClass"), &overlay);
    PostMessageW(ownWindowOf(L"TolvaOverlayClass"), WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(25, 25));
    std::vector<std::string> clicks;
    ASSERT_TRUE(dwtest::waitUntil(
        [&] {
            for (const auto& line : tool.received()) {
                if (line.window == toolWindow && line.what.rfind("WM_LBUTTON", 0) == 0) clicks.push_back(line.what);
            }
            return clicks.size() >= 2;
        },
        3000))
        << "the tool's window got no click";
    // At the same point of the screen, less the height of the frame's caption.
    const std::string at = std::to_string(overlay.left + 25 - frameRect.left) + "," +
                           std::to_string(overlay.top + 25 - frameRect.top - 31);
    EXPECT_EQ("WM_LBUTTONDOWN " + at + " MK_LBUTTON", clicks[0]);
    EXPECT_EQ("WM_LBUTTONUP " + at, clicks[1]);
    EXPECT_TRUE(calls().empty()) << "no check for the tool's own window";
}

// A right click shows Java's labels as a menu: the first a disabled title,
// then a separator, the checks, a separator and "Cancel". Java receives the
// chosen label's index less one; no labels, no menu.
TEST_F(CheckMode, ARightClickOffersJavasChecksInAMenu) {
    labels = {L"Checks of OK", L"Text is \"OK\"", L"Exists"};
    check(true);
    restAt(centre(BUTTON));
    click(MOUSEEVENTF_RIGHTDOWN, MOUSEEVENTF_RIGHTUP);
    ASSERT_TRUE(dwtest::waitUntil([] { return ownWindowOf(L"#32768") != nullptr; }, 3000)) << "no menu";
    const HWND menuWindow = ownWindowOf(L"#32768");
    const auto menu = reinterpret_cast<HMENU>(SendMessageW(menuWindow, MN_GETHMENU, 0, 0));
    ASSERT_NE(nullptr, menu);
    std::vector<std::string> items;
    for (int i = 0; i < GetMenuItemCount(menu); ++i) {
        wchar_t text[64] = {};
        GetMenuStringW(menu, static_cast<UINT>(i), text, 64, MF_BYPOSITION);
        const UINT state = GetMenuState(menu, static_cast<UINT>(i), MF_BYPOSITION);
        std::wstring wide = text;
        items.push_back((state & MF_SEPARATOR) ? "-" : std::string(wide.begin(), wide.end()) + " " +
                                                        std::to_string(static_cast<int>(GetMenuItemID(menu, i))) +
                                                        ((state & MF_DISABLED) ? " disabled" : ""));
    }
    const std::vector<std::string> expected = {"Checks of OK 99 disabled", "-", "Text is \"OK\" 100", "Exists 101", "-",
                                               "Cancel 0"};
    EXPECT_EQ(expected, items);
    RECT item{};
    ASSERT_TRUE(GetMenuItemRect(nullptr, menu, 3, &item));
    moveTo({(item.left + item.right) / 2, (item.top + item.bottom) / 2});
    pumpFor(100);
    click(MOUSEEVENTF_LEFTDOWN, MOUSEEVENTF_LEFTUP);
    ASSERT_TRUE(dwtest::waitUntil([&] { return !calls().empty(); }, 3000));
    EXPECT_EQ(std::vector<std::string>{"select 1 1"}, calls());

    // Without labels: no menu, and the overlay follows the pointer again.
    labels.clear();
    restAt(centre(BUTTON));
    click(MOUSEEVENTF_RIGHTDOWN, MOUSEEVENTF_RIGHTUP);
    pumpFor(500);
    EXPECT_EQ(nullptr, ownWindowOf(L"#32768"));
    restAt({BUTTON.left + 10, BUTTON.top + 10}, 400);
    RECT r{};
    GetWindowRect(ownWindowOf(L"TolvaOverlayClass"), &r);
    EXPECT_EQ(135, r.left) << "the overlay stopped following the pointer";
}

// An element of a child process inside the target counts only when the
// preference says exactly "true".
TEST_F(CheckMode, AChildProcessElementCountsOnlyByPreference) {
    check(true);
    const HWND overlay = ownWindowOf(L"TolvaOverlayClass");
    restAt(centre(PLUGIN));
    EXPECT_FALSE(IsWindowVisible(overlay));
    setPreference(L"deskwright.rec.element.with.different.pid", L"true");
    restAt(centre(BUTTON), 400);
    restAt(centre(PLUGIN));
    EXPECT_TRUE(IsWindowVisible(overlay));
    const HWND frame = ownWindowOf(L"TolvaHighlighterClass");
    ASSERT_NE(nullptr, frame);
    RECT r{};
    GetWindowRect(frame, &r);
    EXPECT_EQ(shown(PLUGIN), shown(r));
}

// While checking, recording mode's cover prepares nothing; after check mode it
// does again.
TEST_F(CheckMode, RecordingPreparesNothingWhileChecking) {
    std::atomic<int> prepared{0};
    host->onCall(dwtest::DRIVER_CLASS, "onPrepareRecording", "(J)V",
                 [&](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                     ++prepared;
                     return jnihost::Value::none();
                 });
    native<void>("EnableRecordingMode", jboolean(JNI_TRUE), jint{0});
    check(true);
    restAt(centre(BUTTON));
    EXPECT_EQ(0, prepared.load());
    check(false);
    restAt({BUTTON.left + 5, BUTTON.top + 5}, 100);
    restAt(centre(PLUGIN), 300);
    restAt(centre(BUTTON), 800);
    EXPECT_GE(prepared.load(), 1);
    native<void>("EnableRecordingMode", jboolean(JNI_FALSE), jint{0});
}

}  // namespace
