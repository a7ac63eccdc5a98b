// Logging of the tolvacore support library.
//
// Design:
// - All process-wide state (the loggers, the writers, the configuration) lives
//   in objects made on first use through function-local statics and never
//   destroyed: loggers may be fetched from file-scope statics of any
//   translation unit, and statements may run from destructors of statics and
//   at DLL detach, after the end of main.
// - TOLVA_LOG_LEVELS and TOLVA_LOG_FILE are read once, when the configuration
//   is first needed (the first logger made, or the first logToShm). The
//   process environment is asked first (GetEnvironmentVariableW), then the C
//   runtime's copy (_wgetenv), so that a value set with either
//   SetEnvironmentVariableW or _wputenv_s is seen.
// - A logger caches its configured level when it is made; getLevel() is one
//   relaxed load of that level and, when it has none, one relaxed load of the
//   atomic output level.
// - Writers are called one record at a time under one lock, so that lines of
//   different threads never interleave. The record (and its message) is built
//   before the lock is taken. The list of writers is copied on change, so a
//   writer may add or remove writers from its write() without harm; a record
//   logged from inside a writer's write() on the same thread is dropped
//   instead of recursing.
// - Time stamps in formatted lines are in local time (the zone rules of the
//   record's date apply).
#include "Log.h"

#include <windows.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace tolva {
namespace tolvacore {
namespace log {

namespace {

// ---------------------------------------------------------------------------
// text

std::string toUtf8(const wchar_t* text, std::size_t length) {
    std::string result;
    // WideCharToMultiByte takes an int length: convert in pieces that never
    // split a surrogate pair.
    const std::size_t pieceMax = 1u << 20;
    while (length > 0) {
        std::size_t piece = length < pieceMax ? length : pieceMax;
        if (piece < length && text[piece - 1] >= 0xD800 && text[piece - 1] <= 0xDBFF) {
            --piece;
        }
        const int bytes = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(piece), nullptr,
                                              0, nullptr, nullptr);
        if (bytes > 0) {
            const std::size_t at = result.size();
            result.resize(at + static_cast<std::size_t>(bytes));
            WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(piece), &result[at], bytes,
                                nullptr, nullptr);
        }
        text += piece;
        length -= piece;
    }
    return result;
}

std::wstring fromUtf8(const std::string& text) {
    if (text.empty() || text.size() > static_cast<std::size_t>(INT_MAX)) {
        return std::wstring();
    }
    const int length = static_cast<int>(text.size());
    const int units = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    if (units <= 0) {
        return std::wstring();
    }
    std::wstring result(static_cast<std::size_t>(units), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, &result[0], units);
    return result;
}

std::string trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    const std::size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// ---------------------------------------------------------------------------
// configuration

// The value of an environment variable; empty when it is unset or empty.
std::wstring readEnvironment(const wchar_t* name) {
    DWORD size = GetEnvironmentVariableW(name, nullptr, 0);
    while (size > 0) {
        std::wstring value(size, L'\0');
        const DWORD got = GetEnvironmentVariableW(name, &value[0], size);
        if (got < size) {
            value.resize(got);
            return value;
        }
        size = got;  // it grew in between: try again with the new size
    }
#if defined(_MSC_VER)
    wchar_t* copy = nullptr;
    std::size_t count = 0;
    if (_wdupenv_s(&copy, &count, name) == 0 && copy != nullptr) {
        std::wstring value(copy);
        std::free(copy);
        return value;
    }
    return std::wstring();
#else
    const wchar_t* value = _wgetenv(name);
    return value != nullptr ? std::wstring(value) : std::wstring();
#endif
}

struct LevelRule {
    std::string name;  // empty for "*", which matches every logger
    short level;
};

struct Config {
    std::vector<LevelRule> rules;  // in the order of TOLVA_LOG_LEVELS
    std::wstring logFile;          // TOLVA_LOG_FILE; empty: standard error
};

// A level is a decimal number from 0 to SHRT_MAX; anything else is refused.
bool parseLevel(const std::string& text, short& level) {
    if (text.empty()) {
        return false;
    }
    long value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + (c - '0');
        if (value > SHRT_MAX) {
            return false;
        }
    }
    level = static_cast<short>(value);
    return true;
}

