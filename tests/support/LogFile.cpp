#include "LogFile.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace dwtest {

namespace {

std::wstring& logPath() {
    static std::wstring path;
    return path;
}

// "2026-11-23 00:40:33.123 [thread] L5 tolva.Uia method(): message"
bool parse(const std::string& text, LogLine& line) {
    const auto open = text.find(" [");
    const auto close = text.find("] L", open == std::string::npos ? 0 : open);
    if (open == std::string::npos || close == std::string::npos) return false;
    line.thread = text.substr(open + 2, close - open - 2);
    std::istringstream rest(text.substr(close + 3));
    rest >> line.level >> line.logger >> line.method;
    if (!line.method.empty() && line.method.back() == ':') line.method.pop_back();
    std::string message;
    std::getline(rest, message);
    line.message = message.empty() ? message : message.substr(1);
    return true;
}

}  // namespace

void LogFile::configure(const std::wstring& levels) {
    wchar_t dir[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    // One file for the process, named after its first test: the driver may
    // stay loaded from one test of the process to the next and keep writing
    // to the file it opened first.
    if (logPath().empty()) {
        std::wstring name;
        if (const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info()) {
            for (const char* part : {test->test_suite_name(), ".", test->name()}) {
                for (const char* c = part; *c; ++c) name += *c == '/' ? L'_' : static_cast<wchar_t>(*c);
            }
            name += L'-';
        }
        logPath() = std::wstring(dir) + L"deskwright-test-" + name + std::to_wstring(GetCurrentProcessId()) + L".log";
    }
    DeleteFileW(logPath().c_str());
    _wputenv_s(L"TOLVA_LOG_FILE", logPath().c_str());
    _wputenv_s(L"TOLVA_LOG_LEVELS", levels.c_str());
}

const std::wstring& LogFile::path() {
    return logPath();
}

std::vector<LogLine> LogFile::lines() {
    std::vector<LogLine> result;
    std::ifstream in(logPath().c_str(), std::ios::binary);  // text mode ends at a logged 0x1A
    std::string text;
    LogLine line;
    while (std::getline(in, text)) {
        if (!text.empty() && text.back() == '\r') text.pop_back();
        if (parse(text, line)) {
            result.push_back(line);
        } else if (!result.empty()) {
            result.back().message += "\n" + text;  // a message with a line break
        }
    }
    return result;
}

std::vector<LogLine> LogFile::find(const std::string& text, int level) {
    std::vector<LogLine> result;
    for (const LogLine& line : lines()) {
        if ((level < 0 || line.level == level) && line.message.find(text) != std::string::npos) result.push_back(line);
    }
    return result;
}

bool LogFile::waitFor(const std::string& text, unsigned timeoutMs, int level) {
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    do {
        if (contains(text, level)) return true;
        Sleep(20);
    } while (GetTickCount64() < end);
    return contains(text, level);
}

std::string LogFile::dump() {
    std::ifstream in(logPath().c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace dwtest
