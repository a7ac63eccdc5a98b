// Event records on their way into Java, through the driver's event bridge
// on a thread of its own attached to the Java host.
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"

#include "FilterTest.h"
#include "JniHost.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

using namespace tolva;

namespace {

const std::string EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/";
const std::string DRIVER = "net/tolva/apps/cuebench/client/win/deskwright/DefaultDeskwright";

using jnihost::Value;

using dwtest::onAttachedThread;

class EventBridge : public dwtest::FilterTest {
protected:
    // The class of the event that each filterEvent call was given.
    std::vector<std::string> filtered() {
        std::vector<std::string> classes;
        for (const jnihost::Call& call : host->calls("filterEvent")) {
            const std::string name = host->classNameOf(call.args[0].l);
            classes.push_back(name.rfind(EVENT, 0) == 0 ? name.substr(EVENT.size()) : "null " + name);
        }
        return classes;
    }
    jnihost::Construction only(const std::string& simpleName) {
        auto made = host->constructions(EVENT + simpleName);
        EXPECT_EQ(1u, made.size()) << simpleName;
        return made.empty() ? jnihost::Construction{} : made[0];
    }
};

}  // namespace

// Each record becomes its Java event, with time stamps; unknown records are
// dropped; the trigger becomes a CallbackEvent; the check requests reach
// their Java methods, and context labels keep their places and whole text.
TEST_F(EventBridge, RecordsAndRequestsReachTheirJavaClassesAndMethods) {
    connect();
    const std::wstring withNul(L"a\0b", 3);
    host->onCall(DRIVER, "onContextCheck", "(J)[Ljava/lang/String;",
                 [this, &withNul](JNIEnv* env, jobject, const std::vector<Value>&) {
                     jobjectArray labels = env->NewObjectArray(4, env->FindClass("java/lang/Object"), nullptr);
                     env->SetObjectArrayElement(labels, 0, host->str(L"Text"));
                     env->SetObjectArrayElement(labels, 2, host->callbackObject());  // not a string
                     env->SetObjectArrayElement(labels, 3, host->str(withNul));
                     return Value::of(static_cast<jobject>(labels));
                 });
    std::vector<std::wstring> labels;
    onAttachedThread([&labels](EventFilter& filter) {
        filter.onConnect();
        WinClientEvent unknown(150, 1, 2);
        filter.callJava(&unknown);
        MouseEvent mouse(-5, 513, 1, 2, 101, 102, 0, 16, 1700000000123LL);
        KeyEvent key(7, 256, 65, 'a', true, false, true, 1700000000456LL);
        UIAutomationEvent automation(9, 4096, 30005, L"new name", 1700000000789LL);
        MSAAEvent msaa(32768, 0x1234, 5, 1700000000999LL);
        filter.callJava(&mouse);
        filter.callJava(&key);
        filter.callJava(&automation);
        filter.callJava(&msaa);
        WinClientEvent trigger(EVENT_CALLBACK, 0, 0);
        filter.callJava(&trigger);
        filter.callJavaPrepareRecording(-2);
        filter.callJavaDefaultCheck(3);
        filter.callJavaCheckSelect(4, 1);
        labels = filter.callJavaContextCheck(5);
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

    EXPECT_EQ("()V", only("CallbackEvent").signature);
    EXPECT_EQ((std::vector<std::string>{"WinEvent", "MouseEvent", "KeyboardEvent", "UIAutomationEvent", "MSAAEvent",
                                        "CallbackEvent"}),
              filtered());

    EXPECT_EQ((std::vector<std::wstring>{L"Text", L"", L"", withNul}), labels);
    EXPECT_EQ(0u, host->outstandingPins());
    ASSERT_EQ(1u, host->calls("onPrepareRecording").size());
    EXPECT_EQ(jlong{-2}, host->calls("onPrepareRecording")[0].args[0].j);
    ASSERT_EQ(1u, host->calls("onCheckSelect").size());
    EXPECT_EQ(jlong{4}, host->calls("onCheckSelect")[0].args[0].j);
    EXPECT_EQ(1, host->calls("onCheckSelect")[0].args[1].i);
    ASSERT_EQ(1u, host->calls("onDefaultCheck").size());
    EXPECT_EQ(jlong{3}, host->calls("onDefaultCheck")[0].args[0].j);
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
