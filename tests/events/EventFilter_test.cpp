// Event records on their way into Java, through the driver's event bridge
// on a thread of its own attached to the Java host.
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"

#include "JniHost.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

using namespace tolva;

namespace {

const std::string EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/";

// Runs work on a thread that the bridge attaches, as the dispatch thread does.
void onAttachedThread(const std::function<void(EventFilter&)>& work) {
    std::thread thread([&] {
        EventFilter& filter = EventFilter::getInstance();
        filter.attachThread();
        work(filter);
        filter.detachThread();
    });
    thread.join();
}

class EventBridge : public ::testing::Test {
protected:
    void connect(jnihost::JavaHost::Options options = {}) {
        host = std::make_unique<jnihost::JavaHost>(options);
        JNIEnv* env = host->attachCurrentThread();
        EventFilter::getInstance().setJavaVM(host->vm());
        EventFilter::getInstance().setJavaCallbackObject(env, host->callbackObject());
    }
    void TearDown() override {
        for (const std::string& violation : host->violations()) {
            ADD_FAILURE() << "JNI misuse: " << violation;
        }
    }
    jnihost::Construction only(const std::string& simpleName) {
        auto made = host->constructions(EVENT + simpleName);
        EXPECT_EQ(1u, made.size()) << simpleName;
        return made.empty() ? jnihost::Construction{} : made[0];
    }
    std::unique_ptr<jnihost::JavaHost> host;
};

}  // namespace

TEST_F(EventBridge, EachRecordBecomesItsJavaEventWithTimestamps) {
    connect();
    onAttachedThread([](EventFilter& filter) {
        filter.onConnect();
        MouseEvent mouse(-5, 513, 1, 2, 101, 102, 0, 16, 1700000000123LL);
        KeyEvent key(7, 256, 65, 'a', true, false, true, 1700000000456LL);
        UIAutomationEvent automation(9, 4096, 30005, L"new name", 1700000000789LL);
        MSAAEvent msaa(32768, 0x1234, 5, 1700000000999LL);
        filter.callJava(&mouse);
        filter.callJava(&key);
        filter.callJava(&automation);
        filter.callJava(&msaa);
    });
    auto mouse = only("MouseEvent");
    EXPECT_EQ("(IJIIIIIIIJ)V", mouse.signature);
    EXPECT_EQ(202, mouse.args[0].i);
    EXPECT_EQ(jlong{-5}, mouse.args[1].j);
    EXPECT_EQ(513, mouse.args[2].i);
    EXPECT_EQ(16, mouse.args[8].i);
    EXPECT_EQ(1700000000123LL, mouse.args[9].j);

    auto key = only("KeyboardEvent");
    EXPECT_EQ("(IJIIIZZZJ)V", key.signature);
    EXPECT_EQ(65, key.args[3].i);
    EXPECT_EQ('a', key.args[4].i);
    EXPECT_EQ(JNI_TRUE, key.args[5].z);
    EXPECT_EQ(JNI_FALSE, key.args[6].z);
    EXPECT_EQ(JNI_TRUE, key.args[7].z);

    auto automation = only("UIAutomationEvent");
    EXPECT_EQ("(IJIILjava/lang/String;J)V", automation.signature);
    EXPECT_EQ(30005, automation.args[3].i);

    auto msaa = only("MSAAEvent");
    EXPECT_EQ("(IIIIJ)V", msaa.signature) << "an MSAA event carries no handle";
    EXPECT_EQ(205, msaa.args[0].i);
    EXPECT_EQ(32768, msaa.args[1].i);
    EXPECT_EQ(0x1234, msaa.args[2].i);

    EXPECT_EQ(5u, host->calls("filterEvent").size());  // the connect and four events
}

TEST_F(EventBridge, WithoutTimestampsTheShortConstructorsAreUsed) {
    connect(jnihost::JavaHost::Options{false});
    onAttachedThread([](EventFilter& filter) {
        filter.checkEventConstructor();
        MouseEvent mouse(1, 512, 1, 2, 3, 4, 0, 0, 99);
        MSAAEvent msaa(32768, 1, 2);
        ChangeEvent change;
        filter.callJava(&mouse);
        filter.callJava(&msaa);
        filter.callJava(&change);
    });
    EXPECT_FALSE(EventFilter::getInstance().timestampedEvents());
    EXPECT_EQ("(IJIIIIIII)V", only("MouseEvent").signature);
    EXPECT_EQ("(IIII)V", only("MSAAEvent").signature);
    EXPECT_EQ("(IJI)V", only("ChangeEvent").signature);
}

TEST_F(EventBridge, UnknownRecordsAreDroppedAndTheTriggerBecomesACallbackEvent) {
    connect();
    onAttachedThread([](EventFilter& filter) {
        WinClientEvent unknown(150, 1, 2);
        WinClientEvent trigger(EVENT_CALLBACK, 0, 0);
        filter.callJava(&unknown);
        filter.callJava(&trigger);
    });
    EXPECT_EQ("()V", only("CallbackEvent").signature);
    EXPECT_EQ(1u, host->calls("filterEvent").size());
}

TEST_F(EventBridge, CheckRequestsReachTheirJavaMethods) {
    connect();
    const std::string driver = "net/tolva/apps/cuebench/client/win/deskwright/DefaultDeskwright";
    host->onCall(driver, "onContextCheck", "(J)[Ljava/lang/String;",
                 [this](JNIEnv*, jobject, const std::vector<jnihost::Value>&) {
                     return jnihost::Value::of(static_cast<jobject>(host->stringArray({L"Text", L"Enabled"})));
                 });
    std::vector<std::wstring> labels;
    onAttachedThread([&labels](EventFilter& filter) {
        filter.callJavaPrepareRecording(-2);
        filter.callJavaDefaultCheck(3);
        filter.callJavaCheckSelect(4, 1);
        labels = filter.callJavaContextCheck(5);
    });
    EXPECT_EQ((std::vector<std::wstring>{L"Text", L"Enabled"}), labels);
    ASSERT_EQ(1u, host->calls("onPrepareRecording").size());
    EXPECT_EQ(jlong{-2}, host->calls("onPrepareRecording")[0].args[0].j);
    ASSERT_EQ(1u, host->calls("onCheckSelect").size());
    EXPECT_EQ(1, host->calls("onCheckSelect")[0].args[1].i);
    EXPECT_EQ(1u, host->calls("onDefaultCheck").size());
}
