#include "engine/ProcessManager.h"

#include "common/Logging.h"
#include "classic/ShmComm.h"
#include "engine/Uia.h"
#include "uiahelper/Regex.h"

#include <process.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.ProcessManager");

const unsigned SHUTDOWN_STACK_SIZE = 16384;
const DWORD SHUTDOWN_START_WAIT_MS = 100;
const DWORD NOT_FOUND_WAIT_MS = 250;
// The end of a dispatch thread takes its hooks down (up to 5 s for the input
// hook's thread) and waits for Java threads still in a call.
const DWORD PREVIOUS_END_WAIT_MS = 20000;
const DWORD TARGET_ACCESS = SYNCHRONIZE | PROCESS_QUERY_INFORMATION | PROCESS_TERMINATE;  // 0x100401

const std::wstring::size_type PID_OPTION_LENGTH = 5;  // "-pid "

}  // namespace

ProcessManager& ProcessManager::getInstance() {
    static ProcessManager instance;
    return instance;
}

bool ProcessManager::endPreviousUiaConnection() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (attached_ && automationBackEnd_) {
            TOLVA_LOG(logger, 5, "Ending the connection to " << pid_);
            Uia::getInstance().detach();
            attached_ = false;
        }
        endWatchLocked();
    }
    if (!Uia::getInstance().awaitDispatchEnd(PREVIOUS_END_WAIT_MS)) {
        TOLVA_LOG(logger, 1, "The previous connection has not ended");
        return false;
    }
    return true;
}

int ProcessManager::attachUiaProcess(const std::wstring& args, int timeoutMs) {
    TOLVA_LOG(logger, 9, "args: " << args << " timeout: " << timeoutMs);
    if (args.empty() || args == L"null") {
        TOLVA_LOG(logger, 3, "Invalid connection parameters");
        return 0;
    }
    static const UiaHelper::Regex pidPattern(L"-pid\\s+(\\d+).*");
    static const UiaHelper::Regex classPattern(L"-class\\s+'?(.*?)'?");

    std::wstring title = args;
    std::wstring className;
    int pid = 0;
    std::vector<std::wstring> groups;
    if (classPattern.matches(args, groups)) {
        className = groups[0];
    }
    if (pidPattern.matches(args, groups)) {
        pid = _wtoi(groups[0].c_str());
    }
    const std::wstring::size_type index = args.find(L' ', PID_OPTION_LENGTH);
    if (pid != 0) {
        if (index != std::wstring::npos) {
            TOLVA_LOG(logger, 9, "pid: " << pid << ", index: " << index << ", title: " << title);
            title = args.substr(index + 1);
            className.clear();
            if (classPattern.matches(title, groups)) {
                className = groups[0];
            }
        } else {
            title.clear();
        }
    }

    // The class wins over the title. The finders compile for themselves; this
    // only keeps a malformed expression from starting the dispatch thread.
    const UiaHelper::Regex syntaxCheck(className.empty() ? title : className);
    if (!syntaxCheck.valid()) {
        TOLVA_LOG(logger, 1, syntaxCheck.error());
    } else if (className.empty()) {
        pid = Uia::getInstance().setup(title, std::wstring(), pid, timeoutMs);
    } else {
        pid = Uia::getInstance().setup(std::wstring(), className, pid, timeoutMs);
    }

    if (pid != 0) {
        automationBackEnd_ = true;
        createShutdownThread(pid);
    } else {
        TOLVA_LOG(logger, 3, "Process could not be determined");
        Sleep(NOT_FOUND_WAIT_MS);
    }
    TOLVA_LOG(logger, 9, "pid: " << pid);
    return pid;
}

bool ProcessManager::createShutdownThread(int pid) {
    TOLVA_LOG(logger, 7, "pid: " << pid);
    attached_ = true;
    UniqueHandle process(OpenProcess(TARGET_ACCESS, FALSE, static_cast<DWORD>(pid)));
    if (!process) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return false;
    }
    return startWatch(pid, std::move(process));
}

bool ProcessManager::startWatch(int pid, UniqueHandle process) {
    pid_ = pid;
    const std::shared_ptr<Watch> watch(new Watch{
        this, std::move(process), UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr)), pid});
    auto threadsWatch = std::make_unique<std::shared_ptr<Watch>>(watch);
    const UniqueHandle thread(reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, SHUTDOWN_STACK_SIZE, &ProcessManager::shutdownThreadProc, threadsWatch.get(), 0, nullptr)));
    if (!thread) {
        // The connection stays usable; only its target's end goes unnoticed.
        TOLVA_LOG(logger, 1, "Shutdown thread could not be started: " << errno);
        return false;
    }
    threadsWatch.release();  // the shutdown thread's now
    {
        std::lock_guard<std::mutex> guard(lock_);
        endWatchLocked();
        watch_ = watch;
    }
    Sleep(SHUTDOWN_START_WAIT_MS);
    return true;
}

unsigned __stdcall ProcessManager::shutdownThreadProc(void* param) {
    const std::unique_ptr<std::shared_ptr<Watch>> owned(static_cast<std::shared_ptr<Watch>*>(param));
    const std::shared_ptr<Watch> watch = *owned;
    HANDLE waitFor[] = {watch->process.get(), watch->ended.get()};
    if (WaitForMultipleObjects(2, waitFor, FALSE, INFINITE) == WAIT_OBJECT_0) {
        watch->manager->targetEnded(*watch);
    }
    return 0;  // else the connection ended first: nothing more to watch
}

// The target of a watch has ended: its connection ends too, unless Java has
// ended it already (and may have started another one).
void ProcessManager::targetEnded(const Watch& watch) {
    std::lock_guard<std::mutex> guard(lock_);
    if (watch_.get() != &watch) {
        return;
    }
    watch_.reset();
    attached_ = false;
    TOLVA_LOG(logger, 5, "pid: " << watch.pid << " terminated");
    std::fputs("terminated\n", stdout);
    std::fflush(stdout);

    Uia::getInstance().processTerminated();
    if (automationBackEnd_) {
        Uia::getInstance().detach();
    } else {
        ShmComm::getInstance().shutdown();
    }
}

void ProcessManager::endWatchLocked() {
    if (watch_) {
        SetEvent(watch_->ended.get());
        watch_.reset();
    }
}

void ProcessManager::detachProcess() {
    TOLVA_LOG(logger, 7, "");
    std::lock_guard<std::mutex> guard(lock_);
    if (!attached_) {
        TOLVA_LOG(logger, 3, "No client attached");
        return;
    }
    if (automationBackEnd_) {
        Uia::getInstance().detach();
    } else if (!detachClassicLocked()) {
        return;
    }
    endWatchLocked();
    attached_ = false;
}

bool ProcessManager::isConnected() {
    return automationBackEnd_ ? attached_.load() : ShmComm::getInstance().isConnected();
}

}  // namespace tolva
