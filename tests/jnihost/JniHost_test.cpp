// Checks of the JNI test host itself where the driver's tests can't see it:
// that it catches the misuse the teardown of every driver test leans on, and
// that it is as strict as a VM where a VM is unkind (threads, class loaders,
// method lookup, modified UTF-8, bounds).
#include "JniHost.h"

#include "ImportPatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

using jnihost::JavaHost;
using jnihost::Value;

namespace {

const std::string kPkg = "net/tolva/apps/cuebench/client/win/deskwright/";
const std::string kEvent = kPkg + "event/";
const std::string kDeskwright = kPkg + "DefaultDeskwright";
const std::string kFilterSig = "(L" + kEvent + "WinEvent;)Z";

bool mentions(const std::vector<std::string>& list, const std::string& part) {
  for (const std::string& s : list)
    if (s.find(part) != std::string::npos) return true;
  return false;
}

// Runs f on a thread of its own and waits for it.
template <class F>
void onOtherThread(F f) {
  std::thread t(f);
  t.join();
}

// Runs f on a thread that attaches itself, as the DLL's threads do.
template <class F>
void onLibraryThread(JavaHost& host, F f, bool detach = true) {
  onOtherThread([&] {
    JNIEnv* env = nullptr;
    JavaVMAttachArgs args{JNI_VERSION_1_4, const_cast<char*>("Dispatch"), nullptr};
    ASSERT_EQ(host.vm()->AttachCurrentThread(reinterpret_cast<void**>(&env), &args), JNI_OK);
    f(env);
    if (detach) host.vm()->DetachCurrentThread();
  });
}

jobject callbackEvent(JNIEnv* env) {
  jclass ce = env->FindClass((kEvent + "CallbackEvent").c_str());
  return env->NewObject(ce, env->GetMethodID(ce, "<init>", "()V"));
}

jmethodID filterEvent(JNIEnv* env) {
  return env->GetMethodID(env->FindClass(kDeskwright.c_str()), "filterEvent", kFilterSig.c_str());
}

}  // namespace

