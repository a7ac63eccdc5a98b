#include "tolvacore/ipc/ShmQueue.h"

#include <windows.h>

#include <cstring>
#include <iterator>
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

ShmQueue::ShmQueue(unsigned size) : size_(size) {}

ShmQueue::ThreadState& ShmQueue::mine() {
    const unsigned long thread = GetCurrentThreadId();
    std::lock_guard<std::mutex> hold(lock_);
    auto found = threads_.find(thread);
    if (found == threads_.end()) {
        if (threads_.size() >= 32) {
            forgetEndedThreads();
        }
        found = threads_.emplace(thread, std::make_unique<ThreadState>(size_)).first;
    }
    return *found->second;
}

void ShmQueue::forgetEndedThreads() {
    for (auto at = threads_.begin(); at != threads_.end();) {
        HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, at->first);
        DWORD code = 0;
        const bool running = thread && GetExitCodeThread(thread, &code) && code == STILL_ACTIVE;
        if (thread) {
            CloseHandle(thread);
        }
        at = running ? std::next(at) : threads_.erase(at);
    }
}

void ShmQueue::registerMessageHandler(const char* name, ShmMessageHandler* handler) {
    std::lock_guard<std::mutex> hold(lock_);
    handlers_[name ? name : ""] = handler;
}

ShmQueue& ShmQueue::setupCall() {
    outgoing().begin(ShmMessageKind::Call);
    return *this;
}

ShmQueue& ShmQueue::setupCall(void* target) {
    setupCall();
    return *this << target;
}

ShmQueue& ShmQueue::setupReturn() {
    outgoing().begin(ShmMessageKind::Return);
    return *this;
}

void ShmQueue::returnInt(int value) {
    setupReturn() << value;
    sendReturn();
}

ShmQueue& ShmQueue::setupMessage(const char* name) {
    outgoing().begin(ShmMessageKind::Message);
    std::wstring wide;
    for (const char* at = name ? name : ""; *at; ++at) {
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*at)));
    }
    return *this << wide;
}

void* ShmQueue::calledObject() { return mine().called; }

void ShmQueue::push(int value) {
    outgoing().put(ShmValueType::Raw, static_cast<std::uint32_t>(value), 4);
}

void ShmQueue::pop(int& value) {
    value = static_cast<int>(static_cast<std::uint32_t>(incoming().get(ShmValueType::Raw, 4)));
}

void ShmQueue::validateType(int value, unsigned expected) {
    if (static_cast<unsigned>(value) != expected) {
        throw ShmException("Expected the marker " + hex(expected) + ", found " +
                           hex(static_cast<unsigned>(value)));
    }
}

ShmQueue& ShmQueue::operator<<(int value) {
    outgoing().put(ShmValueType::Int, static_cast<std::uint32_t>(value), 4);
    return *this;
}

ShmQueue& ShmQueue::operator<<(unsigned value) {
    outgoing().put(ShmValueType::Unsigned, value, 4);
    return *this;
}

ShmQueue& ShmQueue::operator<<(std::int64_t value) {
    outgoing().put(ShmValueType::Int64, static_cast<std::uint64_t>(value), 8);
    return *this;
}

ShmQueue& ShmQueue::operator<<(bool value) {
    outgoing().put(ShmValueType::Bool, value ? 1 : 0, 1);
    return *this;
}

ShmQueue& ShmQueue::operator<<(void* object) {
    outgoing().put(ShmValueType::Pointer, reinterpret_cast<std::uintptr_t>(object), 8);
    return *this;
}

ShmQueue& ShmQueue::operator<<(ShmCallable* callable) {
    *this << static_cast<void*>(callable);
    if (callable) {
        std::lock_guard<std::mutex> hold(lock_);
        callables_[reinterpret_cast<std::uintptr_t>(static_cast<void*>(callable))] = callable;
    }
    return *this;
}

ShmQueue& ShmQueue::operator<<(const wchar_t* text) {
    outgoing().putString(text ? text : L"", text ? std::wcslen(text) : 0);
    return *this;
}

ShmQueue& ShmQueue::operator<<(const std::wstring& text) {
    outgoing().putString(text.data(), text.size());
    return *this;
}

ShmQueue& ShmQueue::operator>>(int& value) {
    value = static_cast<int>(static_cast<std::uint32_t>(incoming().get(ShmValueType::Int, 4)));
    return *this;
}

ShmQueue& ShmQueue::operator>>(unsigned& value) {
    value = static_cast<unsigned>(incoming().get(ShmValueType::Unsigned, 4));
    return *this;
}

ShmQueue& ShmQueue::operator>>(std::int64_t& value) {
    value = static_cast<std::int64_t>(incoming().get(ShmValueType::Int64, 8));
    return *this;
}

ShmQueue& ShmQueue::operator>>(bool& value) {
    const std::uint64_t raw = incoming().get(ShmValueType::Bool, 1);
    if (raw > 1) {
        throw ShmException("Bool of value " + std::to_string(raw));
    }
    value = raw != 0;
    return *this;
}

ShmQueue& ShmQueue::operator>>(void*& object) {
    const std::uint64_t raw = incoming().get(ShmValueType::Pointer, 8);
    if (static_cast<std::uint64_t>(static_cast<std::uintptr_t>(raw)) != raw) {
        throw ShmException("Pointer " + hex(raw) + " is no address of this process");
    }
    object = reinterpret_cast<void*>(static_cast<std::uintptr_t>(raw));
    return *this;
}

ShmQueue& ShmQueue::operator>>(std::wstring& text) {
    text = incoming().getString();
    return *this;
}

std::vector<std::uint8_t> ShmQueue::takeOutgoing() {
    if (outgoing().bytes().empty()) {
        throw ShmException("No message set up");
    }
    return outgoing().take();
}

void ShmQueue::receive(std::vector<std::uint8_t> bytes) {
    incoming().assign(std::move(bytes));
}

ShmMessageKind ShmQueue::dispatchReceived(ShmCallable* fallback) {
    const ShmMessageKind kind = incoming().kind();
    if (kind == ShmMessageKind::Call) {
        void* target = nullptr;
        *this >> target;
        ShmCallable* callable = fallback;
        {
            std::lock_guard<std::mutex> hold(lock_);
            auto found = callables_.find(reinterpret_cast<std::uintptr_t>(target));
            if (found != callables_.end()) {
                callable = found->second;
            }
        }
        if (!callable) {
            throw ShmException("Call on an unknown object " + hex(reinterpret_cast<std::uintptr_t>(target)));
        }
        ThreadState& me = mine();
        void* const outer = me.called;
        me.called = target;
        try {
            callable->call(*this);
        } catch (...) {
            me.called = outer;
            throw;
        }
        me.called = outer;
    } else if (kind == ShmMessageKind::Message) {
        std::wstring wide;
        *this >> wide;
        std::string name;
        ShmMessageHandler* handler = nullptr;
        if (narrowName(wide, name)) {
            std::lock_guard<std::mutex> hold(lock_);
            auto found = handlers_.find(name);
            handler = found == handlers_.end() ? nullptr : found->second;
        }
        if (!handler) {
            throw ShmException("No handler for the message \"" + name + "\"");
        }
        handler->handleMessage(*this);
    }
    return kind;
}

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
