// The JavaVM and JNIEnv function tables of the JNI test host. Every slot of
// both tables is filled: the functions below, or a trap that names the slot
// and ends the process.
#include "JniHostImpl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace jnihost::detail {

// --- entry checks -------------------------------------------------------------

Ctx::Ctx(JNIEnv* env, std::string f, unsigned flags)
    : h(reinterpret_cast<EnvBlock*>(env)->impl),
      ts(reinterpret_cast<EnvBlock*>(env)->ts),
      tid(GetCurrentThreadId()),
      fn(std::move(f)),
      lk(h->m) {
  if (!ts->attached)
    violation(cat("the JNIEnv of thread ", ts->tid, " (\"", ts->name, "\") was used after that thread detached"));
  else if (ts->tid != tid)
    violation(cat("the JNIEnv of thread ", ts->tid, " (\"", ts->name, "\") was used on another thread"));
  if (ts->pending && !(flags & kAllowPending)) {
    auto it = ts->pending->fields.find("message");
    std::string msg = it != ts->pending->fields.end() && it->second.o ? ": " + utf8Of(it->second.o->str) : "";
    std::string line = cat(fn, " on thread ", tid, " while ", ts->pending->cls->name, msg, " is pending");
    // A thread of the library's own, outside Java code, has no Java caller to
    // which the exception could still go: the VM would abort there.
    if (!ts->javaThread && ts->javaDepth == 0) h->violate(line);
    h->pendingCallLog.push_back(line);
  }
  if (ts->criticals > 0 && !(flags & kCriticalOk))
    violation("called inside a critical region (a Get...Critical pointer is not released yet)");
}

void Ctx::violation(const std::string& what) { h->violate(cat(fn, " on thread ", tid, ": ", what)); }

static const char* kindName(RefKind k) {
  switch (k) {
    case RefKind::Local: return "local";
    case RefKind::Global: return "global";
    case RefKind::Weak: return "weak global";
    default: return "Java-held";
  }
}

Obj* Ctx::obj(jobject ref, const std::string& what) {
  if (!ref) return nullptr;
  size_t i;
  if (!h->refIndex(ref, i)) {
    violation(cat(what, " ", hexOf(ref), " is not a reference"));
    return nullptr;
  }
  Ref& r = h->refs[i];
  if (!r.live)
    violation(cat(what, " is a ", kindName(r.kind), " reference that was ", r.freed, " (", h->describe(r.obj), ")"));
  else if (r.kind == RefKind::Local && r.ownerTid != tid)
    violation(cat(what, " is a local reference of thread ", r.ownerTid, " (", h->describe(r.obj), ")"));
  return r.obj;
}

Klass* Ctx::klass(jclass c, const std::string& what) {
  if (!c) {
    violation(cat(what, " is null"));
    return nullptr;
  }
  Obj* o = obj(c, what);
  if (!o) return nullptr;
  if (!o->mirror) {
    violation(cat(what, " is not a class but ", h->describe(o)));
    return nullptr;
  }
  return o->mirror;
}

Method* Ctx::method(jmethodID id) {
  if (!id) {
    violation("the method id is null");
    return nullptr;
  }
  if (!h->methodIds.count(id)) {
    violation(cat("the method id ", hexOf(id), " was not made by GetMethodID/GetStaticMethodID"));
    return nullptr;
  }
  return reinterpret_cast<Method*>(id);
}

jobject Ctx::local(Obj* o) { return h->addRef(o, RefKind::Local, ts, fn); }

void Ctx::raise(const std::string& cls, const std::string& msg) { ts->pending = h->newThrowable(cls, msg); }

std::vector<Val> Ctx::decodeArgs(Method* m, ArgReader& rd) {
  std::vector<Val> out;
  for (size_t i = 0; i < m->params.size(); ++i) {
    const std::string& p = m->params[i];
    char t = (p[0] == 'L' || p[0] == '[') ? 'L' : p[0];
    jvalue v = rd.next(t);
    if (t != 'L') {
      out.push_back(Val::prim(t, v));
      continue;
    }
    Obj* o = obj(v.l, cat("argument ", i + 1, " of ", m->describe()));
    if (o) {
      Klass* pk = h->classOfDescriptor(p);
      if (pk && !h->assignable(o->cls, pk))
        violation(cat("argument ", i + 1, " of ", m->describe(), " is a ", o->cls->name, ", not a ", pk->name));
    }
    out.push_back(Val::ref(o));
  }
  return out;
}

