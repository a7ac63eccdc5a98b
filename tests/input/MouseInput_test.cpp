// SimulateMouseEvent as Java calls it, asserted call by call: the glide of the
// pointer, the final absolute move, the delays, the modifier keys and the
// buttons, on a simulated 1920 x 1080 screen. The glide's way points scale
// by the integer 65535 / w (34 across, 60 down), the final move by
// 65535.0 / (w - 1) rounded half away from zero, so the two differ.
#include "InputTest.h"
#include "LogFile.h"

#include <ostream>
#include <string>
#include <vector>

using dwtest::InputOnElements;

namespace {

const wchar_t* const MOVED = L"deskwright.delay.after.mousemoved";
const wchar_t* const PRESSED = L"deskwright.delay.after.mousepressed";
const wchar_t* const MULTICLICK = L"deskwright.delay.mouse.multiclick";

// (10, 5) in the button and in the menu item is (110, 205) on the screen.
// The pointer already there: a glide of no way point, then the final move.
const std::string AT = "GetCursorPos; mouse_event(0x8001,3740,12300); mouse_event(0x8001,3757,12451)";
const std::string FINAL_MOVE = "mouse_event(0x8001,3757,12451)";
const std::string SHIFT_DOWN = "keybd_event(0x10,0x2a,0)", SHIFT_UP = "keybd_event(0x10,0x2a,2)";
const std::string CONTROL_DOWN = "keybd_event(0x11,0x1d,0)", CONTROL_UP = "keybd_event(0x11,0x1d,2)";
const std::string ALT_DOWN = "keybd_event(0x12,0x38,0)", ALT_UP = "keybd_event(0x12,0x38,2)";

enum Target { BUTTON, MENU_ITEM, UNBOUNDED, UNREADABLE };
const char* const WARNINGS[] = {"Bad x coordinate", "Bad y coordinate", "no bounds?"};

struct MouseRow {
    const char* what;
    Target target;
    POINT cursor;
    jint id, button, x, y, modifiers, count;
    std::string calls;
    const char* warning;  // one of WARNINGS, logged once at level 3; null: none of them
};

const MouseRow MOUSE_ROWS[] = {
    {"a click", BUTTON, {110, 205}, 500, 0, 10, 5, 0, 1,
     AT + "; Sleep(50); mouse_event(0x2,0,0); Sleep(25); mouse_event(0x4,0,0)", nullptr},
    {"a double click", BUTTON, {110, 205}, 500, 0, 10, 5, 0, 2,
     AT + "; Sleep(50); mouse_event(0x2,0,0); Sleep(25); mouse_event(0x4,0,0); Sleep(150); mouse_event(0x2,0,0);"
          " Sleep(25); mouse_event(0x4,0,0)",
     nullptr},
    {"an id other than press, release and move clicks", BUTTON, {110, 205}, 7, 0, 10, 5, 0, 1,
     AT + "; Sleep(50); mouse_event(0x2,0,0); Sleep(25); mouse_event(0x4,0,0)", nullptr},
    {"a move glides and ends at the final move, whatever its buttons", BUTTON, {90, 205}, 503, 2, 10, 5, 11, 2,
     "GetCursorPos; mouse_event(0x8001,3060,12300); Sleep(5); mouse_event(0x8001,3400,12300); Sleep(5);"
     " mouse_event(0x8001,3740,12300); mouse_event(0x8001,3757,12451)",
     nullptr},
    {"two presses with Shift", BUTTON, {110, 205}, 501, 0, 10, 5, 1, 2,
     AT + "; Sleep(50); " + SHIFT_DOWN + "; mouse_event(0x2,0,0); Sleep(25); Sleep(150); mouse_event(0x2,0,0);"
          " Sleep(25); " + SHIFT_UP,
     nullptr},
    {"two right releases with Control", BUTTON, {110, 205}, 502, 2, 10, 5, 2, 2,
     AT + "; Sleep(50); " + CONTROL_DOWN + "; mouse_event(0x10,0,0); Sleep(150); mouse_event(0x10,0,0); " +
         CONTROL_UP,
     nullptr},
    {"a middle click's Alt bit is the button's", BUTTON, {110, 205}, 500, 1, 10, 5, 9, 1,
     AT + "; Sleep(50); " + SHIFT_DOWN + "; mouse_event(0x20,0,0); Sleep(25); mouse_event(0x40,0,0); " + SHIFT_UP,
     nullptr},
    {"a right click with Shift, Control and Alt", BUTTON, {110, 205}, 500, 2, 10, 5, 11, 1,
     AT + "; Sleep(50); " + SHIFT_DOWN + "; " + CONTROL_DOWN + "; " + ALT_DOWN +
         "; mouse_event(0x8,0,0); Sleep(25); mouse_event(0x10,0,0); " + ALT_UP + "; " + CONTROL_UP + "; " + SHIFT_UP,
     nullptr},
    {"mask bit 4 is no key, button 3 the left one", BUTTON, {110, 205}, 500, 3, 10, 5, 4, 1,
     AT + "; Sleep(50); mouse_event(0x2,0,0); Sleep(25); mouse_event(0x4,0,0)", nullptr},
    {"click count 0 strokes the modifiers only", BUTTON, {110, 205}, 500, 0, 10, 5, 2, 0,
     AT + "; Sleep(50); " + CONTROL_DOWN + "; " + CONTROL_UP, nullptr},
    {"a negative click count clicks nothing", BUTTON, {110, 205}, 500, 0, 10, 5, 0, -1, AT + "; Sleep(50)",
     nullptr},
    {"a glide up and left cuts its steps towards the start", BUTTON, {135, 230}, 503, 0, 10, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,4590,13800); Sleep(5); mouse_event(0x8001,4318,13320); Sleep(5);"
     " mouse_event(0x8001,4046,12840); Sleep(5); mouse_event(0x8001,3740,12300); mouse_event(0x8001,3757,12451)",
     nullptr},
    {"9 pixels make no way point", BUTTON, {101, 205}, 503, 0, 10, 5, 0, 1, AT, nullptr},
    {"10 pixels make one", BUTTON, {100, 205}, 503, 0, 10, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,3400,12300); Sleep(5); mouse_event(0x8001,3740,12300);"
     " mouse_event(0x8001,3757,12451)",
     nullptr},
    {"a menu item is reached down its column first", MENU_ITEM, {90, 185}, 503, 0, 10, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,3060,11100); Sleep(5); mouse_event(0x8001,3060,11700); Sleep(5);"
     " mouse_event(0x8001,3060,12300); mouse_event(0x8001,3060,12300); Sleep(5); mouse_event(0x8001,3400,12300);"
     " Sleep(5); mouse_event(0x8001,3740,12300); mouse_event(0x8001,3757,12451)",
     nullptr},
    {"a button is reached in a straight line", BUTTON, {90, 185}, 503, 0, 10, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,3060,11100); Sleep(5); mouse_event(0x8001,3400,11700); Sleep(5);"
     " mouse_event(0x8001,3740,12300); mouse_event(0x8001,3757,12451)",
     nullptr},
    {"x 40000 is clamped to 32768", BUTTON, {32768, 205}, 503, 0, 39900, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,1114112,12300); mouse_event(0x8001,1119047,12451)", "Bad x coordinate"},
    {"x 32768 is not clamped", BUTTON, {32768, 205}, 503, 0, 32668, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,1114112,12300); mouse_event(0x8001,1119047,12451)", nullptr},
    {"x -40000 is clamped to -32768", BUTTON, {-32768, 205}, 503, 0, -40100, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,-1114112,12300); mouse_event(0x8001,-1119047,12451)", "Bad x coordinate"},
    {"an x past the int's end is clamped to 32768", BUTTON, {32768, 205}, 503, 0, 0x7fffffff, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,1114112,12300); mouse_event(0x8001,1119047,12451)", "Bad x coordinate"},
    {"y 40000 is clamped to 32768", BUTTON, {110, 32768}, 503, 0, 10, 39800, 0, 1,
     "GetCursorPos; mouse_event(0x8001,3740,1966080); mouse_event(0x8001,3757,1990223)", "Bad y coordinate"},
    {"a y before the int's start is clamped to -32768", BUTTON, {110, -32768}, 503, 0, 10, -0x7fffffff - 1, 0, 1,
     "GetCursorPos; mouse_event(0x8001,3740,-1966080); mouse_event(0x8001,3757,-1990223)", "Bad y coordinate"},
    {"an element without bounds is clicked from the screen's corner", UNBOUNDED, {10, 5}, 503, 0, 10, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,340,300); mouse_event(0x8001,342,304)", "no bounds?"},
    {"unreadable bounds are left -1, top 0", UNREADABLE, {9, 5}, 503, 0, 10, 5, 0, 1,
     "GetCursorPos; mouse_event(0x8001,306,300); mouse_event(0x8001,307,304)", nullptr},
};

