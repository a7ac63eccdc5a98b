#include "bridge/Marshal.h"

#include "common/Logging.h"
#include "common/NullMarkers.h"

namespace tolva {

namespace {
Logger& logger = Log::getLogger("tolva.deskwright");
}  // namespace

PinnedString::PinnedString(JNIEnv* env, jstring text)
    : env_(env), text_(text), chars_(text ? env->GetStringChars(text, nullptr) : nullptr) {}

PinnedString::~PinnedString() {
    if (chars_) {
        env_->ReleaseStringChars(text_, chars_);
    }
}

PinnedNames::PinnedNames(JNIEnv* env, jobjectArray names)
    : env_(env), names_(names), list_(names ? env->GetArrayLength(names) : 0) {
    for (std::int32_t i = 0; i < list_.size(); ++i) {
        auto name = static_cast<jstring>(env->GetObjectArrayElement(names, i));
        list_[i] = name ? reinterpret_cast<const wchar_t*>(env->GetStringChars(name, nullptr)) : nullptr;
        TOLVA_LOG(logger, 9, i << ": " << list_[i]);
    }
}

PinnedNames::~PinnedNames() {
    for (std::int32_t i = 0; i < list_.size(); ++i) {
        if (!list_[i]) {
            continue;
        }
        auto name = static_cast<jstring>(env_->GetObjectArrayElement(names_, i));
        env_->ReleaseStringChars(name, reinterpret_cast<const jchar*>(list_[i]));
    }
}

jstring toJavaString(JNIEnv* env, const std::wstring& text) {
    return env->NewString(reinterpret_cast<const jchar*>(text.c_str()), static_cast<jsize>(text.size()));
}

jlongArray toJavaHandles(JNIEnv* env, const Array<Handle>& handles) {
    jlongArray result = env->NewLongArray(handles.size());
    for (std::int32_t i = 0; i < handles.size(); ++i) {
        const jlong value = handleToJava(handles[i]);
        env->SetLongArrayRegion(result, i, 1, &value);
    }
    return result;
}

jobjectArray toJavaStrings(JNIEnv* env, const Array<std::wstring>& strings) {
    jclass stringClass = env->FindClass("java/lang/String");
    jobjectArray result = env->NewObjectArray(strings.size(), stringClass, nullptr);
    for (std::int32_t i = 0; i < strings.size(); ++i) {
        env->SetObjectArrayElement(result, i, toJavaString(env, strings[i]));
    }
    return result;
}

jobjectArray toJavaAttributes(JNIEnv* env, const std::wstring* entries, std::size_t count) {
    jclass stringClass = env->FindClass("java/lang/String");
    jobjectArray result = env->NewObjectArray(static_cast<jsize>(count), stringClass, nullptr);
    for (std::size_t i = 0; i < count; ++i) {
        if (entries[i] != NULL_ATTRIBUTE) {
            env->SetObjectArrayElement(result, static_cast<jsize>(i), toJavaString(env, entries[i]));
        }
    }
    return result;
}

Array<Handle> fromJavaHandles(JNIEnv* env, jlongArray handles) {
    if (!handles) {
        return Array<Handle>();
    }
    const jsize length = env->GetArrayLength(handles);
    Array<Handle> result(length);
    jlong* values = env->GetLongArrayElements(handles, nullptr);
    if (!values) {
        return Array<Handle>();  // the VM had no room; its OutOfMemoryError is pending
    }
    for (jsize i = 0; i < length; ++i) {
        result[i] = handleFromJava(values[i]);
    }
    env->ReleaseLongArrayElements(handles, values, 0);
    return result;
}

}  // namespace tolva