namespace {

// --- argument readers -------------------------------------------------------------

struct VaReader : ArgReader {
  va_list ap;
  explicit VaReader(va_list src) { va_copy(ap, src); }
  ~VaReader() override { va_end(ap); }
  // The C promotions: boolean, byte, char and short come as int, float as double.
  jvalue next(char t) override {
    jvalue r;
    r.j = 0;
    switch (t) {
      case 'Z': r.z = static_cast<jboolean>(va_arg(ap, int)) ? JNI_TRUE : JNI_FALSE; break;
      case 'B': r.b = static_cast<jbyte>(va_arg(ap, int)); break;
      case 'C': r.c = static_cast<jchar>(va_arg(ap, int)); break;
      case 'S': r.s = static_cast<jshort>(va_arg(ap, int)); break;
      case 'I': r.i = va_arg(ap, jint); break;
      case 'J': r.j = va_arg(ap, jlong); break;
      case 'F': r.f = static_cast<jfloat>(va_arg(ap, double)); break;
      case 'D': r.d = va_arg(ap, double); break;
      default: r.l = va_arg(ap, jobject); break;
    }
    return r;
  }
};

struct ArrayReader : ArgReader {
  const jvalue* a;
  size_t i = 0;
  explicit ArrayReader(const jvalue* args) : a(args) {}
  jvalue next(char t) override {
    jvalue r;
    r.j = 0;
    if (!a) return r;
    const jvalue& x = a[i++];
    switch (t) {
      case 'Z': r.z = x.z ? JNI_TRUE : JNI_FALSE; break;
      case 'B': r.b = x.b; break;
      case 'C': r.c = x.c; break;
      case 'S': r.s = x.s; break;
      case 'I': r.i = x.i; break;
      case 'J': r.j = x.j; break;
      case 'F': r.f = x.f; break;
      case 'D': r.d = x.d; break;
      default: r.l = x.l; break;
    }
    return r;
  }
};

Impl* implOf(JavaVM* vm) { return reinterpret_cast<VmBlock*>(vm)->impl; }

bool supportedVersion(jint v) {
  switch (v) {
    case JNI_VERSION_1_1: case JNI_VERSION_1_2: case JNI_VERSION_1_4: case JNI_VERSION_1_6:
    case JNI_VERSION_1_8: case JNI_VERSION_9: case JNI_VERSION_10: case JNI_VERSION_19:
    case JNI_VERSION_20: case JNI_VERSION_21:
      return true;
    default:
      return false;
  }
}

// --- JavaVM ----------------------------------------------------------------------------

jint JNICALL jh_DestroyJavaVM(JavaVM* vm) {
  Impl* h = implOf(vm);
  std::lock_guard<std::mutex> lk(h->m);
  h->violate(cat("DestroyJavaVM on thread ", GetCurrentThreadId(),
                 ": a library must not end the VM that loaded it (refused with JNI_ERR)"));
  return JNI_ERR;
}

jint attachThread(JavaVM* vm, void** penv, void* args, bool daemon, const char* fn) {
  Impl* h = implOf(vm);
  std::lock_guard<std::mutex> lk(h->m);
  DWORD tid = GetCurrentThreadId();
  if (!penv) {
    h->violate(cat(fn, " on thread ", tid, ": the env pointer is null"));
    return JNI_ERR;
  }
  std::string name;
  if (args) {
    const JavaVMAttachArgs* a = static_cast<const JavaVMAttachArgs*>(args);
    if (!supportedVersion(a->version) || a->version == JNI_VERSION_1_1) {
      *penv = nullptr;
      return JNI_EVERSION;
    }
    if (a->name) name = a->name;
  }
  ThreadState* ts = h->current();
  if (!ts) ts = h->attach(tid, name, daemon, false);
  *penv = &ts->block.env;
  return JNI_OK;
}

jint JNICALL jh_AttachCurrentThread(JavaVM* vm, void** penv, void* args) {
  return attachThread(vm, penv, args, false, "AttachCurrentThread");
}

jint JNICALL jh_AttachCurrentThreadAsDaemon(JavaVM* vm, void** penv, void* args) {
  return attachThread(vm, penv, args, true, "AttachCurrentThreadAsDaemon");
}

jint JNICALL jh_DetachCurrentThread(JavaVM* vm) {
  Impl* h = implOf(vm);
  std::lock_guard<std::mutex> lk(h->m);
  ThreadState* ts = h->current();
  if (!ts) return JNI_OK;
  if (ts->javaThread || ts->javaDepth > 0) {
    h->violate(cat("DetachCurrentThread on thread ", ts->tid,
                   ", which runs Java code (a VM refuses with JNI_ERR)"));
    return JNI_ERR;
  }
  h->detach(ts, cat("freed when thread ", ts->tid, " detached"));
  return JNI_OK;
}

jint JNICALL jh_GetEnv(JavaVM* vm, void** penv, jint version) {
  Impl* h = implOf(vm);
  std::lock_guard<std::mutex> lk(h->m);
  if (!penv) {
    h->violate(cat("GetEnv on thread ", GetCurrentThreadId(), ": the env pointer is null"));
    return JNI_ERR;
  }
  ThreadState* ts = h->current();
  if (!ts) {
    *penv = nullptr;
    return JNI_EDETACHED;
  }
  if (!supportedVersion(version)) {
    *penv = nullptr;
    return JNI_EVERSION;
  }
  *penv = &ts->block.env;
  return JNI_OK;
}

// --- JNIEnv: version, classes, exceptions -------------------------------------------

jint JNICALL jh_GetVersion(JNIEnv* env) {
  Ctx c(env, "GetVersion");
  return JNI_VERSION_21;
}

jclass JNICALL jh_FindClass(JNIEnv* env, const char* name) {
  Ctx c(env, "FindClass");
  if (!name) {
    c.violation("the class name is null");
    c.raise("java/lang/NoClassDefFoundError", "No class name given");
    return nullptr;
  }
  std::string n = name;
  bool appVisible = c.h->opt.appClassesVisibleToNativeThreads || c.ts->javaThread || c.ts->javaDepth > 0;
  Klass* k = n.find('.') == std::string::npos ? c.h->lookup(n) : nullptr;
  if (k && !c.h->visibleTo(k, appVisible)) k = nullptr;
  if (!k) {
    c.raise("java/lang/NoClassDefFoundError", n);
    return nullptr;
  }
  return static_cast<jclass>(c.local(k->mirror));
}

jclass JNICALL jh_GetSuperclass(JNIEnv* env, jclass cls) {
  Ctx c(env, "GetSuperclass");
  Klass* k = c.klass(cls, "the class");
  return k && k->super ? static_cast<jclass>(c.local(k->super->mirror)) : nullptr;
}

jboolean JNICALL jh_IsAssignableFrom(JNIEnv* env, jclass from, jclass to) {
  Ctx c(env, "IsAssignableFrom");
  Klass* a = c.klass(from, "the first class");
  Klass* b = c.klass(to, "the second class");
  return a && b && c.h->assignable(a, b) ? JNI_TRUE : JNI_FALSE;
}

jint JNICALL jh_Throw(JNIEnv* env, jthrowable t) {
  Ctx c(env, "Throw");
  Obj* o = c.obj(t, "the throwable");
  if (!o) {
    c.violation("the throwable is null");
    return JNI_ERR;
  }
  if (!c.h->assignable(o->cls, c.h->kThrowable)) {
    c.violation(cat(c.h->describe(o), " is not a Throwable"));
    return JNI_ERR;
  }
  c.ts->pending = o;
  return JNI_OK;
}

jint JNICALL jh_ThrowNew(JNIEnv* env, jclass cls, const char* msg) {
  Ctx c(env, "ThrowNew");
  Klass* k = c.klass(cls, "the class");
  if (!k) return JNI_ERR;
  if (!c.h->assignable(k, c.h->kThrowable)) {
    c.violation(cat(k->name, " is not a Throwable class"));
    return JNI_ERR;
  }
  if (k->isAbstract) {
    c.raise("java/lang/InstantiationException", dotted(k->name));
    return JNI_OK;
  }
  const std::string sig = "(Ljava/lang/String;)V";
  Method* ctor = c.h->declared(k, "<init>", sig);
  if (!ctor || ctor->removed) {
    c.raise("java/lang/NoSuchMethodError", cat(dotted(k->name), ".<init>", sig));
    return JNI_OK;
  }
  Obj* o = c.h->newObj(k);
  std::vector<Val> args{Val::ref(msg ? c.h->newString(decodeModifiedUtf8(msg)) : nullptr)};
  c.h->recordConstruction(k, ctor, o, args);
  bool threw = false;
  c.h->run(c, c.h->dispatch(k, ctor, false), o, args, threw);
  if (!threw) c.ts->pending = o;
  return JNI_OK;
}

jthrowable JNICALL jh_ExceptionOccurred(JNIEnv* env) {
  Ctx c(env, "ExceptionOccurred", kAllowPending);
  return static_cast<jthrowable>(c.local(c.ts->pending));
}

void JNICALL jh_ExceptionDescribe(JNIEnv* env) {
  Ctx c(env, "ExceptionDescribe", kAllowPending);
  Obj* e = c.ts->pending;
  if (!e) return;
  auto it = e->fields.find("message");
  Obj* msg = it != e->fields.end() ? it->second.o : nullptr;
  std::fprintf(stderr, "%s%s\n\tat (native code on thread \"%s\")\n", dotted(e->cls->name).c_str(),
               msg ? (": " + utf8Of(msg->str)).c_str() : "", c.ts->name.c_str());
  std::fflush(stderr);
  c.ts->pending = nullptr;
}

void JNICALL jh_ExceptionClear(JNIEnv* env) {
  Ctx c(env, "ExceptionClear", kAllowPending);
  c.ts->pending = nullptr;
}

jboolean JNICALL jh_ExceptionCheck(JNIEnv* env) {
  Ctx c(env, "ExceptionCheck", kAllowPending);
  return c.ts->pending ? JNI_TRUE : JNI_FALSE;
}

void JNICALL jh_FatalError(JNIEnv* env, const char* msg) {
  Ctx c(env, "FatalError", kAllowPending);
  c.violation(cat("FatalError: ", msg ? msg : "(null)"));
  std::fprintf(stderr, "FATAL ERROR in native method: %s\n", msg ? msg : "(null)");
  std::fflush(stderr);
  std::abort();
}

// --- references -------------------------------------------------------------------------

jint JNICALL jh_PushLocalFrame(JNIEnv* env, jint capacity) {
  Ctx c(env, "PushLocalFrame", kAllowPending);
  if (capacity < 0) return JNI_ERR;
  c.ts->frames.emplace_back();
  c.ts->frames.back().pushed = true;
  return JNI_OK;
}

jobject JNICALL jh_PopLocalFrame(JNIEnv* env, jobject result) {
  Ctx c(env, "PopLocalFrame", kAllowPending);
  Obj* r = c.obj(result, "the result");
  if (!c.ts->frames.back().pushed) {
    c.violation("no local frame of PushLocalFrame to pop");
    return c.local(r);
  }
  c.h->killFrame(c.ts->frames.back(), cat("freed by PopLocalFrame on thread ", c.tid));
  c.ts->frames.pop_back();
  return c.local(r);
}

jobject JNICALL jh_NewGlobalRef(JNIEnv* env, jobject ref) {
  Ctx c(env, "NewGlobalRef");
  Obj* o = c.obj(ref, "the reference");
  return c.h->addRef(o, RefKind::Global, c.ts, cat("NewGlobalRef on thread ", c.tid));
}

void deleteRef(Ctx& c, jobject ref, RefKind want) {
  if (!ref) return;
  size_t i;
  if (!c.h->refIndex(ref, i)) {
    c.violation(cat(hexOf(ref), " is not a reference"));
    return;
  }
  Ref& r = c.h->refs[i];
  if (want == RefKind::Local && r.kind == RefKind::Java) return;  // an argument a Java caller passed
  if (r.kind != want) {
    c.violation(cat("the reference is a ", kindName(r.kind), " reference, not a ", kindName(want), " one (",
                    c.h->describe(r.obj), ")"));
    return;
  }
  if (!r.live) {
    c.violation(cat("the ", kindName(r.kind), " reference was ", r.freed, " already (", c.h->describe(r.obj), ")"));
    return;
  }
  if (want == RefKind::Local && r.ownerTid != c.tid) {
    c.violation(cat("the reference is a local reference of thread ", r.ownerTid, " (", c.h->describe(r.obj), ")"));
    return;
  }
  r.live = false;
  r.freed = cat("deleted by ", c.fn, " on thread ", c.tid);
}

void JNICALL jh_DeleteGlobalRef(JNIEnv* env, jobject ref) {
  Ctx c(env, "DeleteGlobalRef", kAllowPending);
  deleteRef(c, ref, RefKind::Global);
}

void JNICALL jh_DeleteLocalRef(JNIEnv* env, jobject ref) {
  Ctx c(env, "DeleteLocalRef", kAllowPending);
  deleteRef(c, ref, RefKind::Local);
}

jweak JNICALL jh_NewWeakGlobalRef(JNIEnv* env, jobject ref) {
  Ctx c(env, "NewWeakGlobalRef");
  Obj* o = c.obj(ref, "the reference");
  return static_cast<jweak>(c.h->addRef(o, RefKind::Weak, c.ts, cat("NewWeakGlobalRef on thread ", c.tid)));
}

void JNICALL jh_DeleteWeakGlobalRef(JNIEnv* env, jweak ref) {
  Ctx c(env, "DeleteWeakGlobalRef", kAllowPending);
  deleteRef(c, ref, RefKind::Weak);
}

jboolean JNICALL jh_IsSameObject(JNIEnv* env, jobject a, jobject b) {
  Ctx c(env, "IsSameObject");
  return c.obj(a, "the first reference") == c.obj(b, "the second reference") ? JNI_TRUE : JNI_FALSE;
}

jobject JNICALL jh_NewLocalRef(JNIEnv* env, jobject ref) {
  Ctx c(env, "NewLocalRef");
  return c.local(c.obj(ref, "the reference"));
}

jint JNICALL jh_EnsureLocalCapacity(JNIEnv* env, jint capacity) {
  Ctx c(env, "EnsureLocalCapacity");
  return capacity < 0 ? JNI_ERR : JNI_OK;
}

jobjectRefType JNICALL jh_GetObjectRefType(JNIEnv* env, jobject ref) {
  Ctx c(env, "GetObjectRefType");
  size_t i;
  if (!ref || !c.h->refIndex(ref, i)) return JNIInvalidRefType;
  const Ref& r = c.h->refs[i];
  if (!r.live) return JNIInvalidRefType;
  switch (r.kind) {
    case RefKind::Global: return JNIGlobalRefType;
    case RefKind::Weak: return JNIWeakGlobalRefType;
    case RefKind::Java: return JNILocalRefType;
    default: return r.ownerTid == c.tid ? JNILocalRefType : JNIInvalidRefType;
  }
}

jint JNICALL jh_GetJavaVM(JNIEnv* env, JavaVM** vm) {
  Ctx c(env, "GetJavaVM");
  if (!vm) {
    c.violation("the JavaVM pointer is null");
    return JNI_ERR;
  }
  *vm = &c.h->vmb.vm;
  return JNI_OK;
}

// --- objects ----------------------------------------------------------------------------

jobject JNICALL jh_AllocObject(JNIEnv* env, jclass cls) {
  Ctx c(env, "AllocObject");
  Klass* k = c.klass(cls, "the class");
  if (!k) return nullptr;
  if (k->isAbstract || k->isArray() || k == c.h->kClass) {
    c.raise("java/lang/InstantiationException", dotted(k->name));
    return nullptr;
  }
  return c.local(k == c.h->kString ? c.h->newString(u"") : c.h->newObj(k));
}

jobject newObjectCore(JNIEnv* env, const char* fn, jclass cls, jmethodID mid, ArgReader& rd, bool arrayMissing) {
  Ctx c(env, fn);
  Method* m = c.method(mid);
  if (!m) return nullptr;
  if (arrayMissing && !m->params.empty()) c.violation("the argument array is null");
  std::vector<Val> args = c.decodeArgs(m, rd);
  Klass* k = c.klass(cls, "the class");
  if (!k) return nullptr;
  if (m->name != "<init>") {
    c.violation(cat(m->describe(), " is not a constructor"));
    return nullptr;
  }
  if (k->isArray()) {
    c.violation(cat(k->name, " is an array class"));
    return nullptr;
  }
  if (!c.h->assignable(k, m->owner)) {
    c.violation(cat("the constructor ", m->describe(), " cannot make a ", k->name));
    return nullptr;
  }
  if (k->isAbstract || k == c.h->kClass) {
    c.raise("java/lang/InstantiationException", dotted(k->name));
    return nullptr;
  }
  Obj* o = k == c.h->kString ? c.h->newString(u"") : c.h->newObj(k);
  c.h->recordConstruction(k, m, o, args);
  bool threw = false;
  c.h->run(c, c.h->dispatch(k, m, false), o, args, threw);
  return threw ? nullptr : c.local(o);
}

jobject JNICALL jh_NewObject(JNIEnv* env, jclass cls, jmethodID mid, ...) {
  va_list ap;
  va_start(ap, mid);
  jobject r;
  {
    VaReader rd(ap);
    r = newObjectCore(env, "NewObject", cls, mid, rd, false);
  }
  va_end(ap);
  return r;
}

jobject JNICALL jh_NewObjectV(JNIEnv* env, jclass cls, jmethodID mid, va_list ap) {
  VaReader rd(ap);
  return newObjectCore(env, "NewObjectV", cls, mid, rd, false);
}

jobject JNICALL jh_NewObjectA(JNIEnv* env, jclass cls, jmethodID mid, const jvalue* args) {
  ArrayReader rd(args);
  return newObjectCore(env, "NewObjectA", cls, mid, rd, args == nullptr);
}

jclass JNICALL jh_GetObjectClass(JNIEnv* env, jobject obj) {
  Ctx c(env, "GetObjectClass");
  Obj* o = c.obj(obj, "the object");
  if (!o) {
    c.violation("the object is null");
    return nullptr;
  }
  return static_cast<jclass>(c.local(o->cls->mirror));
}

jboolean JNICALL jh_IsInstanceOf(JNIEnv* env, jobject obj, jclass cls) {
  Ctx c(env, "IsInstanceOf");
  Obj* o = c.obj(obj, "the object");
  Klass* k = c.klass(cls, "the class");
  if (!k) return JNI_FALSE;
  return c.h->instanceOf(o, k) ? JNI_TRUE : JNI_FALSE;
}

// --- methods ------------------------------------------------------------------------------

jmethodID methodId(JNIEnv* env, const char* fn, jclass cls, const char* name, const char* sig, bool isStatic) {
  Ctx c(env, fn);
  Klass* k = c.klass(cls, "the class");
  if (!k) return nullptr;
  if (!name || !sig) {
    c.violation("the method name or signature is null");
    c.raise("java/lang/NoSuchMethodError", name ? name : "");
    return nullptr;
  }
  Method* m = c.h->findMethod(k, name, sig, isStatic);
  if (!m) {
    c.raise("java/lang/NoSuchMethodError", cat(isStatic ? "static " : "", dotted(k->name), ".", name, sig));
    return nullptr;
  }
  return reinterpret_cast<jmethodID>(m);
}

jmethodID JNICALL jh_GetMethodID(JNIEnv* env, jclass cls, const char* name, const char* sig) {
  return methodId(env, "GetMethodID", cls, name, sig, false);
}

jmethodID JNICALL jh_GetStaticMethodID(JNIEnv* env, jclass cls, const char* name, const char* sig) {
  return methodId(env, "GetStaticMethodID", cls, name, sig, true);
}

enum class Kind { Virtual, Nonvirtual, Static };

jvalue invokeCore(JNIEnv* env, const std::string& fn, char want, Kind kind, jobject obj, jclass cls,
                  jmethodID mid, ArgReader& rd, bool arrayMissing) {
  Ctx c(env, fn);
  jvalue zero;
  zero.j = 0;
  Method* m = c.method(mid);
  if (!m) return zero;
  if (arrayMissing && !m->params.empty()) c.violation("the argument array is null");
  std::vector<Val> args = c.decodeArgs(m, rd);
  if (m->retType() != want)
    c.violation(cat(m->describe(), " returns ", m->ret, ", but was called with ", fn));
  Obj* self = nullptr;
  if (kind == Kind::Static) {
    if (!m->isStatic) {
      c.violation(cat(m->describe(), " is not a static method"));
      return zero;
    }
    Klass* k = c.klass(cls, "the class");
    if (!k) return zero;
    if (!c.h->assignable(k, m->owner)) {
      c.violation(cat(m->describe(), " is not a method of ", k->name));
      return zero;
    }
  } else {
    if (m->isStatic) {
      c.violation(cat(m->describe(), " is a static method"));
      return zero;
    }
    self = c.obj(obj, "the object");
    if (!self) {
      c.violation(cat(m->describe(), " was called on null"));
      c.raise("java/lang/NullPointerException", "");
      return zero;
    }
    if (!c.h->assignable(self->cls, m->owner)) {
      c.violation(cat(m->describe(), " was called on an object of class ", self->cls->name));
      return zero;
    }
    if (kind == Kind::Nonvirtual) {
      Klass* k = c.klass(cls, "the class");
      if (!k) return zero;
      if (!c.h->assignable(k, m->owner) || !c.h->assignable(self->cls, k)) {
        c.violation(cat(m->describe(), " called non-virtually as a method of ", k->name, " on a ", self->cls->name));
        return zero;
      }
    }
  }
  Target t = c.h->dispatch(self ? self->cls : nullptr, m, kind == Kind::Virtual);
  c.h->recordCall(t.at, t.m, self, args);
  bool threw = false;
  Val r = c.h->run(c, t, self, args, threw);
  jvalue out;
  out.j = 0;
  if (want == 'L')
    out.l = r.t == 'L' ? c.local(r.o) : nullptr;
  else if (r.t != 'L')
    out = r.v;
  return out;
}

#define JH_CALLS(Name, Type, Code, Field)                                                                  \
  Type JNICALL jh_Call##Name##Method(JNIEnv* env, jobject obj, jmethodID mid, ...) {                       \
    va_list ap;                                                                                            \
    va_start(ap, mid);                                                                                     \
    jvalue r;                                                                                              \
    {                                                                                                      \
      VaReader rd(ap);                                                                                     \
      r = invokeCore(env, "Call" #Name "Method", Code, Kind::Virtual, obj, nullptr, mid, rd, false);       \
    }                                                                                                      \
    va_end(ap);                                                                                            \
    return r.Field;                                                                                        \
  }                                                                                                        \
  Type JNICALL jh_Call##Name##MethodV(JNIEnv* env, jobject obj, jmethodID mid, va_list ap) {               \
    VaReader rd(ap);                                                                                       \
    return invokeCore(env, "Call" #Name "MethodV", Code, Kind::Virtual, obj, nullptr, mid, rd, false)      \
        .Field;                                                                                            \
  }                                                                                                        \
  Type JNICALL jh_Call##Name##MethodA(JNIEnv* env, jobject obj, jmethodID mid, const jvalue* args) {       \
    ArrayReader rd(args);                                                                                  \
    return invokeCore(env, "Call" #Name "MethodA", Code, Kind::Virtual, obj, nullptr, mid, rd, !args)      \
        .Field;                                                                                            \
  }                                                                                                        \
  Type JNICALL jh_CallNonvirtual##Name##Method(JNIEnv* env, jobject obj, jclass cls, jmethodID mid, ...) { \
    va_list ap;                                                                                            \
    va_start(ap, mid);                                                                                     \
    jvalue r;                                                                                              \
    {                                                                                                      \
      VaReader rd(ap);                                                                                     \
      r = invokeCore(env, "CallNonvirtual" #Name "Method", Code, Kind::Nonvirtual, obj, cls, mid, rd,      \
                     false);                                                                               \
    }                                                                                                      \
    va_end(ap);                                                                                            \
    return r.Field;                                                                                        \
  }                                                                                                        \
  Type JNICALL jh_CallNonvirtual##Name##MethodV(JNIEnv* env, jobject obj, jclass cls, jmethodID mid,       \
                                                va_list ap) {                                              \
    VaReader rd(ap);                                                                                       \
    return invokeCore(env, "CallNonvirtual" #Name "MethodV", Code, Kind::Nonvirtual, obj, cls, mid, rd,    \
                      false)                                                                               \
        .Field;                                                                                            \
  }                                                                                                        \
  Type JNICALL jh_CallNonvirtual##Name##MethodA(JNIEnv* env, jobject obj, jclass cls, jmethodID mid,       \
                                                const jvalue* args) {                                      \
    ArrayReader rd(args);                                                                                  \
    return invokeCore(env, "CallNonvirtual" #Name "MethodA", Code, Kind::Nonvirtual, obj, cls, mid, rd,    \
                      !args)                                                                               \
        .Field;                                                                                            \
  }                                                                                                        \
  Type JNICALL jh_CallStatic##Name##Method(JNIEnv* env, jclass cls, jmethodID mid, ...) {                  \
    va_list ap;                                                                                            \
    va_start(ap, mid);                                                                                     \
    jvalue r;                                                                                              \
    {                                                                                                      \
      VaReader rd(ap);                                                                                     \
      r = invokeCore(env, "CallStatic" #Name "Method", Code, Kind::Static, nullptr, cls, mid, rd, false);  \
    }                                                                                                      \
    va_end(ap);                                                                                            \
    return r.Field;                                                                                        \
  }                                                                                                        \
  Type JNICALL jh_CallStatic##Name##MethodV(JNIEnv* env, jclass cls, jmethodID mid, va_list ap) {          \
    VaReader rd(ap);                                                                                       \
    return invokeCore(env, "CallStatic" #Name "MethodV", Code, Kind::Static, nullptr, cls, mid, rd, false) \
        .Field;                                                                                            \
  }                                                                                                        \
  Type JNICALL jh_CallStatic##Name##MethodA(JNIEnv* env, jclass cls, jmethodID mid, const jvalue* args) {  \
    ArrayReader rd(args);                                                                                  \
    return invokeCore(env, "CallStatic" #Name "MethodA", Code, Kind::Static, nullptr, cls, mid, rd, !args) \
        .Field;                                                                                            \
  }

