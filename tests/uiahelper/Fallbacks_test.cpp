// Where an attribute's first source isn't enough and the driver asks a second
// one: long texts re-read from the window, a text read as the value, a
// description found at a point, caption buttons named by their place, and the
// read-only check before a value is written.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"
#include "ImportPatch.h"

#include <oleacc.h>

#include <algorithm>
#include <iterator>

using dwtest::DriverTest;

namespace {

// A real window of the test: answers the title-bar query with four caption
// buttons side by side, and records the commands it is sent.
const RECT CAPTION_BUTTONS[4] = {{100, 0, 120, 20}, {120, 0, 140, 20}, {140, 0, 160, 20}, {160, 0, 180, 20}};
std::vector<std::pair<WPARAM, LPARAM>> commands;
LRESULT CALLBACK FrameProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_GETTITLEBARINFOEX) {
        auto* info = reinterpret_cast<TITLEBARINFOEX*>(lParam);
        if (info && info->cbSize == sizeof(TITLEBARINFOEX)) {
            info->rgrect[0] = {0, 0, 200, 20};
            std::copy(std::begin(CAPTION_BUTTONS), std::end(CAPTION_BUTTONS), info->rgrect + 2);
        }
        return 0;
    }
    if (message == WM_COMMAND) commands.emplace_back(wParam, lParam);
    return message == WM_COMMAND ? 0 : DefWindowProcW(hwnd, message, wParam, lParam);
}

// The accessible object that the system finds at a point: it knows only its
// description, and counts its references.
class PointObject : public IAccessible {
public:
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        return *object = nullptr, E_NOINTERFACE;
    }
    HRESULT STDMETHODCALLTYPE get_accDescription(VARIANT child, BSTR* description) override {
        askedChild = child.vt == VT_I4 ? child.lVal : -1;
        *description = SysAllocString(L"from point");
        return S_OK;
    }
#define M(name, args) HRESULT STDMETHODCALLTYPE name args override { return E_NOTIMPL; }
    M(GetTypeInfoCount, (UINT*)) M(GetTypeInfo, (UINT, LCID, ITypeInfo**))
    M(GetIDsOfNames, (REFIID, LPOLESTR*, UINT, LCID, DISPID*))
    M(Invoke, (DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*))
    M(get_accParent, (IDispatch**)) M(get_accChildCount, (long*)) M(get_accChild, (VARIANT, IDispatch**))
    M(get_accName, (VARIANT, BSTR*)) M(get_accValue, (VARIANT, BSTR*)) M(get_accRole, (VARIANT, VARIANT*))
    M(get_accState, (VARIANT, VARIANT*)) M(get_accHelp, (VARIANT, BSTR*))
    M(get_accHelpTopic, (BSTR*, VARIANT, long*)) M(get_accKeyboardShortcut, (VARIANT, BSTR*))
    M(get_accFocus, (VARIANT*)) M(get_accSelection, (VARIANT*)) M(get_accDefaultAction, (VARIANT, BSTR*))
    M(accSelect, (long, VARIANT)) M(accLocation, (long*, long*, long*, long*, VARIANT))
    M(accNavigate, (long, VARIANT, VARIANT*)) M(accHitTest, (long, long, VARIANT*))
    M(accDoDefaultAction, (VARIANT)) M(put_accName, (VARIANT, BSTR)) M(put_accValue, (VARIANT, BSTR))
#undef M
    long refs = 0;
    long askedChild = 0;
};

PointObject pointObject;
std::vector<POINT> askedPoints;
bool objectAtPoint = true;
HRESULT WINAPI FakeAccessibleObjectFromPoint(POINT point, IAccessible** object, VARIANT* child) {
    askedPoints.push_back(point);
    *object = nullptr;
    if (!objectAtPoint) return E_FAIL;
    pointObject.AddRef();
    *object = &pointObject;
    child->vt = VT_I4, child->lVal = 7;
    return S_OK;
}

class Fallbacks : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        dwtest::registerClass(L"FallbackFrame", FrameProc);
        frame = CreateWindowExW(0, L"FallbackFrame", L"", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr, nullptr,
                                GetModuleHandleW(nullptr), nullptr);
        edit = CreateWindowExW(0, L"EDIT", L"", WS_CHILD, 0, 0, 50, 20, frame, nullptr, GetModuleHandleW(nullptr),
                               nullptr);
        ASSERT_NE(nullptr, edit);
        top = &attachToOwnWindow(L"Target");
        top->update([this](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = frame; });
    }
    void TearDown() override {
        DestroyWindow(frame);
        DriverTest::TearDown();
    }

    HWND frame = nullptr;
    HWND edit = nullptr;
    fakeuia::Node* top = nullptr;
};

}  // namespace

