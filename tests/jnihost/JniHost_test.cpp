// Checks of the JNI test host itself: that it behaves as a VM does and that it
// catches the misuse it claims to catch.
#include "JniHost.h"

#include "ImportPatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <string>
#include <thread>

using jnihost::Call;
using jnihost::Construction;
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

// Calls NewObjectV the way a varargs wrapper in native code does.
jobject newObjectV(JNIEnv* env, jclass cls, jmethodID ctor, ...) {
  va_list ap;
  va_start(ap, ctor);
  jobject o = env->NewObjectV(cls, ctor, ap);
  va_end(ap);
  return o;
}

void expectKeyboardArgs(const Construction& c, jlong stamp) {
  ASSERT_EQ(c.args.size(), 9u);
  EXPECT_EQ(c.args[0], Value::of(201));
  EXPECT_EQ(c.args[1], Value::of(jlong(0x123456789ABCDEF0LL)));
  EXPECT_EQ(c.args[2], Value::of(256));
  EXPECT_EQ(c.args[3], Value::of(0x41));
  EXPECT_EQ(c.args[4], Value::of(-7));
  EXPECT_EQ(c.args[5], Value::of(true));
  EXPECT_EQ(c.args[6], Value::of(false));
  EXPECT_EQ(c.args[7], Value::of(true));
  EXPECT_EQ(c.args[8], Value::of(stamp));
}

}  // namespace

TEST(JniHost, MissingClassGivesNullAndNoClassDefFoundError) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  EXPECT_EQ(env->FindClass("net/tolva/NoSuchClass"), nullptr);
  EXPECT_TRUE(env->ExceptionCheck());
  auto e = host.pendingException();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->className, "java/lang/NoClassDefFoundError");
  EXPECT_EQ(e->message, L"net/tolva/NoSuchClass");
  jthrowable t = env->ExceptionOccurred();
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(env->GetObjectRefType(t), JNILocalRefType);
  jclass ncdfe = env->FindClass("java/lang/NoClassDefFoundError");  // made with an exception pending
  EXPECT_TRUE(env->IsInstanceOf(t, ncdfe));
  // GetObjectRefType, FindClass and IsInstanceOf ran with the exception pending.
  EXPECT_EQ(host.callsWithPendingException().size(), 3u);
  env->ExceptionClear();
  EXPECT_FALSE(host.pendingException().has_value());

  host.removeClass(kEvent + "MouseEvent");
  EXPECT_EQ(env->FindClass((kEvent + "MouseEvent").c_str()), nullptr);
  EXPECT_EQ(host.takeException()->className, "java/lang/NoClassDefFoundError");
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, EnvOnWrongThreadIsViolation) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  onOtherThread([&] { env->FindClass("java/lang/String"); });
  EXPECT_TRUE(mentions(host.violations(), "used on another thread"));
}

TEST(JniHost, EachThreadHasItsOwnEnvAndDetachEndsIt) {
  JavaHost host;
  JNIEnv* mine = host.attachCurrentThread();
  EXPECT_EQ(host.attachCurrentThread(), mine);
  JavaVM* vm = host.vm();
  JNIEnv* theirs = nullptr;
  jobject local = nullptr;
  onOtherThread([&] {
    JavaVMAttachArgs args{JNI_VERSION_1_4, const_cast<char*>("Dispatch"), nullptr};
    ASSERT_EQ(vm->AttachCurrentThread(reinterpret_cast<void**>(&theirs), &args), JNI_OK);
    JNIEnv* again = nullptr;
    EXPECT_EQ(vm->AttachCurrentThread(reinterpret_cast<void**>(&again), nullptr), JNI_OK);
    EXPECT_EQ(again, theirs);
    void* viaGetEnv = nullptr;
    EXPECT_EQ(vm->GetEnv(&viaGetEnv, JNI_VERSION_1_8), JNI_OK);
    EXPECT_EQ(viaGetEnv, theirs);
    local = theirs->NewStringUTF("made on the other thread");
    EXPECT_EQ(vm->DetachCurrentThread(), JNI_OK);
    EXPECT_EQ(vm->GetEnv(&viaGetEnv, JNI_VERSION_1_8), JNI_EDETACHED);
  });
  EXPECT_NE(theirs, mine);
  EXPECT_TRUE(host.violations().empty());
  onOtherThread([&] { theirs->GetVersion(); });
  EXPECT_TRUE(mentions(host.violations(), "after that thread detached"));
  mine->GetStringLength(static_cast<jstring>(local));
  EXPECT_TRUE(mentions(host.violations(), "freed when thread"));
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
  std::atomic<bool> attached{false};
  std::atomic<bool> stop{false};
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
    for (int i = 0; i < 10; ++i) {
      host.nativeCall([&] { return env->FindClass("java/lang/String"); });
    }
    EXPECT_EQ(handleWaits, 0);
  }
  stop = true;
  other.join();
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, DllThreadEndingAttachedIsViolation) {
  JavaHost host;
  JavaVM* vm = host.vm();
  DWORD tid = 0;
  onOtherThread([&] {
    JNIEnv* env = nullptr;
    JavaVMAttachArgs args{JNI_VERSION_1_4, const_cast<char*>("Dispatch"), nullptr};
    vm->AttachCurrentThread(reinterpret_cast<void**>(&env), &args);
    env->NewStringUTF("left behind");
    tid = GetCurrentThreadId();
  });
  EXPECT_TRUE(mentions(host.violations(), "(\"Dispatch\") ended without DetachCurrentThread"));
  EXPECT_EQ(host.localRefCount(tid), 0u);
  // A test thread (a Java thread) may just end.
  JavaHost other;
  onOtherThread([&] { other.attachCurrentThread(); });
  EXPECT_TRUE(other.violations().empty());
}