JH_CALLS(Object, jobject, 'L', l)
JH_CALLS(Boolean, jboolean, 'Z', z)
JH_CALLS(Byte, jbyte, 'B', b)
JH_CALLS(Char, jchar, 'C', c)
JH_CALLS(Short, jshort, 'S', s)
JH_CALLS(Int, jint, 'I', i)
JH_CALLS(Long, jlong, 'J', j)
JH_CALLS(Float, jfloat, 'F', f)
JH_CALLS(Double, jdouble, 'D', d)
#undef JH_CALLS

void JNICALL jh_CallVoidMethod(JNIEnv* env, jobject obj, jmethodID mid, ...) {
  va_list ap;
  va_start(ap, mid);
  {
    VaReader rd(ap);
    invokeCore(env, "CallVoidMethod", 'V', Kind::Virtual, obj, nullptr, mid, rd, false);
  }
  va_end(ap);
}
void JNICALL jh_CallVoidMethodV(JNIEnv* env, jobject obj, jmethodID mid, va_list ap) {
  VaReader rd(ap);
  invokeCore(env, "CallVoidMethodV", 'V', Kind::Virtual, obj, nullptr, mid, rd, false);
}
void JNICALL jh_CallVoidMethodA(JNIEnv* env, jobject obj, jmethodID mid, const jvalue* args) {
  ArrayReader rd(args);
  invokeCore(env, "CallVoidMethodA", 'V', Kind::Virtual, obj, nullptr, mid, rd, !args);
}
void JNICALL jh_CallNonvirtualVoidMethod(JNIEnv* env, jobject obj, jclass cls, jmethodID mid, ...) {
  va_list ap;
  va_start(ap, mid);
  {
    VaReader rd(ap);
    invokeCore(env, "CallNonvirtualVoidMethod", 'V', Kind::Nonvirtual, obj, cls, mid, rd, false);
  }
  va_end(ap);
}
void JNICALL jh_CallNonvirtualVoidMethodV(JNIEnv* env, jobject obj, jclass cls, jmethodID mid, va_list ap) {
  VaReader rd(ap);
  invokeCore(env, "CallNonvirtualVoidMethodV", 'V', Kind::Nonvirtual, obj, cls, mid, rd, false);
}
void JNICALL jh_CallNonvirtualVoidMethodA(JNIEnv* env, jobject obj, jclass cls, jmethodID mid, const jvalue* args) {
  ArrayReader rd(args);
  invokeCore(env, "CallNonvirtualVoidMethodA", 'V', Kind::Nonvirtual, obj, cls, mid, rd, !args);
}
void JNICALL jh_CallStaticVoidMethod(JNIEnv* env, jclass cls, jmethodID mid, ...) {
  va_list ap;
  va_start(ap, mid);
  {
    VaReader rd(ap);
    invokeCore(env, "CallStaticVoidMethod", 'V', Kind::Static, nullptr, cls, mid, rd, false);
  }
  va_end(ap);
}
void JNICALL jh_CallStaticVoidMethodV(JNIEnv* env, jclass cls, jmethodID mid, va_list ap) {
  VaReader rd(ap);
  invokeCore(env, "CallStaticVoidMethodV", 'V', Kind::Static, nullptr, cls, mid, rd, false);
}
void JNICALL jh_CallStaticVoidMethodA(JNIEnv* env, jclass cls, jmethodID mid, const jvalue* args) {
  ArrayReader rd(args);
  invokeCore(env, "CallStaticVoidMethodA", 'V', Kind::Static, nullptr, cls, mid, rd, !args);
}

