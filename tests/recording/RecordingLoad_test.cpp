// The recorder under load: how many automation events per second go the
// whole road from the platform's raising threads to Java's filterEvent, where
// that time goes, how long one event takes at a steady pace, and that the
// driver's memory is back where it started once a burst is over.
#include "DriverTest.h"
#include "ImportPatch.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

using namespace dwtest;
using fakeuia::Node;

namespace {

const std::string UIA_EVENT = EVENT_PACKAGE + "UIAutomationEvent";
const std::string CALLBACK_EVENT = EVENT_PACKAGE + "CallbackEvent";
const int THREADS = 4;

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Raises perThread property changes (values 0, 1, ...) on each button from a
// thread of its own; returns when all are raised.
void raiseFromThreads(fakeuia::Platform& platform, const std::vector<Node*>& buttons, int perThread) {
    std::vector<std::thread> raisers;
    for (Node* button : buttons) {
        raisers.emplace_back([&platform, button, perThread] {
            VARIANT value{};
            value.vt = VT_I4;
            for (int i = 0; i < perThread; ++i) {
                value.lVal = i;
                platform.raisePropertyChangedEvent(*button, UIA_ToggleToggleStatePropertyId, value);
            }
        });
    }
    for (std::thread& raiser : raisers) raiser.join();
}

// A property handler of the test's own that only counts: the platform's part.
class CountingHandler : public IUIAutomationPropertyChangedEventHandler {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IUIAutomationPropertyChangedEventHandler)) {
            *out = this;
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives on the test's stack
    HRESULT STDMETHODCALLTYPE HandlePropertyChangedEvent(IUIAutomationElement*, PROPERTYID, VARIANT) override {
        ++count;
        return S_OK;
    }
    std::atomic<long> refs{1};
    std::atomic<long> count{0};
};

class RecordingLoad : public DriverTest {
protected:
    // As shipped, but for the dispatch thread's end, which the teardown waits for.
    std::wstring logLevels() const override { return L"*=2,tolva.Uia=5"; }

    // This process's window "Main", with a button for each raising thread.
    void makeWindow() {
        main = &addOwnWindow(L"Main");
        for (int t = 0; t < THREADS; ++t) {
            buttons.push_back(&main->add({.controlType = UIA_ButtonControlTypeId, .name = L"B" + std::to_wstring(t),
                                          .bounds = {100, 20 + 30 * t, 160, 40 + 30 * t}}));
        }
    }
    // Attached to this process and connected.
    void connect() {
        if (!main) makeWindow();
        ASSERT_NE(0, attach(ownPidArgs(), 1000));
        settle();
    }
    // Everything raised so far went through the dispatch queue into Java.
    void settle() {
        ASSERT_TRUE(platform->waitForEvents(20000)) << "the platform did not deliver";
        const size_t triggers = host->constructionCount(CALLBACK_EVENT);
        native<void>("TriggerThread");
        ASSERT_TRUE(host->waitForConstructions(CALLBACK_EVENT, triggers + 1, 20000)) << "the dispatch queue is stuck";
    }

    // The platform alone: the same raises to a handler that only counts.
    double platformSeconds(int perThread) {
        ComPtr automation;
        EXPECT_EQ(S_OK, CoCreateInstance(CLSID_CUIAutomation, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                                         reinterpret_cast<void**>(&automation.p)));
        IUIAutomationElement* window = nullptr;
        EXPECT_EQ(S_OK, automation.p->GetRootElement(&window));
        CountingHandler handler;
        PROPERTYID watched = UIA_ToggleToggleStatePropertyId;
        EXPECT_EQ(S_OK, automation.p->AddPropertyChangedEventHandlerNativeArray(window, TreeScope_Subtree, nullptr,
                                                                                 &handler, &watched, 1));
        window->Release();
        const auto start = std::chrono::steady_clock::now();
        raiseFromThreads(*platform, buttons, perThread);
        EXPECT_TRUE(platform->waitForEvents(60000));
        const double seconds = secondsSince(start);
        EXPECT_EQ(THREADS * perThread, handler.count) << "the counting handler missed events";
        automation.p->RemoveAllEventHandlers();
        return seconds;
    }