TEST(JniHost, GetEnvOnUnattachedThreadIsDetached) {
  JavaHost host;
  JNIEnv* main = host.currentEnv();  // the thread that made the VM is attached
  ASSERT_NE(main, nullptr);
  EXPECT_EQ(host.attachCurrentThread(), main);
  JavaVM* vm = host.vm();
  onOtherThread([&] {
    void* env = reinterpret_cast<void*>(1);
    EXPECT_EQ(vm->GetEnv(&env, JNI_VERSION_1_8), JNI_EDETACHED);
    EXPECT_EQ(env, nullptr);
  });
  host.attachCurrentThread();
  void* env = nullptr;
  EXPECT_EQ(vm->GetEnv(&env, 0x7fff0000), JNI_EVERSION);
  EXPECT_EQ(vm->GetEnv(&env, JNI_VERSION_1_4), JNI_OK);
  EXPECT_EQ(env, host.currentEnv());
  EXPECT_EQ(vm->DestroyJavaVM(), JNI_ERR);
  EXPECT_TRUE(mentions(host.violations(), "DestroyJavaVM"));
}

TEST(JniHost, ClassLoaderRoadFindsClassesAndCountsMisses) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jobject cb = host.callbackObject();
  jclass objectClass = env->FindClass("java/lang/Object");
  jmethodID getClass = env->GetMethodID(objectClass, "getClass", "()Ljava/lang/Class;");
  ASSERT_NE(getClass, nullptr);
  jobject cls = env->CallObjectMethod(cb, getClass);
  EXPECT_EQ(host.classNameOf(cls), "java/lang/Class");
  jclass classClass = env->FindClass("java/lang/Class");
  jmethodID getLoader = env->GetMethodID(classClass, "getClassLoader", "()Ljava/lang/ClassLoader;");
  jobject loader = env->CallObjectMethod(cls, getLoader);
  ASSERT_NE(loader, nullptr);
  EXPECT_TRUE(env->IsInstanceOf(loader, env->FindClass("java/lang/ClassLoader")));
  jmethodID loadClass = env->GetMethodID(env->FindClass("java/lang/ClassLoader"), "loadClass",
                                         "(Ljava/lang/String;)Ljava/lang/Class;");
  ASSERT_NE(loadClass, nullptr);

  std::string dotted = "net.tolva.apps.cuebench.client.win.deskwright.event.KeyboardEvent";
  jobject viaLoader = env->CallObjectMethod(loader, loadClass, env->NewStringUTF(dotted.c_str()));
  ASSERT_NE(viaLoader, nullptr);
  EXPECT_FALSE(env->ExceptionCheck());
  jclass viaFind = env->FindClass((kEvent + "KeyboardEvent").c_str());
  EXPECT_TRUE(env->IsSameObject(viaLoader, viaFind));
  EXPECT_EQ(host.loadClassCount(dotted), 1);

  jobject missing = env->CallObjectMethod(loader, loadClass, env->NewStringUTF("net.tolva.Missing"));
  EXPECT_EQ(missing, nullptr);
  auto e = host.takeException();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->className, "java/lang/ClassNotFoundException");
  EXPECT_EQ(e->message, L"net.tolva.Missing");
  EXPECT_EQ(host.loadClassCount("net.tolva.Missing"), 1);
  EXPECT_EQ(host.calls("loadClass").size(), 2u);

  // The slash form is not a class name for a loader.
  EXPECT_EQ(env->CallObjectMethod(loader, loadClass, env->NewStringUTF("java/lang/String")), nullptr);
  EXPECT_EQ(host.takeException()->className, "java/lang/ClassNotFoundException");

  // Bootstrap classes have no loader object, as in a VM.
  jobject stringClass = env->FindClass("java/lang/String");
  EXPECT_EQ(env->CallObjectMethod(stringClass, getLoader), nullptr);
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, AppClassesCanBeHiddenFromNativeThreads) {
  JavaHost::Options o;
  o.appClassesVisibleToNativeThreads = false;
  JavaHost host(o);
  JNIEnv* env = host.attachCurrentThread();
  EXPECT_NE(env->FindClass((kEvent + "MouseEvent").c_str()), nullptr);  // a Java thread sees them
  JavaVM* vm = host.vm();
  jobject cb = host.callbackObject();
  onOtherThread([&] {
    JNIEnv* e = nullptr;
    ASSERT_EQ(vm->AttachCurrentThread(reinterpret_cast<void**>(&e), nullptr), JNI_OK);
    EXPECT_EQ(e->FindClass((kEvent + "MouseEvent").c_str()), nullptr);
    e->ExceptionClear();
    jobject cls = e->CallObjectMethod(cb, e->GetMethodID(e->FindClass("java/lang/Object"), "getClass",
                                                          "()Ljava/lang/Class;"));
    jobject loader = e->CallObjectMethod(
        cls, e->GetMethodID(e->FindClass("java/lang/Class"), "getClassLoader", "()Ljava/lang/ClassLoader;"));
    jclass clCls = e->FindClass("java/lang/ClassLoader");
    jmethodID load = e->GetMethodID(clCls, "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;");
    jstring name = e->NewStringUTF("net.tolva.apps.cuebench.client.win.deskwright.event.MouseEvent");
    EXPECT_NE(e->CallObjectMethod(loader, load, name), nullptr);
    jobject sys = e->CallStaticObjectMethod(
        clCls, e->GetStaticMethodID(clCls, "getSystemClassLoader", "()Ljava/lang/ClassLoader;"));
    EXPECT_EQ(e->CallObjectMethod(sys, load, name), nullptr);
    EXPECT_TRUE(e->ExceptionCheck());
    e->ExceptionClear();
    vm->DetachCurrentThread();
  });
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, MethodIdsFollowTheSuperclassChain) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jclass kb = env->FindClass((kEvent + "KeyboardEvent").c_str());
  jclass we = env->FindClass((kEvent + "WinEvent").c_str());
  EXPECT_TRUE(env->IsSameObject(env->GetSuperclass(kb), we));
  EXPECT_TRUE(env->IsAssignableFrom(kb, we));
  EXPECT_FALSE(env->IsAssignableFrom(we, kb));
  jmethodID getType = env->GetMethodID(kb, "getType", "()I");
  ASSERT_NE(getType, nullptr);
  EXPECT_EQ(getType, env->GetMethodID(we, "getType", "()I"));
  // Constructors are not inherited.
  EXPECT_EQ(env->GetMethodID(kb, "<init>", "(IJI)V"), nullptr);
  EXPECT_EQ(host.takeException()->className, "java/lang/NoSuchMethodError");
  EXPECT_EQ(env->GetMethodID(kb, "getType", "()J"), nullptr);
  EXPECT_EQ(host.takeException()->className, "java/lang/NoSuchMethodError");
  EXPECT_EQ(env->GetStaticMethodID(kb, "getType", "()I"), nullptr);
  EXPECT_EQ(host.takeException()->className, "java/lang/NoSuchMethodError");

  jmethodID ctor = env->GetMethodID(kb, "<init>", "(IJIIIZZZ)V");
  ASSERT_NE(ctor, nullptr);
  jobject ev = env->NewObject(kb, ctor, 201, jlong(5), 257, 0x20, 32, JNI_FALSE, JNI_TRUE, JNI_FALSE);
  EXPECT_EQ(env->CallIntMethod(ev, getType), 201);
  EXPECT_EQ(env->CallLongMethod(ev, env->GetMethodID(we, "getTimestamp", "()J")), 0);
  EXPECT_TRUE(env->CallBooleanMethod(ev, env->GetMethodID(kb, "isCtrl", "()Z")));
  EXPECT_EQ(host.field(ev, "vk"), Value::of(0x20));
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, VarargsNewObjectRecordsTheValues) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jclass kb = env->FindClass((kEvent + "KeyboardEvent").c_str());
  jmethodID ctor = env->GetMethodID(kb, "<init>", "(IJIIIZZZJ)V");
  ASSERT_NE(ctor, nullptr);
  const jlong handle = 0x123456789ABCDEF0LL;
  const jlong stamp = 1700000000123LL;
  jboolean t = JNI_TRUE, f = JNI_FALSE;

  jobject a = env->NewObject(kb, ctor, jint(201), handle, jint(256), jint(0x41), jint(-7), t, f, t, stamp);
  jobject b = newObjectV(env, kb, ctor, jint(201), handle, jint(256), jint(0x41), jint(-7), t, f, t, stamp + 1);
  jvalue args[9];
  args[0].i = 201;
  args[1].j = handle;
  args[2].i = 256;
  args[3].i = 0x41;
  args[4].i = -7;
  args[5].z = t;
  args[6].z = f;
  args[7].z = t;
  args[8].j = stamp + 2;
  jobject c = env->NewObjectA(kb, ctor, args);
  // jni.h's C++ wrappers go through the V slots; C code calls the variadic slot.
  jobject d = env->functions->NewObject(env, kb, ctor, jint(201), handle, jint(256), jint(0x41), jint(-7), t, f, t,
                                        stamp + 3);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ASSERT_NE(c, nullptr);
  ASSERT_NE(d, nullptr);

  auto made = host.constructions(kEvent + "KeyboardEvent");
  ASSERT_EQ(made.size(), 4u);
  expectKeyboardArgs(made[0], stamp);
  expectKeyboardArgs(made[1], stamp + 1);
  expectKeyboardArgs(made[2], stamp + 2);
  expectKeyboardArgs(made[3], stamp + 3);
  EXPECT_EQ(made[0].signature, "(IJIIIZZZJ)V");
  EXPECT_EQ(made[0].threadId, GetCurrentThreadId());
  EXPECT_TRUE(env->IsSameObject(made[0].object, a));
  EXPECT_EQ(host.field(a, "timestamp"), Value::of(stamp));
  EXPECT_EQ(host.field(a, "handle"), Value::of(handle));
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, VarargsFollowTheCPromotions) {
  JavaHost host;
  host.addClass("test/Probe");
  host.addMethod("test/Probe", "<init>", "()V");
  host.addMethod("test/Probe", "take", "(BCSFDZJLjava/lang/String;)F");
  std::vector<Value> seen;
  host.onCall("test/Probe", "take", "(BCSFDZJLjava/lang/String;)F",
              [&](JNIEnv*, jobject, const std::vector<Value>& a) {
                seen = a;
                return Value::of(jfloat(2.5f));
              });
  JNIEnv* env = host.attachCurrentThread();
  jclass cls = env->FindClass("test/Probe");
  jobject probe = env->NewObject(cls, env->GetMethodID(cls, "<init>", "()V"));
  jmethodID take = env->GetMethodID(cls, "take", "(BCSFDZJLjava/lang/String;)F");
  jstring s = env->NewStringUTF("x");
  jfloat r = env->CallFloatMethod(probe, take, jbyte(-3), jchar(0xFFFE), jshort(-30000), jfloat(1.25f), 3.5,
                                  jboolean(JNI_TRUE), jlong(-1), s);
  EXPECT_EQ(r, 2.5f);
  ASSERT_EQ(seen.size(), 8u);
  EXPECT_EQ(seen[0], Value::of(jbyte(-3)));
  EXPECT_EQ(seen[1], Value::of(jchar(0xFFFE)));
  EXPECT_EQ(seen[2], Value::of(jshort(-30000)));
  EXPECT_EQ(seen[3], Value::of(jfloat(1.25f)));
  EXPECT_EQ(seen[4], Value::of(3.5));
  EXPECT_EQ(seen[5], Value::of(true));
  EXPECT_EQ(seen[6], Value::of(jlong(-1)));
  EXPECT_EQ(host.text(static_cast<jstring>(seen[7].l)), L"x");

  // The same through the variadic slots (cdecl even where JNICALL is stdcall).
  seen.clear();
  r = env->functions->CallFloatMethod(env, probe, take, jbyte(5), jchar(u'q'), jshort(7), jfloat(-0.5f), -1e300,
                                      jboolean(JNI_FALSE), jlong(1) << 40, nullptr);
  EXPECT_EQ(r, 2.5f);
  ASSERT_EQ(seen.size(), 8u);
  EXPECT_EQ(seen[0], Value::of(jbyte(5)));
  EXPECT_EQ(seen[1], Value::of(jchar(u'q')));
  EXPECT_EQ(seen[2], Value::of(jshort(7)));
  EXPECT_EQ(seen[3], Value::of(jfloat(-0.5f)));
  EXPECT_EQ(seen[4], Value::of(-1e300));
  EXPECT_EQ(seen[5], Value::of(false));
  EXPECT_EQ(seen[6], Value::of(jlong(1) << 40));
  EXPECT_EQ(seen[7], Value::of(nullptr));
  seen.clear();
  env->functions->CallNonvirtualFloatMethod(env, probe, cls, take, jbyte(1), jchar(2), jshort(3), jfloat(4), 5.0,
                                            jboolean(JNI_TRUE), jlong(6), s);
  EXPECT_EQ(seen.size(), 8u);
  jclass clCls = env->FindClass("java/lang/ClassLoader");
  jmethodID sys = env->GetStaticMethodID(clCls, "getSystemClassLoader", "()Ljava/lang/ClassLoader;");
  EXPECT_NE(env->functions->CallStaticObjectMethod(env, clCls, sys), nullptr);
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, CallbacksAreRoutedFromTheDllThread) {
  JavaHost host;
  host.attachCurrentThread();
  std::atomic<DWORD> handlerThread{0};
  host.onCall(kDeskwright, "filterEvent", kFilterSig, [&](JNIEnv* env, jobject, const std::vector<Value>& a) {
    handlerThread = GetCurrentThreadId();
    // A handler may call back into JNI.
    jclass ce = env->FindClass((kEvent + "CallbackEvent").c_str());
    return Value::of(!env->IsInstanceOf(a[0].l, ce));
  });
  JavaVM* vm = host.vm();
  jobject cb = host.callbackObject();
  DWORD dispatch = 0;
  jboolean answer = JNI_TRUE;
  jobjectArray labels = nullptr;
  size_t labelCount = 99;
  std::thread t([&] {
    dispatch = GetCurrentThreadId();
    JNIEnv* env = nullptr;
    ASSERT_EQ(vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr), JNI_OK);
    jobject callback = env->NewGlobalRef(cb);
    jclass ce = env->FindClass((kEvent + "CallbackEvent").c_str());
    jobject ev = env->NewObject(ce, env->GetMethodID(ce, "<init>", "()V"));
    jclass dw = env->GetObjectClass(callback);
    jmethodID filter = env->GetMethodID(dw, "filterEvent", kFilterSig.c_str());
    answer = env->CallBooleanMethod(callback, filter, ev);
    labels = static_cast<jobjectArray>(
        env->CallObjectMethod(callback, env->GetMethodID(dw, "onContextCheck", "(J)[Ljava/lang/String;"), jlong(42)));
    labelCount = static_cast<size_t>(env->GetArrayLength(labels));
    labels = static_cast<jobjectArray>(env->NewGlobalRef(labels));
    env->CallVoidMethod(callback, env->GetMethodID(dw, "onCheckSelect", "(JI)V"), jlong(42), jint(3));
    env->DeleteGlobalRef(callback);
    vm->DetachCurrentThread();
  });
  ASSERT_TRUE(host.waitForCalls("onCheckSelect", 1, 5000));
  t.join();
  EXPECT_FALSE(answer);
  EXPECT_EQ(handlerThread.load(), dispatch);
  EXPECT_EQ(labelCount, 0u);
  EXPECT_EQ(host.strings(labels).size(), 0u);
  auto calls = host.calls("filterEvent");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].className, kDeskwright);
  EXPECT_EQ(calls[0].signature, kFilterSig);
  EXPECT_EQ(calls[0].threadId, dispatch);
  EXPECT_EQ(host.classNameOf(calls[0].args[0].l), kEvent + "CallbackEvent");
  EXPECT_EQ(host.field(calls[0].args[0].l, "type"), Value::of(120));
  auto select = host.calls("onCheckSelect");
  ASSERT_EQ(select.size(), 1u);
  EXPECT_EQ(select[0].args[0], Value::of(jlong(42)));
  EXPECT_EQ(select[0].args[1], Value::of(3));
  EXPECT_TRUE(host.waitForConstructions(kEvent + "CallbackEvent", 1, 0));
  EXPECT_EQ(host.globalRefCount(), 1u);  // the labels
  EXPECT_TRUE(mentions(host.globalRefs(), "[Ljava/lang/String;"));
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, HandlerMayMakeTheCallThrow) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  host.onCall(kDeskwright, "onDefaultCheck", "(J)V", [&](JNIEnv* e, jobject, const std::vector<Value>&) {
    e->ThrowNew(e->FindClass((kPkg + "InvalidHandleException").c_str()), "gone");
    return Value::none();
  });
  jclass dw = env->FindClass(kDeskwright.c_str());
  env->CallVoidMethod(host.callbackObject(), env->GetMethodID(dw, "onDefaultCheck", "(J)V"), jlong(7));
  auto e = host.takeException();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->className, kPkg + "InvalidHandleException");
  EXPECT_EQ(e->message, L"gone");
  EXPECT_EQ(host.localRefCount(), 1u);  // dw; the handler's locals ended with its call
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, MisusedMethodIdsAreViolations) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jclass dw = env->FindClass(kDeskwright.c_str());
  jmethodID filter = env->GetMethodID(dw, "filterEvent", kFilterSig.c_str());
  jclass ce = env->FindClass((kEvent + "CallbackEvent").c_str());
  jobject ev = env->NewObject(ce, env->GetMethodID(ce, "<init>", "()V"));
  env->CallVoidMethod(host.callbackObject(), filter, ev);
  EXPECT_TRUE(mentions(host.violations(), "returns Z, but was called with CallVoidMethod"));
  env->CallBooleanMethod(ev, filter, ev);
  EXPECT_TRUE(mentions(host.violations(), "was called on an object of class " + kEvent + "CallbackEvent"));
  env->CallBooleanMethod(host.callbackObject(), filter, env->NewStringUTF("not an event"));
  EXPECT_TRUE(mentions(host.violations(), "is a java/lang/String, not a " + kEvent + "WinEvent"));
}

