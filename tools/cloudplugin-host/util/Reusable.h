// Objects that are costly to make (compression contexts, large buffers),
// kept for reuse between calls from any thread: a call takes one for as
// long as it needs it and gives it back.
//
// Why not thread_local: MinGW-w64's runtime frees a thread's thread_local
// storage before it runs the destructors of the objects in it, so a
// thread_local with a destructor (a unique_ptr, a vector) crashes the
// Windows build when a worker thread ends. A shared free list has no such
// ordering, and its lock is taken twice per use, far below the cost of what
// is kept.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace qvhost {

template <typename T>
class Reusable {
public:
    explicit Reusable(std::function<std::unique_ptr<T>()> make) : make_(std::move(make)) {}

    // One object, the caller's alone until the lease ends.
    class Lease {
    public:
        Lease(Reusable& owner, std::unique_ptr<T> object) : owner_(&owner), object_(std::move(object)) {}
        ~Lease() {
            if (object_) owner_->GiveBack(std::move(object_));
        }
        Lease(Lease&& other) noexcept = default;
        Lease& operator=(Lease&&) = delete;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        T& operator*() const { return *object_; }
        T* operator->() const { return object_.get(); }
        T* get() const { return object_.get(); }

    private:
        Reusable* owner_;
        std::unique_ptr<T> object_;
    };

    // A kept object, or a new one (make may throw).
    Lease Take() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!free_.empty()) {
                std::unique_ptr<T> object = std::move(free_.back());
                free_.pop_back();
                return Lease(*this, std::move(object));
            }
        }
        return Lease(*this, make_());
    }

private:
    void GiveBack(std::unique_ptr<T> object) {
        std::lock_guard<std::mutex> lock(mutex_);
        free_.push_back(std::move(object));
    }

    std::function<std::unique_ptr<T>()> make_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<T>> free_;
};

}  // namespace qvhost
