// The getters of the element helpers that go through control patterns: the
// MSAA role behind a control-type name, the range value, the pattern list.
#include "HelperTest.h"

#include "FakeUiaPatterns.h"
#include "uiahelper/UiaHelper.h"

#include <oleacc.h>

#include <atomic>

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

class SurfacePatterns : public HelperTest {
protected:
    fakeuia::Node& node(CONTROLTYPEID type) {
        fakeuia::NodeSpec spec;
        spec.controlType = type;
        return window(L"w").add(spec);
    }
    // A node with an MSAA role, whose role requests are counted.
    fakeuia::Node& withRole(CONTROLTYPEID type, DWORD role) {
        fakeuia::Node& n = node(type);
        legacy = std::make_shared<fakeuia::LegacyIAccessibleSource>();
        legacy->role = role;
        roleRequests = std::make_shared<CountingSource>(legacy);
        n.attachPattern(UIA_LegacyIAccessiblePatternId, roleRequests);
        return n;
    }
    std::wstring typeOf(fakeuia::Node& n, HRESULT* code = nullptr) {
        ElementRef element(elementOf(n));
        std::wstring type = L"<untouched>";
        const HRESULT hr = UiaHelper::GetControlType(element.get(), type);
        if (code) *code = hr;
        return type;
    }
    std::wstring roleOf(fakeuia::Node& n) {
        ElementRef element(elementOf(n));
        return UiaHelper::GetAccRoleName(element.get());
    }
    std::wstring patternsOf(fakeuia::Node& n) {
        ElementRef element(elementOf(n));
        return UiaHelper::GetControlPatterns(element.get());
    }

    std::shared_ptr<fakeuia::LegacyIAccessibleSource> legacy;
    std::shared_ptr<CountingSource> roleRequests;
};

}  // namespace

// --- MSAA role ---------------------------------------------------------------------------

TEST_F(SurfacePatterns, RoleNameOfEveryRole) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, 0);
    for (DWORD role = 1; role <= 64; ++role) {
        legacy->role = role;
        EXPECT_EQ(UiaHelper::ACC_ROLE_NAMES[role - 1], roleOf(n)) << role;
    }
    EXPECT_EQ(L"ROW", (legacy->role = ROLE_SYSTEM_ROW, roleOf(n)));
    EXPECT_EQ(L"OUTLINEBUTTON", (legacy->role = ROLE_SYSTEM_OUTLINEBUTTON, roleOf(n)));
}

TEST_F(SurfacePatterns, RoleOutsideTheTableIsNN) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, 0);
    for (DWORD role : {0ul, 65ul, 0x100ul, 0xfffffffful}) {
        legacy->role = role;
        EXPECT_EQ(L"NN", roleOf(n)) << role;
    }
}

TEST_F(SurfacePatterns, FailedRoleReadIsNN) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, ROLE_SYSTEM_ROW);
    legacy->fail("get_CurrentRole", E_FAIL);
    EXPECT_EQ(L"NN", roleOf(n));
}

TEST_F(SurfacePatterns, RoleOfAnUnavailablePatternIsNN) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, ROLE_SYSTEM_ROW);
    legacy->available = false;
    EXPECT_EQ(L"NN", roleOf(n));
    EXPECT_EQ(1, roleRequests->opens);
}

TEST_F(SurfacePatterns, FailedPatternRequestGivesRoleNN) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, ROLE_SYSTEM_ROW);
    n.fail("GetCurrentPatternAs", E_FAIL);
    EXPECT_EQ(L"NN", roleOf(n));
}

// --- Control type with the MSAA role -------------------------------------------------------

TEST_F(SurfacePatterns, CustomWithRoleRowIsRow) {
    fakeuia::Node& n = withRole(UIA_CustomControlTypeId, ROLE_SYSTEM_ROW);
    HRESULT hr = E_FAIL;
    EXPECT_EQ(L"ROW", typeOf(n, &hr));
    EXPECT_EQ(S_OK, hr);
    EXPECT_EQ(1, roleRequests->opens);
}

