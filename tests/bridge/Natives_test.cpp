// The natives as Java calls them: routing by back end, results when the handle
// check fails, and the preference natives.
#include "DriverTest.h"

using dwtest::DriverTest;

namespace {
class Natives : public DriverTest {};
}  // namespace

TEST_F(Natives, BeforeAnyAttachTheClassicBackEndAnswers) {
    EXPECT_EQ("[]", show(native<jlongArray>("GetChildren", jlong{1234}))) << "empty, never null";
    EXPECT_EQ("[0,0,0,0]", show(native<jintArray>("GetBounds", jlong{1234})));
    EXPECT_EQ("''", show(native<jstring>("GetClassName", jlong{1234})));
    EXPECT_EQ("[]", show(native<jobjectArray>("GetClassNames", jlong{1234})));
    EXPECT_EQ("", thrown());

    // No client: a detach changes nothing.
    native<void>("DetachClient");
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    EXPECT_EQ(0, native<jint>("GetThreadId"));
}

// A failed attach selects the automation back end for good; with no control
// in the table every handle fails its check, and what was pinned before it
// is released.
TEST_F(Natives, AHandleThatFailsTheCheckGetsTheDefaultAndTheException) {
    ASSERT_EQ(0, attach(L"", 5000));
    // 0 and the other handle natives: the fuzz test, which also finds an
    // empty default beside each exception.
    EXPECT_EQ("null", show(native<jobjectArray>("GetHierarchyWithAttributes", jlong{77}, host->stringArray({L"name"}),
                                                host->longArray({1, 2}))));
    EXPECT_EQ("Invalid handle value", thrown());
    EXPECT_EQ(0u, host->outstandingPins()) << "pins taken before the check are released too";

    // Without the exception class nothing is thrown but the VM's own error.
    host->removeClass(dwtest::INVALID_HANDLE_EXCEPTION);
    EXPECT_EQ("[]", show(native<jlongArray>("GetChildren", jlong{5})));
    const std::string error = thrown();
    EXPECT_EQ(std::string::npos, error.find("InvalidHandleException:")) << error;
}

TEST_F(Natives, OnlyTheLowWordOfAHandleIsReadIn32Bits) {
    fakeuia::Node& top = attachToOwnWindow(L"Target");
    top.add({.controlType = UIA_ButtonControlTypeId, .name = L"OK"});
    const jlong handle = handleOf(top);
    const std::string children = show(native<jlongArray>("GetChildren", handle));
    ASSERT_EQ("", thrown());
    const jlong highWord = handle ^ static_cast<jlong>(0x1234567800000000LL);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(children, show(native<jlongArray>("GetChildren", highWord)));
        EXPECT_EQ("", thrown());
    } else {
        EXPECT_EQ("[]", show(native<jlongArray>("GetChildren", highWord)));
        EXPECT_EQ("Invalid handle value", thrown()) << "a 64-bit driver reads the whole value";
    }
}

TEST_F(Natives, PreferencesAnswerDefaultsAndStoredValues) {
    auto get = [this](const std::wstring& key) { return host->text(native<jstring>("GetPreference", host->str(key))); };
    const struct { const wchar_t* key; const wchar_t* value; } defaults[] = {
        {L"deskwright.delay.after.mousemoved", L"50"}, {L"deskwright.front.via.focus", L""}, {L"my.own.key", L""},
    };
    for (const auto& row : defaults) EXPECT_EQ(row.value, get(row.key)) << testing::PrintToString(row.key);
    // Each step sets a value (null: Java's null) and reads it back.
    const struct { const wchar_t* key; const wchar_t* set; const wchar_t* read; } steps[] = {
        {L"deskwright.delay.after.mousemoved", L"10", L"10"},
        {L"deskwright.delay.after.mousemoved", nullptr, L"50"},
        {L"deskwright.delay.after.mousemoved", L"", L""},  // an empty value takes precedence over the default
        {L"deskwright.delay.after.mousemoved", L"__null_java_string__", L"50"},
        {L"my.own.key", L"abc", L"abc"},
        {L"my.own.key", nullptr, L""},
    };
    for (const auto& step : steps) {
        native<void>("SetPreference", host->str(step.key), step.set ? host->str(step.set) : jstring{});
        EXPECT_EQ(step.read, get(step.key)) << testing::PrintToString(step.key) << " set to "
                                            << testing::PrintToString(step.set);
    }
}

// Texts of 100,000 characters into every native that reads a text, before
// any attach: each is read whole.
TEST_F(Natives, HugeTextsAreReadWhole) {
    dwtest::OwnWindow window(L"EDIT", L"");
    const std::wstring huge(100000, L'x');
    EXPECT_EQ(0, native<jint>("StartClient", host->str(huge)));
    EXPECT_EQ(0, native<jint>("AttachClient__Ljava_lang_String_2", host->str(huge)));
    native<void>("SetPreference", host->str(huge), host->str(huge + L"y"));
    EXPECT_EQ(huge + L"y", host->text(native<jstring>("GetPreference", host->str(huge))));
    const jlong hwnd = dwtest::java(window.hwnd);
    EXPECT_EQ(JNI_TRUE, native<jboolean>("SetWindowText", hwnd, host->str(huge)));
    EXPECT_EQ(huge, host->text(native<jstring>("GetWindowText", hwnd)));
    EXPECT_EQ("", thrown());
}
