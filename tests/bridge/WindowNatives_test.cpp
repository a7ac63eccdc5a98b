// The natives that work on plain windows, on real windows of the test.
#include "DriverTest.h"

#include <limits>

using dwtest::DriverTest;

namespace {

// Answers WM_GETTEXTLENGTH with whatever length it is told to claim.
LRESULT claimedLength = 0;
LRESULT CALLBACK ClaimingProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_GETTEXTLENGTH) {
        return claimedLength;
    }
    return DefWindowProcW(hwnd, message, wParam, lParam);
}

class WindowNatives : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        window = CreateWindowExW(0, L"EDIT", L"Hello window", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                 nullptr, GetModuleHandleW(nullptr), nullptr);
        untitled = CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr, nullptr,
                                   GetModuleHandleW(nullptr), nullptr);
        ASSERT_NE(nullptr, window);
        ASSERT_NE(nullptr, untitled);
    }
    void TearDown() override {
        DestroyWindow(window);
        DestroyWindow(untitled);
        DriverTest::TearDown();
    }
    static jlong java(HWND hwnd) { return static_cast<jlong>(reinterpret_cast<intptr_t>(hwnd)); }

    HWND window = nullptr;
    HWND untitled = nullptr;
};

}  // namespace

TEST_F(WindowNatives, TextClassLongAndMessagesOfLivingAndGoneWindows) {
    EXPECT_EQ(L"Hello window", host->text(native<jstring>("GetWindowText", java(window))));
    EXPECT_EQ(L"", host->text(native<jstring>("GetWindowText", java(untitled))));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("SetWindowText", java(window), host->str(L"Changed \u00e9")));
    wchar_t text[64] = L"";
    GetWindowTextW(window, text, 64);
    EXPECT_STREQ(L"Changed \u00e9", text);
    EXPECT_EQ(L"Edit", host->text(native<jstring>("GetWindowClassName", java(window))));
    EXPECT_EQ(GetWindowLongW(window, GWL_STYLE), native<jint>("GetWindowLong", java(window), jint{GWL_STYLE}));
    EXPECT_EQ(9, native<jint>("SendMessage", java(window), jint{WM_GETTEXTLENGTH}, jlong{0}, jlong{0}));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("PostMessage", java(window), jint{WM_NULL}, jlong{0}, jlong{0}));

    HWND gone = CreateWindowExW(0, L"STATIC", L"x", 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    DestroyWindow(gone);
    EXPECT_EQ(L"", host->text(native<jstring>("GetWindowText", java(gone))));
    EXPECT_EQ(L"", host->text(native<jstring>("GetWindowClassName", java(gone))));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("SetWindowText", java(gone), host->str(L"y")));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("PostMessage", java(gone), jint{WM_NULL}, jlong{0}, jlong{0}));
    EXPECT_EQ("", thrown());
}

TEST_F(WindowNatives, TheHighWordOfAWindowHandleIsIgnored) {
    if (sizeof(void*) == 8) {
        GTEST_SKIP() << "a 64-bit driver reads the whole value";
    }
    const jlong withHighWord = java(window) | static_cast<jlong>(0x7777000000000000LL);
    EXPECT_EQ(L"Hello window", host->text(native<jstring>("GetWindowText", withHighWord)));
    // SendMessage passes only the low words of wParam and lParam.
    wchar_t buffer[32] = L"";
    const jlong lParam = static_cast<jlong>(reinterpret_cast<intptr_t>(buffer)) | static_cast<jlong>(0x1111000000000000LL);
    EXPECT_EQ(12, native<jint>("SendMessage", withHighWord, jint{WM_GETTEXT}, jlong{32} | (jlong{1} << 40), lParam));
    EXPECT_STREQ(L"Hello window", buffer);
}

TEST_F(WindowNatives, AWindowThatClaimsAHugeTextGivesTheTextItHas) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = ClaimingProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"ClaimingWindow";
    RegisterClassW(&windowClass);
    HWND claiming = CreateWindowExW(0, L"ClaimingWindow", L"Hello", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                    nullptr, GetModuleHandleW(nullptr), nullptr);
    ASSERT_NE(nullptr, claiming);
    struct Row {
        const char* what;
        LRESULT claimed;
        const wchar_t* text;
    };
    const Row rows[] = {
        {"the largest length", (std::numeric_limits<LRESULT>::max)(), L"Hello"},
        {"2^31 - 1", 0x7FFFFFFF, L"Hello"},
        {"a negative length", -1, L""},
    };
    for (const Row& row : rows) {
        claimedLength = row.claimed;
        jstring text = native<jstring>("GetWindowText", java(claiming));
        EXPECT_EQ("", dwtest::pendingException(*host)) << row.what;
        host->takeException();
        EXPECT_EQ(row.text, host->isNull(text) ? L"<null>" : host->text(text)) << row.what;
    }
    DestroyWindow(claiming);
}
