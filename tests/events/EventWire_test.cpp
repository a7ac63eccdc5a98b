// Event records on the queue: what a client sends reads back field for field
// as the record of its kind, malformed records end in ShmException and never
// in a crash, and EventFilter::call carries each record into Java and
// answers the client 0 whatever the record was.
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"

#include "FilterTest.h"
#include "JniHost.h"
#include "LoopbackQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>
#include <tuple>
#include <typeinfo>
#include <variant>

using namespace tolva;
using dwtest::LoopbackQueue;
using dwtest::onAttachedThread;
using tolvacore::ipc::ShmCallable;
using tolvacore::ipc::ShmException;
using Bytes = LoopbackQueue::Bytes;

namespace {

const std::string EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/";

using Field = std::variant<int, bool, std::wstring>;

// A record as the client sends it: marker, type, handle, code and the fields
// of its kind, without a time stamp.
struct ClientRecord {
    const char* name;
    std::int32_t type;
    std::int64_t handle;
    std::int32_t code;
    std::vector<Field> fields;
    const std::type_info* recordClass;
    const char* javaClass;  // null: callJava drops it
};

const ClientRecord CLIENT_RECORDS[] = {
    {"mouse", 202, -5, 513, {10, 20, 110, 220, 1, 16}, &typeid(MouseEvent), "MouseEvent"},
    {"key with shift", 201, 7, 256, {65, 65, true, false, false}, &typeid(KeyEvent), "KeyboardEvent"},
    {"key with ctrl", 201, 7, 257, {17, 0, false, true, false}, &typeid(KeyEvent), "KeyboardEvent"},
    {"key with alt", 201, 7, 260, {18, 0, false, false, true}, &typeid(KeyEvent), "KeyboardEvent"},
    {"automation", 204, 0x7FFFFFFF00000001LL, 4096, {30005, std::wstring(L"Stra\x00dfe \x4e2d")},
     &typeid(UIAutomationEvent), "UIAutomationEvent"},
    {"automation without text", 204, 3, 20005, {0, std::wstring()}, &typeid(UIAutomationEvent),
     "UIAutomationEvent"},
    {"msaa", 205, 99, 32768, {0x1234, -4}, &typeid(MSAAEvent), "MSAAEvent"},
    {"change", 203, 12, 3, {}, &typeid(ChangeEvent), "ChangeEvent"},
    {"trigger", 120, 0, 0, {}, &typeid(WinClientEvent), "CallbackEvent"},
    {"unknown", 150, 1, 2, {}, &typeid(WinClientEvent), nullptr},
};

void writeFields(ShmQueue& queue, const std::vector<Field>& fields) {
    for (const Field& field : fields) {
        std::visit([&queue](const auto& value) { queue << value; }, field);
    }
}

void writeClientForm(ShmQueue& queue, const ClientRecord& record) {
    queue.push(0x1E000000);
    queue << record.type << record.handle << record.code;
    writeFields(queue, record.fields);
}

// The fields of a record after its code, in the order of the wire.
std::vector<Field> fieldsOf(const WinClientEvent& event) {
    if (auto* mouse = dynamic_cast<const MouseEvent*>(&event)) {
        return {mouse->x, mouse->y, mouse->screenX, mouse->screenY, mouse->button, mouse->modifiers};
    }
    if (auto* key = dynamic_cast<const KeyEvent*>(&event)) {
        return {key->vk, key->character, key->shift, key->ctrl, key->alt};
    }
    if (auto* automation = dynamic_cast<const UIAutomationEvent*>(&event)) {
        return {automation->param, automation->text};
    }
    if (auto* msaa = dynamic_cast<const MSAAEvent*>(&event)) {
        return {msaa->hwnd, msaa->arg};
    }
    return {};
}

std::string show(const std::vector<Field>& fields) {
    std::string out;
    for (const Field& field : fields) {
        if (auto* i = std::get_if<int>(&field)) {
            out += "I:" + std::to_string(*i) + " ";
        } else if (auto* z = std::get_if<bool>(&field)) {
            out += std::string("Z:") + (*z ? "true " : "false ");
        } else {
            out += "S:" + std::string(std::get<std::wstring>(field).begin(), std::get<std::wstring>(field).end()) + " ";
        }
    }
    return out;
}

// Two ends of a queue of 4096 bytes: the driver's (a) and the client's (b).
struct Wire {
    Wire() : ends(LoopbackQueue::pair(4096)) {}
    LoopbackQueue& driver() { return *ends.first; }
    LoopbackQueue& client() { return *ends.second; }
    // What the client writes, changed on the way, ready to be read at the driver's end.
    void deliver(const std::function<void(ShmQueue&)>& write, const std::function<void(Bytes&)>& change = {}) {
        write(client().setupReturn());
        client().sendReturn();
        Bytes bytes = driver().takeNext();
        if (change) change(bytes);
        driver().inject(bytes);
        driver().readAndDispatch(nullptr, 0);
    }
    std::pair<std::unique_ptr<LoopbackQueue>, std::unique_ptr<LoopbackQueue>> ends;
};

// The text of the ShmException that f throws; "" when it throws none.
std::string failureOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ShmException& e) {
        return e.getMessage().empty() ? "(empty text)" : e.getMessage();
    }
    return "";
}

