// Unit tests of the tolvacore logging: levels, records, the statement stream,
// the writers, the file writer of logToShm and logging from several threads.
//
// The configuration is read once per process, at the first use of the
// library. This file sets TOLVA_LOG_LEVELS and TOLVA_LOG_FILE from a
// file-scope initialiser that runs before the first logger of the process is
// made (the static logger below it), so the tests pass alone or together.
// Cases that need another configuration run this executable again as a child
// process, with its own environment, and check what the child reports.
#include "tolvacore/log/CaptureWriter.h"
#include "tolvacore/log/Log.h"

#include <boost/enable_shared_from_this.hpp>
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using tolva::tolvacore::log::CaptureWriter;
using tolva::tolvacore::log::Log;
using tolva::tolvacore::log::LogRecord;
using tolva::tolvacore::log::LogWriter;
using tolva::tolvacore::log::Logger;
using tolva::tolvacore::log::formatRecord;

namespace {

// Set in a child process: which case it runs. The parent's configuration is
// then left alone.
const wchar_t kRoleVariable[] = L"TOLVA_LOG_TEST_ROLE";

// The configuration of the test process. Blanks, malformed entries, repeated
// names, a zero level and a name outside ASCII ("lv.caf\u00e9").
const wchar_t kLevels[] =
    L" lv.a=7 , lv.a.b=9,lv.a.b.c.d=4,lv.ab=x,lv.m.noequals,=6,lv.m.neg=-3,"
    L"lv.m.big=99999,lv.m.empty=,lv.m.bad=5x,lv.m.blank= ,,lv.m.ok = 6 ,"
    L"lv.dup=3,lv.dup=8,lv.zero=0,lv.caf\u00e9=6";

const char kShmName[] = "deskwright-test";
const int kShmPort = 4711;

std::wstring environmentValue(const wchar_t* name) {
    wchar_t buffer[4096];
    const DWORD got = GetEnvironmentVariableW(name, buffer, 4096);
    if (got > 0 && got < 4096) {
        return std::wstring(buffer, got);
    }
    const wchar_t* crt = _wgetenv(name);
    return crt != nullptr ? std::wstring(crt) : std::wstring();
}

std::wstring role() { return environmentValue(kRoleVariable); }

std::wstring tempFolder() {
    wchar_t buffer[MAX_PATH + 1];
    const DWORD got = GetTempPathW(MAX_PATH + 1, buffer);
    return got > 0 && got <= MAX_PATH ? std::wstring(buffer, got) : std::wstring(L".\\");
}

// A name outside ASCII, so that the wide path is exercised.
std::wstring logFilePath() {
    static const std::wstring path = tempFolder() + L"tolva-log-test-\u00e9-" +
                                     std::to_wstring(GetCurrentProcessId()) + L".log";
    return path;
}

bool writeFile(const std::wstring& path, const std::string& bytes) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    DWORD written = 0;
    const BOOL ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
    return ok && written == bytes.size();
}

std::string readFile(const std::wstring& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return std::string();
    }
    std::string content;
    char buffer[65536];
    DWORD got = 0;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) {
        content.append(buffer, got);
    }
    CloseHandle(file);
    return content;
}

// The lines of a text; the text must end with a line end, checked apart.
std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    if (start < text.size()) {
        lines.push_back(text.substr(start));
    }
    return lines;
}

// Runs before the static logger below: configures the test process.
bool configure() {
    if (!role().empty()) {
        return false;  // a child: its parent gave it its environment
    }
    _wputenv_s(L"TOLVA_LOG_LEVELS", kLevels);
    // The file exists already, so that appending can be seen.
    writeFile(logFilePath(), "earlier line\n");
    _wputenv_s(L"TOLVA_LOG_FILE", logFilePath().c_str());
    return true;
}

const bool configured = configure();

// A logger fetched during static initialisation, as other translation units do.
Logger& staticLogger = Log::getLogger("lv.a.fromStatic");

// Removes the log file when the process ends.
struct LogFileRemover {
    ~LogFileRemover() {
        if (configured) {
            DeleteFileW(logFilePath().c_str());
        }
    }
} logFileRemover;

// Restores the output level at the end of a test.
class OutputLevelGuard {
public:
    OutputLevelGuard() : saved_(Log::getOutputLogLevel()) {}
    ~OutputLevelGuard() { Log::setOutputLogLevel(saved_); }

private:
    short saved_;
};

