// The client library and its shared-memory channel are not part of this
// build yet: no client is started or found.
#include "classic/ClassicClient.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.ProcessManager");

}  // namespace

int ClassicClient::startProcess(const std::wstring& command) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << command);
    return 0;
}

int ClassicClient::attachProcess(int threadId, int flags) {
    TOLVA_LOG(logger, 3, "Not yet implemented: tid " << threadId << ", flags " << flags);
    return 0;
}

int ClassicClient::attachProcess(const std::wstring& title) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << title);
    return 0;
}

}  // namespace tolva
