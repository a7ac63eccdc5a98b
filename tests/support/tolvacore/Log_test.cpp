// Unit tests of the tolvacore logging: levels, records, the statement stream,
// the writers, the file writer of logToShm and logging from several threads.
//
// The configuration is read once per process, at the first use of the
// library. This file sets TOLVA_LOG_LEVELS and TOLVA_LOG_FILE from a
// file-scope initialiser that runs before the first logger of the process is
// made (the static logger below it), so the tests pass alone or together.
// Cases that need another configuration run this executable again as a child
// process, with its own environment, and check what the child reports.
#include "ChildRun.h"
#include "tolvacore/log/CaptureWriter.h"
#include "tolvacore/log/Log.h"

#include <boost/enable_shared_from_this.hpp>
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

using dwtest::readFile;
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
const char kStampPattern[] = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3})";

std::wstring role() {
    wchar_t buffer[64];
    const DWORD got = GetEnvironmentVariableW(kRoleVariable, buffer, 64);
    return got > 0 && got < 64 ? std::wstring(buffer, got) : std::wstring();
}

std::wstring tempFolder() {
    wchar_t buffer[MAX_PATH + 1];
    const DWORD got = GetTempPathW(MAX_PATH + 1, buffer);
    return got > 0 && got <= MAX_PATH ? std::wstring(buffer, got) : std::wstring(L".\\");
}

// A name outside ASCII, so that the wide path is exercised.
const std::wstring& logFilePath() {
    static const std::wstring path =
        tempFolder() + L"tolva-log-test-\u00e9-" + std::to_wstring(GetCurrentProcessId()) + L".log";
    return path;
}

// The lines of a text; the text must end with a line end, checked apart.
std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Runs before the static logger below: configures the test process. The log
// file exists already, so that appending can be seen.
bool configure() {
    if (!role().empty()) return false;  // a child: its parent gave it its environment
    _wputenv_s(L"TOLVA_LOG_LEVELS", kLevels);
    if (FILE* file = _wfopen(logFilePath().c_str(), L"wb")) {
        std::fputs("earlier line\n", file);
        std::fclose(file);
    }
    _wputenv_s(L"TOLVA_LOG_FILE", logFilePath().c_str());
    return true;
}

const bool configured = configure();

// A logger fetched during static initialisation, as other translation units do.
Logger& staticLogger = Log::getLogger("lv.a.fromStatic");

struct LogFileRemover {
    ~LogFileRemover() {
        if (configured) DeleteFileW(logFilePath().c_str());
    }
} logFileRemover;

// Restores the output level at the end of a test.
struct OutputLevelGuard {
    const short saved = Log::getOutputLogLevel();
    ~OutputLevelGuard() { Log::setOutputLogLevel(saved); }
};

// Registers a writer for the length of a test.
struct Registration {
    explicit Registration(boost::shared_ptr<LogWriter> added) : writer(std::move(added)) { Log::addWriter(writer); }
    ~Registration() { Log::removeWriter(writer); }
    boost::shared_ptr<LogWriter> writer;
};

std::string utf8(const std::wstring& text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &result[0], size, nullptr, nullptr);
    return result;
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// "YYYY-MM-DD HH:MM:SS.mmm" of a time, in local time.
std::string localStamp(std::int64_t ms) {
    const std::int64_t ticks = ms * 10000 + 116444736000000000LL;
    FILETIME fileTime = {static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32)};
    SYSTEMTIME utc = {};
    SYSTEMTIME local = {};
    FileTimeToSystemTime(&fileTime, &utc);
    SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.wYear, local.wMonth, local.wDay,
                  local.wHour, local.wMinute, local.wSecond, local.wMilliseconds);
    return stamp;
}

}  // namespace

// --- levels ------------------------------------------------------------------