// Records that no client may send, and the reader's words for each.
struct BadRecord {
    const char* name;
    std::function<void(ShmQueue&)> write;
    std::function<void(Bytes&)> change;
    const char* failure;
};

const BadRecord BAD_RECORDS[] = {
    {"wrong marker", [](ShmQueue& q) { q.push(0x1E000001); q << 202; }, {},
     "Expected the marker 0x1e000000, found 0x1e000001"},
    {"marker as int", [](ShmQueue& q) { q << 0x1E000000 << 202; }, {}, "Expected raw value but found int"},
    {"nothing", [](ShmQueue&) {}, {}, "Read past the end of the message: no raw value"},
    {"truncated mouse",
     [](ShmQueue& q) { writeClientForm(q, ClientRecord{"", 202, 1, 512, {10, 20}, nullptr, nullptr}); }, {},
     "Read past the end of the message: no int"},
    {"mouse cut inside a value", [](ShmQueue& q) { writeClientForm(q, CLIENT_RECORDS[0]); },
     [](Bytes& b) { b.resize(b.size() - 2); }, "needs 4 bytes, 2 left"},
    {"key booleans as ints",
     [](ShmQueue& q) { writeClientForm(q, ClientRecord{"", 201, 1, 256, {65, 65, 1, 0, 0}, nullptr, nullptr}); }, {},
     "Expected bool but found int"},
    {"handle as int", [](ShmQueue& q) { q.push(0x1E000000); q << 203 << 5 << 0; }, {},
     "Expected 64-bit int but found int"},
    {"text that claims more than is there",
     [](ShmQueue& q) { writeClientForm(q, ClientRecord{"", 204, 1, 4096, {1, std::wstring(L"abc")}, nullptr, nullptr}); },
     [](Bytes& b) { b[b.size() - 3 * 2 - 4] = 4; }, "claims 4 characters, 6 bytes are left"},
    {"text of 2^31 characters",
     [](ShmQueue& q) { writeClientForm(q, ClientRecord{"", 204, 1, 4096, {1, std::wstring(L"abc")}, nullptr, nullptr}); },
     [](Bytes& b) { b[b.size() - 3 * 2 - 1] = 0x80; }, "claims 2147483651 characters"},
};

}  // namespace

