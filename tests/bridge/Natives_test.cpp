// The natives as Java calls them: routing by back end, results when the handle
// check fails, and the preference natives.
#include "DriverTest.h"

#include <functional>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

class Natives : public DriverTest {
protected:
    static std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

    // A native that takes a handle; `call` gives its result as text.
    struct Row {
        const char* name;
        std::function<std::string(Natives&, jlong)> call;
        const char* afterFailedCheck;  // the default that comes back with the exception
    };
    static const std::vector<Row>& handleNatives();
};

const std::vector<Natives::Row>& Natives::handleNatives() {
    using T = Natives;
    static const std::vector<Row> rows = {
        {"GetChildren", [](T& t, jlong h) { return t.show(t.native<jlongArray>("GetChildren", h)); }, "[]"},
        {"GetBounds", [](T& t, jlong h) { return t.show(t.native<jintArray>("GetBounds", h)); }, "[0,0,0,0]"},
        {"GetClassName", [](T& t, jlong h) { return t.show(t.native<jstring>("GetClassName", h)); }, "''"},
        {"GetClassNames", [](T& t, jlong h) { return t.show(t.native<jobjectArray>("GetClassNames", h)); },
         "[]"},
        {"GetAttributes",
         [](T& t, jlong h) {
             return t.show(t.native<jobjectArray>("GetAttributes", h, t.host->stringArray({L"name", L"rid"})));
         },
         "null"},
        {"GetChildrenWithAttributes",
         [](T& t, jlong h) {
             return t.show(t.native<jobjectArray>("GetChildrenWithAttributes", h, t.host->stringArray({L"name"})));
         },
         "null"},
        {"GetHierarchyWithAttributes",
         [](T& t, jlong h) {
             return t.show(t.native<jobjectArray>("GetHierarchyWithAttributes", h, t.host->stringArray({L"name"}),
                                                  t.host->longArray({1, 2})));
         },
         "null"},
        {"GetAttribute",
         [](T& t, jlong h) { return t.show(t.native<jstring>("GetAttribute", h, t.host->str(L"name"))); }, "null"},
        {"SetAttribute",
         [](T& t, jlong h) {
             return std::to_string(t.native<jboolean>("SetAttribute", h, t.host->str(L"value"), t.host->str(L"x")));
         },
         "0"},
        {"GetElementsByProperty",
         [](T& t, jlong h) {
             return t.show(t.native<jlongArray>("GetElementsByProperty", h, t.host->str(L"name"), t.host->str(L"x")));
         },
         "null"},
        {"GetParent", [](T& t, jlong h) { return std::to_string(t.native<jlong>("GetParent", h)); }, "0"},
        {"GetNativeHandle", [](T& t, jlong h) { return std::to_string(t.native<jlong>("GetNativeHandle", h)); }, "0"},
        {"FindAllWindows", [](T& t, jlong h) { return t.show(t.native<jlongArray>("FindAllWindows", h)); }, "null"},
        {"ScrollIntoView", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("ScrollIntoView", h)); }, "0"},
        {"Move", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("Move", h, jint{1}, jint{2})); }, "0"},
        {"Resize", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("Resize", h, jint{1}, jint{2})); },
         "0"},
        {"Close", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("Close", h)); }, "0"},
        {"BringToFront", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("BringToFront", h)); }, "0"},
        {"Toggle", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("Toggle", h, jint{-1})); }, "0"},
        {"Expand", [](T& t, jlong h) { return std::to_string(t.native<jboolean>("Expand", h, jboolean{1})); }, "0"},
        {"Invoke", [](T& t, jlong h) { return t.native<void>("Invoke", h), std::string("-"); }, "-"},
        {"DoDefaultAction", [](T& t, jlong h) { return t.native<void>("DoDefaultAction", h), std::string("-"); },
         "-"},
        {"Select", [](T& t, jlong h) { return t.native<void>("Select", h, jint{0}), std::string("-"); }, "-"},
        {"SetFocus", [](T& t, jlong h) { return t.native<void>("SetFocus", h), std::string("-"); }, "-"},
        {"Scroll", [](T& t, jlong h) { return t.native<void>("Scroll", h, jdouble{1}, jdouble{1}), std::string("-"); },
         "-"},
        {"Highlight",
         [](T& t, jlong h) { return t.native<void>("Highlight", h, jint{100}, jint{-1}), std::string("-"); }, "-"},
        {"SimulateMouseEvent",
         [](T& t, jlong h) {
             t.native<void>("SimulateMouseEvent", h, jint{500}, jint{0}, jint{1}, jint{1}, jint{0}, jint{1});
             return std::string("-");
         },
         "-"},
        {"SimulateKeyStroke",
         [](T& t, jlong h) {
             return t.native<void>("SimulateKeyStroke", h, jchar{'a'}, jint{0x41}, jint{0}), std::string("-");
         },
         "-"},
    };
    return rows;
}

}  // namespace

