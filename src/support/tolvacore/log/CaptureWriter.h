// A writer that keeps every record in memory, for tests of code that logs.
#pragma once

#include "Log.h"

#include <mutex>
#include <vector>

namespace tolva {
namespace tolvacore {
namespace log {

class CaptureWriter : public LogWriter {
public:
    void write(const LogRecord& record) override;
    std::vector<LogRecord> records() const;
    // True if a record of the level has the text in its message.
    bool contains(short level, const std::string& text) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

}  // namespace log
}  // namespace tolvacore
}  // namespace tolva
