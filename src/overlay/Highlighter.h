// The highlight: a frame (or a translucent cover) that marks a rectangle of
// the screen for a while. At most one exists in the process; it lives on the
// dispatch thread, whose message loop serves its window.
#pragma once

#include "common/Handle.h"
#include "dispatch/Runnable.h"

#include <windows.h>

#include <cstdint>

namespace tolva {

// Marks a control for Java, on the dispatch thread: a duration of 0 or less
// takes the current highlight away, and a control hidden behind another
// window isn't marked.
class HighlightRunner : public Runnable {
public:
    HighlightRunner(Handle control, int duration, int color)
        : control_(control), duration_(duration), color_(color) {}
    std::int32_t operator()() override;

private:
    Handle control_;
    int duration_;
    int color_;  // a COLORREF; -1 the default colour, -2 a translucent cover
};

// Replaces the current highlight by one of the rectangle; clicks on it go to
// the forward window (0: none).
void ShowHighlight(RECT rectangle, int duration, int color, HWND forwardWindow);
void StopHighlight();

}  // namespace tolva