// Registers a writer for the length of a test.
class Registration {
public:
    explicit Registration(boost::shared_ptr<LogWriter> writer) : writer_(std::move(writer)) {
        Log::addWriter(writer_);
    }
    ~Registration() { Log::removeWriter(writer_); }

private:
    boost::shared_ptr<LogWriter> writer_;
};

std::string utf8(const std::wstring& text) {
    if (text.empty()) {
        return std::string();
    }
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &result[0], size,
                        nullptr, nullptr);
    return result;
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// "YYYY-MM-DD HH:MM:SS.mmm" of a time, in local time.
std::string localStamp(std::int64_t ms) {
    const std::int64_t ticks = ms * 10000 + 116444736000000000LL;
    FILETIME fileTime;
    fileTime.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFF);
    fileTime.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    SYSTEMTIME utc = {};
    SYSTEMTIME local = {};
    FileTimeToSystemTime(&fileTime, &utc);
    SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.wYear,
                  local.wMonth, local.wDay, local.wHour, local.wMinute, local.wSecond,
                  local.wMilliseconds);
    return stamp;
}

const char kStampPattern[] = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3})";

// What a child process did.
struct ChildResult {
    DWORD exitCode = 0xFFFFFFFF;
    std::string out;
    std::string err;
};

bool sameName(const std::wstring& entry, const wchar_t* name) {
    const std::size_t length = std::char_traits<wchar_t>::length(name);
    return entry.size() > length && entry[length] == L'=' &&
           CompareStringOrdinal(entry.c_str(), static_cast<int>(length), name,
                                static_cast<int>(length), TRUE) == CSTR_EQUAL;
}

