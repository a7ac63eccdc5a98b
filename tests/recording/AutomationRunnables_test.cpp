// The recorder's work items run on their own, as the dispatch thread runs
// them, over the simulated platform: preparing an element for recording, and
// taking the automation handlers down.
#include "element/UiaControl.h"
#include "recording/AutoEventPosters.h"
#include "recording/UiaAutoEventHandler.h"
#include "events/EventFilter.h"
#include "uiahelper/Common.h"

#include "FakeUia.h"
#include "JniHost.h"
#include "OwnWindow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace tolva;

namespace {

// What the cover window got with the message that Java is done, and the
// element's name as it read it then.
std::atomic<WPARAM> received{0};
std::wstring nameInCover;

LRESULT CALLBACK coverProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message != COVER_DONE_MESSAGE) return DefWindowProcW(hwnd, message, wParam, lParam);
    BSTR name = nullptr;
    reinterpret_cast<IUIAutomationElement*>(wParam)->get_CurrentName(&name);
    nameInCover = name ? name : L"";
    SysFreeString(name);
    received = wParam;
    return 0;
}

class AutomationRunnables : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
        ASSERT_EQ(S_OK, platform.install());
        window = &platform.desktop().add({.controlType = UIA_WindowControlTypeId, .name = L"Main",
                                          .processId = static_cast<int>(GetCurrentProcessId()),
                                          .bounds = {10, 10, 410, 310}});
        button = &window->add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {20, 20, 80, 40}});
        IUIAutomation* created = nullptr;
        ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CUIAutomation, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                                         reinterpret_cast<void**>(&created)));
        installAutomation(created);
    }
    void TearDown() override {
        UiaAutoEventHandler::UninstallAutoEventHandlers();
        UiaControl::removeControls();
        withdrawAutomation().reset();
        EXPECT_TRUE(platform.waitForEvents(5000));
        EXPECT_EQ(0, platform.outstandingReferences()) << platform.outstandingBreakdown();
        platform.uninstall();
    }
    // The element of the button, with a reference for the caller.
    IUIAutomationElement* buttonElement() {
        ComPtr<IUIAutomationTreeWalker> walker;
        ComPtr<IUIAutomationElement> root, top;
        IUIAutomationElement* found = nullptr;
        automation()->get_RawViewWalker(walker.put());
        automation()->GetRootElement(root.put());
        walker->GetFirstChildElement(root.get(), top.put());
        walker->GetFirstChildElement(top.get(), &found);
        return found;
    }

    fakeuia::Platform platform;
    fakeuia::Node* window = nullptr;
    fakeuia::Node* button = nullptr;
};

// Java is asked to prepare the element by the handle of its control.
TEST_F(AutomationRunnables, PrepareRecordingStartHandsJavaTheElementsHandle) {
    jnihost::JavaHost host;
    EventFilter& filter = EventFilter::getInstance();
    filter.setJavaVM(host.vm());
    filter.setJavaCallbackObject(host.attachCurrentThread(), host.callbackObject());
    ComPtr<IUIAutomationElement> element = ComPtr<IUIAutomationElement>::attach(buttonElement());
    std::thread dispatch([&] {
        filter.attachThread();
        PrepareRecordingStart start(element.get());
        start();
        filter.detachThread();
    });
    dispatch.join();
    ASSERT_EQ(1u, host.calls("onPrepareRecording").size());
    const jlong handle = host.calls("onPrepareRecording")[0].args[0].j;
    EXPECT_TRUE(UiaControl::isValidHandle(static_cast<std::intptr_t>(handle)));
    EXPECT_EQ(handle, static_cast<jlong>(UiaControl::getControl(element.get(), L"", nullptr)->handle()));
    EXPECT_TRUE(host.violations().empty());
}

// The cover gets the element while it is still held and may read it; then,
// and also when the cover is gone or the work never ran, the reference goes.
TEST_F(AutomationRunnables, PrepareRecordingEndGivesTheCoverTheElementThenLetsItGo) {
    dwtest::registerClass(L"DeskwrightCover", coverProc);
    std::atomic<HWND> cover{nullptr};
    std::atomic<bool> done{false};
    std::thread overlay([&] {
        dwtest::OwnWindow own(L"DeskwrightCover", L"cover");
        cover = own.hwnd;
        MSG message;
        while (!done) {
            while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
            Sleep(1);
        }
    });
    while (!cover) Sleep(1);
    const long before = platform.outstandingReferences();

    IUIAutomationElement* element = buttonElement();
    PrepareRecordingEnd{cover, element}();
    EXPECT_EQ(reinterpret_cast<WPARAM>(element), received.load());
    EXPECT_EQ(L"OK", nameInCover);
    EXPECT_EQ(before, platform.outstandingReferences()) << "sent to a live cover";

    done = true;
    overlay.join();
    PrepareRecordingEnd{cover, buttonElement()}();
    EXPECT_EQ(before, platform.outstandingReferences()) << "sent to a cover that is gone";
    delete new PrepareRecordingEnd(cover, buttonElement());
    EXPECT_EQ(before, platform.outstandingReferences()) << "never run";
}

// Taking the handlers down twice does nothing the second time, and removes
// nothing that isn't registered.
TEST_F(AutomationRunnables, HandlersTakenDownTwiceAreGoneOnce) {
    const int pid = static_cast<int>(GetCurrentProcessId());
    EXPECT_TRUE(UiaAutoEventHandler::InstallAutoEventHandlers(pid, LISTEN_AUTOMATION));
    EXPECT_EQ(1u + 10u, platform.eventHandlers().size());
    UiaAutoEventHandler::UninstallAutoEventHandlers();
    EXPECT_TRUE(platform.eventHandlers().empty());
    UiaAutoEventHandler::UninstallAutoEventHandlers();
    EXPECT_TRUE(platform.eventHandlers().empty());
    EXPECT_EQ(0, platform.unmatchedHandlerRemovals());
}

// A registration that fails makes the result false and stops none of the
// others; a target without a window has only the desktop's handler.
TEST_F(AutomationRunnables, FailedRegistrationsAndMissingWindowsMakeTheResultFalse) {
    const int pid = static_cast<int>(GetCurrentProcessId());
    platform.fail("AddStructureChangedEventHandler", E_FAIL);
    EXPECT_FALSE(UiaAutoEventHandler::InstallAutoEventHandlers(pid, 0x00E));
    EXPECT_EQ(1u + 11u, platform.eventHandlers().size()) << "the others stopped";
    platform.clearFailure("AddStructureChangedEventHandler");
    UiaAutoEventHandler::UninstallAutoEventHandlers();
    window->remove();
    EXPECT_FALSE(UiaAutoEventHandler::InstallAutoEventHandlers(pid, 0x00E));
    ASSERT_EQ(1u, platform.eventHandlers().size());
    EXPECT_EQ(&platform.desktop(), platform.eventHandlers()[0].node);
}

}  // namespace