// "name=level" entries separated by commas, blanks around names and levels
// allowed. Entries without '=', with an empty name or with a level that is
// not a number are ignored.
std::vector<LevelRule> parseLevels(const std::string& text) {
    std::vector<LevelRule> rules;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(',', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string entry = text.substr(start, end - start);
        start = end + 1;
        const std::size_t equals = entry.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        const std::string name = trim(entry.substr(0, equals));
        short level = 0;
        if (name.empty() || !parseLevel(trim(entry.substr(equals + 1)), level)) {
            continue;
        }
        rules.push_back(LevelRule{name == "*" ? std::string() : name, level});
    }
    return rules;
}

const Config& config() {
    static const Config* const instance = [] {
        Config* made = new Config;
        const std::wstring levels = readEnvironment(L"TOLVA_LOG_LEVELS");
        made->rules = parseLevels(toUtf8(levels.data(), levels.size()));
        made->logFile = readEnvironment(L"TOLVA_LOG_FILE");
        return made;
    }();
    return *instance;
}

// The level that TOLVA_LOG_LEVELS gives a logger, or -1. A rule matches the
// logger of its name and every logger whose name continues it with a dot; the
// longest matching name wins, "*" counting as the shortest; of equal names
// the later entry wins.
short configuredLevelFor(const std::string& logger) {
    short best = -1;
    std::size_t bestLength = 0;
    bool found = false;
    for (const LevelRule& rule : config().rules) {
        const std::string& name = rule.name;
        const bool matches =
            name.empty() || logger == name ||
            (logger.size() > name.size() && logger[name.size()] == '.' &&
             logger.compare(0, name.size(), name) == 0);
        if (matches && (!found || name.size() >= bestLength)) {
            found = true;
            bestLength = name.size();
            best = rule.level;
        }
    }
    return best;
}

// ---------------------------------------------------------------------------
// levels

std::atomic<short> outputLevel{2};

// A logger's own level is read before every statement while setLevel may
// change it on another thread.
#if defined(__GNUC__) || defined(__clang__)
short loadLevel(const short& level) { return __atomic_load_n(&level, __ATOMIC_RELAXED); }
void storeLevel(short& level, short value) { __atomic_store_n(&level, value, __ATOMIC_RELAXED); }
#else
short loadLevel(const short& level) { return *static_cast<const volatile short*>(&level); }
void storeLevel(short& level, short value) { *static_cast<volatile short*>(&level) = value; }
#endif

// ---------------------------------------------------------------------------
// loggers

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<Logger>, std::less<>> loggers;
};

Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

// ---------------------------------------------------------------------------
// writers

using WriterList = std::vector<boost::shared_ptr<LogWriter>>;

struct Output {
    // Recursive, so that a writer may add or remove writers from its write().
    std::recursive_mutex mutex;
    std::shared_ptr<const WriterList> writers = std::make_shared<const WriterList>();
};

Output& output() {
    static Output* const instance = new Output;
    return *instance;
}

thread_local bool insideWrite = false;

// Hands a record to every writer under the output lock.
void dispatch(const LogRecord& record) {
    Output& out = output();
    std::lock_guard<std::recursive_mutex> lock(out.mutex);
    const std::shared_ptr<const WriterList> writers = out.writers;
    struct Inside {
        Inside() { insideWrite = true; }
        ~Inside() { insideWrite = false; }
    } inside;
    for (const boost::shared_ptr<LogWriter>& writer : *writers) {
        try {
            writer->write(record);
        } catch (...) {
            // A failing writer must not stop the others nor the caller.
        }
    }
}

// ---------------------------------------------------------------------------
// threads and time

thread_local std::string threadName;

std::string currentThreadName() {
    if (!threadName.empty()) {
        return threadName;
    }
    return "t" + std::to_string(GetCurrentThreadId());
}

// 100-ns intervals between 1601-01-01 and 1970-01-01.
const std::int64_t kEpochDifference = 116444736000000000LL;

std::int64_t nowMs() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const std::int64_t ticks =
        (static_cast<std::int64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    return (ticks - kEpochDifference) / 10000;
}

// ---------------------------------------------------------------------------
// the writer of logToShm

