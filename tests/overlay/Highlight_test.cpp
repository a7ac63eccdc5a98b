// The highlight as Java asks for it: a real window on the screen around a
// control of a real window of this process, seen through the system (its
// class, styles, region, pixels and lifetime), never through the log.
#include "DriverTest.h"
#include "OverlayTest.h"
#include "Screenshot.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using dwtest::DriverTest;
using dwtest::OwnWindow;
using dwtest::paintedPixel;
using dwtest::pumpFor;
using dwtest::shown;

namespace {

const wchar_t* const HIGHLIGHT_CLASS = L"TolvaHighlighterClass";
const COLORREF DEFAULT_FRAME = 0x8080CC;
const RECT TARGET = {100, 100, 500, 400};

// The highlight windows of this process.
std::vector<HWND> highlights() { return dwtest::ownWindowsOf(HIGHLIGHT_CLASS); }

class Highlight : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        target = std::make_unique<OwnWindow>(L"STATIC", L"Target", WS_POPUP | WS_VISIBLE, TARGET);
        pumpFor(50);
        fakeuia::Node& window = addWindow(L"Target", L"Static", static_cast<int>(GetCurrentProcessId()), target->hwnd,
                                          TARGET);
        button = &window.add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {150, 200, 250, 240}});
        thin = &window.add({.controlType = UIA_SeparatorControlTypeId, .name = L"Bar", .bounds = {300, 200, 306, 260}});
        ASSERT_NE(0, attach(dwtest::ownPidArgs(), 1000));
        ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
    }
    void TearDown() override {
        if (attached) detachAndWait();
        target.reset();
        DriverTest::TearDown();
    }

    void mark(fakeuia::Node& node, int duration, int color = -1) {
        native<void>("Highlight", handleOf(node), jint(duration), jint(color));
        pumpFor(30);
    }
    // The one highlight window, or null; more than one fails the test.
    HWND only() {
        const std::vector<HWND> found = highlights();
        EXPECT_LE(found.size(), 1u) << "more than one highlight at a time";
        return found.empty() ? nullptr : found.front();
    }

    std::unique_ptr<OwnWindow> target;
    fakeuia::Node* button = nullptr;
    fakeuia::Node* thin = nullptr;
};

// A frame three pixels wide in the default colour around the control, on top
// of everything, never taking the focus, and gone at the end of its time.
TEST_F(Highlight, FramesTheControlForItsDuration) {
    // Long enough for the checks below to end well inside it on a busy machine.
    const int duration = 1500;
    const auto start = std::chrono::steady_clock::now();
    mark(*button, duration);
    const HWND frame = only();
    ASSERT_NE(nullptr, frame);
    RECT r{};
    GetWindowRect(frame, &r);
    EXPECT_EQ("[150,200,250,240]", shown(r));
    const LONG_PTR exStyle = GetWindowLongPtrW(frame, GWL_EXSTYLE);
    EXPECT_EQ(WS_EX_NOACTIVATE | WS_EX_TOPMOST, exStyle & (WS_EX_NOACTIVATE | WS_EX_TOPMOST | WS_EX_LAYERED));
    EXPECT_EQ(WS_POPUP | WS_VISIBLE, GetWindowLongPtrW(frame, GWL_STYLE) & (WS_POPUP | WS_VISIBLE | WS_CHILD));

    HRGN region = CreateRectRgn(0, 0, 0, 0);
    ASSERT_NE(ERROR, GetWindowRgn(frame, region));
    struct Point {
        int x, y;
        bool inFrame;
    };
    for (const Point& p : {Point{0, 0, true}, Point{2, 20, true}, Point{3, 20, false}, Point{50, 20, false},
                           Point{96, 20, false}, Point{97, 20, true}, Point{50, 37, true}, Point{99, 39, true}}) {
        EXPECT_EQ(p.inFrame, PtInRegion(region, p.x, p.y) != 0) << "(" << p.x << "," << p.y << ")";
    }
    DeleteObject(region);
    pumpFor(50);
    EXPECT_EQ(DEFAULT_FRAME, paintedPixel(frame, 1, 20)) << "the frame's left edge";

    EXPECT_TRUE(IsWindow(frame)) << "ended before its time";
    // The system unlinks a window before its handle dies; gone means both.
    ASSERT_TRUE(dwtest::waitUntil([&] { return highlights().empty() && !IsWindow(frame); }, duration + 5000))
        << "the highlight stayed";
    const auto lived = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(lived.count(), duration - 20) << "ended before its time";
}

