// A Java VM for tests: real JavaVM and JNIEnv function tables over a small
// object model of the Java classes that deskwright.dll talks to. Tests load
// the DLL, hand it host.vm() and call its natives exactly as a VM would; the
// host routes every Java method the DLL calls to test code, records calls,
// constructions and misuse, and keeps the books on references and pins.
//
// Object model: every jobject is a handle (never a pointer to dereference)
// naming a reference record; reference records and objects live until the
// host is destroyed, so a stale handle is always recognised. Local references
// belong to the thread that made them and to its current local frame; global
// references are distinct handles. Objects handed to test code (arguments of
// routed calls, records, callbackObject()) are "Java-held" handles: valid on
// every thread, never counted as leaks.
//
// Behaviour as in HotSpot, worth knowing when writing tests:
//  - Get<Type>ArrayElements, GetStringChars, GetStringUTFChars and the
//    critical functions hand out copies (isCopy = JNI_TRUE); string copies
//    are NUL-terminated. Release modes 0, JNI_COMMIT and JNI_ABORT apply.
//  - ExceptionDescribe prints the throwable and clears it.
//  - A Java method starts with no exception pending; if it throws, its
//    exception replaces a pending one, else the pending one stays.
//  - Bootstrap classes (java/*, jdk/*) have no class loader object
//    (Class.getClassLoader() gives null); the deskwright classes and classes
//    added by tests have the application loader.
//  - DetachCurrentThread on a thread running Java code (a thread attached by
//    the test, or inside a routed call) is refused with JNI_ERR.
//  - JNIEnv functions not provided, and the reserved slots, end the process
//    with a message naming the slot; so does FatalError.
#pragma once

#include <windows.h>

#include <jni.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace jnihost {

namespace detail {
struct Impl;
}

// A Java value: a primitive or a reference. type is the signature letter:
// 'Z','B','C','S','I','J','F','D', 'L' for any reference, 'V' for none.
struct Value {
  char type = 'V';
  union {
    jboolean z;
    jbyte b;
    jchar c;
    jshort s;
    jint i;
    jlong j = 0;
    jfloat f;
    jdouble d;
    jobject l;
  };

  static Value none() { return Value(); }
  static Value ofBoolean(bool v) { Value r; r.type = 'Z'; r.z = v ? JNI_TRUE : JNI_FALSE; return r; }
  static Value ofByte(jbyte v) { Value r; r.type = 'B'; r.b = v; return r; }
  static Value ofChar(jchar v) { Value r; r.type = 'C'; r.c = v; return r; }
  static Value ofShort(jshort v) { Value r; r.type = 'S'; r.s = v; return r; }
  static Value ofInt(jint v) { Value r; r.type = 'I'; r.i = v; return r; }
  static Value ofLong(jlong v) { Value r; r.type = 'J'; r.j = v; return r; }
  static Value ofFloat(jfloat v) { Value r; r.type = 'F'; r.f = v; return r; }
  static Value ofDouble(jdouble v) { Value r; r.type = 'D'; r.d = v; return r; }
  static Value ofObject(jobject v) { Value r; r.type = 'L'; r.l = v; return r; }

  // of(x) picks the Java type from the C++ type of x: bool and jboolean give
  // 'Z', jbyte 'B', jchar 'C', jshort 'S', int and jint 'I', jlong 'J',
  // jfloat 'F', jdouble 'D', any reference (or nullptr) 'L'.
  static Value of(bool v) { return ofBoolean(v); }
  static Value of(jboolean v) { return ofBoolean(v != JNI_FALSE); }
  static Value of(jbyte v) { return ofByte(v); }
  static Value of(jchar v) { return ofChar(v); }
  static Value of(jshort v) { return ofShort(v); }
  static Value of(jint v) { return ofInt(v); }
  template <class T, std::enable_if_t<std::is_same_v<T, int> && !std::is_same_v<int, jint>, int> = 0>
  static Value of(T v) { return ofInt(static_cast<jint>(v)); }
  static Value of(jlong v) { return ofLong(v); }
  static Value of(jfloat v) { return ofFloat(v); }
  static Value of(jdouble v) { return ofDouble(v); }
  static Value of(jobject v) { return ofObject(v); }
  static Value of(std::nullptr_t) { return ofObject(nullptr); }

