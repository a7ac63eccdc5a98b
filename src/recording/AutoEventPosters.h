// The work that the automation handlers and the process overlay hand to the
// dispatch thread: the event poster, the re-installation of the handlers when
// a window of the target comes or goes, and the two halves of preparing an
// element for recording.
#pragma once

#include "common/ComPtr.h"
#include "dispatch/Runnable.h"

#include <uiautomation.h>
#include <windows.h>

#include <cstdint>
#include <string>

namespace tolva {

class UiaControl;

// Codes of this system's own beside UI Automation's event ids.
enum AutomationEventCode : std::int32_t {
    EVENT_PROPERTY_CHANGED = 4096,   // param: the property id; text: the new value
    EVENT_STRUCTURE_CHANGED = 4097,  // param: the structure change type
};

// The name of an event id for the log: "WindowOpened", or the number.
std::wstring automationEventName(std::int32_t eventId);

// One UI Automation event on its way to Java. Made on the platform's thread,
// which stamps the time; run on the dispatch thread, where it finds the
// sender's control and hands a UIAutomationEvent to the event filter.
class UiaAutoEventPoster : public Runnable {
public:
    // Takes a reference of its own on the sender, given up when it runs or,
    // unrun, when it goes. runtimeId: the sender's as the platform's thread
    // read it, so that the dispatch thread needn't ask again; empty if unknown.
    UiaAutoEventPoster(IUIAutomationElement* sender, std::int32_t code, std::int32_t param, std::wstring text,
                       std::wstring runtimeId = std::wstring());
    std::int32_t operator()() override;

private:
    // "p=<parent handle>" for a child-added event; false if it is a repeat
    // within REPEAT_TICKS that thinning drops.
    bool describeAddedChild(UiaControl& control, std::int32_t mode);

    ComPtr<IUIAutomationElement> element_;
    std::int32_t code_;
    std::int32_t param_;
    std::wstring text_;
    std::wstring runtimeId_;
    std::int64_t timestamp_;
};

// Takes every automation handler down and installs them anew for the target,
// with the listener mode that stands when it runs.
class AutoEventHandlersInstaller : public Runnable {
public:
    explicit AutoEventHandlersInstaller(std::int32_t pid) : pid_(pid) {}
    std::int32_t operator()() override;

private:
    std::int32_t pid_;
};

// Asks Java to prepare the element under the pointer for recording. Keeps a
// reference of its own while it lives.
class PrepareRecordingStart : public Runnable {
public:
    explicit PrepareRecordingStart(IUIAutomationElement* element);
    std::int32_t operator()() override;

private:
    ComPtr<IUIAutomationElement> element_;
};

// Tells the overlay's cover window that Java is done (message WM_USER + 1 with
// the element), then gives up the element. Takes over the caller's reference.
// Dropped unrun, when the queue ends first, it still tells the cover, without
// an element, so that the cover isn't left waiting.
class PrepareRecordingEnd : public Runnable {
public:
    PrepareRecordingEnd(HWND window, IUIAutomationElement* element);
    ~PrepareRecordingEnd() override;
    std::int32_t operator()() override;

private:
    HWND window_;
    ComPtr<IUIAutomationElement> element_;
    bool ran_ = false;
};

// The message PrepareRecordingEnd sends to the cover window; wParam is the element.
constexpr UINT COVER_DONE_MESSAGE = WM_USER + 1;

}  // namespace tolva