TEST(LogLevels, ConfiguredLevelsGoToTheLongestWholeNameAbove) {
    ASSERT_TRUE(configured);
    OutputLevelGuard guard;
    Log::setOutputLogLevel(2);
    EXPECT_EQ(&staticLogger, &Log::getLogger("lv.a.fromStatic")) << "one logger per name";
    EXPECT_EQ("lv.a.fromStatic", staticLogger.getName());
    const std::pair<const char*, short> rows[] = {
        {"lv.a.fromStatic", 7},  // fetched at static initialisation
        {"lv.a", 7}, {"lv.a.x.y.z", 7},
        {"lv.abc", 2}, {"lv.a_", 2},  // names that only start alike
        {"lv", 2}, {"LV.A", 2},       // above it; names as they are
        {"lv.caf\xC3\xA9.x", 6},
        {"lv.a.b.c", 9}, {"lv.a.b.c.d.e", 4}, {"lv.a.b.c.dx", 9}, {"lv.a.bx", 7},
        {"lv.ab", 2}, {"lv.m.noequals", 2}, {"lv.m.neg", 2}, {"lv.m.big", 2}, {"lv.m.empty", 2}, {"lv.m.bad", 2},
        {"lv.m.blank", 2},                   // malformed entries
        {"lv.m.ok.sub", 6},                  // blanks around names and levels
        {"lv.dup", 8}, {"lv.zero", 0},       // the later entry wins; zero is a level
    };
    for (const auto& row : rows) EXPECT_EQ(row.second, Log::getLogger(row.first).getLevel()) << row.first;

    std::vector<Logger*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&seen, i] {
            for (int round = 0; round < 200; ++round) seen[i] = &Log::getLogger("one.shared." + std::to_string(round));
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (Logger* logger : seen) EXPECT_EQ(&Log::getLogger("one.shared.199"), logger) << "one logger across threads";
}

TEST(LogLevels, OutputLevelSetLevelAndAConfigurationReadOnce) {
    OutputLevelGuard guard;
    EXPECT_EQ(2, Log::getOutputLogLevel()) << "the default";
    Logger& unmatched = Log::getLogger("out.unmatched");
    Logger& configuredLogger = Log::getLogger("lv.a.set");
    Log::setOutputLogLevel(6);
    EXPECT_EQ(6, unmatched.getLevel());
    EXPECT_EQ(6, Log::getLogger("out.madeAfterTheChange").getLevel());
    EXPECT_EQ(7, configuredLogger.getLevel());

    configuredLogger.setLevel(3);
    unmatched.setLevel(9);
    Log::setOutputLogLevel(5);
    EXPECT_EQ(3, Log::getLogger("lv.a.set").getLevel());
    EXPECT_EQ(9, unmatched.getLevel());
    EXPECT_EQ(7, Log::getLogger("lv.a.set.below").getLevel()) << "a logger below keeps its own level";
    configuredLogger.setLevel(-1);
    unmatched.setLevel(-1);
    EXPECT_EQ(7, configuredLogger.getLevel()) << "a negative level drops the fixed one";
    EXPECT_EQ(5, unmatched.getLevel());

    Log::setOutputLogLevel(2);
    SetEnvironmentVariableW(L"TOLVA_LOG_LEVELS", L"late=9");
    _wputenv_s(L"TOLVA_LOG_LEVELS", L"late=9");
    EXPECT_EQ(2, Log::getLogger("late").getLevel()) << "the configuration is read once";
    EXPECT_EQ(9, Log::getLogger("lv.a.b.late").getLevel());
    _wputenv_s(L"TOLVA_LOG_LEVELS", kLevels);
    SetEnvironmentVariableW(L"TOLVA_LOG_LEVELS", kLevels);
}

// --- records and their lines ---------------------------------------------------

