#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"

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

// The automation handlers are not part of this build yet: installing records
// the target and reports that nothing listens.
bool UiaAutoEventHandler::InstallAutoEventHandlers(std::int32_t pid, std::int32_t installMode) {
    targetPid = pid;
    TOLVA_LOG(logger, 3, "Not yet implemented: pid " << pid << ", mode: 0x" << std::hex << installMode);
    return false;
}

void UiaAutoEventHandler::UninstallAutoEventHandlers() {
    TOLVA_LOG(logger, 7, "");
}

}  // namespace tolva
