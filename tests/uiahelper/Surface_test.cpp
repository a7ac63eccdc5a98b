// The vocabulary of the element helpers (control types, MSAA roles and
// states, pattern names) against the platform's constants, and the small
// getters, each read through an element of the simulated platform.
#include "HelperTest.h"

#include "FakeUiaPatterns.h"
#include "uiahelper/UiaHelper.h"

#include <oleacc.h>

#include <atomic>
#include <functional>

using dwtest::ElementRef;
using dwtest::HelperTest;

namespace {

// Counts the pattern requests that reach a source of the simulation, and
// passes them on to it.
class CountingSource : public fakeuia::PatternSource {
public:
    explicit CountingSource(std::shared_ptr<fakeuia::PatternSource> inner) : inner_(std::move(inner)) {}
    HRESULT open(fakeuia::Node& node, REFIID riid, void** object) override {
        ++opens;
        return inner_->open(node, riid, object);
    }
    std::atomic<int> opens{0};

private:
    std::shared_ptr<fakeuia::PatternSource> inner_;
};

class Surface : public HelperTest {
protected:
    fakeuia::Node& node(CONTROLTYPEID type, const std::function<void(fakeuia::NodeSpec&)>& more = {}) {
        fakeuia::NodeSpec spec{.controlType = type};
        if (more) more(spec);
        return window(L"w").add(spec);
    }
    // A node with an MSAA role (or none: no LegacyIAccessible pattern), whose
    // requests for that pattern are counted.
    fakeuia::Node& withRole(CONTROLTYPEID type, std::optional<DWORD> role) {
        fakeuia::Node& n = node(type);
        legacy = std::make_shared<fakeuia::LegacyIAccessibleSource>();
        legacy->role = role.value_or(0);
        roleRequests = std::make_shared<CountingSource>(legacy);
        if (role) n.attachPattern(UIA_LegacyIAccessiblePatternId, roleRequests);
        return n;
    }
    std::wstring typeOf(IUIAutomationElement* element, HRESULT* code = nullptr) {
        std::wstring type = L"<untouched>";
        const HRESULT hr = UiaHelper::GetControlType(element, type);
        if (code) *code = hr;
        return type;
    }
    std::wstring roleOf(fakeuia::Node& n) { return UiaHelper::GetAccRoleName(ElementRef(elementOf(n)).get()); }
    std::wstring patternsOf(fakeuia::Node& n) { return UiaHelper::GetControlPatterns(ElementRef(elementOf(n)).get()); }
    // Every small getter in one text.
    static std::wstring getters(IUIAutomationElement* e) {
        return L"hwnd=" + std::to_wstring(reinterpret_cast<std::uintptr_t>(UiaHelper::GetControlHwnd(e))) +
               L" offscreen=" + std::to_wstring(UiaHelper::IsControlOffscreen(e)) + L" focus=" +
               std::to_wstring(UiaHelper::HasControlFocus(e)) + L" enabled=" +
               std::to_wstring(UiaHelper::IsControlEnabled(e)) + L" help=" + UiaHelper::GetControlHelpText(e) +
               L" provider=" + UiaHelper::GetControlProviderDescription(e) + L" orientation=" +
               std::to_wstring(UiaHelper::GetControlOrientation(e)) + L" level=" +
               std::to_wstring(UiaHelper::GetControlLevel(e)) + L" type=" +
               std::to_wstring(UiaHelper::GetControlTypeId(e));
    }

    std::shared_ptr<fakeuia::LegacyIAccessibleSource> legacy;
    std::shared_ptr<CountingSource> roleRequests;
};

}  // namespace