TEST(JniHost, ReferenceMisuseIsRecorded) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  jstring s = env->NewStringUTF("abc");
  jobject g = env->NewGlobalRef(s);
  EXPECT_EQ(host.globalRefCount(), 1u);
  EXPECT_EQ(env->GetObjectRefType(g), JNIGlobalRefType);
  EXPECT_NE(g, static_cast<jobject>(s));
  EXPECT_TRUE(env->IsSameObject(g, s));
  env->DeleteGlobalRef(g);
  EXPECT_EQ(host.globalRefCount(), 0u);
  EXPECT_TRUE(host.violations().empty());
  env->GetStringLength(static_cast<jstring>(g));
  EXPECT_TRUE(mentions(host.violations(), "global reference that was deleted by DeleteGlobalRef"));
  env->DeleteGlobalRef(g);
  EXPECT_TRUE(mentions(host.violations(), "already ("));

  JavaVM* vm = host.vm();
  onOtherThread([&] {
    JNIEnv* other = nullptr;
    vm->AttachCurrentThread(reinterpret_cast<void**>(&other), nullptr);
    other->GetStringLength(s);
    vm->DetachCurrentThread();
  });
  EXPECT_TRUE(mentions(host.violations(), "is a local reference of thread"));

  env->DeleteLocalRef(s);
  env->GetStringLength(s);
  EXPECT_TRUE(mentions(host.violations(), "local reference that was deleted by DeleteLocalRef"));
  EXPECT_EQ(env->ThrowNew(nullptr, "x"), JNI_ERR);
  EXPECT_TRUE(mentions(host.violations(), "ThrowNew on thread"));
}

