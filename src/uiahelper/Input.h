// Real input through the system's input queue: the pointer moves and buttons
// and keys go down and up as a user's would, so that the target can't tell
// the difference. Everything runs on the calling thread, which sleeps in the
// delays that the preferences set.
#pragma once

#include "uiahelper/Common.h"

namespace UiaHelper {

// Java's MouseEvent ids as the input natives take them: 501 presses only,
// 502 releases only, 503 only moves; any other id (500) clicks.
enum MouseEventId : int {
    JAVA_MOUSE_CLICKED = 500,
    JAVA_MOUSE_PRESSED = 501,
    JAVA_MOUSE_RELEASED = 502,
    JAVA_MOUSE_MOVED = 503,
};

// How the pointer travels to its point: it jumps, goes straight, or goes
// along one axis and then the other (so that on the way to a menu item it
// brushes over no other item and opens no submenu).
enum MoveMode : int {
    MOVE_JUMP = 0,
    MOVE_STRAIGHT = 1,
    MOVE_HORIZONTAL_FIRST = 2,
    MOVE_VERTICAL_FIRST = 3,
};

// A mouse event at x, y relative to the element's bounds, with the Java event
// id, button (1 middle, 2 right, else left), modifier mask (1 Shift,
// 2 Control, 8 Alt) and click count; the element's window is brought to the
// front first when toFront is set.
void DoMouseEvent(IUIAutomationElement* element, int id, int button, int x, int y, int modifiers, int count,
                  bool toFront);
// The same at a point of the screen, reached in the given move mode.
void ClickAtScreen(int x, int y, int id, int button, int modifiers, int count, int moveMode);
// Glides the pointer from one point to the other with a way point every
// `divisor` pixels, so that the target sees moves on the way.
void InterpolateMove(int x0, int y0, int x1, int y1, int divisor);
// One key event of a virtual key, with the extended flag added for the keys
// that need it.
void SendKeyEvent(BYTE virtualKey, DWORD flags);
// One stroke of a virtual key (or of the character's key when keyCode is 0),
// with the modifier mask, or the layout's modifiers if the mask is 0; the
// element isn't looked at.
void SimulateKeyStroke(IUIAutomationElement* element, wchar_t c, int keyCode, int modifiers);

// Half away from zero, then truncated; zero stays 0. Values beyond the range
// of int end at its limits.
int RoundHalfAway(double value);

}  // namespace UiaHelper