TEST_F(SurfacePatterns, CustomWithRoleClientStaysCustom) {
    fakeuia::Node& n = withRole(UIA_CustomControlTypeId, ROLE_SYSTEM_CLIENT);
    HRESULT hr = E_FAIL;
    EXPECT_EQ(L"Custom", typeOf(n, &hr));
    EXPECT_EQ(S_OK, hr);
    EXPECT_EQ(1, roleRequests->opens);
}

TEST_F(SurfacePatterns, CustomWithUnreadableRoleStaysCustom) {
    fakeuia::Node& n = withRole(UIA_CustomControlTypeId, 65);
    EXPECT_EQ(L"Custom", typeOf(n));
    legacy->role = ROLE_SYSTEM_ROW;
    legacy->fail("get_CurrentRole", E_FAIL);
    EXPECT_EQ(L"Custom", typeOf(n));
    legacy->clearFailures();
    legacy->available = false;
    EXPECT_EQ(L"Custom", typeOf(n));
}

TEST_F(SurfacePatterns, OtherTypesDontReadTheRole) {
    for (CONTROLTYPEID type : {UIA_ButtonControlTypeId, UIA_PaneControlTypeId, UIA_DataItemControlTypeId}) {
        fakeuia::Node& n = withRole(type, ROLE_SYSTEM_ROW);
        EXPECT_EQ(UiaHelper::CONTROL_TYPE_NAMES[static_cast<size_t>(type - 50000)], typeOf(n));
        EXPECT_EQ(0, roleRequests->opens) << type;
    }
}

TEST_F(SurfacePatterns, UnknownTypeDoesntReadTheRole) {
    fakeuia::Node& n = withRole(50041, ROLE_SYSTEM_ROW);
    EXPECT_EQ(L"UNKNOWN", typeOf(n));
    EXPECT_EQ(0, roleRequests->opens);
}

TEST_F(SurfacePatterns, AccessDeniedReadsNoRole) {
    fakeuia::Node& n = withRole(UIA_CustomControlTypeId, ROLE_SYSTEM_ROW);
    n.fail("get_CurrentControlType", E_ACCESSDENIED);
    HRESULT hr = S_OK;
    EXPECT_EQ(L"", typeOf(n, &hr));
    EXPECT_EQ(E_ACCESSDENIED, hr);
    EXPECT_EQ(0, roleRequests->opens);
}

TEST_F(SurfacePatterns, OtherFailureTakesTheRoleAndKeepsTheCode) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, ROLE_SYSTEM_ROW);
    n.fail("get_CurrentControlType", E_FAIL);
    HRESULT hr = S_OK;
    EXPECT_EQ(L"ROW", typeOf(n, &hr));
    EXPECT_EQ(E_FAIL, hr);
    EXPECT_EQ(1, roleRequests->opens);
}

TEST_F(SurfacePatterns, OtherFailureWithRoleClientIsNN) {
    fakeuia::Node& n = withRole(UIA_ButtonControlTypeId, ROLE_SYSTEM_CLIENT);
    n.fail("get_CurrentControlType", E_UNEXPECTED);
    HRESULT hr = S_OK;
    EXPECT_EQ(L"NN", typeOf(n, &hr));
    EXPECT_EQ(E_UNEXPECTED, hr);
}

// --- Range value ----------------------------------------------------------------------------

TEST_F(SurfacePatterns, RangeValueReadsValueMinimumMaximum) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    fakeuia::attach<fakeuia::RangeValueSource>(n, 25.5, -10.0, 100.0);
    ElementRef element(elementOf(n));
    double value = 0, minimum = 0, maximum = 0;
    EXPECT_EQ(S_OK, UiaHelper::GetRangeValue(element.get(), value, minimum, maximum));
    EXPECT_EQ(25.5, value);
    EXPECT_EQ(-10.0, minimum);
    EXPECT_EQ(100.0, maximum);
}

