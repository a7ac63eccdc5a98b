// The engine's units of work for the dispatch thread: the three finders of a
// target, and the steps that start and end event delivery.
#pragma once

#include "dispatch/Runnable.h"

#include <windows.h>

#include <string>
#include <vector>

namespace tolva {

class Uia;

// Tells Java of the connection and widens the listener mode for a host whose
// events carry time stamps.
class Connector : public Runnable {
public:
    std::int32_t operator()() override;
};

// Installs what the listener mode asks for: the current mode, or a given one.
class EventHandlerRegistrator : public Runnable {
public:
    explicit EventHandlerRegistrator(Uia* uia);
    EventHandlerRegistrator(Uia* uia, std::int32_t mode);
    std::int32_t operator()() override;

private:
    Uia* uia_;
    std::int32_t mode_;
    bool useCurrentMode_;
};

// Tells Java that the target has ended.
class Terminator : public Runnable {
public:
    std::int32_t operator()() override;
};

// Non-zero if the process has top-level windows.
class ProcessByPidFinder : public Runnable {
public:
    ProcessByPidFinder(int pid, bool viaHwnd) : pid_(pid), viaHwnd_(viaHwnd) {}
    std::int32_t operator()() override;

private:
    int pid_;
    bool viaHwnd_;
};

// The process id of a top-level window whose title matches, or 0.
class ProcessByTitleFinder : public Runnable {
public:
    ProcessByTitleFinder(const std::wstring& title, const std::vector<HWND>* existingWindows, bool viaHwnd)
        : title_(title), existingWindows_(existingWindows), viaHwnd_(viaHwnd) {}
    std::int32_t operator()() override;

private:
    std::wstring title_;
    const std::vector<HWND>* existingWindows_;
    bool viaHwnd_;
};

// The process id of the first top-level window whose class matches, or 0.
class ProcessByClassFinder : public Runnable {
public:
    explicit ProcessByClassFinder(const std::wstring& className) : className_(className) {}
    std::int32_t operator()() override;

private:
    std::wstring className_;
};

}  // namespace tolva
