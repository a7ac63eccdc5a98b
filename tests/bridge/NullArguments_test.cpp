// Java's null, null entries and empty arrays in every object argument of the
// natives: each answers its default or an empty result, releases what it
// pinned, makes no misuse of JNI, and throws only for a bad handle.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <functional>

using dwtest::DriverTest;

namespace {

// Where the natives are called: before any attach (the classic routing),
// attached with handles of living elements, or attached with a handle that
// names nothing.
enum class Mode { Classic, Attached, BadHandle };

class NullArguments : public DriverTest, public ::testing::WithParamInterface<Mode> {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        window = CreateWindowExW(0, L"EDIT", L"Hello window", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                 nullptr, GetModuleHandleW(nullptr), nullptr);
        ASSERT_NE(nullptr, window);
        if (GetParam() != Mode::Classic) {
            attachToTarget();
        }
        if (GetParam() != Mode::Attached) {
            topHandle = fieldHandle = 0x5a5a50;
        }
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
        children = host->longs(native<jlongArray>("GetChildren", topHandle));
        ASSERT_EQ(2u, children.size());
    }
    // The expected text with {top}, {field}, {c0} and {c1} filled in.
    std::string expand(std::string text) {
        const std::pair<const char*, jlong> names[] = {
            {"{top}", topHandle}, {"{field}", fieldHandle}, {"{c0}", children.empty() ? 0 : children[0]},
            {"{c1}", children.size() < 2 ? 0 : children[1]}};
        for (const auto& [name, handle] : names) {
            for (size_t at; (at = text.find(name)) != std::string::npos;) {
                text.replace(at, std::string(name).size(), std::to_string(handle));
            }
        }
        return text;
    }
    jobjectArray namesWithNulls(std::initializer_list<const wchar_t*> names) {
        std::vector<std::wstring> texts;
        for (const wchar_t* name : names) {
            texts.push_back(name ? name : L"");
        }
        jobjectArray array = host->stringArray(texts);
        jsize i = 0;
        for (const wchar_t* name : names) {
            if (!name) {
                env->SetObjectArrayElement(array, i, nullptr);
            }
            ++i;
        }
        return array;
    }
    std::wstring windowText() {
        wchar_t text[64] = L"";
        GetWindowTextW(window, text, 64);
        return text;
    }
    jlong hwnd() const { return static_cast<jlong>(reinterpret_cast<intptr_t>(window)); }

    // Natives with object arguments, called with some of them null or empty,
    // each as Java calls it (no call with an exception pending). `checked`:
    // the automation branch checks the handle first; without a living handle
    // such a native answers `otherwise`. The answers are joined by " | ".
    using Call = std::function<std::string(NullArguments&)>;
    struct Row {
        const char* name;
        bool checked;
        std::vector<Call> calls;
        const char* attached;
        const char* otherwise;
    };
    static const std::vector<Row>& rows();

    HWND window = nullptr;
    jlong topHandle = 0;
    jlong fieldHandle = 0;
    std::vector<jlong> children;
    std::shared_ptr<fakeuia::ValueSource> value;
};

std::string flag(jboolean value) {
    return value ? "true" : "false";
}