// --- strings -------------------------------------------------------------------------------

Obj* stringArg(Ctx& c, jstring s) {
  Obj* o = c.obj(s, "the string");
  if (!o) {
    c.violation("the string is null");
    return nullptr;
  }
  if (!o->isString) {
    c.violation(cat(c.h->describe(o), " is not a string"));
    return nullptr;
  }
  return o;
}

void* pin(Ctx& c, PinKind kind, Obj* o, const void* data, size_t bytes) {
  void* p = std::malloc(bytes ? bytes : 1);
  if (bytes) std::memcpy(p, data, bytes);
  Pin pn{kind, o, c.ts, c.tid, cat(c.fn, " on thread ", c.tid)};
  c.h->pinned.emplace(p, pn);
  if (kind == PinKind::StringCritical || kind == PinKind::ArrayCritical) c.ts->criticals++;
  return p;
}

// Ends a pin (mode 0 or JNI_ABORT) or writes it back (mode 0 or JNI_COMMIT).
void unpin(Ctx& c, PinKind kind, jobject ref, const void* ptr, jint mode) {
  auto it = c.h->pinned.find(const_cast<void*>(ptr));
  if (!ptr || it == c.h->pinned.end()) {
    c.violation(cat("releases ", hexOf(ptr), ", which is not a pointer handed out (never taken, or released already)"));
    return;
  }
  Pin& p = it->second;
  if (p.kind != kind) {
    c.violation(cat("releases a pointer that ", p.made, " handed out"));
    return;
  }
  Obj* o = c.obj(ref, "the object");
  if (o != p.obj) c.violation(cat("releases a pointer of ", c.h->describe(p.obj), " naming ", c.h->describe(o)));
  if (mode != 0 && mode != JNI_COMMIT && mode != JNI_ABORT) c.violation(cat("unknown release mode ", mode));
  if ((kind == PinKind::ArrayElements || kind == PinKind::ArrayCritical) && mode != JNI_ABORT &&
      !p.obj->prim.empty())
    std::memcpy(p.obj->prim.data(), ptr, p.obj->prim.size());
  if (mode == JNI_COMMIT && (kind == PinKind::ArrayElements || kind == PinKind::ArrayCritical)) return;
  if (kind == PinKind::StringCritical || kind == PinKind::ArrayCritical) p.ts->criticals--;
  std::free(it->first);
  c.h->pinned.erase(it);
}

