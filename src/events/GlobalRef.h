// An owner of one JNI global reference. It names the Java types without jni.h;
// the two VM calls it makes are compiled where jni.h is seen (EventFilter.cpp).
#pragma once

#include "events/JniTypes.h"

#include <utility>

namespace tolva {

// NewGlobalRef and DeleteGlobalRef of the thread's environment.
jobject newGlobalRef(JNIEnv* env, jobject object);
void deleteGlobalRef(JNIEnv* env, jobject global);

// A global reference is deleted with the environment of the thread that gives
// it up; any attached thread may. The destructor deletes nothing on purpose:
// the holders live until the process ends, and no JNI call may run from the
// library's unload.
template <class T>
class GlobalRef {
public:
    GlobalRef() = default;
    // Takes over a global reference that the caller made.
    explicit GlobalRef(T global) : ref_(global) {}
    GlobalRef(const GlobalRef&) = delete;
    GlobalRef& operator=(const GlobalRef&) = delete;
    GlobalRef(GlobalRef&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}

    T get() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }

    // Deletes what is held and holds a new global reference to the object
    // (null for a null object or when the VM has no room for one).
    void reset(JNIEnv* env, T object = nullptr) {
        T made = object ? static_cast<T>(newGlobalRef(env, object)) : nullptr;
        if (ref_) {
            deleteGlobalRef(env, ref_);
        }
        ref_ = made;
    }
    // Lets go without deleting: for a thread that has no environment to do it.
    void abandon() { ref_ = nullptr; }

private:
    T ref_ = nullptr;
};

}  // namespace tolva
