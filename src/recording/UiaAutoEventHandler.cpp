#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"
#include "element/UiaControl.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

std::atomic<std::int32_t> mode{0x1F};

}  // namespace

std::int32_t UiaAutoEventHandler::listenersMode() {
    return mode;
}

std::int32_t UiaAutoEventHandler::setListenersMode(std::int32_t newMode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << newMode);
    TOLVA_LOG(logger, 9, "prev mode: 0x" << std::hex << mode.load());
    mode = newMode;
    return newMode;
}

// The automation handlers are not part of this build yet: only the system
// window events are installed.
bool UiaAutoEventHandler::InstallAutoEventHandlers(std::int32_t pid, std::int32_t installMode) {
    TOLVA_LOG(logger, 7, "pid: " << pid << ", mode: 0x" << std::hex << installMode);
    targetPid = pid;
    const Array<std::intptr_t> toplevels = UiaControl::getToplevels(pid, viaHwnd, L"");
    hasToplevels = toplevels.size() > 0;
    if (!hasToplevels) {
        TOLVA_LOG(logger, 5, "No toplevels");
        return false;
    }
    winEventsOnThread = (installMode & LISTEN_WINEVENTS_ON_THREAD) != 0;
    if (!winEventsOnThread) {
        HookWinEvents(installMode);
    } else {
        winEventMode = installMode;
        DWORD threadId = 0;
        HANDLE thread = CreateThread(nullptr, 0x10000, WinEventThreadProc, nullptr, 0, &threadId);
        if (thread) {
            winEventThreadId = threadId;
            CloseHandle(thread);
        } else {
            TOLVA_LOG(logger, 1, "No thread for window events: " << GetLastError());
        }
    }
    return true;
}

void UiaAutoEventHandler::UninstallAutoEventHandlers() {
    TOLVA_LOG(logger, 7, "");
    if (!winEventsOnThread) {
        UnhookWinEvents();
    } else {
        QuitWinEventThread(winEventThreadId);
        Sleep(100);
    }
}

}  // namespace tolva
