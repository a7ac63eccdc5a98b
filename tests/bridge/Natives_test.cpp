// The natives as Java calls them: routing by back end, results when the handle
// check fails, preferences, and the natives that work on plain windows.
#include "DriverTest.h"

#include <cmath>

using dwtest::DriverTest;
using dwtest::LogFile;
using dwtest::pendingException;

namespace {

const char* const INVALID_HANDLE = "net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException";

class ClassicBackEnd : public DriverTest {};
class AutomationBackEnd : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        // A failed attach still selects the automation back end for good.
        ASSERT_EQ(0, attach(L"", 5000));
    }
    void expectInvalidHandle() {
        auto thrown = host->takeException();
        ASSERT_TRUE(thrown.has_value()) << "no exception pending";
        EXPECT_EQ(INVALID_HANDLE, thrown->className);
        EXPECT_EQ(L"Invalid handle value", thrown->message);
    }
};

}  // namespace

TEST_F(ClassicBackEnd, QueriesAnswerEmptyNeverNullAndNeverThrow) {
    jlongArray children = native<jlongArray>("GetChildren", jlong{1234});
    ASSERT_NE(nullptr, children);
    EXPECT_TRUE(host->longs(children).empty());
    EXPECT_EQ("", pendingException(*host));

    jintArray bounds = native<jintArray>("GetBounds", jlong{1234});
    EXPECT_EQ((std::vector<jint>{0, 0, 0, 0}), host->ints(bounds));
    EXPECT_EQ(L"", host->text(native<jstring>("GetClassName", jlong{1234})));
    EXPECT_TRUE(host->strings(native<jobjectArray>("GetClassNames", jlong{1234})).empty());
    EXPECT_EQ("", pendingException(*host));
}

TEST_F(ClassicBackEnd, UnimplementedNativesLogTheirWordAtLevelThree) {
    jobjectArray names = host->stringArray({L"name"});
    EXPECT_EQ(nullptr, native<jobjectArray>("GetChildrenWithAttributes", jlong{1}, names));
    EXPECT_EQ(nullptr, native<jobjectArray>("GetAttributes", jlong{1}, names));
    EXPECT_EQ(nullptr, native<jlongArray>("FindAllWindows", jlong{1}));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Toggle", jlong{1}, jint{1}));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("Move", jlong{1}, jint{1}, jint{2}));
    native<void>("Highlight", jlong{1}, jint{100}, jint{0xFF});
    EXPECT_EQ(jlong{0}, native<jlong>("GetElementFromPoint", jint{5}, jint{5}));
    EXPECT_EQ("", pendingException(*host));

    EXPECT_EQ(2u, LogFile::count("Not (yet?) implemented", 3));
    EXPECT_EQ(3u, LogFile::count("Not implemented", 3));  // FindAllWindows, Toggle, GetElementFromPoint
    EXPECT_EQ(2u, LogFile::count("Not yet implemented", 3) -
                      LogFile::count("Not yet implemented: ", 3));  // Move, Highlight
    auto first = LogFile::find("Not implemented", 3);
    ASSERT_FALSE(first.empty());
    EXPECT_EQ("tolva.deskwright", first[0].logger);
    EXPECT_EQ("Java_net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright_FindAllWindows()", first[0].method);
}

TEST_F(ClassicBackEnd, ScreenScaleFactorIsOne) {
    EXPECT_EQ(1.0, native<jdouble>("GetScreenScaleFactor"));
    EXPECT_TRUE(LogFile::contains("Not implemented", 3));
}

TEST_F(ClassicBackEnd, DetachWithNothingAttachedChangesNothing) {
    native<void>("DetachClient");
    EXPECT_TRUE(LogFile::contains("No client attached", 3));
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    EXPECT_EQ(0, native<jint>("GetThreadId"));
    EXPECT_TRUE(LogFile::contains("Do you really want to know a Thread ID?", 3));
}

TEST_F(ClassicBackEnd, SetupNativeLoggingNamesTheCallingThreadMain) {
    native<jlongArray>("GetChildren", jlong{1});
    auto lines = LogFile::find("Not yet implemented: getChildren");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("main", lines[0].thread);
    // The empty level-3 line of the set-up itself.
    bool emptyLine = false;
    for (const auto& line : LogFile::lines()) {
        emptyLine = emptyLine || (line.level == 3 && line.message.empty() && line.logger == "tolva.deskwright");
    }
    EXPECT_TRUE(emptyLine);
}

TEST_F(AutomationBackEnd, FailedAttachKeepsTheAutomationBackEndSelected) {
    EXPECT_TRUE(LogFile::contains("Invalid connection parameters", 3));
    jlongArray children = native<jlongArray>("GetChildren", jlong{1234});
    ASSERT_NE(nullptr, children) << "an empty long[], not null";
    EXPECT_TRUE(host->longs(children).empty());
    expectInvalidHandle();
    EXPECT_FALSE(LogFile::contains("Not yet implemented: getChildren"));  // ShmComm wasn't asked
}

