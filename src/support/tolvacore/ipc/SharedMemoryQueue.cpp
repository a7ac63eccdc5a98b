#include "tolvacore/ipc/SharedMemoryQueue.h"

#include <chrono>
#include <cstring>
#include <utility>

namespace tolva {
namespace tolvacore {
namespace ipc {

namespace {

const std::uint32_t MAGIC = 0x51564C54;  // "TLVQ"
const std::uint32_t VERSION = 1;
const unsigned SMALLEST_MESSAGE = 64;
const unsigned LARGEST_MESSAGE = 1u << 20;
const std::uint32_t SMALLEST_RING = 1u << 16;
const std::uint32_t FRAME_HEADER = 8;
const std::uint32_t HEADER_SPACE = 64;  // the rings start here
const DWORD WAIT_STEP_MS = 50;          // the longest a wait goes without looking at the peer
const std::size_t MOST_WAITING_CALLS = 256;  // calls taken from the ring before one is served

std::wstring nameOf(int id, const wchar_t* part) {
    return L"Local\\tolvacore.queue." + std::to_wstring(id) + part;
}

std::uint32_t ringSizeFor(unsigned messageSize) {
    std::uint32_t ring = SMALLEST_RING;
    while (ring < 4 * (messageSize + FRAME_HEADER)) {
        ring <<= 1;
    }
    return ring;
}

void copyIn(std::uint8_t* ring, std::uint32_t ringSize, std::uint32_t at, const void* from, std::uint32_t count) {
    const std::uint32_t offset = at & (ringSize - 1);
    const std::uint32_t first = std::min(count, ringSize - offset);
    std::memcpy(ring + offset, from, first);
    std::memcpy(ring, static_cast<const std::uint8_t*>(from) + first, count - first);
}

void copyOut(const std::uint8_t* ring, std::uint32_t ringSize, std::uint32_t at, void* to, std::uint32_t count) {
    const std::uint32_t offset = at & (ringSize - 1);
    const std::uint32_t first = std::min(count, ringSize - offset);
    std::memcpy(to, ring + offset, first);
    std::memcpy(static_cast<std::uint8_t*>(to) + first, ring, count - first);
}

std::string systemError(const char* what, int id) {
    return std::string(what) + " for queue " + std::to_string(id) + ": error " + std::to_string(GetLastError());
}

}  // namespace

// The head of the mapping. Both sides write it, so after the start nothing of
// it is trusted: sizes are read once and kept, positions are checked at each use.
struct SharedMemoryQueue::Shared {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t messageSize;
    std::uint32_t ringSize;
    volatile LONG creatorPid;
    volatile LONG attacherPid;
    volatile LONG closed[2];  // the creating side ([0]) or the attaching one ([1]) has closed its end
    struct Ring {
        volatile std::uint32_t head;  // bytes ever written; only the writing side moves it
        volatile std::uint32_t tail;  // bytes ever read; only the reading side moves it
        volatile LONG readerAsleep;   // hints that save a wake-up call when nobody sleeps
        volatile LONG writerAsleep;
    } rings[2];
};

std::shared_ptr<ShmQueue> ShmQueue::createQueue(unsigned size, int id) { return SharedMemoryQueue::create(size, id); }

std::shared_ptr<ShmQueue> ShmQueue::attachQueue(int id) { return SharedMemoryQueue::attach(id); }

SharedMemoryQueue::SharedMemoryQueue(unsigned size, int id, bool creator)
    : ShmQueue(size), id_(id), creator_(creator) {
    static_assert(sizeof(Shared) <= HEADER_SPACE, "the rings start after the head");
}

SharedMemoryQueue::~SharedMemoryQueue() { close(); }

std::shared_ptr<SharedMemoryQueue> SharedMemoryQueue::create(unsigned size, int id) {
    if (size < SMALLEST_MESSAGE || size > LARGEST_MESSAGE) {
        throw ShmException("Queue size " + std::to_string(size) + " is outside " + std::to_string(SMALLEST_MESSAGE) +
                           " to " + std::to_string(LARGEST_MESSAGE));
    }
    std::shared_ptr<SharedMemoryQueue> queue(new SharedMemoryQueue(size, id, true));
    queue->ringSize_ = ringSizeFor(size);
    queue->open(true);
    return queue;
}

std::shared_ptr<SharedMemoryQueue> SharedMemoryQueue::attach(int id) {
    // The size comes from the queue itself, so the mapping is read before the object is made.
    HANDLE mapping = OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, nameOf(id, L".memory").c_str());
    if (!mapping) {
        throw ShmException("No queue of id " + std::to_string(id));
    }
    auto* head = static_cast<const Shared*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, HEADER_SPACE));
    std::uint32_t magic = 0, version = 0, messageSize = 0, ringSize = 0;
    if (head) {
        magic = head->magic;
        version = head->version;
        messageSize = head->messageSize;
        ringSize = head->ringSize;
        UnmapViewOfFile(head);
    }
    CloseHandle(mapping);
    if (magic != MAGIC || version != VERSION || messageSize < SMALLEST_MESSAGE || messageSize > LARGEST_MESSAGE ||
        ringSize != ringSizeFor(messageSize)) {
        throw ShmException("Queue " + std::to_string(id) + " is no queue of this library");
    }
    std::shared_ptr<SharedMemoryQueue> queue(new SharedMemoryQueue(messageSize, id, false));
    queue->ringSize_ = ringSize;
    queue->open(false);
    return queue;
}

