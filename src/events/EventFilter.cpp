#include "events/EventFilter.h"

#include "common/Logging.h"
#include "events/WinClientEvent.h"

#include <jni.h>

#include <cstdarg>
#include <memory>
#include <unordered_map>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.EventFilter");

const char* const EVENT_PACKAGE = "net.tolva.apps.cuebench.client.win.deskwright.event.";
const char* const FILTER_SIGNATURE = "(Lnet/tolva/apps/cuebench/client/win/deskwright/event/WinEvent;)Z";
const jint JNI_VERSION = 0x00010004;
// Local references one call into Java needs at most, besides the labels of a
// context check, which are freed one by one.
const jint LOCAL_CAPACITY = 16;

// Dotted class name to a global reference of the class, null for a class that
// can't be had. Only the attached thread uses it, and it is forgotten when
// that thread detaches.
std::unordered_map<std::string, GlobalRef<jclass>>& classCache() {
    static std::unordered_map<std::string, GlobalRef<jclass>> cache;
    return cache;
}

// A local frame of the attached thread: the local references made while it
// stands are freed when it ends, so that a long recording doesn't grow the VM.
class LocalFrame {
public:
    explicit LocalFrame(JNIEnv* env) : env_(env), pushed_(env->PushLocalFrame(LOCAL_CAPACITY) == JNI_OK) {
        if (!pushed_) {
            env_->ExceptionClear();  // the VM's OutOfMemoryError
            TOLVA_LOG(logger, 1, "No local frame");
        }
    }
    ~LocalFrame() {
        if (pushed_) {
            env_->PopLocalFrame(nullptr);
        }
    }
    LocalFrame(const LocalFrame&) = delete;
    LocalFrame& operator=(const LocalFrame&) = delete;
    explicit operator bool() const { return pushed_; }

private:
    JNIEnv* env_;
    bool pushed_;
};

std::string eventClass(const char* simpleName) {
    return std::string(EVENT_PACKAGE) + simpleName;
}

}  // namespace

jobject newGlobalRef(JNIEnv* env, jobject object) {
    return env->NewGlobalRef(object);
}

void deleteGlobalRef(JNIEnv* env, jobject global) {
    env->DeleteGlobalRef(global);
}

EventFilter& EventFilter::getInstance() {
    static EventFilter instance;
    return instance;
}

EventFilter::~EventFilter() = default;

void EventFilter::setJavaVM(JavaVM* vm) {
    javaVM_ = vm;
}

void EventFilter::setJavaCallbackObject(JNIEnv* env, jobject callback) {
    TOLVA_LOG(logger, 7, "env: " << env << ", cb:" << callback);
    if (callback_ && env->IsSameObject(callback_.get(), callback)) {
        return;  // the same object: its reference may be in use on the dispatch thread
    }
    callback_.reset(env);
    filterMethod_ = nullptr;
    if (!callback) {
        return;
    }
    callback_.reset(env, callback);
    jclass clazz = env->GetObjectClass(callback);
    filterMethod_ = env->GetMethodID(clazz, "filterEvent", FILTER_SIGNATURE);
    if (!filterMethod_) {
        env->ExceptionClear();  // a host without the method gets no events, and no error
        TOLVA_LOG(logger, 1, "Method not found: filterEvent");
    }
    TOLVA_LOG(logger, 10, "ref: " << callback_.get() << ", jc: " << clazz << ", filter: " << filterMethod_);
    env->DeleteLocalRef(clazz);
}

void EventFilter::attachThread() {
    TOLVA_LOG(logger, 7, "");
    if (!javaVM_) {
        TOLVA_LOG(logger, 1, "No Java VM");
        return;
    }
    JavaVMAttachArgs args = {JNI_VERSION, nullptr, nullptr};
    jint result = javaVM_->AttachCurrentThread(reinterpret_cast<void**>(&env_), &args);
    if (result != 0) {
        TOLVA_LOG(logger, 1, "Attaching thread failed");
    }
}

void EventFilter::detachThread() {
    TOLVA_LOG(logger, 7, "");
    if (!javaVM_) {
        return;
    }
    if (env_) {
        forgetClasses();
        callback_.reset(env_);
    }
    callback_.abandon();  // a thread that never got attached can't delete it
    // The cached classes are local references of this thread and go with its
    // detach; a dispatch thread of a later connection loads them anew.
    classCache().clear();
    constructors_.clear();
    javaVM_->DetachCurrentThread();
}

void EventFilter::forgetClasses() {
    for (auto& entry : classCache()) {
        entry.second.reset(env_);
    }
    classCache().clear();
    constructors_.clear();
}

