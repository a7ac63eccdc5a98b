#include "engine/EngineRunnables.h"

#include "common/Logging.h"
#include "element/UiaControl.h"
#include "engine/Uia.h"
#include "events/EventFilter.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/UiaHelper.h"

#include <algorithm>

namespace tolva {

namespace {
Logger& titleLogger = Log::getLogger("tolva.ProcessByTitleFinder");
}  // namespace

std::int32_t Connector::operator()() {
    EventFilter& filter = EventFilter::getInstance();
    filter.onConnect();
    if (filter.timestampedEvents()) {
        UiaAutoEventHandler::setListenersMode(-1);
    }
    return 0;
}

EventHandlerRegistrator::EventHandlerRegistrator(Uia* uia) : uia_(uia), mode_(0), useCurrentMode_(true) {}

EventHandlerRegistrator::EventHandlerRegistrator(Uia* uia, std::int32_t mode)
    : uia_(uia), mode_(mode), useCurrentMode_(false) {}

std::int32_t EventHandlerRegistrator::operator()() {
    if (useCurrentMode_) {
        mode_ = UiaAutoEventHandler::listenersMode();
    }
    uia_->registerEventHandler(mode_);
    return 0;
}

std::int32_t Terminator::operator()() {
    EventFilter::getInstance().onTerminate();
    return 0;
}

std::int32_t ProcessByPidFinder::operator()() {
    UiaHelper::ElementList windows =
        viaHwnd_ ? UiaHelper::GetToplevelsForPidViaHWND(pid_) : UiaHelper::GetToplevelsForPid(pid_);
    return windows.empty() ? 0 : 1;
}

// The first window whose name matches and that wasn't there before the
// target started.
static UiaHelper::ElementPtr NewWindowByTitle(const std::wstring& title, const std::vector<HWND>& existing) {
    const UiaHelper::ElementList windows =
        UiaHelper::GetElementsByTypeAndName(nullptr, L"", title, false, TreeScope_Children);
    UiaHelper::ElementPtr chosen;
    for (const UiaHelper::ElementPtr& window : windows) {
        HWND hwnd = UiaHelper::GetControlHwnd(window.get());
        TOLVA_LOG(titleLogger, 9, static_cast<void*>(window.get()) << ", hWnd:" << static_cast<void*>(hwnd));
        if (!chosen && std::find(existing.begin(), existing.end(), hwnd) == existing.end()) {
            TOLVA_LOG(titleLogger, 9, "found new win: " << static_cast<void*>(window.get()));
            chosen = window;
        }
    }
    return chosen;
}

// A store app's frame: the app is the core window among the frame's children.
static int CoreWindowProcessId(IUIAutomationElement* frame) {
    ControlRef control = UiaControl::getControlInUse(frame, std::wstring(), nullptr);
    if (!control) {
        TOLVA_LOG(titleLogger, 3, "CoreWindow not found");
        return 0;
    }
    int pid = 0;
    for (const UiaHelper::ElementPtr& child : UiaHelper::GetChildren(control->getElement().get())) {
        if (UiaHelper::GetControlClassName(child.get()) == UiaHelper::CORE_WINDOW_CLASS) {
            UiaHelper::GetControlProcessId(child.get(), &pid);  // with more than one, the last wins
        }
    }
    UiaControl::remove(reinterpret_cast<std::intptr_t>(control.get()));
    if (pid == 0) {
        TOLVA_LOG(titleLogger, 3, "CoreWindow not found");
    }
    return pid;
}

std::int32_t ProcessByTitleFinder::operator()() {
    UiaHelper::ElementPtr window;
    if (viaHwnd_) {
        window = UiaHelper::ElementPtr::attach(UiaHelper::GetToplevelByTitleViaHWND(title_));
    } else if (existingWindows_->empty()) {
        window = UiaHelper::ElementPtr::attach(
            UiaHelper::GetElementByTypeAndName(nullptr, L"", title_, TreeScope_Children));
    } else {
        window = NewWindowByTitle(title_, *existingWindows_);
    }
    if (!window) {
        return 0;
    }
    const std::wstring className = UiaHelper::GetControlClassName(window.get());
    TOLVA_LOG(titleLogger, 9, "cls: " << className);
    int pid = 0;
    if (className != L"ApplicationFrameWindow") {
        UiaHelper::GetControlProcessId(window.get(), &pid);
    } else {
        pid = CoreWindowProcessId(window.get());
    }
    return pid;
}

std::int32_t ProcessByClassFinder::operator()() {
    const UiaHelper::ElementPtr window = UiaHelper::ElementPtr::attach(UiaHelper::GetToplevelByClassName(className_));
    if (!window) {
        return 0;
    }
    int pid = 0;
    UiaHelper::GetControlProcessId(window.get(), &pid);
    return pid;
}

}  // namespace tolva
