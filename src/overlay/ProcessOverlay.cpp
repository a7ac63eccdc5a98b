// The process overlay of recording mode.
#include "overlay/ProcessOverlay.h"

#include "bridge/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.ProcessOverlay");

}  // namespace

ProcessOverlay::ProcessOverlay(DWORD pid) {
    TOLVA_LOG(logger, 7, "pid: " << pid);
    TOLVA_LOG(logger, 3, "Not yet implemented");
}

ProcessOverlay::~ProcessOverlay() {
    TOLVA_LOG(logger, 7, "");
}

}  // namespace tolva
