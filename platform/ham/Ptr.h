// Intrusive reference-counted pointer. Objects handed around by Ptr derive
// from RefCounted; copying a Ptr adds a reference, dropping the last one
// deletes the object. One thread only, like everything else here.
#pragma once
#include <cstddef>
#include <utility>

class RefCounted {
  public:
    RefCounted() = default;
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;
    virtual ~RefCounted() = default;

    void ref() const { ++refs_; }
    void unref() const {
        if (--refs_ == 0) delete this;
    }
    unsigned refs() const { return refs_; }

  private:
    mutable unsigned refs_ = 0;
};

template <typename T>
class Ptr {
  public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    Ptr(T* p) : p_(p) { if (p_) p_->ref(); }
    Ptr(const Ptr& o) : p_(o.p_) { if (p_) p_->ref(); }
    Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    template <typename U>
    Ptr(const Ptr<U>& o) : p_(o.ptr()) { if (p_) p_->ref(); }
    ~Ptr() { if (p_) p_->unref(); }

    Ptr& operator=(Ptr o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }

    T* ptr() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    bool operator==(std::nullptr_t) const { return p_ == nullptr; }
    bool operator!=(std::nullptr_t) const { return p_ != nullptr; }

  private:
    T* p_ = nullptr;
};