    // The host alone: what the driver asks of it for each event (a local
    // frame, the text, the event object, filterEvent), on an attached thread.
    double hostSeconds(int events) {
        double seconds = 0;
        std::thread java([&] {
            JNIEnv* e = host->attachCurrentThread();
            jclass clazz = e->FindClass(UIA_EVENT.c_str());
            jmethodID init = e->GetMethodID(clazz, "<init>", "(IJIILjava/lang/String;J)V");
            jclass driver = e->GetObjectClass(self);
            jmethodID filter = e->GetMethodID(driver, "filterEvent", FILTER_SIGNATURE);
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < events; ++i) {
                e->PushLocalFrame(16);
                const std::u16string digits(u"12345");
                jstring text = e->NewString(reinterpret_cast<const jchar*>(digits.data()), 5);
                jobject event = e->NewObject(clazz, init, jint{204}, jlong{1}, jint{4096}, jint{30086}, text, jlong{1});
                e->CallBooleanMethod(self, filter, event);
                e->PopLocalFrame(nullptr);
            }
            seconds = secondsSince(start);
            e->DeleteLocalRef(clazz);
            e->DeleteLocalRef(driver);
            host->detachCurrentThread();
        });
        java.join();
        return seconds;
    }

    struct ComPtr {
        ~ComPtr() {
            if (p) p->Release();
        }
        IUIAutomation* p = nullptr;
    };

    Node* main = nullptr;
    std::vector<Node*> buttons;
};

// --- throughput -------------------------------------------------------------------------

// 100,000 property changes from 4 raising threads go up complete, those of
// each thread in the order raised, at no less than the rate the road must
// bear. The platform's and the host's parts are measured alone beside it, so
// that the driver's own share stands apart.
TEST_F(RecordingLoad, ABurstOfFourThreadsGoesUpCompleteInOrderAndFast) {
    dumpLogOnFailure = false;
    makeWindow();
    const int perThread = 25000;
    const int events = THREADS * perThread;
    const double host = hostSeconds(events);
    const double sim = platformSeconds(perThread);
    connect();
    const size_t before = this->host->constructionCount(UIA_EVENT);

    const auto start = std::chrono::steady_clock::now();
    raiseFromThreads(*platform, buttons, perThread);
    ASSERT_TRUE(this->host->waitForConstructions(UIA_EVENT, before + events, 110000));
    const double whole = secondsSince(start);
    const double driver = std::max(0.0, whole - host - sim);
    std::printf("%d events from %d threads: %.0f events/s (%.2f s)\n", events, THREADS, events / whole, whole);
    std::printf("per event: whole %.2f us = platform %.2f + host %.2f + driver %.2f (driver alone: %.0f events/s)\n",
                whole * 1e6 / events, sim * 1e6 / events, host * 1e6 / events, driver * 1e6 / events,
                driver > 0 ? events / driver : 0.0);

    std::map<jlong, int> next;  // by handle: the value each thread's next event carries
    const std::vector<jnihost::Construction> made = this->host->constructions(UIA_EVENT);
    for (size_t i = made.size() - events; i < made.size(); ++i) {
        const jlong handle = made[i].args[1].j;
        const int value = std::stoi(this->host->text(static_cast<jstring>(made[i].args[4].l)));
        ASSERT_EQ(next[handle], value) << "out of order on " << handle << " at event " << i;
        next[handle] = value + 1;
    }
    ASSERT_EQ(static_cast<size_t>(THREADS), next.size());
    for (int t = 0; t < THREADS; ++t) EXPECT_EQ(perThread, next[handleOf(*buttons[t])]) << "button " << t;
    // The driver's own share must bear 50,000 events a second; the host's and
    // the platform's parts are the test's, and a busy machine slows them too.
    EXPECT_GT(events / whole, 2000.0) << "the road is stuck somewhere";
    EXPECT_LT(driver * 1e6 / events, 20.0) << "the driver alone bears less than 50,000 events a second";
}