// Each row misuses JNI in a fresh host, which must report each misuse.
TEST(JniHost, MisuseIsAViolation) {
  const struct {
    const char* name;
    std::function<void(JavaHost&, JNIEnv*)> misuse;
    std::vector<std::string> expected;
  } rows[] = {
      {"env on another thread",
       [](JavaHost&, JNIEnv* env) { onOtherThread([&] { env->FindClass("java/lang/String"); }); },
       {"used on another thread"}},
      {"env and locals of a thread that detached",
       [](JavaHost& h, JNIEnv* env) {
         JNIEnv* theirs = nullptr;
         jobject local = nullptr;
         onLibraryThread(h, [&](JNIEnv* e) { theirs = e, local = e->NewStringUTF("made there"); });
         onOtherThread([&] { theirs->GetVersion(); });
         env->GetStringLength(static_cast<jstring>(local));
       },
       {"after that thread detached", "freed when thread"}},
      {"library thread ending attached",
       [](JavaHost& h, JNIEnv*) {
         DWORD tid = 0;
         onLibraryThread(h, [&](JNIEnv* e) { tid = GetCurrentThreadId(), e->NewStringUTF("left behind"); }, false);
         EXPECT_EQ(h.localRefCount(tid), 0u) << "its locals end with it";
       },
       {"(\"Dispatch\") ended without DetachCurrentThread"}},
      {"DestroyJavaVM", [](JavaHost& h, JNIEnv*) { EXPECT_EQ(h.vm()->DestroyJavaVM(), JNI_ERR); }, {"DestroyJavaVM"}},
      {"deleted global used and deleted again",
       [](JavaHost& h, JNIEnv* env) {
         jobject g = env->NewGlobalRef(env->NewStringUTF("abc"));
         EXPECT_EQ(h.globalRefCount(), 1u);
         env->DeleteGlobalRef(g);
         EXPECT_EQ(h.globalRefCount(), 0u);
         env->GetStringLength(static_cast<jstring>(g));
         env->DeleteGlobalRef(g);
       },
       {"global reference that was deleted by DeleteGlobalRef", "already ("}},
      {"local of another thread",
       [](JavaHost& h, JNIEnv* env) {
         jstring s = env->NewStringUTF("abc");
         onLibraryThread(h, [&](JNIEnv* e) { e->GetStringLength(s); });
       },
       {"is a local reference of thread"}},
      {"deleted local used",
       [](JavaHost&, JNIEnv* env) {
         jstring s = env->NewStringUTF("abc");
         env->DeleteLocalRef(s);
         env->GetStringLength(s);
       },
       {"local reference that was deleted by DeleteLocalRef"}},
      {"locals of a popped frame and of a native call that returned",
       [](JavaHost& h, JNIEnv* env) {
         ASSERT_EQ(env->PushLocalFrame(8), JNI_OK);
         jstring inner = env->NewStringUTF("inner");
         EXPECT_EQ(h.text(static_cast<jstring>(env->PopLocalFrame(env->NewStringUTF("kept")))), L"kept");
         env->GetStringLength(inner);
         jstring cached = nullptr;
         jstring result = h.nativeCall([&] {
           cached = env->NewStringUTF("cached");
           return env->NewStringUTF("result");
         });
         EXPECT_EQ(h.text(result), L"result") << "the result lives on in the caller's frame";
         env->GetStringLength(cached);
       },
       {"freed by PopLocalFrame", "freed when the native method returned"}},
      {"ThrowNew without a class", [](JavaHost&, JNIEnv* env) { EXPECT_EQ(env->ThrowNew(nullptr, "x"), JNI_ERR); },
       {"ThrowNew on thread"}},
      {"method id of another return type, on another class, with an argument of another class",
       [](JavaHost& h, JNIEnv* env) {
         jobject ev = callbackEvent(env);
         env->CallVoidMethod(h.callbackObject(), filterEvent(env), ev);
         env->CallBooleanMethod(ev, filterEvent(env), ev);
         env->CallBooleanMethod(h.callbackObject(), filterEvent(env), env->NewStringUTF("not an event"));
       },
       {"returns Z, but was called with CallVoidMethod", "was called on an object of class " + kEvent + "CallbackEvent",
        "is a java/lang/String, not a " + kEvent + "WinEvent"}},
      {"pin released twice",
       [](JavaHost& h, JNIEnv* env) {
         jstring s = h.str(L"pinned");
         const jchar* chars = env->GetStringChars(s, nullptr);
         env->ReleaseStringChars(s, chars);
         env->ReleaseStringChars(s, chars);
       },
       {"released already"}},
      {"call inside a critical region",
       [](JavaHost& h, JNIEnv* env) {
         jintArray ia = h.intArray({1, 2, 3});
         void* crit = env->GetPrimitiveArrayCritical(ia, nullptr);
         EXPECT_EQ(h.outstandingPins(), 1u);
         env->GetArrayLength(ia);
         env->ReleasePrimitiveArrayCritical(ia, crit, 0);
         EXPECT_EQ(h.outstandingPins(), 0u);
       },
       {"critical region"}},
      {"call with an exception pending on a library thread",
       [](JavaHost& h, JNIEnv*) {
         onLibraryThread(h, [&](JNIEnv* e) {
           e->FindClass("net/tolva/NoSuchClass");
           e->GetObjectClass(h.callbackObject());
         });
         EXPECT_EQ(h.uncaughtExceptions().size(), 1u);
         EXPECT_EQ(h.violations().size(), 1u) << "FindClass may raise, only the next call is misuse";
       },
       {"GetObjectClass on thread", "java/lang/NoClassDefFoundError"}},
  };
  for (const auto& row : rows) {
    JavaHost host;
    row.misuse(host, host.attachCurrentThread());
    const std::vector<std::string> seen = host.takeViolations();
    for (const std::string& expected : row.expected)
      EXPECT_TRUE(mentions(seen, expected)) << row.name << ": " << expected << " in " << ::testing::PrintToString(seen);
  }
}

