// Which process the driver is connected to, in both back ends: attaching,
// the thread that watches the target for its end, detaching.
#pragma once

#include <windows.h>

#include <string>

namespace tolva {

class ProcessManager {
public:
    static ProcessManager& getInstance();

    // Automation back end.
    int attachUiaProcess(const std::wstring& args, int timeoutMs);
    // Classic back end.
    int startProcess(const std::wstring& command);
    int attachProcess(int threadId, int flags);
    int attachProcess(const std::wstring& title);

    bool createShutdownThread(int pid);
    static unsigned __stdcall shutdownThreadProc(void* manager);
    void detachProcess();
    bool isConnected();
    int getThreadId() const { return threadId_; }

private:
    ProcessManager() = default;

    volatile bool attached_ = false;
    HANDLE processHandle_ = nullptr;
    int pid_ = 0;
    int threadId_ = 0;
    bool automationBackEnd_ = false;
};

}  // namespace tolva