jstring JNICALL jh_NewString(JNIEnv* env, const jchar* chars, jsize len) {
  Ctx c(env, "NewString");
  if (len < 0 || (!chars && len > 0)) {
    c.violation(cat("bad characters (", hexOf(chars), ", length ", len, ")"));
    return nullptr;
  }
  std::u16string s(static_cast<size_t>(len), u'\0');
  if (len) std::memcpy(&s[0], chars, static_cast<size_t>(len) * sizeof(jchar));
  return static_cast<jstring>(c.local(c.h->newString(s)));
}

jsize JNICALL jh_GetStringLength(JNIEnv* env, jstring str) {
  Ctx c(env, "GetStringLength");
  Obj* s = stringArg(c, str);
  return s ? static_cast<jsize>(s->str.size()) : 0;
}

const jchar* JNICALL jh_GetStringChars(JNIEnv* env, jstring str, jboolean* isCopy) {
  Ctx c(env, "GetStringChars");
  Obj* s = stringArg(c, str);
  if (!s) return nullptr;
  std::u16string z = s->str;
  z.push_back(u'\0');
  if (isCopy) *isCopy = JNI_TRUE;
  return static_cast<const jchar*>(pin(c, PinKind::StringChars, s, z.data(), z.size() * sizeof(jchar)));
}

void JNICALL jh_ReleaseStringChars(JNIEnv* env, jstring str, const jchar* chars) {
  Ctx c(env, "ReleaseStringChars", kAllowPending);
  unpin(c, PinKind::StringChars, str, chars, 0);
}

jstring JNICALL jh_NewStringUTF(JNIEnv* env, const char* utf) {
  Ctx c(env, "NewStringUTF");
  if (!utf) return nullptr;
  return static_cast<jstring>(c.local(c.h->newString(decodeModifiedUtf8(utf))));
}

jsize JNICALL jh_GetStringUTFLength(JNIEnv* env, jstring str) {
  Ctx c(env, "GetStringUTFLength");
  Obj* s = stringArg(c, str);
  return s ? static_cast<jsize>(encodeModifiedUtf8(s->str).size()) : 0;
}

const char* JNICALL jh_GetStringUTFChars(JNIEnv* env, jstring str, jboolean* isCopy) {
  Ctx c(env, "GetStringUTFChars");
  Obj* s = stringArg(c, str);
  if (!s) return nullptr;
  std::string u = encodeModifiedUtf8(s->str);
  if (isCopy) *isCopy = JNI_TRUE;
  return static_cast<const char*>(pin(c, PinKind::StringUTF, s, u.c_str(), u.size() + 1));
}

void JNICALL jh_ReleaseStringUTFChars(JNIEnv* env, jstring str, const char* chars) {
  Ctx c(env, "ReleaseStringUTFChars", kAllowPending);
  unpin(c, PinKind::StringUTF, str, chars, 0);
}

bool stringRange(Ctx& c, Obj* s, jsize start, jsize len) {
  if (start < 0 || len < 0 || static_cast<size_t>(start) + static_cast<size_t>(len) > s->str.size()) {
    c.raise("java/lang/StringIndexOutOfBoundsException",
            cat("offset ", start, ", count ", len, ", length ", s->str.size()));
    return false;
  }
  return true;
}

