// A job's buffer for the parts it handles, reused from part to part. Its
// bytes start on a page boundary, as direct I/O needs them to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#ifdef _WIN32
#include <malloc.h>
#endif

namespace qvhost {

class AlignedBuffer {
public:
    static constexpr size_t kAlignment = 4096;

    // Makes room for at least `size` bytes (the content is not kept).
    void Reserve(size_t size) {
        if (size <= size_) return;
        const size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
#ifdef _WIN32
        void* memory = _aligned_malloc(rounded, kAlignment);
#else
        void* memory = std::aligned_alloc(kAlignment, rounded);
#endif
        if (!memory) throw std::bad_alloc();
        bytes_.reset(static_cast<uint8_t*>(memory));
        size_ = rounded;
    }

    uint8_t* data() { return bytes_.get(); }
    size_t size() const { return size_; }

private:
    struct Free {
        void operator()(uint8_t* bytes) const {
#ifdef _WIN32
            _aligned_free(bytes);
#else
            std::free(bytes);
#endif
        }
    };
    std::unique_ptr<uint8_t, Free> bytes_;
    size_t size_ = 0;
};

}  // namespace qvhost