// Runs one test of this executable in a child process, whose environment is
// this one's without any TOLVA_LOG_ variable, plus the role and the given
// variables. Its standard output and error are kept.
ChildResult runChild(const std::string& test, const std::wstring& childRole,
                     const std::vector<std::pair<std::wstring, std::wstring>>& variables) {
    ChildResult result;
    wchar_t exe[32768];
    const DWORD exeLength = GetModuleFileNameW(nullptr, exe, 32768);
    if (exeLength == 0 || exeLength >= 32768) {
        return result;
    }

    std::vector<wchar_t> block;
    const wchar_t* strings = GetEnvironmentStringsW();
    for (const wchar_t* entry = strings; entry != nullptr && *entry != L'\0';
         entry += std::char_traits<wchar_t>::length(entry) + 1) {
        const std::wstring text(entry);
        if (sameName(text, L"TOLVA_LOG_LEVELS") || sameName(text, L"TOLVA_LOG_FILE") ||
            sameName(text, kRoleVariable)) {
            continue;
        }
        block.insert(block.end(), text.begin(), text.end());
        block.push_back(L'\0');
    }
    if (strings != nullptr) {
        FreeEnvironmentStringsW(const_cast<wchar_t*>(strings));
    }
    std::vector<std::pair<std::wstring, std::wstring>> added = variables;
    added.emplace_back(kRoleVariable, childRole);
    for (const auto& variable : added) {
        const std::wstring text = variable.first + L"=" + variable.second;
        block.insert(block.end(), text.begin(), text.end());
        block.push_back(L'\0');
    }
    block.push_back(L'\0');

    const std::wstring base = tempFolder() + L"tolva-log-child-" +
                              std::to_wstring(GetCurrentProcessId()) + L"-" + childRole;
    const std::wstring outPath = base + L".out";
    const std::wstring errPath = base + L".err";
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    const HANDLE out = CreateFileW(outPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    const HANDLE err = CreateFileW(errPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (out != INVALID_HANDLE_VALUE && err != INVALID_HANDLE_VALUE) {
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = nullptr;
        startup.hStdOutput = out;
        startup.hStdError = err;
        std::wstring command = L"\"" + std::wstring(exe, exeLength) + L"\" --gtest_filter=" +
                               std::wstring(test.begin(), test.end());
        PROCESS_INFORMATION process = {};
        if (CreateProcessW(exe, &command[0], nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                           block.data(), nullptr, &startup, &process)) {
            if (WaitForSingleObject(process.hProcess, 60000) == WAIT_OBJECT_0) {
                GetExitCodeProcess(process.hProcess, &result.exitCode);
            } else {
                TerminateProcess(process.hProcess, 99);
            }
            CloseHandle(process.hThread);
            CloseHandle(process.hProcess);
        }
    }
    if (out != INVALID_HANDLE_VALUE) {
        CloseHandle(out);
    }
    if (err != INVALID_HANDLE_VALUE) {
        CloseHandle(err);
    }
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    DeleteFileW(outPath.c_str());
    DeleteFileW(errPath.c_str());
    return result;
}

// Throws from every write.
class ThrowingWriter : public LogWriter {
public:
    void write(const LogRecord&) override { throw std::runtime_error("writer failed"); }
};

// Logs from inside its own write.
class LoggingWriter : public LogWriter {
public:
    void write(const LogRecord& record) override {
        ++calls;
        Log::getLogger("rec.inner").log(1, "write()", "from inside " + record.message);
    }
    std::atomic<int> calls{0};
};

// Removes itself from inside its own write.
class SelfRemovingWriter : public LogWriter, public boost::enable_shared_from_this<SelfRemovingWriter> {
public:
    void write(const LogRecord&) override {
        ++calls;
        Log::removeWriter(shared_from_this());
    }
    std::atomic<int> calls{0};
};

}  // namespace

// --- levels ------------------------------------------------------------------

TEST(LogLevels, LoggerFetchedAtStaticInitialisationIsConfigured) {
    ASSERT_TRUE(configured);
    EXPECT_EQ(&staticLogger, &Log::getLogger("lv.a.fromStatic"));
    EXPECT_EQ("lv.a.fromStatic", staticLogger.getName());
    EXPECT_EQ(7, staticLogger.getLevel());
}

TEST(LogLevels, OneLoggerPerName) {
    Logger& first = Log::getLogger("one.name");
    EXPECT_EQ(&first, &Log::getLogger("one.name"));
    EXPECT_NE(&first, &Log::getLogger("one.name2"));
    EXPECT_EQ("one.name", first.getName());

    std::vector<Logger*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&seen, i] {
            for (int round = 0; round < 200; ++round) {
                seen[i] = &Log::getLogger("one.shared." + std::to_string(round));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (Logger* logger : seen) {
        EXPECT_EQ(&Log::getLogger("one.shared.199"), logger);
    }
}

TEST(LogLevels, NameCoversItselfAndLoggersBelowIt) {
    OutputLevelGuard guard;
    Log::setOutputLogLevel(2);
    EXPECT_EQ(7, Log::getLogger("lv.a").getLevel());
    EXPECT_EQ(7, Log::getLogger("lv.a.x").getLevel());
    EXPECT_EQ(7, Log::getLogger("lv.a.x.y.z").getLevel());
    EXPECT_EQ(7, Log::getLogger("lv.a.bc").getLevel());
    // Not below "lv.a": the name only starts alike.
    EXPECT_EQ(2, Log::getLogger("lv.abc").getLevel());
    EXPECT_EQ(2, Log::getLogger("lv.a_").getLevel());
    // Above it.
    EXPECT_EQ(2, Log::getLogger("lv").getLevel());
    // Names are compared as they are.
    EXPECT_EQ(2, Log::getLogger("LV.A").getLevel());
    EXPECT_EQ(6, Log::getLogger("lv.caf\xC3\xA9.x").getLevel());
}

TEST(LogLevels, LongestMatchWins) {
    EXPECT_EQ(9, Log::getLogger("lv.a.b").getLevel());
    EXPECT_EQ(9, Log::getLogger("lv.a.b.c").getLevel());
    EXPECT_EQ(4, Log::getLogger("lv.a.b.c.d").getLevel());
    EXPECT_EQ(4, Log::getLogger("lv.a.b.c.d.e").getLevel());
    EXPECT_EQ(9, Log::getLogger("lv.a.b.c.dx").getLevel());
    EXPECT_EQ(7, Log::getLogger("lv.a.bx").getLevel());
}

TEST(LogLevels, MalformedEntriesAreIgnored) {
    OutputLevelGuard guard;
    Log::setOutputLogLevel(2);
    for (const char* name : {"lv.ab", "lv.m.noequals", "lv.m.neg", "lv.m.big", "lv.m.empty",
                             "lv.m.bad", "lv.m.blank", "lv.m"}) {
        EXPECT_EQ(2, Log::getLogger(name).getLevel()) << name;
    }
    // The entries around them count, with blanks around names and levels.
    EXPECT_EQ(6, Log::getLogger("lv.m.ok").getLevel());
    EXPECT_EQ(6, Log::getLogger("lv.m.ok.sub").getLevel());
}

TEST(LogLevels, LaterEntryOfTheSameNameWinsAndZeroIsALevel) {
    EXPECT_EQ(8, Log::getLogger("lv.dup").getLevel());
    EXPECT_EQ(0, Log::getLogger("lv.zero").getLevel());
}

TEST(LogLevels, OutputLevelDefaultsToTwoAndFollowsChanges) {
    OutputLevelGuard guard;
    EXPECT_EQ(2, Log::getOutputLogLevel());
    Logger& unmatched = Log::getLogger("out.unmatched");
    Logger& configuredLogger = Log::getLogger("lv.a.out");
    EXPECT_EQ(2, unmatched.getLevel());

    Log::setOutputLogLevel(6);
    EXPECT_EQ(6, Log::getOutputLogLevel());
    EXPECT_EQ(6, unmatched.getLevel());
    EXPECT_EQ(6, Log::getLogger("out.madeAfterTheChange").getLevel());
    EXPECT_EQ(7, configuredLogger.getLevel());

    Log::setOutputLogLevel(2);
    EXPECT_EQ(2, unmatched.getLevel());
}

TEST(LogLevels, SetLevelOverridesConfigurationAndOutputLevel) {
    OutputLevelGuard guard;
    Log::setOutputLogLevel(2);
    Logger& configuredLogger = Log::getLogger("lv.a.set");
    Logger& unmatched = Log::getLogger("set.unmatched");
    EXPECT_EQ(7, configuredLogger.getLevel());

    configuredLogger.setLevel(3);
    unmatched.setLevel(9);
    Log::setOutputLogLevel(5);
    EXPECT_EQ(3, configuredLogger.getLevel());
    EXPECT_EQ(9, unmatched.getLevel());
    EXPECT_EQ(3, Log::getLogger("lv.a.set").getLevel());
    // A logger below it keeps its own level.
    EXPECT_EQ(7, Log::getLogger("lv.a.set.below").getLevel());

    // A negative level drops the fixed one.
    configuredLogger.setLevel(-1);
    unmatched.setLevel(-1);
    EXPECT_EQ(7, configuredLogger.getLevel());
    EXPECT_EQ(5, unmatched.getLevel());
}

TEST(LogLevels, ConfigurationIsReadOnce) {
    ASSERT_TRUE(configured);
    OutputLevelGuard guard;
    Log::setOutputLogLevel(2);
    _wputenv_s(L"TOLVA_LOG_LEVELS", L"late=9");
    SetEnvironmentVariableW(L"TOLVA_LOG_LEVELS", L"late=9");
    EXPECT_EQ(2, Log::getLogger("late").getLevel());
    EXPECT_EQ(2, Log::getLogger("late.below").getLevel());
    EXPECT_EQ(9, Log::getLogger("lv.a.b.late").getLevel());
    _wputenv_s(L"TOLVA_LOG_LEVELS", kLevels);
    SetEnvironmentVariableW(L"TOLVA_LOG_LEVELS", kLevels);
}

TEST(LogLevels, StarMatchesEveryLogger) {
    if (role() == L"star") {
        OutputLevelGuard guard;
        EXPECT_EQ(8, Log::getLogger("anything").getLevel());
        EXPECT_EQ(8, Log::getLogger("any.thing.at.all").getLevel());
        EXPECT_EQ(8, Log::getLogger("ch").getLevel());
        EXPECT_EQ(8, Log::getLogger("ch.ab").getLevel());
        // Longer names win over "*".
        EXPECT_EQ(4, Log::getLogger("ch.a").getLevel());
        EXPECT_EQ(4, Log::getLogger("ch.a.x").getLevel());
        EXPECT_EQ(6, Log::getLogger("ch.a.b.c").getLevel());
        // "*" gives every logger a level: the output level no longer counts.
        Log::setOutputLogLevel(1);
        EXPECT_EQ(8, Log::getLogger("anything").getLevel());
        EXPECT_EQ(8, Log::getLogger("made.later").getLevel());
        return;
    }
    const ChildResult child = runChild("LogLevels.StarMatchesEveryLogger", L"star",
                                       {{L"TOLVA_LOG_LEVELS", L"*=8, ch.a=4,ch.a.b=6,*=x"}});
    EXPECT_EQ(0u, child.exitCode) << child.out << child.err;
    EXPECT_NE(std::string::npos, child.out.find("[  PASSED  ] 1 test")) << child.out;
}

// --- records -----------------------------------------------------------------

TEST(LogRecords, StatementOfAThreadWithoutName) {
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration registration(capture);
    DWORD threadId = 0;
    std::int64_t before = 0;
    std::int64_t after = 0;
    std::thread([&] {
        threadId = GetCurrentThreadId();
        before = nowMs();
        Log::getLogger("rec.unnamed").log(5, "run()", "hello from a thread");
        after = nowMs();
    }).join();

    const std::vector<LogRecord> records = capture->records();
    ASSERT_EQ(1u, records.size());
    const LogRecord& record = records[0];
    EXPECT_EQ(5, record.level);
    EXPECT_EQ("rec.unnamed", record.logger);
    EXPECT_EQ("t" + std::to_string(threadId), record.thread);
    EXPECT_EQ("run()", record.method);
    EXPECT_EQ("hello from a thread", record.message);
    EXPECT_GE(record.timeMs, before - 50);
    EXPECT_LE(record.timeMs, after + 50);
}

TEST(LogRecords, StatementOfANamedThread) {
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration registration(capture);
    DWORD threadId = 0;
    std::thread([&] {
        threadId = GetCurrentThreadId();
        tolva_logSetThreadName("worker-A");
        Log::getLogger("rec.named").log(3, "first()", "named");
        tolva_logSetThreadName("worker-B");
        Log::getLogger("rec.named").log(3, "second()", "renamed");
        tolva_logSetThreadName(nullptr);
        Log::getLogger("rec.named").log(3, "third()", "unnamed again");
    }).join();
    // The name belongs to that thread alone.
    Log::getLogger("rec.named").log(3, "main()", "other thread");

    const std::vector<LogRecord> records = capture->records();
    ASSERT_EQ(4u, records.size());
    EXPECT_EQ("worker-A", records[0].thread);
    EXPECT_EQ("worker-B", records[1].thread);
    EXPECT_EQ("t" + std::to_string(threadId), records[2].thread);
    EXPECT_NE("worker-B", records[3].thread);
    EXPECT_EQ("rec.named", records[3].logger);
    EXPECT_EQ("main()", records[3].method);
}

TEST(LogRecords, EveryLevelReachesTheWriters) {
    OutputLevelGuard guard;
    Log::setOutputLogLevel(1);
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration registration(capture);
    Logger& logger = Log::getLogger("rec.levels");
    ASSERT_EQ(1, logger.getLevel());
    logger.log(10, "m()", "finest");
    logger.log(1, "m()", "error");
    EXPECT_TRUE(capture->contains(10, "finest"));
    EXPECT_TRUE(capture->contains(1, "error"));
}

TEST(LogFormat, LineLayout) {
    LogRecord record;
    record.level = 5;
    record.logger = "tolva.Uia";
    record.thread = "main";
    record.method = "method()";
    record.message = "message \xC3\xA9";
    record.timeMs = 1700000000007LL;  // 2023-11-14 22:13:20.007 UTC
    const std::string line = formatRecord(record);
    EXPECT_EQ(localStamp(record.timeMs) + " [main] L5 tolva.Uia method(): message \xC3\xA9", line);
    EXPECT_TRUE(std::regex_match(line.substr(0, 23), std::regex(kStampPattern))) << line;
    EXPECT_EQ(".007", line.substr(19, 4));
    EXPECT_EQ(std::string::npos, line.find('\n'));

    record.level = 10;
    record.method.clear();
    EXPECT_EQ(localStamp(record.timeMs) + " [main] L10 tolva.Uia: message \xC3\xA9",
              formatRecord(record));
}

TEST(LogFormat, TimesOutsideTheCalendarStillMakeALine) {
    LogRecord record;
    record.logger = "fmt";
    record.timeMs = INT64_MIN;
    EXPECT_TRUE(std::regex_match(formatRecord(record),
                                 std::regex(std::string(kStampPattern) + R"( \[\] L0 fmt: )")));
    record.timeMs = INT64_MAX;
    // The last day there is, which may be in the year 10000 in local time.
    EXPECT_TRUE(std::regex_match(formatRecord(record),
                                 std::regex(R"((9999-12-31|10000-01-01) \d{2}:\d{2}:\d{2}\.999 \[\] L0 fmt: )")))
        << formatRecord(record);
}

TEST(LogFormat, LocalTimeOfTheRecord) {
    const std::int64_t now = nowMs();
    LogRecord record;
    record.timeMs = now;
    SYSTEMTIME local = {};
    GetLocalTime(&local);
    char today[16];
    std::snprintf(today, sizeof today, "%04d-%02d-%02d", local.wYear, local.wMonth, local.wDay);
    const std::string line = formatRecord(record);
    // Unless midnight passed in between, the date is today's local date.
    if (local.wHour != 0 || local.wMinute != 0) {
        EXPECT_EQ(today, line.substr(0, 10)) << line;
    }
    EXPECT_EQ(localStamp(now), line.substr(0, 23));
}

// --- the statement stream ------------------------------------------------------

TEST(LogOStream, NarrowTextAsItIs) {
    Logger::OStream out;
    const char* pointer = "pointer ";
    out << "literal " << std::string("string \xC3\xBC ") << pointer << 'c';
    EXPECT_EQ("literal string \xC3\xBC pointer c", out.str());
}

TEST(LogOStream, WideTextBecomesUtf8) {
    Logger::OStream out;
    const std::wstring text = L"Gr\u00FC\u00DFe";
    const wchar_t* constPointer = L" \u20AC";
    wchar_t buffer[] = L" \U0001F600";  // a surrogate pair
    wchar_t* pointer = buffer;
    out << text << constPointer << pointer << L' ' << L'\u00E9' << L" literal" << buffer;
    EXPECT_EQ("Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xC3\xA9 literal \xF0\x9F\x98\x80",
              out.str());
}

TEST(LogOStream, NullWideTextPrintsNull) {
    Logger::OStream out;
    const wchar_t* nothing = nullptr;
    wchar_t* nothingEither = nullptr;
    out << "[" << nothing << "|" << nothingEither << "]" << std::wstring();
    EXPECT_EQ("[(null)|(null)]", out.str());
}

TEST(LogOStream, NumbersAndManipulators) {
    Logger::OStream out;
    out << 42 << ' ' << std::hex << 255 << ' ' << 0x1234u << std::dec << ' ' << 255 << ' ' << -7L
        << ' ' << 1.5 << ' ' << true << std::endl;
    EXPECT_EQ("42 ff 1234 255 -7 1.5 1\n", out.str());
}

TEST(LogOStream, MixedStatement) {
    Logger::OStream out;
    const void* none = nullptr;
    out << "hwnd=0x" << std::hex << 0xBEEF << std::dec << " name=" << std::wstring(L"Caf\u00E9")
        << " count=" << 3 << " ptr=" << (none == nullptr ? "none" : "some");
    EXPECT_EQ("hwnd=0xbeef name=Caf\xC3\xA9 count=3 ptr=none", out.str());
}

// --- writers -------------------------------------------------------------------

TEST(CaptureWriterTest, ContainsMatchesLevelAndPartOfTheMessage) {
    CaptureWriter capture;
    LogRecord record;
    record.level = 5;
    record.message = "hello world";
    capture.write(record);
    record.level = 3;
    record.message = "a warning";
    capture.write(record);

    EXPECT_TRUE(capture.contains(5, "hello world"));
    EXPECT_TRUE(capture.contains(5, "lo wo"));
    EXPECT_TRUE(capture.contains(5, ""));
    EXPECT_TRUE(capture.contains(3, "warn"));
    EXPECT_FALSE(capture.contains(3, "hello"));
    EXPECT_FALSE(capture.contains(5, "warn"));
    EXPECT_FALSE(capture.contains(4, "hello"));
    EXPECT_FALSE(capture.contains(5, "hello world!"));

    const std::vector<LogRecord> records = capture.records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("hello world", records[0].message);
    EXPECT_EQ("a warning", records[1].message);

    capture.clear();
    EXPECT_TRUE(capture.records().empty());
    EXPECT_FALSE(capture.contains(5, ""));
}

TEST(LogWriters, AddedOnceRemovedForGood) {
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Logger& logger = Log::getLogger("wr.add");
    Log::addWriter(capture);
    Log::addWriter(capture);  // no second registration
    logger.log(5, "m()", "while registered");
    Log::removeWriter(capture);
    logger.log(5, "m()", "after removal");
    Log::removeWriter(capture);  // not registered: nothing happens
    Log::addWriter(boost::shared_ptr<LogWriter>());  // ignored
    logger.log(5, "m()", "with a null writer added");

    const std::vector<LogRecord> records = capture->records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("while registered", records[0].message);
}

TEST(LogWriters, ThrowingWriterStopsNeitherOthersNorTheCaller) {
    const boost::shared_ptr<LogWriter> thrower(new ThrowingWriter);
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration first(thrower);
    Registration second(capture);
    EXPECT_NO_THROW(Log::getLogger("wr.throw").log(3, "m()", "still delivered"));
    EXPECT_TRUE(capture->contains(3, "still delivered"));
}

TEST(LogWriters, WriterThatLogsDoesNotRecurse) {
    const boost::shared_ptr<LoggingWriter> logging(new LoggingWriter);
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration first(logging);
    Registration second(capture);
    Log::getLogger("wr.outer").log(5, "m()", "outer");
    EXPECT_EQ(1, logging->calls.load());
    EXPECT_TRUE(capture->contains(5, "outer"));
    EXPECT_FALSE(capture->contains(1, "from inside"));
    // The library works on afterwards.
    Log::getLogger("wr.outer").log(5, "m()", "again");
    EXPECT_EQ(2, logging->calls.load());
    EXPECT_TRUE(capture->contains(5, "again"));
}

TEST(LogWriters, WriterMayRemoveItselfWhileWriting) {
    const boost::shared_ptr<SelfRemovingWriter> leaving(new SelfRemovingWriter);
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration first(leaving);
    Registration second(capture);
    Log::getLogger("wr.leave").log(5, "m()", "one");
    Log::getLogger("wr.leave").log(5, "m()", "two");
    EXPECT_EQ(1, leaving->calls.load());
    EXPECT_TRUE(capture->contains(5, "one"));
    EXPECT_TRUE(capture->contains(5, "two"));
}

// --- logToShm -------------------------------------------------------------------

TEST(LogToShm, AppendsLinesToTheLogFileAndMakesOneWriter) {
    ASSERT_TRUE(configured);
    boost::shared_ptr<LogWriter> writer = Log::logToShm(kShmName, kShmPort);
    boost::shared_ptr<LogWriter> again = Log::logToShm("another-name", 1);
    ASSERT_TRUE(writer);
    EXPECT_EQ(writer.get(), again.get());

    Logger& logger = Log::getLogger("shm.test");
    logger.log(5, "first()", "first line to the file");
    // Dropping the pointers leaves the writer registered.
    writer.reset();
    again.reset();
    Logger::OStream text;
    text << L"wide caf\u00E9 " << std::hex << 255;
    logger.log(3, "second()", text.str());

    const std::string content = readFile(logFilePath());
    ASSERT_FALSE(content.empty());
    EXPECT_EQ('\n', content.back());
    EXPECT_EQ(std::string::npos, content.find('\r'));
    const std::vector<std::string> lines = splitLines(content);
    ASSERT_GE(lines.size(), 4u);
    // Appended to what the file held.
    EXPECT_EQ("earlier line", lines[0]);
    // The header, once.
    const std::regex header(std::string(kStampPattern) + R"( \[[^\]]+\] L5 tolva\.log logToShm: log )" +
                            kShmName + R"( started \(port 4711\))");
    EXPECT_TRUE(std::regex_match(lines[1], header)) << lines[1];
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                  return line.find(" started (port ") != std::string::npos;
              }));

    const std::regex first(std::string(kStampPattern) +
                           R"( \[[^\]]+\] L5 shm\.test first\(\): first line to the file)");
    const std::regex second(std::string(kStampPattern) +
                            " \\[[^\\]]+\\] L3 shm\\.test second\\(\\): wide caf\xC3\xA9 ff");
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                  return std::regex_match(line, first);
              })) << content;
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                  return std::regex_match(line, second);
              })) << content;
}