TEST(JniHost, LocalFramesAndNativeCalls) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  ASSERT_EQ(env->PushLocalFrame(8), JNI_OK);
  jstring inner = env->NewStringUTF("inner");
  jstring kept = env->NewStringUTF("kept");
  jobject out = env->PopLocalFrame(kept);
  EXPECT_EQ(host.text(static_cast<jstring>(out)), L"kept");
  env->GetStringLength(inner);
  EXPECT_TRUE(mentions(host.violations(), "freed by PopLocalFrame"));

  JavaHost clean;
  JNIEnv* e = clean.attachCurrentThread();
  jstring cached = nullptr;
  jstring result = clean.nativeCall([&] {
    cached = e->NewStringUTF("cached");
    return e->NewStringUTF("result");
  });
  EXPECT_EQ(clean.text(result), L"result");
  EXPECT_EQ(clean.localRefCount(), 1u);
  e->GetStringLength(cached);
  EXPECT_TRUE(mentions(clean.violations(), "freed when the native method returned"));
}

TEST(JniHost, UnreleasedPinsAreCounted) {
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
  EXPECT_EQ(host.ints(ia), (std::vector<jint>{1, 20, 3}));
  EXPECT_EQ(host.outstandingPins(), 3u);
  elems[2] = 30;
  env->ReleaseIntArrayElements(ia, elems, JNI_ABORT);
  EXPECT_EQ(host.ints(ia), (std::vector<jint>{1, 20, 3}));
  env->ReleaseStringChars(s, chars);
  EXPECT_EQ(host.outstandingPins(), 1u);
  EXPECT_TRUE(mentions(host.pins(), "GetStringUTFChars"));
  EXPECT_TRUE(host.violations().empty());

  env->ReleaseStringChars(s, chars);
  EXPECT_TRUE(mentions(host.violations(), "released already"));
  env->ReleaseStringUTFChars(s, utf);
  EXPECT_EQ(host.outstandingPins(), 0u);

  void* crit = env->GetPrimitiveArrayCritical(ia, nullptr);
  EXPECT_EQ(host.outstandingPins(), 1u);
  env->GetArrayLength(ia);
  EXPECT_TRUE(mentions(host.violations(), "critical region"));
  env->ReleasePrimitiveArrayCritical(ia, crit, 0);
  EXPECT_EQ(host.outstandingPins(), 0u);
}

