// A queue transport within one process, for tests: two ends, and what one
// end sends the other end reads. readAndDispatch takes the next message of
// its end and dispatches it (a call to the callable it names, a message to
// its handler, an answer left for reading); with nothing to read it throws
// rather than wait. Single-threaded: use both ends from one thread at a time.
#pragma once

#include "tolvacore/ipc/ShmQueue.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

namespace dwtest {

class LoopbackQueue : public tolva::tolvacore::ipc::ShmQueue {
public:
    using Bytes = std::vector<std::uint8_t>;

    static std::pair<std::unique_ptr<LoopbackQueue>, std::unique_ptr<LoopbackQueue>> pair(unsigned size = 4096) {
        std::unique_ptr<LoopbackQueue> a(new LoopbackQueue(size)), b(new LoopbackQueue(size));
        a->peer_ = b.get();
        b->peer_ = a.get();
        return {std::move(a), std::move(b)};
    }

    short readAndDispatch(tolva::tolvacore::ipc::ShmCallable*, int) override {
        if (terminated_) {
            throw tolva::tolvacore::ipc::ShmTerminatedException("Queue terminated");
        }
        if (inbox_.empty()) {
            throw tolva::tolvacore::ipc::ShmException("Nothing to read");
        }
        receive(takeNext());
        dispatchReceived();
        return 0;
    }
    void send() override { peer_->inbox_.push_back(takeOutgoing()); }
    void sendReturn() override { send(); }
    void terminate() override { terminated_ = true; }

    // The messages waiting at this end, as bytes: to look at, change and put back.
    size_t waiting() const { return inbox_.size(); }
    Bytes takeNext() {
        if (inbox_.empty()) {
            return Bytes();
        }
        Bytes next = std::move(inbox_.front());
        inbox_.pop_front();
        return next;
    }
    void inject(Bytes bytes) { inbox_.push_back(std::move(bytes)); }

private:
    explicit LoopbackQueue(unsigned size) : ShmQueue(size) {}

    LoopbackQueue* peer_ = nullptr;
    std::deque<Bytes> inbox_;
    bool terminated_ = false;
};

}  // namespace dwtest
