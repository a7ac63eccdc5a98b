#include "tolvacore/ipc/ShmQueue.h"

#include <cstring>
#include <iomanip>
#include <sstream>

namespace tolva {
namespace tolvacore {
namespace ipc {

namespace {

std::string hex(std::uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

// The name of a message as registered: the wide name's units, each of which
// must be a byte; false for a name that no narrow name matches.
bool narrowName(const std::wstring& wide, std::string& narrow) {
    narrow.clear();
    for (wchar_t unit : wide) {
        if (static_cast<unsigned>(unit) > 0xFF) {
            return false;
        }
        narrow.push_back(static_cast<char>(unit));
    }
    return true;
}

}  // namespace

ShmQueue::ShmQueue(unsigned size) : size_(size), outgoing_(size), incoming_(size) {}

void ShmQueue::registerMessageHandler(const char* name, ShmMessageHandler* handler) {
    handlers_[name ? name : ""] = handler;
}

ShmQueue& ShmQueue::setupCall() {
    outgoing_.begin(ShmMessageKind::Call);
    return *this;
}

ShmQueue& ShmQueue::setupCall(void* target) {
    setupCall();
    return *this << target;
}

ShmQueue& ShmQueue::setupReturn() {
    outgoing_.begin(ShmMessageKind::Return);
    return *this;
}

void ShmQueue::returnInt(int value) {
    setupReturn() << value;
    sendReturn();
}

ShmQueue& ShmQueue::setupMessage(const char* name) {
    outgoing_.begin(ShmMessageKind::Message);
    std::wstring wide;
    for (const char* at = name ? name : ""; *at; ++at) {
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*at)));
    }
    return *this << wide;
}

void ShmQueue::push(int value) {
    outgoing_.put(ShmValueType::Raw, static_cast<std::uint32_t>(value), 4);
}

void ShmQueue::pop(int& value) {
    value = static_cast<int>(static_cast<std::uint32_t>(incoming_.get(ShmValueType::Raw, 4)));
}

void ShmQueue::validateType(int value, unsigned expected) {
    if (static_cast<unsigned>(value) != expected) {
        throw ShmException("Expected the marker " + hex(expected) + ", found " +
                           hex(static_cast<unsigned>(value)));
    }
}

ShmQueue& ShmQueue::operator<<(int value) {
    outgoing_.put(ShmValueType::Int, static_cast<std::uint32_t>(value), 4);
    return *this;
}

ShmQueue& ShmQueue::operator<<(unsigned value) {
    outgoing_.put(ShmValueType::Unsigned, value, 4);
    return *this;
}

ShmQueue& ShmQueue::operator<<(std::int64_t value) {
    outgoing_.put(ShmValueType::Int64, static_cast<std::uint64_t>(value), 8);
    return *this;
}

ShmQueue& ShmQueue::operator<<(bool value) {
    outgoing_.put(ShmValueType::Bool, value ? 1 : 0, 1);
    return *this;
}

ShmQueue& ShmQueue::operator<<(void* object) {
    outgoing_.put(ShmValueType::Pointer, reinterpret_cast<std::uintptr_t>(object), 8);
    return *this;
}

ShmQueue& ShmQueue::operator<<(ShmCallable* callable) {
    *this << static_cast<void*>(callable);
    if (callable) {
        callables_[reinterpret_cast<std::uintptr_t>(static_cast<void*>(callable))] = callable;
    }
    return *this;
}

ShmQueue& ShmQueue::operator<<(const wchar_t* text) {
    outgoing_.putString(text ? text : L"", text ? std::wcslen(text) : 0);
    return *this;
}

ShmQueue& ShmQueue::operator<<(const std::wstring& text) {
    outgoing_.putString(text.data(), text.size());
    return *this;
}

ShmQueue& ShmQueue::operator>>(int& value) {
    value = static_cast<int>(static_cast<std::uint32_t>(incoming_.get(ShmValueType::Int, 4)));
    return *this;
}

ShmQueue& ShmQueue::operator>>(unsigned& value) {
    value = static_cast<unsigned>(incoming_.get(ShmValueType::Unsigned, 4));
    return *this;
}

ShmQueue& ShmQueue::operator>>(std::int64_t& value) {
    value = static_cast<std::int64_t>(incoming_.get(ShmValueType::Int64, 8));
    return *this;
}

ShmQueue& ShmQueue::operator>>(bool& value) {
    const std::uint64_t raw = incoming_.get(ShmValueType::Bool, 1);
    if (raw > 1) {
        throw ShmException("Bool of value " + std::to_string(raw));
    }
    value = raw != 0;
    return *this;
}

ShmQueue& ShmQueue::operator>>(void*& object) {
    const std::uint64_t raw = incoming_.get(ShmValueType::Pointer, 8);
    if (static_cast<std::uint64_t>(static_cast<std::uintptr_t>(raw)) != raw) {
        throw ShmException("Pointer " + hex(raw) + " is no address of this process");
    }
    object = reinterpret_cast<void*>(static_cast<std::uintptr_t>(raw));
    return *this;
}

ShmQueue& ShmQueue::operator>>(std::wstring& text) {
    text = incoming_.getString();
    return *this;
}

std::vector<std::uint8_t> ShmQueue::takeOutgoing() {
    if (outgoing_.bytes().empty()) {
        throw ShmException("No message set up");
    }
    return outgoing_.take();
}

void ShmQueue::receive(std::vector<std::uint8_t> bytes) {
    incoming_.assign(std::move(bytes));
}

ShmMessageKind ShmQueue::dispatchReceived() {
    const ShmMessageKind kind = incoming_.kind();
    if (kind == ShmMessageKind::Call) {
        void* target = nullptr;
        *this >> target;
        auto callable = callables_.find(reinterpret_cast<std::uintptr_t>(target));
        if (callable == callables_.end()) {
            throw ShmException("Call on an unknown object " + hex(reinterpret_cast<std::uintptr_t>(target)));
        }
        callable->second->call(*this);
    } else if (kind == ShmMessageKind::Message) {
        std::wstring wide;
        *this >> wide;
        std::string name;
        auto handler = narrowName(wide, name) ? handlers_.find(name) : handlers_.end();
        if (handler == handlers_.end() || !handler->second) {
            throw ShmException("No handler for the message \"" + name + "\"");
        }
        handler->second->handleMessage(*this);
    }
    return kind;
}

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