TEST(LogRecords, RecordsCarryLevelLoggerThreadMethodMessageAndTime) {
    OutputLevelGuard guard;
    Log::setOutputLogLevel(1);
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Registration registration(capture);
    DWORD threadId = 0;
    std::int64_t before = 0, after = 0;
    std::thread([&] {
        threadId = GetCurrentThreadId();
        before = nowMs();
        Log::getLogger("rec.unnamed").log(5, "run()", "hello from a thread");
        after = nowMs();
        tolva_logSetThreadName("worker-A");
        Log::getLogger("rec.named").log(3, "first()", "named");
        tolva_logSetThreadName("worker-B");
        Log::getLogger("rec.named").log(10, "second()", "renamed, the finest level");
        tolva_logSetThreadName(nullptr);
        Log::getLogger("rec.named").log(1, "third()", "unnamed again");
    }).join();
    Log::getLogger("rec.named").log(3, "main()", "other thread");

    const std::vector<LogRecord> records = capture->records();
    ASSERT_EQ(5u, records.size());
    const std::string unnamed = "t" + std::to_string(threadId);
    const LogRecord& first = records[0];
    EXPECT_EQ(5, first.level);
    EXPECT_EQ("rec.unnamed", first.logger);
    EXPECT_EQ(unnamed, first.thread);
    EXPECT_EQ("run()", first.method);
    EXPECT_EQ("hello from a thread", first.message);
    EXPECT_GE(first.timeMs, before - 50);
    EXPECT_LE(first.timeMs, after + 50);
    EXPECT_EQ("worker-A", records[1].thread);
    EXPECT_EQ("worker-B", records[2].thread);
    EXPECT_EQ(10, records[2].level) << "every level reaches the writers";
    EXPECT_EQ(unnamed, records[3].thread);
    EXPECT_EQ(1, records[3].level);
    EXPECT_NE("worker-B", records[4].thread) << "the name belongs to that thread alone";
    EXPECT_EQ("main()", records[4].method);
}

TEST(LogFormat, OneLineInLocalTime) {
    LogRecord record;
    record.level = 5;
    record.logger = "tolva.Uia";
    record.thread = "main";
    record.method = "method()";
    record.message = "message \xC3\xA9";
    record.timeMs = 1700000000007LL;  // 2023-11-14 22:13:20.007 UTC
    const std::string line = formatRecord(record);
    EXPECT_EQ(localStamp(record.timeMs) + " [main] L5 tolva.Uia method(): message \xC3\xA9", line);
    EXPECT_EQ(".007", line.substr(19, 4));
    record.level = 10;
    record.method.clear();
    EXPECT_EQ(localStamp(record.timeMs) + " [main] L10 tolva.Uia: message \xC3\xA9", formatRecord(record));

    // Times outside the calendar still make a line; the last day there is may
    // be in the year 10000 in local time.
    LogRecord bare;
    bare.logger = "fmt";
    bare.timeMs = INT64_MIN;
    EXPECT_TRUE(std::regex_match(formatRecord(bare), std::regex(std::string(kStampPattern) + R"( \[\] L0 fmt: )")));
    bare.timeMs = INT64_MAX;
    EXPECT_TRUE(std::regex_match(formatRecord(bare),
                                 std::regex(R"((9999-12-31|10000-01-01) \d{2}:\d{2}:\d{2}\.999 \[\] L0 fmt: )")))
        << formatRecord(bare);
}

TEST(LogOStream, NarrowAsItIsWideAsUtf8NumbersWithManipulators) {
    const char* pointer = "pointer ";
    const wchar_t* constWide = L" \u20AC";
    wchar_t buffer[] = L" \U0001F600";  // a surrogate pair
    wchar_t* wide = buffer;
    const wchar_t* nothing = nullptr;
    wchar_t* nothingEither = nullptr;
    struct Row { const char* name; Logger::OStream out; std::string expected; };
    Row rows[] = {
        {"narrow text", {}, "literal string \xC3\xBC pointer c"},
        {"wide text", {}, "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xC3\xA9 literal \xF0\x9F\x98\x80"},
        {"null wide text", {}, "[(null)|(null)]"},
        {"numbers", {}, "42 ff 255 -7 1.5 1\n"},
    };
    rows[0].out << "literal " << std::string("string \xC3\xBC ") << pointer << 'c';
    rows[1].out << std::wstring(L"Gr\u00FC\u00DFe") << constWide << wide << L' ' << L'\u00E9' << L" literal" << buffer;
    rows[2].out << "[" << nothing << "|" << nothingEither << "]" << std::wstring();
    rows[3].out << 42 << ' ' << std::hex << 255 << std::dec << ' ' << 255 << ' ' << -7L << ' ' << 1.5 << ' ' << true
                << std::endl;
    for (const Row& row : rows) EXPECT_EQ(row.expected, row.out.str()) << row.name;
}

// --- writers -------------------------------------------------------------------

