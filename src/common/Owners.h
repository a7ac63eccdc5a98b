// One-line owners of Win32 resources: kernel handles, hooks, WinEvent hooks
// and GDI objects. Each closes what it holds with the function that belongs
// to it, once, when it goes or takes another value; release() hands the value
// to the caller, who closes it.
#pragma once

#include <windows.h>

#include <utility>

namespace tolva {

// Holds a T closed by Close; null is "nothing held".
template <class T, class Arg, BOOL(WINAPI* Close)(Arg)>
class UniqueAny {
public:
    UniqueAny() = default;
    explicit UniqueAny(T value) : value_(value) {}
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;
    UniqueAny(UniqueAny&& other) noexcept : value_(other.release()) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueAny() { reset(); }

    T get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }
    // Closes what is held and presets to null, for an out-parameter.
    T* put() {
        reset();
        return &value_;
    }
    T release() { return std::exchange(value_, nullptr); }
    void reset(T value = nullptr) {
        if (T old = std::exchange(value_, value)) {
            Close(old);
        }
    }

private:
    T value_ = nullptr;
};

// Processes, threads, events: CloseHandle. Only null counts as empty; no
// function used here gives INVALID_HANDLE_VALUE for a failure.
using UniqueHandle = UniqueAny<HANDLE, HANDLE, &::CloseHandle>;
using UniqueHook = UniqueAny<HHOOK, HHOOK, &::UnhookWindowsHookEx>;
using UniqueWinEventHook = UniqueAny<HWINEVENTHOOK, HWINEVENTHOOK, &::UnhookWinEvent>;
// Pens, brushes, fonts, bitmaps, regions: DeleteObject. Not for an object
// still selected into a device context, nor for stock objects.
template <class T>
using UniqueGdi = UniqueAny<T, HGDIOBJ, &::DeleteObject>;

}  // namespace tolva
