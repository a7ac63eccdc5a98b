// The project's target program (tests/target), started beside a test as a
// real process with top-level windows of the given titles.
#pragma once

#include <windows.h>

#include <sstream>
#include <string>

namespace dwtest {

class TargetProcess {
public:
    explicit TargetProcess(const std::wstring& title) {
        SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
        HANDLE readEnd = nullptr;
        HANDLE writeEnd = nullptr;
        CreatePipe(&readEnd, &writeEnd, &inherit, 0);
        SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = writeEnd;
        startup.hStdError = writeEnd;
        // The target must not hold the test's own output open: the runner
        // waits for it to close.
        for (DWORD which : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
            SetHandleInformation(GetStdHandle(which), HANDLE_FLAG_INHERIT, 0);
        }
        std::wstring command = L"target.exe \"" + title + L"\"";
        started_ = CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                  &info_) != 0;
        CloseHandle(writeEnd);
        if (started_) {
            readLines(readEnd);
        }
        CloseHandle(readEnd);
    }
    ~TargetProcess() {
        if (started_) {
            TerminateProcess(info_.hProcess, 0);
            CloseHandle(info_.hProcess);
            CloseHandle(info_.hThread);
        }
    }
    bool ready() const { return started_ && window_; }
    DWORD pid() const { return info_.dwProcessId; }
    HWND window() const { return window_; }
    void kill() { TerminateProcess(info_.hProcess, 9); }
    HANDLE process() const { return info_.hProcess; }

private:
    // "pid N" then "window P": read until the window's line has come.
    void readLines(HANDLE pipe) {
        std::string text;
        char buffer[256];
        DWORD got = 0;
        while (text.find("window ") == std::string::npos || text.back() != '\n') {
            if (!ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) || got == 0) {
                return;
            }
            text.append(buffer, got);
        }
        std::istringstream lines(text.substr(text.find("window ") + 7));
        void* handle = nullptr;
        lines >> handle;
        window_ = static_cast<HWND>(handle);
    }

    PROCESS_INFORMATION info_ = {};
    bool started_ = false;
    HWND window_ = nullptr;
};

}  // namespace dwtest
