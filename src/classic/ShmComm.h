// The classic back end's channel to the client library inside the target.
// The shared-memory queues are not part of this build yet: the channel is
// never connected, and every query answers that it isn't built.
#pragma once

#include "common/Array.h"
#include "common/Handle.h"

#include <windows.h>

#include <string>

namespace tolva {

class ShmComm {
public:
    static ShmComm& getInstance();

    bool isConnected() const { return false; }
    void triggerThread();
    void terminate();
    void shutdown();
    void detach();

    Array<Handle> getChildren(Handle handle);
    Handle getParent(Handle handle);
    Handle getNativeHandle(Handle handle);
    std::wstring getClassName(Handle handle);
    Array<std::wstring> getClassNames(Handle handle);
    void getBounds(Handle handle, int bounds[4]);
    std::wstring evalJS(Handle handle, const std::wstring& script);
    Array<Handle> getToplevels();

private:
    ShmComm() = default;
};

}  // namespace tolva
