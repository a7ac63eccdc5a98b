#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

std::int32_t mode = 0x1F;
std::int32_t targetPid = 0;

}  // namespace

std::int32_t UiaAutoEventHandler::listenersMode() {
    return mode;
}

std::int32_t UiaAutoEventHandler::setListenersMode(std::int32_t newMode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << newMode);
    mode = newMode;
    return mode;
}

// The automation handlers, window event hooks and input hooks are not part of
// this build yet: installing records the target and reports that nothing
// listens.
bool UiaAutoEventHandler::InstallAutoEventHandlers(std::int32_t pid, std::int32_t installMode) {
    targetPid = pid;
    TOLVA_LOG(logger, 3, "Not yet implemented: pid " << pid << ", mode: 0x" << std::hex << installMode);
    return false;
}

void UiaAutoEventHandler::UninstallAutoEventHandlers() {
    TOLVA_LOG(logger, 7, "");
}

bool UiaAutoEventHandler::InstallHooks(std::int32_t pid) {
    targetPid = pid;
    TOLVA_LOG(logger, 3, "Not yet implemented: pid " << pid);
    return false;
}

void UiaAutoEventHandler::UninstallHooks() {
    TOLVA_LOG(logger, 7, "");
}

bool UiaAutoEventHandler::hooksInstalled() {
    return false;
}

}  // namespace tolva
