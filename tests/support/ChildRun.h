// This test program run again as a child process for one of its tests, for
// cases that must crash or need another environment: the child's exit code
// and what it wrote to standard output and to standard error.
#pragma once

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace dwtest {

// The whole content of a file; empty if it can't be read.
inline std::string readFile(const std::wstring& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct ChildRun {
    DWORD exitCode = 0xFFFFFFFF;  // also when it didn't start or end within a minute
    std::string out;
    std::string err;
};

// Runs the test named by a GoogleTest filter, with these environment
// variables set for it (an empty value removes one); this process's own are
// restored afterwards.
inline ChildRun runChild(const std::string& filter,
                         const std::vector<std::pair<std::wstring, std::wstring>>& variables) {
    ChildRun result;
    wchar_t exe[MAX_PATH];
    wchar_t temp[MAX_PATH];
    if (!GetModuleFileNameW(nullptr, exe, MAX_PATH) || !GetTempPathW(MAX_PATH, temp)) return result;
    std::vector<std::pair<std::wstring, std::wstring>> saved;
    for (const auto& [name, value] : variables) {
        std::vector<wchar_t> old(32768, L'\0');
        const DWORD length = GetEnvironmentVariableW(name.c_str(), old.data(), 32768);
        saved.emplace_back(name, length ? std::wstring(old.data(), length) : std::wstring());
        SetEnvironmentVariableW(name.c_str(), value.empty() ? nullptr : value.c_str());
    }
    const std::wstring base = std::wstring(temp) + L"deskwright-child-" + std::to_wstring(GetCurrentProcessId());
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    auto create = [&](const std::wstring& path) {
        return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    };
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = create(base + L".out");
    startup.hStdError = create(base + L".err");
    std::wstring command = L"\"" + std::wstring(exe) + L"\" --gtest_filter=" + std::wstring(filter.begin(), filter.end());
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(exe, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
        if (WaitForSingleObject(process.hProcess, 60000) == WAIT_OBJECT_0) {
            GetExitCodeProcess(process.hProcess, &result.exitCode);
        } else {
            TerminateProcess(process.hProcess, 99);
        }
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    for (const auto& [name, value] : saved) SetEnvironmentVariableW(name.c_str(), value.empty() ? nullptr : value.c_str());
    result.out = readFile(base + L".out");
    result.err = readFile(base + L".err");
    DeleteFileW((base + L".out").c_str());
    DeleteFileW((base + L".err").c_str());
    return result;
}

}  // namespace dwtest
