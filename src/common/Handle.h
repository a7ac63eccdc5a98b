// Element handles inside the driver. A handle is a pointer-sized value: in
// the automation back end the address of a control, in the classic back end
// the value the client library gave; 0 is no element. How a handle crosses to
// and from Java is the bridge's business (bridge/Handles.h).
#pragma once

#include <cstdint>

namespace tolva {

using Handle = std::intptr_t;

}  // namespace tolva