  bool operator==(const Value& o) const;
  bool operator!=(const Value& o) const { return !(*this == o); }
  // "I:42", "J:-1", "Z:true", "L:0x..." (the handle), "V".
  std::string toString() const;
};

// A call of a Java method by the DLL (or by anything using a JNIEnv).
struct Call {
  std::string className;   // the class whose implementation ran (slash form)
  std::string method;
  std::string signature;
  std::vector<Value> args;  // references as Java-held handles
  DWORD threadId = 0;
  jobject self = nullptr;   // Java-held handle; null for static methods
};

// An object made by a constructor (NewObject, NewObjectV, NewObjectA, ThrowNew).
struct Construction {
  std::string className;   // class of the new object (slash form)
  std::string signature;   // the constructor's signature
  std::vector<Value> args;
  DWORD threadId = 0;
  jobject object = nullptr;  // Java-held handle of the new object
};

struct Thrown {
  std::string className;   // slash form, e.g. "java/lang/NoClassDefFoundError"
  std::wstring message;    // empty when the throwable has no message
  jobject object = nullptr;  // Java-held handle of the throwable
};

class JavaHost {
 public:
  struct Options {
    // With false, the classes leave out every constructor that takes a time
    // stamp (a VM running an older version of the Java classes).
    bool timestampedEvents = true;
    // With false, FindClass on a thread the DLL attached itself (outside any
    // Java call) sees only the java/* and jdk/* classes, as in a VM whose
    // application classes come from a loader other than the system loader;
    // the class-loader road (getClass().getClassLoader().loadClass(...)) still
    // finds them, and ClassLoader.getSystemClassLoader() is then a loader of
    // its own that finds only java/* and jdk/* classes.
    bool appClassesVisibleToNativeThreads = true;
    // With false, calls and constructions are only counted (callCount,
    // constructionCount), not recorded, and event objects keep no fields:
    // for runs of millions of events.
    bool recordCalls = true;
  };
  using Handler = std::function<Value(JNIEnv* env, jobject self, const std::vector<Value>& args)>;

  // The thread that makes the host is attached as the VM's "main" thread (a
  // Java thread), as JNI_CreateJavaVM does.
  JavaHost();
  explicit JavaHost(Options options);
  ~JavaHost();
  JavaHost(const JavaHost&) = delete;
  JavaHost& operator=(const JavaHost&) = delete;

  JavaVM* vm();
  // The calling thread becomes a Java thread (as one running Java code that
  // calls natives); returns its env. Returns the same env when already attached.
  JNIEnv* attachCurrentThread();
  void detachCurrentThread();
  // The env of the calling thread, or null when it isn't attached.
  JNIEnv* currentEnv();
  // A DefaultDeskwright instance, as the object a Java caller holds.
  jobject callbackObject();

  // --- Java values made and read by tests --------------------------------
  // Made objects are local references of the calling thread when it is
  // attached (as arguments a Java caller passes to a native), else Java-held.
  jstring str(const std::wstring& text);
  std::wstring text(jstring s);
  jobjectArray stringArray(const std::vector<std::wstring>& items);
  std::vector<std::optional<std::wstring>> strings(jobjectArray a);
  jlongArray longArray(const std::vector<jlong>& items);
  std::vector<jlong> longs(jlongArray a);
  jintArray intArray(const std::vector<jint>& items);
  std::vector<jint> ints(jintArray a);
  bool isNull(jobject o);
  // Class of an object (slash form); "" for null.
  std::string classNameOf(jobject o);
  // A field of a host-modelled object: the event fields ("type", "handle",
  // "code", "timestamp", "vk", "character", "shift", "ctrl", "alt", "x", "y",
  // "screenX", "screenY", "button", "modifiers", "param", "text", "hwnd",
  // "arg"), "message" of a throwable. Value::none() when the object has none.
  Value field(jobject o, const std::string& name);

  // --- exceptions of the calling thread ----------------------------------
  std::optional<Thrown> pendingException();  // without clearing it
  std::optional<Thrown> takeException();     // and clear it
  // Makes an exception of a Throwable class (slash form) pending on the
  // calling thread, for handlers that make a call throw.
  void raise(const std::string& className, const std::wstring& message);

