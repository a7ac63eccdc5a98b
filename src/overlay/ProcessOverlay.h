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

// Thread id of the process overlay's thread, 0 while none runs.
extern DWORD overlayThreadId;

// Starts the overlay's thread for the target's process: the overlay's windows
// live and die there. False, logged, if the thread can't be started.
bool startOverlayThread(DWORD pid);
// Asks the overlay's thread to end, if one runs; doesn't wait for it.
void stopOverlayThread();

}  // namespace tolva
