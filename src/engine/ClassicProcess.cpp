// ProcessManager's classic half: starting or finding the client process,
// opening the channel and putting the client library into its thread.
#include "engine/ProcessManager.h"

#include "classic/ClientProtocol.h"
#include "classic/ShmComm.h"
#include "common/Logging.h"
#include "uiahelper/Regex.h"

#include <cstdio>
#include <string>
#include <vector>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.ProcessManager");

const unsigned QUEUE_SIZE = 4096;
const int MESSAGE_QUEUE_TRIES = 100;
const DWORD MESSAGE_QUEUE_WAIT_MS = 25;
const DWORD THREAD_QUERY = 64;  // THREAD_QUERY_INFORMATION
const UINT MISMATCH_STYLE = 48;  // MB_ICONEXCLAMATION
const wchar_t* const CLIENT_LIBRARY = L"tolvawinclient.dll";

using RegisterHooksFn = int (*)(DWORD threadId);
using UnregisterHooksFn = int (*)();

int queueIdOf(int threadId) { return threadId + DRIVER_QUEUE_ID_OFFSET; }

// The empty message that shows a thread has a message queue. Thread id 0 is
// no thread: some systems take a post to it, and the hooks that follow would
// go into every thread of the desktop.
bool knock(int threadId) { return threadId != 0 && PostThreadMessageW(static_cast<DWORD>(threadId), 0, 0, 0); }

BOOL CALLBACK collectWindow(HWND window, LPARAM windows) {
    reinterpret_cast<std::vector<HWND>*>(windows)->push_back(window);
    return TRUE;
}

}  // namespace

int ProcessManager::startProcess(const std::wstring& command) {
    TOLVA_LOG(logger, 7, "command: " << command);
    if (attached_) {
        TOLVA_LOG(logger, 3, "Already running");
        return 0;
    }
    std::vector<wchar_t> commandLine(command.begin(), command.end());
    commandLine.push_back(L'\0');
    STARTUPINFOW startup = {};  // cb stays 0, as the client was always started
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process)) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return 0;
    }
    UniqueHandle processHandle(process.hProcess);
    const UniqueHandle threadHandle(process.hThread);
    const int pid = static_cast<int>(process.dwProcessId);
    const int threadId = static_cast<int>(process.dwThreadId);
    TOLVA_LOG(logger, 5, "pid: " << pid);
    if (!isMatchingPlatform(pid)) {
        return 0;  // the process started stays alive
    }
    ShmComm::getInstance().setup(QUEUE_SIZE, queueIdOf(threadId));
    waitForMessageQueue(threadId);
    automationBackEnd_ = false;
    attached_ = true;
    threadId_ = threadId;
    startWatch(pid, std::move(processHandle));
    return pid;
}

int ProcessManager::attachProcess(int threadId, int pid) {
    TOLVA_LOG(logger, 7, "tid: " << threadId << ", pid: " << pid);
    if (attached_) {
        TOLVA_LOG(logger, 3, "Already attached");
        return 0;
    }
    if (pid == 0) {
        HANDLE thread = OpenThread(THREAD_QUERY, FALSE, static_cast<DWORD>(threadId));
        if (thread) {
            pid = static_cast<int>(GetProcessIdOfThread(thread));
            CloseHandle(thread);
        }
        TOLVA_LOG(logger, 9, "pid: " << pid);
    }
    if (!isMatchingPlatform(pid)) {
        return 0;
    }
    ShmComm::getInstance().setup(QUEUE_SIZE, queueIdOf(threadId));
    if (!waitForMessageQueue(threadId)) {
        return 0;  // the channel stays up; the next start or attach replaces it
    }
    automationBackEnd_ = false;
    if (createShutdownThread(pid)) {
        threadId_ = threadId;
    }
    return pid;
}

