#include "engine/EngineRunnables.h"

#include "bridge/Logging.h"
#include "engine/Uia.h"
#include "events/EventFilter.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/UiaHelper.h"

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
    const bool found = !windows.empty();
    UiaHelper::ReleaseElements(windows);
    return found ? 1 : 0;
}

std::int32_t ProcessByTitleFinder::operator()() {
    // Finding by title needs the name search of the element helpers, which is
    // not part of this build yet.
    TOLVA_LOG(titleLogger, 3, "Not yet implemented: " << title_ << " (" << existingWindows_->size()
                                                      << " existing, via hwnd " << viaHwnd_ << ")");
    return 0;
}

std::int32_t ProcessByClassFinder::operator()() {
    IUIAutomationElement* window = UiaHelper::GetToplevelByClassName(className_);
    if (!window) {
        return 0;
    }
    int pid = 0;
    UiaHelper::GetControlProcessId(window, &pid);
    window->Release();
    return pid;
}

}  // namespace tolva
