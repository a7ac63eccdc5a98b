// The world of a test of the element helpers: the simulated platform with its
// desktop, an automation object made through it and set as the driver's own,
// the driver's log in a capture writer, and at the end the check that every
// object handed to the driver was released.
#pragma once

#include "FakeUia.h"

#include "tolvacore/log/CaptureWriter.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace dwtest {

class HelperTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A child of the desktop, or of another node.
    fakeuia::Node& window(const std::wstring& name, int pid = 4711, const std::wstring& className = L"Frame");
    // A new element object for a node, as a walk or search hands one out;
    // the caller releases it (or lets an ElementRef do so).
    IUIAutomationElement* elementOf(fakeuia::Node& node);
    // The calls that the simulation didn't support, turned into failures.
    void expectNoUnsupportedCalls();
    // True if the driver logged the text at that level.
    bool logged(short level, const std::string& text) const { return capture->contains(level, text); }
    std::string logText() const;

    std::unique_ptr<fakeuia::Platform> platform;
    IUIAutomation* automation = nullptr;
    boost::shared_ptr<tolva::tolvacore::log::CaptureWriter> capture;
};

// Owns one element reference for the length of a test.
class ElementRef {
public:
    explicit ElementRef(IUIAutomationElement* element = nullptr) : element_(element) {}
    ~ElementRef() { reset(); }
    ElementRef(const ElementRef&) = delete;
    ElementRef& operator=(const ElementRef&) = delete;
    IUIAutomationElement* get() const { return element_; }
    IUIAutomationElement* operator->() const { return element_; }
    void reset(IUIAutomationElement* element = nullptr) {
        if (element_) element_->Release();
        element_ = element;
    }

private:
    IUIAutomationElement* element_;
};

}  // namespace dwtest
