// The interface of a queue between two processes: messages of typed values
// (see ShmMessage.h), calls on objects of the other side, answers to them and
// messages by name. This class holds what every transport shares: the value
// codec with its checks, the message being written and the one being read,
// the handlers by name, the callables handed out, and the routing of a
// received message. A transport adds how bytes travel: send, sendReturn,
// readAndDispatch and terminate, and may widen the others.
//
// A queue is not safe for use from several threads at once unless its
// transport says so.
#pragma once

#include "tolvacore/ipc/ShmException.h"
#include "tolvacore/ipc/ShmMessage.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tolva {
namespace tolvacore {
namespace ipc {

class ShmQueue;

// An object that the other side can call: its call is served on the thread
// in readAndDispatch, with the queue positioned after the target.
class ShmCallable {
public:
    virtual ~ShmCallable() = default;
    virtual void call(ShmQueue& queue) = 0;
};

// Receives the messages of a name, positioned after the name.
class ShmMessageHandler {
public:
    virtual ~ShmMessageHandler() = default;
    virtual void handleMessage(ShmQueue& queue) = 0;
};

// A base for what is written to and read from a queue.
class ShmStreamable {
public:
    virtual ~ShmStreamable() = default;
};

class ShmQueue {
public:
    // size: the largest message, in bytes, that the queue carries.
    explicit ShmQueue(unsigned size);
    virtual ~ShmQueue() = default;
    ShmQueue(const ShmQueue&) = delete;
    ShmQueue& operator=(const ShmQueue&) = delete;

    unsigned getSize() const { return size_; }

    // Messages of that name go to the handler, which must outlive the queue's use.
    void registerMessageHandler(const char* name, ShmMessageHandler* handler);

    // Waits for what is due on this queue and dispatches it (dispatchReceived).
    // Throws ShmTerminatedException once the queue is terminated, ShmException
    // on any other failure.
    virtual short readAndDispatch(ShmCallable* callback, int timeout) = 0;
    // A call whose target is the first value streamed.
    virtual ShmQueue& setupCall();
    // A call on the object.
    virtual ShmQueue& setupCall(void* target);
    virtual void send() = 0;
    // The answer to the call being served.
    virtual ShmQueue& setupReturn();
    virtual void sendReturn() = 0;
    // A complete answer of one int.
    virtual void returnInt(int value);
    virtual void terminate() = 0;
    // A message of the name, for the handler registered under it on the other side.
    ShmQueue& setupMessage(const char* name);

    // A raw value, outside the stream operators' types.
    void push(int value);
    void pop(int& value);
    // Throws ShmException when a popped marker isn't the expected one.
    void validateType(int value, unsigned expected);

    ShmQueue& operator<<(int value);
    ShmQueue& operator<<(unsigned value);
    ShmQueue& operator<<(std::int64_t value);
    ShmQueue& operator<<(bool value);
    ShmQueue& operator<<(void* object);
    // Also makes the callable a target that calls from the other side may name.
    ShmQueue& operator<<(ShmCallable* callable);
    ShmQueue& operator<<(const wchar_t* text);  // null goes as the empty string
    ShmQueue& operator<<(const std::wstring& text);

    ShmQueue& operator>>(int& value);
    ShmQueue& operator>>(unsigned& value);
    ShmQueue& operator>>(std::int64_t& value);
    ShmQueue& operator>>(bool& value);
    // Throws ShmException for a value that is no address of this process.
    ShmQueue& operator>>(void*& object);
    ShmQueue& operator>>(std::wstring& text);

protected:
    // The message set up and written so far, for the transport to send;
    // throws ShmException when none is set up (or the last write dropped it).
    std::vector<std::uint8_t> takeOutgoing();
    // A message the transport received; throws ShmException when it is
    // larger than the queue's size or of no known kind.
    void receive(std::vector<std::uint8_t> bytes);
    // Routes the received message: a call to the callable it names, a
    // message to the handler of its name; an answer stays for the waiter to
    // read. Throws ShmException for an unknown target or name.
    ShmMessageKind dispatchReceived();

private:
    unsigned size_;
    ShmMessage outgoing_;
    ShmMessage incoming_;
    std::map<std::string, ShmMessageHandler*> handlers_;
    std::map<std::uint64_t, ShmCallable*> callables_;
};

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