void PrintTo(const MouseRow& row, std::ostream* out) { *out << row.what; }

class MouseSequences : public InputOnElements, public testing::WithParamInterface<MouseRow> {
protected:
    jlong handleOf(Target target) const {
        const jlong handles[] = {button, menuItem, unbounded, unreadable};
        return handles[target];
    }
};

}  // namespace

TEST_P(MouseSequences, CallByCall) {
    const MouseRow& row = GetParam();
    std::vector<size_t> before;
    for (const char* warning : WARNINGS) before.push_back(dwtest::LogFile::count(warning, 3));
    calls->cursor = row.cursor;
    EXPECT_EQ(row.calls, mouse(handleOf(row.target), row.id, row.button, row.x, row.y, row.modifiers, row.count));
    for (size_t i = 0; i < before.size(); ++i) {
        const bool expected = row.warning && std::string(row.warning) == WARNINGS[i];
        EXPECT_EQ(before[i] + (expected ? 1 : 0), dwtest::LogFile::count(WARNINGS[i], 3)) << WARNINGS[i];
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, MouseSequences, testing::ValuesIn(MOUSE_ROWS), dwtest::rowName<MouseRow>);

// Every call, the screen's size among them, which is read afresh for each
// leg and each final move.
TEST_F(InputOnElements, AClickWithShiftCallByCallOnTwoScreens) {
    calls->cursor = {90, 205};
    EXPECT_EQ("GetCursorPos; GetSystemMetrics(0); GetSystemMetrics(1); mouse_event(0x8001,3060,12300); Sleep(5);"
              " mouse_event(0x8001,3400,12300); Sleep(5); mouse_event(0x8001,3740,12300); GetSystemMetrics(0);"
              " GetSystemMetrics(1); mouse_event(0x8001,3757,12451); Sleep(50); MapVirtualKeyW(0x10,0);"
              " keybd_event(0x10,0x2a,0); mouse_event(0x2,0,0); Sleep(25); mouse_event(0x4,0,0);"
              " MapVirtualKeyW(0x10,0); keybd_event(0x10,0x2a,2)",
              mouse(button, 500, 0, 10, 5, 1, 1, {}));
    calls->screenWidth = 1366;  // 65535 / 1366 is 47
    calls->screenHeight = 768;  // 65535 / 768 is 85
    EXPECT_EQ("GetCursorPos; GetSystemMetrics(0); GetSystemMetrics(1); mouse_event(0x8001,4230,17425); Sleep(5);"
              " mouse_event(0x8001,4700,17425); Sleep(5); mouse_event(0x8001,5170,17425); GetSystemMetrics(0);"
              " GetSystemMetrics(1); mouse_event(0x8001,5281,17516)",
              mouse(button, 503, 0, 10, 5, 0, 1, {}));
}

TEST_F(InputOnElements, TheDelaysAreReadAtEachCall) {
    const std::string doubleClick = " mouse_event(0x2,0,0); Sleep(%P); mouse_event(0x4,0,0); Sleep(%C);"
                                    " mouse_event(0x2,0,0); Sleep(%P); mouse_event(0x4,0,0)";
    auto expected = [&](const std::string& moved, const std::string& pressed, const std::string& multiclick) {
        std::string text = AT + "; Sleep(" + moved + ");" + doubleClick;
        for (size_t at; (at = text.find("%P")) != std::string::npos;) text.replace(at, 2, pressed);
        for (size_t at; (at = text.find("%C")) != std::string::npos;) text.replace(at, 2, multiclick);
        return text;
    };
    calls->cursor = {110, 205};
    EXPECT_EQ(expected("50", "25", "150"), mouse(button, 500, 0, 10, 5, 0, 2)) << "the defaults";
    setPreference(MOVED, L"7");
    EXPECT_EQ(expected("7", "25", "150"), mouse(button, 500, 0, 10, 5, 0, 2));
    setPreference(PRESSED, L"abc");
    setPreference(MULTICLICK, L"12ms");
    EXPECT_EQ(expected("7", "0", "12"), mouse(button, 500, 0, 10, 5, 0, 2)) << "text that doesn't parse is 0";
    setPreference(MOVED, L"");
    EXPECT_EQ(expected("0", "0", "12"), mouse(button, 500, 0, 10, 5, 0, 2)) << "the empty text is 0";
    setPreference(MULTICLICK, L"-5");
    EXPECT_EQ(expected("0", "0", "0"), mouse(button, 500, 0, 10, 5, 0, 2)) << "a negative delay waits for nothing";
    for (const wchar_t* key : {MOVED, PRESSED, MULTICLICK}) erasePreference(key);
    EXPECT_EQ(expected("50", "25", "150"), mouse(button, 500, 0, 10, 5, 0, 2)) << "the defaults again";
}

// The scale factor that Java reads for the screen is computed at the first
// call of the process, at 150 % here, and kept.
TEST_F(InputOnElements, TheScaleFactorIsComputedOnce) {
    calls->start();
    EXPECT_EQ(1.5, native<jdouble>("GetScreenScaleFactor"));
    EXPECT_EQ("IsProcessDPIAware; GetDC(0); GetDeviceCaps(screen,10); GetDeviceCaps(screen,117);"
              " GetDeviceCaps(screen,90); ReleaseDC(0,screen)",
              calls->take());
    calls->desktopVertRes = 2160;
    calls->start();
    EXPECT_EQ(1.5, native<jdouble>("GetScreenScaleFactor"));
    EXPECT_EQ("", calls->take());
}

// A click count that no multi-click means would hold the caller for hours
// at the delays between the clicks: ten clicks at most.
TEST_F(InputOnElements, AHugeClickCountMakesTenClicks) {
    calls->cursor = {110, 205};
    for (const jint count : {jint{11}, jint{1000}, jint{0x7fffffff}}) {
        const std::string text = mouse(button, 500, 0, 10, 5, 0, count);
        size_t clicks = 0;
        for (size_t at = 0; (at = text.find("mouse_event(0x2,0,0); Sleep(25); mouse_event(0x4,0,0)", at)) != std::string::npos; ++at) {
            ++clicks;
        }
        EXPECT_EQ(10u, clicks) << count;
    }
}

// The element's window comes to the front before the input, through the
// focus of its top element here, unless the element is an item of an open
// menu, which the window would close: only the items of a menu bar and of a
// WPF menu, which lives in the window itself, raise it.
TEST_F(InputOnElements, TheWindowComesToTheFrontUnlessTheItemIsInAnOpenMenu) {
    struct Row {
        const char* what;
        CONTROLTYPEID parentType, itemType;
        const wchar_t* parentClass;
        const wchar_t* framework;
        int focusCalls;
    };
    const Row rows[] = {
        {"a button in a pane", UIA_PaneControlTypeId, UIA_ButtonControlTypeId, L"", L"Win32", 1},
        {"an item of a menu bar", UIA_MenuBarControlTypeId, UIA_MenuItemControlTypeId, L"", L"Win32", 1},
        {"an item of a popup menu", UIA_MenuControlTypeId, UIA_MenuItemControlTypeId, L"#32768", L"Win32", 0},
        {"an item of a WPF menu", UIA_MenuControlTypeId, UIA_MenuItemControlTypeId, L"Menu", L"WPF", 1},
        {"an item of a WPF context menu", UIA_MenuControlTypeId, UIA_MenuItemControlTypeId, L"ContextMenu", L"WPF", 0},
        {"an item of a menu of that class elsewhere", UIA_MenuControlTypeId, UIA_MenuItemControlTypeId, L"Menu",
         L"WinForm", 0},
        {"an item of an item", UIA_MenuItemControlTypeId, UIA_MenuItemControlTypeId, L"", L"Win32", 0},
    };
    setPreference(L"deskwright.front.via.focus", L"true");
    calls->cursor = {110, 205};
    for (const Row& row : rows) {
        fakeuia::NodeSpec parentSpec;
        parentSpec.controlType = row.parentType;
        parentSpec.className = row.parentClass;
        parentSpec.frameworkId = row.framework;
        parentSpec.bounds = {100, 100, 300, 300};
        fakeuia::NodeSpec itemSpec;
        itemSpec.controlType = row.itemType;
        itemSpec.name = L"item";
        itemSpec.bounds = {100, 200, 300, 240};
        fakeuia::Node& item = top->add(parentSpec).add(itemSpec);
        const jlong handle = handleOf(item);
        buttonNode->focus();
        const int before = top->setFocusCalls();
        const std::string moves = mouse(handle, 503, 0, 10, 5, 0, 1);
        EXPECT_EQ(moves.size() - FINAL_MOVE.size(), moves.rfind(FINAL_MOVE)) << row.what << ": " << moves;
        EXPECT_EQ(row.focusCalls, top->setFocusCalls() - before) << row.what;
    }
}
