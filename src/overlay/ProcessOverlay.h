// The process overlay of recording mode: while the pointer rests on a new
// element of the target, a small cover keeps clicks away from it until Java
// has prepared it, and an info window names the element. The object lives on
// the stack of the overlay thread and brackets the life of its windows.
#pragma once

#include <windows.h>

namespace tolva {

class ProcessOverlay {
public:
    explicit ProcessOverlay(DWORD pid);
    ~ProcessOverlay();
    ProcessOverlay(const ProcessOverlay&) = delete;
    ProcessOverlay& operator=(const ProcessOverlay&) = delete;
};

}  // namespace tolva
