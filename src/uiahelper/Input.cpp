#include "uiahelper/Input.h"

#include "common/Logging.h"
#include "common/Preferences.h"
#include "uiahelper/Actions.h"
#include "uiahelper/Naming.h"
#include "uiahelper/Surface.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

// Screen coordinates beyond this are taken for a mistake of the caller.
const int COORDINATE_LIMIT = 32768;
// The glide: a way point every ten pixels, five milliseconds apart.
const int GLIDE_STEP = 10;
const DWORD GLIDE_PAUSE_MS = 5;
// mouse_event's scale of the screen in absolute moves: 0 to 65535.
const int ABSOLUTE_RANGE = 65535;
const DWORD ABSOLUTE_MOVE = MOUSEEVENTF_MOVE | MOUSEEVENTF_ABSOLUTE;

// Java's input-event bits. Alt's bit is also the second button's mark.
const int SHIFT_MASK = 1;
const int CTRL_MASK = 2;
const int ALT_MASK = 8;
// The shift state that VkKeyScanW puts above the virtual key.
const int LAYOUT_SHIFT = 0x100;
const int LAYOUT_CTRL = 0x200;
const int LAYOUT_ALT = 0x400;

// More clicks than any multi-click means are a caller's mistake; at the
// delays between them they would hold the caller for hours.
const int MAX_CLICKS = 10;

const int MIDDLE_BUTTON = 1;
const int RIGHT_BUTTON = 2;

// The keys whose events need the extended flag.
const BYTE EXTENDED_KEYS[] = {VK_LEFT, VK_RIGHT, VK_DOWN,   VK_UP,    VK_INSERT,   VK_DELETE,
                              VK_HOME, VK_END,   VK_NEXT,   VK_PRIOR, VK_SNAPSHOT, VK_NUMLOCK};

bool isExtended(BYTE virtualKey) {
    return std::find(std::begin(EXTENDED_KEYS), std::end(EXTENDED_KEYS), virtualKey) != std::end(EXTENDED_KEYS);
}

// Sleeps for the delay that the preference holds now. A negative delay is
// none: Sleep would take it for a wait without end.
void pause(const wchar_t* key) {
    const int delay = tolva::Preferences::getInstance().getInt(key);
    Sleep(static_cast<DWORD>(std::max(delay, 0)));
}

// A screen size as a divisor; a screen that reports no size counts as one
// pixel wide, so that no division by zero can happen.
int extent(int metric) {
    return std::max(GetSystemMetrics(metric), 1);
}

int clamp(int value, const char* name) {
    if (value > COORDINATE_LIMIT || value < -COORDINATE_LIMIT) {
        TOLVA_LOG(logger, 3, "Bad " << name << " coordinate: " << value);
        return value > 0 ? COORDINATE_LIMIT : -COORDINATE_LIMIT;
    }
    return value;
}

// A screen coordinate on mouse_event's absolute scale, exact to the pixel.
int normalised(int value, int size) {
    return RoundHalfAway(value * static_cast<double>(ABSOLUTE_RANGE) / std::max(size - 1, 1));
}

void moveTo(std::int64_t x, std::int64_t y) {
    mouse_event(ABSOLUTE_MOVE, static_cast<DWORD>(x), static_cast<DWORD>(y), 0, 0);
}

int saturated(std::int64_t value) {
    return static_cast<int>(std::clamp<std::int64_t>(value, std::numeric_limits<int>::min(),
                                                     std::numeric_limits<int>::max()));
}

DWORD downFlag(int button) {
    return button == MIDDLE_BUTTON ? MOUSEEVENTF_MIDDLEDOWN
           : button == RIGHT_BUTTON ? MOUSEEVENTF_RIGHTDOWN
                                    : MOUSEEVENTF_LEFTDOWN;
}