TEST_F(Fallbacks, ATextOfTheLimitIsTakenFromALongerWindowText) {
    // The lengths of the platform's text and of the window's.
    struct Row { const wchar_t* attribute; size_t length, window; bool fromWindow; };
    const Row rows[] = {
        {L"name", 4096, 5000, true}, {L"value", 4096, 5000, true}, {L"text", 4096, 5000, true},
        {L"name", 4095, 5000, false}, {L"value", 4097, 5000, false}, {L"text", 4095, 5000, false},
        {L"value", 4096, 4096, false},  // a window text of the limit is no better
    };
    for (const Row& row : rows) {
        const std::wstring windowText(row.window, L'w');
        SetWindowTextW(frame, windowText.c_str());
        const std::wstring platformText(row.length, L'p');
        const std::wstring attribute = row.attribute;
        fakeuia::Node& node = add(*top, UIA_EditControlTypeId, attribute == L"name" ? platformText : L"field");
        node.update([this](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = frame; });
        if (attribute == L"value") {
            fakeuia::attach<fakeuia::ValueSource>(node, platformText);
        } else if (attribute == L"text") {
            fakeuia::attach<fakeuia::TextSource>(node, platformText);
        }
        const std::wstring read = attr(handleOf(node), attribute).value_or(L"<null>");
        const std::wstring& wanted = row.fromWindow ? windowText : platformText;
        EXPECT_TRUE(read == wanted) << testing::PrintToString(row.attribute) << " of " << row.length << ": "
                                    << read.size() << " characters, first " << read.substr(0, 1);
        node.remove();
    }
}

TEST_F(Fallbacks, TheTextIsTheValueOnlyWithoutADocumentRange) {
    // `failing`: a method of the Text pattern or of its range.
    struct Row { const char* what; bool text, available; const char* failing; bool value; const wchar_t* read; };
    const Row rows[] = {
        {"text and value", true, true, nullptr, true, L"doc"},
        {"value only", false, true, nullptr, true, L"val"},
        {"text pattern not available now", true, false, nullptr, true, L"val"},
        {"no document range", true, true, "get_DocumentRange", true, L"val"},
        {"a failing text read", true, true, "GetText", true, L""},
        {"neither", false, true, nullptr, false, L""},
    };
    for (const Row& row : rows) {
        fakeuia::Node& node = add(*top, UIA_EditControlTypeId, L"field");
        if (row.text) {
            auto text = fakeuia::attach<fakeuia::TextSource>(node, L"doc");
            text->available = row.available;
            if (row.failing) text->fail(row.failing, E_FAIL);
        }
        if (row.value) fakeuia::attach<fakeuia::ValueSource>(node, L"val");
        EXPECT_EQ(row.read, attr(handleOf(node), L"text")) << row.what;
        node.remove();
    }
}

TEST_F(Fallbacks, AValueIsWrittenOnlyWhereItIsKnownToBeWritable) {
    struct Row { const char* what; bool readOnly; const char* failing; jboolean result; int setValueCalls;
                 const wchar_t* value; const wchar_t* automationId; size_t notices; };
    const Row rows[] = {
        {"writable", false, nullptr, JNI_TRUE, 1, L"new", L"1001", 1},
        {"read-only", true, nullptr, JNI_FALSE, 0, L"old", L"1001", 0},
        {"a failing read-only read", false, "get_CurrentIsReadOnly", JNI_FALSE, 0, L"old", L"1001", 0},
        {"a refused write still notifies", false, "SetValue", JNI_FALSE, 1, L"old", L"1001", 1},
        {"a name as the id: no notice", false, nullptr, JNI_TRUE, 1, L"new", L"name", 0},
    };
    for (const Row& row : rows) {
        fakeuia::Node& node = add(*top, UIA_EditControlTypeId, L"field");
        node.update([&](fakeuia::NodeSpec& spec) { spec.nativeWindowHandle = edit, spec.automationId = row.automationId; });
        auto value = fakeuia::attach<fakeuia::ValueSource>(node, L"old", row.readOnly);
        if (row.failing) value->fail(row.failing, E_FAIL);
        commands.clear();
        EXPECT_EQ(row.result, native<jboolean>("SetAttribute", handleOf(node), host->str(L"value"), host->str(L"new")))
            << row.what;
        EXPECT_EQ(row.setValueCalls, value->setValueCalls) << row.what;
        EXPECT_EQ(row.value, value->value) << row.what;
        // A write that was tried tells the edit's parent window of a numeric
        // id, as EN_CHANGE with the id.
        const auto notice = std::make_pair(WPARAM{0x3E90300}, reinterpret_cast<LPARAM>(edit));
        EXPECT_EQ(row.notices, commands.size()) << row.what;
        EXPECT_TRUE(commands.empty() || commands[0] == notice) << row.what;
        node.remove();
    }
}

