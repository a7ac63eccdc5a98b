// The Java types that EventFilter's interface names, declared as the JDK's
// jni.h declares them for C++. Layers that only hand events on see these and
// no Java header; code that calls Java includes <jni.h> itself.
#pragma once

class _jobject;
class _jclass;
class _jobjectArray;
typedef _jobject* jobject;
typedef _jclass* jclass;
typedef _jobjectArray* jobjectArray;
struct _jmethodID;
typedef struct _jmethodID* jmethodID;
struct JNIEnv_;
typedef JNIEnv_ JNIEnv;
struct JavaVM_;
typedef JavaVM_ JavaVM;
