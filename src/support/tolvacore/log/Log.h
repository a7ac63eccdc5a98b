// Logging interface of the tolvacore support library: named loggers with a
// level each, writers that receive every record that passes, and a name for
// each thread that appears in its lines.
//
// Configuration at run time, read once at the first use of the library:
//   TOLVA_LOG_LEVELS  comma-separated "name=level" entries; a name matches a
//                     logger of that name and every logger below it in the
//                     dotted hierarchy ("tolva.uia" covers "tolva.uia.UiaControl");
//                     "*" stands for all. The longest match wins. A logger with
//                     no match takes the output level (setOutputLogLevel).
//   TOLVA_LOG_FILE    path of a file that logToShm's writer appends to; without
//                     it the writer goes to standard error.
#pragma once

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <sstream>
#include <string>

namespace tolva {
namespace tolvacore {
namespace log {

struct LogRecord {
    short level = 0;
    std::string logger;   // the logger's name
    std::string thread;   // tolva_logSetThreadName of the writing thread, else "t<id>"
    std::string method;   // as given to Logger::log
    std::string message;  // UTF-8
    std::int64_t timeMs = 0;  // milliseconds since 1970-01-01 UTC
};

// Formats a record as one line without the line end:
// "2026-11-23 00:40:33.123 [thread] L5 tolva.Uia method(): message"
std::string formatRecord(const LogRecord& record);

class LogWriter {
public:
    virtual ~LogWriter() = default;
    virtual void write(const LogRecord& record) = 0;
};

class Logger {
public:
    // The stream that a log statement builds its message in. Narrow text is
    // taken as UTF-8; wide text (strings, pointers to text, single
    // characters) is converted to UTF-8; everything else goes through a
    // std::ostringstream, manipulators such as std::hex included.
    class OStream {
    public:
        template <class T>
        OStream& operator<<(const T& value) {
            out_ << value;
            return *this;
        }
        OStream& operator<<(const std::wstring& text);
        OStream& operator<<(const wchar_t* text);
        OStream& operator<<(wchar_t* text) { return *this << static_cast<const wchar_t*>(text); }
        OStream& operator<<(wchar_t c);
        OStream& operator<<(std::ostream& (*manip)(std::ostream&)) {
            out_ << manip;
            return *this;
        }
        OStream& operator<<(std::ios_base& (*manip)(std::ios_base&)) {
            out_ << manip;
            return *this;
        }
        std::string str() const { return out_.str(); }

    private:
        std::ostringstream out_;
    };

    explicit Logger(std::string name);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    const std::string& getName() const { return name_; }

    // The level up to which this logger's statements pass. Levels: 1 errors,
    // 3 warnings, 5 notable steps, 7 entries of operations, 9 detail, 10 fine.
    short getLevel() const;
    void setLevel(short level);  // fixes the level; overrides configuration

    // Hands a record to every writer, whatever the level: callers test
    // getLevel() first.
    void log(short level, const std::string& method, const std::string& message) const;

private:
    friend class Log;
    std::string name_;
    short configured_ = -1;  // from TOLVA_LOG_LEVELS or setLevel; -1: follow the output level
};

class Log {
public:
    // The logger of that name, made at first use; it lives until process exit.
    static Logger& getLogger(const std::string& name);

    // Registers the process's log writer under a name: appends to TOLVA_LOG_FILE
    // or writes to standard error. The writer stays registered when the
    // returned pointer is dropped. The port is kept for the writer's header line.
    static boost::shared_ptr<LogWriter> logToShm(const std::string& name, int port);

    // The level of every logger that has none of its own.
    static void setOutputLogLevel(short level);
    static short getOutputLogLevel();

    static void addWriter(const boost::shared_ptr<LogWriter>& writer);
    static void removeWriter(const boost::shared_ptr<LogWriter>& writer);
};

}  // namespace log
}  // namespace tolvacore
}  // namespace tolva

extern "C" void tolva_logSetThreadName(const char* name);
