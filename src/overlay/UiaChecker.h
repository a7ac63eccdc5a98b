// Check mode: an overlay under the pointer through which the user picks
// elements of the target for checks. Runs on the dispatch thread.
#pragma once

#include "dispatch/Runnable.h"

#include <cstdint>

namespace tolva {

// Starts check mode over the target's windows, or ends it.
class CheckerRegistrator : public Runnable {
public:
    explicit CheckerRegistrator(bool start) : start_(start) {}
    std::int32_t operator()() override;

private:
    bool start_;
};

}  // namespace tolva