// write puts the time stamp after the code; the fields of the kind follow.
// Fed back to readEvent, the time stamp stands where the reader wants the
// first field of the kind, and the reader says so; a record without fields
// reads, but loses its time stamp, which stays unread in the message.
TEST(EventRecords, WriteSendsTheTimestampAfterTheCode) {
    const std::int64_t stamp = 1700000000123LL;
    MouseEvent mouse(-5, 513, 10, 20, 110, 220, 1, 16, stamp);
    KeyEvent key(7, 256, 65, 97, false, true, false, stamp);
    UIAutomationEvent automation(9, 4097, 2, L"p=12", stamp);
    MSAAEvent msaa(32768, 0x1234, -4, stamp);
    MSAAEvent unstamped(32769, 1, 2);
    ChangeEvent change;
    change.handle = 4;
    change.code = 8;
    WinClientEvent trigger(EVENT_CALLBACK, 0, 0);
    const WinClientEvent* records[] = {&mouse, &key, &automation, &msaa, &unstamped, &change, &trigger};
    for (const WinClientEvent* record : records) {
        Wire wire;
        wire.deliver([record](ShmQueue& q) { record->write(q); });
        int marker = 0, type = 0, code = 0;
        std::int64_t handle = 0, timestamp = 0;
        wire.driver().pop(marker);
        wire.driver() >> type >> handle >> code >> timestamp;
        EXPECT_EQ(0x1E000000, marker);
        EXPECT_EQ(record->type, type);
        EXPECT_EQ(record->handle, handle);
        EXPECT_EQ(record->code, code);
        EXPECT_EQ(record == &unstamped || record == &change || record == &trigger ? 0 : stamp, timestamp) << type;
        std::vector<Field> fields = fieldsOf(*record);
        for (Field& field : fields) {
            std::visit([&wire](auto& value) { wire.driver() >> value; }, field);
        }
        EXPECT_EQ(show(fieldsOf(*record)), show(fields)) << type;
        if (fields.empty()) continue;
        wire.deliver([record](ShmQueue& q) { record->write(q); });
        EXPECT_EQ("Expected int but found 64-bit int at byte 25",
                  failureOf([&] { WinClientEvent::readEvent(wire.driver()); })) << type;
    }
    change.timestamp = stamp;
    Wire wire;
    wire.deliver([&change](ShmQueue& q) { change.write(q); });
    std::unique_ptr<WinClientEvent> event = WinClientEvent::readEvent(wire.driver());
    ASSERT_TRUE(event);
    EXPECT_EQ(typeid(ChangeEvent), typeid(*event));
    EXPECT_EQ(std::make_tuple(std::int64_t(4), 8, std::int64_t(0)), std::make_tuple(event->handle, event->code, event->timestamp))
        << "the time stamp is lost";
    std::int64_t left = 0;
    wire.driver() >> left;
    EXPECT_EQ(stamp, left) << "and stays unread in the message";
}

TEST(EventRecords, MalformedRecordsThrowShmException) {
    for (const BadRecord& bad : BAD_RECORDS) {
        Wire wire;
        wire.deliver(bad.write, bad.change);
        const std::string failure = failureOf([&] { WinClientEvent::readEvent(wire.driver()); });
        EXPECT_NE(std::string::npos, failure.find(bad.failure)) << bad.name << ": " << failure;
    }
    // A record larger than the queue: the writer finds out, and nothing of it goes.
    Wire wire;
    UIAutomationEvent large(1, 4096, 30005, std::wstring(3000, L'x'), 0);
    EXPECT_NE(std::string::npos, failureOf([&] { large.write(wire.client().setupCall(nullptr)); })
                                     .find("Message exceeds the queue size of 4096 bytes"));
    EXPECT_EQ("No message set up", failureOf([&] { wire.client().send(); }));
}

