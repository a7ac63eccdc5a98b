#include "recording/UiaAutoEventHandler.h"

namespace tolva {

namespace {

// GetTickCount serves the recorder's clock alone in this library; it wraps
// after 49.7 days, which the difference to the start value survives.
const DWORD loaded = GetTickCount();

}  // namespace

std::int64_t recordingClock() {
    return static_cast<DWORD>(GetTickCount() - loaded);
}

}  // namespace tolva