TEST(JniHost, StringsAndArraysBehaveAsInAVm) {
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
  jchar buf[3] = {};
  env->GetStringRegion(s, 2, 3, buf);
  EXPECT_EQ(buf[0], u'b');
  env->GetStringRegion(s, 4, 2, buf);
  EXPECT_EQ(host.takeException()->className, "java/lang/StringIndexOutOfBoundsException");

  jlongArray la = env->NewLongArray(3);
  jlong in[3] = {1, -2, 3};
  env->SetLongArrayRegion(la, 0, 3, in);
  EXPECT_EQ(host.longs(la), (std::vector<jlong>{1, -2, 3}));
  env->GetLongArrayRegion(la, 2, 2, in);
  EXPECT_EQ(host.takeException()->className, "java/lang/ArrayIndexOutOfBoundsException");

  jobjectArray sa = host.stringArray({L"x", L"y"});
  env->SetObjectArrayElement(sa, 1, nullptr);
  auto items = host.strings(sa);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(*items[0], L"x");
  EXPECT_FALSE(items[1].has_value());
  env->SetObjectArrayElement(sa, 0, la);
  EXPECT_EQ(host.takeException()->className, "java/lang/ArrayStoreException");
  EXPECT_EQ(env->GetObjectArrayElement(sa, 2), nullptr);
  EXPECT_EQ(host.takeException()->className, "java/lang/ArrayIndexOutOfBoundsException");
  EXPECT_EQ(host.classNameOf(env->GetObjectClass(sa)), "java/lang/Class");
  EXPECT_TRUE(env->IsSameObject(env->GetObjectClass(sa), env->FindClass("[Ljava/lang/String;")));
  EXPECT_TRUE(env->IsInstanceOf(sa, env->FindClass("[Ljava/lang/Object;")));
  EXPECT_TRUE(host.violations().empty());
}