const std::vector<NullArguments::Row>& NullArguments::rows() {
    using T = NullArguments;
    const jstring null{};
    static const std::vector<Row> table = {
        {"StartClient(null), AttachClient(String null)", false,
         {[null](T& t) { return std::to_string(t.native<jint>("StartClient", null)); },
          [null](T& t) { return std::to_string(t.native<jint>("AttachClient__Ljava_lang_String_2", null)); }},
         "0 | 0", "0 | 0"},
        {"SetPreference(null, value), SetPreference(null, null), GetPreference(null)", false,
         {[null](T& t) {
              t.native<void>("SetPreference", null, t.host->str(L"stored"));
              return t.show(t.native<jstring>("GetPreference", t.host->str(L"")));
          },
          [null](T& t) {
              t.native<void>("SetPreference", null, null);
              return t.show(t.native<jstring>("GetPreference", t.host->str(L"")));
          },
          [null](T& t) { return t.show(t.native<jstring>("GetPreference", null)); }},
         "'' | '' | ''", "'' | '' | ''"},
        {"GetChildrenWithAttributes(h, null | {null, \"name\"} | {})", true,
         {[](T& t) { return t.show(t.native<jobjectArray>("GetChildrenWithAttributes", t.topHandle, jobjectArray{})); },
          [](T& t) {
              return t.show(t.native<jobjectArray>("GetChildrenWithAttributes", t.topHandle,
                                                   t.namesWithNulls({nullptr, L"name"})));
          },
          [](T& t) {
              return t.show(t.native<jobjectArray>("GetChildrenWithAttributes", t.topHandle, t.host->stringArray({})));
          }},
         "['{c0}','{c1}'] | ['{c0}',null,'Field','{c1}',null,''] | ['{c0}','{c1}']", "null | null | null"},
        {"GetHierarchyWithAttributes(h, names, null | null, null | {null}, {})", true,
         {[](T& t) {
              return t.show(t.native<jobjectArray>("GetHierarchyWithAttributes", t.fieldHandle,
                                                   t.host->stringArray({L"name"}), jlongArray{}));
          },
          [](T& t) {
              return t.show(
                  t.native<jobjectArray>("GetHierarchyWithAttributes", t.topHandle, jobjectArray{}, jlongArray{}));
          },
          [](T& t) {
              return t.show(t.native<jobjectArray>("GetHierarchyWithAttributes", t.fieldHandle,
                                                   t.namesWithNulls({nullptr}), t.host->longArray({})));
          }},
         "['0','{field}','Field'] | ['0','{top}','1','{c0}','1','{c1}'] | ['0','{field}',null]",
         "null | null | null"},
        {"GetAttribute(h, null)", true,
         {[null](T& t) { return t.show(t.native<jstring>("GetAttribute", t.fieldHandle, null)); }}, "null", "null"},
        {"GetAttributes(h, null | {null, \"name\", null})", true,
         {[](T& t) { return t.show(t.native<jobjectArray>("GetAttributes", t.fieldHandle, jobjectArray{})); },
          [](T& t) {
              return t.show(t.native<jobjectArray>("GetAttributes", t.fieldHandle,
                                                   t.namesWithNulls({nullptr, L"name", nullptr})));
          }},
         "[] | [null,'Field',null]", "null | null"},
        // null is no name and no value to write: nothing reaches the pattern.
        {"SetAttribute(h, null, \"new\" | \"value\", null | null, null)", true,
         {[null](T& t) { return flag(t.native<jboolean>("SetAttribute", t.fieldHandle, null, t.host->str(L"new"))); },
          [null](T& t) {
              return flag(t.native<jboolean>("SetAttribute", t.fieldHandle, t.host->str(L"value"), null));
          },
          [null](T& t) { return flag(t.native<jboolean>("SetAttribute", t.fieldHandle, null, null)); }},
         "false | false | false", "false | false | false"},
        {"EvalJS(h, null)", false,
         {[null](T& t) { return t.show(t.native<jstring>("EvalJS", t.fieldHandle, null)); }}, "null", "null"},
        {"GetElementsByProperty(h, null, \"Field\" | \"name\", null | null, null)", true,
         {[null](T& t) {
              return t.show(t.native<jlongArray>("GetElementsByProperty", t.topHandle, null, t.host->str(L"Field")));
          },
          [null](T& t) {
              return t.show(t.native<jlongArray>("GetElementsByProperty", t.topHandle, t.host->str(L"name"), null));
          },
          [null](T& t) { return t.show(t.native<jlongArray>("GetElementsByProperty", t.topHandle, null, null)); }},
         "[] | [] | []", "null | null | null"},
        {"SetWindowText(hwnd, null)", false,
         {[null](T& t) {
             return flag(t.native<jboolean>("SetWindowText", t.hwnd(), null)) + " " +
                    std::string(t.windowText() == L"Hello window" ? "unchanged" : "changed");
         }},
         "false unchanged", "false unchanged"},
        // Last: before any attach, this selects the automation back end.
        {"AttachUiaClient(null)", false,
         {[null](T& t) { return std::to_string(t.native<jint>("AttachUiaClient", null, jint{100})); }}, "0", "0"},
    };
    return table;
}

const char* modeName(const ::testing::TestParamInfo<Mode>& info) {
    return info.param == Mode::Classic ? "Classic" : info.param == Mode::Attached ? "Attached" : "BadHandle";
}

}  // namespace

TEST_P(NullArguments, EveryNativeAnswersItsDefaultAndThrowsOnlyForABadHandle) {
    const Mode mode = GetParam();
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.name);
        const size_t misuseBefore = host->violations().size();
        std::string answers;
        for (const Call& call : row.calls) {
            answers += (answers.empty() ? "" : " | ") + call(*this);
            EXPECT_EQ(mode == Mode::BadHandle && row.checked ? "Invalid handle value" : "", thrown());
        }
        EXPECT_EQ(expand(mode == Mode::Attached ? row.attached : row.otherwise), answers);
        const auto misuse = host->violations();
        for (size_t i = misuseBefore; i < misuse.size(); ++i) {
            ADD_FAILURE() << "JNI misuse: " << misuse[i];
        }
        EXPECT_EQ(0u, host->outstandingPins());
    }
    if (value) {
        EXPECT_EQ(L"old", value->value);
        EXPECT_EQ(0, value->setValueCalls);
    }
}

// One instance each: every test process starts with a fresh driver.
INSTANTIATE_TEST_SUITE_P(Before, NullArguments, ::testing::Values(Mode::Classic), modeName);
INSTANTIATE_TEST_SUITE_P(Attached, NullArguments, ::testing::Values(Mode::Attached), modeName);
INSTANTIATE_TEST_SUITE_P(WithABadHandle, NullArguments, ::testing::Values(Mode::BadHandle), modeName);

// Texts of 100,000 characters into every native that reads a text, before
// any attach and then into the parser of the connection parameters.
TEST_F(DriverTest, HugeTextsAreReadWhole) {
    HWND window = CreateWindowExW(0, L"EDIT", L"", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr, nullptr,
                                  GetModuleHandleW(nullptr), nullptr);
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
    EXPECT_EQ("", thrown());
    DestroyWindow(window);
}
