// The natives and exports that talk to the system rather than to a target:
// the messages a window receives for its text, the screen-reader switch, and
// the screen's scale factor.
#include "DriverTest.h"

#include "ImportPatch.h"

#include <memory>
#include <string>
#include <vector>

using dwtest::DriverTest;

namespace {

// The text messages a counting window has received.
int lengthQueries = 0;
int textQueries = 0;
LRESULT CALLBACK CountingProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    lengthQueries += message == WM_GETTEXTLENGTH ? 1 : 0;
    textQueries += message == WM_GETTEXT ? 1 : 0;
    return DefWindowProcW(hwnd, message, wParam, lParam);
}

// The system as the driver sees it through its imports.
int screenReaderSets = 0;
BOOL screenReader = FALSE;
std::string debugOutput;
int deviceContexts = 0;
BOOL dpiAware = TRUE;
int vertRes = 0, desktopVertRes = 0, logPixelsY = 0;

BOOL WINAPI FakeSystemParametersInfoW(UINT action, UINT value, PVOID data, UINT) {
    if (action == SPI_SETSCREENREADER) {
        ++screenReaderSets;
        screenReader = value != 0;
    } else if (action == SPI_GETSCREENREADER) {
        *static_cast<BOOL*>(data) = screenReader;
    }
    return TRUE;
}
void WINAPI FakeOutputDebugStringA(LPCSTR text) { debugOutput += text; }
HDC WINAPI FakeGetDC(HWND) { return ++deviceContexts, reinterpret_cast<HDC>(0x1234); }
int WINAPI FakeReleaseDC(HWND, HDC) { return 1; }
int WINAPI FakeGetDeviceCaps(HDC, int index) {
    return index == VERTRES ? vertRes : index == DESKTOPVERTRES ? desktopVertRes : index == LOGPIXELSY ? logPixelsY : 0;
}
BOOL WINAPI FakeIsProcessDPIAware() { return dpiAware; }

class SystemNatives : public DriverTest {
protected:
    // The driver's imports of these functions go to the stand-ins above.
    void patch(const char* function, void* replacement) {
        patches.push_back(std::make_unique<dwtest::ImportPatch>(dll->module(), function, replacement));
        ASSERT_TRUE(patches.back()->applied()) << function;
    }
    void TearDown() override {
        patches.clear();
        DriverTest::TearDown();
    }
    void patchScreen() {
        patch("GetDC", reinterpret_cast<void*>(&FakeGetDC));
        patch("ReleaseDC", reinterpret_cast<void*>(&FakeReleaseDC));
        patch("GetDeviceCaps", reinterpret_cast<void*>(&FakeGetDeviceCaps));
        patch("IsProcessDPIAware", reinterpret_cast<void*>(&FakeIsProcessDPIAware));
    }
    std::vector<std::unique_ptr<dwtest::ImportPatch>> patches;
};

}  // namespace

TEST_F(SystemNatives, AnEmptyTitleIsReadWithOneMessage) {
    dwtest::registerClass(L"CountingWindow", CountingProc);
    struct Row { const wchar_t* title; int lengthQueries, textQueries; };
    const Row rows[] = {{L"", 1, 0}, {L"Title", 1, 1}, {L"x", 1, 1}};
    for (const Row& row : rows) {
        dwtest::OwnWindow window(L"CountingWindow", row.title);
        ASSERT_NE(nullptr, window.hwnd);
        lengthQueries = textQueries = 0;
        const std::string name = testing::PrintToString(row.title);
        EXPECT_EQ(row.title, host->text(native<jstring>("GetWindowText", dwtest::java(window.hwnd)))) << name;
        EXPECT_EQ(row.lengthQueries, lengthQueries) << name;
        EXPECT_EQ(row.textQueries, textQueries) << name;
    }
}

TEST_F(SystemNatives, TheScreenReaderSwitchTakesOnlyItsWords) {
    patch("SystemParametersInfoW", reinterpret_cast<void*>(&FakeSystemParametersInfoW));
    patch("OutputDebugStringA", reinterpret_cast<void*>(&FakeOutputDebugStringA));
    using Entry = void(CALLBACK*)(HWND, HINSTANCE, LPSTR, int);
    auto enable = dll->exportAs<Entry>("EnableScreenReader");
    struct Row { const char* text; int sets; BOOL state; };  // SPI_SETSCREENREADER calls, the state afterwards
    const Row rows[] = {
        {"TRUE", 1, TRUE}, {"yes", 0, TRUE}, {"0", 1, FALSE}, {"", 0, FALSE},
        {"1", 1, TRUE},    {"False", 1, FALSE}, {"10", 0, FALSE}, {"true ", 0, FALSE},
    };
    for (const Row& row : rows) {
        screenReaderSets = 0;
        debugOutput.clear();
        std::string text = row.text;
        enable(nullptr, nullptr, text.data(), SW_SHOW);
        EXPECT_EQ(row.sets, screenReaderSets) << "\"" << row.text << "\"";
        EXPECT_EQ(row.state, screenReader) << "\"" << row.text << "\"";
        EXPECT_EQ("Enable screen reader: " + text + "\nScreen reader enabled: " + std::to_string(row.state) + "\n",
                  debugOutput);
    }
}

TEST_F(SystemNatives, TheScaleFactorOfADpiAwareProcessIsReadOnce) {
    patchScreen();
    EXPECT_EQ(1.0, native<jdouble>("GetScreenScaleFactor")) << "the classic back end";
    EXPECT_EQ(0, deviceContexts);
    attachToOwnWindow(L"Target");
    dpiAware = TRUE;
    vertRes = 1000, desktopVertRes = 1000, logPixelsY = 108;  // 112.5 %
    EXPECT_EQ(1.13, native<jdouble>("GetScreenScaleFactor")) << "rounded half away from zero";
    logPixelsY = 192;
    EXPECT_EQ(1.13, native<jdouble>("GetScreenScaleFactor")) << "kept for the process's life";
    EXPECT_EQ(1, deviceContexts);
}

TEST_F(SystemNatives, TheScaleFactorOfAnUnawareProcessIgnoresItsDpi) {
    patchScreen();
    attachToOwnWindow(L"Target");
    dpiAware = FALSE;
    vertRes = 720, desktopVertRes = 1080, logPixelsY = 144;  // 150 %, and 150 % more if the DPI counted
    EXPECT_EQ(1.5, native<jdouble>("GetScreenScaleFactor"));
    EXPECT_TRUE(dwtest::LogFile::contains("The process does not seem to be DPI aware!", 3));
}