DWORD upFlag(int button) {
    return button == MIDDLE_BUTTON ? MOUSEEVENTF_MIDDLEUP
           : button == RIGHT_BUTTON ? MOUSEEVENTF_RIGHTUP
                                    : MOUSEEVENTF_LEFTUP;
}

}  // namespace

int RoundHalfAway(double value) {
    const double rounded = value > 0 ? value + 0.5 : value < 0 ? value - 0.5 : 0.0;
    if (!(rounded < static_cast<double>(std::numeric_limits<int>::max()))) {
        return rounded > 0 ? std::numeric_limits<int>::max() : 0;  // too large, or not a number
    }
    if (rounded <= static_cast<double>(std::numeric_limits<int>::min())) {
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(rounded);
}

void DoMouseEvent(IUIAutomationElement* element, int id, int button, int x, int y, int modifiers, int count,
                  bool toFront) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", id: " << id << ", btn: " << button
                                << ", x: " << x << ", y: " << y << ", mod: " << modifiers << ", count: " << count
                                << ", front: " << toFront);
    if (toFront) {
        BringToFront(element);
    }
    const RECT bounds = GetControlBounds(element);
    if (bounds.left == 0 && bounds.right == 0) {
        TOLVA_LOG(logger, 3, "no bounds?");
    }
    const int screenX = saturated(static_cast<std::int64_t>(bounds.left) + x);
    const int screenY = saturated(static_cast<std::int64_t>(bounds.top) + y);
    TOLVA_LOG(logger, 9, "at " << screenX << ", " << screenY);
    std::wstring type;
    GetControlType(element, type);
    ClickAtScreen(screenX, screenY, id, button, modifiers, count,
                  type == L"MenuItem" ? MOVE_VERTICAL_FIRST : MOVE_STRAIGHT);
}

void ClickAtScreen(int x, int y, int id, int button, int modifiers, int count, int moveMode) {
    x = clamp(x, "x");
    y = clamp(y, "y");
    if (count > MAX_CLICKS) {
        TOLVA_LOG(logger, 3, "Bad click count: " << count);
        count = MAX_CLICKS;
    }

    if (moveMode != MOVE_JUMP) {
        POINT from = {0, 0};
        GetCursorPos(&from);
        if (moveMode == MOVE_HORIZONTAL_FIRST) {
            InterpolateMove(from.x, from.y, x, from.y, GLIDE_STEP);
            InterpolateMove(x, from.y, x, y, GLIDE_STEP);
        } else if (moveMode == MOVE_VERTICAL_FIRST) {
            InterpolateMove(from.x, from.y, from.x, y, GLIDE_STEP);
            InterpolateMove(from.x, y, x, y, GLIDE_STEP);
        } else {
            InterpolateMove(from.x, from.y, x, y, GLIDE_STEP);
        }
    }
    const int width = GetSystemMetrics(SM_CXSCREEN);
    const int height = GetSystemMetrics(SM_CYSCREEN);
    moveTo(normalised(x, width), normalised(y, height));
    if (id == JAVA_MOUSE_MOVED) {
        return;
    }
    pause(tolva::PREF_DELAY_AFTER_MOUSEMOVED);

    const bool shift = (modifiers & SHIFT_MASK) != 0;
    const bool control = (modifiers & CTRL_MASK) != 0;
    const bool alt = (modifiers & ALT_MASK) != 0 && button != MIDDLE_BUTTON;
    if (shift) SendKeyEvent(VK_SHIFT, 0);
    if (control) SendKeyEvent(VK_CONTROL, 0);
    if (alt) SendKeyEvent(VK_MENU, 0);

    for (int click = 0; click < count; ++click) {
        if (click > 0) {
            pause(tolva::PREF_DELAY_MOUSE_MULTICLICK);
        }
        if (id != JAVA_MOUSE_RELEASED) {
            mouse_event(downFlag(button), 0, 0, 0, 0);
            pause(tolva::PREF_DELAY_AFTER_MOUSEPRESSED);
        }
        if (id != JAVA_MOUSE_PRESSED) {
            mouse_event(upFlag(button), 0, 0, 0, 0);
        }
    }

    if (alt) SendKeyEvent(VK_MENU, KEYEVENTF_KEYUP);
    if (control) SendKeyEvent(VK_CONTROL, KEYEVENTF_KEYUP);
    if (shift) SendKeyEvent(VK_SHIFT, KEYEVENTF_KEYUP);
}