namespace {

class ThrowingWriter : public LogWriter {
public:
    void write(const LogRecord&) override { throw std::runtime_error("writer failed"); }
};

class LoggingWriter : public LogWriter {
public:
    void write(const LogRecord& record) override {
        ++calls;
        Log::getLogger("rec.inner").log(1, "write()", "from inside " + record.message);
    }
    std::atomic<int> calls{0};
};

class SelfRemovingWriter : public LogWriter, public boost::enable_shared_from_this<SelfRemovingWriter> {
public:
    void write(const LogRecord&) override {
        ++calls;
        Log::removeWriter(shared_from_this());
    }
    std::atomic<int> calls{0};
};

}  // namespace

TEST(LogWriters, AddedOnceRemovedForGoodAndSafeFromTheirOwnFaults) {
    const boost::shared_ptr<CaptureWriter> capture(new CaptureWriter);
    Logger& logger = Log::getLogger("wr.add");
    Log::addWriter(capture);
    Log::addWriter(capture);  // no second registration
    logger.log(5, "m()", "while registered");
    Log::removeWriter(capture);
    logger.log(5, "m()", "after removal");
    Log::removeWriter(capture);                      // not registered: nothing happens
    Log::addWriter(boost::shared_ptr<LogWriter>());  // ignored
    logger.log(5, "m()", "with a null writer added");
    ASSERT_EQ(1u, capture->records().size());
    EXPECT_EQ("while registered", capture->records()[0].message);
    capture->clear();

    const boost::shared_ptr<ThrowingWriter> thrower(new ThrowingWriter);
    const boost::shared_ptr<LoggingWriter> logging(new LoggingWriter);
    const boost::shared_ptr<SelfRemovingWriter> leaving(new SelfRemovingWriter);
    Registration first(thrower);
    Registration second(logging);
    Registration third(leaving);
    Registration fourth(capture);
    EXPECT_NO_THROW(logger.log(3, "m()", "one"));
    EXPECT_NO_THROW(logger.log(3, "m()", "two"));
    EXPECT_TRUE(capture->contains(3, "one")) << "a throwing writer stops neither others nor the caller";
    EXPECT_TRUE(capture->contains(3, "two"));
    EXPECT_EQ(2, logging->calls.load());
    EXPECT_FALSE(capture->contains(1, "from inside")) << "a writer that logs does not recurse";
    EXPECT_EQ(1, leaving->calls.load()) << "a writer may remove itself while writing";
}

// --- logToShm -------------------------------------------------------------------

namespace {

// Takes its time over each record and counts how many calls are inside it at
// once: more than one means the library called it from two threads together.
class SlowWriter : public LogWriter {
public:
    void write(const LogRecord& record) override {
        const int now = ++inside_;
        for (int seen = most.load(); now > seen && !most.compare_exchange_weak(seen, now);) {
        }
        for (std::size_t i = 0; i < record.message.size(); i += 64) std::this_thread::yield();
        --inside_;
    }
    std::atomic<int> most{0};  // the most calls at once

private:
    std::atomic<int> inside_{0};
};

}  // namespace

