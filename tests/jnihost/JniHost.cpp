// The JNI test host: object model, class set, threads and references, and the
// API that tests use. The JavaVM and JNIEnv tables are in JniFunctions.cpp.
#include "JniHostImpl.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace jnihost {

// --- Value -------------------------------------------------------------------

bool Value::operator==(const Value& o) const {
  if (type != o.type) return false;
  switch (type) {
    case 'Z': return (z != 0) == (o.z != 0);
    case 'B': return b == o.b;
    case 'C': return c == o.c;
    case 'S': return s == o.s;
    case 'I': return i == o.i;
    case 'J': return j == o.j;
    case 'F': return f == o.f;
    case 'D': return d == o.d;
    case 'L': return l == o.l;
    default: return true;
  }
}

std::string Value::toString() const {
  using detail::cat;
  switch (type) {
    case 'Z': return z ? "Z:true" : "Z:false";
    case 'B': return cat("B:", static_cast<int>(b));
    case 'C': return cat("C:", static_cast<unsigned>(c));
    case 'S': return cat("S:", s);
    case 'I': return cat("I:", i);
    case 'J': return cat("J:", j);
    case 'F': return cat("F:", f);
    case 'D': return cat("D:", d);
    case 'L': return cat("L:", detail::hexOf(l));
    default: return "V";
  }
}