// What a VM allows is no violation: a Java thread may end attached; each
// thread has its own env; with an exception pending, the calls a VM allows
// pass and, on a Java thread, the others are listed.
TEST(JniHost, WhatAVmAllowsIsNoViolation) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  EXPECT_EQ(host.currentEnv(), env) << "the thread that made the VM is attached";
  onOtherThread([&] { host.attachCurrentThread(); });
  JNIEnv* theirs = nullptr;
  onLibraryThread(host, [&](JNIEnv* e) {
    theirs = e;
    JNIEnv* again = nullptr;
    EXPECT_EQ(host.vm()->AttachCurrentThread(reinterpret_cast<void**>(&again), nullptr), JNI_OK);
    EXPECT_EQ(again, e);
    EXPECT_EQ(e->FindClass("net/tolva/NoSuchClass"), nullptr);
    EXPECT_EQ(e->PushLocalFrame(4), JNI_OK);  // allowed with an exception pending
    EXPECT_EQ(e->PopLocalFrame(nullptr), nullptr);
    e->ExceptionClear();
    e->NewStringUTF("after the clear");
  });
  EXPECT_NE(theirs, env);

  env->ThrowNew(env->FindClass("java/lang/IllegalStateException"), "boom");
  env->DeleteLocalRef(env->NewStringUTF("while pending"));
  EXPECT_TRUE(env->ExceptionCheck());
  auto listed = host.callsWithPendingException();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_TRUE(mentions(listed, "NewStringUTF")) << listed[0];
  EXPECT_TRUE(mentions(listed, "java/lang/IllegalStateException")) << listed[0];
  env->ExceptionDescribe();
  EXPECT_FALSE(env->ExceptionCheck()) << "described and cleared";
  EXPECT_TRUE(host.violations().empty()) << ::testing::PrintToString(host.violations());
}

TEST(JniHost, PinsAreCountedUntilReleased) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jstring s = host.str(L"pinned \u00e9\u20ac");
  const jchar* chars = env->GetStringChars(s, nullptr);
  const char* utf = env->GetStringUTFChars(s, nullptr);
  jintArray ia = host.intArray({1, 2, 3});
  jint* elems = env->GetIntArrayElements(ia, nullptr);
  EXPECT_EQ(host.outstandingPins(), 3u);
  EXPECT_EQ(chars[7], 0x00e9);
  EXPECT_EQ(std::string(utf), "pinned \xc3\xa9\xe2\x82\xac");
  EXPECT_EQ(env->GetStringUTFLength(s), static_cast<jsize>(std::strlen(utf)));
  elems[1] = 20;
  env->ReleaseIntArrayElements(ia, elems, JNI_COMMIT);
  EXPECT_EQ(host.ints(ia), (std::vector<jint>{1, 20, 3})) << "committed, still pinned";
  EXPECT_EQ(host.outstandingPins(), 3u);
  elems[2] = 30;
  env->ReleaseIntArrayElements(ia, elems, JNI_ABORT);
  EXPECT_EQ(host.ints(ia), (std::vector<jint>{1, 20, 3})) << "aborted";
  env->ReleaseStringChars(s, chars);
  EXPECT_EQ(host.outstandingPins(), 1u);
  EXPECT_TRUE(mentions(host.pins(), "GetStringUTFChars"));
  env->ReleaseStringUTFChars(s, utf);
  EXPECT_EQ(host.outstandingPins(), 0u);
  EXPECT_TRUE(host.violations().empty());
}