// Appends formatted lines to a file, or writes them to standard error. Each
// line goes out in one WriteFile call: nothing is held back in a buffer of
// the process. The file is opened for appending only, so that every line
// lands at its end even when other processes append to it as well.
class LineWriter : public LogWriter {
public:
    // An invalid handle means standard error.
    explicit LineWriter(HANDLE file) : file_(file) {}
    ~LineWriter() override {
        if (file_ != INVALID_HANDLE_VALUE) {
            CloseHandle(file_);
        }
    }
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    void write(const LogRecord& record) override {
        std::string line = formatRecord(record);
        line += '\n';
        if (file_ != INVALID_HANDLE_VALUE) {
            writeAll(file_, line);
            return;
        }
        const HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
        if (error == nullptr || error == INVALID_HANDLE_VALUE) {
            return;
        }
        DWORD mode = 0;
        if (GetConsoleMode(error, &mode)) {
            // A console shows UTF-16 right whatever its code page.
            const std::wstring wide = fromUtf8(line);
            DWORD written = 0;
            WriteConsoleW(error, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
        } else {
            writeAll(error, line);
        }
    }

private:
    static void writeAll(HANDLE handle, const std::string& bytes) {
        const char* data = bytes.data();
        std::size_t left = bytes.size();
        while (left > 0) {
            DWORD written = 0;
            const DWORD chunk = left > 0x10000000u ? 0x10000000u : static_cast<DWORD>(left);
            if (!WriteFile(handle, data, chunk, &written, nullptr) || written == 0) {
                return;
            }
            data += written;
            left -= written;
        }
    }

    HANDLE file_;
};

}  // namespace

// ---------------------------------------------------------------------------
// formatting

// Local time. A record without a method reads "<logger>: <message>".
std::string formatRecord(const LogRecord& record) {
    SYSTEMTIME local = {};
    // Times are kept within 1601-01-01 (where FILETIME starts) and
    // 9999-12-31 23:59:59.999 UTC.
    const std::int64_t earliest = -kEpochDifference / 10000;
    const std::int64_t latest = 253402300799999LL;
    std::int64_t ms = record.timeMs;
    if (ms < earliest) {
        ms = earliest;
    } else if (ms > latest) {
        ms = latest;
    }
    const std::int64_t ticks = ms * 10000 + kEpochDifference;
    FILETIME fileTime;
    fileTime.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFF);
    fileTime.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    SYSTEMTIME utc = {};
    if (FileTimeToSystemTime(&fileTime, &utc)) {
        if (!SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local)) {
            local = utc;
        }
    }
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u",
                  static_cast<unsigned>(local.wYear), static_cast<unsigned>(local.wMonth),
                  static_cast<unsigned>(local.wDay), static_cast<unsigned>(local.wHour),
                  static_cast<unsigned>(local.wMinute), static_cast<unsigned>(local.wSecond),
                  static_cast<unsigned>(local.wMilliseconds));

    std::string line;
    line.reserve(48 + record.thread.size() + record.logger.size() + record.method.size() +
                 record.message.size());
    line += stamp;
    line += " [";
    line += record.thread;
    line += "] L";
    line += std::to_string(record.level);
    line += ' ';
    line += record.logger;
    if (!record.method.empty()) {
        line += ' ';
        line += record.method;
    }
    line += ": ";
    line += record.message;
    return line;
}

// ---------------------------------------------------------------------------
// Logger::OStream

Logger::OStream& Logger::OStream::operator<<(const std::wstring& text) {
    out_ << toUtf8(text.data(), text.size());
    return *this;
}

Logger::OStream& Logger::OStream::operator<<(const wchar_t* text) {
    if (text == nullptr) {
        out_ << "(null)";
    } else {
        out_ << toUtf8(text, std::char_traits<wchar_t>::length(text));
    }
    return *this;
}

Logger::OStream& Logger::OStream::operator<<(wchar_t c) {
    out_ << toUtf8(&c, 1);
    return *this;
}

// ---------------------------------------------------------------------------
// Logger

Logger::Logger(std::string name) : name_(std::move(name)) {
    configured_ = configuredLevelFor(name_);
}

short Logger::getLevel() const {
    const short own = loadLevel(configured_);
    return own >= 0 ? own : outputLevel.load(std::memory_order_relaxed);
}

// A negative level drops the fixed level: the logger goes back to what
// TOLVA_LOG_LEVELS gives it, or to the output level.
void Logger::setLevel(short level) {
    storeLevel(configured_, level >= 0 ? level : configuredLevelFor(name_));
}

