// The natives as Java calls them: routing by back end, results when the handle
// check fails, and the preference natives.
#include "DriverTest.h"

#include <functional>
#include <type_traits>

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

    // Arguments after the handle: Java objects are made at the call.
    using Names = std::vector<std::wstring>;
    using Longs = std::vector<jlong>;
    template <class V>
    V arg(V value) {
        return value;
    }
    jstring arg(const wchar_t* text) { return host->str(text); }
    jobjectArray arg(const Names& names) { return host->stringArray(names); }
    jlongArray arg(const Longs& values) { return host->longArray(values); }
    template <class R>
    std::string text(R result) {
        if constexpr (std::is_same_v<R, jboolean> || std::is_same_v<R, jlong>) {
            return std::to_string(result);
        } else {
            return show(result);
        }
    }
    template <class R, class... A>
    static Row row(const char* name, const char* afterFailedCheck, A... args) {
        return {name,
                [=](Natives& t, jlong handle) -> std::string {
                    if constexpr (std::is_void_v<R>) {
                        t.native<void>(name, handle, t.arg(args)...);
                        return "-";
                    } else {
                        return t.text(t.native<R>(name, handle, t.arg(args)...));
                    }
                },
                afterFailedCheck};
    }
};

const std::vector<Natives::Row>& Natives::handleNatives() {
    static const std::vector<Row> rows = {
        row<jlongArray>("GetChildren", "[]"),
        row<jintArray>("GetBounds", "[0,0,0,0]"),
        row<jstring>("GetClassName", "''"),
        row<jobjectArray>("GetClassNames", "[]"),
        row<jobjectArray>("GetAttributes", "null", Names{L"name", L"rid"}),
        row<jobjectArray>("GetChildrenWithAttributes", "null", Names{L"name"}),
        row<jobjectArray>("GetHierarchyWithAttributes", "null", Names{L"name"}, Longs{1, 2}),
        row<jstring>("GetAttribute", "null", L"name"),
        row<jboolean>("SetAttribute", "0", L"value", L"x"),
        row<jlongArray>("GetElementsByProperty", "null", L"name", L"x"),
        row<jlong>("GetParent", "0"),
        row<jlong>("GetNativeHandle", "0"),
        row<jlongArray>("FindAllWindows", "null"),
        row<jboolean>("ScrollIntoView", "0"),
        row<jboolean>("Move", "0", jint{1}, jint{2}),
        row<jboolean>("Resize", "0", jint{1}, jint{2}),
        row<jboolean>("Close", "0"),
        row<jboolean>("BringToFront", "0"),
        row<jboolean>("Toggle", "0", jint{-1}),
        row<jboolean>("Expand", "0", jboolean{1}),
        row<void>("Invoke", "-"),
        row<void>("DoDefaultAction", "-"),
        row<void>("Select", "-", jint{0}),
        row<void>("SetFocus", "-"),
        row<void>("Scroll", "-", jdouble{1}, jdouble{1}),
        row<void>("Highlight", "-", jint{100}, jint{-1}),
        row<void>("SimulateMouseEvent", "-", jint{500}, jint{0}, jint{1}, jint{1}, jint{0}, jint{1}),
        row<void>("SimulateKeyStroke", "-", jchar{'a'}, jint{0x41}, jint{0}),
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
