// The classic back end's start and attach: starting or finding the client
// process and bringing the client library and its channel into it. The record
// of the connection and the watch over the client's end stay with
// ProcessManager, which calls these and keeps what they give.
#pragma once

#include <string>

namespace tolva {

class ClassicClient {
public:
    // Each gives the client's process id, or 0 when no client could be had.
    static int startProcess(const std::wstring& command);
    static int attachProcess(int threadId, int flags);
    static int attachProcess(const std::wstring& title);
};

}  // namespace tolva