void JNICALL jh_GetStringRegion(JNIEnv* env, jstring str, jsize start, jsize len, jchar* buf) {
  Ctx c(env, "GetStringRegion");
  Obj* s = stringArg(c, str);
  if (!s || !stringRange(c, s, start, len)) return;
  if (len > 0) std::memcpy(buf, s->str.data() + start, static_cast<size_t>(len) * sizeof(jchar));
}

void JNICALL jh_GetStringUTFRegion(JNIEnv* env, jstring str, jsize start, jsize len, char* buf) {
  Ctx c(env, "GetStringUTFRegion");
  Obj* s = stringArg(c, str);
  if (!s || !stringRange(c, s, start, len)) return;
  std::string u = encodeModifiedUtf8(s->str.substr(static_cast<size_t>(start), static_cast<size_t>(len)));
  std::memcpy(buf, u.c_str(), u.size() + 1);
}

const jchar* JNICALL jh_GetStringCritical(JNIEnv* env, jstring str, jboolean* isCopy) {
  Ctx c(env, "GetStringCritical", kCriticalOk);
  Obj* s = stringArg(c, str);
  if (!s) return nullptr;
  std::u16string z = s->str;
  z.push_back(u'\0');
  if (isCopy) *isCopy = JNI_TRUE;
  return static_cast<const jchar*>(pin(c, PinKind::StringCritical, s, z.data(), z.size() * sizeof(jchar)));
}

void JNICALL jh_ReleaseStringCritical(JNIEnv* env, jstring str, const jchar* chars) {
  Ctx c(env, "ReleaseStringCritical", kAllowPending | kCriticalOk);
  unpin(c, PinKind::StringCritical, str, chars, 0);
}

// --- arrays ---------------------------------------------------------------------------------

Obj* arrayArg(Ctx& c, jobject a, char elem) {
  Obj* o = c.obj(a, "the array");
  if (!o) {
    c.violation("the array is null");
    return nullptr;
  }
  if (!o->cls->isArray()) {
    c.violation(cat(c.h->describe(o), " is not an array"));
    return nullptr;
  }
  if (elem == '*') {
    if (o->elem == 'L') {
      c.violation(cat(c.h->describe(o), " is not an array of a primitive type"));
      return nullptr;
    }
  } else if (elem && o->elem != elem) {
    c.violation(cat(c.h->describe(o), " is not a ", elem == 'L' ? std::string("reference") : cat("[", elem),
                    " array"));
    return nullptr;
  }
  return o;
}

bool arrayRange(Ctx& c, Obj* a, jsize start, jsize len) {
  if (start < 0 || len < 0 || static_cast<size_t>(start) + static_cast<size_t>(len) > a->length) {
    c.raise("java/lang/ArrayIndexOutOfBoundsException",
            cat("Array region ", start, "..", static_cast<long long>(start) + len, " out of bounds for length ",
                a->length));
    return false;
  }
  return true;
}

jsize JNICALL jh_GetArrayLength(JNIEnv* env, jarray arr) {
  Ctx c(env, "GetArrayLength");
  Obj* a = arrayArg(c, arr, 0);
  return a ? static_cast<jsize>(a->length) : 0;
}

jobjectArray JNICALL jh_NewObjectArray(JNIEnv* env, jsize len, jclass cls, jobject init) {
  Ctx c(env, "NewObjectArray");
  Klass* k = c.klass(cls, "the element class");
  Obj* i = c.obj(init, "the initial element");
  if (!k) return nullptr;
  if (len < 0) {
    c.raise("java/lang/NegativeArraySizeException", cat(len));
    return nullptr;
  }
  Obj* a = c.h->newObjArray(k, static_cast<size_t>(len));
  for (Obj*& e : a->elems) e = i;
  return static_cast<jobjectArray>(c.local(a));
}

jobject JNICALL jh_GetObjectArrayElement(JNIEnv* env, jobjectArray arr, jsize index) {
  Ctx c(env, "GetObjectArrayElement");
  Obj* a = arrayArg(c, arr, 'L');
  if (!a) return nullptr;
  if (index < 0 || static_cast<size_t>(index) >= a->length) {
    c.raise("java/lang/ArrayIndexOutOfBoundsException",
            cat("Index ", index, " out of bounds for length ", a->length));
    return nullptr;
  }
  return c.local(a->elems[static_cast<size_t>(index)]);
}

void JNICALL jh_SetObjectArrayElement(JNIEnv* env, jobjectArray arr, jsize index, jobject value) {
  Ctx c(env, "SetObjectArrayElement");
  Obj* a = arrayArg(c, arr, 'L');
  Obj* v = c.obj(value, "the value");
  if (!a) return;
  if (index < 0 || static_cast<size_t>(index) >= a->length) {
    c.raise("java/lang/ArrayIndexOutOfBoundsException",
            cat("Index ", index, " out of bounds for length ", a->length));
    return;
  }
  if (v && !c.h->assignable(v->cls, a->cls->component)) {
    c.raise("java/lang/ArrayStoreException", dotted(v->cls->name));
    return;
  }
  a->elems[static_cast<size_t>(index)] = v;
}

template <class T>
struct Prim;
#define JH_PRIM(T, Code, Name, Arr)          \
  template <>                                \
  struct Prim<T> {                           \
    static constexpr char code = Code;       \
    static constexpr const char* name = Name; \
    using Array = Arr;                       \
  };
JH_PRIM(jboolean, 'Z', "Boolean", jbooleanArray)
JH_PRIM(jbyte, 'B', "Byte", jbyteArray)
JH_PRIM(jchar, 'C', "Char", jcharArray)
JH_PRIM(jshort, 'S', "Short", jshortArray)
JH_PRIM(jint, 'I', "Int", jintArray)
JH_PRIM(jlong, 'J', "Long", jlongArray)
JH_PRIM(jfloat, 'F', "Float", jfloatArray)
JH_PRIM(jdouble, 'D', "Double", jdoubleArray)
#undef JH_PRIM

template <class T>
typename Prim<T>::Array JNICALL jh_NewArray(JNIEnv* env, jsize len) {
  Ctx c(env, cat("New", Prim<T>::name, "Array"));
  if (len < 0) {
    c.raise("java/lang/NegativeArraySizeException", cat(len));
    return nullptr;
  }
  return static_cast<typename Prim<T>::Array>(c.local(c.h->newPrimArray(Prim<T>::code, static_cast<size_t>(len))));
}

template <class T>
T* JNICALL jh_GetArrayElements(JNIEnv* env, typename Prim<T>::Array arr, jboolean* isCopy) {
  Ctx c(env, cat("Get", Prim<T>::name, "ArrayElements"));
  Obj* a = arrayArg(c, arr, Prim<T>::code);
  if (!a) return nullptr;
  if (isCopy) *isCopy = JNI_TRUE;
  return static_cast<T*>(pin(c, PinKind::ArrayElements, a, a->prim.data(), a->prim.size()));
}

template <class T>
void JNICALL jh_ReleaseArrayElements(JNIEnv* env, typename Prim<T>::Array arr, T* elems, jint mode) {
  Ctx c(env, cat("Release", Prim<T>::name, "ArrayElements"), kAllowPending);
  unpin(c, PinKind::ArrayElements, arr, elems, mode);
}

template <class T>
void JNICALL jh_GetArrayRegion(JNIEnv* env, typename Prim<T>::Array arr, jsize start, jsize len, T* buf) {
  Ctx c(env, cat("Get", Prim<T>::name, "ArrayRegion"));
  Obj* a = arrayArg(c, arr, Prim<T>::code);
  if (!a || !arrayRange(c, a, start, len)) return;
  if (len > 0) std::memcpy(buf, a->prim.data() + static_cast<size_t>(start) * sizeof(T), static_cast<size_t>(len) * sizeof(T));
}

template <class T>
void JNICALL jh_SetArrayRegion(JNIEnv* env, typename Prim<T>::Array arr, jsize start, jsize len, const T* buf) {
  Ctx c(env, cat("Set", Prim<T>::name, "ArrayRegion"));
  Obj* a = arrayArg(c, arr, Prim<T>::code);
  if (!a || !arrayRange(c, a, start, len)) return;
  if (len > 0) std::memcpy(a->prim.data() + static_cast<size_t>(start) * sizeof(T), buf, static_cast<size_t>(len) * sizeof(T));
}

