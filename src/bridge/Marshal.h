// Values between Java and native code: pinned strings, name lists, results.
#pragma once

#include "common/Array.h"
#include "bridge/Handles.h"

#include <jni.h>

#include <string>
#include <vector>

namespace tolva {

// A Java string pinned with GetStringChars for the life of the object. The
// native text is the characters up to the first NUL; a null string gives the
// empty text and pins nothing.
class PinnedString {
public:
    PinnedString(JNIEnv* env, jstring text);
    ~PinnedString();
    PinnedString(const PinnedString&) = delete;
    PinnedString& operator=(const PinnedString&) = delete;

    std::wstring str() const { return chars_ ? std::wstring(chars()) : std::wstring(); }
    bool isNull() const { return text_ == nullptr; }
    const wchar_t* chars() const { return reinterpret_cast<const wchar_t*>(chars_); }

private:
    JNIEnv* env_;
    jstring text_;
    const jchar* chars_;
};

// The elements of a String[] pinned one by one; the back end receives the raw
// character pointers (null for a null element; a null array is empty). Each
// element is fetched again to be released.
class PinnedNames {
public:
    PinnedNames(JNIEnv* env, jobjectArray names);
    ~PinnedNames();
    PinnedNames(const PinnedNames&) = delete;
    PinnedNames& operator=(const PinnedNames&) = delete;

    Array<const wchar_t*>& list() { return list_; }

private:
    JNIEnv* env_;
    jobjectArray names_;
    Array<const wchar_t*> list_;
};

jstring toJavaString(JNIEnv* env, const std::wstring& text);
jlongArray toJavaHandles(JNIEnv* env, const Array<Handle>& handles);
jobjectArray toJavaStrings(JNIEnv* env, const Array<std::wstring>& strings);
// Flat attribute results: every entry equal to NULL_ATTRIBUTE stays null.
jobjectArray toJavaAttributes(JNIEnv* env, const std::wstring* entries, std::size_t count);
// The low words of a long[], released at once; a null array is empty.
Array<Handle> fromJavaHandles(JNIEnv* env, jlongArray handles);

}  // namespace tolva
