// Check mode.
#include "overlay/UiaChecker.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.UiaChecker");

}  // namespace

std::int32_t CheckerRegistrator::operator()() {
    TOLVA_LOG(logger, 7, "start: " << start_);
    TOLVA_LOG(logger, 3, "Not yet implemented");
    return 0;
}

}  // namespace tolva
