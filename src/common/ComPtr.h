// Small owners of COM resources: a counted interface pointer, a BSTR and a
// VARIANT.
// Out-parameters are received through put(), which releases what was held and
// presets the pointer to null before the call.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <unknwn.h>

#include <string>
#include <utility>

namespace tolva {

template <class T>
class ComPtr {
public:
    ComPtr() = default;
    ComPtr(std::nullptr_t) {}
    // Takes over a reference that the caller owns.
    static ComPtr attach(T* raw) {
        ComPtr p;
        p.ptr_ = raw;
        return p;
    }
    // Takes a reference of its own on a borrowed pointer.
    static ComPtr share(T* raw) {
        if (raw) raw->AddRef();
        return attach(raw);
    }
    ComPtr(const ComPtr& other) : ptr_(other.ptr_) {
        if (ptr_) ptr_->AddRef();
    }
    ComPtr(ComPtr&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    ComPtr& operator=(ComPtr other) noexcept {
        std::swap(ptr_, other.ptr_);
        return *this;
    }
    ~ComPtr() { reset(); }

    T* get() const { return ptr_; }
    T* operator->() const { return ptr_; }
    explicit operator bool() const { return ptr_ != nullptr; }
    T** put() {
        reset();
        return &ptr_;
    }
    // Hands the reference to the caller.
    T* detach() { return std::exchange(ptr_, nullptr); }
    void reset() {
        if (ptr_) std::exchange(ptr_, nullptr)->Release();
    }
    // Asks the object for another of its interfaces; empty if it has none.
    template <class U>
    ComPtr<U> query(REFIID iid) const {
        ComPtr<U> other;
        if (ptr_ && FAILED(ptr_->QueryInterface(iid, reinterpret_cast<void**>(other.put())))) {
            other.reset();
        }
        return other;
    }

private:
    T* ptr_ = nullptr;
};

class Bstr {
public:
    Bstr() = default;
    // A copy of the text, embedded nulls included; null if there is no memory.
    explicit Bstr(const std::wstring& text) : str_(SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    ~Bstr() { SysFreeString(str_); }

    BSTR* put() {
        SysFreeString(str_);
        str_ = nullptr;
        return &str_;
    }
    BSTR get() const { return str_; }
    // Hands the string to the caller, who frees it with SysFreeString.
    BSTR release() { return std::exchange(str_, nullptr); }
    // The text; empty for a null BSTR.
    std::wstring text() const { return str_ ? std::wstring(str_, SysStringLen(str_)) : std::wstring(); }

private:
    BSTR str_ = nullptr;
};

// A VARIANT that starts zeroed and set up with VariantInit, and is cleared
// with VariantClear when it goes or is received into again.
class Variant {
public:
    Variant() { VariantInit(&var_); }
    // VT_BSTR with a copy of the text (a null string if there is no memory).
    explicit Variant(const std::wstring& text) : Variant() {
        var_.vt = VT_BSTR;
        var_.bstrVal = Bstr(text).release();
    }
    // VT_I4.
    explicit Variant(LONG value) : Variant() {
        var_.vt = VT_I4;
        var_.lVal = value;
    }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
    ~Variant() { VariantClear(&var_); }

    VARIANT* put() {
        VariantClear(&var_);
        var_ = VARIANT{};
        VariantInit(&var_);
        return &var_;
    }
    const VARIANT& get() const { return var_; }
    // The string member if the value is a string, else empty.
    std::wstring text() const {
        return var_.vt == VT_BSTR && var_.bstrVal ? std::wstring(var_.bstrVal, SysStringLen(var_.bstrVal))
                                                  : std::wstring();
    }

private:
    VARIANT var_{};
};

}  // namespace tolva
