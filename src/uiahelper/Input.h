// Real input through the system's input queue: mouse events at a point of an
// element, and key strokes.
#pragma once

#include "uiahelper/Common.h"

namespace UiaHelper {

// A mouse event at x, y relative to the element's bounds, with the Java event
// id (501 press, 502 release, 503 move, anything else a click), button
// (1 middle, 2 right, else left), modifier mask (1 Shift, 2 Control, 8 Alt)
// and click count; the element's window is brought to the front first when
// toFront is set.
void DoMouseEvent(IUIAutomationElement* element, int id, int button, int x, int y, int modifiers, int count,
                  bool toFront);
// One stroke of a virtual key (or of the character's key when keyCode is 0),
// with the modifier mask; the element isn't looked at.
void SimulateKeyStroke(IUIAutomationElement* element, wchar_t c, int keyCode, int modifiers);

}  // namespace UiaHelper