void* JNICALL jh_GetPrimitiveArrayCritical(JNIEnv* env, jarray arr, jboolean* isCopy) {
  Ctx c(env, "GetPrimitiveArrayCritical", kCriticalOk);
  Obj* a = arrayArg(c, arr, '*');
  if (!a) return nullptr;
  if (isCopy) *isCopy = JNI_TRUE;
  return pin(c, PinKind::ArrayCritical, a, a->prim.data(), a->prim.size());
}

void JNICALL jh_ReleasePrimitiveArrayCritical(JNIEnv* env, jarray arr, void* carray, jint mode) {
  Ctx c(env, "ReleasePrimitiveArrayCritical", kAllowPending | kCriticalOk);
  unpin(c, PinKind::ArrayCritical, arr, carray, mode);
}

// --- traps -----------------------------------------------------------------------------------

constexpr size_t kEnvSlots = sizeof(JNINativeInterface_) / sizeof(void*);
constexpr size_t kVmSlots = sizeof(JNIInvokeInterface_) / sizeof(void*);
static_assert(kEnvSlots == 235, "the JNIEnv table of JDK 21's jni.h has 235 slots");
static_assert(kVmSlots == 8, "the JavaVM table has 8 slots");

const char* const kEnvSlotNames[kEnvSlots] = {
    "reserved0", "reserved1", "reserved2", "reserved3", "GetVersion", "DefineClass", "FindClass",
    "FromReflectedMethod", "FromReflectedField", "ToReflectedMethod", "GetSuperclass", "IsAssignableFrom",
    "ToReflectedField", "Throw", "ThrowNew", "ExceptionOccurred", "ExceptionDescribe", "ExceptionClear",
    "FatalError", "PushLocalFrame", "PopLocalFrame", "NewGlobalRef", "DeleteGlobalRef", "DeleteLocalRef",
    "IsSameObject", "NewLocalRef", "EnsureLocalCapacity", "AllocObject", "NewObject", "NewObjectV", "NewObjectA",
    "GetObjectClass", "IsInstanceOf", "GetMethodID", "CallObjectMethod", "CallObjectMethodV", "CallObjectMethodA",
    "CallBooleanMethod", "CallBooleanMethodV", "CallBooleanMethodA", "CallByteMethod", "CallByteMethodV",
    "CallByteMethodA", "CallCharMethod", "CallCharMethodV", "CallCharMethodA", "CallShortMethod",
    "CallShortMethodV", "CallShortMethodA", "CallIntMethod", "CallIntMethodV", "CallIntMethodA", "CallLongMethod",
    "CallLongMethodV", "CallLongMethodA", "CallFloatMethod", "CallFloatMethodV", "CallFloatMethodA",
    "CallDoubleMethod", "CallDoubleMethodV", "CallDoubleMethodA", "CallVoidMethod", "CallVoidMethodV",
    "CallVoidMethodA", "CallNonvirtualObjectMethod", "CallNonvirtualObjectMethodV", "CallNonvirtualObjectMethodA",
    "CallNonvirtualBooleanMethod", "CallNonvirtualBooleanMethodV", "CallNonvirtualBooleanMethodA",
    "CallNonvirtualByteMethod", "CallNonvirtualByteMethodV", "CallNonvirtualByteMethodA", "CallNonvirtualCharMethod",
    "CallNonvirtualCharMethodV", "CallNonvirtualCharMethodA", "CallNonvirtualShortMethod",
    "CallNonvirtualShortMethodV", "CallNonvirtualShortMethodA", "CallNonvirtualIntMethod",
    "CallNonvirtualIntMethodV", "CallNonvirtualIntMethodA", "CallNonvirtualLongMethod", "CallNonvirtualLongMethodV",
    "CallNonvirtualLongMethodA", "CallNonvirtualFloatMethod", "CallNonvirtualFloatMethodV",
    "CallNonvirtualFloatMethodA", "CallNonvirtualDoubleMethod", "CallNonvirtualDoubleMethodV",
    "CallNonvirtualDoubleMethodA", "CallNonvirtualVoidMethod", "CallNonvirtualVoidMethodV",
    "CallNonvirtualVoidMethodA", "GetFieldID", "GetObjectField", "GetBooleanField", "GetByteField", "GetCharField",
    "GetShortField", "GetIntField", "GetLongField", "GetFloatField", "GetDoubleField", "SetObjectField",
    "SetBooleanField", "SetByteField", "SetCharField", "SetShortField", "SetIntField", "SetLongField",
    "SetFloatField", "SetDoubleField", "GetStaticMethodID", "CallStaticObjectMethod", "CallStaticObjectMethodV",
    "CallStaticObjectMethodA", "CallStaticBooleanMethod", "CallStaticBooleanMethodV", "CallStaticBooleanMethodA",
    "CallStaticByteMethod", "CallStaticByteMethodV", "CallStaticByteMethodA", "CallStaticCharMethod",
    "CallStaticCharMethodV", "CallStaticCharMethodA", "CallStaticShortMethod", "CallStaticShortMethodV",
    "CallStaticShortMethodA", "CallStaticIntMethod", "CallStaticIntMethodV", "CallStaticIntMethodA",
    "CallStaticLongMethod", "CallStaticLongMethodV", "CallStaticLongMethodA", "CallStaticFloatMethod",
    "CallStaticFloatMethodV", "CallStaticFloatMethodA", "CallStaticDoubleMethod", "CallStaticDoubleMethodV",
    "CallStaticDoubleMethodA", "CallStaticVoidMethod", "CallStaticVoidMethodV", "CallStaticVoidMethodA",
    "GetStaticFieldID", "GetStaticObjectField", "GetStaticBooleanField", "GetStaticByteField", "GetStaticCharField",
    "GetStaticShortField", "GetStaticIntField", "GetStaticLongField", "GetStaticFloatField", "GetStaticDoubleField",
    "SetStaticObjectField", "SetStaticBooleanField", "SetStaticByteField", "SetStaticCharField",
    "SetStaticShortField", "SetStaticIntField", "SetStaticLongField", "SetStaticFloatField", "SetStaticDoubleField",
    "NewString", "GetStringLength", "GetStringChars", "ReleaseStringChars", "NewStringUTF", "GetStringUTFLength",
    "GetStringUTFChars", "ReleaseStringUTFChars", "GetArrayLength", "NewObjectArray", "GetObjectArrayElement",
    "SetObjectArrayElement", "NewBooleanArray", "NewByteArray", "NewCharArray", "NewShortArray", "NewIntArray",
    "NewLongArray", "NewFloatArray", "NewDoubleArray", "GetBooleanArrayElements", "GetByteArrayElements",
    "GetCharArrayElements", "GetShortArrayElements", "GetIntArrayElements", "GetLongArrayElements",
    "GetFloatArrayElements", "GetDoubleArrayElements", "ReleaseBooleanArrayElements", "ReleaseByteArrayElements",
    "ReleaseCharArrayElements", "ReleaseShortArrayElements", "ReleaseIntArrayElements", "ReleaseLongArrayElements",
    "ReleaseFloatArrayElements", "ReleaseDoubleArrayElements", "GetBooleanArrayRegion", "GetByteArrayRegion",
    "GetCharArrayRegion", "GetShortArrayRegion", "GetIntArrayRegion", "GetLongArrayRegion", "GetFloatArrayRegion",
    "GetDoubleArrayRegion", "SetBooleanArrayRegion", "SetByteArrayRegion", "SetCharArrayRegion",
    "SetShortArrayRegion", "SetIntArrayRegion", "SetLongArrayRegion", "SetFloatArrayRegion", "SetDoubleArrayRegion",
    "RegisterNatives", "UnregisterNatives", "MonitorEnter", "MonitorExit", "GetJavaVM", "GetStringRegion",
    "GetStringUTFRegion", "GetPrimitiveArrayCritical", "ReleasePrimitiveArrayCritical", "GetStringCritical",
    "ReleaseStringCritical", "NewWeakGlobalRef", "DeleteWeakGlobalRef", "ExceptionCheck", "NewDirectByteBuffer",
    "GetDirectBufferAddress", "GetDirectBufferCapacity", "GetObjectRefType", "GetModule", "IsVirtualThread"};

