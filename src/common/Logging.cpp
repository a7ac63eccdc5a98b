#include "common/Logging.h"

#include <cstring>

namespace tolva {

std::string logMethodName(const char* function) {
    if (!function) {
        return "()";
    }
    const char* start = function;
    for (const char* p = function; *p; ++p) {
        if (*p == ':' || *p == ' ') {
            start = p + 1;
        }
    }
    std::string name(start, std::min<std::size_t>(std::strlen(start), 252));
    if (name.empty() || name.back() != ')') {
        name += "()";
    }
    return name;
}

}  // namespace tolva
