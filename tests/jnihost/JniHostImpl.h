// Inside of the JNI test host: the object model, the class set, threads,
// references and pins. Shared by JniHost.cpp (model and test API) and
// JniFunctions.cpp (the JavaVM and JNIEnv function tables).
#pragma once

#include "JniHost.h"

#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace jnihost::detail {

struct Klass;
struct Obj;
struct Method;
struct ThreadState;
struct Impl;
struct Ctx;

template <class... A>
std::string cat(const A&... a) {
  std::ostringstream o;
  (o << ... << a);
  return o.str();
}

std::string hexOf(const void* p);
std::string utf8Of(const std::u16string& s);          // standard UTF-8, for messages
std::u16string fromWide(const std::wstring& w);
std::wstring toWide(const std::u16string& s);
std::string encodeModifiedUtf8(const std::u16string& s);
std::u16string decodeModifiedUtf8(const char* s);
std::string dotted(const std::string& slashName);
std::string slashed(const std::string& dottedName);

// A value inside the host: references are objects, not handles.
struct Val {
  char t = 'V';
  jvalue v;
  Obj* o = nullptr;
  Val() { v.j = 0; }
  static Val prim(char t, jvalue v) { Val r; r.t = t; r.v = v; return r; }
  static Val ref(Obj* o) { Val r; r.t = 'L'; r.o = o; return r; }
  static Val z(bool b) { Val r; r.t = 'Z'; r.v.z = b ? JNI_TRUE : JNI_FALSE; return r; }
  static Val i(jint x) { Val r; r.t = 'I'; r.v.i = x; return r; }
  static Val j(jlong x) { Val r; r.t = 'J'; r.v.j = x; return r; }
  static Val zeroOf(char t) { Val r; r.t = t; return r; }
};

using Builtin = std::function<Val(Ctx& c, Obj* self, const std::vector<Val>& args)>;

struct Method {
  Klass* owner = nullptr;
  std::string name, sig;
  bool isStatic = false;
  std::vector<std::string> params;  // descriptors
  std::string ret;                  // descriptor
  bool removed = false;
  Builtin builtin;                  // empty: returns the zero value
  char retType() const { return ret[0] == '[' ? 'L' : ret[0]; }
  std::string describe() const;
};

struct Klass {
  std::string name;  // slash form; arrays as descriptors ("[I", "[Ljava/lang/String;")
  Klass* super = nullptr;
  bool app = false;       // found by the application loader only
  bool isAbstract = false;
  bool removed = false;
  char elem = 0;          // arrays: 'L' or the primitive letter
  Klass* component = nullptr;  // arrays of references
  std::vector<std::unique_ptr<Method>> methods;
  Obj* mirror = nullptr;  // its java/lang/Class object
  bool isArray() const { return name[0] == '['; }
};

struct Obj {
  size_t id = 0;
  Klass* cls = nullptr;
  bool isString = false;
  std::u16string str;
  Klass* mirror = nullptr;      // java/lang/Class objects: the class
  char elem = 0;                // arrays: element letter ('L' for references)
  size_t length = 0;
  std::vector<uint8_t> prim;    // primitive array bytes
  std::vector<Obj*> elems;      // reference array elements
  std::map<std::string, Val> fields;
  size_t javaRef = SIZE_MAX;    // index of its Java-held reference, once made
};

enum class RefKind { Local, Global, Weak, Java };

struct Ref {
  Obj* obj = nullptr;
  RefKind kind = RefKind::Local;
  ThreadState* owner = nullptr;
  DWORD ownerTid = 0;
  bool live = true;
  std::string made;   // the JNI function that made it
  std::string freed;  // how it ended
};

struct Frame {
  std::vector<size_t> refs;
  bool pushed = false;  // made by PushLocalFrame
};

struct EnvBlock {
  JNIEnv_ env;
  Impl* impl;
  ThreadState* ts;
};

struct VmBlock {
  JavaVM_ vm;
  Impl* impl;
};

struct ThreadState {
  EnvBlock block;
  DWORD tid = 0;
  HANDLE handle = nullptr;  // to see whether the thread has ended
  std::uint64_t identity = 0;  // threadIdentity() of the thread, which no later thread shares
  std::string name;
  bool daemon = false;
  bool javaThread = false;  // attached by the test (runs "Java" code)
  bool attached = true;
  Obj* pending = nullptr;
  std::vector<Frame> frames;
  int criticals = 0;
  int javaDepth = 0;        // Java calls (routed handlers) running on it
  std::vector<size_t> nativeFrames;  // frame depths where nativeCall frames start
};

enum class PinKind { StringChars, StringUTF, StringCritical, ArrayElements, ArrayCritical };

struct Pin {
  PinKind kind;
  Obj* obj;
  ThreadState* ts;
  DWORD tid;
  std::string made;
};

struct Target {
  Klass* at = nullptr;  // class whose implementation runs
  Method* m = nullptr;
  JavaHost::Handler handler;
};

// An argument source of a call: C varargs, a va_list or a jvalue array.
struct ArgReader {
  virtual ~ArgReader() = default;
  virtual jvalue next(char type) = 0;
};

struct Impl {
  explicit Impl(const JavaHost::Options& o);
  ~Impl();

  JavaHost::Options opt;
  mutable std::mutex m;
  mutable std::condition_variable cv;
  VmBlock vmb;