// A missing class is null with NoClassDefFoundError pending. On a thread the
// library attached, a VM whose application classes come from a loader of
// their own finds them only through the class-loader road.
TEST(JniHost, ClassesAreFoundAsInAVm) {
  JavaHost::Options o;
  o.appClassesVisibleToNativeThreads = false;
  JavaHost host(o);
  JNIEnv* env = host.attachCurrentThread();
  EXPECT_EQ(env->FindClass("net/tolva/NoSuchClass"), nullptr);
  auto e = host.pendingException();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->className, "java/lang/NoClassDefFoundError");
  EXPECT_EQ(e->message, L"net/tolva/NoSuchClass");
  env->ExceptionClear();
  EXPECT_NE(env->FindClass((kEvent + "KeyboardEvent").c_str()), nullptr) << "a Java thread sees them";

  const std::string dotted = "net.tolva.apps.cuebench.client.win.deskwright.event.KeyboardEvent";
  jobject cb = host.callbackObject();
  onLibraryThread(host, [&](JNIEnv* le) {
    EXPECT_EQ(le->FindClass((kEvent + "KeyboardEvent").c_str()), nullptr);
    le->ExceptionClear();
    jclass classClass = le->FindClass("java/lang/Class");
    jclass loaderClass = le->FindClass("java/lang/ClassLoader");
    jmethodID getLoader = le->GetMethodID(classClass, "getClassLoader", "()Ljava/lang/ClassLoader;");
    jmethodID load = le->GetMethodID(loaderClass, "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;");
    jobject cls = le->CallObjectMethod(cb, le->GetMethodID(le->FindClass("java/lang/Object"), "getClass",
                                                            "()Ljava/lang/Class;"));
    jobject loader = le->CallObjectMethod(cls, getLoader);
    ASSERT_NE(loader, nullptr);
    EXPECT_NE(le->CallObjectMethod(loader, load, le->NewStringUTF(dotted.c_str())), nullptr);
    EXPECT_FALSE(le->ExceptionCheck());
    jobject sys = le->CallStaticObjectMethod(
        loaderClass, le->GetStaticMethodID(loaderClass, "getSystemClassLoader", "()Ljava/lang/ClassLoader;"));
    const struct {
      const char* name;
      jobject loader;
      std::string className;
    } misses[] = {{"no such class", loader, "net.tolva.Missing"},
                  {"the slash form is no name for a loader", loader, "java/lang/String"},
                  {"the system loader lacks the application", sys, dotted}};
    for (const auto& miss : misses) {
      EXPECT_EQ(le->CallObjectMethod(miss.loader, load, le->NewStringUTF(miss.className.c_str())), nullptr)
          << miss.name;
      auto thrown = host.takeException();
      ASSERT_TRUE(thrown.has_value()) << miss.name;
      EXPECT_EQ(thrown->className, "java/lang/ClassNotFoundException") << miss.name;
      EXPECT_EQ(thrown->message, std::wstring(miss.className.begin(), miss.className.end())) << miss.name;
    }
    EXPECT_EQ(le->CallObjectMethod(le->FindClass("java/lang/String"), getLoader), nullptr)
        << "a bootstrap class has no loader object";
  });
  EXPECT_TRUE(host.violations().empty()) << ::testing::PrintToString(host.violations());
}

// Instance methods are inherited, constructors and static lookups of
// instance methods are not; a wrong lookup is null with NoSuchMethodError.
TEST(JniHost, MethodsAreFoundAsInAVm) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jclass kb = env->FindClass((kEvent + "KeyboardEvent").c_str());
  jmethodID getType = env->GetMethodID(kb, "getType", "()I");
  ASSERT_NE(getType, nullptr);
  EXPECT_EQ(getType, env->GetMethodID(env->FindClass((kEvent + "WinEvent").c_str()), "getType", "()I"));
  const struct {
    const char* name;
    const char* signature;
    bool isStatic;
  } missing[] = {{"<init>", "(IJI)V", false},  // WinEvent's, not inherited
                 {"getType", "()J", false},
                 {"getType", "()I", true}};
  for (const auto& m : missing) {
    jmethodID id =
        m.isStatic ? env->GetStaticMethodID(kb, m.name, m.signature) : env->GetMethodID(kb, m.name, m.signature);
    EXPECT_EQ(id, nullptr) << m.name << m.signature;
    auto thrown = host.takeException();
    EXPECT_EQ(thrown ? thrown->className : "none", "java/lang/NoSuchMethodError") << m.name << m.signature;
  }
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, StringsAndArraysAsInAVm) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  const char16_t text[] = u"a\0b\U0001F600";
  jstring s = env->NewString(reinterpret_cast<const jchar*>(text), 5);
  EXPECT_EQ(env->GetStringLength(s), 5);
  const char* utf = env->GetStringUTFChars(s, nullptr);
  EXPECT_EQ(std::string(utf), "a\xc0\x80" "b\xed\xa0\xbd\xed\xb8\x80");  // modified UTF-8
  jstring back = env->NewStringUTF(utf);
  env->ReleaseStringUTFChars(s, utf);
  EXPECT_EQ(host.text(back), host.text(s));
  jlongArray la = env->NewLongArray(3);
  jlong in[3] = {1, -2, 3};
  env->SetLongArrayRegion(la, 0, 3, in);
  EXPECT_EQ(host.longs(la), (std::vector<jlong>{1, -2, 3}));
  jobjectArray sa = host.stringArray({L"x", L"y"});
  env->SetObjectArrayElement(sa, 1, nullptr);
  auto items = host.strings(sa);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(*items[0], L"x");
  EXPECT_FALSE(items[1].has_value());
  EXPECT_TRUE(env->IsSameObject(env->GetObjectClass(sa), env->FindClass("[Ljava/lang/String;")));
  EXPECT_TRUE(env->IsInstanceOf(sa, env->FindClass("[Ljava/lang/Object;")));

  const std::pair<const char*, std::function<void()>> wrong[] = {
      {"java/lang/ArrayIndexOutOfBoundsException", [&] { env->SetLongArrayRegion(la, 2, 2, in); }},
      {"java/lang/ArrayStoreException", [&] { env->SetObjectArrayElement(sa, 0, la); }},
      {"java/lang/ArrayIndexOutOfBoundsException", [&] { EXPECT_EQ(env->GetObjectArrayElement(sa, 2), nullptr); }},
  };
  for (const auto& row : wrong) {
    row.second();
    auto thrown = host.takeException();
    EXPECT_EQ(thrown ? thrown->className : "none", row.first) << "row " << &row - wrong;
  }
  EXPECT_TRUE(host.violations().empty());
}

