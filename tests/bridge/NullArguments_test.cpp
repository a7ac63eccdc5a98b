// Java's null, null entries and empty arrays in every object argument of the
// natives: each answers its default or an empty result, releases what it
// pinned, makes no misuse of JNI, and throws only for a bad handle.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <functional>
#include <optional>

using dwtest::DriverTest;
using dwtest::pendingException;

namespace {

using Strings = std::vector<std::optional<std::wstring>>;

// Where the natives are called: before any attach (the classic routing),
// attached with handles of living elements, or attached with a handle that
// names nothing.
enum class Mode { Classic, Attached, BadHandle };

const char* modeName(Mode mode) {
    return mode == Mode::Classic ? "classic" : mode == Mode::Attached ? "attached" : "bad handle";
}

class NullArguments : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        window = CreateWindowExW(0, L"EDIT", L"Hello window", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                 nullptr, GetModuleHandleW(nullptr), nullptr);
        ASSERT_NE(nullptr, window);
    }
    void TearDown() override {
        DestroyWindow(window);
        DriverTest::TearDown();
    }

    // A window with an edit field (with a value) and a pane without a name.
    void attachToTarget() {
        fakeuia::Node& top = attachToOwnWindow(L"Target");
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_EditControlTypeId;
        spec.name = L"Field";
        spec.bounds = {20, 20, 120, 40};
        fakeuia::Node& field = top.add(spec);
        value = fakeuia::attach<fakeuia::ValueSource>(field, L"old");
        spec.controlType = UIA_PaneControlTypeId;
        spec.name = L"";
        spec.bounds = {20, 50, 120, 70};
        top.add(spec);
        topHandle = handleOf(top);
        fieldHandle = handleOf(field);
        ASSERT_NE(0, topHandle);
        ASSERT_NE(0, fieldHandle);
        children = host->longs(native<jlongArray>("GetChildren", topHandle));
        ASSERT_EQ(2u, children.size());
    }

    Strings strings(jobjectArray array) {
        return host->isNull(array) ? Strings{} : host->strings(array);
    }
    std::optional<Strings> maybeStrings(jobjectArray array) {
        if (host->isNull(array)) {
            return std::nullopt;
        }
        return host->strings(array);
    }
    std::wstring windowText() {
        wchar_t text[64] = L"";
        GetWindowTextW(window, text, 64);
        return text;
    }
    static std::wstring decimal(jlong handle) { return std::to_wstring(handle); }

    // A native with object arguments, called with some of them null or empty.
    // `checked`: the automation branch checks the handle first.
    struct Row {
        const char* call;
        bool checked;
        std::function<void(NullArguments&, Mode)> run;
    };
    static const std::vector<Row>& rows();

    void runRows(Mode mode) {
        jlong bad = 0x5a5a50;
        if (mode != Mode::Attached) {
            topHandle = fieldHandle = bad;
        }
        for (const Row& row : rows()) {
            SCOPED_TRACE(std::string(row.call) + " (" + modeName(mode) + ")");
            const size_t misuseBefore = host->violations().size();
            row.run(*this, mode);
            auto thrown = host->takeException();
            if (mode == Mode::BadHandle && row.checked) {
                ASSERT_TRUE(thrown.has_value()) << "no exception pending";
                EXPECT_EQ("net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException", thrown->className);
                EXPECT_EQ(L"Invalid handle value", thrown->message);
            } else {
                EXPECT_FALSE(thrown.has_value()) << thrown->className;
            }
            const auto misuse = host->violations();
            for (size_t i = misuseBefore; i < misuse.size(); ++i) {
                ADD_FAILURE() << "JNI misuse: " << misuse[i];
            }
            EXPECT_EQ(0u, host->outstandingPins());
        }
    }

    HWND window = nullptr;
    jlong topHandle = 0;
    jlong fieldHandle = 0;
    std::vector<jlong> children;
    std::shared_ptr<fakeuia::ValueSource> value;
};