TEST_F(SurfacePatterns, RangeValueWithoutPatternLeavesTheOutputs) {
    ElementRef element(elementOf(node(UIA_SliderControlTypeId)));
    double value = 1, minimum = 2, maximum = 3;
    EXPECT_TRUE(SUCCEEDED(UiaHelper::GetRangeValue(element.get(), value, minimum, maximum)));
    EXPECT_EQ(1, value);
    EXPECT_EQ(2, minimum);
    EXPECT_EQ(3, maximum);
}

TEST_F(SurfacePatterns, RangeValueStopsAtTheFirstFailure) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 1.0, 9.0);
    range->fail("get_CurrentMinimum", E_ACCESSDENIED);
    range->fail("get_CurrentMaximum", E_FAIL);
    ElementRef element(elementOf(n));
    double value = -1, minimum = -1, maximum = -1;
    EXPECT_EQ(E_ACCESSDENIED, UiaHelper::GetRangeValue(element.get(), value, minimum, maximum));
    EXPECT_EQ(5.0, value);
    EXPECT_EQ(-1, maximum);
}

TEST_F(SurfacePatterns, RangeValueGivesTheCodeOfTheLastCall) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 1.0, 9.0);
    range->fail("get_CurrentMaximum", E_UNEXPECTED);
    ElementRef element(elementOf(n));
    double value = -1, minimum = -1, maximum = -1;
    EXPECT_EQ(E_UNEXPECTED, UiaHelper::GetRangeValue(element.get(), value, minimum, maximum));
    EXPECT_EQ(5.0, value);
    EXPECT_EQ(1.0, minimum);
    range->clearFailures();
    range->fail("get_CurrentValue", E_FAIL);
    EXPECT_EQ(E_FAIL, UiaHelper::GetRangeValue(element.get(), value, minimum, maximum));
}

TEST_F(SurfacePatterns, SetRangeValueWithinTheRange) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 0.0, 100.0);
    ElementRef element(elementOf(n));
    EXPECT_EQ(S_OK, UiaHelper::SetRangeValue(element.get(), 42.25));
    EXPECT_EQ(42.25, range->value);
    EXPECT_EQ(1, range->setValueCalls);
}

TEST_F(SurfacePatterns, ClampingSliderFailsAlthoughSetValueSucceeded) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 0.0, 100.0);
    range->clamps = true;
    ElementRef element(elementOf(n));
    EXPECT_EQ(E_FAIL, UiaHelper::SetRangeValue(element.get(), 150.0));
    EXPECT_EQ(1, range->setValueCalls);
    ASSERT_EQ(1u, range->setValueArguments.size());
    EXPECT_EQ(150.0, range->setValueArguments[0]);
    EXPECT_EQ(100.0, range->value);
}

TEST_F(SurfacePatterns, SetRangeValueGivesTheCodeOfARefusal) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 0.0, 100.0);
    range->clamps = false;
    ElementRef element(elementOf(n));
    EXPECT_EQ(E_INVALIDARG, UiaHelper::SetRangeValue(element.get(), 150.0));
    range->readOnly = true;
    EXPECT_EQ(fakeuia::kElementNotEnabled, UiaHelper::SetRangeValue(element.get(), 50.0));
    EXPECT_EQ(5.0, range->value);
}

TEST_F(SurfacePatterns, SetRangeValueGivesTheCodeOfAFailedReadBack) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 0.0, 100.0);
    range->fail("get_CurrentValue", E_UNEXPECTED);
    ElementRef element(elementOf(n));
    EXPECT_EQ(E_UNEXPECTED, UiaHelper::SetRangeValue(element.get(), 50.0));
    EXPECT_EQ(50.0, range->value);
}

TEST_F(SurfacePatterns, SetRangeValueWithoutPatternSucceeds) {
    ElementRef element(elementOf(node(UIA_SliderControlTypeId)));
    EXPECT_TRUE(SUCCEEDED(UiaHelper::SetRangeValue(element.get(), 50.0)));
}

