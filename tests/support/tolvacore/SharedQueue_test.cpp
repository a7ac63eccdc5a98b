// The queue between two real processes: this test program on one side and
// queue_peer on the other. Calls go both ways and nest, every waiting thread
// gets its own answer, terminate and a peer that dies end the waits, and
// what the other side writes into shared memory, however broken, gives
// ShmException and never a crash or a hang.
#include "tolvacore/ipc/ShmQueue.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using tolva::tolvacore::ipc::ShmCallable;
using tolva::tolvacore::ipc::ShmException;
using tolva::tolvacore::ipc::ShmMessageHandler;
using tolva::tolvacore::ipc::ShmQueue;
using tolva::tolvacore::ipc::ShmTerminatedException;

namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// An id no other test of this run uses.
int freshId() {
    static int next = 0;
    return static_cast<int>((GetCurrentProcessId() & 0xFFFF) << 8) + ++next;
}

// queue_peer, started beside this program, ended at the end of the test.
class Peer {
public:
    Peer(const char* mode, int id) {
        wchar_t exe[MAX_PATH];
        GetModuleFileNameW(nullptr, exe, MAX_PATH);
        std::wstring path(exe);
        path = path.substr(0, path.find_last_of(L"\\/") + 1) + L"queue_peer.exe";
        std::wstring command = L"\"" + path + L"\" " + std::wstring(mode, mode + std::strlen(mode)) + L" " +
                               std::to_wstring(id);
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        started = CreateProcessW(path.c_str(), &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                 &process) != 0;
    }
    ~Peer() {
        if (started) {
            if (WaitForSingleObject(process.hProcess, 500) != WAIT_OBJECT_0) TerminateProcess(process.hProcess, 9);
            CloseHandle(process.hProcess);
            CloseHandle(process.hThread);
        }
    }
    // The exit code once it ended within ms; STILL_ACTIVE otherwise.
    DWORD exitCode(DWORD ms) {
        DWORD code = STILL_ACTIVE;
        WaitForSingleObject(process.hProcess, ms);
        GetExitCodeProcess(process.hProcess, &code);
        return code;
    }
    void kill() { TerminateProcess(process.hProcess, 9); WaitForSingleObject(process.hProcess, 5000); }

    bool started = false;
    PROCESS_INFORMATION process = {};
};

// A thread that serves the queue as the driver's channel thread does, until
// the queue ends; it keeps the text of the exception that ended it.
class Loop {
public:
    explicit Loop(std::shared_ptr<ShmQueue> queue) : queue_(std::move(queue)) {
        thread_ = std::thread([this] {
            threadId = GetCurrentThreadId();
            started = true;
            try {
                for (;;) queue_->readAndDispatch(nullptr, 0);
            } catch (const ShmTerminatedException& e) {
                terminated = true;
                end = e.getMessage();
            } catch (const ShmException& e) {
                end = e.getMessage();
            }
            ended = true;
        });
        while (!started) Sleep(1);
    }
    ~Loop() {
        queue_->terminate();
        thread_.join();
    }
    bool waitEnded(int ms) {
        const auto start = Clock::now();
        while (!ended && msSince(start) < ms) Sleep(5);
        return ended;
    }

    std::atomic<bool> started{false}, ended{false}, terminated{false};
    std::atomic<DWORD> threadId{0};
    std::string end;

private:
    std::shared_ptr<ShmQueue> queue_;
    std::thread thread_;
};

// A callable of this side: answers v + 1000 and notes the thread it ran on.
class Adder : public ShmCallable {
public:
    void call(ShmQueue& queue) override {
        int value = 0;
        queue >> value;
        thread = GetCurrentThreadId();
        ++calls;
        queue.returnInt(value + 1000);
    }
    std::atomic<DWORD> thread{0};
    std::atomic<int> calls{0};
};

class Messages : public ShmMessageHandler {
public:
    void handleMessage(ShmQueue& queue) override {
        queue >> text;
        thread = GetCurrentThreadId();
        queue.returnInt(5);
    }
    std::wstring text;
    std::atomic<DWORD> thread{0};
};