bool EventFilter::dropJavaException() {
    if (!env_->ExceptionCheck()) {
        return false;
    }
    env_->ExceptionClear();
    return true;
}

jmethodID EventFilter::methodOf(jobject object, const char* name, const char* signature) {
    jclass clazz = env_->GetObjectClass(object);
    jmethodID method = env_->GetMethodID(clazz, name, signature);
    env_->DeleteLocalRef(clazz);
    if (!method) {
        dropJavaException();
        TOLVA_LOG(logger, 1, "Method not found: " << name);
    }
    return method;
}

jobject EventFilter::callObjectMethod(jobject object, const char* name, const char* signature, jobject argument) {
    if (!object) {
        return nullptr;
    }
    jmethodID method = methodOf(object, name, signature);
    if (!method) {
        return nullptr;
    }
    jobject result =
        argument ? env_->CallObjectMethod(object, method, argument) : env_->CallObjectMethod(object, method);
    if (dropJavaException()) {
        TOLVA_LOG(logger, 1, "Java exception in " << name);
        return nullptr;
    }
    return result;
}

jclass EventFilter::loadClass(const std::string& dottedName) {
    if (!env_ || !callback_) {
        return nullptr;
    }
    LocalFrame frame(env_);
    if (!frame) {
        return nullptr;
    }
    jobject clazz = callObjectMethod(callback_.get(), "getClass", "()Ljava/lang/Class;");
    TOLVA_LOG(logger, 5, "clazz: " << clazz);
    jobject loader = callObjectMethod(clazz, "getClassLoader", "()Ljava/lang/ClassLoader;");
    TOLVA_LOG(logger, 5, "loader: " << loader);
    if (!loader) {
        return nullptr;
    }
    jstring name = env_->NewStringUTF(dottedName.c_str());
    if (!name) {
        dropJavaException();
        return nullptr;
    }
    jobject found = callObjectMethod(loader, "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;", name);
    TOLVA_LOG(logger, 10, dottedName << ": " << found);
    return found ? static_cast<jclass>(env_->NewGlobalRef(found)) : nullptr;
}

jclass EventFilter::getClass(const std::string& dottedName) {
    auto& cache = classCache();
    jclass result = nullptr;
    auto found = cache.find(dottedName);
    if (found != cache.end()) {
        result = found->second.get();
        TOLVA_LOG(logger, 10, dottedName << ": " << result);
    } else {
        TOLVA_LOG(logger, 9, "No entry for " << dottedName);
        result = loadClass(dottedName);
        cache.emplace(dottedName, GlobalRef<jclass>(result));  // a class that failed once is not looked for again
    }
    if (!result) {
        TOLVA_LOG(logger, 1, "No class " << dottedName);
    }
    return result;
}

void EventFilter::checkEventConstructor() {
    jclass probe = getClass(eventClass("UIAutomationEvent"));
    if (probe) {
        env_->GetMethodID(probe, "<init>", "(IJIILjava/lang/String;J)V");
        if (dropJavaException()) {
            timestamped_ = false;
        }
    }
    TOLVA_LOG(logger, 9, "Events with timestamp: " << timestamped_);
}

bool EventFilter::clearJavaException() {
    if (!env_->ExceptionCheck()) {
        return false;
    }
    TOLVA_LOG(logger, 3, "Java exception");
    env_->ExceptionDescribe();
    env_->ExceptionClear();
    return true;
}

jobject EventFilter::newJavaEvent(const char* simpleName, const char* signature, ...) {
    jclass clazz = nullptr;
    jmethodID init = nullptr;
    for (const Constructor& known : constructors_) {
        if (known.simpleName == simpleName && known.signature == signature) {
            clazz = known.clazz;
            init = known.init;
            break;
        }
    }
    if (!init) {
        clazz = getClass(eventClass(simpleName));
        if (!clazz) {
            return nullptr;
        }
        init = env_->GetMethodID(clazz, "<init>", signature);
        if (!init) {
            dropJavaException();
            TOLVA_LOG(logger, 1, "No constructor " << simpleName << signature);
            return nullptr;
        }
        constructors_.push_back({simpleName, signature, clazz, init});
    }
    va_list arguments;
    va_start(arguments, signature);
    jobject event = env_->NewObjectV(clazz, init, arguments);
    va_end(arguments);
    if (clearJavaException()) {
        return nullptr;
    }
    return event;
}

void EventFilter::sendWinEvent(std::int32_t type) {
    LocalFrame frame(env_);
    if (!frame) {
        return;
    }
    jobject event = newJavaEvent("WinEvent", "(IJI)V", static_cast<jint>(type), static_cast<jlong>(0),
                                 static_cast<jint>(0));
    if (!event) {
        return;
    }
    env_->CallBooleanMethod(callback_.get(), filterMethod_, event);
    clearJavaException();
}

