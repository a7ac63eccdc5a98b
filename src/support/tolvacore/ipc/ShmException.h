// The queue's exceptions: ShmException for any failure of a queue, a
// malformed message included, and ShmTerminatedException once a queue has
// been terminated.
#pragma once

#include "tolvacore/Exception.h"

namespace tolva {
namespace tolvacore {
namespace ipc {

class ShmException : public Exception {
public:
    explicit ShmException(std::string message) : Exception(std::move(message)) {}
};

class ShmTerminatedException : public ShmException {
public:
    explicit ShmTerminatedException(std::string message) : ShmException(std::move(message)) {}
};

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
