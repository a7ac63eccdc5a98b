// Real input as the target sees it: the natives SimulateMouseEvent and
// SimulateKeyStroke move the system's pointer and press its buttons and keys,
// a serving target process tells what its windows received, and low-level
// hooks in this process record what the system's input queue carried and
// when.
#include "TargetTest.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <map>

using dwtest::InputEvent;
using dwtest::joined;
using dwtest::screenOf;
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

// The hook's events other than moves, shown.
std::vector<std::string> keysAndButtons(const std::vector<InputEvent>& events) {
    std::vector<std::string> shown;
    for (const InputEvent& event : events) {
        if (event.isMove()) continue;
        InputEvent plain = event;
        if (plain.isKey()) plain.vk = dwtest::sideless(plain.vk);
        shown.push_back(plain.show());
    }
    return shown;
}

class RealInput : public dwtest::RealInputTest {
protected:
    void SetUp() override {
        RealInputTest::SetUp();
        button = target.makeWindow(L"Button", L"Press", {20, 20, 140, 60}, main);
        ASSERT_NE(nullptr, button);
        fakeuia::Node& window = platform->desktop().add(specOf(main, UIA_WindowControlTypeId));
        window.add(specOf(button, UIA_ButtonControlTypeId));
        window.add(specOf(edit, UIA_EditControlTypeId));
        attachToTarget();
        // The recorder listens to nothing here: its input hooks stand in the
        // chain of every injected event and would lengthen the gaps measured.
        native<void>("EnableEventListeners", jint{0});
        handles[main] = toplevels().at(0);
        const std::vector<jlong> inside = children(handles[main]);
        ASSERT_EQ(2u, inside.size());
        handles[button] = inside[0];
        handles[edit] = inside[1];
        SetCursorPos(5, 5);
        drain();
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
    // Forgets the input so far and what the target's windows received.
    void drain() {
        RealInputTest::drain();
        target.received();
    }
    // A point of the window's client area as the window itself names it.
    static std::string client(HWND window, POINT screen) {
        ScreenToClient(window, &screen);
        return std::to_string(screen.x) + "," + std::to_string(screen.y);
    }

    HWND button = nullptr;
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
    for (const TargetProcess::Received& line : target.received()) if (line.window == main) last = line.what;
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
    for (const std::string& line : lines) if (line.compare(0, 7, "WM_CHAR") == 0) chars.push_back(line.substr(8));
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

// A click at the screen's last pixel lands there, on the target's pane in
// the corner: the final move scales by the screen's size less one. (Points
// beyond the screen are clamped, call by call, in the input suite.)
TEST_F(RealInput, AClickAtTheScreensLastPixelLandsThere) {
    const POINT last{GetSystemMetrics(SM_CXSCREEN) - 1, GetSystemMetrics(SM_CYSCREEN) - 1};
    HWND corner = target.makeWindow(L"DeskwrightTarget", L"Corner", {last.x - 300, last.y - 200, last.x + 100, last.y + 100});
    ASSERT_NE(nullptr, corner);
    RECT area{};
    GetClientRect(corner, &area);
    HWND pane = target.makeWindow(L"DeskwrightTarget", L"", {0, 0, area.right, area.bottom}, corner);
    ASSERT_NE(nullptr, pane);
    platform->desktop().add(specOf(corner, UIA_WindowControlTypeId)).add(specOf(pane, UIA_PaneControlTypeId));
    const std::vector<jlong> tops = toplevels();
    ASSERT_EQ(2u, tops.size());
    handles[pane] = children(tops[1]).at(0);
    RECT bounds{};
    GetWindowRect(pane, &bounds);
    drain();
    mouse(pane, CLICK, LEFT, {last.x - bounds.left, last.y - bounds.top});
    const std::string at = " " + std::to_string(last.x) + "," + std::to_string(last.y);
    EXPECT_EQ(joined({"WM_LBUTTONDOWN" + at, "WM_LBUTTONUP" + at}), joined(keysAndButtons(recorder.settle())));
    const std::string point = " " + client(pane, last);
    EXPECT_EQ(joined({"WM_LBUTTONDOWN" + point + " MK_LBUTTON", "WM_LBUTTONUP" + point}), joined(seen(pane)));
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
