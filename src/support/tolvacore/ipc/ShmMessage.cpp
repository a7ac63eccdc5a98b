#include "tolvacore/ipc/ShmMessage.h"

#include "tolvacore/ipc/ShmException.h"

#include <algorithm>
#include <sstream>

namespace tolva {
namespace tolvacore {
namespace ipc {

namespace {

const std::size_t TYPE_WIDTH = 1;
const std::size_t COUNT_WIDTH = 4;
const std::size_t UNIT_WIDTH = 2;  // a UTF-16 unit

bool knownKind(std::uint8_t kind) {
    return kind == std::uint8_t(ShmMessageKind::Call) || kind == std::uint8_t(ShmMessageKind::Return) ||
           kind == std::uint8_t(ShmMessageKind::Message);
}

bool knownType(std::uint8_t type) {
    switch (ShmValueType(type)) {
    case ShmValueType::Int:
    case ShmValueType::Unsigned:
    case ShmValueType::Int64:
    case ShmValueType::Bool:
    case ShmValueType::Pointer:
    case ShmValueType::WideString:
    case ShmValueType::Raw:
        return true;
    }
    return false;
}

}  // namespace

const char* shmValueTypeName(ShmValueType type) {
    switch (type) {
    case ShmValueType::Int: return "int";
    case ShmValueType::Unsigned: return "unsigned";
    case ShmValueType::Int64: return "64-bit int";
    case ShmValueType::Bool: return "bool";
    case ShmValueType::Pointer: return "pointer";
    case ShmValueType::WideString: return "wide string";
    case ShmValueType::Raw: return "raw value";
    }
    return "unknown type";
}

void ShmMessage::begin(ShmMessageKind kind) {
    bytes_.assign(1, std::uint8_t(kind));
    readAt_ = 1;
}

void ShmMessage::clear() {
    bytes_.clear();
    readAt_ = 0;
}

void ShmMessage::assign(std::vector<std::uint8_t> bytes) {
    clear();
    if (bytes.size() > limit_) {
        std::ostringstream text;
        text << "Message of " << bytes.size() << " bytes exceeds the queue size of " << limit_;
        throw ShmException(text.str());
    }
    if (bytes.empty() || !knownKind(bytes[0])) {
        throw ShmException(bytes.empty() ? "Empty message" : "Message of unknown kind");
    }
    bytes_ = std::move(bytes);
    readAt_ = 1;
}

std::vector<std::uint8_t> ShmMessage::take() {
    std::vector<std::uint8_t> out;
    out.swap(bytes_);
    readAt_ = 0;
    return out;
}

void ShmMessage::reserve(std::size_t count, const char* what) {
    if (bytes_.empty()) {
        throw ShmException("No message set up");
    }
    if (bytes_.size() > limit_ || count > limit_ - bytes_.size()) {
        clear();  // what was written can't go out as a whole, so none of it goes
        std::ostringstream text;
        text << "Message exceeds the queue size of " << limit_ << " bytes with " << what;
        throw ShmException(text.str());
    }
}

void ShmMessage::put(ShmValueType type, std::uint64_t value, std::size_t width) {
    reserve(TYPE_WIDTH + width, shmValueTypeName(type));
    bytes_.push_back(std::uint8_t(type));
    for (std::size_t i = 0; i < width; ++i) {
        bytes_.push_back(std::uint8_t(value >> (8 * i)));
    }
}

void ShmMessage::putString(const wchar_t* text, std::size_t length) {
    // A length beyond the limit can't fit; the bound keeps the product from overflowing.
    reserve(TYPE_WIDTH + COUNT_WIDTH + std::min(length, limit_) * UNIT_WIDTH, "a wide string");
    put(ShmValueType::WideString, length, COUNT_WIDTH);
    for (std::size_t i = 0; i < length; ++i) {
        const auto unit = static_cast<std::uint16_t>(text[i]);
        bytes_.push_back(std::uint8_t(unit));
        bytes_.push_back(std::uint8_t(unit >> 8));
    }
}

void ShmMessage::expect(ShmValueType type, std::size_t payload) {
    const std::size_t left = bytes_.size() - std::min(readAt_, bytes_.size());
    if (left < TYPE_WIDTH) {
        std::ostringstream text;
        text << "Read past the end of the message: no " << shmValueTypeName(type) << " after byte " << readAt_;
        throw ShmException(text.str());
    }
    const std::uint8_t found = bytes_[readAt_];
    if (found != std::uint8_t(type)) {
        std::ostringstream text;
        text << "Expected " << shmValueTypeName(type) << " but found "
             << (knownType(found) ? shmValueTypeName(ShmValueType(found)) : "no value") << " at byte " << readAt_;
        throw ShmException(text.str());
    }
    if (left - TYPE_WIDTH < payload) {
        std::ostringstream text;
        text << "Read past the end of the message: " << shmValueTypeName(type) << " at byte " << readAt_
             << " needs " << payload << " bytes, " << (left - TYPE_WIDTH) << " left";
        throw ShmException(text.str());
    }
}

std::uint64_t ShmMessage::get(ShmValueType type, std::size_t width) {
    expect(type, width);
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value |= std::uint64_t(bytes_[readAt_ + TYPE_WIDTH + i]) << (8 * i);
    }
    readAt_ += TYPE_WIDTH + width;
    return value;
}

std::wstring ShmMessage::getString() {
    const std::size_t at = readAt_;
    const std::uint64_t length = get(ShmValueType::WideString, COUNT_WIDTH);
    const std::size_t left = bytes_.size() - readAt_;
    if (length > left / UNIT_WIDTH) {
        readAt_ = at;
        std::ostringstream text;
        text << "Wide string at byte " << at << " claims " << length << " characters, " << left
             << " bytes are left in the message";
        throw ShmException(text.str());
    }
    std::wstring result(static_cast<std::size_t>(length), L'\0');
    for (std::size_t i = 0; i < result.size(); ++i) {
        result[i] = wchar_t(bytes_[readAt_] | (bytes_[readAt_ + 1] << 8));
        readAt_ += UNIT_WIDTH;
    }
    return result;
}

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
