// The natives that work on plain windows, on real windows of the test.
#include "DriverTest.h"

using dwtest::DriverTest;
using dwtest::java;

namespace {

class WindowNatives : public DriverTest {
protected:
    dwtest::OwnWindow window{L"EDIT", L"Hello window"};
};

}  // namespace

// The text, class, style and messages of living windows: the cross-process tests.
TEST_F(WindowNatives, GoneWindowsGiveDefaultsAndLivingOnesTakeMessages) {
    EXPECT_EQ(JNI_TRUE, native<jboolean>("PostMessage", java(window.hwnd), jint{WM_NULL}, jlong{0}, jlong{0}));
    HWND gone = CreateWindowExW(0, L"STATIC", L"x", 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    DestroyWindow(gone);
    EXPECT_EQ(L"", host->text(native<jstring>("GetWindowText", java(gone))));
    EXPECT_EQ(L"", host->text(native<jstring>("GetWindowClassName", java(gone))));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("SetWindowText", java(gone), host->str(L"y")));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("PostMessage", java(gone), jint{WM_NULL}, jlong{0}, jlong{0}));
    EXPECT_EQ("", thrown());
}

TEST_F(WindowNatives, TheHighWordOfAWindowHandleIsIgnored) {
    if (sizeof(void*) == 8) GTEST_SKIP() << "a 64-bit driver reads the whole value";
    const jlong withHighWord = java(window.hwnd) | static_cast<jlong>(0x7777000000000000LL);
    EXPECT_EQ(L"Hello window", host->text(native<jstring>("GetWindowText", withHighWord)));
    // SendMessage passes only the low words of wParam and lParam.
    wchar_t buffer[32] = L"";
    const jlong lParam = static_cast<jlong>(reinterpret_cast<intptr_t>(buffer)) | static_cast<jlong>(0x1111000000000000LL);
    EXPECT_EQ(12, native<jint>("SendMessage", withHighWord, jint{WM_GETTEXT}, jlong{32} | (jlong{1} << 40), lParam));
    EXPECT_STREQ(L"Hello window", buffer);
}
