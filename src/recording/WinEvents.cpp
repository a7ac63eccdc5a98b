#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

}  // namespace

// The system window events are not part of this build yet.
void UiaAutoEventHandler::HookWinEvents(std::int32_t hookMode) {
    TOLVA_LOG(logger, 3, "Not yet implemented: mode: 0x" << std::hex << hookMode);
}

void UiaAutoEventHandler::UnhookWinEvents() {
    TOLVA_LOG(logger, 7, "");
}

}  // namespace tolva
