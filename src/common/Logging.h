// Log statements of the driver. Every source file has a static logger by name;
// a statement tests the logger's level first and builds its message only when
// the level suffices. A statement never throws: logging never fails a caller.
#pragma once

#include "tolvacore/log/Log.h"

#include <string>

namespace tolva {

using tolvacore::log::Log;
using tolvacore::log::Logger;

// The method name of a log line: the text behind the last ':' or blank of the
// function's name (at most 252 characters), with "()" added unless it ends in ')'.
std::string logMethodName(const char* function);

}  // namespace tolva

#define TOLVA_LOG(logger, level, parts) TOLVA_LOG_AS(logger, level, __func__, parts)

// A statement under the name of another function: a helper that logs for its
// caller passes the caller's __func__.
#define TOLVA_LOG_AS(logger, level, function, parts)                                 \
    do {                                                                             \
        try {                                                                        \
            if ((logger).getLevel() >= (level)) {                                    \
                ::tolva::tolvacore::log::Logger::OStream tolvaLogStream_;            \
                tolvaLogStream_ << parts;                                            \
                (logger).log((level), ::tolva::logMethodName(function),              \
                             tolvaLogStream_.str());                                 \
            }                                                                        \
        } catch (...) {                                                              \
        }                                                                            \
    } while (0)
