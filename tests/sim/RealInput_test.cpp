// Real input as the target sees it: the natives SimulateMouseEvent and
// SimulateKeyStroke move the system's pointer and press its buttons and keys,
// a serving target process tells what its windows received, and low-level
// hooks in this process record what the system's input queue carried and
// when.
#include "DriverTest.h"
#include "InputRecorder.h"
#include "TargetProcess.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <map>

using dwtest::DriverTest;
using dwtest::InputEvent;
using dwtest::TargetProcess;

namespace {

const jint CLICK = 500, PRESS = 501, RELEASE = 502, MOVE = 503;
const jint LEFT = 0, MIDDLE = 1, RIGHT = 2;
const jint SHIFT = 1, CONTROL = 2, ALT = 8;
// How far a delay may be off its preference.
const double TOLERANCE_MS = 5.0;
// The median gap of a loaded machine stays below this; a wrong, doubled or
// missing delay of the preferences measured is 20 ms off or more.
const double LATE_MS = 12.0;

// The hook may name the side of a modifier key; the windows get it sideless.
DWORD sideless(DWORD vk) {
    switch (vk) {
    case VK_LSHIFT: case VK_RSHIFT: return VK_SHIFT;
    case VK_LCONTROL: case VK_RCONTROL: return VK_CONTROL;
    case VK_LMENU: case VK_RMENU: return VK_MENU;
    default: return vk;
    }
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : " | ") + line;
    return text;
}

// The hook's events other than moves, shown.
std::vector<std::string> keysAndButtons(const std::vector<InputEvent>& events) {
    std::vector<std::string> shown;
    for (const InputEvent& event : events) {
        if (event.isMove()) continue;
        InputEvent plain = event;
        if (plain.isKey()) plain.vk = sideless(plain.vk);
        shown.push_back(plain.show());
    }
    return shown;
}

class RealInput : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_TRUE(target.ready()) << "the target program did not start";
        ASSERT_TRUE(recorder.ok()) << "the low-level hooks are not in place";
        main = target.makeWindow(L"DeskwrightTarget", L"Input target", {200, 150, 600, 450});
        ASSERT_NE(nullptr, main);
        button = target.makeWindow(L"Button", L"Press", {20, 20, 140, 60}, main);
        edit = target.makeWindow(L"Edit", L"", {20, 80, 300, 110}, main);
        ASSERT_TRUE(button && edit);
        fakeuia::Node& window = platform->desktop().add(specOf(main, UIA_WindowControlTypeId));
        window.add(specOf(button, UIA_ButtonControlTypeId));
        window.add(specOf(edit, UIA_EditControlTypeId));
        ASSERT_EQ(static_cast<jint>(target.pid()), attach(L"-pid " + std::to_wstring(target.pid()), 5000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000)) << "no onConnect";
        // The recorder listens to nothing here: its input hooks stand in the
        // chain of every injected event and would lengthen the gaps measured.
        native<void>("EnableEventListeners", jint{0});
        handles[main] = host->longs(native<jlongArray>("GetToplevels")).at(0);
        const std::vector<jlong> children = host->longs(native<jlongArray>("GetChildren", handles[main]));
        ASSERT_EQ(2u, children.size());
        handles[button] = children[0];
        handles[edit] = children[1];
        SetCursorPos(5, 5);
        drain();
    }

    fakeuia::NodeSpec specOf(HWND window, CONTROLTYPEID type) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        wchar_t text[256] = {};
        GetClassNameW(window, text, 256);
        spec.className = text;
        InternalGetWindowText(window, text, 256);
        spec.name = text;
        spec.processId = static_cast<int>(target.pid());
        GetWindowRect(window, &spec.bounds);
        spec.nativeWindowHandle = window;
        return spec;
    }

    void mouse(HWND window, jint id, jint which, POINT at, jint modifiers = 0, jint count = 1) {
        native<void>("SimulateMouseEvent", handles.at(window), id, which, jint(at.x), jint(at.y), modifiers, count);
        ASSERT_EQ("", dwtest::pendingException(*host));
    }
    void key(wchar_t c, jint vk = 0, jint modifiers = 0) {
        native<void>("SimulateKeyStroke", handles.at(edit), jchar(c), vk, modifiers);
        ASSERT_EQ("", dwtest::pendingException(*host));
    }

    // What a window received since the last look, moves left out, once the
    // input has settled.
    std::vector<std::string> seen(HWND window) {
        recorder.settle();
        std::vector<std::string> lines;
        for (int round = 0; round < 3; ++round) {  // the target may still be busy with the last of it
            for (const TargetProcess::Received& line : target.received()) {
                if (line.window == window && line.what.compare(0, 12, "WM_MOUSEMOVE") != 0) lines.push_back(line.what);
            }
            Sleep(50);
        }
        return lines;
    }
    void drain() {
        recorder.settle();
        target.received();
        recorder.clear();
    }
    // A point of the window's client area as the window itself names it.
    static std::string client(HWND window, POINT screen) {
        ScreenToClient(window, &screen);
        return std::to_string(screen.x) + "," + std::to_string(screen.y);
    }
    static POINT screenOf(HWND window, POINT relative) {
        RECT rect{};
        GetWindowRect(window, &rect);
        return {rect.left + relative.x, rect.top + relative.y};
    }

    dwtest::InputRestorer restorer;  // ends after the recorder: its own input isn't recorded
    dwtest::InputRecorder recorder;
    TargetProcess target{TargetProcess::Serving{}};
    HWND main = nullptr, button = nullptr, edit = nullptr;
    std::map<HWND, jlong> handles;
};

}  // namespace