// Waits the calling code makes on handles, through the test program's imports.
static std::atomic<int> handleWaits{0};
static DWORD WINAPI countedWait(HANDLE handle, DWORD milliseconds) {
  ++handleWaits;
  return WaitForMultipleObjects(1, &handle, FALSE, milliseconds);
}

// A JNI call finds its thread without asking the system about the other
// attached threads: under Wine every such question is a round trip, which
// would make the host, not the driver, the cost of a native call.
TEST(JniHost, CallsDoNotWaitOnOtherThreads) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  std::atomic<bool> attached{false}, stop{false};
  std::thread other([&] {
    JNIEnv* theirs = nullptr;
    host.vm()->AttachCurrentThread(reinterpret_cast<void**>(&theirs), nullptr);
    attached = true;
    while (!stop) Sleep(1);
    host.vm()->DetachCurrentThread();
  });
  while (!attached) Sleep(1);
  {
    dwtest::ImportPatch patch(GetModuleHandleW(nullptr), "WaitForSingleObject", reinterpret_cast<void*>(&countedWait));
    ASSERT_TRUE(patch.applied());
    handleWaits = 0;
    for (int i = 0; i < 10; ++i) host.nativeCall([&] { return env->FindClass("java/lang/String"); });
    EXPECT_EQ(handleWaits, 0);
  }
  stop = true;
  other.join();
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, EmptySlotsAreTraps) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        JavaHost host;
        JNIEnv* env = host.attachCurrentThread();
        env->functions->MonitorEnter(env, host.callbackObject());
      },
      "slot 217 \\(MonitorEnter\\)");
}

// Four library threads call Java at once, a handler calling back into JNI:
// every call and construction is counted, nothing leaks, nothing is misuse.
TEST(JniHost, ManyLibraryThreadsAtOnce) {
  JavaHost host;
  std::atomic<int> handled{0}, trues{0};
  host.onCall(kDeskwright, "filterEvent", kFilterSig, [&](JNIEnv* env, jobject, const std::vector<Value>& a) {
    handled++;
    return Value::of(static_cast<bool>(env->IsInstanceOf(a[0].l, env->FindClass((kEvent + "MouseEvent").c_str()))));
  });
  const int kThreads = 4, kEach = 250;
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      JNIEnv* env = nullptr;
      host.vm()->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
      jobject callback = env->NewGlobalRef(host.callbackObject());
      jclass ms = static_cast<jclass>(env->NewGlobalRef(env->FindClass((kEvent + "MouseEvent").c_str())));
      jmethodID ctor = env->GetMethodID(ms, "<init>", "(IJIIIIIIIJ)V");
      jmethodID filter = env->GetMethodID(env->GetObjectClass(callback), "filterEvent", kFilterSig.c_str());
      for (int i = 0; i < kEach; ++i) {
        jobject ev = env->NewObject(ms, ctor, 202, jlong(n), 512, i, -i, 0, 0, 0, 0, jlong(i));
        if (env->CallBooleanMethod(callback, filter, ev)) trues++;
        env->DeleteLocalRef(ev);
      }
      env->DeleteGlobalRef(ms);
      env->DeleteGlobalRef(callback);
      host.vm()->DetachCurrentThread();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(host.calls("filterEvent").size(), size_t(kThreads * kEach));
  EXPECT_EQ(host.constructions(kEvent + "MouseEvent").size(), size_t(kThreads * kEach));
  EXPECT_EQ(handled.load(), kThreads * kEach);
  EXPECT_EQ(trues.load(), kThreads * kEach);
  EXPECT_EQ(host.globalRefCount(), 0u);
  EXPECT_TRUE(host.violations().empty());
  EXPECT_TRUE(host.callsWithPendingException().empty());
}