// The names of the control types 50000 (Button) to 50040 (AppBar), and the
// ids of those names, without a gap; "UNKNOWN" outside.
TEST_F(Surface, ControlTypesByIdAndByName) {
    for (CONTROLTYPEID id = UIA_ButtonControlTypeId; id <= UIA_AppBarControlTypeId; ++id) {
        ElementRef element(elementOf(node(id)));
        HRESULT hr = E_FAIL;
        const std::wstring name = typeOf(element.get(), &hr);
        EXPECT_EQ(S_OK, hr) << id;
        EXPECT_NE(L"UNKNOWN", name) << id;
        EXPECT_EQ(static_cast<int>(id), UiaHelper::ControlTypeIdFromName(name)) << id << " back from its name";
    }
    EXPECT_EQ(L"Button", typeOf(ElementRef(elementOf(node(UIA_ButtonControlTypeId))).get()));
    EXPECT_EQ(L"AppBar", typeOf(ElementRef(elementOf(node(UIA_AppBarControlTypeId))).get()));
    for (CONTROLTYPEID id : {0, 49999, 50041, -50000, 0x7fffffff}) {
        ElementRef element(elementOf(node(id)));
        HRESULT hr = E_FAIL;
        EXPECT_EQ(L"UNKNOWN", typeOf(element.get(), &hr)) << id;
        EXPECT_EQ(S_OK, hr) << id;
        EXPECT_EQ(id, UiaHelper::GetControlTypeId(element.get())) << id;
    }
    for (const wchar_t* name : {L"ROW", L"CLIENT", L"button", L"Button ", L"", L"NN", L"UNKNOWN", L"Butto"}) {
        EXPECT_EQ(-1, UiaHelper::ControlTypeIdFromName(name)) << "'" << std::wstring(name).size() << "' characters";
    }
}

// A Custom element takes a ROW role as its type; a failed read other than
// access denied takes the role's name.
TEST_F(Surface, ControlTypesWithTheMsaaRoleAndFailures) {
    const DWORD UNREADABLE = 65;
    struct Row {
        const char* name;
        CONTROLTYPEID type;
        std::optional<DWORD> role;  // none: no LegacyIAccessible pattern
        HRESULT typeFailure;        // of get_CurrentControlType
        const char* roleFailure;    // a failing method of the role's pattern, or null
        const wchar_t* expected;
        HRESULT code;
        int roleRequests;
    };
    const Row rows[] = {
        {"Custom with role ROW", UIA_CustomControlTypeId, ROLE_SYSTEM_ROW, S_OK, nullptr, L"ROW", S_OK, 1},
        {"Custom with role CLIENT", UIA_CustomControlTypeId, ROLE_SYSTEM_CLIENT, S_OK, nullptr, L"Custom", S_OK, 1},
        {"Custom with a role outside the table", UIA_CustomControlTypeId, UNREADABLE, S_OK, nullptr, L"Custom", S_OK, 1},
        {"Custom with a failed role read", UIA_CustomControlTypeId, ROLE_SYSTEM_ROW, S_OK, "get_CurrentRole", L"Custom",
         S_OK, 1},
        {"Custom without the pattern", UIA_CustomControlTypeId, std::nullopt, S_OK, nullptr, L"Custom", S_OK, 0},
        {"Button reads no role", UIA_ButtonControlTypeId, ROLE_SYSTEM_ROW, S_OK, nullptr, L"Button", S_OK, 0},
        {"an unknown type reads no role", 50041, ROLE_SYSTEM_ROW, S_OK, nullptr, L"UNKNOWN", S_OK, 0},
        {"access denied: no type, no role", UIA_CustomControlTypeId, ROLE_SYSTEM_ROW, E_ACCESSDENIED, nullptr, L"",
         E_ACCESSDENIED, 0},
        {"another failure takes the role", UIA_ButtonControlTypeId, ROLE_SYSTEM_ROW, E_FAIL, nullptr, L"ROW", E_FAIL, 1},
        {"another failure with role CLIENT", UIA_ButtonControlTypeId, ROLE_SYSTEM_CLIENT, E_UNEXPECTED, nullptr, L"NN",
         E_UNEXPECTED, 1},
        {"another failure without role", UIA_ButtonControlTypeId, std::nullopt, E_FAIL, nullptr, L"NN", E_FAIL, 0},
    };
    for (const Row& row : rows) {
        fakeuia::Node& n = withRole(row.type, row.role);
        if (FAILED(row.typeFailure)) n.fail("get_CurrentControlType", row.typeFailure);
        if (row.roleFailure) legacy->fail(row.roleFailure, E_FAIL);
        ElementRef element(elementOf(n));
        HRESULT hr = S_OK;
        EXPECT_EQ(row.expected, typeOf(element.get(), &hr)) << row.name;
        EXPECT_EQ(row.code, hr) << row.name;
        EXPECT_EQ(row.roleRequests, roleRequests->opens.load()) << row.name;
        if (FAILED(row.typeFailure)) {
            EXPECT_EQ(0, UiaHelper::GetControlTypeId(element.get())) << row.name;
        }
    }
    fakeuia::Node& gone = node(UIA_ButtonControlTypeId);
    ElementRef element(elementOf(gone));
    gone.remove();
    HRESULT hr = S_OK;
    EXPECT_EQ(L"NN", typeOf(element.get(), &hr)) << "a gone element";
    EXPECT_EQ(fakeuia::kElementNotAvailable, hr);
}

