// The base of the support library's exceptions: a message that both what()
// and getMessage() give.
#pragma once

#include <exception>
#include <string>

namespace tolva {
namespace tolvacore {

class Exception : public std::exception {
public:
    explicit Exception(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& getMessage() const { return message_; }

private:
    std::string message_;
};

}  // namespace tolvacore
}  // namespace tolva