TEST(LogToShm, WritesToStandardErrorWithoutLogFile) {
    const std::wstring which = role();
    if (which == L"stderr" || which == L"badfile") {
        // No TOLVA_LOG_LEVELS either: every logger follows the output level.
        EXPECT_EQ(2, Log::getOutputLogLevel());
        EXPECT_EQ(2, Log::getLogger("lv.a").getLevel());
        const boost::shared_ptr<LogWriter> writer = Log::logToShm("childlog", 4242);
        EXPECT_EQ(writer.get(), Log::logToShm("childlog", 4242).get());
        Log::getLogger("child.log").log(5, "run()", "to standard error \xC3\xA9");
        return;
    }
    const std::regex header(std::string(kStampPattern) +
                            R"( \[[^\]]+\] L5 tolva\.log logToShm: log childlog started \(port 4242\))");
    const std::regex line(std::string(kStampPattern) +
                          " \\[[^\\]]+\\] L5 child\\.log run\\(\\): to standard error \xC3\xA9");

    const ChildResult child = runChild("LogToShm.WritesToStandardErrorWithoutLogFile", L"stderr", {});
    EXPECT_EQ(0u, child.exitCode) << child.out << child.err;
    std::vector<std::string> lines = splitLines(child.err);
    ASSERT_EQ(2u, lines.size()) << child.err;
    EXPECT_TRUE(std::regex_match(lines[0], header)) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], line)) << lines[1];

    // A log file that cannot be opened: standard error, with a word why.
    const std::wstring missing = tempFolder() + L"no-such-folder-" +
                                 std::to_wstring(GetCurrentProcessId()) + L"\\x.log";
    const ChildResult bad = runChild("LogToShm.WritesToStandardErrorWithoutLogFile", L"badfile",
                                     {{L"TOLVA_LOG_FILE", missing}});
    EXPECT_EQ(0u, bad.exitCode) << bad.out << bad.err;
    lines = splitLines(bad.err);
    ASSERT_EQ(3u, lines.size()) << bad.err;
    EXPECT_TRUE(std::regex_match(lines[0], header)) << lines[0];
    EXPECT_NE(std::string::npos, lines[1].find(" L3 tolva.log logToShm: cannot open ")) << lines[1];
    EXPECT_NE(std::string::npos, lines[1].find(utf8(missing))) << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], line)) << lines[2];
}

