#include "recording/AutoEventPosters.h"

#include "common/Handle.h"
#include "common/Logging.h"
#include "element/UiaControl.h"
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"
#include "recording/UiaAutoEventHandler.h"

#include <utility>
#include <vector>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

const wchar_t* const EVENT_NAMES[] = {
    L"ToolTipOpened",     L"ToolTipClosed",
    L"StructureChanged",  L"MenuOpened",
    L"AutomationPropertyChanged", L"AutomationFocusChanged",
    L"AsyncContentLoaded", L"MenuClosed",
    L"LayoutInvalidated", L"Invoked",
    L"ElementAddedToSelection", L"ElementRemovedFromSelection",
    L"ElementSelected",   L"Selection_Invalidated",
    L"TextSelectionChanged", L"TextChanged",
    L"WindowOpened",      L"WindowClosed",
    L"MenuModeStart",     L"MenuModeEnd",
    L"InputReachedTarget", L"InputReachedOtherElement",
    L"InputDiscarded",
};
const std::int32_t FIRST_EVENT_ID = 20000;

// The parents that had a child added lately, with the clock value of that
// event; dispatch thread only.
struct RecentParent {
    Handle parent;
    std::int64_t at;
};
std::vector<RecentParent> recentParents;

// Forgets the entries older than REPEAT_TICKS and this parent's own entry,
// and notes the parent anew; true if the parent had a child added within
// REPEAT_TICKS, so that this event is a repeat.
bool isRepeatedChildAdded(Handle parent) {
    const std::int64_t now = recordingClock();
    bool repeated = false;
    for (auto entry = recentParents.begin(); entry != recentParents.end();) {
        const std::int64_t age = now - entry->at;
        if (entry->parent == parent) {
            repeated = repeated || age <= REPEAT_TICKS;
            entry = recentParents.erase(entry);
        } else if (age > REPEAT_TICKS) {
            entry = recentParents.erase(entry);
        } else {
            ++entry;
        }
    }
    recentParents.push_back({parent, now});
    return repeated;
}

}  // namespace

std::wstring automationEventName(std::int32_t eventId) {
    const std::int32_t index = eventId - FIRST_EVENT_ID;
    if (index >= 0 && index < static_cast<std::int32_t>(sizeof EVENT_NAMES / sizeof EVENT_NAMES[0])) {
        return EVENT_NAMES[index];
    }
    return std::to_wstring(eventId);
}

UiaAutoEventPoster::UiaAutoEventPoster(IUIAutomationElement* sender, std::int32_t code, std::int32_t param,
                                       std::wstring text, std::wstring runtimeId)
    : element_(ComPtr<IUIAutomationElement>::share(sender)),
      code_(code),
      param_(param),
      text_(std::move(text)),
      runtimeId_(std::move(runtimeId)),
      timestamp_(currentTimeMillis()) {}

std::int32_t UiaAutoEventPoster::operator()() {
    ControlRef control;
    if (UiaAutoEventHandler::hasToplevels) {
        // A closed window can't tell its type any more; its control, if it
        // has one, still knows it.
        std::wstring type = code_ == UIA_Window_WindowClosedEventId ? L"Window" : L"";
        control = runtimeId_.empty()
                      ? UiaControl::getControlInUse(element_.get(), std::move(type), nullptr)
                      : UiaControl::getControlInUse(element_.get(), std::move(type), nullptr, runtimeId_);
    }
    element_.reset();
    if (control && control->type.empty()) {
        TOLVA_LOG(logger, 5, "Invalid element");
        UiaControl::remove(control->handle());
        return 0;
    }
    const std::int32_t mode = UiaAutoEventHandler::listenersMode();
    bool dropped = false;
    if (code_ == EVENT_STRUCTURE_CHANGED && param_ == StructureChangeType_ChildAdded && control &&
        (mode & LISTEN_PARENT_OF_ADDED)) {
        dropped = !describeAddedChild(*control, mode);
    }
    if (!dropped) {
        UIAutomationEvent event(control ? static_cast<std::int64_t>(control->handle()) : 0, code_, param_, text_,
                                timestamp_);
        EventFilter::getInstance().callJava(&event);
    }
    return 0;
}

bool UiaAutoEventPoster::describeAddedChild(UiaControl& control, std::int32_t mode) {
    Handle parent = 0;
    ComPtr<IUIAutomationElement> parentElement = ComPtr<IUIAutomationElement>::attach(control.getParent());
    if (!parentElement) {
        TOLVA_LOG(logger, 5, "Child " << control << " added but no parent!?");
    } else {
        ControlRef parentControl = UiaControl::getControlInUse(parentElement.get(), L"", nullptr);
        parentElement.reset();
        parent = parentControl ? parentControl->handle() : 0;
        TOLVA_LOG(logger, 10, "Child " << control << " added to " << static_cast<std::int64_t>(parent));
    }
    // As Java holds the handle: sign-extended.
    text_ = L"p=" + std::to_wstring(static_cast<std::int64_t>(parent));
    return parent == 0 || !(mode & LISTEN_THIN_ADDED) || !isRepeatedChildAdded(parent);
}

std::int32_t AutoEventHandlersInstaller::operator()() {
    UiaAutoEventHandler::UninstallAutoEventHandlers();
    UiaAutoEventHandler::InstallAutoEventHandlers(pid_, UiaAutoEventHandler::listenersMode());
    return 0;
}

PrepareRecordingStart::PrepareRecordingStart(IUIAutomationElement* element)
    : element_(ComPtr<IUIAutomationElement>::share(element)) {}

std::int32_t PrepareRecordingStart::operator()() {
    ControlRef control = UiaControl::getControlInUse(element_.get(), L"", nullptr);
    EventFilter::getInstance().callJavaPrepareRecording(control ? static_cast<std::int64_t>(control->handle()) : 0);
    return 0;
}

PrepareRecordingEnd::PrepareRecordingEnd(HWND window, IUIAutomationElement* element)
    : window_(window), element_(ComPtr<IUIAutomationElement>::attach(element)) {}

PrepareRecordingEnd::~PrepareRecordingEnd() {
    if (!ran_) {
        PostMessageW(window_, COVER_DONE_MESSAGE, 0, 0);
    }
}

std::int32_t PrepareRecordingEnd::operator()() {
    ran_ = true;
    // The cover's thread uses the element while it handles the message; a
    // thread that doesn't answer within the time may still use it later, so
    // its reference is then left to it rather than given up under it.
    DWORD_PTR answer = 0;
    if (!SendMessageTimeoutW(window_, COVER_DONE_MESSAGE, reinterpret_cast<WPARAM>(element_.get()), 0,
                             SMTO_NORMAL, 5000, &answer) &&
        GetLastError() == ERROR_TIMEOUT) {
        TOLVA_LOG(logger, 3, "Cover window does not answer");
        element_.detach();
        return 0;
    }
    element_.reset();
    return 0;
}

}  // namespace tolva