void* anyObject() { return reinterpret_cast<void*>(std::uintptr_t(0x1000)); }

int call(ShmQueue& queue, const std::function<void(ShmQueue&)>& arguments) {
    arguments(queue.setupCall(anyObject()));
    queue.send();
    queue.readAndDispatch(nullptr, 0);
    int answer = 0;
    queue >> answer;
    return answer;
}

int twice(ShmQueue& queue, int value) { return call(queue, [&](ShmQueue& q) { q << 1 << value; }); }

// The text of the ShmException that f throws; "" when it throws none.
std::string failureOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ShmException& e) {
        return e.getMessage().empty() ? "(empty text)" : e.getMessage();
    }
    return "";
}

// The queue's shared memory as the other side sees it, to write what a
// broken or hostile peer would: the head's fields and the ring that goes
// from the attaching side to the creating one.
class RawPeer {
public:
    explicit RawPeer(int id) {
        const std::wstring name = L"Local\\tolvacore.queue." + std::to_wstring(id);
        mapping_ = OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, (name + L".memory").c_str());
        if (mapping_) view_ = static_cast<std::uint8_t*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, 0));
        data_ = OpenEventW(EVENT_MODIFY_STATE, FALSE, (name + L".data1").c_str());
    }
    ~RawPeer() {
        if (view_) UnmapViewOfFile(view_);
        if (mapping_) CloseHandle(mapping_);
        if (data_) CloseHandle(data_);
    }
    bool ok() const { return view_ && data_; }
    std::uint32_t& field(int offset) { return *reinterpret_cast<std::uint32_t*>(view_ + offset); }
    std::uint32_t ringSize() { return field(12); }
    std::uint32_t& head() { return field(48); }
    std::uint32_t& tail() { return field(52); }
    // Bytes as they stand, at the ring's head, and the head moved past them.
    void write(const std::vector<std::uint8_t>& bytes, std::uint32_t announced) {
        std::uint8_t* ring = view_ + 64 + ringSize();
        std::uint32_t at = head();
        for (std::uint8_t b : bytes) ring[at++ & (ringSize() - 1)] = b;
        head() = head() + announced;
        SetEvent(data_);
    }
    void frame(std::uint32_t length, std::uint32_t id, const std::vector<std::uint8_t>& payload) {
        std::vector<std::uint8_t> bytes(8);
        std::memcpy(bytes.data(), &length, 4);
        std::memcpy(bytes.data() + 4, &id, 4);
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        write(bytes, static_cast<std::uint32_t>(bytes.size()));
    }

private:
    HANDLE mapping_ = nullptr;
    std::uint8_t* view_ = nullptr;
    HANDLE data_ = nullptr;
};

}  // namespace

// Calls from this side to the peer and back, nested: the peer's call on an
// object of this side is served on the serving thread, as is its message.
TEST(SharedQueue, CallsAndMessagesGoBothWaysAndNest) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    Adder adder;
    Messages messages;
    queue->registerMessageHandler("ClientMessage", &messages);
    Loop loop(queue);
    Peer peer("serve", id);
    ASSERT_TRUE(peer.started);

    EXPECT_EQ(42, twice(*queue, 21));
    EXPECT_EQ(-8, twice(*queue, -4));

    const std::wstring text(L"ab\x00e9\0\xd83d\xde00z", 7);
    queue->setupCall(anyObject()) << 2 << text;
    queue->send();
    queue->readAndDispatch(nullptr, 0);
    std::wstring reversed;
    *queue >> reversed;
    EXPECT_EQ(std::wstring(text.rbegin(), text.rend()), reversed);

    // The peer calls the adder while this thread waits for the peer's answer.
    EXPECT_EQ(1000 + 7 + 1, call(*queue, [&](ShmQueue& q) { q << 4 << &adder << 7; }));
    EXPECT_EQ(1, adder.calls.load());
    EXPECT_EQ(loop.threadId.load(), adder.thread.load()) << "a call of the peer runs on the serving thread";

    EXPECT_EQ(5, call(*queue, [&](ShmQueue& q) { q << 6 << std::wstring(L"ClientMessage") << std::wstring(L"connected"); }));
    EXPECT_EQ(L"connected", messages.text);
    EXPECT_EQ(loop.threadId.load(), messages.thread.load());

    // A message nobody handles: the peer still gets an answer, and the serving thread reports it.
    const std::string unknown = failureOf([&] {
        call(*queue, [&](ShmQueue& q) { q << 6 << std::wstring(L"Other") << std::wstring(L"x"); });
    });
    EXPECT_NE(std::string::npos, unknown.find("Read past the end")) << unknown;
    EXPECT_TRUE(loop.waitEnded(2000));
    EXPECT_NE(std::string::npos, loop.end.find("No handler for the message \"Other\"")) << loop.end;
}