// Each button's click at a point of the Button; the key of a modifier goes to
// the Button too, which has the focus since the first click.
TEST_F(RealInput, ClicksOfEachButtonArriveAtThePointAsked) {
    const struct {
        const char* name;
        jint which, modifiers;
        std::string down, up, button, key;
    } rows[] = {
        {"left", LEFT, 0, "WM_LBUTTONDOWN", "WM_LBUTTONUP", "MK_LBUTTON", ""},
        {"right", RIGHT, 0, "WM_RBUTTONDOWN", "WM_RBUTTONUP", "MK_RBUTTON", ""},
        {"middle with the Alt bit", MIDDLE, ALT, "WM_MBUTTONDOWN", "WM_MBUTTONUP", "MK_MBUTTON", ""},
        {"left with Control", LEFT, CONTROL, "WM_LBUTTONDOWN", "WM_LBUTTONUP", "MK_LBUTTON", "0x11"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const POINT at{30, 15};
        const POINT screen = screenOf(button, at);
        mouse(button, CLICK, row.which, at, row.modifiers);
        const std::string held = row.key.empty() ? "" : " MK_CONTROL";
        const auto withKey = [&](std::vector<std::string> lines) {
            if (row.key.empty()) return lines;
            lines.insert(lines.begin(), "WM_KEYDOWN " + row.key);
            lines.push_back("WM_KEYUP " + row.key);
            return lines;
        };
        const std::string point = " " + client(button, screen);
        std::vector<std::string> expected = {row.down + point + " " + row.button + (held.empty() ? "" : "|MK_CONTROL"),
                                             row.up + point + held};
        if (row.which == LEFT) expected.push_back("BN_CLICKED");
        EXPECT_EQ(joined(withKey(expected)), joined(seen(button)));
        const std::vector<InputEvent> events = recorder.events();
        const std::string hooked = " " + std::to_string(screen.x) + "," + std::to_string(screen.y);
        EXPECT_EQ(joined(withKey({row.down + hooked, row.up + hooked})), joined(keysAndButtons(events)))
            << "no other key, no other button";
        for (const InputEvent& event : events) EXPECT_TRUE(event.injected()) << event.show();
        drain();
    }
}

TEST_F(RealInput, DoubleClickIsOneToTheTarget) {
    const POINT at{60, 20};
    mouse(button, CLICK, LEFT, at, 0, 2);
    const std::string point = " " + client(button, screenOf(button, at));
    EXPECT_EQ(joined({"WM_LBUTTONDOWN" + point + " MK_LBUTTON", "WM_LBUTTONUP" + point, "BN_CLICKED",
                      "WM_LBUTTONDBLCLK" + point + " MK_LBUTTON", "WM_LBUTTONUP" + point, "BN_CLICKED"}),
              joined(seen(button)));
}

TEST_F(RealInput, PressWithShiftHoldsTheButtonUntilTheRelease) {
    const POINT at{150, 200};
    const POINT screen = screenOf(main, at);
    mouse(main, PRESS, LEFT, at, SHIFT, 2);
    const std::string point = " " + client(main, screen);
    const std::string hookPoint = " " + std::to_string(screen.x) + "," + std::to_string(screen.y);
    EXPECT_EQ(joined({"WM_KEYDOWN 0x10", "WM_LBUTTONDOWN" + hookPoint, "WM_LBUTTONDOWN" + hookPoint, "WM_KEYUP 0x10"}),
              joined(keysAndButtons(recorder.settle())));
    EXPECT_EQ(joined({"WM_KEYDOWN 0x10", "WM_LBUTTONDOWN" + point + " MK_LBUTTON|MK_SHIFT",
                      "WM_LBUTTONDOWN" + point + " MK_LBUTTON|MK_SHIFT", "WM_KEYUP 0x10"}),
              joined(seen(main)));
    EXPECT_TRUE(GetAsyncKeyState(VK_LBUTTON) & 0x8000) << "the button is still down";
    drain();

    mouse(main, RELEASE, LEFT, at);
    EXPECT_EQ(joined({"WM_LBUTTONUP" + hookPoint}), joined(keysAndButtons(recorder.settle())));
    EXPECT_EQ(joined({"WM_LBUTTONUP" + point}), joined(seen(main)));
    EXPECT_FALSE(GetAsyncKeyState(VK_LBUTTON) & 0x8000);
}

TEST_F(RealInput, MoveGlidesInStepsOfTenPixelsToThePoint) {
    const POINT from = screenOf(main, {10, 40});
    SetCursorPos(from.x, from.y);
    drain();
    const POINT at{310, 200};  // 300 right and 160 down: 34 steps
    const POINT screen = screenOf(main, at);
    mouse(main, MOVE, LEFT, at);
    const std::vector<InputEvent> events = recorder.settle();
    EXPECT_EQ("", joined(keysAndButtons(events))) << "a move presses nothing";
    ASSERT_EQ(36u, events.size()) << "34 way points, the end of the glide and the exact point";
    // The way points are scaled coarser than the final move: short of the
    // pixel by up to two percent of the coordinate, towards the origin.
    auto shortBy = [](LONG wanted, LONG got) { return wanted - got >= 0 && wanted - got <= 1 + wanted / 50; };
    EXPECT_TRUE(shortBy(from.x, events.front().point.x) && shortBy(from.y, events.front().point.y))
        << "the glide starts where the pointer was, not at " << events.front().show();
    for (size_t i = 1; i + 1 < events.size(); ++i) {
        const double step = std::hypot(events[i].point.x - events[i - 1].point.x, events[i].point.y - events[i - 1].point.y);
        EXPECT_NEAR(10.0, step, 2.5) << "step " << i << " to " << events[i].show();
    }
    EXPECT_EQ("WM_MOUSEMOVE " + std::to_string(screen.x) + "," + std::to_string(screen.y), events.back().show());
    std::string last;
    for (const TargetProcess::Received& line : target.received()) {
        if (line.window == main) last = line.what;
    }
    EXPECT_EQ("WM_MOUSEMOVE " + client(main, screen), last);
}

TEST_F(RealInput, TypedCharactersAndEditingKeysReachTheEdit) {
    mouse(edit, CLICK, LEFT, {5, 5});
    drain();
    for (wchar_t c : std::wstring(L"ab1Z")) key(c);
    key(L'q', 0, SHIFT);  // the mask asks for Shift: "Q"
    key(0, VK_LEFT);
    key(0, VK_LEFT);
    key(0, VK_DELETE);  // the caret stood before "Z"
    const std::vector<std::string> lines = seen(edit);
    EXPECT_EQ("ab1Q", target.text(edit));
    std::vector<std::string> chars;
    for (const std::string& line : lines) {
        if (line.compare(0, 7, "WM_CHAR") == 0) chars.push_back(line.substr(8));
    }
    EXPECT_EQ("a | b | 1 | Z | Q", joined(chars));
    for (const char* line : {"WM_KEYDOWN 0x41", "WM_KEYUP 0x41", "WM_KEYDOWN 0x25 ext", "WM_KEYUP 0x25 ext",
                             "WM_KEYDOWN 0x2E ext", "WM_KEYUP 0x2E ext", "WM_KEYDOWN 0x10", "WM_KEYUP 0x10"}) {
        EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), line)) << line << " in " << joined(lines);
    }
    const std::vector<std::string> hooked = keysAndButtons(recorder.events());
    const struct { const char* line; int times; } strokes[] = {{"WM_KEYDOWN 0x25 ext", 2}, {"WM_KEYUP 0x25 ext", 2},
        {"WM_KEYDOWN 0x2E ext", 1}, {"WM_KEYUP 0x2E ext", 1}, {"WM_KEYDOWN 0x41", 1}, {"WM_KEYUP 0x41", 1}};
    for (const auto& stroke : strokes) {
        EXPECT_EQ(stroke.times, std::count(hooked.begin(), hooked.end(), stroke.line)) << stroke.line << " in the hook";
    }
}

