// Real input through the system's input queue.
#include "uiahelper/Input.h"

#include "common/Logging.h"

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

}  // namespace

void DoMouseEvent(IUIAutomationElement* element, int id, int button, int x, int y, int modifiers, int count,
                  bool toFront) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", id: " << id << ", btn: " << button
                                << ", x: " << x << ", y: " << y << ", mod: " << modifiers << ", count: " << count
                                << ", front: " << toFront);
    TOLVA_LOG(logger, 3, "Not yet implemented");
}

void SimulateKeyStroke(IUIAutomationElement* element, wchar_t c, int keyCode, int modifiers) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", c: " << static_cast<int>(c)
                                << ", kc: " << keyCode << ", m: " << modifiers);
    TOLVA_LOG(logger, 3, "Not yet implemented");
}

}  // namespace UiaHelper
