#include "events/EventFilter.h"

#include "bridge/Logging.h"
#include "events/WinClientEvent.h"

#include <unordered_map>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.EventFilter");

const char* const EVENT_PACKAGE = "net.tolva.apps.cuebench.client.win.deskwright.event.";
const char* const FILTER_SIGNATURE = "(Lnet/tolva/apps/cuebench/client/win/deskwright/event/WinEvent;)Z";
const jint JNI_VERSION = 0x00010004;

// Dotted class name to class. Only the attached thread uses it; its values are
// local references of that thread, which stays in native code for its life.
std::unordered_map<std::string, jclass>& classCache() {
    static std::unordered_map<std::string, jclass> cache;
    return cache;
}

std::string eventClass(const char* simpleName) {
    return std::string(EVENT_PACKAGE) + simpleName;
}

}  // namespace

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
    if (callback_ && env->IsSameObject(callback_, callback)) return;  // in use on the dispatch thread
    if (callback_) {
        env->DeleteGlobalRef(callback_);
    }
    callback_ = env->NewGlobalRef(callback);
    jclass clazz = env->GetObjectClass(callback);
    filterMethod_ = env->GetMethodID(clazz, "filterEvent", FILTER_SIGNATURE);
    TOLVA_LOG(logger, 10, "ref: " << callback_ << ", jc: " << clazz << ", filter: " << filterMethod_);
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
    if (env_ && callback_) {
        env_->DeleteGlobalRef(callback_);
    }
    callback_ = nullptr;
    javaVM_->DetachCurrentThread();
}

jclass EventFilter::loadClass(const std::string& dottedName) {
    JNIEnv* env = env_;
    jclass driverClass = env->GetObjectClass(callback_);
    jmethodID getClassMethod = env->GetMethodID(driverClass, "getClass", "()Ljava/lang/Class;");
    jobject clazz = env->CallObjectMethod(callback_, getClassMethod);
    TOLVA_LOG(logger, 5, "clazz: " << clazz);

    jclass classClass = env->GetObjectClass(clazz);
    jmethodID getLoader = env->GetMethodID(classClass, "getClassLoader", "()Ljava/lang/ClassLoader;");
    jobject loader = env->CallObjectMethod(clazz, getLoader);
    TOLVA_LOG(logger, 5, "loader: " << loader);

    jclass loaderClass = env->GetObjectClass(loader);
    jmethodID loadMethod = env->GetMethodID(loaderClass, "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;");
    jstring name = env->NewStringUTF(dottedName.c_str());
    jclass result = static_cast<jclass>(env->CallObjectMethod(loader, loadMethod, name));
    TOLVA_LOG(logger, 10, dottedName << ": " << result);
    return result;
}

jclass EventFilter::getClass(const std::string& dottedName) {
    auto& cache = classCache();
    jclass result = nullptr;
    auto found = cache.find(dottedName);
    if (found != cache.end()) {
        result = found->second;
        TOLVA_LOG(logger, 10, dottedName << ": " << result);
    } else {
        TOLVA_LOG(logger, 9, "No entry for " << dottedName);
        result = loadClass(dottedName);
        cache[dottedName] = result;  // a class that failed once is not looked for again
    }
    if (!result) {
        TOLVA_LOG(logger, 1, "No class " << dottedName);
    }
    return result;
}

void EventFilter::checkEventConstructor() {
    jclass probe = getClass(eventClass("UIAutomationEvent"));
    env_->GetMethodID(probe, "<init>", "(IJIILjava/lang/String;J)V");
    if (env_->ExceptionOccurred()) {
        timestamped_ = false;
        env_->ExceptionClear();
    }
    TOLVA_LOG(logger, 9, "Events with timestamp: " << timestamped_);
}

bool EventFilter::clearJavaException() {
    if (!env_->ExceptionOccurred()) {
        return false;
    }
    TOLVA_LOG(logger, 3, "Java exception");
    env_->ExceptionDescribe();
    env_->ExceptionClear();
    return true;
}

