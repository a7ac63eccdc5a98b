// A writer that keeps every record in memory, for tests of code that logs.
#include "CaptureWriter.h"

#include <algorithm>

namespace tolva {
namespace tolvacore {
namespace log {

void CaptureWriter::write(const LogRecord& record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
}

std::vector<LogRecord> CaptureWriter::records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

bool CaptureWriter::contains(short level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(records_.begin(), records_.end(), [&](const LogRecord& record) {
        return record.level == level && record.message.find(text) != std::string::npos;
    });
}

void CaptureWriter::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

}  // namespace log
}  // namespace tolvacore
}  // namespace tolva