// The frame as a user sees it, kept as a screenshot: three pixels of the
// frame's colour on each edge, and the target unchanged inside and outside.
TEST_F(Highlight, TheScreenshotShowsTheFrameAroundTheControl) {
    const RECT area = {120, 170, 340, 290};
    const dwtest::Screenshot before = dwtest::Screenshot::ofScreen(area);
    mark(*button, 5000);
    ASSERT_NE(nullptr, only());
    pumpFor(100);
    const dwtest::Screenshot shot = dwtest::Screenshot::composed(area, &before);
    const std::wstring path = dwtest::screenshotPath(L"highlight-frame.png");
    ASSERT_TRUE(shot.savePng(path));

    struct Point {
        int x, y;
        const char* where;
    };
    for (const Point& p : {Point{150, 220, "left edge"}, Point{152, 220, "left edge, inner column"},
                           Point{249, 220, "right edge"}, Point{200, 200, "top edge"}, Point{200, 239, "bottom edge"},
                           Point{150, 200, "top left corner"}, Point{249, 239, "bottom right corner"}}) {
        EXPECT_EQ(DEFAULT_FRAME, shot.at(p.x, p.y)) << p.where << " (" << p.x << "," << p.y << ")";
    }
    for (const Point& p : {Point{153, 220, "inside, by the left edge"}, Point{200, 220, "the middle"},
                           Point{246, 236, "inside, by the bottom right"}, Point{149, 220, "outside, left"},
                           Point{250, 220, "outside, right"}, Point{200, 241, "outside, below"}}) {
        EXPECT_EQ(before.at(p.x, p.y), shot.at(p.x, p.y)) << p.where << " (" << p.x << "," << p.y << ")";
    }

    // The file is a PNG of the area's size.
    FILE* file = _wfopen(path.c_str(), L"rb");
    ASSERT_NE(nullptr, file);
    unsigned char head[24] = {};
    const size_t got = fread(head, 1, sizeof(head), file);
    fclose(file);
    ASSERT_EQ(sizeof(head), got);
    EXPECT_EQ(0, memcmp(head, "\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16));
    EXPECT_EQ(220, (head[16] << 24) | (head[17] << 16) | (head[18] << 8) | head[19]);
    EXPECT_EQ(120, (head[20] << 24) | (head[21] << 16) | (head[22] << 8) | head[23]);
}

// A control of six pixels or less across has no inside: the frame is solid.
// A colour of Java's is used as it is.
TEST_F(Highlight, ANarrowControlGetsASolidFrameInTheGivenColour) {
    mark(*thin, 2000, 0x00FF00);
    const HWND frame = only();
    ASSERT_NE(nullptr, frame);
    HRGN region = CreateRectRgn(0, 0, 0, 0);
    ASSERT_NE(ERROR, GetWindowRgn(frame, region));
    for (int x = 0; x < 6; ++x) EXPECT_TRUE(PtInRegion(region, x, 30)) << "column " << x;
    DeleteObject(region);
    pumpFor(50);
    EXPECT_EQ(COLORREF{0x00FF00}, paintedPixel(frame, 3, 30));
}

// Colour -2 is a translucent cover, layered with alpha 100 and never shaped.
TEST_F(Highlight, CoverModeIsALayeredRectangle) {
    mark(*button, 2000, -2);
    const HWND cover = only();
    ASSERT_NE(nullptr, cover);
    EXPECT_TRUE(GetWindowLongPtrW(cover, GWL_EXSTYLE) & WS_EX_LAYERED);
    BYTE alpha = 0;
    DWORD flags = 0;
    ASSERT_TRUE(dwtest::waitUntil([&] { return GetLayeredWindowAttributes(cover, nullptr, &alpha, &flags); }, 3000));
    EXPECT_EQ(100, alpha);
    EXPECT_EQ(static_cast<DWORD>(LWA_ALPHA), flags);
    HRGN region = CreateRectRgn(0, 0, 0, 0);
    EXPECT_EQ(ERROR, GetWindowRgn(cover, region)) << "a cover has no frame region";
    DeleteObject(region);
    pumpFor(50);
    EXPECT_EQ(COLORREF{0x7070F0}, paintedPixel(cover, 50, 20)) << "the cover's colour, all over";
}

// One highlight at a time: a second replaces the first at once, and 0 or a
// negative duration takes the current one away and shows nothing.
TEST_F(Highlight, ANewRequestReplacesOrEndsTheCurrentOne) {
    mark(*button, 5000);
    const HWND first = only();
    ASSERT_NE(nullptr, first);
    mark(*thin, 5000);
    const HWND second = only();
    ASSERT_NE(nullptr, second);
    EXPECT_FALSE(IsWindow(first));
    RECT r{};
    GetWindowRect(second, &r);
    EXPECT_EQ("[300,200,306,260]", shown(r));
    // The first one's timer went with it: the second outlives its time.
    pumpFor(300);
    EXPECT_TRUE(IsWindow(second));

    for (int duration : {0, -1, -100000}) {
        mark(*button, 5000);
        ASSERT_NE(nullptr, only()) << duration;
        mark(*button, duration);
        EXPECT_TRUE(highlights().empty()) << "duration " << duration;
    }
}

// A control hidden behind another window isn't marked, and the highlight of
// an earlier call goes on.
TEST_F(Highlight, AControlBehindAnotherWindowIsNotMarked) {
    mark(*thin, 5000);
    const HWND earlier = only();
    ASSERT_NE(nullptr, earlier);
    OwnWindow cover(L"STATIC", L"Cover", WS_POPUP | WS_VISIBLE, {140, 190, 260, 250});
    SetWindowPos(cover.hwnd, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
    pumpFor(50);
    mark(*button, 5000);
    EXPECT_EQ(earlier, only());
    RECT r{};
    GetWindowRect(earlier, &r);
    EXPECT_EQ("[300,200,306,260]", shown(r));
}

// The highlight belongs to the dispatch thread: a detach takes it away, and
// the next session highlights again.
TEST_F(Highlight, ADetachTakesTheHighlightAway) {
    mark(*button, 60000);
    ASSERT_NE(nullptr, only());
    detachAndWait();
    EXPECT_TRUE(highlights().empty());
    ASSERT_NE(0, attach(dwtest::ownPidArgs(), 1000));
    mark(*button, 60000);
    EXPECT_NE(nullptr, only());
    mark(*button, 0);
    EXPECT_TRUE(highlights().empty());
}

}  // namespace