// The writer of logToShm: one for the process, registered until the process
// ends, appending to the configured file (what it held stays) in whole lines
// that four threads writing at once neither split nor mix; the library calls
// the writers one at a time.
TEST(LogToShm, AppendsWholeLinesOfManyThreadsToTheLogFile) {
    ASSERT_TRUE(configured);
    boost::shared_ptr<LogWriter> writer = Log::logToShm("deskwright-test", 4711);
    ASSERT_TRUE(writer);
    EXPECT_EQ(writer.get(), Log::logToShm("another-name", 1).get());
    writer.reset();  // dropping the pointer leaves the writer registered
    Logger::OStream wide;
    wide << L"wide caf\u00E9 " << std::hex << 255;
    Log::getLogger("shm.test").log(3, "second()", wide.str());
    const int threadsCount = 4;
    const int linesEach = 250;
    const boost::shared_ptr<SlowWriter> slow(new SlowWriter);
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
                for (++ready; ready.load() < threadsCount;) std::this_thread::yield();
                for (int i = 0; i < linesEach; ++i) {
                    Logger::OStream message;
                    message << "thread " << t << " line " << i << ' ' << std::string(120, 'x');
                    logger.log(5, "run()", message.str());
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    EXPECT_EQ(1, slow->most.load());
    EXPECT_EQ(static_cast<std::size_t>(threadsCount * linesEach), capture->records().size());

    const std::string text = readFile(logFilePath());
    ASSERT_FALSE(text.empty());
    EXPECT_EQ('\n', text.back());
    EXPECT_EQ(std::string::npos, text.find('\r'));
    const std::vector<std::string> lines = splitLines(text);
    ASSERT_GE(lines.size(), 3u) << text;
    EXPECT_EQ("earlier line", lines[0]) << "appended to what the file held";
    const std::string stamp = std::string(kStampPattern) + R"( \[[^\]]+\] )";
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(stamp + R"(L5 tolva\.log logToShm: log deskwright-test started \(port 4711\))")))
        << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(stamp + "L3 shm\\.test second\\(\\): wide caf\xC3\xA9 ff"))) << lines[2];
    const std::regex pattern(std::string(kStampPattern) +
                             R"( \[worker-(\d)\] L5 conc\.file run\(\): thread (\d) line (\d+) x{120})");
    std::set<std::pair<int, int>> seen;
    std::smatch match;
    for (std::size_t i = 3; i < lines.size(); ++i) {
        ASSERT_TRUE(std::regex_match(lines[i], match, pattern)) << "line " << i << ": " << lines[i];
        EXPECT_EQ(match[1].str(), match[2].str()) << lines[i];
        EXPECT_TRUE(seen.emplace(std::stoi(match[2].str()), std::stoi(match[3].str())).second) << "twice: " << lines[i];
    }
    EXPECT_EQ(static_cast<std::size_t>(threadsCount * linesEach), seen.size());
}

// In a child process: "*" sets every logger that no longer entry names, and a
// log file that cannot be opened leaves standard error, with a word why.
TEST(LogToShm, StarLevelsAndStandardErrorWithoutAUsableLogFile) {
    if (role() == L"child") {
        const std::pair<const char*, short> rows[] = {
            {"anything", 8}, {"ch.ab", 8}, {"ch.a.x", 4}, {"ch.a.b.c", 6},  // longer names win over "*"
        };
        for (const auto& row : rows) EXPECT_EQ(row.second, Log::getLogger(row.first).getLevel()) << row.first;
        Log::setOutputLogLevel(1);
        EXPECT_EQ(8, Log::getLogger("made.later").getLevel()) << "with \"*\" the output level no longer counts";
        const boost::shared_ptr<LogWriter> writer = Log::logToShm("childlog", 4242);
        EXPECT_EQ(writer.get(), Log::logToShm("childlog", 4242).get());
        Log::getLogger("child.log").log(5, "run()", "to standard error \xC3\xA9");
        return;
    }
    const std::wstring missing = tempFolder() + L"no-such-folder-" + std::to_wstring(GetCurrentProcessId()) + L"\\x.log";
    const dwtest::ChildRun child =
        dwtest::runChild("LogToShm.StarLevelsAndStandardErrorWithoutAUsableLogFile",
                         {{kRoleVariable, L"child"}, {L"TOLVA_LOG_LEVELS", L"*=8, ch.a=4,ch.a.b=6,*=x"},
                          {L"TOLVA_LOG_FILE", missing}});
    EXPECT_EQ(0u, child.exitCode) << child.out << child.err;
    EXPECT_NE(std::string::npos, child.out.find("[  PASSED  ] 1 test")) << child.out;
    const std::vector<std::string> lines = splitLines(child.err);
    ASSERT_EQ(3u, lines.size()) << child.err;
    const std::string stamp = std::string(kStampPattern) + R"( \[[^\]]+\] )";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(stamp + R"(L5 tolva\.log logToShm: log childlog started \(port 4242\))")))
        << lines[0];
    EXPECT_NE(std::string::npos, lines[1].find(" L3 tolva.log logToShm: cannot open " + utf8(missing))) << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(stamp + "L5 child\\.log run\\(\\): to standard error \xC3\xA9")))
        << lines[2];
}