TEST_F(Surface, RolesAndStatesByTheirConstants) {
    // Roles 1 (TITLEBAR) to 0x40 (OUTLINEBUTTON) have names; states have a
    // word for each of the 31 valid bits.
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, 0);
    for (DWORD role = ROLE_SYSTEM_TITLEBAR; role <= ROLE_SYSTEM_OUTLINEBUTTON; ++role) {
        legacy->role = role;
        EXPECT_NE(L"NN", roleOf(n)) << role;
    }
    for (const auto& row : {std::make_pair(ROLE_SYSTEM_TITLEBAR, L"TITLEBAR"), std::make_pair(ROLE_SYSTEM_ROW, L"ROW"),
                            std::make_pair(ROLE_SYSTEM_OUTLINEBUTTON, L"OUTLINEBUTTON")}) {
        legacy->role = row.first;
        EXPECT_EQ(row.second, roleOf(n)) << row.first;
    }
    for (DWORD role : {0ul, 65ul, 0x100ul, 0xfffffffful}) {
        legacy->role = role;
        EXPECT_EQ(L"NN", roleOf(n)) << "outside the table: " << role;
    }
    for (DWORD bit = 1; bit < 0x80000000ul; bit <<= 1) {
        legacy->state = bit;
        const std::wstring word = UiaHelper::GetAccStateNames(ElementRef(elementOf(n)).get());
        EXPECT_TRUE(!word.empty() && word.find(L',') == std::wstring::npos) << std::hex << bit << ": one word";
    }
    legacy->state = STATE_SYSTEM_SELECTED | STATE_SYSTEM_FOCUSABLE | 0x80000000ul;
    EXPECT_EQ(L"SELECTED,FOCUSABLE", UiaHelper::GetAccStateNames(ElementRef(elementOf(n)).get()))
        << "bits outside the table have no word";  // no bits, every bit: the attribute "accstate"

    legacy->role = ROLE_SYSTEM_ROW;
    legacy->fail("get_CurrentRole", E_FAIL);
    EXPECT_EQ(L"NN", roleOf(n)) << "a failed role read";
    legacy->clearFailures();
    legacy->available = false;
    EXPECT_EQ(L"NN", roleOf(n)) << "a pattern not available now";
    legacy->available = true;
    n.fail("GetCurrentPatternAs", E_FAIL);
    EXPECT_EQ(L"NN", roleOf(n)) << "a failed pattern request";
}