// Eight threads call at once, each its own values, some answered late: each
// thread reads its own answer.
TEST(SharedQueue, EachWaitingThreadGetsItsOwnAnswer) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    Loop loop(queue);
    Peer peer("serve", id);
    std::atomic<int> wrong{0}, failed{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 8; ++t) {
        callers.emplace_back([&, t] {
            try {
                for (int i = 0; i < 150; ++i) {
                    const int value = t * 100000 + i;
                    const int answer = (i % 50 == 7) ? call(*queue, [&](ShmQueue& q) { q << 3 << 20 << value; })
                                                     : twice(*queue, value) / 2;
                    wrong += answer == value ? 0 : 1;
                }
            } catch (const ShmException&) {
                ++failed;
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(0, failed.load());
    EXPECT_EQ(0, wrong.load());
    EXPECT_FALSE(loop.ended.load()) << loop.end;
}

// terminate wakes the serving thread and a thread that waits for an answer,
// each with ShmTerminatedException, long before the peer would answer.
TEST(SharedQueue, TerminateEndsEveryWait) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    auto loop = std::make_unique<Loop>(queue);
    Peer peer("serve", id);
    EXPECT_EQ(2, twice(*queue, 1));
    std::atomic<bool> terminated{false};
    std::atomic<long long> waited{-1};
    std::thread caller([&] {
        const auto start = Clock::now();
        try {
            call(*queue, [](ShmQueue& q) { q << 3 << 10000 << 1; });
        } catch (const ShmTerminatedException&) {
            terminated = true;
        } catch (const ShmException&) {
        }
        waited = msSince(start);
    });
    Sleep(300);
    queue->terminate();
    caller.join();
    EXPECT_TRUE(terminated.load());
    EXPECT_LT(waited.load(), 2000);
    EXPECT_TRUE(loop->waitEnded(1000));
    EXPECT_TRUE(loop->terminated.load()) << loop->end;
    EXPECT_THROW(queue->readAndDispatch(nullptr, 0), ShmTerminatedException);
    EXPECT_THROW(
        {
            queue->setupCall(anyObject()) << 1 << 1;
            queue->send();
        },
        ShmTerminatedException)
        << "nothing more is sent";
}

// A peer that dies with a call of this side open, or is killed while this
// side waits, ends the wait with ShmException; so does a creator that dies
// under the side that attached.
TEST(SharedQueue, APeerThatDiesEndsTheWaitsOfTheOtherSide) {
    {
        const int id = freshId();
        auto queue = ShmQueue::createQueue(4096, id);
        Loop loop(queue);
        Peer peer("serve", id);
        EXPECT_EQ(6, twice(*queue, 3));
        const auto start = Clock::now();
        const std::string failure = failureOf([&] { call(*queue, [](ShmQueue& q) { q << 5; }); });
        EXPECT_NE(std::string::npos, failure.find("The other side of the queue has ended")) << failure;
        EXPECT_LT(msSince(start), 3000);
        EXPECT_EQ(5u, peer.exitCode(2000));
        EXPECT_TRUE(loop.waitEnded(2000));
    }
    {
        const int id = freshId();
        Peer peer("create", id);
        std::shared_ptr<ShmQueue> queue;
        for (int i = 0; i < 200 && !queue; ++i) {
            try {
                queue = ShmQueue::attachQueue(id);
            } catch (const ShmException&) {
                Sleep(25);
            }
        }
        ASSERT_TRUE(queue) << "the peer made no queue";
        EXPECT_EQ(10, twice(*queue, 5));
        std::string failure;
        std::thread caller([&] { failure = failureOf([&] { call(*queue, [](ShmQueue& q) { q << 3 << 60000 << 1; }); }); });
        Sleep(300);
        const auto start = Clock::now();
        peer.kill();
        caller.join();
        EXPECT_LT(msSince(start), 3000);
        EXPECT_NE(std::string::npos, failure.find("has ended")) << failure;
    }
}

// The queue's size bounds a message: one of exactly the size goes, one byte
// more is refused before anything is sent, and the queue goes on.
TEST(SharedQueue, AMessageLargerThanTheQueueIsRefused) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    Loop loop(queue);
    Peer peer("serve", id);
    // kind 1, object 9, operation 5, string head 5: 20 bytes, then 2 per unit.
    const std::wstring fits(2038, L'x');
    queue->setupCall(anyObject()) << 2 << fits;
    queue->send();
    queue->readAndDispatch(nullptr, 0);
    std::wstring back;
    *queue >> back;
    EXPECT_EQ(fits, back);
    const std::string failure = failureOf([&] { queue->setupCall(anyObject()) << 2 << (fits + L"y"); });
    EXPECT_NE(std::string::npos, failure.find("exceeds the queue size of 4096")) << failure;
    EXPECT_THROW(queue->send(), ShmException);
    EXPECT_EQ(8, twice(*queue, 4));
}

// Ids: a second queue of an id is refused, an id nobody made can't be
// attached, and sizes out of range are refused.
TEST(SharedQueue, IdsAndSizesThatCantBeHadAreRefused) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    EXPECT_NE(std::string::npos, failureOf([&] { ShmQueue::createQueue(4096, id); }).find("exists already"));
    EXPECT_NE(std::string::npos, failureOf([&] { ShmQueue::attachQueue(freshId()); }).find("No queue of id"));
    EXPECT_FALSE(failureOf([&] { ShmQueue::createQueue(0, freshId()); }).empty());
    EXPECT_FALSE(failureOf([&] { ShmQueue::createQueue(0x7FFFFFFF, freshId()); }).empty());
    queue.reset();
    EXPECT_EQ("", failureOf([&] { ShmQueue::createQueue(4096, id); })) << "the id is free once its queue is gone";

    // A mapping of the name that isn't a queue.
    const int other = freshId();
    HANDLE foreign = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096,
                                        (L"Local\\tolvacore.queue." + std::to_wstring(other) + L".memory").c_str());
    ASSERT_NE(nullptr, foreign);
    EXPECT_NE(std::string::npos, failureOf([&] { ShmQueue::attachQueue(other); }).find("no queue of this library"));
    CloseHandle(foreign);
}

