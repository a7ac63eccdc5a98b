// Which process the driver is connected to, in both back ends: attaching,
// the thread that watches the target for its end, detaching.
#pragma once

#include "common/Owners.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace tolva {

class ProcessManager {
public:
    static ProcessManager& getInstance();

    // Automation back end. A new connection starts only when the one before
    // has wholly ended: this ends a connection that is still up and waits,
    // bounded, for its dispatch thread; false if that thread hasn't ended.
    bool endPreviousUiaConnection();
    int attachUiaProcess(const std::wstring& args, int timeoutMs);
    // Classic back end: the client process, its channel and the client
    // library in its thread. Each gives the process id, 0 on failure.
    int startProcess(const std::wstring& command);
    int attachProcess(int threadId, int pid);  // pid 0: the thread's
    int attachProcess(const std::wstring& title);
    // False, after a message box that waits for the user, when the target's
    // word size isn't this process's.
    static bool isMatchingPlatform(int pid);
    // True also for a process that can't be opened.
    static bool is64bitProcess(int pid);
    static bool isWow64Process(HANDLE process);
    // Whether the thread took a message within 100 tries of 25 ms; on the
    // first that it takes, the client library's hooks go into the thread.
    static bool waitForMessageQueue(int threadId);
    static void installHooks(int threadId);

    bool createShutdownThread(int pid);
    static unsigned __stdcall shutdownThreadProc(void* manager);
    void detachProcess();
    bool isConnected();
    int getThreadId() const { return threadId_; }

private:
    // The watch of one connection over its target: the shutdown thread waits
    // for the process or for the connection's end, whichever comes first.
    struct Watch {
        ProcessManager* manager;
        UniqueHandle process;
        UniqueHandle ended;  // manual-reset, set when the connection ends
        int pid;
    };
    ProcessManager() = default;
    void targetEnded(const Watch& watch);
    void endWatchLocked();
    // Starts the shutdown thread over the process; false when it can't start.
    bool startWatch(int pid, UniqueHandle process);
    // The classic half of detachProcess, with lock_ held; false when the
    // client library is missing and the client stays attached.
    bool detachClassicLocked();

    std::mutex lock_;              // guards watch_ and the ends of connections
    std::shared_ptr<Watch> watch_;  // the current connection's, if watched; owns the process handle
    std::atomic<bool> attached_{false};
    int pid_ = 0;
    int threadId_ = 0;
    bool automationBackEnd_ = false;
};

}  // namespace tolva
