#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");
double scalingCache = 0.0;

}  // namespace

double GetScalingFactor() {
    if (scalingCache != 0.0) {
        return scalingCache;
    }
    const bool aware = IsProcessDPIAware() != 0;
    if (!aware) {
        TOLVA_LOG(logger, 3, "The process does not seem to be DPI aware!");
    }
    HDC screen = GetDC(nullptr);
    const int vertRes = GetDeviceCaps(screen, VERTRES);
    const int desktopVertRes = GetDeviceCaps(screen, DESKTOPVERTRES);
    const int logPixelsY = GetDeviceCaps(screen, LOGPIXELSY);
    ReleaseDC(nullptr, screen);
    const double factor = aware ? desktopVertRes * 100.0 * logPixelsY / (vertRes * 96)
                                : desktopVertRes * 100.0 / vertRes;
    scalingCache = RoundHalfAway(factor) / 100.0;
    TOLVA_LOG(logger, 9, "scaling: " << scalingCache);
    return scalingCache;
}

}  // namespace UiaHelper