// What a broken or hostile peer writes into the ring, with a fixed seed:
// frames of any length and id, truncated frames, heads moved anywhere, and
// well-framed messages of random bytes. Each round ends in an answer, a
// dispatched message or ShmException, and the process goes on.
TEST(SharedQueue, GarbageFromThePeerGivesShmException) {
    std::mt19937 random(20261124);
    auto byte = [&] { return static_cast<std::uint8_t>(random()); };
    Messages messages;
    Adder adder;
    int failures = 0, served = 0, rounds = 0;
    for (; rounds < 300; ++rounds) {
        const int id = freshId();
        auto queue = ShmQueue::createQueue(4096, id);
        queue->registerMessageHandler("M", &messages);
        RawPeer raw(id);
        ASSERT_TRUE(raw.ok());
        std::vector<std::uint8_t> payload(random() % 64);
        for (auto& b : payload) b = byte();
        switch (rounds % 6) {
        case 0:  // any length and id
            raw.frame(random() % 2 ? random() : random() % 9000, random(), payload);
            break;
        case 1:  // a frame announced longer than what is there
            raw.write({100, 0, 0, 0, 1, 0, 0, 0, 'C'}, 9);
            break;
        case 2:  // a head that claims more than the ring holds
            raw.head() = raw.tail() + raw.ringSize() + 1 + random() % 1000;
            break;
        case 3: {  // a message of that name with random values after it, or with a string of random units
            std::vector<std::uint8_t> message = {'M', 's', 1, 0, 0, 0, 'M', 0};
            if (random() % 2) {
                const auto units = static_cast<std::uint8_t>(payload.size() / 2);
                message.insert(message.end(), {'s', units, 0, 0, 0});
            }
            message.insert(message.end(), payload.begin(), payload.end());
            raw.frame(static_cast<std::uint32_t>(message.size()), random(), message);
            break;
        }
        case 4: {  // a call whose target is random
            std::vector<std::uint8_t> message = {'C', 'p'};
            for (int i = 0; i < 8; ++i) message.push_back(byte());
            message.insert(message.end(), payload.begin(), payload.end());
            raw.frame(static_cast<std::uint32_t>(message.size()), random(), message);
            break;
        }
        default:  // less than a frame head
            raw.write({byte(), byte(), byte()}, 3);
        }
        try {
            served += queue->readAndDispatch(&adder, 300);
        } catch (const ShmException&) {
            ++failures;
        }
    }
    std::printf("garbage rounds: %d, ShmException: %d, served: %d\n", rounds, failures, served);
    EXPECT_GE(failures, rounds / 2);
    EXPECT_GT(served, 0) << "well-formed messages among the garbage are served";
}