const char* const kVmSlotNames[kVmSlots] = {"reserved0",           "reserved1",   "reserved2",
                                            "DestroyJavaVM",       "AttachCurrentThread",
                                            "DetachCurrentThread", "GetEnv",      "AttachCurrentThreadAsDaemon"};

[[noreturn]] void trapHit(const char* table, size_t index, const char* name) {
  std::fprintf(stderr,
               "jnihost: the %s slot %u (%s) was called; the test host does not provide this function\n", table,
               static_cast<unsigned>(index), name);
  std::fflush(stderr);
  std::abort();
}

// Never returns, so the calling convention of the slot does not matter.
template <size_t N>
void trapEnv() {
  trapHit("JNIEnv function table", N, kEnvSlotNames[N]);
}

template <size_t N>
void trapVm() {
  trapHit("JavaVM function table", N, kVmSlotNames[N]);
}

template <size_t... I>
void fillEnvTraps(void** slots, std::index_sequence<I...>) {
  ((slots[I] = reinterpret_cast<void*>(&trapEnv<I>)), ...);
}

template <size_t... I>
void fillVmTraps(void** slots, std::index_sequence<I...>) {
  ((slots[I] = reinterpret_cast<void*>(&trapVm<I>)), ...);
}

JNINativeInterface_ makeEnvTable() {
  void* slots[kEnvSlots];
  fillEnvTraps(slots, std::make_index_sequence<kEnvSlots>{});
  JNINativeInterface_ t;
  std::memcpy(&t, slots, sizeof t);

  t.GetVersion = &jh_GetVersion;
  t.FindClass = &jh_FindClass;
  t.GetSuperclass = &jh_GetSuperclass;
  t.IsAssignableFrom = &jh_IsAssignableFrom;
  t.Throw = &jh_Throw;
  t.ThrowNew = &jh_ThrowNew;
  t.ExceptionOccurred = &jh_ExceptionOccurred;
  t.ExceptionDescribe = &jh_ExceptionDescribe;
  t.ExceptionClear = &jh_ExceptionClear;
  t.FatalError = &jh_FatalError;
  t.PushLocalFrame = &jh_PushLocalFrame;
  t.PopLocalFrame = &jh_PopLocalFrame;
  t.NewGlobalRef = &jh_NewGlobalRef;
  t.DeleteGlobalRef = &jh_DeleteGlobalRef;
  t.DeleteLocalRef = &jh_DeleteLocalRef;
  t.IsSameObject = &jh_IsSameObject;
  t.NewLocalRef = &jh_NewLocalRef;
  t.EnsureLocalCapacity = &jh_EnsureLocalCapacity;
  t.AllocObject = &jh_AllocObject;
  t.NewObject = &jh_NewObject;
  t.NewObjectV = &jh_NewObjectV;
  t.NewObjectA = &jh_NewObjectA;
  t.GetObjectClass = &jh_GetObjectClass;
  t.IsInstanceOf = &jh_IsInstanceOf;
  t.GetMethodID = &jh_GetMethodID;
  t.GetStaticMethodID = &jh_GetStaticMethodID;

#define JH_SET_CALLS(Name)                                                      \
  t.Call##Name##Method = &jh_Call##Name##Method;                                \
  t.Call##Name##MethodV = &jh_Call##Name##MethodV;                              \
  t.Call##Name##MethodA = &jh_Call##Name##MethodA;                              \
  t.CallNonvirtual##Name##Method = &jh_CallNonvirtual##Name##Method;            \
  t.CallNonvirtual##Name##MethodV = &jh_CallNonvirtual##Name##MethodV;          \
  t.CallNonvirtual##Name##MethodA = &jh_CallNonvirtual##Name##MethodA;          \
  t.CallStatic##Name##Method = &jh_CallStatic##Name##Method;                    \
  t.CallStatic##Name##MethodV = &jh_CallStatic##Name##MethodV;                  \
  t.CallStatic##Name##MethodA = &jh_CallStatic##Name##MethodA;
  JH_SET_CALLS(Object)
  JH_SET_CALLS(Boolean)
  JH_SET_CALLS(Byte)
  JH_SET_CALLS(Char)
  JH_SET_CALLS(Short)
  JH_SET_CALLS(Int)
  JH_SET_CALLS(Long)
  JH_SET_CALLS(Float)
  JH_SET_CALLS(Double)
  JH_SET_CALLS(Void)
#undef JH_SET_CALLS

  t.NewString = &jh_NewString;
  t.GetStringLength = &jh_GetStringLength;
  t.GetStringChars = &jh_GetStringChars;
  t.ReleaseStringChars = &jh_ReleaseStringChars;
  t.NewStringUTF = &jh_NewStringUTF;
  t.GetStringUTFLength = &jh_GetStringUTFLength;
  t.GetStringUTFChars = &jh_GetStringUTFChars;
  t.ReleaseStringUTFChars = &jh_ReleaseStringUTFChars;
  t.GetStringRegion = &jh_GetStringRegion;
  t.GetStringUTFRegion = &jh_GetStringUTFRegion;
  t.GetStringCritical = &jh_GetStringCritical;
  t.ReleaseStringCritical = &jh_ReleaseStringCritical;

  t.GetArrayLength = &jh_GetArrayLength;
  t.NewObjectArray = &jh_NewObjectArray;
  t.GetObjectArrayElement = &jh_GetObjectArrayElement;
  t.SetObjectArrayElement = &jh_SetObjectArrayElement;

#define JH_SET_ARRAYS(Name, T)                                        \
  t.New##Name##Array = &jh_NewArray<T>;                               \
  t.Get##Name##ArrayElements = &jh_GetArrayElements<T>;               \
  t.Release##Name##ArrayElements = &jh_ReleaseArrayElements<T>;       \
  t.Get##Name##ArrayRegion = &jh_GetArrayRegion<T>;                   \
  t.Set##Name##ArrayRegion = &jh_SetArrayRegion<T>;
  JH_SET_ARRAYS(Boolean, jboolean)
  JH_SET_ARRAYS(Byte, jbyte)
  JH_SET_ARRAYS(Char, jchar)
  JH_SET_ARRAYS(Short, jshort)
  JH_SET_ARRAYS(Int, jint)
  JH_SET_ARRAYS(Long, jlong)
  JH_SET_ARRAYS(Float, jfloat)
  JH_SET_ARRAYS(Double, jdouble)
#undef JH_SET_ARRAYS

  t.GetPrimitiveArrayCritical = &jh_GetPrimitiveArrayCritical;
  t.ReleasePrimitiveArrayCritical = &jh_ReleasePrimitiveArrayCritical;
  t.GetJavaVM = &jh_GetJavaVM;
  t.NewWeakGlobalRef = &jh_NewWeakGlobalRef;
  t.DeleteWeakGlobalRef = &jh_DeleteWeakGlobalRef;
  t.ExceptionCheck = &jh_ExceptionCheck;
  t.GetObjectRefType = &jh_GetObjectRefType;
  return t;
}

JNIInvokeInterface_ makeVmTable() {
  void* slots[kVmSlots];
  fillVmTraps(slots, std::make_index_sequence<kVmSlots>{});
  JNIInvokeInterface_ t;
  std::memcpy(&t, slots, sizeof t);
  t.DestroyJavaVM = &jh_DestroyJavaVM;
  t.AttachCurrentThread = &jh_AttachCurrentThread;
  t.DetachCurrentThread = &jh_DetachCurrentThread;
  t.GetEnv = &jh_GetEnv;
  t.AttachCurrentThreadAsDaemon = &jh_AttachCurrentThreadAsDaemon;
  return t;
}

}  // namespace

const JNINativeInterface_* envFunctions() {
  static const JNINativeInterface_ table = makeEnvTable();
  return &table;
}

const JNIInvokeInterface_* vmFunctions() {
  static const JNIInvokeInterface_ table = makeVmTable();
  return &table;
}

}  // namespace jnihost::detail