// Random messages and client records with bytes flipped, cut or repeated:
// the reader gives a record or throws ShmException, nothing else, and a
// record it gives is of the kind its type code names.
TEST(EventRecords, FuzzedMessagesNeverCrashTheReader) {
    std::mt19937 random(20261124);
    auto below = [&random](size_t n) { return static_cast<size_t>(random() % n); };
    const char types[] = "iulbpsr";
    size_t read = 0, refused = 0;
    for (int round = 0; round < 4000; ++round) {
        Wire wire;
        Bytes bytes;
        if (round % 4 == 0) {
            bytes.push_back('R');
            for (size_t n = below(80); n > 0; --n) {
                bytes.push_back(below(3) == 0 ? static_cast<std::uint8_t>(types[below(7)]) : static_cast<std::uint8_t>(random()));
            }
        } else {
            const ClientRecord& record = CLIENT_RECORDS[below(std::size(CLIENT_RECORDS))];
            wire.client().setupReturn();
            writeClientForm(wire.client(), record);
            wire.client().sendReturn();
            bytes = wire.driver().takeNext();
            switch (below(4)) {
            case 0: bytes.resize(1 + below(bytes.size())); break;
            case 1:
                for (size_t n = 1 + below(3); n > 0; --n) bytes[1 + below(bytes.size() - 1)] ^= static_cast<std::uint8_t>(1 + below(255));
                break;
            case 2: {
                const size_t at = 1 + below(bytes.size() - 1);
                bytes.insert(bytes.begin() + at, bytes.begin() + 1, bytes.begin() + at);
                break;
            }
            default: bytes[1 + below(bytes.size() - 1)] = static_cast<std::uint8_t>(types[below(7)]); break;
            }
        }
        wire.driver().inject(bytes);
        try {
            wire.driver().readAndDispatch(nullptr, 0);
            std::unique_ptr<WinClientEvent> event = WinClientEvent::readEvent(wire.driver());
            ASSERT_TRUE(event);
            const ClientRecord* known = nullptr;
            for (const ClientRecord& record : CLIENT_RECORDS) known = record.type == event->type ? &record : known;
            EXPECT_EQ(known ? *known->recordClass : typeid(WinClientEvent), typeid(*event)) << round;
            ++read;
        } catch (const ShmException&) {
            ++refused;
        }
    }
    EXPECT_GT(read, 100u) << "the mutations leave some records readable";
    EXPECT_GT(refused, 1000u);
}

namespace {

// EventFilter on a thread that it attached to the host, with a client at the
// other end of a loopback queue that holds the filter as its callable.
class EventCall : public dwtest::FilterTest {
protected:
    // The client's end gets the filter as the driver's answer to "connected" gives it.
    void* handOut(Wire& wire) {
        wire.driver().setupReturn() << static_cast<ShmCallable*>(&EventFilter::getInstance());
        wire.driver().sendReturn();
        wire.client().readAndDispatch(nullptr, 0);
        void* target = nullptr;
        wire.client() >> target;
        return target;
    }
    // A call on the filter with what write puts, changed on the way; the answer.
    int callFilter(Wire& wire, void* target, const std::function<void(ShmQueue&)>& write,
                   const std::function<void(Bytes&)>& change = {}) {
        write(wire.client().setupCall(target));
        wire.client().send();
        Bytes bytes = wire.driver().takeNext();
        if (change) change(bytes);
        wire.driver().inject(bytes);
        wire.driver().readAndDispatch(nullptr, 0);
        wire.client().readAndDispatch(nullptr, 0);
        int answer = -1;
        wire.client() >> answer;
        int more;
        EXPECT_NE("", failureOf([&] { wire.client() >> more; })) << "the answer is one int";
        return answer;
    }
    // The Java arguments that the record's event gets, "I:202 J:-5 ...".
    std::string expectedArgs(const ClientRecord& record, bool stamped) {
        const std::string java = record.javaClass;
        if (java == "CallbackEvent") return "";
        std::string out = "I:" + std::to_string(record.type) + " ";
        if (java != "MSAAEvent") out += "J:" + std::to_string(record.handle) + " ";
        out += "I:" + std::to_string(record.code) + " ";
        if (java == "ChangeEvent") return out;
        return out + show(record.fields) + (stamped ? "J:0 " : "");
    }
    std::string shownArgs(const jnihost::Construction& made) {
        std::string out;
        for (const jnihost::Value& value : made.args) {
            if (value.type == 'L') {
                const std::wstring text = host->text(static_cast<jstring>(value.l));
                out += "S:" + std::string(text.begin(), text.end()) + " ";
            } else {
                out += value.toString() + " ";
            }
        }
        return out;
    }
};

}  // namespace

// With and without the time-stamped constructors of the host, each in a
// process of its own: the filter learns the host's constructors once.
class EventCallModes : public EventCall, public ::testing::WithParamInterface<bool> {};

