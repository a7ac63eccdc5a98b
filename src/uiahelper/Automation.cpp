// The one automation object of the process and the uses taken of it.
#include "uiahelper/Common.h"

#include <mutex>
#include <utility>

namespace tolva {

namespace {

std::mutex slotLock;
// Never destroyed: an object still held when the process ends must not be
// released from the library's unload, after COM has gone.
AutomationRef* const slot = new AutomationRef();

}  // namespace

AutomationRef automation() {
    std::lock_guard<std::mutex> guard(slotLock);
    return *slot;
}

void installAutomation(IUIAutomation* created) {
    AutomationRef owner(created, [](IUIAutomation* object) { object->Release(); });
    std::lock_guard<std::mutex> guard(slotLock);
    slot->swap(owner);
}

AutomationRef withdrawAutomation() {
    AutomationRef last;
    std::lock_guard<std::mutex> guard(slotLock);
    last.swap(*slot);
    return last;
}

}  // namespace tolva