void Logger::log(short level, const std::string& method, const std::string& message) const {
    try {
        if (insideWrite) {
            return;  // logged by a writer while it writes: dropped, not recursed
        }
        LogRecord record;
        record.level = level;
        record.logger = name_;
        record.thread = currentThreadName();
        record.method = method;
        record.message = message;
        record.timeMs = nowMs();
        dispatch(record);
    } catch (...) {
        // Logging never fails its caller.
    }
}

// ---------------------------------------------------------------------------
// Log

Logger& Log::getLogger(const std::string& name) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    const auto found = reg.loggers.find(name);
    if (found != reg.loggers.end()) {
        return *found->second;
    }
    std::unique_ptr<Logger> made(new Logger(name));
    Logger& logger = *made;
    reg.loggers.emplace(name, std::move(made));
    return logger;
}

// Made once per process. The first line the writer writes is a record of
// level 5 from the logger "tolva.log", method "logToShm", with the message
// "log <name> started (port <port>)"; it goes to this writer only. When the
// file cannot be opened the writer goes to standard error and says so in a
// second line, of level 3. A later call returns the same writer, registering
// it again if it was removed in between.
boost::shared_ptr<LogWriter> Log::logToShm(const std::string& name, int port) {
    static std::mutex mutex;
    static boost::shared_ptr<LogWriter>* const writer = new boost::shared_ptr<LogWriter>;
    std::lock_guard<std::mutex> lock(mutex);
    if (!*writer) {
        const std::wstring& path = config().logFile;
        HANDLE file = INVALID_HANDLE_VALUE;
        DWORD openError = 0;
        if (!path.empty()) {
            file = CreateFileW(path.c_str(), FILE_APPEND_DATA,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            if (file == INVALID_HANDLE_VALUE) {
                openError = GetLastError();
            }
        }
        boost::shared_ptr<LogWriter> made(new LineWriter(file));

        LogRecord header;
        header.level = 5;
        header.logger = "tolva.log";
        header.thread = currentThreadName();
        header.method = "logToShm";
        header.message = "log " + name + " started (port " + std::to_string(port) + ")";
        header.timeMs = nowMs();
        made->write(header);
        if (!path.empty() && file == INVALID_HANDLE_VALUE) {
            LogRecord failure = header;
            failure.level = 3;
            failure.message = "cannot open " + toUtf8(path.data(), path.size()) + " (error " +
                              std::to_string(openError) + "); writing to standard error";
            made->write(failure);
        }
        *writer = made;
    }
    addWriter(*writer);
    return *writer;
}

void Log::setOutputLogLevel(short level) { outputLevel.store(level, std::memory_order_relaxed); }

short Log::getOutputLogLevel() { return outputLevel.load(std::memory_order_relaxed); }

// Adding a writer that is registered already changes nothing.
void Log::addWriter(const boost::shared_ptr<LogWriter>& writer) {
    if (!writer) {
        return;
    }
    Output& out = output();
    std::lock_guard<std::recursive_mutex> lock(out.mutex);
    for (const boost::shared_ptr<LogWriter>& present : *out.writers) {
        if (present == writer) {
            return;
        }
    }
    auto changed = std::make_shared<WriterList>(*out.writers);
    changed->push_back(writer);
    out.writers = std::move(changed);
}

// Once it returns, the writer gets no further record (unless it is added
// again); only a writer that removes itself from its own write() still sees
// the rest of the record being handed out at that moment.
void Log::removeWriter(const boost::shared_ptr<LogWriter>& writer) {
    Output& out = output();
    std::lock_guard<std::recursive_mutex> lock(out.mutex);
    auto changed = std::make_shared<WriterList>();
    changed->reserve(out.writers->size());
    for (const boost::shared_ptr<LogWriter>& present : *out.writers) {
        if (present != writer) {
            changed->push_back(present);
        }
    }
    if (changed->size() != out.writers->size()) {
        out.writers = std::move(changed);
    }
}

}  // namespace log
}  // namespace tolvacore
}  // namespace tolva

extern "C" void tolva_logSetThreadName(const char* name) {
    try {
        tolva::tolvacore::log::threadName = name != nullptr ? name : "";
    } catch (...) {
        // Out of memory: the thread keeps its former name.
    }
}