TEST_F(AutomationBackEnd, ResultsBuiltBeforeTheCheckComeBackEmptyWithTheException) {
    jintArray bounds = native<jintArray>("GetBounds", jlong{77});
    EXPECT_EQ((std::vector<jint>{0, 0, 0, 0}), host->ints(bounds));
    expectInvalidHandle();
    EXPECT_EQ(L"", host->text(native<jstring>("GetClassName", jlong{77})));
    expectInvalidHandle();
    jobjectArray classNames = native<jobjectArray>("GetClassNames", jlong{77});
    ASSERT_NE(nullptr, classNames);
    EXPECT_TRUE(host->strings(classNames).empty());
    expectInvalidHandle();
}

TEST_F(AutomationBackEnd, ResultsBuiltInsideTheCheckComeBackNull) {
    jobjectArray names = host->stringArray({L"name", L"rid"});
    EXPECT_EQ(nullptr, native<jobjectArray>("GetAttributes", jlong{77}, names));
    expectInvalidHandle();
    EXPECT_EQ(nullptr, native<jobjectArray>("GetChildrenWithAttributes", jlong{77}, names));
    expectInvalidHandle();
    jlongArray excluded = host->longArray({1, 2});
    EXPECT_EQ(nullptr, native<jobjectArray>("GetHierarchyWithAttributes", jlong{77}, names, excluded));
    expectInvalidHandle();
    EXPECT_EQ(nullptr, native<jstring>("GetAttribute", jlong{77}, host->str(L"name")));
    expectInvalidHandle();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("SetAttribute", jlong{77}, host->str(L"value"), host->str(L"x")));
    expectInvalidHandle();
    EXPECT_EQ(nullptr, native<jlongArray>("GetElementsByProperty", jlong{77}, host->str(L"name"), host->str(L"x")));
    expectInvalidHandle();
    EXPECT_EQ(jlong{0}, native<jlong>("GetParent", jlong{77}));
    expectInvalidHandle();
    EXPECT_EQ(JNI_FALSE, native<jboolean>("ScrollIntoView", jlong{77}));
    expectInvalidHandle();
    native<void>("Invoke", jlong{77});
    expectInvalidHandle();
    // Pins taken before the check were released on the failure path too.
    EXPECT_EQ(0u, host->outstandingPins());
}

TEST_F(AutomationBackEnd, HandleZeroIsInvalid) {
    native<void>("SetFocus", jlong{0});
    expectInvalidHandle();
    EXPECT_TRUE(LogFile::contains("Invalid handle", 3));
}

TEST_F(AutomationBackEnd, OnlyTheLowWordOfAHandleIsRead) {
    if (sizeof(void*) == 8) {
        GTEST_SKIP() << "a 64-bit driver reads the whole value";
    }
    native<jlongArray>("GetChildren", static_cast<jlong>(0x1234567800000ABCLL));
    expectInvalidHandle();
    EXPECT_TRUE(LogFile::contains("handle: abc", 7)) << LogFile::dump();
    EXPECT_FALSE(LogFile::contains("12345678", 7));
}

TEST_F(AutomationBackEnd, AMissingExceptionClassIsLoggedNotThrown) {
    host->removeClass(INVALID_HANDLE);
    jlongArray children = native<jlongArray>("GetChildren", jlong{5});
    EXPECT_NE(nullptr, children);
    EXPECT_TRUE(LogFile::contains("Could not throw", 1));
    host->takeException();  // the VM's own NoClassDefFoundError of FindClass
}

TEST_F(DriverTest, PreferencesAnswerDefaultsAndStoredValues) {
    auto get = [this](const wchar_t* key) { return host->text(native<jstring>("GetPreference", host->str(key))); };
    auto set = [this](const wchar_t* key, jstring value) { native<void>("SetPreference", host->str(key), value); };
    const wchar_t* moved = L"deskwright.delay.after.mousemoved";

    EXPECT_EQ(L"50", get(moved));
    EXPECT_EQ(L"25", get(L"deskwright.delay.after.mousepressed"));
    EXPECT_EQ(L"150", get(L"deskwright.delay.mouse.multiclick"));
    EXPECT_EQ(L"0", get(L"deskwright.delay.after.keydown"));
    EXPECT_EQ(L"0", get(L"deskwright.max.children"));
    EXPECT_EQ(L"false", get(L"deskwright.rec.element.with.different.pid"));
    EXPECT_EQ(L"", get(L"deskwright.front.via.focus"));

    set(moved, host->str(L"10"));
    EXPECT_EQ(L"10", get(moved));
    set(moved, nullptr);
    EXPECT_EQ(L"50", get(moved));
    set(moved, host->str(L""));
    EXPECT_EQ(L"", get(moved)) << "an empty value takes precedence over the default";
    set(moved, host->str(L"__null_java_string__"));
    EXPECT_EQ(L"50", get(moved));

    EXPECT_EQ(L"", get(L"my.own.key"));
    set(L"my.own.key", host->str(L"abc"));
    EXPECT_EQ(L"abc", get(L"my.own.key"));
    set(L"my.own.key", nullptr);
    EXPECT_EQ(L"", get(L"my.own.key"));
    EXPECT_TRUE(LogFile::contains("erasing pref from store", 9));
}
