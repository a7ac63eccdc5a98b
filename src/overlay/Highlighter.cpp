// The highlight frame and the runner that Java's Highlight reaches.
#include "overlay/Highlighter.h"

#include "common/Logging.h"
#include "element/UiaControl.h"
#include "uiahelper/UiaHelper.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.Highlighter");

}  // namespace

std::int32_t HighlightRunner::operator()() {
    if (duration_ <= 0) {
        StopHighlight();
        return 0;
    }
    // The native waits for this runner with the control in use; a use of its
    // own keeps it from resting on that.
    ControlRef control = UiaControl::acquire(control_);
    if (!control) {
        return 0;
    }
    if (!UiaHelper::IsForeground(control->getElement().get())) {
        // Hidden behind another window: an earlier highlight stays as it is.
        TOLVA_LOG(logger, 9, "not in the foreground");
        return 0;
    }
    ShowHighlight(control->getBounds(), duration_, color_, nullptr);
    return 0;
}

void ShowHighlight(RECT rectangle, int duration, int color, HWND forwardWindow) {
    TOLVA_LOG(logger, 7, "r: [" << rectangle.left << "," << rectangle.top << "," << rectangle.right << ","
                                << rectangle.bottom << "], d: " << duration << ", c: " << color
                                << ", fw: " << static_cast<void*>(forwardWindow));
    TOLVA_LOG(logger, 3, "Not yet implemented");
}

void StopHighlight() {
    TOLVA_LOG(logger, 3, "Not yet implemented");
}

}  // namespace tolva