TEST_F(Surface, GettersReadFreshlyAndGiveDefaultsOnFailure) {
    auto full = [](fakeuia::NodeSpec& spec) {
        spec.nativeWindowHandle = fakeuia::hwnd(0x4242);
        spec.isOffscreen = true;
        spec.hasKeyboardFocus = true;
        spec.isEnabled = false;
        spec.helpText = L"Drag to choose";
        spec.providerDescription = L"[pid:4711,providerId:0x0 Main:Nested [pid:4711] (unmanaged:uiautomationcore.dll)]";
        spec.orientation = OrientationType_Vertical;
        spec.level = 3;
    };
    const std::wstring defaults =
        L"hwnd=0 offscreen=0 focus=0 enabled=1 help= provider= orientation=-1 level=-1 type=";
    fakeuia::Node& read = node(UIA_SliderControlTypeId, full);
    fakeuia::Node& plain = node(UIA_ButtonControlTypeId);
    fakeuia::Node& failing = node(UIA_SliderControlTypeId, full);
    for (const char* method : {"get_CurrentNativeWindowHandle", "get_CurrentIsOffscreen", "get_CurrentHasKeyboardFocus",
                               "get_CurrentIsEnabled", "get_CurrentHelpText", "get_CurrentOrientation",
                               "GetCurrentPropertyValue", "get_CurrentControlType"}) {
        failing.fail(method, E_FAIL);
    }
    fakeuia::Node& gone = node(UIA_SliderControlTypeId, full);
    fakeuia::Node& nullHelp = node(UIA_ButtonControlTypeId, [](fakeuia::NodeSpec& s) { s.helpText = L"not seen"; });
    nullHelp.nullString("get_CurrentHelpText");
    ElementRef goneElement(elementOf(gone));
    gone.remove();
    struct Row { const char* name; IUIAutomationElement* element; std::wstring expected; };
    ElementRef r(elementOf(read)), p(elementOf(plain)), f(elementOf(failing)), n(elementOf(nullHelp));
    const Row rows[] = {
        {"every property set", r.get(),
         L"hwnd=16962 offscreen=1 focus=1 enabled=0 help=Drag to choose provider=" +
             std::wstring(L"[pid:4711,providerId:0x0 Main:Nested [pid:4711] (unmanaged:uiautomationcore.dll)]") +
             L" orientation=2 level=3 type=50015"},
        {"a plain element", p.get(),
         L"hwnd=0 offscreen=0 focus=0 enabled=1 help= provider= orientation=0 level=0 type=50000"},
        {"failed reads", f.get(), defaults + L"0"},
        {"a gone element", goneElement.get(), defaults + L"0"},
        {"a null element", nullptr, defaults + L"0"},
        {"a null help text", n.get(),
         L"hwnd=0 offscreen=0 focus=0 enabled=1 help= provider= orientation=0 level=0 type=50000"},
    };
    for (const Row& row : rows) EXPECT_EQ(row.expected, getters(row.element)) << row.name;
    EXPECT_TRUE(platform->unmodeledPropertyReads().empty());

    read.update([](fakeuia::NodeSpec& s) {
        s.helpText = L"after";
        s.controlType = UIA_EditControlTypeId;
        s.isEnabled = true;
    });
    EXPECT_EQ(L"after", UiaHelper::GetControlHelpText(r.get())) << "every read is fresh";
    EXPECT_EQ(L"Edit", typeOf(r.get()));
    EXPECT_TRUE(UiaHelper::IsControlEnabled(r.get()));
}

TEST_F(Surface, PatternNamesAndTheListOfAnElementsPatterns) {
    EXPECT_EQ(L"Invoke", UiaHelper::GetPatternName(UIA_InvokePatternId));
    EXPECT_EQ(L"RangeValue", UiaHelper::GetPatternName(UIA_RangeValuePatternId));
    EXPECT_EQ(L"LegacyIAccessible", UiaHelper::GetPatternName(UIA_LegacyIAccessiblePatternId));
    EXPECT_EQ(L"SynchronizedInput", UiaHelper::GetPatternName(UIA_SynchronizedInputPatternId));
    EXPECT_EQ(L"NN", UiaHelper::GetPatternName(9999)) << "an unknown id";

    fakeuia::Node& none = node(UIA_ButtonControlTypeId);
    fakeuia::Node& two = node(UIA_EditControlTypeId);
    fakeuia::attach<fakeuia::ValueSource>(two, L"text");
    fakeuia::attach<fakeuia::InvokeSource>(two);
    fakeuia::Node& notNow = node(UIA_ButtonControlTypeId);
    fakeuia::attach<fakeuia::InvokeSource>(notNow)->available = false;
    fakeuia::attach<fakeuia::ToggleSource>(notNow);
    fakeuia::Node& failing = node(UIA_ButtonControlTypeId);
    fakeuia::attach<fakeuia::InvokeSource>(failing);
    failing.fail("GetCurrentPatternAs", E_FAIL);
    EXPECT_EQ(L" ", patternsOf(none)) << "none: one blank";
    EXPECT_EQ(L" Invoke Value ", patternsOf(two)) << "in the order of probing";
    EXPECT_EQ(L" Toggle ", patternsOf(notNow)) << "a pattern not supported now is left out";
    EXPECT_EQ(L" ", patternsOf(failing)) << "failed requests";

    platform->fail("GetPatternProgrammaticName", E_FAIL);
    EXPECT_EQ(L"NN", UiaHelper::GetPatternName(UIA_InvokePatternId));
    EXPECT_EQ(L" NN ", patternsOf(notNow)) << "an unnamed pattern";
}

