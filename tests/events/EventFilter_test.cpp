// Event records on their way into Java, through the driver's event bridge
// on a thread of its own attached to the Java host.
#include "events/EventFilter.h"
#include "events/WinClientEvent.h"

#include "JniHost.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <thread>

using namespace tolva;

namespace {

const std::string EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/";
const std::string DRIVER = "net/tolva/apps/cuebench/client/win/deskwright/DefaultDeskwright";
const std::string FILTER_SIGNATURE = "(L" + EVENT + "WinEvent;)Z";

using jnihost::JavaHost;
using jnihost::Value;

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
        for (const std::string& uncaught : host->uncaughtExceptions()) {
            ADD_FAILURE() << "left pending: " << uncaught;
        }
    }
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
    std::unique_ptr<jnihost::JavaHost> host;
};

// Makes a Java call of the host throw.
JavaHost::Handler throwing(JavaHost& host, const char* exceptionClass) {
    return [&host, exceptionClass](JNIEnv*, jobject, const std::vector<Value>&) {
        host.raise(exceptionClass, L"thrown by the host");
        return Value::none();
    };
}

struct BrokenHost {
    const char* name;
    std::function<void(JavaHost&)> breakIt;
    std::function<void(EventFilter&)> send;
    bool laterEventsGetThrough;  // a ChangeEvent sent afterwards reaches filterEvent
};

void sendMouse(EventFilter& filter) {
    MouseEvent event(1, 513, 1, 2, 3, 4, 0, 0, 5);
    filter.callJava(&event);
}

void sendTrigger(EventFilter& filter) {
    WinClientEvent event(EVENT_CALLBACK, 0, 0);
    filter.callJava(&event);
}

// Ways to break the host: a class of the event package or a method missing,
// or a Java method that throws.
std::function<void(JavaHost&)> withoutClass(const char* simpleName) {
    return [simpleName](JavaHost& h) { h.removeClass(EVENT + simpleName); };
}
std::function<void(JavaHost&)> withoutMethod(std::string cls, const char* name, const char* signature) {
    return [=](JavaHost& h) { h.removeMethod(cls, name, signature); };
}
std::function<void(JavaHost&)> throwingIn(std::string cls, const char* name, const char* signature,
                                          const char* exception) {
    return [=](JavaHost& h) { h.onCall(cls, name, signature, throwing(h, exception)); };
}

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
        sendTrigger(filter);
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
    EXPECT_EQ(6u, host->calls("filterEvent").size());  // the connect, four events and the trigger

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

