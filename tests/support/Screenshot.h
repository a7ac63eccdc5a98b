// Screenshots of a part of the screen, as a user of Windows would see it,
// kept as PNG files.
//
// Under Wine on an X server without a compositing manager two kinds of
// window don't look on the screen as they would on Windows: a window with a
// region other than a rectangle shows nothing, or a wrongly shaped part of
// itself, and a layered window shows opaque. A shot therefore starts from the
// screen as the X server shows it and then paints each such window of this
// process, bottom to top, from its own pixels: inside its region only, and
// blended by its alpha over what lies beneath. What lies beneath such a
// window isn't on the screen; a plate (a shot of the same area taken before
// the windows came) supplies it.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace dwtest {

struct Screenshot {
    RECT area{};  // in screen coordinates
    std::vector<COLORREF> pixels;  // row by row from the top left

    int width() const { return area.right - area.left; }
    int height() const { return area.bottom - area.top; }
    bool contains(int x, int y) const { return x >= area.left && x < area.right && y >= area.top && y < area.bottom; }
    // The colour at a point of the screen; CLR_INVALID outside the area.
    COLORREF at(int x, int y) const;
    void set(int x, int y, COLORREF colour);

    // The area as the X server shows it.
    static Screenshot ofScreen(const RECT& area);
    // The area as Windows would show it (see above). The plate, if given,
    // covers the same area.
    static Screenshot composed(const RECT& area, const Screenshot* plate = nullptr);

    // Writes a 24-bit PNG; makes the folder if it is missing.
    bool savePng(const std::wstring& path) const;
};

// Where the test run keeps its screenshots: the folder "screenshots" beside
// the one the test runs in.
std::wstring screenshotPath(const std::wstring& name);

}  // namespace dwtest