// The sender's runtime id, which the platform's thread reads for the event,
// is not asked for again on the dispatch thread: against a real target each
// read is a round trip to it.
TEST_F(RecordingLoad, EachEventAsksItsSenderForItsRuntimeIdOnce) {
    connect();
    const DWORD dispatch = host->calls("filterEvent").at(0).threadId;
    std::atomic<int> onDispatch{0}, elsewhere{0};
    buttons[0]->beforeRead([&](const std::string& method) {
        if (method == "GetRuntimeId") ++(GetCurrentThreadId() == dispatch ? onDispatch : elsewhere);
    });
    const int count = 50;
    const size_t before = host->constructionCount(UIA_EVENT);
    VARIANT value{};
    value.vt = VT_I4;
    for (int i = 0; i < count; ++i) {
        platform->raisePropertyChangedEvent(*buttons[0], UIA_ToggleToggleStatePropertyId, value);
        platform->raiseAutomationEvent(UIA_Invoke_InvokedEventId, *buttons[0]);
    }
    settle();
    buttons[0]->beforeRead(nullptr);
    EXPECT_EQ(before + 2 * count, host->constructionCount(UIA_EVENT));
    EXPECT_EQ(2 * count, elsewhere.load()) << "read on the platform's threads";
    EXPECT_EQ(0, onDispatch.load()) << "read again on the dispatch thread";
}

// --- latency -----------------------------------------------------------------------------

// The time of one event from its raise to filterEvent at a steady 1,000 a
// second: the dispatch thread is woken by each event that finds the queue
// empty, not by a timer or a poll.
TEST_F(RecordingLoad, AtAThousandEventsASecondEachReachesJavaWithinMilliseconds) {
    connect();
    const int count = 4000;
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    std::vector<LONGLONG> raised(count, 0), arrived(count, 0);
    std::atomic<int> late{0};
    host->onCall(DRIVER_CLASS, "filterEvent", FILTER_SIGNATURE,
                 [&](JNIEnv*, jobject, const std::vector<jnihost::Value>& args) {
                     LARGE_INTEGER now;
                     QueryPerformanceCounter(&now);
                     if (host->classNameOf(args[0].l) == UIA_EVENT) {
                         const int i = std::stoi(host->text(static_cast<jstring>(host->field(args[0].l, "text").l)));
                         if (i >= 0 && i < count && !arrived[i]) arrived[i] = now.QuadPart; else ++late;
                     }
                     return jnihost::Value::ofBoolean(true);
                 });
    const auto ticksOf = [&](double ms) { return static_cast<LONGLONG>(ms * frequency.QuadPart / 1000); };
    LARGE_INTEGER start, now;
    QueryPerformanceCounter(&start);
    VARIANT value{};
    value.vt = VT_I4;
    for (int i = 0; i < count; ++i) {
        const LONGLONG due = start.QuadPart + ticksOf(i);  // one a millisecond, on an absolute schedule
        for (QueryPerformanceCounter(&now); now.QuadPart < due; QueryPerformanceCounter(&now)) Sleep(1);
        raised[i] = now.QuadPart;
        value.lVal = i;
        ASSERT_EQ(1, platform->raisePropertyChangedEvent(*buttons[i % THREADS], UIA_ToggleToggleStatePropertyId,
                                                         value));
    }
    const double seconds = static_cast<double>(now.QuadPart - start.QuadPart) / frequency.QuadPart;
    settle();
    EXPECT_EQ(0, late.load()) << "an event came twice or unknown";
    std::vector<double> delays;
    for (int i = 0; i < count; ++i) {
        ASSERT_NE(0, arrived[i]) << "event " << i << " never reached Java";
        delays.push_back(static_cast<double>(arrived[i] - raised[i]) * 1000 / frequency.QuadPart);
    }
    std::sort(delays.begin(), delays.end());
    const double p50 = delays[count / 2], p99 = delays[count * 99 / 100], max = delays.back();
    std::printf("%d events at %.0f/s: delay p50 %.3f ms, p99 %.3f ms, max %.3f ms\n", count, count / seconds, p50,
                p99, max);
    // The goal is a p99 under 5 ms; on a machine shared with builds a wake-up
    // alone may take tens of milliseconds, so the bounds asserted are those
    // that a queue waiting for its idle time-out (2 s) or a poll of 30 ms or
    // more can't meet.
    EXPECT_LT(p50, 10.0) << "half the events wait: a timer or a poll";
    EXPECT_LT(p99, 250.0) << "the slowest percent wait for the idle time-out";
}

