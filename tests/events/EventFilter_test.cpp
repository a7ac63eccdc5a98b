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
    // The fields of each kind are EventCall's; here each record's class, and its time stamp.
    EXPECT_EQ(1700000000123LL, only("MouseEvent").args[9].j);
    EXPECT_EQ(1700000000456LL, only("KeyboardEvent").args[8].j);
    EXPECT_EQ(1700000000789LL, only("UIAutomationEvent").args[5].j);
    EXPECT_EQ("(IIIIJ)V", only("MSAAEvent").signature) << "an MSAA event carries no handle";
    EXPECT_EQ(1700000000999LL, only("MSAAEvent").args[4].j);
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
