// The queue's values, calls and messages between the two ends of a loopback
// transport: what is written reads back as written, and every malformed or
// oversized message ends in ShmException, never in a read out of bounds.
#include "tolvacore/ipc/ShmQueue.h"

#include "LoopbackQueue.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>

using dwtest::LoopbackQueue;
using tolva::tolvacore::Exception;
using tolva::tolvacore::ipc::ShmCallable;
using tolva::tolvacore::ipc::ShmException;
using tolva::tolvacore::ipc::ShmMessageHandler;
using tolva::tolvacore::ipc::ShmQueue;

namespace {

struct Ends {
    Ends() : ends(LoopbackQueue::pair(4096)) {}
    LoopbackQueue& a() { return *ends.first; }
    LoopbackQueue& b() { return *ends.second; }
    // An answer from a, waiting at b to be read.
    void answer(const std::function<void(ShmQueue&)>& write) {
        write(a().setupReturn());
        a().sendReturn();
        b().readAndDispatch(nullptr, 0);
    }
    std::pair<std::unique_ptr<LoopbackQueue>, std::unique_ptr<LoopbackQueue>> ends;
};

// The text of the ShmException that f throws; "" when it throws none.
std::string failureOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ShmException& e) {
        EXPECT_EQ(std::string(e.what()), e.getMessage());
        return e.getMessage().empty() ? "(empty text)" : e.getMessage();
    }
    return "";
}

class Recorder : public ShmCallable, public ShmMessageHandler {
public:
    void call(ShmQueue& queue) override {
        queue >> value;
        ++calls;
        queue.returnInt(value * 2);
    }
    void handleMessage(ShmQueue& queue) override {
        queue >> text >> value;
        ++messages;
        queue.returnInt(0);
    }
    int value = 0, calls = 0, messages = 0;
    std::wstring text;
};

}  // namespace

TEST(ShmQueue, EveryTypeReadsBackAsWritten) {
    Ends q;
    const std::wstring withNul(L"a\0\x00e9\x4e2d\xd83d\xde00", 6);
    void* const object = reinterpret_cast<void*>(std::uintptr_t(0x12345678));
    q.answer([&](ShmQueue& out) {
        out << INT_MIN << INT_MAX << 0xFFFFFFFFu << std::int64_t(LLONG_MIN) << std::int64_t(LLONG_MAX) << true
            << false << object << static_cast<void*>(nullptr) << L"C string" << static_cast<const wchar_t*>(nullptr)
            << withNul;
        out.push(-7);
    });
    int i1, i2, raw;
    unsigned u;
    std::int64_t l1, l2;
    bool yes, no;
    void *p1, *p2;
    std::wstring s1, s2, s3;
    EXPECT_NE("", failureOf([&] { q.b() >> l1; })) << "an int read as a 64-bit int";
    q.b() >> i1 >> i2 >> u >> l1 >> l2 >> yes >> no >> p1 >> p2 >> s1 >> s2 >> s3;  // the failed read took nothing
    q.b().pop(raw);
    EXPECT_EQ(std::make_tuple(INT_MIN, INT_MAX, 0xFFFFFFFFu, LLONG_MIN, LLONG_MAX, true, false, -7),
              std::make_tuple(i1, i2, u, l1, l2, yes, no, raw));
    EXPECT_EQ(object, p1);
    EXPECT_EQ(nullptr, p2);
    EXPECT_EQ(L"C string", s1);
    EXPECT_EQ(L"", s2) << "a null C string goes as the empty string";
    EXPECT_EQ(withNul, s3);
    EXPECT_EQ("Read past the end of the message: no int after byte 104", failureOf([&] { q.b() >> i1; }));
}