TEST_F(SurfacePatterns, SetRangeValueWithAFailedPatternRequestGivesItsCode) {
    fakeuia::Node& n = node(UIA_SliderControlTypeId);
    auto range = fakeuia::attach<fakeuia::RangeValueSource>(n, 5.0, 0.0, 100.0);
    n.fail("GetCurrentPatternAs", E_ACCESSDENIED);
    ElementRef element(elementOf(n));
    EXPECT_EQ(E_ACCESSDENIED, UiaHelper::SetRangeValue(element.get(), 50.0));
    EXPECT_EQ(0, range->setValueCalls);
}

// --- Pattern list ------------------------------------------------------------------------------

TEST_F(SurfacePatterns, PatternsInTheOrderOfProbing) {
    fakeuia::Node& n = node(UIA_EditControlTypeId);
    fakeuia::attach<fakeuia::ValueSource>(n, L"text");
    fakeuia::attach<fakeuia::InvokeSource>(n);
    EXPECT_EQ(L" Invoke Value ", patternsOf(n));
}

TEST_F(SurfacePatterns, EveryPatternIsProbed) {
    fakeuia::Node& n = node(UIA_CustomControlTypeId);
    fakeuia::attach<fakeuia::SynchronizedInputSource>(n);
    fakeuia::attach<fakeuia::VirtualizedItemSource>(n);
    fakeuia::attach<fakeuia::ItemContainerSource>(n);
    fakeuia::attach<fakeuia::LegacyIAccessibleSource>(n);
    fakeuia::attach<fakeuia::ScrollItemSource>(n);
    fakeuia::attach<fakeuia::TransformSource>(n);
    fakeuia::attach<fakeuia::ToggleSource>(n);
    fakeuia::attach<fakeuia::TextSource>(n);
    fakeuia::attach<fakeuia::TableItemSource>(n);
    fakeuia::attach<fakeuia::TableSource>(n);
    fakeuia::attach<fakeuia::DockSource>(n);
    fakeuia::attach<fakeuia::SelectionItemSource>(n);
    fakeuia::attach<fakeuia::WindowSource>(n);
    fakeuia::attach<fakeuia::MultipleViewSource>(n);
    fakeuia::attach<fakeuia::GridItemSource>(n);
    fakeuia::attach<fakeuia::GridSource>(n);
    fakeuia::attach<fakeuia::ExpandCollapseSource>(n);
    fakeuia::attach<fakeuia::ScrollSource>(n);
    fakeuia::attach<fakeuia::RangeValueSource>(n);
    fakeuia::attach<fakeuia::ValueSource>(n);
    fakeuia::attach<fakeuia::SelectionSource>(n);
    fakeuia::attach<fakeuia::InvokeSource>(n);
    EXPECT_EQ(L" Invoke Selection Value RangeValue Scroll ExpandCollapse Grid GridItem MultipleView Window"
              L" SelectionItem Dock Table TableItem Text Toggle Transform ScrollItem LegacyIAccessible"
              L" ItemContainer VirtualizedItem SynchronizedInput ",
              patternsOf(n));
}

TEST_F(SurfacePatterns, PatternNotSupportedNowIsLeftOut) {
    fakeuia::Node& n = node(UIA_ButtonControlTypeId);
    auto invoke = fakeuia::attach<fakeuia::InvokeSource>(n);
    fakeuia::attach<fakeuia::ToggleSource>(n);
    invoke->available = false;
    EXPECT_EQ(L" Toggle ", patternsOf(n));
}

TEST_F(SurfacePatterns, FailedPatternRequestsGiveOneBlank) {
    fakeuia::Node& n = node(UIA_ButtonControlTypeId);
    fakeuia::attach<fakeuia::InvokeSource>(n);
    n.fail("GetCurrentPatternAs", E_FAIL);
    EXPECT_EQ(L" ", patternsOf(n));
}

TEST_F(SurfacePatterns, UnnamedPatternIsListedAsNN) {
    fakeuia::Node& n = node(UIA_ButtonControlTypeId);
    fakeuia::attach<fakeuia::InvokeSource>(n);
    platform->fail("GetPatternProgrammaticName", E_FAIL);
    EXPECT_EQ(L" NN ", patternsOf(n));
}