TEST_F(Surface, RangeValuesAreReadAndSetWithTheCodesOfThePlatform) {
    using Failures = std::vector<std::pair<const char*, HRESULT>>;  // methods of the pattern or the element
    struct Row {
        const char* name;
        bool pattern;
        bool clamps;
        bool readOnly;
        Failures failures;
        HRESULT readCode;     // of GetRangeValue; S_FALSE: any success
        const wchar_t* read;  // value,minimum,maximum after the read from -1,-1,-1 (a failed call gives 0)
        double write;
        HRESULT writeCode;  // of SetRangeValue; S_FALSE: any success
        double after;       // the source's value after the write
    };
    const Row rows[] = {
        {"within the range", true, true, false, {}, S_OK, L"5,0,100", 42.25, S_OK, 42.25},
        {"a clamping slider fails although SetValue succeeded", true, true, false, {}, S_OK, L"5,0,100", 150, E_FAIL,
         100},
        {"a refusal", true, false, false, {}, S_OK, L"5,0,100", 150, E_INVALIDARG, 5},
        {"read-only", true, true, true, {}, S_OK, L"5,0,100", 50, fakeuia::kElementNotEnabled, 5},
        {"the read stops at the first failure", true, true, false,
         {{"get_CurrentMinimum", E_ACCESSDENIED}, {"get_CurrentMaximum", E_FAIL}}, E_ACCESSDENIED, L"5,0,-1", 50, S_OK,
         50},
        {"the code of the last call", true, true, false, {{"get_CurrentMaximum", E_UNEXPECTED}}, E_UNEXPECTED,
         L"5,0,0", 50, S_OK, 50},
        {"a failed read-back", true, true, false, {{"get_CurrentValue", E_UNEXPECTED}}, E_UNEXPECTED, L"0,-1,-1", 50,
         E_UNEXPECTED, 50},
        {"a failed pattern request", true, true, false, {{"GetCurrentPatternAs", E_ACCESSDENIED}}, E_ACCESSDENIED,
         L"-1,-1,-1", 50, E_ACCESSDENIED, 5},
        {"no pattern: the outputs stay", false, true, false, {}, S_FALSE, L"-1,-1,-1", 50, S_FALSE, 0},
    };
    for (const Row& row : rows) {
        fakeuia::Node& n = node(UIA_SliderControlTypeId);
        std::shared_ptr<fakeuia::RangeValueSource> range;
        if (row.pattern) {
            range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 0.0, 100.0);
            range->clamps = row.clamps;
            range->readOnly = row.readOnly;
            for (const auto& [method, hr] : row.failures) {
                if (method == std::string("GetCurrentPatternAs")) n.fail(method, hr);
                else range->fail(method, hr);
            }
        }
        ElementRef element(elementOf(n));
        double value = -1, minimum = -1, maximum = -1;
        const HRESULT read = UiaHelper::GetRangeValue(element.get(), value, minimum, maximum);
        EXPECT_TRUE(row.readCode == S_FALSE ? SUCCEEDED(read) : read == row.readCode) << row.name << std::hex << read;
        auto number = [](double v) { return std::to_wstring(static_cast<int>(v)); };
        EXPECT_EQ(row.read, number(value) + L"," + number(minimum) + L"," + number(maximum)) << row.name;
        const HRESULT write = UiaHelper::SetRangeValue(element.get(), row.write);
        EXPECT_TRUE(row.writeCode == S_FALSE ? SUCCEEDED(write) : write == row.writeCode) << row.name << std::hex << write;
        if (range) {
            EXPECT_EQ(row.after, range->value) << row.name;
            EXPECT_EQ(row.writeCode == E_ACCESSDENIED ? 0 : 1, range->setValueCalls) << row.name;
        }
    }
}