// Where a click lands at the far edge of the screen, and beyond it. A point
// far off the screen is clamped to 32768 and normalised like any other; where
// the system then puts the pointer is its own affair: Windows keeps it on the
// screen's edge, while Wine's 32-bit arithmetic overflows and puts it on the
// opposite edge. So the click must land where the system puts the same
// absolute move made directly, which on the edge itself is the target's pane.
TEST_F(RealInput, ClicksAtAndBeyondTheScreenEdgeLandWhereTheSystemPutsTheEdge) {
    const int width = GetSystemMetrics(SM_CXSCREEN), height = GetSystemMetrics(SM_CYSCREEN);
    HWND corner = target.makeWindow(L"DeskwrightTarget", L"Corner", {width - 300, height - 200, 400, 300});
    ASSERT_NE(nullptr, corner);
    RECT area{};
    GetClientRect(corner, &area);
    HWND pane = target.makeWindow(L"DeskwrightTarget", L"", {0, 0, area.right, area.bottom}, corner);
    ASSERT_NE(nullptr, pane);
    platform->desktop().add(specOf(corner, UIA_WindowControlTypeId)).add(specOf(pane, UIA_PaneControlTypeId));
    const std::vector<jlong> tops = host->longs(native<jlongArray>("GetToplevels"));
    ASSERT_EQ(2u, tops.size());
    handles[pane] = host->longs(native<jlongArray>("GetChildren", tops[1])).at(0);
    RECT bounds{};
    GetWindowRect(pane, &bounds);
    // Where the system puts a click after an absolute move to a screen point,
    // clamped and normalised as the driver does it.
    auto systemPlaces = [&](POINT screen) {
        auto normalised = [](LONG v, int extent) {
            return static_cast<DWORD>(static_cast<long>(std::min<LONG>(v, 32768) * 65535.0 / (extent - 1) + 0.5));
        };
        drain();
        mouse_event(MOUSEEVENTF_MOVE | MOUSEEVENTF_ABSOLUTE, normalised(screen.x, width), normalised(screen.y, height), 0, 0);
        mouse_event(MOUSEEVENTF_LEFTDOWN, 0, 0, 0, 0);
        mouse_event(MOUSEEVENTF_LEFTUP, 0, 0, 0, 0);
        for (const InputEvent& event : recorder.settle()) {
            if (event.message == WM_LBUTTONDOWN) return event.point;
        }
        return POINT{-1, -1};
    };
    const struct {
        const char* name;
        POINT asked;
    } rows[] = {{"the last pixel", {width - 1, height - 1}}, {"x far beyond", {40000, height - 50}},
                {"both far beyond", {40000, 40000}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const POINT edge{std::min<LONG>(row.asked.x, width - 1), std::min<LONG>(row.asked.y, height - 1)};
        const POINT landing = systemPlaces(row.asked);
        if (landing.x != edge.x || landing.y != edge.y) {
            std::printf("%s: the system puts a click after a move to (%ld, %ld) at (%ld, %ld), not on the screen's edge\n",
                        row.name, row.asked.x, row.asked.y, landing.x, landing.y);
        }
        drain();
        mouse(pane, CLICK, LEFT, {row.asked.x - bounds.left, row.asked.y - bounds.top});
        const std::string at = " " + std::to_string(landing.x) + "," + std::to_string(landing.y);
        EXPECT_EQ(joined({"WM_LBUTTONDOWN" + at, "WM_LBUTTONUP" + at}), joined(keysAndButtons(recorder.settle())));
        if (PtInRect(&bounds, landing)) {
            const std::string point = " " + client(pane, landing);
            EXPECT_EQ(joined({"WM_LBUTTONDOWN" + point + " MK_LBUTTON", "WM_LBUTTONUP" + point}), joined(seen(pane)));
        }
    }
    const POINT last = systemPlaces({width - 1, height - 1});
    EXPECT_TRUE(last.x == width - 1 && last.y == height - 1) << "the last pixel is the screen's last";
}

// The four delays, from the stamps of a double click and a key stroke over
// several rounds: each gap against its preference, by the hook's clock and by
// the events' own time, with the spread of the error printed.
TEST_F(RealInput, DelaysKeepTheirPreferences) {
    struct Gap {
        const wchar_t* key;
        int preference;
        std::vector<double> hooked, queued;  // errors in milliseconds
    };
    Gap gaps[] = {{L"deskwright.delay.after.mousemoved", 40, {}, {}},
                  {L"deskwright.delay.after.mousepressed", 60, {}, {}},
                  {L"deskwright.delay.mouse.multiclick", 80, {}, {}},
                  {L"deskwright.delay.after.keydown", 100, {}, {}}};
    for (const Gap& gap : gaps) setPreference(gap.key, std::to_wstring(gap.preference));
    auto measure = [&](Gap& gap, const InputEvent& first, const InputEvent& second) {
        gap.hooked.push_back(second.ms - first.ms - gap.preference);
        gap.queued.push_back(static_cast<double>(static_cast<LONG>(second.time - first.time)) - gap.preference);
    };
    const int rounds = 8;
    for (int round = 0; round < rounds; ++round) {
        drain();
        mouse(edit, CLICK, LEFT, {10 + 25 * round, 12}, 0, 2);
        key(L'x');
        const std::vector<InputEvent> events = recorder.settle();
        std::vector<InputEvent> strokes;
        InputEvent finalMove;
        std::string names;
        for (const InputEvent& event : events) {
            if (event.isMove() && strokes.empty()) finalMove = event;
            if (event.isMove()) continue;
            strokes.push_back(event);
            names += (names.empty() ? "" : " ") + event.show().substr(0, event.show().find(' '));
        }
        ASSERT_EQ("WM_LBUTTONDOWN WM_LBUTTONUP WM_LBUTTONDOWN WM_LBUTTONUP WM_KEYDOWN WM_KEYUP", names)
            << "round " << round;
        ASSERT_TRUE(finalMove.isMove());
        measure(gaps[0], finalMove, strokes[0]);
        measure(gaps[1], strokes[0], strokes[1]);
        measure(gaps[1], strokes[2], strokes[3]);
        measure(gaps[2], strokes[1], strokes[2]);
        measure(gaps[3], strokes[4], strokes[5]);
    }
    for (Gap& gap : gaps) {
        for (std::vector<double>* errors : {&gap.hooked, &gap.queued}) {
            std::sort(errors->begin(), errors->end());
            std::printf("%-36ls %3d ms, %s: error min %+6.2f median %+6.2f max %+6.2f ms (%zu gaps)\n", gap.key,
                        gap.preference, errors == &gap.hooked ? "hook" : "time", errors->front(),
                        (*errors)[errors->size() / 2], errors->back(), errors->size());
            // A delay is never cut short, and the shortest gap, the one that
            // no late wake lengthened, is the preference's. A loaded machine
            // wakes a sleeper late now and then, by up to tens of
            // milliseconds, and under Wine's input queue that is most gaps
            // by a few: the median only has to stay clear of the 20 ms that
            // a wrong, doubled or missing delay of these preferences makes.
            const std::string name(gap.key, gap.key + wcslen(gap.key));
            EXPECT_GE(errors->front(), -TOLERANCE_MS) << name << ", the shortest";
            EXPECT_LE(errors->front(), TOLERANCE_MS) << name << ", the shortest";
            EXPECT_LE((*errors)[errors->size() / 2], LATE_MS) << name << ", the median";
        }
    }
}