void SharedMemoryQueue::open(bool create) {
    const DWORD total = HEADER_SPACE + 2 * ringSize_;
    if (create) {
        mapping_ = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, total,
                                      nameOf(id_, L".memory").c_str());
        if (mapping_ && GetLastError() == ERROR_ALREADY_EXISTS) {
            throw ShmException("A queue of id " + std::to_string(id_) + " exists already");
        }
    } else {
        mapping_ = OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, nameOf(id_, L".memory").c_str());
    }
    if (!mapping_) {
        throw ShmException(systemError("No shared memory", id_));
    }
    shared_ = static_cast<Shared*>(MapViewOfFile(mapping_, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    MEMORY_BASIC_INFORMATION region{};
    if (!shared_ || !VirtualQuery(shared_, &region, sizeof region) || region.RegionSize < total) {
        throw ShmException("Queue " + std::to_string(id_) + " is smaller than its head says");
    }
    rings_[0] = reinterpret_cast<std::uint8_t*>(shared_) + HEADER_SPACE;
    rings_[1] = rings_[0] + ringSize_;

    auto event = [&](const wchar_t* part) {
        HANDLE handle = create ? CreateEventW(nullptr, FALSE, FALSE, nameOf(id_, part).c_str())
                               : OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, nameOf(id_, part).c_str());
        if (!handle) {
            throw ShmException(systemError("No event", id_));
        }
        return handle;
    };
    data_[0] = event(L".data0");
    data_[1] = event(L".data1");
    room_[0] = event(L".room0");
    room_[1] = event(L".room1");
    ended_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!ended_) {
        throw ShmException(systemError("No end event", id_));
    }
    if (create) {
        shared_->version = VERSION;
        shared_->messageSize = getSize();
        shared_->ringSize = ringSize_;
        shared_->creatorPid = static_cast<LONG>(GetCurrentProcessId());
        MemoryBarrier();
        shared_->magic = MAGIC;  // last: an attacher that sees it sees the rest
    } else {
        InterlockedExchange(&shared_->attacherPid, static_cast<LONG>(GetCurrentProcessId()));
        InterlockedExchange(&shared_->closed[1], 0);
    }
    // Each side keeps its own end of each ring; the other side's ends are checked at each use.
    written_ = shared_->rings[create ? 0 : 1].head;
    read_ = shared_->rings[create ? 1 : 0].tail;
}