// Whatever part of the host is missing or throws, the event that needs it is
// dropped, no exception is left pending and nothing null goes into the VM;
// the next event still goes up.
TEST_F(EventBridge, ABrokenHostCostsTheEventAndNothingElse) {
    const std::string mouse = EVENT + "MouseEvent";
    const BrokenHost rows[] = {
        {"mouse class missing", withoutClass("MouseEvent"), sendMouse, true},
        {"keyboard class missing", withoutClass("KeyboardEvent"),
         [](EventFilter& f) { KeyEvent e(1, 256, 65, 'a', false, false, false, 5); f.callJava(&e); }, true},
        {"automation class missing", withoutClass("UIAutomationEvent"),
         [](EventFilter& f) { UIAutomationEvent e(1, 20005, 0, L"text", 5); f.callJava(&e); }, true},
        {"MSAA class missing", withoutClass("MSAAEvent"),
         [](EventFilter& f) { MSAAEvent e(32768, 1, 2, 5); f.callJava(&e); }, true},
        {"callback class missing", withoutClass("CallbackEvent"), sendTrigger, true},
        {"connect class missing", withoutClass("WinEvent"), [](EventFilter& f) { f.onConnect(); }, true},
        {"stamped constructor missing", withoutMethod(mouse, "<init>", "(IJIIIIIIIJ)V"), sendMouse, true},
        {"callback constructor missing", withoutMethod(EVENT + "CallbackEvent", "<init>", "()V"), sendTrigger, true},
        {"constructor throws", throwingIn(mouse, "<init>", "(IJIIIIIIIJ)V", "java/lang/IllegalStateException"),
         sendMouse, true},
        {"no class loader",
         [](JavaHost& h) {
             h.onCall("java/lang/Class", "getClassLoader", "()Ljava/lang/ClassLoader;",
                      [](JNIEnv*, jobject, const std::vector<Value>&) { return Value::of(nullptr); });
         },
         sendMouse, false},
        {"class loader throws",
         throwingIn("java/lang/ClassLoader", "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;",
                    "java/lang/SecurityException"),
         sendTrigger, false},
        {"getClass throws", throwingIn("java/lang/Object", "getClass", "()Ljava/lang/Class;", "java/lang/Error"),
         sendMouse, false},
        {"check method missing", withoutMethod(DRIVER, "onDefaultCheck", "(J)V"),
         [](EventFilter& f) { f.callJavaDefaultCheck(1); }, true},
        {"select method missing", withoutMethod(DRIVER, "onCheckSelect", "(JI)V"),
         [](EventFilter& f) { f.callJavaCheckSelect(1, 2); }, true},
        {"prepare method throws",
         throwingIn(DRIVER, "onPrepareRecording", "(J)V", "java/lang/IllegalStateException"),
         [](EventFilter& f) { f.callJavaPrepareRecording(1); }, true},
        {"context method missing", withoutMethod(DRIVER, "onContextCheck", "(J)[Ljava/lang/String;"),
         [](EventFilter& f) { EXPECT_TRUE(f.callJavaContextCheck(1).empty()); }, true},
        {"context method throws",
         throwingIn(DRIVER, "onContextCheck", "(J)[Ljava/lang/String;", "java/lang/RuntimeException"),
         [](EventFilter& f) { EXPECT_TRUE(f.callJavaContextCheck(1).empty()); }, true},
    };
    for (const BrokenHost& row : rows) {
        SCOPED_TRACE(row.name);
        connect();
        row.breakIt(*host);
        onAttachedThread([&row](EventFilter& filter) {
            row.send(filter);
            ChangeEvent later;
            filter.callJava(&later);
        });
        const std::vector<std::string> expected =
            row.laterEventsGetThrough ? std::vector<std::string>{"ChangeEvent"} : std::vector<std::string>{};
        EXPECT_EQ(expected, filtered());
        for (const std::string& violation : host->takeViolations()) {
            ADD_FAILURE() << "JNI misuse: " << violation;
        }
        for (const std::string& uncaught : host->uncaughtExceptions()) {
            ADD_FAILURE() << "left pending: " << uncaught;
        }
    }
}

// A long recording: the attached thread's local references stay as many after
// a thousand events as after the first few, and the bridge's global
// references go with the thread.
TEST_F(EventBridge, LocalReferencesDoNotGrowWithTheEvents) {
    connect();
    const size_t globalsBefore = host->globalRefCount();
    std::mutex mutex;
    std::vector<size_t> locals;  // of the attached thread, as each event reaches Java
    host->onCall(DRIVER, "filterEvent", FILTER_SIGNATURE, [&](JNIEnv*, jobject, const std::vector<Value>&) {
        std::lock_guard<std::mutex> lock(mutex);
        locals.push_back(host->localRefCount());
        return Value::of(true);
    });
    const int rounds = 200;
    size_t afterwards = SIZE_MAX;
    onAttachedThread([&](EventFilter& filter) {
        filter.onConnect();
        for (int round = 0; round < rounds; ++round) {
            MouseEvent mouse(1, 513, 1, 2, 3, 4, 0, 0, 5);
            KeyEvent key(1, 256, 65, 'a', false, true, false, 5);
            UIAutomationEvent automation(1, 4096, 30005, L"name " + std::to_wstring(round), 5);
            MSAAEvent msaa(32768, 1, 2, 5);
            ChangeEvent change;
            WinClientEvent trigger(EVENT_CALLBACK, 0, 0);
            for (WinClientEvent* event : std::vector<WinClientEvent*>{&mouse, &key, &automation, &msaa, &change,
                                                                      &trigger}) {
                filter.callJava(event);
            }
            filter.callJavaPrepareRecording(1);
            filter.callJavaContextCheck(1);
        }
        filter.onTerminate();
        afterwards = host->localRefCount();
    });
    const size_t kinds = 6;
    ASSERT_EQ(2 + kinds * rounds, locals.size());  // with the connect and the terminate
    for (size_t kind = 0; kind < kinds; ++kind) {
        EXPECT_EQ(locals[1 + kind], locals[1 + kinds * (rounds - 1) + kind]) << "event kind " << kind;
    }
    EXPECT_EQ(locals[0], locals.back()) << "the terminate event against the connect";
    EXPECT_EQ(0u, afterwards);
    EXPECT_EQ(globalsBefore - 1, host->globalRefCount()) << "only the callback object's reference went";
}