TEST(JniHost, CallsWithPendingExceptionAreListedNotViolations) {
  JavaHost host;
  JNIEnv* env = host.attachCurrentThread();
  env->ThrowNew(env->FindClass("java/lang/IllegalStateException"), "boom");
  jstring s = env->NewStringUTF("while pending");
  env->DeleteLocalRef(s);  // allowed with an exception pending
  EXPECT_TRUE(env->ExceptionCheck());
  auto list = host.callsWithPendingException();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_NE(list[0].find("NewStringUTF"), std::string::npos);
  EXPECT_NE(list[0].find("java/lang/IllegalStateException"), std::string::npos);
  env->ExceptionDescribe();
  EXPECT_FALSE(env->ExceptionCheck());
  EXPECT_TRUE(host.violations().empty());
  EXPECT_EQ(host.constructions("java/lang/IllegalStateException").size(), 1u);
}

TEST(JniHost, CallsWithPendingExceptionOnALibraryThreadAreViolations) {
  JavaHost host;
  JavaVM* vm = host.vm();
  onOtherThread([&] {
    JNIEnv* env = nullptr;
    vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
    EXPECT_EQ(env->FindClass("net/tolva/NoSuchClass"), nullptr);
    EXPECT_EQ(env->PushLocalFrame(4), JNI_OK);  // allowed with an exception pending
    EXPECT_EQ(env->PopLocalFrame(nullptr), nullptr);
    env->ExceptionClear();
    env->NewStringUTF("after the clear");
    EXPECT_TRUE(host.violations().empty());
    env->FindClass("net/tolva/NoSuchClass");
    env->GetObjectClass(host.callbackObject());
    vm->DetachCurrentThread();
  });
  auto misuse = host.takeViolations();
  ASSERT_EQ(misuse.size(), 1u);
  EXPECT_TRUE(mentions(misuse, "GetObjectClass on thread"));
  EXPECT_TRUE(mentions(misuse, "java/lang/NoClassDefFoundError"));
  EXPECT_EQ(host.uncaughtExceptions().size(), 1u);
}

