// The driver's log, as written to the file named by TOLVA_LOG_FILE: tests read
// it to see the words that the driver logs and the threads that logged them.
#pragma once

#include <string>
#include <vector>

namespace dwtest {

struct LogLine {
    std::string thread;
    int level = 0;
    std::string logger;
    std::string method;
    std::string message;
};

class LogFile {
public:
    // Points TOLVA_LOG_FILE and TOLVA_LOG_LEVELS (by default every logger at 10) at a new
    // file of this process, named after its first test ("deskwright-test-<Suite.Test>-<pid>.log"
    // in the temporary directory, with '/' made '_'), which the suite's runner shows the end of
    // when the test runs out of time or crashes; must run before the driver is loaded.
    static void configure(const std::wstring& levels = L"*=10");
    static const std::wstring& path();

    static std::vector<LogLine> lines();
    // Lines whose message contains the text, optionally only of one level.
    static std::vector<LogLine> find(const std::string& text, int level = -1);
    static size_t count(const std::string& text, int level = -1) { return find(text, level).size(); }
    static bool contains(const std::string& text, int level = -1) { return count(text, level) > 0; }
    // Waits until a line with the text appears.
    static bool waitFor(const std::string& text, unsigned timeoutMs, int level = -1);
    static std::string dump();  // the whole file, for failure messages
};

}  // namespace dwtest
