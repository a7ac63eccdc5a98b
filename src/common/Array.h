// The driver's small result container: a 32-bit count and a buffer of exactly
// that many elements, made at construction. Copying transfers the buffer and
// leaves the source empty with count 0, so results can be handed on by value.
#pragma once

#include <cstdint>

namespace tolva {

template <class T>
class Array {
public:
    explicit Array(std::int32_t size = 0)
        : size_(size > 0 ? size : 0), data_(size_ > 0 ? new T[size_]() : nullptr) {}
    ~Array() { delete[] data_; }

    Array(Array& other) noexcept : size_(other.size_), data_(other.data_) { other.forget(); }
    Array(Array&& other) noexcept : size_(other.size_), data_(other.data_) { other.forget(); }
    Array& operator=(Array& other) noexcept { return take(other); }
    Array& operator=(Array&& other) noexcept { return take(other); }

    std::int32_t size() const { return size_; }
    T& operator[](std::int32_t i) { return data_[i]; }
    const T& operator[](std::int32_t i) const { return data_[i]; }
    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }

private:
    void forget() {
        size_ = 0;
        data_ = nullptr;
    }
    Array& take(Array& other) {
        if (this != &other) {
            delete[] data_;
            size_ = other.size_;
            data_ = other.data_;
            other.forget();
        }
        return *this;
    }

    std::int32_t size_;
    T* data_;
};

}  // namespace tolva