// The way points scale with the integer quotient of the range and the
// screen's size, coarser than the final move: the glide ends a little short
// of its point, towards the screen's origin, and the final move of
// ClickAtScreen sets the exact pixel.
void InterpolateMove(int x0, int y0, int x1, int y1, int divisor) {
    const std::int64_t scaleX = ABSOLUTE_RANGE / extent(SM_CXSCREEN);
    const std::int64_t scaleY = ABSOLUTE_RANGE / extent(SM_CYSCREEN);
    const std::int64_t dx = static_cast<std::int64_t>(x1) - x0;
    const std::int64_t dy = static_cast<std::int64_t>(y1) - y0;
    const double length = std::sqrt(static_cast<double>(dx * dx + dy * dy));
    const std::int64_t steps = divisor > 0 ? static_cast<std::int64_t>(std::floor(length / divisor)) : 0;
    for (std::int64_t i = 0; i < steps; ++i) {
        moveTo((dx * i / steps + x0) * scaleX, (dy * i / steps + y0) * scaleY);
        Sleep(GLIDE_PAUSE_MS);
    }
    moveTo(x1 * scaleX, y1 * scaleY);
}

void SendKeyEvent(BYTE virtualKey, DWORD flags) {
    const UINT scanCode = MapVirtualKeyW(virtualKey, MAPVK_VK_TO_VSC);
    if (isExtended(virtualKey)) {
        flags |= KEYEVENTF_EXTENDEDKEY;
    }
    keybd_event(virtualKey, static_cast<BYTE>(scanCode), flags, 0);
}

void SimulateKeyStroke(IUIAutomationElement* element, wchar_t c, int keyCode, int modifiers) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", c: " << static_cast<int>(c)
                                << ", kc: " << keyCode << ", m: " << modifiers);
    // A key code from the layout carries the modifiers the character needs
    // above its virtual key; -1 for a character the layout can't make.
    const int code = keyCode != 0 ? keyCode : static_cast<int>(VkKeyScanW(c));
    const BYTE virtualKey = static_cast<BYTE>(code & 0xFF);
    // The caller's mask wins; only without one does the layout decide.
    const bool byLayout = modifiers == 0;
    const bool shift = (byLayout && (code & LAYOUT_SHIFT)) || (modifiers & SHIFT_MASK);
    const bool control = (byLayout && (code & LAYOUT_CTRL)) || (modifiers & CTRL_MASK);
    const bool alt = (byLayout && (code & LAYOUT_ALT)) || (modifiers & ALT_MASK);

    if (shift) SendKeyEvent(VK_SHIFT, 0);
    if (control) SendKeyEvent(VK_CONTROL, 0);
    // Alt with Control is AltGr, the right Alt key.
    if (alt) SendKeyEvent(VK_MENU, control ? KEYEVENTF_EXTENDEDKEY : 0);

    SendKeyEvent(virtualKey, 0);
    pause(tolva::PREF_DELAY_AFTER_KEYDOWN);
    SendKeyEvent(virtualKey, KEYEVENTF_KEYUP);

    if (alt) SendKeyEvent(VK_MENU, control ? KEYEVENTF_EXTENDEDKEY | KEYEVENTF_KEYUP : KEYEVENTF_KEYUP);
    if (control) SendKeyEvent(VK_CONTROL, KEYEVENTF_KEYUP);
    if (shift) SendKeyEvent(VK_SHIFT, KEYEVENTF_KEYUP);
}

}  // namespace UiaHelper