void EventFilter::onConnect() {
    TOLVA_LOG(logger, 7, "");
    if (!filterMethod_ || !env_) {
        return;
    }
    sendWinEvent(EVENT_CONNECTED);
    checkEventConstructor();
    TOLVA_LOG(logger, 9, "done");
}

void EventFilter::onTerminate() {
    TOLVA_LOG(logger, 7, "");
    if (!filterMethod_ || !env_) {
        return;
    }
    sendWinEvent(EVENT_TERMINATED);
}

jobject EventFilter::newEventObject(WinClientEvent* event, bool& fits) {
    fits = true;
    const bool stamped = timestamped_;
    const jint type = event->type;
    const jlong handle = event->handle;
    const jint code = event->code;
    const jlong timestamp = event->timestamp;

    if (auto* mouse = dynamic_cast<MouseEvent*>(event)) {
        const jint x = mouse->x, y = mouse->y, screenX = mouse->screenX, screenY = mouse->screenY;
        const jint button = mouse->button, modifiers = mouse->modifiers;
        if (stamped) {
            return newJavaEvent("MouseEvent", "(IJIIIIIIIJ)V", type, handle, code, x, y, screenX, screenY, button,
                                modifiers, timestamp);
        }
        return newJavaEvent("MouseEvent", "(IJIIIIIII)V", type, handle, code, x, y, screenX, screenY, button,
                            modifiers);
    }
    if (auto* key = dynamic_cast<KeyEvent*>(event)) {
        const jint vk = key->vk, character = key->character;
        // jboolean goes through the variadic call as an int, as JNI reads it.
        const int shift = key->shift ? JNI_TRUE : JNI_FALSE;
        const int ctrl = key->ctrl ? JNI_TRUE : JNI_FALSE;
        const int alt = key->alt ? JNI_TRUE : JNI_FALSE;
        if (stamped) {
            return newJavaEvent("KeyboardEvent", "(IJIIIZZZJ)V", type, handle, code, vk, character, shift, ctrl, alt,
                                timestamp);
        }
        return newJavaEvent("KeyboardEvent", "(IJIIIZZZ)V", type, handle, code, vk, character, shift, ctrl, alt);
    }
    if (auto* automation = dynamic_cast<UIAutomationEvent*>(event)) {
        const jint param = automation->param;
        jstring text = env_->NewString(reinterpret_cast<const jchar*>(automation->text.c_str()),
                                       static_cast<jsize>(automation->text.size()));
        if (clearJavaException()) {
            return nullptr;
        }
        if (stamped) {
            return newJavaEvent("UIAutomationEvent", "(IJIILjava/lang/String;J)V", type, handle, code, param, text,
                                timestamp);
        }
        return newJavaEvent("UIAutomationEvent", "(IJIILjava/lang/String;)V", type, handle, code, param, text);
    }
    if (auto* msaa = dynamic_cast<MSAAEvent*>(event)) {
        const jint hwnd = msaa->hwnd, arg = msaa->arg;
        if (stamped) {
            return newJavaEvent("MSAAEvent", "(IIIIJ)V", type, code, hwnd, arg, timestamp);
        }
        return newJavaEvent("MSAAEvent", "(IIII)V", type, code, hwnd, arg);
    }
    if (dynamic_cast<ChangeEvent*>(event)) {
        return newJavaEvent("ChangeEvent", "(IJI)V", type, handle, code);
    }
    fits = false;
    return nullptr;
}

// The trigger's road: an exception check before anything else and after each step.
jobject EventFilter::newCallbackEvent() {
    clearJavaException();
    jclass clazz = getClass(eventClass("CallbackEvent"));
    if (!clazz) {
        return nullptr;
    }
    jmethodID init = env_->GetMethodID(clazz, "<init>", "()V");
    clearJavaException();
    if (!init) {
        TOLVA_LOG(logger, 1, "No constructor CallbackEvent()V");
        return nullptr;
    }
    jobject event = env_->NewObject(clazz, init);
    if (clearJavaException()) {
        return nullptr;
    }
    TOLVA_LOG(logger, 10, "env: " << env_ << "evcl: " << clazz << "init: " << init << "jev: " << event);
    return event;
}

