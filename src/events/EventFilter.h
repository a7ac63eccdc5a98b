// The one road from native threads into the Java host: holds the Java VM, the
// callback object (the DefaultDeskwright whose native started the connection),
// its filterEvent method and a cache of Java classes. Every call into Java
// except setJavaCallbackObject runs on the one attached thread.
#pragma once

#include "events/GlobalRef.h"
#include "events/JniTypes.h"
#include "tolvacore/ipc/ShmQueue.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolva {

class WinClientEvent;

// The client calls it by the pointer it got at connection, with a record.
class EventFilter : public tolvacore::ipc::ShmCallable {
public:
    static EventFilter& getInstance();
    ~EventFilter() override;

    // Reads a record from the queue and hands it to callJava, then answers 0,
    // so that the client's call returns once the host has seen the event. A
    // malformed record is logged and answered 0 all the same; only a failure
    // of the answer itself leaves as ShmException.
    void call(tolvacore::ipc::ShmQueue& queue) override;

    void setJavaVM(JavaVM* vm);
    // On the Java caller's thread, with its environment.
    void setJavaCallbackObject(JNIEnv* env, jobject callback);

    // By the thread that carries the Java calls, at the start and end of its loop.
    void attachThread();
    void detachThread();

    // A new global reference to the class, found through the callback object's
    // class loader; null, with whatever Java threw cleared, if it can't be had.
    jclass loadClass(const std::string& dottedName);
    // Cached for the life of the attached thread; null if it can't be had.
    jclass getClass(const std::string& dottedName);
    void checkEventConstructor();
    void onConnect();
    void onTerminate();
    bool timestampedEvents() const { return timestamped_; }

    // Turns a record into its Java event and hands it to filterEvent.
    void callJava(WinClientEvent* event);
    void callJavaPrepareRecording(std::int64_t handle);
    void callJavaDefaultCheck(std::int64_t handle);
    std::vector<std::wstring> callJavaContextCheck(std::int64_t handle);
    void callJavaCheckSelect(std::int64_t handle, std::int32_t index);

private:
    EventFilter() = default;
    void sendWinEvent(std::int32_t type);
    // Logs, describes and clears a pending Java exception; true if there was one.
    bool clearJavaException();
    // Clears a pending exception without a word; true if there was one.
    bool dropJavaException();
    // The method of the object's class; null, with the NoSuchMethodError cleared, if it has none.
    jmethodID methodOf(jobject object, const char* name, const char* signature);
    // The result of a method of the object without arguments or with one; null, with the exception cleared, on failure.
    jobject callObjectMethod(jobject object, const char* name, const char* signature, jobject argument = nullptr);
    void callCallbackVoid(const char* name, const char* signature, std::int64_t handle, bool withIndex,
                          std::int32_t index);
    // A new object of the event class by the constructor of the signature and
    // the arguments that follow; null, with the reason logged and cleared, if
    // the class, the constructor or the construction fails.
    jobject newJavaEvent(const char* simpleName, const char* signature, ...);
    // The Java event of a record; fits is false for a record of no Java kind.
    jobject newEventObject(WinClientEvent* event, bool& fits);
    jobject newCallbackEvent();
    // Deletes the cached classes' global references and forgets them.
    void forgetClasses();
    // The label at the index of the host's array; empty for a null entry or one that is no string.
    std::wstring labelAt(jobjectArray labels, std::int32_t index, jclass stringClass);

    // The constructors found so far, by the simple name and signature that
    // asked for them (the callers' literals); they stand as long as the
    // cached classes do.
    struct Constructor {
        const char* simpleName;
        const char* signature;
        jclass clazz;
        jmethodID init;
    };
    std::vector<Constructor> constructors_;

    JavaVM* javaVM_ = nullptr;
    JNIEnv* env_ = nullptr;
    GlobalRef<jobject> callback_;
    jmethodID filterMethod_ = nullptr;
    bool timestamped_ = true;
};

}  // namespace tolva