TEST_F(Fallbacks, AMissingDescriptionIsAskedOfTheObjectAtTheTopLeftCorner) {
    dwtest::ImportPatch patch(dll->module(), "AccessibleObjectFromPoint",
                              reinterpret_cast<void*>(&FakeAccessibleObjectFromPoint));
    ASSERT_TRUE(patch.applied());
    struct Row { const char* what; bool legacy; const wchar_t* description; bool objectThere; const wchar_t* read;
                 size_t asked; };
    const Row rows[] = {
        {"its own description", true, L"own", true, L"own", 0},
        {"an empty description", true, L"", true, L"from point", 1},
        {"no MSAA pattern", false, L"", true, L"from point", 1},
        {"nothing at the point", false, L"", false, L"", 1},
    };
    for (const Row& row : rows) {
        fakeuia::Node& node = add(*top, UIA_ButtonControlTypeId, L"button", {30, 40, 130, 90});
        if (row.legacy) fakeuia::attach<fakeuia::LegacyIAccessibleSource>(node)->description = row.description;
        askedPoints.clear();
        objectAtPoint = row.objectThere;
        pointObject.askedChild = 0;
        EXPECT_EQ(row.read, attr(handleOf(node), L"accdesc")) << row.what;
        ASSERT_EQ(row.asked, askedPoints.size()) << row.what;
        if (row.asked) {
            EXPECT_EQ(30, askedPoints[0].x) << row.what;
            EXPECT_EQ(40, askedPoints[0].y) << row.what;
        }
        EXPECT_EQ(row.objectThere && row.asked ? 7 : 0, pointObject.askedChild) << row.what << ": the child it gave";
        EXPECT_EQ(0, pointObject.refs) << row.what << ": the object is released";
        node.remove();
    }
}

TEST_F(Fallbacks, CaptionButtonsAreNamedByWhereTheyStand) {
    fakeuia::Node& titleBar = add(*top, UIA_TitleBarControlTypeId, L"bar", {0, 0, 200, 20});
    struct Row { const wchar_t* name; RECT bounds; const wchar_t* automationId; const wchar_t* id; };
    const Row rows[] = {
        {L"min", CAPTION_BUTTONS[0], L"", L"Minimize"},
        {L"max", CAPTION_BUTTONS[1], L"", L"Maximize"},
        {L"help", CAPTION_BUTTONS[2], L"", L"Help"},
        {L"close", CAPTION_BUTTONS[3], L"", L"Close"},
        {L"on the edge", {130, 10, 150, 30}, L"", L"Maximize"},  // midpoint (140, 20): the first hit wins
        {L"on the bar", {0, 0, 20, 20}, L"", L""},
        {L"named", CAPTION_BUTTONS[1], L"own", L"own"},
    };
    for (const Row& row : rows) {
        add(titleBar, UIA_ButtonControlTypeId, row.name, row.bounds).update([&](fakeuia::NodeSpec& spec) {
            spec.automationId = row.automationId;
        });
    }
    const std::vector<jlong> buttons = host->longs(native<jlongArray>("GetChildren", handleOf(titleBar)));
    ASSERT_EQ(std::size(rows), buttons.size());
    for (size_t i = 0; i < buttons.size(); ++i) {
        EXPECT_EQ(rows[i].id, attr(buttons[i], L"id")) << testing::PrintToString(rows[i].name);
    }
    EXPECT_EQ(L"", attr(handleOf(add(*top, UIA_ButtonControlTypeId, L"outside", CAPTION_BUTTONS[1])), L"id"))
        << "not in a title bar";
}