// An answer of a helper as text, whatever its type.
std::wstring said(bool value) { return value ? L"true" : L"false"; }
std::wstring said(long value) { return std::to_wstring(value); }
std::wstring said(int value) { return std::to_wstring(value); }
std::wstring said(const std::wstring& value) { return value; }
std::wstring said(const UiaHelper::GridPair& pair) {
    return pair.size() == 2 ? said(pair[0]) + L"," + said(pair[1]) : L"<size>";
}
std::wstring said(const UiaHelper::ElementList& list) { return L"list of " + said(static_cast<int>(list.size())); }
std::wstring said(IUIAutomationElement* element) { return element ? L"element" : L"null"; }

// An element that Java or the platform couldn't give (no element at a point,
// a parent that went away) is answered as an element without the pattern.
TEST_F(Surface, ANullElementIsAnsweredNotCalledThrough) {
    double a = 7, b = 8, c = 9, d = 0, e = 0;
    int pid = 5;
    std::wstring text = L"old", value = L"kept";
    struct Row { const char* call; std::function<std::wstring()> answer; const wchar_t* expected; };
#define ROW(call, expected) {#call, [&] { return said(UiaHelper::call); }, expected}
    const std::vector<Row> rows = {
        ROW(GetControlType(nullptr, text), L"-2147024809"), ROW(GetControlTypeId(nullptr), L"0"),
        ROW(GetControlPatterns(nullptr), L" "), ROW(GetAccRoleName(nullptr), L"NN"),
        ROW(GetControlClassName(nullptr), L""), ROW(GetControlProcessId(nullptr, &pid), L"-2147024809"),
        ROW(GetRangeValue(nullptr, a, b, c), L"-2147024809"), ROW(SetRangeValue(nullptr, 1.0), L"-2147024809"),
        ROW(HasAncestorWithPid(nullptr, 1), L"false"), ROW(MoveControl(nullptr, 1, 1), L"false"),
        ROW(ResizeControl(nullptr, 1, 1), L"false"), ROW(CloseControl(nullptr), L"false"),
        ROW(DoDefaultAction(nullptr), L"false"), ROW(DoInvoke(nullptr), L"false"), ROW(DoSelect(nullptr, 1), L"false"),
        ROW(DoExpand(nullptr, true), L"false"), ROW(GetExpandState(nullptr), L"-1"), ROW(GetToggleState(nullptr), L"-1"),
        ROW(SetToggleState(nullptr, 1), L"false"), ROW(GetScrollPercent(nullptr, d, e), L"false"),
        ROW(GetViewSize(nullptr, d, e), L"false"), ROW(DoScroll(nullptr, 10, 10), L"false"),
        ROW(GetGridColumnAndRowCount(nullptr), L"-1,-1"), ROW(GetGridItem(nullptr, 0, 0), L"null"),
        ROW(GetGridItemColumnAndRow(nullptr), L"-1,-1"), ROW(GetColumnHeaders(nullptr), L"list of 0"),
        ROW(IsSelected(nullptr), L"false"), ROW(GetControlInteractionState(nullptr), L"-1"),
        ROW(IsControlModal(nullptr), L"false"), ROW(HasWindowPattern(nullptr), L"false"),
        ROW(IsTextReadOnly(nullptr), L"false"), ROW(GetControlChildId(nullptr), L"0"),
        ROW(GetAccStateNames(nullptr), L""), ROW(GetAccValue(nullptr), L""), ROW(GetAccDescription(nullptr), L""),
        {"GetControlValue fails", [&] { return said(FAILED(UiaHelper::GetControlValue(nullptr, value))); }, L"true"},
        ROW(SetControlValue(nullptr, L"x"), L"false"),
    };
#undef ROW
    for (const Row& row : rows) {
        std::fprintf(stderr, "%s\n", row.call);  // names the row if the call brings the process down
        EXPECT_EQ(row.expected, row.answer()) << row.call;
    }
    EXPECT_EQ(L"", text) << "the type is preset";
    EXPECT_EQ(0, pid) << "the pid is preset";
    EXPECT_EQ(24, a + b + c) << "range outputs stay";
    EXPECT_EQ(L"kept", value) << "the value stays";
}