// Each row writes an answer, may change its bytes on the way, and reads it
// in a way that the message doesn't allow. Byte 0 is the kind of message,
// then each value is a type byte and its payload.
TEST(ShmQueue, MalformedReadsThrowWithAClearText) {
    using Bytes = LoopbackQueue::Bytes;
    struct Row {
        const char* name;
        std::function<void(ShmQueue&)> write;
        std::function<void(Bytes&)> change;
        std::function<void(ShmQueue&)> read;
        const char* expected;
    };
    int i;
    unsigned u;
    std::int64_t l;
    bool z;
    void* p;
    std::wstring s;
    const auto none = [](Bytes&) {};
    const Row rows[] = {
        {"int as unsigned", [](ShmQueue& q) { q << 1; }, none, [&](ShmQueue& q) { q >> u; },
         "Expected unsigned but found int at byte 1"},
        {"bool as int", [](ShmQueue& q) { q << true; }, none, [&](ShmQueue& q) { q >> i; },
         "Expected int but found bool"},
        {"string as pointer", [](ShmQueue& q) { q << L"x"; }, none, [&](ShmQueue& q) { q >> p; },
         "Expected pointer but found wide string"},
        {"int as raw", [](ShmQueue& q) { q << 0x1E000000; }, none, [&](ShmQueue& q) { q.pop(i); },
         "Expected raw value but found int"},
        {"past the end", [](ShmQueue& q) { q << 1; }, none, [&](ShmQueue& q) { q >> i >> i; },
         "Read past the end of the message: no int after byte 6"},
        {"truncated 64-bit int", [](ShmQueue& q) { q << std::int64_t(1); }, [](Bytes& b) { b.resize(5); },
         [&](ShmQueue& q) { q >> l; }, "64-bit int at byte 1 needs 8 bytes, 3 left"},
        {"string longer than the rest", [](ShmQueue& q) { q << L"abc"; }, [](Bytes& b) { b[2] = 4; },
         [&](ShmQueue& q) { q >> s; }, "Wide string at byte 1 claims 4 characters, 6 bytes are left"},
        {"string of 2^32-1 characters", [](ShmQueue& q) { q << L"abc"; },
         [](Bytes& b) { b[2] = b[3] = b[4] = b[5] = 0xFF; }, [&](ShmQueue& q) { q >> s; },
         "claims 4294967295 characters"},
        {"bool of 2", [](ShmQueue& q) { q << true; }, [](Bytes& b) { b[2] = 2; }, [&](ShmQueue& q) { q >> z; },
         "Bool of value 2"},
        {"unknown type byte", [](ShmQueue& q) { q << 1; }, [](Bytes& b) { b[1] = 0xEE; },
         [&](ShmQueue& q) { q >> i; }, "Expected int but found no value at byte 1"},
    };
    for (const Row& row : rows) {
        Ends q;
        row.write(q.a().setupReturn());
        q.a().sendReturn();
        Bytes bytes = q.b().takeNext();
        row.change(bytes);
        q.b().inject(bytes);
        q.b().readAndDispatch(nullptr, 0);
        const std::string failure = failureOf([&] { row.read(q.b()); });
        EXPECT_NE(std::string::npos, failure.find(row.expected)) << row.name << ": " << failure;
    }
}

// A queue of 4096 bytes carries a message of 4096 bytes and no larger: the
// writer finds out at the value that doesn't fit, the reader at a received
// message that is too large.
TEST(ShmQueue, MessagesLargerThanTheQueueAreRefused) {
    Ends q;
    const size_t fits = (4096 - 1 - 1 - 4) / 2;  // kind, type, count, units
    q.answer([&](ShmQueue& out) { out << std::wstring(fits, L'x'); });
    std::wstring text;
    q.b() >> text;
    EXPECT_EQ(fits, text.size());

    EXPECT_NE(std::string::npos,
              failureOf([&] { q.a().setupReturn() << std::wstring(fits + 1, L'x'); })
                  .find("Message exceeds the queue size of 4096 bytes with a wide string"));
    EXPECT_NE("", failureOf([&] {
                  ShmQueue& out = q.a().setupReturn();
                  for (int i = 0; i < 1000; ++i) {
                      out << std::int64_t(i);
                  }
              }));
    EXPECT_EQ("No message set up", failureOf([&] { q.a() << 1; })) << "the message that didn't fit is dropped";
    EXPECT_EQ("No message set up", failureOf([&] { q.a().sendReturn(); }));
    EXPECT_EQ(0u, q.b().waiting()) << "nothing of it went out";

    LoopbackQueue::Bytes oversized(4097, 'i');
    oversized[0] = 'R';
    q.b().inject(oversized);
    EXPECT_EQ("Message of 4097 bytes exceeds the queue size of 4096", failureOf([&] { q.b().readAndDispatch(nullptr, 0); }));
    q.b().inject(LoopbackQueue::Bytes());
    EXPECT_EQ("Empty message", failureOf([&] { q.b().readAndDispatch(nullptr, 0); }));
}

