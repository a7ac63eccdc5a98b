// The bridge to the Java host as Java sees it through the natives: the
// callback object, the connect event and its probe, and missing Java parts.
#include "DriverTest.h"

#include <mutex>
#include <vector>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

using dwtest::DRIVER_CLASS;
using dwtest::FILTER_SIGNATURE;
const std::string CALLBACK_EVENT = dwtest::EVENT_PACKAGE + "CallbackEvent";
const std::string DOTTED_CALLBACK_EVENT = "net.tolva.apps.cuebench.client.win.deskwright.event.CallbackEvent";

class HostBridge : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        fakeuia::NodeSpec window;
        window.controlType = UIA_WindowControlTypeId;
        window.name = L"Target";
        window.processId = static_cast<int>(GetCurrentProcessId());
        platform->desktop().add(window);
    }
    void attachToSelf() {
        ASSERT_NE(0, attach(L"-pid " + std::to_wstring(GetCurrentProcessId()), 1000));
        ASSERT_TRUE(LogFile::waitFor("mode: 0x", 5000, 7)) << "the registrator ran after the connector";
    }
};

}  // namespace

TEST_F(HostBridge, EachAttachReplacesTheOneGlobalReference) {
    EXPECT_EQ(0, attach(L"", 1000));
    EXPECT_EQ(0, attach(L"null", 1000));
    EXPECT_EQ(1u, host->globalRefCount()) << "the first reference was deleted";
}

TEST_F(HostBridge, WithoutFilterEventNothingGoesUp) {
    host->removeMethod(DRIVER_CLASS, "filterEvent", FILTER_SIGNATURE);
    attachToSelf();
    EXPECT_EQ("", dwtest::pendingException(*host)) << "the missing method is no error of the caller's";
    native<void>("TriggerThread");
    detachAndWait();  // the quit stands behind the trigger
    EXPECT_TRUE(host->constructions(CALLBACK_EVENT).empty());
    EXPECT_TRUE(host->calls("filterEvent").empty());
    EXPECT_FALSE(LogFile::contains("Events with timestamp")) << "no probe without a filter method";
    // Nothing probed the host, so its events count as time-stamped.
    EXPECT_TRUE(LogFile::contains("mode: 0xffffffff", 7));
}

TEST_F(HostBridge, AMissingEventClassIsLoadedOnceAndReportedEachTime) {
    host->removeClass(CALLBACK_EVENT);
    attachToSelf();
    native<void>("TriggerThread");
    native<void>("TriggerThread");
    detachAndWait();  // the quit stands behind the triggers
    EXPECT_EQ(1, host->loadClassCount(DOTTED_CALLBACK_EVENT));
    EXPECT_EQ(1u, host->calls("filterEvent").size()) << "both triggers were dropped, the connect went up";
}

// A long recording through the natives: the dispatch thread holds no more
// local references after a thousand events than after ten, its global
// references go with it, and the next dispatch thread finds the event
// classes anew.
TEST_F(HostBridge, ManyEventsCostTheDispatchThreadNoMemory) {
    const size_t globalsBefore = host->globalRefCount();
    std::mutex mutex;
    std::vector<size_t> locals;  // of the dispatch thread, as each event reaches Java
    host->onCall(DRIVER_CLASS, "filterEvent", FILTER_SIGNATURE,
                 [this, &mutex, &locals](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                     std::lock_guard<std::mutex> lock(mutex);
                     locals.push_back(host->localRefCount());
                     return jnihost::Value::of(true);
                 });
    attachToSelf();
    const size_t triggers = 1000;
    for (size_t i = 0; i < triggers; ++i) native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForCalls("filterEvent", 1 + triggers, 60000));
    ASSERT_TRUE(dwtest::waitUntil([&] { std::lock_guard<std::mutex> lock(mutex); return locals.size() > triggers; },
                                  5000));
    detachAndWait();
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(locals[10], locals[triggers]) << "after 10 and after " << triggers << " events";
    }
    EXPECT_EQ(globalsBefore, host->globalRefCount());

    attachToSelf();
    native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForConstructions(CALLBACK_EVENT, triggers + 1, 5000));
    native<void>("DetachClient");
    attached = false;
    ASSERT_TRUE(dwtest::waitForDispatchThreadsToEnd(5000)) << "the thread did not end";
    EXPECT_EQ(globalsBefore, host->globalRefCount());
    EXPECT_EQ(2, host->loadClassCount(DOTTED_CALLBACK_EVENT)) << "once for each dispatch thread";
}

TEST_F(HostBridge, AJavaExceptionInFilterEventIsClearedAndTheThreadGoesOn) {
    host->onCall(DRIVER_CLASS, "filterEvent", FILTER_SIGNATURE,
                 [this](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                     host->raise("java/lang/RuntimeException", L"host failed");
                     return jnihost::Value::of(jboolean{JNI_FALSE});
                 });
    attachToSelf();
    EXPECT_TRUE(LogFile::contains("mode: 0xffffffff", 7)) << "the connect went on to the probe";
    native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForCalls("filterEvent", 2, 5000));
    detachAndWait();
    EXPECT_TRUE(host->uncaughtExceptions().empty()) << host->uncaughtExceptions()[0];
    EXPECT_TRUE(host->callsWithPendingException().empty()) << host->callsWithPendingException()[0];
}

namespace {

// A VM whose application classes come from a loader of their own: a thread
// the driver attached itself finds them only by way of the callback object's
// class loader, never with FindClass.
class SeparateLoader : public HostBridge {
protected:
    jnihost::JavaHost::Options hostOptions() const override {
        jnihost::JavaHost::Options options;
        options.appClassesVisibleToNativeThreads = false;
        return options;
    }
};

}  // namespace

TEST_F(SeparateLoader, EventsOfTheDriversOwnThreadsStillReachJava) {
    attachToSelf();
    native<void>("TriggerThread");
    ASSERT_TRUE(host->waitForConstructions(CALLBACK_EVENT, 1, 5000)) << "the trigger's event";
    const jnihost::Construction made = host->constructions(CALLBACK_EVENT).front();
    EXPECT_NE(GetCurrentThreadId(), made.threadId) << "made on the dispatch thread";
    ASSERT_TRUE(host->waitForCalls("filterEvent", 2, 5000)) << "the connect event and the trigger's";
    EXPECT_EQ(made.object, host->calls("filterEvent").back().args[0].l);
}