void EventFilter::sendWinEvent(std::int32_t type) {
    jclass clazz = getClass(eventClass("WinEvent"));
    jmethodID init = env_->GetMethodID(clazz, "<init>", "(IJI)V");
    jobject event = env_->NewObject(clazz, init, static_cast<jint>(type), static_cast<jlong>(0), static_cast<jint>(0));
    env_->CallBooleanMethod(callback_, filterMethod_, event);
    clearJavaException();
}

void EventFilter::onConnect() {
    TOLVA_LOG(logger, 7, "");
    if (!filterMethod_) {
        return;
    }
    sendWinEvent(EVENT_CONNECTED);
    checkEventConstructor();
    TOLVA_LOG(logger, 9, "done");
}

void EventFilter::onTerminate() {
    TOLVA_LOG(logger, 7, "");
    if (!filterMethod_) {
        return;
    }
    sendWinEvent(EVENT_TERMINATED);
}

jobject EventFilter::newEventObject(WinClientEvent* event, bool& fits) {
    JNIEnv* env = env_;
    fits = true;
    const bool stamped = timestamped_;
    const jint type = event->type;
    const jlong handle = event->handle;
    const jint code = event->code;
    const jlong timestamp = event->timestamp;

    if (auto* mouse = dynamic_cast<MouseEvent*>(event)) {
        jclass clazz = getClass(eventClass("MouseEvent"));
        if (stamped) {
            jmethodID init = env->GetMethodID(clazz, "<init>", "(IJIIIIIIIJ)V");
            return env->NewObject(clazz, init, type, handle, code, static_cast<jint>(mouse->x),
                                  static_cast<jint>(mouse->y), static_cast<jint>(mouse->screenX),
                                  static_cast<jint>(mouse->screenY), static_cast<jint>(mouse->button),
                                  static_cast<jint>(mouse->modifiers), timestamp);
        }
        jmethodID init = env->GetMethodID(clazz, "<init>", "(IJIIIIIII)V");
        return env->NewObject(clazz, init, type, handle, code, static_cast<jint>(mouse->x),
                              static_cast<jint>(mouse->y), static_cast<jint>(mouse->screenX),
                              static_cast<jint>(mouse->screenY), static_cast<jint>(mouse->button),
                              static_cast<jint>(mouse->modifiers));
    }
    if (auto* key = dynamic_cast<KeyEvent*>(event)) {
        jclass clazz = getClass(eventClass("KeyboardEvent"));
        const jboolean shift = key->shift ? JNI_TRUE : JNI_FALSE;
        const jboolean ctrl = key->ctrl ? JNI_TRUE : JNI_FALSE;
        const jboolean alt = key->alt ? JNI_TRUE : JNI_FALSE;
        if (stamped) {
            jmethodID init = env->GetMethodID(clazz, "<init>", "(IJIIIZZZJ)V");
            return env->NewObject(clazz, init, type, handle, code, static_cast<jint>(key->vk),
                                  static_cast<jint>(key->character), shift, ctrl, alt, timestamp);
        }
        jmethodID init = env->GetMethodID(clazz, "<init>", "(IJIIIZZZ)V");
        return env->NewObject(clazz, init, type, handle, code, static_cast<jint>(key->vk),
                              static_cast<jint>(key->character), shift, ctrl, alt);
    }
    if (auto* automation = dynamic_cast<UIAutomationEvent*>(event)) {
        jclass clazz = getClass(eventClass("UIAutomationEvent"));
        jstring text = env->NewString(reinterpret_cast<const jchar*>(automation->text.c_str()),
                                      static_cast<jsize>(automation->text.size()));
        if (stamped) {
            jmethodID init = env->GetMethodID(clazz, "<init>", "(IJIILjava/lang/String;J)V");
            return env->NewObject(clazz, init, type, handle, code, static_cast<jint>(automation->param), text,
                                  timestamp);
        }
        jmethodID init = env->GetMethodID(clazz, "<init>", "(IJIILjava/lang/String;)V");
        return env->NewObject(clazz, init, type, handle, code, static_cast<jint>(automation->param), text);
    }
    if (auto* msaa = dynamic_cast<MSAAEvent*>(event)) {
        jclass clazz = getClass(eventClass("MSAAEvent"));
        if (stamped) {
            jmethodID init = env->GetMethodID(clazz, "<init>", "(IIIIJ)V");
            return env->NewObject(clazz, init, type, code, static_cast<jint>(msaa->hwnd),
                                  static_cast<jint>(msaa->arg), timestamp);
        }
        jmethodID init = env->GetMethodID(clazz, "<init>", "(IIII)V");
        return env->NewObject(clazz, init, type, code, static_cast<jint>(msaa->hwnd), static_cast<jint>(msaa->arg));
    }
    if (dynamic_cast<ChangeEvent*>(event)) {
        jclass clazz = getClass(eventClass("ChangeEvent"));
        jmethodID init = env->GetMethodID(clazz, "<init>", "(IJI)V");
        return env->NewObject(clazz, init, type, handle, code);
    }
    fits = false;
    return nullptr;
}

