// One message of a queue as bytes: a kind byte, then a sequence of values,
// each a type byte and its payload. Writing stops at the size limit, reading
// at the end of the message; both throw ShmException instead of going over,
// and a write that doesn't fit drops the whole message.
//
// Payloads, little-endian: int, unsigned and raw 4 bytes; 64-bit int and
// pointer 8 bytes; bool one byte, 0 or 1; wide string a 4-byte count of
// UTF-16 units and then the units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tolva {
namespace tolvacore {
namespace ipc {

enum class ShmValueType : std::uint8_t {
    Int = 'i',
    Unsigned = 'u',
    Int64 = 'l',
    Bool = 'b',
    Pointer = 'p',
    WideString = 's',
    Raw = 'r',
};

enum class ShmMessageKind : std::uint8_t {
    None = 0,
    Call = 'C',     // first value: the target object
    Return = 'R',   // the answer to a call
    Message = 'M',  // first value: the name, as wide string
};

const char* shmValueTypeName(ShmValueType type);

class ShmMessage {
public:
    explicit ShmMessage(std::size_t limit) : limit_(limit) {}

    // Starts a new message of the kind; what was written or read is gone.
    void begin(ShmMessageKind kind);
    // Takes a received message for reading. Throws ShmException, leaving the
    // message empty, when it is larger than the limit, empty or of no kind.
    void assign(std::vector<std::uint8_t> bytes);
    void clear();

    ShmMessageKind kind() const { return bytes_.empty() ? ShmMessageKind::None : ShmMessageKind(bytes_[0]); }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    std::vector<std::uint8_t> take();
    std::size_t limit() const { return limit_; }

    void put(ShmValueType type, std::uint64_t value, std::size_t width);
    void putString(const wchar_t* text, std::size_t length);
    // The payload of the next value, which must be of the type; throws otherwise.
    std::uint64_t get(ShmValueType type, std::size_t width);
    std::wstring getString();

private:
    void reserve(std::size_t count, const char* what);
    void expect(ShmValueType type, std::size_t payload);

    std::size_t limit_;
    std::vector<std::uint8_t> bytes_;
    std::size_t readAt_ = 0;
};

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