// --- several threads -------------------------------------------------------------

namespace {

// Copies each line into one buffer a character at a time, yielding now and
// then, without a lock of its own: lines stay whole only if the library never
// calls it from two threads at once. (Each character takes a place of its
// own, so calls that overlap mix lines up instead of breaking the buffer.)
class SlowWriter : public LogWriter {
public:
    explicit SlowWriter(std::size_t capacity) : buffer_(capacity) {}

    void write(const LogRecord& record) override {
        const int now = ++inside_;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        const std::string line = formatRecord(record) + "\n";
        for (std::size_t i = 0; i < line.size(); ++i) {
            const std::size_t at = used_++;
            if (at < buffer_.size()) {
                buffer_[at] = line[i];
            }
            if (i % 64 == 0) {
                std::this_thread::yield();
            }
        }
        --inside_;
    }

    std::string text() const {
        return std::string(buffer_.data(), std::min(used_.load(), buffer_.size()));
    }

    std::atomic<int> most{0};  // the most calls at once

private:
    std::vector<char> buffer_;
    std::atomic<std::size_t> used_{0};
    std::atomic<int> inside_{0};
};

}  // namespace

TEST(LogConcurrency, FourThreadsWriteWholeLines) {
    ASSERT_TRUE(configured);
    const int threadsCount = 4;
    const int linesEach = 250;
    const std::string padding(120, 'x');
    Log::logToShm(kShmName, kShmPort);
    const boost::shared_ptr<SlowWriter> slow(new SlowWriter(threadsCount * linesEach * 256));
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    {
        Registration first(slow);
        Registration second(capture);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < threadsCount; ++t) {
            threads.emplace_back([&, t] {
                tolva_logSetThreadName(("worker-" + std::to_string(t)).c_str());
                Logger& logger = Log::getLogger("conc.file");
                ++ready;
                while (ready.load() < threadsCount) {
                    std::this_thread::yield();
                }
                for (int i = 0; i < linesEach; ++i) {
                    Logger::OStream message;
                    message << "thread " << t << " line " << i << ' ' << padding;
                    logger.log(5, "run()", message.str());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(1, slow->most.load());
    EXPECT_EQ(static_cast<std::size_t>(threadsCount * linesEach), capture->records().size());

    const std::regex pattern(std::string(kStampPattern) +
                             R"( \[worker-(\d)\] L5 conc\.file run\(\): thread (\d) line (\d+) x{120})");
    auto check = [&](const std::string& text, const char* where) {
        ASSERT_FALSE(text.empty()) << where;
        EXPECT_EQ('\n', text.back()) << where;
        std::set<std::pair<int, int>> seen;
        std::smatch match;
        for (const std::string& line : splitLines(text)) {
            if (line.find("conc.file") == std::string::npos) {
                // Lines of other tests or the header: whole lines as well.
                EXPECT_TRUE(line == "earlier line" ||
                            std::regex_match(line, std::regex(std::string(kStampPattern) + " \\[.*")))
                    << where << ": " << line;
                continue;
            }
            ASSERT_TRUE(std::regex_match(line, match, pattern)) << where << ": " << line;
            EXPECT_EQ(match[1].str(), match[2].str()) << line;
            EXPECT_TRUE(seen.emplace(std::stoi(match[2].str()), std::stoi(match[3].str())).second)
                << where << ": twice: " << line;
        }
        EXPECT_EQ(static_cast<std::size_t>(threadsCount * linesEach), seen.size()) << where;
    };
    check(slow->text(), "unlocked writer");
    check(readFile(logFilePath()), "log file");
}
