// What listens to the target for recording, switched by one word of mode bits:
// 0x001 input hooks, 0x002 automation events, 0x004 structure changes,
// 0x008 property changes, 0x010 all system window events, 0x020 only the
// required ones, 0x040 thinned object creation, 0x080 window events on a
// thread of their own, 0x100 parent handles on child-added events, 0x200
// thinned child-added events.
#pragma once

#include <cstdint>

namespace tolva {

class UiaAutoEventHandler {
public:
    static std::int32_t listenersMode();
    static std::int32_t setListenersMode(std::int32_t mode);  // stores it; installs nothing

    static bool InstallAutoEventHandlers(std::int32_t pid, std::int32_t mode);
    static void UninstallAutoEventHandlers();
    static bool InstallHooks(std::int32_t pid);
    static void UninstallHooks();
    static bool hooksInstalled();
};

}  // namespace tolva
