// A unit of work for the dispatch thread. Given to the queue, it belongs to
// the queue event that carries it; some are also called directly on the stack.
// operator() must not let an exception escape.
#pragma once

#include <cstdint>

namespace tolva {

class Runnable {
public:
    virtual ~Runnable() = default;
    virtual std::int32_t operator()() = 0;
};

}  // namespace tolva