void SharedMemoryQueue::close() {
    terminate();
    if (shared_) {
        InterlockedExchange(&shared_->closed[creator_ ? 0 : 1], 1);
        SetEvent(data_[creator_ ? 0 : 1]);  // wakes the other side to see it
        SetEvent(room_[creator_ ? 1 : 0]);
    }
    for (HANDLE* handle : {&data_[0], &data_[1], &room_[0], &room_[1], &ended_, &peer_, &mapping_}) {
        if (*handle) {
            CloseHandle(*handle);
            *handle = nullptr;
        }
    }
    if (shared_) {
        UnmapViewOfFile(shared_);
        shared_ = nullptr;
    }
}

std::string SharedMemoryQueue::describe(const char* what) const {
    return std::string(what) + " (queue " + std::to_string(id_) + ")";
}

short SharedMemoryQueue::readAndDispatch(ShmCallable* callback, int timeout) {
    ThreadState& me = mine();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout > 0 ? timeout : 0);
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
        if (terminated_) {
            throw ShmTerminatedException(describe("Queue terminated"));
        }
        if (me.awaited) {
            auto found = answers_.find(me.awaited);
            if (found != answers_.end() && found->second) {
                std::vector<std::uint8_t> answer = std::move(*found->second);
                answers_.erase(found);
                me.awaited = 0;
                hold.unlock();
                receive(std::move(answer));
                return 1;
            }
        }
        // A thread waiting for its answer serves no calls, unless it is serving
        // one already: then the calls that come back from the other side are its own.
        const bool mayServe = me.awaited == 0 || !me.serving.empty();
        if (mayServe && !inbound_.empty()) {
            Frame frame = std::move(inbound_.front());
            inbound_.pop_front();
            hold.unlock();
            changed_.notify_all();  // room for the reader to take more calls
            return serve(std::move(frame), callback);
        }
        if (!broken_.empty()) {
            if (me.awaited) {
                answers_.erase(me.awaited);
                me.awaited = 0;
            }
            if (closedByPeer_) {
                throw ShmTerminatedException(broken_);
            }
            throw ShmException(broken_);
        }
        if (timeout > 0 && std::chrono::steady_clock::now() >= deadline) {
            return 0;
        }
        if (!reading_ && inbound_.size() < MOST_WAITING_CALLS) {
            reading_ = true;
            const std::size_t room = MOST_WAITING_CALLS - inbound_.size();
            hold.unlock();
            std::vector<Frame> frames;
            std::string failure;
            bool closed = false;
            try {
                pump(frames, room);
            } catch (const ShmTerminatedException& e) {
                failure = e.getMessage();
                closed = true;
            } catch (const ShmException& e) {
                failure = e.getMessage();
            }
            hold.lock();
            reading_ = false;
            if (!failure.empty() && broken_.empty()) {
                broken_ = failure;
                closedByPeer_ = closed;
            }
            distribute(frames);
            changed_.notify_all();
            continue;
        }
        changed_.wait_for(hold, std::chrono::milliseconds(WAIT_STEP_MS));
    }
}

void SharedMemoryQueue::pump(std::vector<Frame>& frames, std::size_t room) {
    const int in = creator_ ? 1 : 0;
    Shared::Ring& ring = shared_->rings[in];
    takeFrames(frames, room);
    if (frames.empty()) {
        // Says it sleeps before it looks once more, so a frame written after
        // the look finds the flag and wakes it; a lost hint costs one step.
        InterlockedExchange(&ring.readerAsleep, 1);
        takeFrames(frames, room);
        if (frames.empty()) {
            HANDLE waits[] = {data_[in], ended_};
            WaitForMultipleObjects(2, waits, FALSE, WAIT_STEP_MS);
        }
        InterlockedExchange(&ring.readerAsleep, 0);
        takeFrames(frames, room);
    }
    if (frames.empty()) {
        checkPeer();
    }
}