// The trigger's road: an exception check before anything else and after each step.
jobject EventFilter::newCallbackEvent() {
    clearJavaException();
    jclass clazz = getClass(eventClass("CallbackEvent"));
    jmethodID init = env_->GetMethodID(clazz, "<init>", "()V");
    clearJavaException();
    jobject event = env_->NewObject(clazz, init);
    clearJavaException();
    TOLVA_LOG(logger, 10, "env: " << env_ << "evcl: " << clazz << "init: " << init << "jev: " << event);
    return event;
}

void EventFilter::callJava(WinClientEvent* event) {
    TOLVA_LOG(logger, 7, "type: " << event->type << ", code: " << event->code);
    if (!filterMethod_) {
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
    jboolean result = env_->CallBooleanMethod(callback_, filterMethod_, javaEvent);
    if (trigger) {
        TOLVA_LOG(logger, 10, "res: " << static_cast<int>(result));
    }
    clearJavaException();
}

void EventFilter::callCallbackVoid(const char* name, const char* signature, std::int64_t handle, bool withIndex,
                                   std::int32_t index) {
    if (withIndex) {
        TOLVA_LOG(logger, 7, "handle: " << handle << ", i: " << index);
    } else {
        TOLVA_LOG(logger, 7, "handle: " << handle);
    }
    jclass clazz = env_->GetObjectClass(callback_);
    jmethodID method = env_->GetMethodID(clazz, name, signature);
    if (!method) {
        TOLVA_LOG(logger, 1, "Method not found");
        return;
    }
    if (withIndex) {
        env_->CallVoidMethod(callback_, method, static_cast<jlong>(handle), static_cast<jint>(index));
    } else {
        env_->CallVoidMethod(callback_, method, static_cast<jlong>(handle));
    }
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

std::vector<std::wstring> EventFilter::callJavaContextCheck(std::int64_t handle) {
    TOLVA_LOG(logger, 7, "handle: " << handle);
    std::vector<std::wstring> labels;
    jclass clazz = env_->GetObjectClass(callback_);
    jmethodID method = env_->GetMethodID(clazz, "onContextCheck", "(J)[Ljava/lang/String;");
    if (!method) {
        TOLVA_LOG(logger, 1, "Method not found");
        return labels;
    }
    auto array = static_cast<jobjectArray>(env_->CallObjectMethod(callback_, method, static_cast<jlong>(handle)));
    if (!array) {
        TOLVA_LOG(logger, 5, "No labels");
        return labels;
    }
    const jsize count = env_->GetArrayLength(array);
    for (jsize i = 0; i < count; ++i) {
        auto text = static_cast<jstring>(env_->GetObjectArrayElement(array, i));
        const jchar* chars = env_->GetStringChars(text, nullptr);
        labels.emplace_back(reinterpret_cast<const wchar_t*>(chars));
        env_->ReleaseStringChars(text, chars);
    }
    return labels;
}

}  // namespace tolva