// --- memory --------------------------------------------------------------------------------

// The heap blocks the driver takes while kept is on and hasn't given back, on
// any thread, with their bytes; counted at the driver's own imports.
struct KeptBlocks {
    std::mutex lock;
    std::unordered_map<void*, size_t> blocks;
    bool on = false;
    void* (*malloc)(size_t) = nullptr;
    void* (*calloc)(size_t, size_t) = nullptr;
    void* (*realloc)(void*, size_t) = nullptr;
    void (*free)(void*) = nullptr;

    void made(void* block, size_t size) {
        std::lock_guard<std::mutex> guard(lock);
        if (on && block) blocks[block] = size;
    }
    void gone(void* block) {
        std::lock_guard<std::mutex> guard(lock);
        blocks.erase(block);
    }
    std::pair<size_t, size_t> count() {
        std::lock_guard<std::mutex> guard(lock);
        size_t bytes = 0;
        for (const auto& entry : blocks) bytes += entry.second;
        return {blocks.size(), bytes};
    }
} kept;

void* keptMalloc(size_t size) {
    void* block = kept.malloc(size);
    kept.made(block, size);
    return block;
}
void* keptCalloc(size_t count, size_t size) {
    void* block = kept.calloc(count, size);
    kept.made(block, count * size);
    return block;
}
void* keptRealloc(void* old, size_t size) {
    void* block = kept.realloc(old, size);
    if (block || size == 0) kept.gone(old);
    kept.made(block, size);
    return block;
}
void keptFree(void* block) {
    kept.gone(block);
    kept.free(block);
}

class RecordingMemory : public RecordingLoad {
protected:
    void TearDown() override {
        kept.on = false;
        patches.clear();
        RecordingLoad::TearDown();
    }
    template <class F>
    void patch(const char* function, F replacement, F* original) {
        patches.push_back(std::make_unique<ImportPatch>(dll->module(), function, reinterpret_cast<void*>(replacement)));
        *original = patches.back()->applied() ? reinterpret_cast<F>(patches.back()->original()) : nullptr;
    }
    std::vector<std::unique_ptr<ImportPatch>> patches;
};

// After a burst has drained and Java has released the controls, the driver
// holds no more heap than before it: no block per event or per control is
// left, whatever thread took it.
TEST_F(RecordingMemory, TheDriversHeapIsBackAfterABurst) {
    dumpLogOnFailure = false;
    connect();
    patch("malloc", &keptMalloc, &kept.malloc);
    patch("calloc", &keptCalloc, &kept.calloc);
    patch("realloc", &keptRealloc, &kept.realloc);
    patch("free", &keptFree, &kept.free);
    ASSERT_TRUE(kept.malloc && kept.free) << "the driver imports no malloc or free";
    native<void>("ReleaseControls");
    kept.on = true;
    const int perThread = 5000;
    raiseFromThreads(*platform, buttons, perThread);
    settle();
    EXPECT_EQ(static_cast<size_t>(THREADS * perThread), host->constructionCount(UIA_EVENT));
    const auto during = kept.count();
    native<void>("ReleaseControls");
    const auto after = kept.count();
    kept.on = false;
    std::printf("driver heap: %zu blocks, %zu bytes held after the burst; %zu blocks, %zu bytes after the release\n",
                during.first, during.second, after.first, after.second);
    // What may stay: the queue's and the tables' grown storage, the cached
    // constructor; a block per event would be 20,000.
    EXPECT_LE(after.first, 16u) << "blocks kept";
    EXPECT_LE(after.second, 16u * 1024) << "bytes kept";
}

}  // namespace