TEST_F(Natives, BeforeAnyAttachTheClassicBackEndAnswers) {
    EXPECT_EQ("[]", show(native<jlongArray>("GetChildren", jlong{1234}))) << "empty, never null";
    EXPECT_EQ("[0,0,0,0]", show(native<jintArray>("GetBounds", jlong{1234})));
    EXPECT_EQ("''", show(native<jstring>("GetClassName", jlong{1234})));
    EXPECT_EQ("[]", show(native<jobjectArray>("GetClassNames", jlong{1234})));
    EXPECT_EQ(1.0, native<jdouble>("GetScreenScaleFactor"));
    EXPECT_EQ("", thrown());

    // Natives without a classic branch: their word at level 3 is all they do.
    const struct {
        const char* name;
        std::function<std::string()> call;
        const char* word;
        const char* result;
    } unimplemented[] = {
        {"GetChildrenWithAttributes",
         [&] { return show(native<jobjectArray>("GetChildrenWithAttributes", jlong{1}, host->stringArray({}))); },
         "Not (yet?) implemented", "null"},
        {"GetAttributes", [&] { return show(native<jobjectArray>("GetAttributes", jlong{1}, host->stringArray({}))); },
         "Not (yet?) implemented", "null"},
        {"FindAllWindows", [&] { return show(native<jlongArray>("FindAllWindows", jlong{1})); }, "Not implemented",
         "null"},
        {"Toggle", [&] { return std::to_string(native<jboolean>("Toggle", jlong{1}, jint{1})); }, "Not implemented", "0"},
        {"GetElementFromPoint", [&] { return std::to_string(native<jlong>("GetElementFromPoint", jint{5}, jint{5})); },
         "Not implemented", "0"},
        {"Move", [&] { return std::to_string(native<jboolean>("Move", jlong{1}, jint{1}, jint{2})); },
         "Not yet implemented", "0"},
    };
    for (const auto& row : unimplemented) {
        const size_t before = LogFile::count(row.word, 3);
        EXPECT_EQ(row.result, row.call()) << row.name;
        EXPECT_EQ(before + 1, LogFile::count(row.word, 3)) << row.name;
        auto lines = LogFile::find(row.word, 3);
        ASSERT_FALSE(lines.empty()) << row.name;
        EXPECT_EQ("tolva.deskwright", lines.back().logger) << row.name;
        EXPECT_NE(std::string::npos, lines.back().method.find(std::string("DefaultDeskwright_") + row.name + "()"))
            << row.name;
        EXPECT_EQ("main", lines.back().thread) << row.name << ": SetupNativeLogging named the calling thread";
    }
    EXPECT_EQ("", thrown());

    // No client: a detach changes nothing.
    native<void>("DetachClient");
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    EXPECT_EQ(0, native<jint>("GetThreadId"));
    EXPECT_TRUE(LogFile::contains("Do you really want to know a Thread ID?", 3));
}

// A failed attach selects the automation back end for good; with no control
// in the table every handle fails its check.
TEST_F(Natives, AHandleThatFailsTheCheckGetsTheDefaultAndTheException) {
    ASSERT_EQ(0, attach(L"", 5000));
    for (const jlong handle : {jlong{77}, jlong{0}}) {
        for (const Row& row : handleNatives()) {
            EXPECT_EQ(row.afterFailedCheck, row.call(*this, handle)) << row.name << "(" << handle << ")";
            EXPECT_EQ("Invalid handle value", thrown()) << row.name << "(" << handle << ")";
        }
    }
    EXPECT_EQ(0u, host->outstandingPins()) << "pins taken before the check are released too";
    EXPECT_FALSE(LogFile::contains("Not yet implemented: getChildren")) << "the classic back end wasn't asked";

    // Without the exception class nothing is thrown but the VM's own error.
    host->removeClass(dwtest::INVALID_HANDLE_EXCEPTION);
    EXPECT_EQ("[]", show(native<jlongArray>("GetChildren", jlong{5})));
    const std::string error = thrown();
    EXPECT_EQ(std::string::npos, error.find("InvalidHandleException:")) << error;
}

TEST_F(Natives, OnlyTheLowWordOfAHandleIsReadIn32Bits) {
    fakeuia::Node& top = attachToOwnWindow(L"Target");
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_ButtonControlTypeId;
    spec.name = L"OK";
    top.add(spec);
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
    const struct {
        const wchar_t* key;
        const wchar_t* value;
    } defaults[] = {
        {L"deskwright.delay.after.mousemoved", L"50"}, {L"deskwright.delay.after.mousepressed", L"25"},
        {L"deskwright.delay.mouse.multiclick", L"150"}, {L"deskwright.delay.after.keydown", L"0"},
        {L"deskwright.max.children", L"0"},           {L"deskwright.rec.element.with.different.pid", L"false"},
        {L"deskwright.front.via.focus", L""},          {L"my.own.key", L""},
    };
    for (const auto& row : defaults) {
        EXPECT_EQ(row.value, get(row.key)) << narrow(row.key);
    }
    // Each step sets a value (null: Java's null) and reads it back.
    const struct {
        const wchar_t* key;
        const wchar_t* set;
        const wchar_t* read;
    } steps[] = {
        {L"deskwright.delay.after.mousemoved", L"10", L"10"},
        {L"deskwright.delay.after.mousemoved", nullptr, L"50"},
        {L"deskwright.delay.after.mousemoved", L"", L""},  // an empty value takes precedence over the default
        {L"deskwright.delay.after.mousemoved", L"__null_java_string__", L"50"},
        {L"my.own.key", L"abc", L"abc"},
        {L"my.own.key", nullptr, L""},
    };
    for (const auto& step : steps) {
        native<void>("SetPreference", host->str(step.key), step.set ? host->str(step.set) : jstring{});
        EXPECT_EQ(step.read, get(step.key)) << narrow(step.key) << " set to "
                                            << (step.set ? narrow(step.set) : "null");
    }
}
