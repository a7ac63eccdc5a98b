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
    if (automation) automation->Release();
    EXPECT_EQ(0, platform->outstandingReferences()) << "still held: " << platform->outstandingBreakdown();
    expectNoUnsupportedCalls();
    platform->uninstall();
    tolva::tolvacore::log::Log::removeWriter(capture);
    if (HasFailure()) std::cerr << "---- driver log ----\n" << logText() << "--------------------\n";
}

fakeuia::Node& HelperTest::window(const std::wstring& name, int pid, const std::wstring& className) {
    return platform->desktop().add({.controlType = UIA_WindowControlTypeId, .name = name, .className = className,
                                    .processId = pid, .bounds = {0, 0, 640, 480}});
}

IUIAutomationElement* HelperTest::elementOf(fakeuia::Node& node) {
    IUIAutomationElement* root = nullptr;
    automation->GetRootElement(&root);
    if (node.isRoot()) return root;
    // A search from the root finds the node by its runtime id.
    const std::vector<int> id = node.runtimeId();
    VARIANT value;
    value.vt = VT_I4 | VT_ARRAY;
    value.parray = SafeArrayCreateVector(VT_I4, 0, static_cast<ULONG>(id.size()));
    for (LONG i = 0; i < static_cast<LONG>(id.size()); ++i) SafeArrayPutElement(value.parray, &i, const_cast<int*>(&id[i]));
    IUIAutomationCondition* condition = nullptr;
    automation->CreatePropertyCondition(UIA_RuntimeIdPropertyId, value, &condition);
    IUIAutomationElement* found = nullptr;
    if (!id.empty()) root->FindFirst(TreeScope_Descendants, condition, &found);
    VariantClear(&value);
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
    for (const auto& record : capture->records()) text += tolva::tolvacore::log::formatRecord(record) + "\n";
    return text;
}

}  // namespace dwtest
