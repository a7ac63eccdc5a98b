#include "classic/ShmComm.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.ShmComm");

void notYet(const char* operation) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << operation);
}

}  // namespace

ShmComm& ShmComm::getInstance() {
    static ShmComm instance;
    return instance;
}

void ShmComm::triggerThread() { notYet("triggerThread"); }
void ShmComm::terminate() { notYet("terminate"); }
void ShmComm::shutdown() { notYet("shutdown"); }
void ShmComm::detach() { notYet("detach"); }

Array<Handle> ShmComm::getChildren(Handle) {
    notYet("getChildren");
    return Array<Handle>();
}

Handle ShmComm::getParent(Handle) {
    notYet("getParent");
    return 0;
}

Handle ShmComm::getNativeHandle(Handle) {
    notYet("getNativeHandle");
    return 0;
}

std::wstring ShmComm::getClassName(Handle) {
    notYet("getClassName");
    return std::wstring();
}

Array<std::wstring> ShmComm::getClassNames(Handle) {
    notYet("getClassNames");
    return Array<std::wstring>();
}

void ShmComm::getBounds(Handle, int[4]) {
    notYet("getBounds");
}

std::wstring ShmComm::evalJS(Handle, const std::wstring&) {
    notYet("evalJS");
    return std::wstring();
}

Array<Handle> ShmComm::getToplevels() {
    notYet("getToplevels");
    return Array<Handle>();
}

}  // namespace tolva