// A pointer travels as 64 bits; a process of 32 bits refuses one it can't hold.
TEST(ShmQueue, PointersBeyondTheAddressSpaceAreRefused) {
    Ends q;
    q.a().setupReturn() << reinterpret_cast<void*>(std::uintptr_t(0x80000000u));
    q.a().sendReturn();
    LoopbackQueue::Bytes bytes = q.b().takeNext();
    ASSERT_EQ(1u + 1u + 8u, bytes.size());
    bytes[6] = 1;  // bit 32
    q.b().inject(bytes);
    q.b().readAndDispatch(nullptr, 0);
    void* pointer = nullptr;
    const std::string failure = failureOf([&] { q.b() >> pointer; });
    if (sizeof(void*) == 4) {
        EXPECT_EQ("Pointer 0x180000000 is no address of this process", failure);
    } else {
        EXPECT_EQ("", failure);
        EXPECT_EQ(std::uint64_t(0x180000000ull), std::uint64_t(reinterpret_cast<std::uintptr_t>(pointer)));
    }
}

// Calls reach a callable that this end handed out, with the target in
// either form, and their answers reach the caller; a call on anything else
// reaches nothing.
TEST(ShmQueue, CallsReachOnlyCallablesHandedOut) {
    Ends q;
    Recorder recorder, other;
    q.answer([&](ShmQueue& out) { out << static_cast<ShmCallable*>(&recorder); });
    void* target = nullptr;
    q.b() >> target;

    q.b().setupCall(target) << 21;
    q.b().send();
    q.a().readAndDispatch(nullptr, 0);
    q.b().readAndDispatch(nullptr, 0);
    int answer = 0;
    q.b() >> answer;
    EXPECT_EQ(42, answer);

    q.b().setupCall() << target << 5;
    q.b().send();
    q.a().readAndDispatch(nullptr, 0);
    EXPECT_EQ(2, recorder.calls);
    EXPECT_EQ(5, recorder.value);
    q.b().readAndDispatch(nullptr, 0);

    q.b().setupCall(static_cast<void*>(static_cast<ShmCallable*>(&other))) << 1;
    q.b().send();
    EXPECT_NE(std::string::npos, failureOf([&] { q.a().readAndDispatch(nullptr, 0); }).find("Call on an unknown object 0x"));
    EXPECT_EQ(0, other.calls);
    EXPECT_EQ(2, recorder.calls);
}

TEST(ShmQueue, MessagesGoToTheHandlerOfTheirName) {
    Ends q;
    Recorder handler;
    q.a().registerMessageHandler("ClientMessage", &handler);
    q.b().setupMessage("ClientMessage") << L"connected" << 7;
    q.b().send();
    q.a().readAndDispatch(nullptr, 0);
    EXPECT_EQ(1, handler.messages);
    EXPECT_EQ(L"connected", handler.text);
    EXPECT_EQ(7, handler.value);
    q.b().readAndDispatch(nullptr, 0);
    int answer = -1;
    q.b() >> answer;
    EXPECT_EQ(0, answer);

    q.b().setupMessage("Other") << L"connected" << 8;
    q.b().send();
    EXPECT_EQ("No handler for the message \"Other\"", failureOf([&] { q.a().readAndDispatch(nullptr, 0); }));
    EXPECT_EQ(1, handler.messages);
}