const std::vector<NullArguments::Row>& NullArguments::rows() {
    using T = NullArguments;
    static const std::vector<Row> table = {
        {"StartClient(null)", false, [](T& t, Mode) { EXPECT_EQ(0, t.native<jint>("StartClient", jstring{})); }},
        {"AttachClient(String null)", false,
         [](T& t, Mode) { EXPECT_EQ(0, t.native<jint>("AttachClient__Ljava_lang_String_2", jstring{})); }},
        {"SetPreference(null, value)", false,
         [](T& t, Mode) {
             t.native<void>("SetPreference", jstring{}, t.host->str(L"stored"));
             EXPECT_EQ(L"", t.host->text(t.native<jstring>("GetPreference", t.host->str(L""))));
         }},
        {"SetPreference(null, null)", false,
         [](T& t, Mode) {
             t.native<void>("SetPreference", jstring{}, jstring{});
             EXPECT_EQ(L"", t.host->text(t.native<jstring>("GetPreference", t.host->str(L""))));
         }},
        {"GetPreference(null)", false,
         [](T& t, Mode) {
             jstring answer = t.native<jstring>("GetPreference", jstring{});
             ASSERT_FALSE(t.host->isNull(answer));
             EXPECT_EQ(L"", t.host->text(answer));
         }},
        {"GetChildrenWithAttributes(h, null)", true,
         [](T& t, Mode mode) {
             auto answer = t.maybeStrings(t.native<jobjectArray>("GetChildrenWithAttributes", t.topHandle,
                                                                 jobjectArray{}));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{decimal(t.children[0]), decimal(t.children[1])}), answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetChildrenWithAttributes(h, {null, \"name\"})", true,
         [](T& t, Mode mode) {
             jobjectArray names = t.host->stringArray({L"x", L"name"});
             t.env->SetObjectArrayElement(names, 0, nullptr);
             auto answer = t.maybeStrings(t.native<jobjectArray>("GetChildrenWithAttributes", t.topHandle, names));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{decimal(t.children[0]), std::nullopt, L"Field", decimal(t.children[1]),
                                    std::nullopt, L""}),
                           answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetChildrenWithAttributes(h, {})", true,
         [](T& t, Mode mode) {
             auto answer = t.maybeStrings(
                 t.native<jobjectArray>("GetChildrenWithAttributes", t.topHandle, t.host->stringArray({})));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{decimal(t.children[0]), decimal(t.children[1])}), answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetHierarchyWithAttributes(h, names, null)", true,
         [](T& t, Mode mode) {
             auto answer = t.maybeStrings(t.native<jobjectArray>(
                 "GetHierarchyWithAttributes", t.fieldHandle, t.host->stringArray({L"name"}), jlongArray{}));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{L"0", decimal(t.fieldHandle), L"Field"}), answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetHierarchyWithAttributes(h, null, null)", true,
         [](T& t, Mode mode) {
             auto answer = t.maybeStrings(
                 t.native<jobjectArray>("GetHierarchyWithAttributes", t.topHandle, jobjectArray{}, jlongArray{}));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{L"0", decimal(t.topHandle), L"1", decimal(t.children[0]), L"1",
                                    decimal(t.children[1])}),
                           answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetHierarchyWithAttributes(h, {null}, {})", true,
         [](T& t, Mode mode) {
             jobjectArray names = t.host->stringArray({L"x"});
             t.env->SetObjectArrayElement(names, 0, nullptr);
             auto answer = t.maybeStrings(t.native<jobjectArray>("GetHierarchyWithAttributes", t.fieldHandle,
                                                                 names, t.host->longArray({})));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{L"0", decimal(t.fieldHandle), std::nullopt}), answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetAttribute(h, null)", true,
         [](T& t, Mode) {
             EXPECT_TRUE(t.host->isNull(t.native<jstring>("GetAttribute", t.fieldHandle, jstring{})));
         }},
        {"GetAttributes(h, null)", true,
         [](T& t, Mode mode) {
             auto answer = t.maybeStrings(t.native<jobjectArray>("GetAttributes", t.fieldHandle, jobjectArray{}));
             if (mode == Mode::Attached) {
                 EXPECT_EQ(Strings{}, answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"GetAttributes(h, {null, \"name\", null})", true,
         [](T& t, Mode mode) {
             jobjectArray names = t.host->stringArray({L"x", L"name", L"y"});
             t.env->SetObjectArrayElement(names, 0, nullptr);
             t.env->SetObjectArrayElement(names, 2, nullptr);
             auto answer = t.maybeStrings(t.native<jobjectArray>("GetAttributes", t.fieldHandle, names));
             if (mode == Mode::Attached) {
                 EXPECT_EQ((Strings{std::nullopt, L"Field", std::nullopt}), answer);
             } else {
                 EXPECT_FALSE(answer.has_value());
             }
         }},
        {"SetAttribute(h, null, \"new\")", true,
         [](T& t, Mode) {
             EXPECT_EQ(JNI_FALSE,
                       t.native<jboolean>("SetAttribute", t.fieldHandle, jstring{}, t.host->str(L"new")));
             if (t.value) {
                 EXPECT_EQ(L"old", t.value->value);
             }
         }},
        {"SetAttribute(h, \"value\", null)", true,
         [](T& t, Mode) {
             EXPECT_EQ(JNI_FALSE,
                       t.native<jboolean>("SetAttribute", t.fieldHandle, t.host->str(L"value"), jstring{}));
             if (t.value) {
                 EXPECT_EQ(L"old", t.value->value) << "null is no value to write";
                 EXPECT_EQ(0, t.value->setValueCalls);
             }
         }},
        {"SetAttribute(h, null, null)", true,
         [](T& t, Mode) {
             EXPECT_EQ(JNI_FALSE, t.native<jboolean>("SetAttribute", t.fieldHandle, jstring{}, jstring{}));
         }},
        {"EvalJS(h, null)", false,
         [](T& t, Mode) { EXPECT_TRUE(t.host->isNull(t.native<jstring>("EvalJS", t.fieldHandle, jstring{}))); }},
        {"GetElementsByProperty(h, null, \"Field\")", true,
         [](T& t, Mode mode) {
             jlongArray found = t.native<jlongArray>("GetElementsByProperty", t.topHandle, jstring{},
                                                     t.host->str(L"Field"));
             if (mode == Mode::Attached) {
                 ASSERT_FALSE(t.host->isNull(found));
                 EXPECT_TRUE(t.host->longs(found).empty());
             } else {
                 EXPECT_TRUE(t.host->isNull(found));
             }
         }},
        {"GetElementsByProperty(h, \"name\", null)", true,
         [](T& t, Mode mode) {
             jlongArray found = t.native<jlongArray>("GetElementsByProperty", t.topHandle, t.host->str(L"name"),
                                                     jstring{});
             if (mode == Mode::Attached) {
                 ASSERT_FALSE(t.host->isNull(found));
                 EXPECT_TRUE(t.host->longs(found).empty()) << "null is no name to look for";
             } else {
                 EXPECT_TRUE(t.host->isNull(found));
             }
         }},
        {"GetElementsByProperty(h, null, null)", true,
         [](T& t, Mode mode) {
             jlongArray found = t.native<jlongArray>("GetElementsByProperty", t.topHandle, jstring{}, jstring{});
             if (mode == Mode::Attached) {
                 ASSERT_FALSE(t.host->isNull(found));
                 EXPECT_TRUE(t.host->longs(found).empty());
             } else {
                 EXPECT_TRUE(t.host->isNull(found));
             }
         }},
        {"SetWindowText(hwnd, null)", false,
         [](T& t, Mode) {
             const jlong hwnd = static_cast<jlong>(reinterpret_cast<intptr_t>(t.window));
             EXPECT_EQ(JNI_FALSE, t.native<jboolean>("SetWindowText", hwnd, jstring{}));
             EXPECT_EQ(L"Hello window", t.windowText());
         }},
        // Last: before any attach, this selects the automation back end.
        {"AttachUiaClient(null)", false,
         [](T& t, Mode) { EXPECT_EQ(0, t.native<jint>("AttachUiaClient", jstring{}, jint{100})); }},
    };
    return table;
}

}  // namespace

TEST_F(NullArguments, BeforeAnyAttachEveryNativeAnswersItsDefault) {
    runRows(Mode::Classic);
}

TEST_F(NullArguments, AttachedEveryNativeAnswersItsDefaultOrAnEmptyResult) {
    attachToTarget();
    runRows(Mode::Attached);
}

TEST_F(NullArguments, WithABadHandleOnlyTheHandleIsReported) {
    attachToTarget();
    runRows(Mode::BadHandle);
}

// Texts of 100,000 characters into every native that reads a text, before
// any attach and then into the parser of the connection parameters.
TEST_F(NullArguments, HugeTextsAreReadWhole) {
    const std::wstring huge(100000, L'x');
    EXPECT_EQ(0, native<jint>("StartClient", host->str(huge)));
    EXPECT_EQ(0, native<jint>("AttachClient__Ljava_lang_String_2", host->str(huge)));
    native<void>("SetPreference", host->str(huge), host->str(huge + L"y"));
    EXPECT_EQ(huge + L"y", host->text(native<jstring>("GetPreference", host->str(huge))));
    const jlong hwnd = static_cast<jlong>(reinterpret_cast<intptr_t>(window));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("SetWindowText", hwnd, host->str(huge)));
    EXPECT_EQ(huge, host->text(native<jstring>("GetWindowText", hwnd)));
    for (const std::wstring& args : {L"-pid 1 " + huge, L"-class " + huge, L"-class '" + huge + L"'", huge}) {
        SCOPED_TRACE(std::to_string(args.size()) + " characters from " + std::string(args.begin(), args.begin() + 8));
        EXPECT_EQ(0, native<jint>("AttachUiaClient", host->str(args), jint{50}));
    }
    EXPECT_EQ("", pendingException(*host));
}