// The round trip of one call and answer between the two processes, printed.
TEST(SharedQueue, RoundTripTime) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    Loop loop(queue);
    Peer peer("serve", id);
    EXPECT_EQ(0, twice(*queue, 0));
    const int calls = 2000;
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) ASSERT_EQ(2 * i, twice(*queue, i));
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count() / calls;
    std::printf("round trip of one call: %.1f us (%d bits)\n", us, int(sizeof(void*) * 8));
    EXPECT_LT(us, 20000.0);

    // And calls from the peer, a thousand in a row, each answered on the serving thread.
    Adder adder;
    EXPECT_EQ(1000 * 1000 + 999 * 1000 / 2, call(*queue, [&](ShmQueue& q) { q << 7 << &adder << 1000; }));
    EXPECT_EQ(1000, adder.calls.load());
    EXPECT_EQ(0, call(*queue, [](ShmQueue& q) { q << 8; }));
    EXPECT_EQ(0u, peer.exitCode(5000));
}

// A side that lets go of its end in good order ends the other side's waits
// with ShmTerminatedException, not with a failure.
TEST(SharedQueue, ASideThatClosesItsEndEndsTheOtherSidesWaits) {
    const int id = freshId();
    auto queue = ShmQueue::createQueue(4096, id);
    Loop loop(queue);
    {
        Peer peer("serve", id);
        EXPECT_EQ(2, twice(*queue, 1));
        EXPECT_EQ(0, call(*queue, [](ShmQueue& q) { q << 8; }));
        EXPECT_EQ(0u, peer.exitCode(5000));
    }
    EXPECT_TRUE(loop.waitEnded(2000));
    EXPECT_TRUE(loop.terminated.load()) << loop.end;
    EXPECT_NE(std::string::npos, loop.end.find("closed")) << loop.end;

    // And the side that attached sees the creator's end the same way.
    const int other = freshId();
    auto created = ShmQueue::createQueue(4096, other);
    auto attached = ShmQueue::attachQueue(other);
    std::thread closer([&] {
        Sleep(200);
        created.reset();
    });
    EXPECT_THROW(attached->readAndDispatch(nullptr, 0), ShmTerminatedException);
    closer.join();
}