namespace detail {

// --- text helpers ------------------------------------------------------------

std::string hexOf(const void* p) {
  std::ostringstream o;
  o << "0x" << std::hex << reinterpret_cast<uintptr_t>(p);
  return o.str();
}

std::string utf8Of(const std::u16string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    uint32_t c = s[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

static_assert(sizeof(wchar_t) == sizeof(char16_t), "wchar_t is UTF-16 on Windows");

std::u16string fromWide(const std::wstring& w) {
  std::u16string s(w.size(), u'\0');
  if (!w.empty()) std::memcpy(&s[0], w.data(), w.size() * sizeof(wchar_t));
  return s;
}

std::wstring toWide(const std::u16string& s) {
  std::wstring w(s.size(), L'\0');
  if (!s.empty()) std::memcpy(&w[0], s.data(), s.size() * sizeof(char16_t));
  return w;
}

// Modified UTF-8 as JNI uses it: U+0000 as C0 80, every UTF-16 unit (also
// each half of a surrogate pair) as one sequence of one to three bytes.
std::string encodeModifiedUtf8(const std::u16string& s) {
  std::string out;
  out.reserve(s.size());
  for (char16_t ch : s) {
    unsigned c = ch;
    if (c != 0 && c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// Reads modified UTF-8; also takes standard four-byte sequences (as
// surrogate pairs). A malformed byte becomes U+FFFD.
std::u16string decodeModifiedUtf8(const char* p) {
  std::u16string out;
  const unsigned char* s = reinterpret_cast<const unsigned char*>(p);
  auto cont = [&](size_t k) { return (s[k] & 0xC0) == 0x80; };
  for (size_t i = 0; s[i];) {
    unsigned c = s[i];
    if (c < 0x80) {
      out += static_cast<char16_t>(c);
      i += 1;
    } else if ((c & 0xE0) == 0xC0 && s[i + 1] && cont(i + 1)) {
      out += static_cast<char16_t>(((c & 0x1F) << 6) | (s[i + 1] & 0x3F));
      i += 2;
    } else if ((c & 0xF0) == 0xE0 && s[i + 1] && cont(i + 1) && s[i + 2] && cont(i + 2)) {
      out += static_cast<char16_t>(((c & 0x0F) << 12) | ((s[i + 1] & 0x3F) << 6) | (s[i + 2] & 0x3F));
      i += 3;
    } else if ((c & 0xF8) == 0xF0 && s[i + 1] && cont(i + 1) && s[i + 2] && cont(i + 2) && s[i + 3] &&
               cont(i + 3)) {
      uint32_t cp = ((c & 0x07) << 18) | ((s[i + 1] & 0x3F) << 12) | ((s[i + 2] & 0x3F) << 6) | (s[i + 3] & 0x3F);
      cp -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (cp >> 10));
      out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
      i += 4;
    } else {
      out += u'\xFFFD';
      i += 1;
    }
  }
  return out;
}

std::string dotted(const std::string& n) {
  std::string r = n;
  std::replace(r.begin(), r.end(), '/', '.');
  return r;
}

std::string slashed(const std::string& n) {
  std::string r = n;
  std::replace(r.begin(), r.end(), '.', '/');
  return r;
}

static std::u16string u16(const std::string& utf8) { return decodeModifiedUtf8(utf8.c_str()); }

static bool parseSignature(const std::string& sig, std::vector<std::string>& params, std::string& ret) {
  if (sig.size() < 3 || sig[0] != '(') return false;
  auto one = [&](size_t& i) -> std::string {
    size_t start = i;
    while (i < sig.size() && sig[i] == '[') ++i;
    if (i >= sig.size()) return "";
    char ch = sig[i];
    if (ch == 'L') {
      size_t e = sig.find(';', i);
      if (e == std::string::npos || e == i + 1) return "";
      i = e + 1;
    } else if (std::string("ZBCSIJFD").find(ch) != std::string::npos) {
      ++i;
    } else {
      return "";
    }
    return sig.substr(start, i - start);
  };
  size_t i = 1;
  while (i < sig.size() && sig[i] != ')') {
    std::string p = one(i);
    if (p.empty()) return false;
    params.push_back(p);
  }
  if (i >= sig.size()) return false;
  ++i;
  if (i + 1 == sig.size() && sig[i] == 'V') {
    ret = "V";
    return true;
  }
  std::string r = one(i);
  if (r.empty() || i != sig.size()) return false;
  ret = r;
  return true;
}

std::string Method::describe() const { return cat(owner->name, ".", name, sig); }

// --- Impl: construction -----------------------------------------------------

Impl::Impl(const JavaHost::Options& o) : opt(o) {
  vmb.vm.functions = vmFunctions();
  vmb.impl = this;
  defineBuiltins();
}

Impl::~Impl() {
  for (auto& p : pinned) std::free(p.first);
  for (auto& t : threads)
    if (t->handle) CloseHandle(t->handle);
}

// --- class set ------------------------------------------------------------------

Klass* Impl::defineClass(const std::string& name, Klass* super, bool app, bool isAbstract) {
  auto k = std::make_unique<Klass>();
  k->name = name;
  k->super = super;
  k->app = app;
  k->isAbstract = isAbstract;
  Klass* raw = k.get();
  classes[name] = std::move(k);
  if (kClass) {
    raw->mirror = newObj(kClass);
    raw->mirror->mirror = raw;
  }
  return raw;
}

Method* Impl::defineMethod(Klass* k, const std::string& name, const std::string& sig, bool isStatic, Builtin b) {
  auto m = std::make_unique<Method>();
  m->owner = k;
  m->name = name;
  m->sig = sig;
  m->isStatic = isStatic;
  if (!parseSignature(sig, m->params, m->ret))
    throw std::invalid_argument(cat("jnihost: malformed method signature \"", sig, "\""));
  if (name == "<init>" && (m->ret != "V" || isStatic))
    throw std::invalid_argument("jnihost: a constructor is an instance method returning V");
  m->builtin = std::move(b);
  Method* raw = m.get();
  k->methods.push_back(std::move(m));
  methodIds.insert(raw);
  return raw;
}

Klass* Impl::primArray(char e) {
  std::string name = cat("[", e);
  auto it = classes.find(name);
  if (it != classes.end()) return it->second.get();
  Klass* k = defineClass(name, kObject, false);
  k->elem = e;
  return k;
}

Klass* Impl::arrayOf(Klass* comp) {
  std::string name = comp->isArray() ? "[" + comp->name : "[L" + comp->name + ";";
  auto it = classes.find(name);
  if (it != classes.end()) return it->second.get();
  Klass* k = defineClass(name, kObject, comp->app);
  k->elem = 'L';
  k->component = comp;
  return k;
}

Klass* Impl::classOfDescriptor(const std::string& d) {
  if (d.size() >= 3 && d[0] == 'L' && d.back() == ';') return lookup(d.substr(1, d.size() - 2), true);
  if (d.size() >= 2 && d[0] == '[') return lookup(d, true);
  return nullptr;
}

Klass* Impl::lookup(const std::string& name, bool includeRemoved) {
  if (name.empty()) return nullptr;
  if (name[0] == '[') {
    if (name.size() == 2 && std::string("ZBCSIJFD").find(name[1]) != std::string::npos) return primArray(name[1]);
    std::string comp = name.substr(1);
    Klass* ck = nullptr;
    if (comp.size() >= 3 && comp[0] == 'L' && comp.back() == ';')
      ck = lookup(comp.substr(1, comp.size() - 2), includeRemoved);
    else if (comp.size() >= 2 && comp[0] == '[')
      ck = lookup(comp, includeRemoved);
    return ck ? arrayOf(ck) : nullptr;
  }
  auto it = classes.find(name);
  if (it == classes.end() || it->second->isArray()) return nullptr;
  if (it->second->removed && !includeRemoved) return nullptr;
  return it->second.get();
}

bool Impl::visibleTo(Klass* k, bool appClasses) const { return appClasses || !k->app; }

Obj* Impl::loaderOf(Klass* k) const { return k->app ? appLoader : nullptr; }

bool Impl::assignable(Klass* from, Klass* to) const {
  if (!from || !to) return false;
  if (from == to || to == kObject) return true;
  if (from->isArray()) {
    if (!to->isArray() || from->elem != 'L' || to->elem != 'L') return false;
    return assignable(from->component, to->component);
  }
  for (Klass* k = from->super; k; k = k->super)
    if (k == to) return true;
  return false;
}

Method* Impl::declared(Klass* k, const std::string& name, const std::string& sig) const {
  for (auto& m : k->methods)
    if (m->name == name && m->sig == sig) return m.get();
  return nullptr;
}

Method* Impl::findMethod(Klass* k, const std::string& name, const std::string& sig, bool isStatic) {
  if (name == "<init>" || name == "<clinit>") {
    if (isStatic) return nullptr;
    Method* d = declared(k, name, sig);
    return d && !d->removed ? d : nullptr;
  }
  for (Klass* c = k; c; c = c->super) {
    Method* d = declared(c, name, sig);
    if (d && !d->removed) return d->isStatic == isStatic ? d : nullptr;
  }
  return nullptr;
}

Target Impl::dispatch(Klass* start, Method* m, bool isVirtual) {
  Target t;
  t.m = m;
  t.at = m->owner;
  if (isVirtual && start && !m->isStatic && m->name != "<init>") {
    for (Klass* k = start; k; k = k->super) {
      // Most runs route nothing: no key of three strings is made for them.
      auto h = handlers.empty() ? handlers.end() : handlers.find({k->name, m->name, m->sig});
      Method* d = declared(k, m->name, m->sig);
      if (h != handlers.end()) {
        t.at = k;
        if (d) t.m = d;
        t.handler = h->second;
        return t;
      }
      if (d && !d->removed && !d->isStatic) {
        t.at = k;
        t.m = d;
        return t;
      }
    }
  }
  auto h = handlers.empty() ? handlers.end() : handlers.find({t.at->name, m->name, m->sig});
  if (h != handlers.end()) t.handler = h->second;
  return t;
}

// --- objects ---------------------------------------------------------------------

Obj* Impl::newObj(Klass* k) {
  auto o = std::make_unique<Obj>();
  o->id = objects.size() + 1;
  o->cls = k;
  objects.push_back(std::move(o));
  return objects.back().get();
}

Obj* Impl::newString(const std::u16string& s) {
  Obj* o = newObj(kString);
  o->isString = true;
  o->str = s;
  return o;
}

size_t Impl::elemSize(char e) {
  switch (e) {
    case 'Z': case 'B': return 1;
    case 'C': case 'S': return 2;
    case 'I': case 'F': return 4;
    case 'J': case 'D': return 8;
    default: return sizeof(void*);
  }
}

Obj* Impl::newPrimArray(char e, size_t n) {
  Obj* o = newObj(primArray(e));
  o->elem = e;
  o->length = n;
  o->prim.assign(n * elemSize(e), 0);
  return o;
}

Obj* Impl::newObjArray(Klass* comp, size_t n) {
  Obj* o = newObj(arrayOf(comp));
  o->elem = 'L';
  o->length = n;
  o->elems.assign(n, nullptr);
  return o;
}

Obj* Impl::newThrowable(const std::string& cls, const std::string& msg) {
  Klass* k = lookup(cls, true);
  if (!k) k = kThrowable;
  Obj* o = newObj(k);
  o->fields["message"] = Val::ref(msg.empty() ? nullptr : newString(u16(msg)));
  o->fields["cause"] = Val::ref(nullptr);
  return o;
}

std::string Impl::describe(const Obj* o) const {
  if (!o) return "null";
  if (o->isString) {
    std::string t = utf8Of(o->str);
    if (t.size() > 80) t = t.substr(0, 77) + "...";
    return cat("java/lang/String \"", t, "\"");
  }
  if (o->mirror) return cat("java/lang/Class ", o->mirror->name);
  if (o->cls->isArray()) return cat(o->cls->name, " of length ", o->length);
  return cat(o->cls->name, "@", o->id);
}

// --- references ----------------------------------------------------------------------

static constexpr uintptr_t kRefBase = 0x30000000u;
static constexpr uintptr_t kRefStride = 8;

jobject Impl::addRef(Obj* o, RefKind kind, ThreadState* ts, const std::string& made) {
  if (!o) return nullptr;
  Ref r;
  r.obj = o;
  r.kind = kind;
  r.owner = ts;
  r.ownerTid = ts ? ts->tid : 0;
  r.made = made;
  refs.push_back(std::move(r));
  size_t idx = refs.size() - 1;
  if (kind == RefKind::Local && ts) ts->frames.back().refs.push_back(idx);
  return reinterpret_cast<jobject>(kRefBase + idx * kRefStride);
}

jobject Impl::javaRef(Obj* o) {
  if (!o) return nullptr;
  if (o->javaRef == SIZE_MAX) {
    addRef(o, RefKind::Java, nullptr, "Java");
    o->javaRef = refs.size() - 1;
  }
  return reinterpret_cast<jobject>(kRefBase + o->javaRef * kRefStride);
}

bool Impl::refIndex(jobject h, size_t& idx) const {
  uintptr_t v = reinterpret_cast<uintptr_t>(h);
  if (v < kRefBase || (v - kRefBase) % kRefStride != 0) return false;
  idx = (v - kRefBase) / kRefStride;
  return idx < refs.size();
}

Obj* Impl::peek(jobject h, const char* what) const {
  if (!h) return nullptr;
  size_t idx;
  if (!refIndex(h, idx)) throw std::invalid_argument(cat("jnihost: ", what, ": ", hexOf(h), " is not a reference"));
  const Ref& r = refs[idx];
  if (!r.live)
    throw std::invalid_argument(cat("jnihost: ", what, ": ", hexOf(h), " (", describe(r.obj), ") was ", r.freed));
  return r.obj;
}

size_t Impl::liveLocals(const ThreadState* ts) const {
  size_t n = 0;
  for (const Frame& f : ts->frames)
    for (size_t i : f.refs)
      if (refs[i].live) ++n;
  return n;
}

void Impl::killFrame(Frame& f, const std::string& why) {
  for (size_t i : f.refs) {
    if (refs[i].live) {
      refs[i].live = false;
      refs[i].freed = why;
    }
  }
  f.refs.clear();
}

// --- threads ----------------------------------------------------------------------------

// A number of the calling thread that no other thread of the process has had
// or will have, unlike its id.
static std::uint64_t threadIdentity() {
  static std::atomic<std::uint64_t> last{0};
  thread_local std::uint64_t identity = ++last;
  return identity;
}


ThreadState* Impl::attach(DWORD tid, const std::string& name, bool daemon, bool javaThread) {
  auto ts = std::make_unique<ThreadState>();
  ts->block.env.functions = envFunctions();
  ts->block.impl = this;
  ts->block.ts = ts.get();
  ts->tid = tid;
  ts->name = name.empty() ? cat("Thread-", threadCounter++) : name;
  ts->daemon = daemon;
  ts->javaThread = javaThread;
  ts->frames.emplace_back();
  ts->identity = threadIdentity();
  DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &ts->handle,
                  SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION, FALSE, 0);
  ThreadState* raw = ts.get();
  threads.push_back(std::move(ts));
  attached[tid] = raw;
  return raw;
}

void Impl::detach(ThreadState* ts, const std::string& why) {
  for (Frame& f : ts->frames) killFrame(f, why);
  ts->frames.assign(1, Frame());
  ts->nativeFrames.clear();
  if (ts->pending) {
    Obj* e = ts->pending;
    ts->pending = nullptr;
    auto it = e->fields.find("message");
    Obj* msg = it != e->fields.end() ? it->second.o : nullptr;
    std::string line = cat("Exception in thread \"", ts->name, "\" ", dotted(e->cls->name),
                           msg ? ": " + utf8Of(msg->str) : std::string());
    std::fprintf(stderr, "%s\n", line.c_str());
    uncaughtLog.push_back(line);
  }
  ts->attached = false;
  if (ts->handle) {
    CloseHandle(ts->handle);
    ts->handle = nullptr;
  }
  auto it = attached.find(ts->tid);
  if (it != attached.end() && it->second == ts) attached.erase(it);
}

// A thread that ends while attached is never detached by a VM either: it
// stays a Java thread for good (and a VM waits for it at shutdown unless it
// is a daemon). For threads the library attached that is misuse.
void Impl::reap() {
  std::vector<ThreadState*> ended;
  for (auto& entry : attached)
    if (entry.second->handle && WaitForSingleObject(entry.second->handle, 0) == WAIT_OBJECT_0)
      ended.push_back(entry.second);
  for (ThreadState* ts : ended) {
    if (!ts->javaThread)
      violate(cat("thread ", ts->tid, " (\"", ts->name, "\") ended without DetachCurrentThread"));
    detach(ts, cat("freed when thread ", ts->tid, " ended"));
  }
}

ThreadState* Impl::current() {
  auto it = attached.find(GetCurrentThreadId());
  if (it == attached.end()) return nullptr;
  if (it->second->identity == threadIdentity()) return it->second;
  reap();  // the state of an ended thread whose id the caller now has
  it = attached.find(GetCurrentThreadId());
  return it == attached.end() ? nullptr : it->second;
}

// --- values -------------------------------------------------------------------------

Value Impl::toPublic(const Val& v) {
  Value r;
  r.type = v.t;
  switch (v.t) {
    case 'Z': r.z = v.v.z; break;
    case 'B': r.b = v.v.b; break;
    case 'C': r.c = v.v.c; break;
    case 'S': r.s = v.v.s; break;
    case 'I': r.i = v.v.i; break;
    case 'J': r.j = v.v.j; break;
    case 'F': r.f = v.v.f; break;
    case 'D': r.d = v.v.d; break;
    case 'L': r.l = javaRef(v.o); break;
    default: break;
  }
  return r;
}

Val Impl::fromPublic(const Value& v, char want, const std::string& where) {
  Val r = Val::zeroOf(want);
  if (want == 'V' || v.type == 'V') return r;
  if (want == 'L') {
    if (v.type != 'L') {
      std::fprintf(stderr, "jnihost: %s returned %s for a reference; null is used\n", where.c_str(),
                   v.toString().c_str());
      return r;
    }
    try {
      r.o = peek(v.l, where.c_str());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s; null is used\n", e.what());
    }
    return r;
  }
  if (v.type == 'L') {
    std::fprintf(stderr, "jnihost: %s returned a reference for %c; 0 is used\n", where.c_str(), want);
    return r;
  }
  bool isFloat = v.type == 'F' || v.type == 'D';
  double dv = 0;
  int64_t iv = 0;
  switch (v.type) {
    case 'Z': iv = v.z ? 1 : 0; break;
    case 'B': iv = v.b; break;
    case 'C': iv = v.c; break;
    case 'S': iv = v.s; break;
    case 'I': iv = v.i; break;
    case 'J': iv = v.j; break;
    case 'F': dv = v.f; break;
    case 'D': dv = v.d; break;
    default: break;
  }
  if (!isFloat) dv = static_cast<double>(iv);
  if (isFloat) iv = static_cast<int64_t>(dv);
  switch (want) {
    case 'Z': r.v.z = (isFloat ? dv != 0 : iv != 0) ? JNI_TRUE : JNI_FALSE; break;
    case 'B': r.v.b = static_cast<jbyte>(iv); break;
    case 'C': r.v.c = static_cast<jchar>(iv); break;
    case 'S': r.v.s = static_cast<jshort>(iv); break;
    case 'I': r.v.i = static_cast<jint>(iv); break;
    case 'J': r.v.j = static_cast<jlong>(iv); break;
    case 'F': r.v.f = static_cast<jfloat>(dv); break;
    case 'D': r.v.d = dv; break;
    default: break;
  }
  return r;
}

// --- records --------------------------------------------------------------------------

void Impl::violate(const std::string& what) {
  violationLog.push_back(what);
  std::fprintf(stderr, "jnihost: violation: %s\n", what.c_str());
  std::fflush(stderr);
}

void Impl::recordCall(Klass* at, Method* m, Obj* self, const std::vector<Val>& args) {
  counted(callCounts, m->name, ++callCounts[m->name]);
  if (!opt.recordCalls) return;
  Call c;
  c.className = at->name;
  c.method = m->name;
  c.signature = m->sig;
  for (const Val& a : args) c.args.push_back(toPublic(a));
  c.threadId = GetCurrentThreadId();
  c.self = javaRef(self);
  callLog.push_back(std::move(c));
}

void Impl::recordConstruction(Klass* k, Method* ctor, Obj* o, const std::vector<Val>& args) {
  counted(constructionCounts, k->name, ++constructionCounts[k->name]);
  if (!opt.recordCalls) return;
  Construction c;
  c.className = k->name;
  c.signature = ctor->sig;
  for (const Val& a : args) c.args.push_back(toPublic(a));
  c.threadId = GetCurrentThreadId();
  c.object = javaRef(o);
  constructionLog.push_back(std::move(c));
}

void Impl::counted(const std::map<std::string, size_t>& counts, const std::string& name, size_t now) {
  for (const CountWait* wait : countWaits) {
    if (wait->counts == &counts && now == wait->count && *wait->name == name) {
      cv.notify_all();
      return;
    }
  }
}

bool Impl::waitForCount(std::unique_lock<std::mutex>& lk, const std::map<std::string, size_t>& counts,
                        const std::string& name, size_t count, unsigned timeoutMs) {
  auto reached = [&] {
    auto it = counts.find(name);
    return it != counts.end() && it->second >= count;
  };
  const CountWait wait{&counts, &name, count};
  countWaits.push_back(&wait);
  const bool done = cv.wait_for(lk, std::chrono::milliseconds(timeoutMs), reached);
  countWaits.erase(std::find(countWaits.begin(), countWaits.end(), &wait));
  return done;
}

Val Impl::run(Ctx& c, const Target& t, Obj* self, const std::vector<Val>& args, bool& threw) {
  ThreadState* ts = c.ts;
  char rt = t.m->retType();
  // A Java method starts with no exception pending.
  Obj* saved = ts->pending;
  ts->pending = nullptr;
  Val out = Val::zeroOf(rt);
  if (t.handler) {
    size_t depth = ts->frames.size();
    ts->frames.emplace_back();
    ts->javaDepth++;
    jobject selfRef = javaRef(self);
    std::vector<Value> pub;
    for (const Val& a : args) pub.push_back(toPublic(a));
    JNIEnv* env = &ts->block.env;
    JavaHost::Handler handler = t.handler;
    std::string where = cat("the handler of ", t.at->name, ".", t.m->name, t.m->sig);
    Value result;
    std::string failure;
    c.lk.unlock();
    try {
      result = handler(env, selfRef, pub);
    } catch (const std::exception& e) {
      failure = e.what();
      if (failure.empty()) failure = "a C++ exception";
    } catch (...) {
      failure = "a C++ exception";
    }
    c.lk.lock();
    ts->javaDepth--;
    if (!failure.empty()) {
      std::fprintf(stderr, "jnihost: %s threw %s\n", where.c_str(), failure.c_str());
      ts->pending = newThrowable("java/lang/RuntimeException", cat(where, " threw: ", failure));
    } else if (!ts->pending) {
      out = fromPublic(result, rt, where);
    }
    while (ts->frames.size() > depth && ts->frames.size() > 1) {
      killFrame(ts->frames.back(), "freed when the Java method that made it returned");
      ts->frames.pop_back();
    }
  } else if (t.m->builtin) {
    out = t.m->builtin(c, self, args);
    if (out.t != rt) out = Val::zeroOf(rt);
  }
  threw = ts->pending != nullptr;
  if (threw)
    out = Val::zeroOf(rt);
  else
    ts->pending = saved;
  return out;
}

// --- the classes ----------------------------------------------------------------------

namespace {
using Args = const std::vector<Val>&;

Val fieldOr(Obj* self, const std::string& name, char t) {
  auto it = self->fields.find(name);
  return it != self->fields.end() ? it->second : Val::zeroOf(t);
}

std::string simpleName(const Klass* k) {
  if (k->isArray()) return k->component ? simpleName(k->component) + "[]" : k->name + "[]";
  size_t p = k->name.find_last_of("/$");
  return p == std::string::npos ? k->name : k->name.substr(p + 1);
}

std::string messageOf(Obj* t) {
  auto it = t->fields.find("message");
  if (it == t->fields.end() || !it->second.o) return std::string();
  return utf8Of(it->second.o->str);
}

std::string throwableText(Obj* t) {
  auto it = t->fields.find("message");
  bool has = it != t->fields.end() && it->second.o;
  return has ? cat(dotted(t->cls->name), ": ", messageOf(t)) : dotted(t->cls->name);
}

jint stringHash(const std::u16string& s) {
  uint32_t h = 0;
  for (char16_t ch : s) h = 31 * h + ch;
  return static_cast<jint>(h);
}

jint identityHash(const Obj* o) { return static_cast<jint>((o->id * 2654435761u) & 0x7FFFFFFF); }

// Constructor that stores its arguments as the named fields, and fixed values.
Builtin setFields(std::vector<std::string> names, std::vector<std::pair<std::string, Val>> fixed) {
  return [names, fixed](Ctx& c, Obj* self, Args a) {
    if (!c.h->opt.recordCalls) return Val();
    for (size_t i = 0; i < names.size() && i < a.size(); ++i)
      if (!names[i].empty()) self->fields[names[i]] = a[i];
    for (auto& f : fixed) self->fields[f.first] = f.second;
    return Val();
  };
}

Builtin getter(std::string name, char t) {
  return [name, t](Ctx&, Obj* self, Args) { return fieldOr(self, name, t); };
}
}  // namespace

void Impl::defineBuiltins() {
  // java/lang/Object and java/lang/Class come first; mirrors follow.
  kObject = defineClass("java/lang/Object", nullptr, false);
  Klass* cls = defineClass("java/lang/Class", kObject, false);
  kClass = cls;
  for (auto& entry : classes) {
    Klass* k = entry.second.get();
    if (!k->mirror) {
      k->mirror = newObj(kClass);
      k->mirror->mirror = k;
    }
  }
  const std::string S = "Ljava/lang/String;";
  Klass* O = kObject;

  defineMethod(O, "<init>", "()V", false);
  defineMethod(O, "getClass", "()Ljava/lang/Class;", false,
               [](Ctx&, Obj* self, Args) { return Val::ref(self->cls->mirror); });
  defineMethod(O, "hashCode", "()I", false, [](Ctx&, Obj* self, Args) { return Val::i(identityHash(self)); });
  defineMethod(O, "equals", "(Ljava/lang/Object;)Z", false,
               [](Ctx&, Obj* self, Args a) { return Val::z(self == a[0].o); });
  defineMethod(O, "toString", "()" + S, false, [](Ctx& c, Obj* self, Args) {
    std::ostringstream o;
    o << dotted(self->cls->name) << "@" << std::hex << identityHash(self);
    return Val::ref(c.h->newString(u16(o.str())));
  });

  // java/lang/String
  kString = defineClass("java/lang/String", O, false);
  defineMethod(kString, "<init>", "()V", false, [](Ctx&, Obj* self, Args) {
    self->isString = true;
    self->str.clear();
    return Val();
  });
  defineMethod(kString, "<init>", "(" + S + ")V", false, [](Ctx& c, Obj* self, Args a) {
    self->isString = true;
    if (!a[0].o) c.raise("java/lang/NullPointerException", "");
    else self->str = a[0].o->str;
    return Val();
  });
  defineMethod(kString, "length", "()I", false,
               [](Ctx&, Obj* self, Args) { return Val::i(static_cast<jint>(self->str.size())); });
  defineMethod(kString, "isEmpty", "()Z", false, [](Ctx&, Obj* self, Args) { return Val::z(self->str.empty()); });
  defineMethod(kString, "charAt", "(I)C", false, [](Ctx& c, Obj* self, Args a) {
    jint i = a[0].v.i;
    if (i < 0 || static_cast<size_t>(i) >= self->str.size()) {
      c.raise("java/lang/StringIndexOutOfBoundsException",
              cat("index ", i, ", length ", self->str.size()));
      return Val::zeroOf('C');
    }
    Val r = Val::zeroOf('C');
    r.v.c = self->str[static_cast<size_t>(i)];
    return r;
  });
  defineMethod(kString, "equals", "(Ljava/lang/Object;)Z", false, [](Ctx&, Obj* self, Args a) {
    return Val::z(a[0].o && a[0].o->isString && a[0].o->str == self->str);
  });
  defineMethod(kString, "hashCode", "()I", false, [](Ctx&, Obj* self, Args) { return Val::i(stringHash(self->str)); });
  defineMethod(kString, "toString", "()" + S, false, [](Ctx&, Obj* self, Args) { return Val::ref(self); });

  // java/lang/Class
  defineMethod(cls, "getName", "()" + S, false, [](Ctx& c, Obj* self, Args) {
    return Val::ref(c.h->newString(u16(dotted(self->mirror->name))));
  });
  defineMethod(cls, "getSimpleName", "()" + S, false, [](Ctx& c, Obj* self, Args) {
    return Val::ref(c.h->newString(u16(simpleName(self->mirror))));
  });
  defineMethod(cls, "toString", "()" + S, false, [](Ctx& c, Obj* self, Args) {
    return Val::ref(c.h->newString(u16("class " + dotted(self->mirror->name))));
  });
  defineMethod(cls, "getClassLoader", "()Ljava/lang/ClassLoader;", false, [](Ctx& c, Obj* self, Args) {
    Klass* k = self->mirror;
    while (k->isArray() && k->component) k = k->component;
    return Val::ref(k->isArray() ? nullptr : c.h->loaderOf(k));
  });
  defineMethod(cls, "getSuperclass", "()Ljava/lang/Class;", false, [](Ctx&, Obj* self, Args) {
    return Val::ref(self->mirror->super ? self->mirror->super->mirror : nullptr);
  });
  defineMethod(cls, "isInstance", "(Ljava/lang/Object;)Z", false, [](Ctx& c, Obj* self, Args a) {
    return Val::z(a[0].o && c.h->assignable(a[0].o->cls, self->mirror));
  });
  defineMethod(cls, "isAssignableFrom", "(Ljava/lang/Class;)Z", false, [](Ctx& c, Obj* self, Args a) {
    if (!a[0].o) {
      c.raise("java/lang/NullPointerException", "");
      return Val::z(false);
    }
    return Val::z(c.h->assignable(a[0].o->mirror, self->mirror));
  });
  defineMethod(cls, "forName", "(" + S + ")Ljava/lang/Class;", true, [](Ctx& c, Obj*, Args a) {
    if (!a[0].o) {
      c.raise("java/lang/NullPointerException", "");
      return Val::ref(nullptr);
    }
    std::string name = utf8Of(a[0].o->str);
    bool app = c.h->opt.appClassesVisibleToNativeThreads || c.ts->javaThread;
    Klass* k = name.find('/') == std::string::npos && name.find('[') == std::string::npos
                   ? c.h->lookup(slashed(name))
                   : nullptr;
    if (!k || !c.h->visibleTo(k, app)) {
      c.raise("java/lang/ClassNotFoundException", name);
      return Val::ref(nullptr);
    }
    return Val::ref(k->mirror);
  });

  // Class loaders: the application loader, and the system loader (the same
  // one unless the application classes come from a loader of their own).
  kClassLoader = defineClass("java/lang/ClassLoader", O, false, true);
  defineMethod(kClassLoader, "loadClass", "(" + S + ")Ljava/lang/Class;", false, [](Ctx& c, Obj* self, Args a) {
    Impl* h = c.h;
    if (!a[0].o) {
      c.raise("java/lang/NullPointerException", "");
      return Val::ref(nullptr);
    }
    std::string name = utf8Of(a[0].o->str);
    h->loadCounts[name]++;
    bool app = self != h->systemLoader || h->opt.appClassesVisibleToNativeThreads;
    Klass* k = name.find('/') == std::string::npos && name.find('[') == std::string::npos && !name.empty()
                   ? h->lookup(slashed(name))
                   : nullptr;
    if (!k || !h->visibleTo(k, app)) {
      c.raise("java/lang/ClassNotFoundException", name);
      return Val::ref(nullptr);
    }
    return Val::ref(k->mirror);
  });
  defineMethod(kClassLoader, "getParent", "()Ljava/lang/ClassLoader;", false, [](Ctx& c, Obj* self, Args) {
    return Val::ref(self == c.h->appLoader && c.h->appLoader != c.h->systemLoader ? c.h->systemLoader : nullptr);
  });
  defineMethod(kClassLoader, "getSystemClassLoader", "()Ljava/lang/ClassLoader;", true,
               [](Ctx& c, Obj*, Args) { return Val::ref(c.h->systemLoader); });
  Klass* appCl = defineClass("jdk/internal/loader/ClassLoaders$AppClassLoader", kClassLoader, false);
  Klass* urlCl = defineClass("java/net/URLClassLoader", kClassLoader, false);
  systemLoader = newObj(appCl);
  appLoader = opt.appClassesVisibleToNativeThreads ? systemLoader : newObj(urlCl);

  // Throwables.
  kThrowable = defineClass("java/lang/Throwable", O, false);
  auto noArg = [](Ctx&, Obj* self, Args) {
    self->fields["message"] = Val::ref(nullptr);
    self->fields["cause"] = Val::ref(nullptr);
    return Val();
  };
  auto withMessage = [](Ctx&, Obj* self, Args a) {
    self->fields["message"] = Val::ref(a[0].o);
    self->fields["cause"] = Val::ref(nullptr);
    return Val();
  };
  auto withBoth = [](Ctx&, Obj* self, Args a) {
    self->fields["message"] = Val::ref(a[0].o);
    self->fields["cause"] = Val::ref(a[1].o);
    return Val();
  };
  auto withCause = [](Ctx& c, Obj* self, Args a) {
    self->fields["message"] = Val::ref(a[0].o ? c.h->newString(u16(throwableText(a[0].o))) : nullptr);
    self->fields["cause"] = Val::ref(a[0].o);
    return Val();
  };
  auto throwable = [&](const std::string& name, Klass* super, bool causes, bool app = false) {
    Klass* k = name == "java/lang/Throwable" ? kThrowable : defineClass(name, super, app);
    if (!app) defineMethod(k, "<init>", "()V", false, noArg);
    defineMethod(k, "<init>", "(" + S + ")V", false, withMessage);
    if (causes) {
      defineMethod(k, "<init>", "(" + S + "Ljava/lang/Throwable;)V", false, withBoth);
      defineMethod(k, "<init>", "(Ljava/lang/Throwable;)V", false, withCause);
    }
    return k;
  };
  throwable("java/lang/Throwable", O, true);
  defineMethod(kThrowable, "getMessage", "()" + S, false, [](Ctx&, Obj* self, Args) { return fieldOr(self, "message", 'L'); });
  defineMethod(kThrowable, "getLocalizedMessage", "()" + S, false,
               [](Ctx&, Obj* self, Args) { return fieldOr(self, "message", 'L'); });
  defineMethod(kThrowable, "getCause", "()Ljava/lang/Throwable;", false,
               [](Ctx&, Obj* self, Args) { return fieldOr(self, "cause", 'L'); });
  defineMethod(kThrowable, "toString", "()" + S, false, [](Ctx& c, Obj* self, Args) {
    return Val::ref(c.h->newString(u16(throwableText(self))));
  });
  defineMethod(kThrowable, "printStackTrace", "()V", false, [](Ctx&, Obj* self, Args) {
    std::fprintf(stderr, "%s\n\tat (Java code of the test host)\n", throwableText(self).c_str());
    return Val();
  });
  Klass* exception = throwable("java/lang/Exception", kThrowable, true);
  Klass* runtime = throwable("java/lang/RuntimeException", exception, true);
  Klass* error = throwable("java/lang/Error", kThrowable, true);
  Klass* linkage = throwable("java/lang/LinkageError", error, false);
  throwable("java/lang/NoClassDefFoundError", linkage, false);
  Klass* icce = throwable("java/lang/IncompatibleClassChangeError", linkage, false);
  throwable("java/lang/NoSuchMethodError", icce, false);
  throwable("java/lang/NoSuchFieldError", icce, false);
  Klass* reflective = throwable("java/lang/ReflectiveOperationException", exception, true);
  throwable("java/lang/ClassNotFoundException", reflective, false);
  defineMethod(lookup("java/lang/ClassNotFoundException"), "<init>", "(" + S + "Ljava/lang/Throwable;)V", false,
               withBoth);
  throwable("java/lang/InstantiationException", reflective, false);
  Klass* vme = throwable("java/lang/VirtualMachineError", error, true);
  vme->isAbstract = true;
  throwable("java/lang/OutOfMemoryError", vme, false);
  Klass* ioobe = throwable("java/lang/IndexOutOfBoundsException", runtime, false);
  throwable("java/lang/ArrayIndexOutOfBoundsException", ioobe, false);
  throwable("java/lang/StringIndexOutOfBoundsException", ioobe, false);
  throwable("java/lang/NullPointerException", runtime, false);
  throwable("java/lang/ArrayStoreException", runtime, false);
  throwable("java/lang/NegativeArraySizeException", runtime, false);
  throwable("java/lang/ClassCastException", runtime, false);
  throwable("java/lang/IllegalArgumentException", runtime, true);
  throwable("java/lang/IllegalStateException", runtime, true);
  throwable("java/lang/UnsupportedOperationException", runtime, true);

  // The deskwright classes.
  const std::string P = "net/tolva/apps/cuebench/client/win/deskwright/";
  const std::string E = P + "event/";
  throwable(P + "InvalidHandleException", runtime, false, true);

  Klass* dw = defineClass(P + "DefaultDeskwright", O, true);
  defineMethod(dw, "<init>", "()V", false);
  defineMethod(dw, "filterEvent", "(L" + E + "WinEvent;)Z", false, [](Ctx&, Obj*, Args) { return Val::z(true); });
  defineMethod(dw, "onPrepareRecording", "(J)V", false);
  defineMethod(dw, "onDefaultCheck", "(J)V", false);
  defineMethod(dw, "onContextCheck", "(J)[" + S, false,
               [](Ctx& c, Obj*, Args) { return Val::ref(c.h->newObjArray(c.h->kString, 0)); });
  defineMethod(dw, "onCheckSelect", "(JI)V", false);
  callback = newObj(dw);

  const bool ts = opt.timestampedEvents;
  const std::pair<std::string, Val> noStamp{"timestamp", Val::j(0)};
  Klass* we = defineClass(E + "WinEvent", O, true);
  defineMethod(we, "<init>", "(IJI)V", false, setFields({"type", "handle", "code"}, {noStamp}));
  if (ts) defineMethod(we, "<init>", "(IJIJ)V", false, setFields({"type", "handle", "code", "timestamp"}, {}));
  defineMethod(we, "getType", "()I", false, getter("type", 'I'));
  defineMethod(we, "getHandle", "()J", false, getter("handle", 'J'));
  defineMethod(we, "getCode", "()I", false, getter("code", 'I'));
  defineMethod(we, "getTimestamp", "()J", false, getter("timestamp", 'J'));
  defineMethod(we, "toString", "()" + S, false, [](Ctx& c, Obj* self, Args) {
    std::string t = cat(simpleName(self->cls), "[type=", fieldOr(self, "type", 'I').v.i,
                        ", handle=", fieldOr(self, "handle", 'J').v.j, ", code=", fieldOr(self, "code", 'I').v.i,
                        ", timestamp=", fieldOr(self, "timestamp", 'J').v.j, "]");
    return Val::ref(c.h->newString(u16(t)));
  });

  Klass* cb = defineClass(E + "CallbackEvent", we, true);
  defineMethod(cb, "<init>", "()V", false,
               setFields({}, {{"type", Val::i(120)}, {"handle", Val::j(0)}, {"code", Val::i(0)}, noStamp}));

  Klass* ch = defineClass(E + "ChangeEvent", we, true);
  defineMethod(ch, "<init>", "(IJI)V", false, setFields({"type", "handle", "code"}, {noStamp}));

  Klass* kb = defineClass(E + "KeyboardEvent", we, true);
  const std::vector<std::string> kbFields = {"type", "handle", "code", "vk", "character", "shift", "ctrl", "alt"};
  defineMethod(kb, "<init>", "(IJIIIZZZ)V", false, setFields(kbFields, {noStamp}));
  if (ts) {
    auto f = kbFields;
    f.push_back("timestamp");
    defineMethod(kb, "<init>", "(IJIIIZZZJ)V", false, setFields(f, {}));
  }
  defineMethod(kb, "getVk", "()I", false, getter("vk", 'I'));
  defineMethod(kb, "getCharacter", "()I", false, getter("character", 'I'));
  defineMethod(kb, "isShift", "()Z", false, getter("shift", 'Z'));
  defineMethod(kb, "isCtrl", "()Z", false, getter("ctrl", 'Z'));
  defineMethod(kb, "isAlt", "()Z", false, getter("alt", 'Z'));

  Klass* ms = defineClass(E + "MouseEvent", we, true);
  const std::vector<std::string> msFields = {"type", "handle", "code", "x", "y", "screenX", "screenY", "button",
                                             "modifiers"};
  defineMethod(ms, "<init>", "(IJIIIIIII)V", false, setFields(msFields, {noStamp}));
  if (ts) {
    auto f = msFields;
    f.push_back("timestamp");
    defineMethod(ms, "<init>", "(IJIIIIIIIJ)V", false, setFields(f, {}));
  }
  for (const char* g : {"X", "Y", "ScreenX", "ScreenY", "Button", "Modifiers"}) {
    std::string f = g;
    f[0] = static_cast<char>(f[0] - 'A' + 'a');
    defineMethod(ms, std::string("get") + g, "()I", false, getter(f, 'I'));
  }

  Klass* ua = defineClass(E + "UIAutomationEvent", we, true);
  const std::vector<std::string> uaFields = {"type", "handle", "code", "param", "text"};
  defineMethod(ua, "<init>", "(IJII" + S + ")V", false, setFields(uaFields, {noStamp}));
  if (ts) {
    auto f = uaFields;
    f.push_back("timestamp");
    defineMethod(ua, "<init>", "(IJII" + S + "J)V", false, setFields(f, {}));
  }
  defineMethod(ua, "getParam", "()I", false, getter("param", 'I'));
  defineMethod(ua, "getText", "()" + S, false, getter("text", 'L'));

  Klass* ma = defineClass(E + "MSAAEvent", we, true);
  const std::vector<std::string> maFields = {"type", "code", "hwnd", "arg"};
  defineMethod(ma, "<init>", "(IIII)V", false, setFields(maFields, {{"handle", Val::j(0)}, noStamp}));
  if (ts) {
    auto f = maFields;
    f.push_back("timestamp");
    defineMethod(ma, "<init>", "(IIIIJ)V", false, setFields(f, {{"handle", Val::j(0)}}));
  }
  defineMethod(ma, "getHwnd", "()I", false, getter("hwnd", 'I'));
  defineMethod(ma, "getArg", "()I", false, getter("arg", 'I'));
}

}  // namespace detail

// --- JavaHost ---------------------------------------------------------------------------

using detail::cat;
using detail::Impl;
using detail::Obj;
using detail::RefKind;
using detail::ThreadState;

namespace {
std::unique_lock<std::mutex> lockOf(const Impl& h) { return std::unique_lock<std::mutex>(h.m); }
}  // namespace

JavaHost::JavaHost() : JavaHost(Options()) {}
// As JNI_CreateJavaVM does, the thread that makes the VM becomes its "main" thread.
JavaHost::JavaHost(Options options) : impl_(std::make_unique<Impl>(options)) {
  impl_->attach(GetCurrentThreadId(), "main", false, true);
}
JavaHost::~JavaHost() = default;

JavaVM* JavaHost::vm() { return &impl_->vmb.vm; }

JNIEnv* JavaHost::attachCurrentThread() {
  auto lk = lockOf(*impl_);
  ThreadState* ts = impl_->current();
  if (!ts) {
    DWORD tid = GetCurrentThreadId();
    ts = impl_->attach(tid, cat("test-", tid), false, true);
  }
  return &ts->block.env;
}

void JavaHost::detachCurrentThread() {
  auto lk = lockOf(*impl_);
  if (ThreadState* ts = impl_->current())
    impl_->detach(ts, cat("freed when thread ", ts->tid, " detached"));
}

JNIEnv* JavaHost::currentEnv() {
  auto lk = lockOf(*impl_);
  ThreadState* ts = impl_->current();
  return ts ? &ts->block.env : nullptr;
}

jobject JavaHost::callbackObject() {
  auto lk = lockOf(*impl_);
  return impl_->javaRef(impl_->callback);
}

namespace {
// A reference for an object that test code made: a local of the calling
// thread when it is attached, else Java-held.
jobject madeByTest(Impl& h, Obj* o, const char* what) {
  ThreadState* ts = h.current();
  return ts ? h.addRef(o, RefKind::Local, ts, what) : h.javaRef(o);
}

Obj* arrayOf(Impl& h, jobject a, char elem, const char* what) {
  Obj* o = h.peek(a, what);
  if (!o) throw std::invalid_argument(cat("jnihost: ", what, ": null array"));
  if (!o->cls->isArray() || o->elem != elem)
    throw std::invalid_argument(cat("jnihost: ", what, ": ", h.describe(o), " is not an array of ", elem));
  return o;
}
}  // namespace

jstring JavaHost::str(const std::wstring& text) {
  auto lk = lockOf(*impl_);
  return static_cast<jstring>(madeByTest(*impl_, impl_->newString(detail::fromWide(text)), "JavaHost::str"));
}

std::wstring JavaHost::text(jstring s) {
  auto lk = lockOf(*impl_);
  Obj* o = impl_->peek(s, "JavaHost::text");
  if (!o) throw std::invalid_argument("jnihost: JavaHost::text: null string");
  if (!o->isString) throw std::invalid_argument(cat("jnihost: JavaHost::text: ", impl_->describe(o), " is not a string"));
  return detail::toWide(o->str);
}

jobjectArray JavaHost::stringArray(const std::vector<std::wstring>& items) {
  auto lk = lockOf(*impl_);
  Obj* a = impl_->newObjArray(impl_->kString, items.size());
  for (size_t i = 0; i < items.size(); ++i) a->elems[i] = impl_->newString(detail::fromWide(items[i]));
  return static_cast<jobjectArray>(madeByTest(*impl_, a, "JavaHost::stringArray"));
}

std::vector<std::optional<std::wstring>> JavaHost::strings(jobjectArray arr) {
  auto lk = lockOf(*impl_);
  Obj* a = arrayOf(*impl_, arr, 'L', "JavaHost::strings");
  std::vector<std::optional<std::wstring>> out;
  for (Obj* e : a->elems) {
    if (!e) {
      out.push_back(std::nullopt);
    } else if (!e->isString) {
      throw std::invalid_argument(cat("jnihost: JavaHost::strings: element ", impl_->describe(e), " is not a string"));
    } else {
      out.push_back(detail::toWide(e->str));
    }
  }
  return out;
}

jlongArray JavaHost::longArray(const std::vector<jlong>& items) {
  auto lk = lockOf(*impl_);
  Obj* a = impl_->newPrimArray('J', items.size());
  if (!items.empty()) std::memcpy(a->prim.data(), items.data(), items.size() * sizeof(jlong));
  return static_cast<jlongArray>(madeByTest(*impl_, a, "JavaHost::longArray"));
}

std::vector<jlong> JavaHost::longs(jlongArray arr) {
  auto lk = lockOf(*impl_);
  Obj* a = arrayOf(*impl_, arr, 'J', "JavaHost::longs");
  std::vector<jlong> out(a->length);
  if (!out.empty()) std::memcpy(out.data(), a->prim.data(), a->prim.size());
  return out;
}

jintArray JavaHost::intArray(const std::vector<jint>& items) {
  auto lk = lockOf(*impl_);
  Obj* a = impl_->newPrimArray('I', items.size());
  if (!items.empty()) std::memcpy(a->prim.data(), items.data(), items.size() * sizeof(jint));
  return static_cast<jintArray>(madeByTest(*impl_, a, "JavaHost::intArray"));
}

std::vector<jint> JavaHost::ints(jintArray arr) {
  auto lk = lockOf(*impl_);
  Obj* a = arrayOf(*impl_, arr, 'I', "JavaHost::ints");
  std::vector<jint> out(a->length);
  if (!out.empty()) std::memcpy(out.data(), a->prim.data(), a->prim.size());
  return out;
}

bool JavaHost::isNull(jobject o) {
  auto lk = lockOf(*impl_);
  return impl_->peek(o, "JavaHost::isNull") == nullptr;
}

std::string JavaHost::classNameOf(jobject o) {
  auto lk = lockOf(*impl_);
  Obj* p = impl_->peek(o, "JavaHost::classNameOf");
  return p ? p->cls->name : std::string();
}

Value JavaHost::field(jobject o, const std::string& name) {
  auto lk = lockOf(*impl_);
  Obj* p = impl_->peek(o, "JavaHost::field");
  if (!p) throw std::invalid_argument("jnihost: JavaHost::field: null object");
  auto it = p->fields.find(name);
  return it == p->fields.end() ? Value() : impl_->toPublic(it->second);
}

namespace {
std::optional<Thrown> thrownOf(Impl& h, bool clear) {
  ThreadState* ts = h.current();
  if (!ts || !ts->pending) return std::nullopt;
  Obj* e = ts->pending;
  Thrown t;
  t.className = e->cls->name;
  auto it = e->fields.find("message");
  if (it != e->fields.end() && it->second.o) t.message = detail::toWide(it->second.o->str);
  t.object = h.javaRef(e);
  if (clear) ts->pending = nullptr;
  return t;
}
}  // namespace

std::optional<Thrown> JavaHost::pendingException() {
  auto lk = lockOf(*impl_);
  return thrownOf(*impl_, false);
}

std::optional<Thrown> JavaHost::takeException() {
  auto lk = lockOf(*impl_);
  return thrownOf(*impl_, true);
}

void JavaHost::raise(const std::string& className, const std::wstring& message) {
  auto lk = lockOf(*impl_);
  ThreadState* ts = impl_->current();
  if (!ts) throw std::logic_error("jnihost: JavaHost::raise: the calling thread is not attached");
  detail::Klass* k = impl_->lookup(className, true);
  if (!k || !impl_->assignable(k, impl_->kThrowable))
    throw std::invalid_argument(cat("jnihost: JavaHost::raise: ", className, " is not a Throwable class"));
  ts->pending = impl_->newThrowable(className, detail::utf8Of(detail::fromWide(message)));
}

void JavaHost::enterNative() {
  auto lk = lockOf(*impl_);
  ThreadState* ts = impl_->current();
  if (!ts) throw std::logic_error("jnihost: JavaHost::nativeCall: the calling thread is not attached");
  ts->nativeFrames.push_back(ts->frames.size());
  ts->frames.emplace_back();
}

jobject JavaHost::leaveNative(jobject result) {
  auto lk = lockOf(*impl_);
  Impl& h = *impl_;
  ThreadState* ts = h.current();
  if (!ts || ts->nativeFrames.empty())
    throw std::logic_error("jnihost: JavaHost::nativeCall: no native frame on the calling thread");
  Obj* r = nullptr;
  if (result) {
    size_t idx;
    if (!h.refIndex(result, idx)) {
      h.violate(cat("a native returned ", detail::hexOf(result), ", which is not a reference"));
    } else {
      const detail::Ref& ref = h.refs[idx];
      r = ref.obj;
      if (!ref.live)
        h.violate(cat("a native returned a reference that was ", ref.freed, " (", h.describe(r), ")"));
      else if (ref.kind == RefKind::Local && ref.ownerTid != ts->tid)
        h.violate(cat("a native returned a local reference of thread ", ref.ownerTid, " (", h.describe(r), ")"));
    }
  }
  if (ts->criticals > 0) h.violate(cat("a native returned inside a critical region on thread ", ts->tid));
  size_t depth = ts->nativeFrames.back();
  ts->nativeFrames.pop_back();
  while (ts->frames.size() > depth && ts->frames.size() > 1) {
    h.killFrame(ts->frames.back(), "freed when the native method returned");
    ts->frames.pop_back();
  }
  return h.addRef(r, RefKind::Local, ts, "native result");
}

void JavaHost::onCall(const std::string& className, const std::string& method, const std::string& signature,
                      Handler handler) {
  auto lk = lockOf(*impl_);
  impl_->handlers[{className, method, signature}] = std::move(handler);
}

std::vector<Call> JavaHost::calls() const {
  auto lk = lockOf(*impl_);
  return impl_->callLog;
}

std::vector<Call> JavaHost::calls(const std::string& method) const {
  auto lk = lockOf(*impl_);
  std::vector<Call> out;
  for (const Call& c : impl_->callLog)
    if (c.method == method) out.push_back(c);
  return out;
}

std::vector<Call> JavaHost::calls(const std::string& className, const std::string& method) const {
  auto lk = lockOf(*impl_);
  std::vector<Call> out;
  for (const Call& c : impl_->callLog)
    if (c.method == method && c.className == className) out.push_back(c);
  return out;
}

std::vector<Construction> JavaHost::constructions() const {
  auto lk = lockOf(*impl_);
  return impl_->constructionLog;
}

std::vector<Construction> JavaHost::constructions(const std::string& className) const {
  auto lk = lockOf(*impl_);
  std::vector<Construction> out;
  for (const Construction& c : impl_->constructionLog)
    if (c.className == className) out.push_back(c);
  return out;
}

bool JavaHost::waitForCalls(const std::string& method, size_t count, unsigned timeoutMs) const {
  // By the counts, which every call keeps up at once: a wait over a long run
  // doesn't walk the records.
  auto lk = lockOf(*impl_);
  return impl_->waitForCount(lk, impl_->callCounts, method, count, timeoutMs);
}

bool JavaHost::waitForConstructions(const std::string& className, size_t count, unsigned timeoutMs) const {
  auto lk = lockOf(*impl_);
  return impl_->waitForCount(lk, impl_->constructionCounts, className, count, timeoutMs);
}

int JavaHost::loadClassCount(const std::string& dottedName) const {
  auto lk = lockOf(*impl_);
  auto it = impl_->loadCounts.find(dottedName);
  return it == impl_->loadCounts.end() ? 0 : it->second;
}

size_t JavaHost::callCount(const std::string& method) const {
  auto lk = lockOf(*impl_);
  auto it = impl_->callCounts.find(method);
  return it == impl_->callCounts.end() ? 0 : it->second;
}

size_t JavaHost::constructionCount(const std::string& className) const {
  auto lk = lockOf(*impl_);
  auto it = impl_->constructionCounts.find(className);
  return it == impl_->constructionCounts.end() ? 0 : it->second;
}

void JavaHost::clearRecords() {
  auto lk = lockOf(*impl_);
  impl_->callCounts.clear();
  impl_->constructionCounts.clear();
  impl_->callLog.clear();
  impl_->constructionLog.clear();
  impl_->loadCounts.clear();
}

void JavaHost::removeClass(const std::string& className) {
  auto lk = lockOf(*impl_);
  detail::Klass* k = impl_->lookup(className, true);
  if (!k || k->isArray()) throw std::invalid_argument(cat("jnihost: removeClass: unknown class ", className));
  k->removed = true;
}

void JavaHost::removeMethod(const std::string& className, const std::string& name, const std::string& signature) {
  auto lk = lockOf(*impl_);
  detail::Klass* k = impl_->lookup(className, true);
  detail::Method* m = k ? impl_->declared(k, name, signature) : nullptr;
  if (!m) throw std::invalid_argument(cat("jnihost: removeMethod: ", className, ".", name, signature, " is not declared"));
  m->removed = true;
}

void JavaHost::addClass(const std::string& className, const std::string& superName, bool isAbstract) {
  auto lk = lockOf(*impl_);
  if (className.empty() || className[0] == '[' || className.find('.') != std::string::npos)
    throw std::invalid_argument(cat("jnihost: addClass: bad class name ", className));
  if (impl_->lookup(className, true)) throw std::invalid_argument(cat("jnihost: addClass: ", className, " exists"));
  detail::Klass* super = impl_->lookup(superName, true);
  if (!super || super->isArray()) throw std::invalid_argument(cat("jnihost: addClass: unknown superclass ", superName));
  bool boot = className.rfind("java/", 0) == 0 || className.rfind("jdk/", 0) == 0;
  impl_->defineClass(className, super, !boot, isAbstract);
}

void JavaHost::addMethod(const std::string& className, const std::string& name, const std::string& signature,
                         bool isStatic) {
  auto lk = lockOf(*impl_);
  detail::Klass* k = impl_->lookup(className, true);
  if (!k || k->isArray()) throw std::invalid_argument(cat("jnihost: addMethod: unknown class ", className));
  if (detail::Method* m = impl_->declared(k, name, signature)) {
    if (!m->removed) throw std::invalid_argument(cat("jnihost: addMethod: ", m->describe(), " exists"));
    m->removed = false;
    m->isStatic = isStatic;
    return;
  }
  impl_->defineMethod(k, name, signature, isStatic);
}

size_t JavaHost::globalRefCount() const {
  auto lk = lockOf(*impl_);
  size_t n = 0;
  for (const detail::Ref& r : impl_->refs)
    if (r.live && r.kind == RefKind::Global) ++n;
  return n;
}

std::vector<std::string> JavaHost::globalRefs() const {
  auto lk = lockOf(*impl_);
  std::vector<std::string> out;
  for (const detail::Ref& r : impl_->refs)
    if (r.live && r.kind == RefKind::Global) out.push_back(cat(impl_->describe(r.obj), " (made by ", r.made, ")"));
  return out;
}

size_t JavaHost::outstandingPins() const {
  auto lk = lockOf(*impl_);
  return impl_->pinned.size();
}

std::vector<std::string> JavaHost::pins() const {
  auto lk = lockOf(*impl_);
  std::vector<std::string> out;
  for (const auto& p : impl_->pinned)
    out.push_back(cat(p.second.made, " of ", impl_->describe(p.second.obj), " on thread ", p.second.tid));
  return out;
}

size_t JavaHost::localRefCount() const {
  auto lk = lockOf(*impl_);
  ThreadState* ts = impl_->current();
  return ts ? impl_->liveLocals(ts) : 0;
}

size_t JavaHost::localRefCount(DWORD threadId) const {
  auto lk = lockOf(*impl_);
  impl_->reap();
  auto it = impl_->attached.find(threadId);
  return it == impl_->attached.end() ? 0 : impl_->liveLocals(it->second);
}

std::vector<std::string> JavaHost::violations() const {
  auto lk = lockOf(*impl_);
  impl_->reap();
  return impl_->violationLog;
}

std::vector<std::string> JavaHost::takeViolations() {
  auto lk = lockOf(*impl_);
  impl_->reap();
  std::vector<std::string> taken;
  taken.swap(impl_->violationLog);
  return taken;
}

std::vector<std::string> JavaHost::callsWithPendingException() const {
  auto lk = lockOf(*impl_);
  return impl_->pendingCallLog;
}

std::vector<std::string> JavaHost::uncaughtExceptions() const {
  auto lk = lockOf(*impl_);
  return impl_->uncaughtLog;
}

}  // namespace jnihost
