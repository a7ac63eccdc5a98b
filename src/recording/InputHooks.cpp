#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

}  // namespace

// The input hooks are not part of this build yet: installing records the
// target and reports that nothing listens.
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