TEST(JniHost, WithoutTimestampsTheStampedConstructorsAreMissing) {
  JavaHost::Options o;
  o.timestampedEvents = false;
  JavaHost host(o);
  JNIEnv* env = host.attachCurrentThread();
  const char* stamped[][2] = {{"KeyboardEvent", "(IJIIIZZZJ)V"},
                              {"MouseEvent", "(IJIIIIIIIJ)V"},
                              {"UIAutomationEvent", "(IJIILjava/lang/String;J)V"},
                              {"MSAAEvent", "(IIIIJ)V"}};
  for (auto& c : stamped) {
    jclass cls = env->FindClass((kEvent + c[0]).c_str());
    ASSERT_NE(cls, nullptr) << c[0];
    EXPECT_EQ(env->GetMethodID(cls, "<init>", c[1]), nullptr) << c[0];
    EXPECT_EQ(host.takeException()->className, "java/lang/NoSuchMethodError");
  }
  jclass ms = env->FindClass((kEvent + "MouseEvent").c_str());
  EXPECT_NE(env->GetMethodID(ms, "<init>", "(IJIIIIIII)V"), nullptr);

  JavaHost full;
  JNIEnv* fe = full.attachCurrentThread();
  for (auto& c : stamped) EXPECT_NE(fe->GetMethodID(fe->FindClass((kEvent + c[0]).c_str()), "<init>", c[1]), nullptr);
  full.removeMethod(kEvent + "MSAAEvent", "<init>", "(IIIIJ)V");
  EXPECT_EQ(fe->GetMethodID(fe->FindClass((kEvent + "MSAAEvent").c_str()), "<init>", "(IIIIJ)V"), nullptr);
  EXPECT_EQ(full.takeException()->className, "java/lang/NoSuchMethodError");
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

TEST(JniHost, ManyDllThreadsAtOnce) {
  JavaHost host;
  std::atomic<int> handled{0};
  host.onCall(kDeskwright, "filterEvent", kFilterSig, [&](JNIEnv* env, jobject, const std::vector<Value>& a) {
    jclass ms = env->FindClass((kEvent + "MouseEvent").c_str());
    handled++;
    return Value::of(static_cast<bool>(env->IsInstanceOf(a[0].l, ms)));
  });
  JavaVM* vm = host.vm();
  jobject cb = host.callbackObject();
  const int kThreads = 4, kEach = 250;
  std::vector<std::thread> threads;
  std::atomic<int> trues{0};
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      JNIEnv* env = nullptr;
      vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
      jobject callback = env->NewGlobalRef(cb);
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
      vm->DetachCurrentThread();
    });
  }
  EXPECT_TRUE(host.waitForCalls("filterEvent", kThreads * kEach, 20000));
  EXPECT_TRUE(host.waitForConstructions(kEvent + "MouseEvent", kThreads * kEach, 20000));
  for (auto& t : threads) t.join();
  EXPECT_EQ(handled.load(), kThreads * kEach);
  EXPECT_EQ(trues.load(), kThreads * kEach);
  EXPECT_EQ(host.globalRefCount(), 0u);
  EXPECT_TRUE(host.violations().empty());
  EXPECT_TRUE(host.callsWithPendingException().empty());
}
