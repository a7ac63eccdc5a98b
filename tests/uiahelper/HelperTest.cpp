#include "HelperTest.h"

#include "uiahelper/Common.h"

#include <objbase.h>

namespace dwtest {

void HelperTest::SetUp() {
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    // Every logger at its finest level, into the capture writer.
    tolva::tolvacore::log::Log::setOutputLogLevel(10);
    capture = boost::shared_ptr<tolva::tolvacore::log::CaptureWriter>(new tolva::tolvacore::log::CaptureWriter());
    tolva::tolvacore::log::Log::addWriter(capture);
    platform = std::make_unique<fakeuia::Platform>();
    ASSERT_TRUE(SUCCEEDED(platform->install()));
    ASSERT_TRUE(SUCCEEDED(CoCreateInstance(CLSID_CUIAutomation, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                                           reinterpret_cast<void**>(&automation))));
    automation->AddRef();
    tolva::installAutomation(automation);  // the helpers' own reference
}

void HelperTest::TearDown() {
    tolva::withdrawAutomation().reset();
    if (automation) {
        automation->Release();
    }
    EXPECT_EQ(0, platform->outstandingReferences()) << "still held: " << platform->outstandingBreakdown();
    expectNoUnsupportedCalls();
    platform->uninstall();
    tolva::tolvacore::log::Log::removeWriter(capture);
    if (HasFailure()) {
        std::cerr << "---- driver log ----\n" << logText() << "--------------------\n";
    }
}

fakeuia::Node& HelperTest::window(const std::wstring& name, int pid, const std::wstring& className) {
    fakeuia::NodeSpec spec;
    spec.controlType = UIA_WindowControlTypeId;
    spec.name = name;
    spec.className = className;
    spec.processId = pid;
    spec.bounds = {0, 0, 640, 480};
    return platform->desktop().add(spec);
}

IUIAutomationElement* HelperTest::elementOf(fakeuia::Node& node) {
    // A search from the root finds the node by its runtime id.
    std::vector<int> id = node.runtimeId();
    IUIAutomationElement* root = nullptr;
    automation->GetRootElement(&root);
    if (node.isRoot()) {
        return root;
    }
    IUIAutomationCondition* condition = nullptr;
    automation->CreateTrueCondition(&condition);
    IUIAutomationElementArray* all = nullptr;
    root->FindAll(TreeScope_Descendants, condition, &all);
    IUIAutomationElement* found = nullptr;
    int length = 0;
    all->get_Length(&length);
    for (int i = 0; i < length && !found; ++i) {
        IUIAutomationElement* element = nullptr;
        all->GetElement(i, &element);
        SAFEARRAY* runtimeId = nullptr;
        element->GetRuntimeId(&runtimeId);
        std::vector<int> ids;
        if (runtimeId) {
            LONG lower = 0;
            LONG upper = -1;
            SafeArrayGetLBound(runtimeId, 1, &lower);
            SafeArrayGetUBound(runtimeId, 1, &upper);
            for (LONG k = lower; k <= upper; ++k) {
                int value = 0;
                SafeArrayGetElement(runtimeId, &k, &value);
                ids.push_back(value);
            }
            SafeArrayDestroy(runtimeId);
        }
        if (!ids.empty() && ids == id) {
            found = element;
        } else {
            element->Release();
        }
    }
    all->Release();
    condition->Release();
    root->Release();
    return found;
}

void HelperTest::expectNoUnsupportedCalls() {
    for (const std::string& call : platform->unsupportedCalls()) {
        ADD_FAILURE() << "unsupported automation call: " << call;
    }
}

std::string HelperTest::logText() const {
    std::string text;
    for (const auto& record : capture->records()) {
        text += tolva::tolvacore::log::formatRecord(record) + "\n";
    }
    return text;
}

}  // namespace dwtest
