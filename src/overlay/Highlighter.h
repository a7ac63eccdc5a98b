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
// the forward window (0: none). A duration of 0 or less only takes the
// current one away.
void ShowHighlight(RECT rectangle, int duration, int color, HWND forwardWindow);
void StopHighlight();
// Ends the current highlight at the next tick of its thread, from wherever
// its window's messages are served; nothing without one.
void EndHighlightSoon();

constexpr UINT_PTR HIGHLIGHT_TIMER_ID = 1234;
constexpr int HIGHLIGHT_DEFAULT_COLOR = -1;  // replaced by DEFAULT_HIGHLIGHT_RGB
constexpr int HIGHLIGHT_COVER = -2;          // a translucent cover instead of a frame
constexpr COLORREF DEFAULT_HIGHLIGHT_RGB = 0x8080CC;
constexpr COLORREF COVER_RGB = 0x7070F0;
constexpr BYTE COVER_ALPHA = 100;
constexpr int FRAME_WIDTH = 3;
extern const wchar_t HIGHLIGHTER_CLASS[];

// The one highlight of the process, on the thread that made it (the dispatch
// thread), which serves its window. Its window goes with it; the timer of its
// duration, a forwarded click, or the next highlight delete it.
class Highlighter {
public:
    Highlighter(RECT rectangle, int duration, int color, HWND forwardWindow);
    ~Highlighter();
    Highlighter(const Highlighter&) = delete;
    Highlighter& operator=(const Highlighter&) = delete;

    // Makes and shows the window and starts the timer of the duration.
    void Highlight();

    static LRESULT CALLBACK WndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

private:
    RECT rectangle_;
    int duration_;
};

}  // namespace tolva