int ProcessManager::attachProcess(const std::wstring& title) {
    TOLVA_LOG(logger, 7, "title: " << title);
    const UiaHelper::Regex expression(title);
    if (!expression.valid()) {
        TOLVA_LOG(logger, 1, expression.error());
    }
    std::vector<HWND> tops;
    EnumWindows(&collectWindow, reinterpret_cast<LPARAM>(&tops));
    TOLVA_LOG(logger, 9, "tops: " << tops.size());
    int result = 0;
    for (HWND window : tops) {
        wchar_t text[512] = {};
        GetWindowTextW(window, text, 512);
        TOLVA_LOG(logger, 10, "wnd: " << window << ", title: " << text);
        if (expression.matches(text)) {
            DWORD pid = 0;
            const DWORD threadId = GetWindowThreadProcessId(window, &pid);
            result = attachProcess(static_cast<int>(threadId), static_cast<int>(pid));
            break;
        }
    }
    if (result == 0) {
        TOLVA_LOG(logger, 3, "No matching window");
    }
    return result;
}

bool ProcessManager::isMatchingPlatform(int pid) {
    const bool own = is64bitProcess(static_cast<int>(GetCurrentProcessId()));
    int word = 32;
    bool matching = true;
    if (!own && is64bitProcess(pid)) {
        word = 64;
        matching = false;
    } else if (own && !is64bitProcess(pid)) {
        matching = false;
    }
    if (!matching) {
        wchar_t text[256];
        std::swprintf(text, 256, L"Please launch a %d-bit wrapper to deal with a %d-bit process.", word, word);
        TOLVA_LOG(logger, 1, text);
        MessageBoxW(nullptr, text, L"Error", MISMATCH_STYLE);
    }
    return matching;
}

bool ProcessManager::is64bitProcess(int pid) {
    const UniqueHandle process(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, static_cast<DWORD>(pid)));
    if (!process) {
        TOLVA_LOG(logger, 3, "Error getting process handle: " << GetLastError());
        return true;
    }
    SYSTEM_INFO system = {};
    GetNativeSystemInfo(&system);
    const bool os64 = system.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
    const bool wow64 = isWow64Process(process.get());
    TOLVA_LOG(logger, 9, "pid: " << pid << ", 64-bit OS: " << os64 << ", WOW64: " << wow64);
    return os64 && !wow64;
}

bool ProcessManager::isWow64Process(HANDLE process) {
    using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
    const auto isWow64 = reinterpret_cast<IsWow64ProcessFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "IsWow64Process")));
    if (!isWow64) {
        return false;
    }
    BOOL wow64 = FALSE;
    if (!isWow64(process, &wow64)) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return false;
    }
    return wow64 != FALSE;
}

bool ProcessManager::waitForMessageQueue(int threadId) {
    TOLVA_LOG(logger, 7, "tid: " << threadId);
    for (int i = 0; i < MESSAGE_QUEUE_TRIES; ++i) {
        Sleep(MESSAGE_QUEUE_WAIT_MS);
        if (knock(threadId)) {
            installHooks(threadId);
            knock(threadId);  // so that the hook sees a message
            return true;
        }
    }
    TOLVA_LOG(logger, 5, "Probably no message queue");
    return false;
}

void ProcessManager::installHooks(int threadId) {
    TOLVA_LOG(logger, 7, "threadId: " << threadId);
    // Stays loaded until the detach, which frees it.
    HMODULE library = LoadLibraryW(CLIENT_LIBRARY);
    if (!library) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return;
    }
    const auto registerHooks =
        reinterpret_cast<RegisterHooksFn>(reinterpret_cast<void*>(GetProcAddress(library, "RegisterHooks")));
    if (!registerHooks) {
        TOLVA_LOG(logger, 1, "Error: " << GetLastError());
        return;
    }
    const int result = registerHooks(static_cast<DWORD>(threadId));
    TOLVA_LOG(logger, 9, "res: " << result);
}

bool ProcessManager::detachClassicLocked() {
    HMODULE library = GetModuleHandleW(CLIENT_LIBRARY);
    if (!library) {
        TOLVA_LOG(logger, 1, "winclient missing");
        return false;
    }
    const auto unregisterHooks =
        reinterpret_cast<UnregisterHooksFn>(reinterpret_cast<void*>(GetProcAddress(library, "UnregisterHooks")));
    if (unregisterHooks) {
        ShmComm::getInstance().detaching();
        unregisterHooks();
    }
    FreeLibrary(library);
    return true;
}

}  // namespace tolva