  std::map<std::string, std::unique_ptr<Klass>> classes;
  std::vector<std::unique_ptr<Obj>> objects;
  std::deque<Ref> refs;
  std::vector<std::unique_ptr<ThreadState>> threads;
  std::unordered_map<DWORD, ThreadState*> attached;
  std::unordered_set<const void*> methodIds;
  std::map<void*, Pin> pinned;
  std::map<std::tuple<std::string, std::string, std::string>, JavaHost::Handler> handlers;
  std::vector<Call> callLog;
  std::vector<Construction> constructionLog;
  std::map<std::string, int> loadCounts;
  std::map<std::string, size_t> callCounts, constructionCounts;  // by method name, by class
  // The threads waiting for a count (waitForCalls, waitForConstructions):
  // a record wakes them only when it brings the count they wait for, so
  // that a long run of events doesn't wake them, and take the lock, each time.
  struct CountWait {
    const std::map<std::string, size_t>* counts;
    const std::string* name;
    size_t count;
  };
  std::vector<const CountWait*> countWaits;
  void counted(const std::map<std::string, size_t>& counts, const std::string& name, size_t now);
  bool waitForCount(std::unique_lock<std::mutex>& lk, const std::map<std::string, size_t>& counts,
                    const std::string& name, size_t count, unsigned timeoutMs);
  std::vector<std::string> violationLog, pendingCallLog, uncaughtLog;
  int threadCounter = 0;

  Klass *kObject = nullptr, *kString = nullptr, *kClass = nullptr, *kClassLoader = nullptr,
        *kThrowable = nullptr;
  Obj* callback = nullptr;
  Obj* appLoader = nullptr;     // loader of the application classes
  Obj* systemLoader = nullptr;  // ClassLoader.getSystemClassLoader()

  // --- class set (lock held) ---
  Klass* defineClass(const std::string& name, Klass* super, bool app, bool isAbstract = false);
  Method* defineMethod(Klass* k, const std::string& name, const std::string& sig, bool isStatic,
                       Builtin b = {});
  Klass* lookup(const std::string& name, bool includeRemoved = false);  // arrays made on demand
  Klass* arrayOf(Klass* comp);
  Klass* primArray(char e);
  Klass* classOfDescriptor(const std::string& desc);  // "Lx;" or "[..."; null for primitives/unknown
  bool visibleTo(Klass* k, bool appClasses) const;
  Obj* loaderOf(Klass* k) const;
  bool assignable(Klass* from, Klass* to) const;
  bool instanceOf(Obj* o, Klass* k) const { return !o || assignable(o->cls, k); }
  Method* declared(Klass* k, const std::string& name, const std::string& sig) const;
  Method* findMethod(Klass* k, const std::string& name, const std::string& sig, bool isStatic);
  Target dispatch(Klass* start, Method* m, bool isVirtual);
  void defineBuiltins();

  // --- objects (lock held) ---
  Obj* newObj(Klass* k);
  Obj* newString(const std::u16string& s);
  Obj* newPrimArray(char e, size_t n);
  Obj* newObjArray(Klass* comp, size_t n);
  Obj* newThrowable(const std::string& cls, const std::string& msg);
  std::string describe(const Obj* o) const;
  static size_t elemSize(char e);

  // --- references (lock held) ---
  jobject addRef(Obj* o, RefKind kind, ThreadState* ts, const std::string& made);
  jobject javaRef(Obj* o);
  bool refIndex(jobject h, size_t& idx) const;
  Obj* peek(jobject h, const char* what) const;  // test side: no violation; throws on bad handles
  size_t liveLocals(const ThreadState* ts) const;
  void killFrame(Frame& f, const std::string& why);

  // --- threads (lock held) ---
  ThreadState* attach(DWORD tid, const std::string& name, bool daemon, bool javaThread);
  void detach(ThreadState* ts, const std::string& why);
  // The calling thread's state, when attached. Looks for ended threads only
  // when the state under the calling thread's id isn't its own (the id was
  // reused): asking the system whether a thread has ended is a round trip,
  // too slow for every JNI call.
  ThreadState* current();
  void reap();              // ends the states of threads that ended attached

  // --- values (lock held) ---
  Value toPublic(const Val& v);
  Val fromPublic(const Value& v, char want, const std::string& where);

  // --- records (lock held) ---
  void violate(const std::string& what);
  void recordCall(Klass* at, Method* m, Obj* self, const std::vector<Val>& args);
  void recordConstruction(Klass* k, Method* ctor, Obj* o, const std::vector<Val>& args);

  // Runs a method (handler without the lock, builtin with it). Returns the
  // result; threw tells whether it ended with a new exception pending.
  Val run(Ctx& c, const Target& t, Obj* self, const std::vector<Val>& args, bool& threw);
};

// Entry into the host from a JNIEnv function: takes the lock and checks the
// env, the thread, a pending exception and critical regions.
enum : unsigned { kAllowPending = 1u, kCriticalOk = 2u };

struct Ctx {
  Ctx(JNIEnv* env, std::string fn, unsigned flags = 0);
  Impl* h;
  ThreadState* ts;
  DWORD tid;
  std::string fn;
  std::unique_lock<std::mutex> lk;

  void violation(const std::string& what);
  Obj* obj(jobject ref, const std::string& what);
  Klass* klass(jclass c, const std::string& what);
  Method* method(jmethodID id);
  jobject local(Obj* o);
  void raise(const std::string& cls, const std::string& msg);
  std::vector<Val> decodeArgs(Method* m, ArgReader& rd);
};

const JNINativeInterface_* envFunctions();
const JNIInvokeInterface_* vmFunctions();

}  // namespace jnihost::detail
