// The one road from native threads into the Java host: holds the Java VM, the
// callback object (the DefaultDeskwright whose native started the connection),
// its filterEvent method and a cache of Java classes. Every call into Java
// except setJavaCallbackObject runs on the one attached thread.
#pragma once

#include <jni.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolva {

class WinClientEvent;

class EventFilter {
public:
    static EventFilter& getInstance();
    virtual ~EventFilter();

    void setJavaVM(JavaVM* vm);
    // On the Java caller's thread, with its environment.
    void setJavaCallbackObject(JNIEnv* env, jobject callback);

    // By the thread that carries the Java calls, at the start and end of its loop.
    void attachThread();
    void detachThread();

    jclass loadClass(const std::string& dottedName);
    jclass getClass(const std::string& dottedName);  // cached; null if it can't be had
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
    bool clearJavaException();
    void callCallbackVoid(const char* name, const char* signature, std::int64_t handle, bool withIndex,
                          std::int32_t index);
    jobject newEventObject(WinClientEvent* event, bool& fits);
    jobject newCallbackEvent();

    JavaVM* javaVM_ = nullptr;
    JNIEnv* env_ = nullptr;
    jobject callback_ = nullptr;
    jmethodID filterMethod_ = nullptr;
    bool timestamped_ = true;
};

}  // namespace tolva