void SharedMemoryQueue::checkPeer() {
    if (shared_->closed[creator_ ? 1 : 0]) {
        throw ShmTerminatedException(describe("The other side has closed the queue"));
    }
    if (peerEnded()) {
        throw ShmException(describe("The other side of the queue has ended"));
    }
}

void SharedMemoryQueue::takeFrames(std::vector<Frame>& frames, std::size_t room) {
    const int in = creator_ ? 1 : 0;
    Shared::Ring& ring = shared_->rings[in];
    std::uint32_t tail = read_;
    const std::uint32_t head = ring.head;
    MemoryBarrier();  // the bytes below the head are read after the head
    std::uint32_t used = head - tail;
    std::string failure;
    std::size_t calls = 0;
    bool took = false;
    if (used > ringSize_) {
        failure = "The queue's ring is corrupt: " + std::to_string(used) + " bytes in a ring of " +
                  std::to_string(ringSize_);
    }
    while (failure.empty() && used > 0) {
        std::uint32_t header[2] = {0, 0};
        if (used < FRAME_HEADER) {
            failure = "Truncated frame head of " + std::to_string(used) + " bytes";
            break;
        }
        copyOut(rings_[in], ringSize_, tail, header, FRAME_HEADER);
        const std::uint32_t length = header[0];
        if (length == 0 || length > getSize()) {
            failure = "Frame of " + std::to_string(length) + " bytes in a queue of size " + std::to_string(getSize());
            break;
        }
        if (length > used - FRAME_HEADER) {
            failure = "Truncated frame: " + std::to_string(length) + " bytes announced, " +
                      std::to_string(used - FRAME_HEADER) + " there";
            break;
        }
        Frame frame{header[1], std::vector<std::uint8_t>(length)};
        copyOut(rings_[in], ringSize_, tail + FRAME_HEADER, frame.bytes.data(), length);
        const bool answer = frame.bytes[0] == std::uint8_t(ShmMessageKind::Return);
        if (!answer && calls == room) {
            break;  // the rest waits in the ring until the calls taken are served
        }
        calls += answer ? 0 : 1;
        frames.push_back(std::move(frame));
        tail += FRAME_HEADER + length;
        used -= FRAME_HEADER + length;
        took = true;
    }
    if (took) {
        MemoryBarrier();  // the bytes are copied before the writer may reuse them
        read_ = tail;
        ring.tail = tail;
        MemoryBarrier();
        if (ring.writerAsleep) {
            SetEvent(room_[in]);
        }
    }
    if (!failure.empty()) {
        throw ShmException(describe(failure.c_str()));
    }
}

void SharedMemoryQueue::distribute(std::vector<Frame>& frames) {
    for (Frame& frame : frames) {
        if (frame.bytes[0] == std::uint8_t(ShmMessageKind::Return)) {
            auto waiter = answers_.find(frame.id);
            if (waiter != answers_.end() && !waiter->second) {
                waiter->second = std::make_unique<std::vector<std::uint8_t>>(std::move(frame.bytes));
            }
            // An answer that nobody waits for is dropped: its waiter has gone.
        } else {
            inbound_.push_back(std::move(frame));
        }
    }
}

short SharedMemoryQueue::serve(Frame frame, ShmCallable* callback) {
    ThreadState& me = mine();
    me.serving.push_back({frame.id, false});
    auto finish = [&] {
        const bool answered = me.serving.back().answered;
        me.serving.pop_back();
        if (!answered) {
            answerEmpty(frame.id);  // the caller would wait for ever
        }
    };
    try {
        receive(std::move(frame.bytes));
        dispatchReceived(callback);
    } catch (...) {
        try {
            finish();
        } catch (const ShmException&) {
            // the first failure is the one to report
        }
        throw;
    }
    finish();
    return 1;
}

void SharedMemoryQueue::answerEmpty(std::uint32_t id) {
    const std::vector<std::uint8_t> empty(1, std::uint8_t(ShmMessageKind::Return));
    writeFrame(id, empty);
}