  // --- natives called by tests --------------------------------------------
  // Runs f as a VM runs a native: in a local frame of its own that ends when
  // it returns (locals the DLL made are freed; a returned reference survives
  // as a new local in the caller's frame).
  template <class F>
  auto nativeCall(F&& f) -> decltype(f()) {
    using R = decltype(f());
    enterNative();
    if constexpr (std::is_void_v<R>) {
      f();
      leaveNative(nullptr);
    } else if constexpr (std::is_pointer_v<R> && std::is_convertible_v<R, jobject>) {
      R r = f();
      return static_cast<R>(leaveNative(r));
    } else {
      R r = f();
      leaveNative(nullptr);
      return r;
    }
  }
  void enterNative();
  jobject leaveNative(jobject result);

  // --- routing and records -------------------------------------------------
  // Routes calls of className.method(signature) to handler (also constructors,
  // method "<init>"; the handler then runs after the object is made).
  // Registered on a subclass, it overrides an inherited method for that class.
  void onCall(const std::string& className, const std::string& method, const std::string& signature,
              Handler handler);
  std::vector<Call> calls() const;
  std::vector<Call> calls(const std::string& method) const;
  std::vector<Call> calls(const std::string& className, const std::string& method) const;
  std::vector<Construction> constructions() const;
  std::vector<Construction> constructions(const std::string& className) const;  // slash form
  bool waitForCalls(const std::string& method, size_t count, unsigned timeoutMs) const;
  bool waitForConstructions(const std::string& className, size_t count, unsigned timeoutMs) const;
  int loadClassCount(const std::string& dottedName) const;
  // Calls of a method and constructions of a class (slash form) so far,
  // whether or not they are recorded.
  size_t callCount(const std::string& method) const;
  size_t constructionCount(const std::string& className) const;
  void clearRecords();  // calls, constructions, their counts, load counts

  // --- the class set ---------------------------------------------------------
  void removeClass(const std::string& className);  // FindClass/loadClass then fail
  void removeMethod(const std::string& className, const std::string& name, const std::string& signature);
  // A class of the test's own (slash form); superName must be known.
  void addClass(const std::string& className, const std::string& superName = "java/lang/Object",
                bool isAbstract = false);
  // A method of the test's own; without a handler it returns 0/false/null.
  void addMethod(const std::string& className, const std::string& name, const std::string& signature,
                 bool isStatic = false);

  // --- accounting ------------------------------------------------------------
  size_t globalRefCount() const;
  std::vector<std::string> globalRefs() const;  // what each live global refers to
  size_t outstandingPins() const;
  std::vector<std::string> pins() const;        // each pin not released
  size_t localRefCount() const;                  // live locals of the calling thread
  size_t localRefCount(DWORD threadId) const;    // of any attached thread
  // Misuse of JNI, one line each (JNI function, calling thread, what was
  // wrong): an env used on another thread or after its thread detached; a
  // local reference used on another thread, or after DeleteLocalRef,
  // PopLocalFrame, the end of its native call or its thread's detach; a
  // deleted global or weak reference used or deleted again; a handle or
  // method id the host never made; a pin released twice, never taken, with
  // the wrong function or for another object; a method id called on null, on
  // an object of a class that lacks the method, as static/instance against
  // its kind, or with a Call<Type>Method of another return type; an object
  // argument not of the parameter's class; a constructor used for a class it
  // does not make; ThrowNew/Throw without a Throwable; JNI calls inside a
  // critical region; PopLocalFrame without PushLocalFrame; DetachCurrentThread
  // on a thread running Java code; DestroyJavaVM; FatalError; a thread the
  // library attached that ended without DetachCurrentThread; a JNI call with
  // an exception pending on a thread the library attached, outside Java code
  // (one that callsWithPendingException lists).
  std::vector<std::string> violations() const;
  // The violations so far, which then no longer count (for a test that
  // provokes misuse on purpose and checks it).
  std::vector<std::string> takeViolations();
  // JNI calls made while an exception was pending (other than the calls that
  // are allowed then: the Exception* calls, the Release* calls,
  // DeleteLocalRef/DeleteGlobalRef/DeleteWeakGlobalRef, Push/PopLocalFrame,
  // MonitorExit), on any thread; on a Java thread they are not violations.
  std::vector<std::string> callsWithPendingException() const;
  // Exceptions still pending when a thread detached (printed as a VM does).
  std::vector<std::string> uncaughtExceptions() const;

 private:
  std::unique_ptr<detail::Impl> impl_;
};

}  // namespace jnihost