// Every client record through call, then every bad one: each answered 0;
// each good one reaches filterEvent as its Java class, in order.
TEST_P(EventCallModes, RecordsReachJavaAndTheClientGetsZero) {
    const bool stamped = GetParam();
    connect(jnihost::JavaHost::Options{stamped});
    std::vector<std::string> answers;
    onAttachedThread([&](EventFilter& filter) {
        filter.checkEventConstructor();
        Wire wire;
        void* target = handOut(wire);
        for (const ClientRecord& record : CLIENT_RECORDS) {
            const int answer = callFilter(wire, target, [&record](ShmQueue& q) { writeClientForm(q, record); });
            answers.push_back(std::string(record.name) + "=" + std::to_string(answer));
        }
        for (const BadRecord& bad : BAD_RECORDS) {
            answers.push_back(std::string(bad.name) + "=" + std::to_string(callFilter(wire, target, bad.write, bad.change)));
        }
        // The queue's thread serves on after them.
        answers.push_back("after=" + std::to_string(callFilter(wire, target, [](ShmQueue& q) {
            writeClientForm(q, CLIENT_RECORDS[7]);
        })));
    });
    ASSERT_EQ(std::size(CLIENT_RECORDS) + std::size(BAD_RECORDS) + 1, answers.size());
    for (const std::string& answer : answers) EXPECT_EQ('0', answer.back()) << answer;
    EXPECT_EQ(stamped, EventFilter::getInstance().timestampedEvents());

    std::vector<std::string> expected, filtered;
    std::vector<jnihost::Construction> made;
    for (const jnihost::Construction& construction : host->constructions()) {
        if (construction.className.rfind(EVENT, 0) == 0) made.push_back(construction);
    }
    for (const jnihost::Call& call : host->calls("filterEvent")) {
        filtered.push_back(host->classNameOf(call.args[0].l).substr(EVENT.size()));
    }
    size_t at = 0;
    for (const ClientRecord& record : CLIENT_RECORDS) {
        if (!record.javaClass) continue;
        expected.push_back(record.javaClass);
        ASSERT_LT(at, made.size()) << record.name;
        EXPECT_EQ(EVENT + record.javaClass, made[at].className) << record.name;
        EXPECT_EQ(expectedArgs(record, stamped), shownArgs(made[at])) << record.name << " " << made[at].signature;
        ++at;
    }
    expected.push_back("ChangeEvent");  // the one after the bad records
    EXPECT_EQ(expected, filtered);
    EXPECT_EQ(expected.size(), made.size()) << "no bad record makes a Java event";
}

INSTANTIATE_TEST_SUITE_P(Timestamped, EventCallModes, ::testing::Values(true));
INSTANTIATE_TEST_SUITE_P(Short, EventCallModes, ::testing::Values(false));

// A long recording: a million events leave the attached thread with as many
// live local references as after ten thousand.
TEST_F(EventCall, AMillionEventsKeepTheLocalReferencesFlat) {
    jnihost::JavaHost::Options options;
    options.recordCalls = false;
    connect(options);
    const int total = 1000000, early = 10000;
    size_t afterEarly = 0, afterAll = 0;
    const auto start = std::chrono::steady_clock::now();
    onAttachedThread([&](EventFilter& filter) {
        MouseEvent mouse(5, 513, 1, 2, 3, 4, 0, 16, 1700000000000LL);
        UIAutomationEvent automation(6, 4096, 30005, L"value", 1700000000000LL);
        for (int i = 1; i <= total; ++i) {
            filter.callJava(i % 2 ? static_cast<WinClientEvent*>(&mouse) : &automation);
            if (i == early) afterEarly = host->localRefCount();
        }
        afterAll = host->localRefCount();
    });
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(afterEarly, afterAll) << "live local references after " << early << " and after " << total;
    EXPECT_EQ(size_t(total), host->callCount("filterEvent"));
    EXPECT_EQ(size_t(total / 2), host->constructionCount(EVENT + "MouseEvent"));
    EXPECT_EQ(size_t(total / 2), host->constructionCount(EVENT + "UIAutomationEvent"));
    std::printf("%d events in %.1f s: %.0f events/s (%d-bit)\n", total, seconds, total / seconds,
                int(sizeof(void*) * 8));
    RecordProperty("eventsPerSecond", static_cast<int>(total / seconds));
}