void SharedMemoryQueue::send() {
    std::vector<std::uint8_t> bytes = takeOutgoing();
    if (bytes[0] == std::uint8_t(ShmMessageKind::Return)) {
        ThreadState& me = mine();
        if (me.serving.empty() || me.serving.back().answered) {
            throw ShmException(describe("An answer with no call to answer"));
        }
        me.serving.back().answered = true;
        writeFrame(me.serving.back().id, bytes);
        return;
    }
    ThreadState& me = mine();
    std::uint32_t id = nextId_++;
    if (id == 0) {
        id = nextId_++;
    }
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (me.awaited) {
            answers_.erase(me.awaited);  // an earlier call whose answer was never read
        }
        answers_[id] = nullptr;
        me.awaited = id;
    }
    try {
        writeFrame(id, bytes);
    } catch (...) {
        std::lock_guard<std::mutex> hold(lock_);
        answers_.erase(id);
        me.awaited = 0;
        throw;
    }
}

void SharedMemoryQueue::sendReturn() {
    if (mine().outgoing.kind() != ShmMessageKind::Return) {
        throw ShmException(describe("sendReturn without setupReturn"));
    }
    send();
}

void SharedMemoryQueue::terminate() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        terminated_ = true;
    }
    if (ended_) {
        SetEvent(ended_);
    }
    changed_.notify_all();
}

void SharedMemoryQueue::writeFrame(std::uint32_t id, const std::vector<std::uint8_t>& bytes) {
    const int out = creator_ ? 0 : 1;
    const auto length = static_cast<std::uint32_t>(bytes.size());
    if (length == 0 || length > getSize()) {
        throw ShmException(describe("Message larger than the queue"));
    }
    Shared::Ring& ring = shared_->rings[out];
    std::lock_guard<std::mutex> writing(writeLock_);  // one writer per side
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            if (terminated_) {
                throw ShmTerminatedException(describe("Queue terminated"));
            }
        }
        const std::uint32_t head = written_;
        const std::uint32_t used = head - ring.tail;
        if (used > ringSize_) {
            throw ShmException(describe("The queue's ring is corrupt"));
        }
        if (ringSize_ - used >= FRAME_HEADER + length) {
            const std::uint32_t header[2] = {length, id};
            copyIn(rings_[out], ringSize_, head, header, FRAME_HEADER);
            copyIn(rings_[out], ringSize_, head + FRAME_HEADER, bytes.data(), length);
            MemoryBarrier();  // the bytes stand before the head shows them
            written_ = head + FRAME_HEADER + length;
            ring.head = written_;
            MemoryBarrier();
            if (ring.readerAsleep) {
                SetEvent(data_[out]);
            }
            return;
        }
        checkPeer();
        InterlockedExchange(&ring.writerAsleep, 1);
        const std::uint32_t stillUsed = head - ring.tail;
        if (stillUsed <= ringSize_ && ringSize_ - stillUsed < FRAME_HEADER + length) {
            HANDLE waits[] = {room_[out], ended_};
            WaitForMultipleObjects(2, waits, FALSE, WAIT_STEP_MS);
        }
        InterlockedExchange(&ring.writerAsleep, 0);
    }
}

HANDLE SharedMemoryQueue::peer() {
    const auto pid = static_cast<unsigned long>(creator_ ? shared_->attacherPid : shared_->creatorPid);
    if (pid != peerPid_) {
        if (peer_) {
            CloseHandle(peer_);
        }
        peer_ = pid ? OpenProcess(SYNCHRONIZE, FALSE, pid) : nullptr;
        peerGone_ = pid && !peer_ && GetLastError() == ERROR_INVALID_PARAMETER;
        peerPid_ = pid;
    }
    return peer_;
}

bool SharedMemoryQueue::peerEnded() {
    std::lock_guard<std::mutex> hold(peerLock_);
    HANDLE process = peer();
    return peerGone_ || (process && WaitForSingleObject(process, 0) == WAIT_OBJECT_0);
}

}  // namespace ipc
}  // namespace tolvacore
}  // namespace tolva
