// The life of a control inside the driver: the element it holds and its
// reference counts, and a control that a thread is using while another
// removes it.
#include "HelperTest.h"

#include "element/UiaControl.h"

using dwtest::ElementRef;
using tolva::ControlRef;
using tolva::UiaControl;

namespace {

class ControlLife : public dwtest::HelperTest {
protected:
    void TearDown() override {
        UiaControl::removeControls();
        HelperTest::TearDown();
    }
    // The reference count of an element object, read without changing it.
    static ULONG countOf(IUIAutomationElement* element) {
        element->AddRef();
        return element->Release();
    }
    static std::intptr_t handleOf(UiaControl* control) { return reinterpret_cast<std::intptr_t>(control); }
};

}  // namespace

TEST_F(ControlLife, TheControlHoldsOneReferenceToTheLatestElementObject) {
    fakeuia::Node& node = window(L"Main");
    ElementRef first(elementOf(node));
    ElementRef second(elementOf(node));
    ASSERT_NE(first.get(), second.get()) << "each read is a new object";

    UiaControl* control = UiaControl::getControl(first.get(), L"", nullptr);
    ASSERT_NE(nullptr, control);
    EXPECT_EQ(2u, countOf(first.get())) << "ours and the control's";
    EXPECT_EQ(control, UiaControl::getControl(first.get(), L"", nullptr));
    EXPECT_EQ(2u, countOf(first.get())) << "the same object again changes no count";
    EXPECT_EQ(control, UiaControl::getControl(second.get(), L"", nullptr)) << "one widget, one control";
    EXPECT_EQ(1u, countOf(first.get())) << "the old object was given up";
    EXPECT_EQ(2u, countOf(second.get()));
    EXPECT_EQ(second.get(), control->getElement().get());
    control->setElement(nullptr);
    EXPECT_EQ(2u, countOf(second.get())) << "a null element changes nothing";
    EXPECT_EQ(second.get(), control->getElement().get());

    // A type given by the caller makes the key, while the field keeps the type read.
    UiaControl* asPane = UiaControl::getControl(first.get(), L"Pane", nullptr);
    ASSERT_NE(nullptr, asPane);
    EXPECT_NE(control, asPane) << "another type, another key";
    EXPECT_EQ(L"Pane_" + UiaControl::keyOf(control).substr(std::wstring(L"Window_").size()), UiaControl::keyOf(asPane));
    EXPECT_EQ(L"Window", asPane->type);
}

// Values that name no control (random ones, addresses inside controls) come
// through the natives in the fuzz test.
TEST_F(ControlLife, AControlInUseOutlivesItsRemoval) {
    ElementRef element(elementOf(window(L"Main")));
    UiaControl* control = UiaControl::getControl(element.get(), L"", nullptr);
    ASSERT_NE(nullptr, control);
    const std::size_t lines = logText().size();
    UiaControl::remove(handleOf(control) + 1);
    EXPECT_EQ(lines, logText().size()) << "removing what isn't there logs nothing";
    EXPECT_EQ(1u, UiaControl::size());

    ControlRef use = UiaControl::acquire(handleOf(control));
    ASSERT_TRUE(use);
    UiaControl::removeControls();
    EXPECT_EQ(0u, UiaControl::size());
    EXPECT_FALSE(UiaControl::isValidHandle(handleOf(control))) << "gone from the table at once";
    EXPECT_EQ(2u, countOf(element.get())) << "but still whole while in use";
    EXPECT_EQ(L"Window", use->type);
    EXPECT_EQ(element.get(), use->getElement().get());
    use.reset();
    EXPECT_EQ(1u, countOf(element.get())) << "deleted with the last use";

    control = UiaControl::getControl(element.get(), L"", nullptr);
    UiaControl::remove(handleOf(control));
    EXPECT_FALSE(UiaControl::isValidHandle(handleOf(control))) << "a removed control";
    EXPECT_EQ(1u, countOf(element.get())) << "the control gave its element back";
    UiaControl::removeControls();
    EXPECT_EQ(0u, UiaControl::size()) << "an empty table stays empty";
}
