// The queue between two processes: a named file mapping with one ring of
// frames for each direction, and named events that wake a side waiting for
// data or room. Each ring has one writing side and one reading side, each of
// which moves only its own end, so no lock spans the processes. The side
// that creates the queue writes ring 0 and reads ring 1; the side that
// attaches does the opposite.
//
// A frame is a 4-byte length, a 4-byte call id and the message's bytes. A
// call and a message carry a new id; the answer carries the id of what it
// answers, so that each waiting thread gets its own answer. Whichever thread
// is in readAndDispatch and finds no other reading takes the frames out of
// the ring and hands them on: an answer to its waiter, a call or message to
// a thread that may serve it (one that waits for no answer, or one that is
// serving a call itself and so may serve the calls that come back).
//
// No wait is unbounded: every wait also watches for terminate and for the
// other side's process to end, so a dead peer gives ShmException rather than
// a hang. A side that closes its end (its last owner lets go) marks it so,
// and the other side's waits end with ShmTerminatedException. Frames are checked against the ring and the message size before a
// byte is read; a ring that fails the check is broken for good, since its
// frames can't be found again.
#pragma once

#include "tolvacore/ipc/ShmQueue.h"

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tolva {
namespace tolvacore {
namespace ipc {

class SharedMemoryQueue : public ShmQueue {
public:
    static std::shared_ptr<SharedMemoryQueue> create(unsigned size, int id);
    static std::shared_ptr<SharedMemoryQueue> attach(int id);
    ~SharedMemoryQueue() override;

    short readAndDispatch(ShmCallable* callback, int timeout) override;
    void send() override;
    void sendReturn() override;
    void terminate() override;

    int getId() const { return id_; }

private:
    struct Frame {
        std::uint32_t id;
        std::vector<std::uint8_t> bytes;
    };
    struct Shared;

    SharedMemoryQueue(unsigned size, int id, bool creator);
    void open(bool create);
    void close();

    // Writes one frame into the outgoing ring, waiting for room.
    void writeFrame(std::uint32_t id, const std::vector<std::uint8_t>& bytes);
    // Waits a little for the incoming ring and takes the frames it holds, up
    // to room calls and messages; throws ShmException for a broken ring or an
    // ended peer.
    void pump(std::vector<Frame>& frames, std::size_t room);
    void takeFrames(std::vector<Frame>& frames, std::size_t room);
    // Routes what pump took; called with lock_ held.
    void distribute(std::vector<Frame>& frames);
    // Serves a call or message on this thread and answers it if its server didn't.
    short serve(Frame frame, ShmCallable* callback);
    void answerEmpty(std::uint32_t id);

    // The other side's process, opened when its id is known; null until then.
    HANDLE peer();  // with peerLock_ held
    bool peerEnded();
    // Throws ShmTerminatedException when the other side has closed its end
    // in good order, ShmException when its process has ended.
    void checkPeer();
    std::string describe(const char* what) const;

    const int id_;
    const bool creator_;
    std::uint32_t ringSize_ = 0;
    std::uint32_t written_ = 0;  // the head of the ring this side writes, under writeLock_
    std::uint32_t read_ = 0;     // the tail of the ring this side reads, by the thread that reads
    HANDLE mapping_ = nullptr;
    Shared* shared_ = nullptr;
    std::uint8_t* rings_[2] = {nullptr, nullptr};
    HANDLE data_[2] = {nullptr, nullptr};
    HANDLE room_[2] = {nullptr, nullptr};
    HANDLE ended_ = nullptr;  // set by terminate; wakes every wait of this side

    std::mutex writeLock_;  // the threads of this side write one at a time
    std::mutex peerLock_;
    HANDLE peer_ = nullptr;
    unsigned long peerPid_ = 0;
    bool peerGone_ = false;  // its id was known but the process was gone already

    std::mutex lock_;  // guards what follows
    std::condition_variable changed_;
    bool reading_ = false;
    bool terminated_ = false;
    std::string broken_;
    bool closedByPeer_ = false;  // broken_ tells of the other side's good end
    std::map<std::uint32_t, std::unique_ptr<std::vector<std::uint8_t>>> answers_;  // by call id; null until there
    std::deque<Frame> inbound_;
    std::atomic<std::uint32_t> nextId_{1};
};

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
