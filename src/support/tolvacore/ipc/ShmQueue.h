// The interface of a queue between two processes: messages of typed values
// (see ShmMessage.h), calls on objects of the other side, answers to them and
// messages by name. This class holds what every transport shares: the value
// codec with its checks, the message being written and the one being read,
// the handlers by name, the callables handed out, and the routing of a
// received message. A transport adds how bytes travel: send, sendReturn,
// readAndDispatch and terminate, and may widen the others.
//
// Each thread writes and reads its own messages: a thread's call, the answer
// it waits for and the values it reads from that answer are its own, so
// several threads may use one queue at once as far as the transport allows.
#pragma once

#include "tolvacore/ipc/ShmException.h"
#include "tolvacore/ipc/ShmMessage.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
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
    // A queue in shared memory that the other side attaches to by the id;
    // size is the largest message in bytes. Throws ShmException when a queue
    // of the id exists already or the system refuses.
    static std::shared_ptr<ShmQueue> createQueue(unsigned size, int id);
    // The other side of a queue made by createQueue. Throws ShmException when
    // there is no such queue or it isn't one.
    static std::shared_ptr<ShmQueue> attachQueue(int id);

    // size: the largest message, in bytes, that the queue carries.
    explicit ShmQueue(unsigned size);
    virtual ~ShmQueue() = default;
    ShmQueue(const ShmQueue&) = delete;
    ShmQueue& operator=(const ShmQueue&) = delete;

    unsigned getSize() const { return size_; }

    // Messages of that name go to the handler, which must outlive the queue's use.
    void registerMessageHandler(const char* name, ShmMessageHandler* handler);

    // Waits for what is due on this queue and dispatches it (dispatchReceived);
    // callback, when given, serves calls on objects that weren't handed out.
    // A timeout above 0 bounds the wait in milliseconds, with 0 as result when
    // it passed. Throws ShmTerminatedException once the queue is terminated,
    // ShmException on any other failure.
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

    // The object that the call being served on this thread names; null when
    // this thread serves no call.
    void* calledObject();

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
    // What a thread has of the queue: the message it writes, the one it reads,
    // and for a transport that pairs calls with answers, the call it waits for
    // and the calls it serves (innermost last).
    struct ThreadState {
        explicit ThreadState(unsigned size) : outgoing(size), incoming(size) {}
        ShmMessage outgoing;
        ShmMessage incoming;
        std::uint32_t awaited = 0;
        void* called = nullptr;
        struct Served {
            std::uint32_t id;
            bool answered;
        };
        std::vector<Served> serving;
    };
    // The calling thread's state, made at its first use.
    ThreadState& mine();

    // The message set up and written so far, for the transport to send;
    // throws ShmException when none is set up (or the last write dropped it).
    std::vector<std::uint8_t> takeOutgoing();
    // A message the transport received; throws ShmException when it is
    // larger than the queue's size or of no known kind.
    void receive(std::vector<std::uint8_t> bytes);
    // Routes the received message: a call to the callable it names, a
    // message to the handler of its name; an answer stays for the waiter to
    // read. A call on an object not handed out goes to fallback when given.
    // Throws ShmException for an unknown target or name.
    ShmMessageKind dispatchReceived(ShmCallable* fallback = nullptr);

private:
    ShmMessage& outgoing() { return mine().outgoing; }
    ShmMessage& incoming() { return mine().incoming; }
    // Drops the states of threads that have ended; called with lock_ held.
    void forgetEndedThreads();

    unsigned size_;
    std::mutex lock_;  // guards the maps below
    std::map<unsigned long, std::unique_ptr<ThreadState>> threads_;
    std::map<std::string, ShmMessageHandler*> handlers_;
    std::map<std::uint64_t, ShmCallable*> callables_;
};

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