void EventFilter::callJava(WinClientEvent* event) {
    TOLVA_LOG(logger, 7, "type: " << event->type << ", code: " << event->code);
    if (!filterMethod_ || !env_) {
        return;
    }
    LocalFrame frame(env_);  // the event's references end with this call
    if (!frame) {
        return;
    }
    bool fits = false;
    jobject javaEvent = newEventObject(event, fits);
    const bool trigger = !fits && event->type == EVENT_CALLBACK;
    if (trigger) {
        javaEvent = newCallbackEvent();
    } else if (!fits) {
        return;  // a record of no known kind is dropped without a word
    }
    if (!javaEvent) {
        return;  // dropped; the reason is logged where it arose
    }
    jboolean result = env_->CallBooleanMethod(callback_.get(), filterMethod_, javaEvent);
    if (trigger) {
        TOLVA_LOG(logger, 10, "res: " << static_cast<int>(result));
    }
    clearJavaException();
}

void EventFilter::call(tolvacore::ipc::ShmQueue& queue) {
    std::unique_ptr<WinClientEvent> event;
    try {
        event = WinClientEvent::readEvent(queue);
        if (!event) {
            TOLVA_LOG(logger, 1, "Could not create event.");
        }
    } catch (const tolvacore::ipc::ShmException& e) {
        // The client's thread waits for the answer, and the queue's thread
        // must go on serving: the record is lost, nothing else.
        TOLVA_LOG(logger, 1, "Malformed event: " << e.getMessage());
    }
    if (event) {
        TOLVA_LOG(logger, 9, "type: " << event->type << ", handle: " << event->handle << ", code: " << event->code);
        callJava(event.get());
        TOLVA_LOG(logger, 9, "end");
    }
    queue.returnInt(0);
}

void EventFilter::callCallbackVoid(const char* name, const char* signature, std::int64_t handle, bool withIndex,
                                   std::int32_t index) {
    if (withIndex) {
        TOLVA_LOG(logger, 7, "handle: " << handle << ", i: " << index);
    } else {
        TOLVA_LOG(logger, 7, "handle: " << handle);
    }
    if (!env_ || !callback_) {
        return;
    }
    LocalFrame frame(env_);
    if (!frame) {
        return;
    }
    jmethodID method = methodOf(callback_.get(), name, signature);
    if (!method) {
        return;
    }
    if (withIndex) {
        env_->CallVoidMethod(callback_.get(), method, static_cast<jlong>(handle), static_cast<jint>(index));
    } else {
        env_->CallVoidMethod(callback_.get(), method, static_cast<jlong>(handle));
    }
    clearJavaException();
}

void EventFilter::callJavaPrepareRecording(std::int64_t handle) {
    callCallbackVoid("onPrepareRecording", "(J)V", handle, false, 0);
}

void EventFilter::callJavaDefaultCheck(std::int64_t handle) {
    callCallbackVoid("onDefaultCheck", "(J)V", handle, false, 0);
}

void EventFilter::callJavaCheckSelect(std::int64_t handle, std::int32_t index) {
    callCallbackVoid("onCheckSelect", "(JI)V", handle, true, index);
}

std::wstring EventFilter::labelAt(jobjectArray labels, std::int32_t index, jclass stringClass) {
    jobject entry = env_->GetObjectArrayElement(labels, index);
    if (dropJavaException() || !entry) {
        return std::wstring();
    }
    std::wstring label;
    if (!env_->IsInstanceOf(entry, stringClass)) {
        TOLVA_LOG(logger, 3, "Not a label at " << index);
    } else {
        auto text = static_cast<jstring>(entry);
        const jsize length = env_->GetStringLength(text);
        const jchar* chars = env_->GetStringChars(text, nullptr);
        if (chars) {
            label.assign(reinterpret_cast<const wchar_t*>(chars), static_cast<size_t>(length));
            env_->ReleaseStringChars(text, chars);
        } else {
            dropJavaException();
        }
    }
    env_->DeleteLocalRef(entry);
    return label;
}

std::vector<std::wstring> EventFilter::callJavaContextCheck(std::int64_t handle) {
    TOLVA_LOG(logger, 7, "handle: " << handle);
    std::vector<std::wstring> labels;
    if (!env_ || !callback_) {
        return labels;
    }
    LocalFrame frame(env_);
    if (!frame) {
        return labels;
    }
    jmethodID method = methodOf(callback_.get(), "onContextCheck", "(J)[Ljava/lang/String;");
    if (!method) {
        return labels;
    }
    auto array = static_cast<jobjectArray>(env_->CallObjectMethod(callback_.get(), method, static_cast<jlong>(handle)));
    if (clearJavaException()) {
        return labels;
    }
    if (!array) {
        TOLVA_LOG(logger, 5, "No labels");
        return labels;
    }
    jclass stringClass = env_->FindClass("java/lang/String");
    if (dropJavaException()) {
        return labels;
    }
    const jsize count = env_->GetArrayLength(array);
    for (jsize i = 0; i < count; ++i) {
        labels.push_back(labelAt(array, i, stringClass));
    }
    return labels;
}

}  // namespace tolva
