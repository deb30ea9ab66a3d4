// zstd behind the repository's two calls. Contexts are kept per thread: making one costs more than compressing a
// small chunk, and the backup's jobs each compress on their own thread.
#include "repository/Compression.h"

#include <zstd.h>
#include <zstd_errors.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "util/Buffers.h"
#include "util/Reusable.h"

namespace qvhost::repo {

namespace {

// zstd's contexts, kept for reuse (util/Reusable.h says why not per thread).
struct Compressor {
    ZSTD_CCtx* context = ZSTD_createCCtx();
    Compressor() = default;
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    ~Compressor() { ZSTD_freeCCtx(context); }
};
struct Decompressor {
    ZSTD_DCtx* context = ZSTD_createDCtx();
    Decompressor() = default;
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;
    ~Decompressor() { ZSTD_freeDCtx(context); }
};

Reusable<Compressor>::Lease TakeCompressor() {
    static Reusable<Compressor> compressors([] {
        auto made = std::make_unique<Compressor>();
        if (!made->context) throw std::runtime_error("cannot allocate a zstd compression context");
        return made;
    });
    return compressors.Take();
}

Reusable<Decompressor>::Lease TakeDecompressor() {
    static Reusable<Decompressor> decompressors([] {
        auto made = std::make_unique<Decompressor>();
        if (!made->context) throw std::runtime_error("cannot allocate a zstd decompression context");
        return made;
    });
    return decompressors.Take();
}

void Check(size_t result, const char* what) {
    if (ZSTD_isError(result)) throw std::runtime_error(std::string(what) + ": " + ZSTD_getErrorName(result));
}

}  // namespace

bool Compress(const uint8_t* data, size_t size, Bytes& out, int level) {
    if (!data && size > 0) throw std::invalid_argument("the data is null but its size is not 0");
    if (level < ZSTD_minCLevel() || level > ZSTD_maxCLevel()) {
        throw std::invalid_argument("zstd has no compression level " + std::to_string(level));
    }
    if (Overlaps(data, size, out.data(), out.capacity())) {
        throw std::invalid_argument("the data to compress lies inside the output buffer");
    }
    out.clear();
    // The largest result that is still below 15/16 of the input: size - size/16 - 1 (no overflow, unlike
    // 15 * size). Giving zstd no more room than that makes it stop as soon as the result cannot pay.
    if (size == 0) return false;
    const size_t capacity = size - size / 16 - 1;
    if (capacity == 0) return false;

    const Reusable<Compressor>::Lease compressor = TakeCompressor();
    ZSTD_CCtx* const context = compressor->context;
    Check(ZSTD_CCtx_reset(context, ZSTD_reset_session_and_parameters), "zstd reset");
    Check(ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, level), "zstd level");
    // The content size goes into the frame, for Decompress to check; no checksum: the sealed object around the
    // frame is authenticated already.
    Check(ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 1), "zstd content size");
    Check(ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 0), "zstd checksum");
    out.resize(capacity);
    const size_t result = ZSTD_compress2(context, out.data(), capacity, data, size);
    if (ZSTD_isError(result)) {
        out.clear();
        if (ZSTD_getErrorCode(result) == ZSTD_error_dstSize_tooSmall) return false;
        throw std::runtime_error(std::string("zstd compression failed: ") + ZSTD_getErrorName(result));
    }
    out.resize(result);
    return true;
}

bool Decompress(const uint8_t* data, size_t size, size_t expectedSize, size_t limit, Bytes& out) {
    if (!data && size > 0) throw std::invalid_argument("the data is null but its size is not 0");
    const auto refuse = [&out] {
        out.clear();
        return false;
    };
    if (size < 4 || expectedSize > limit) return refuse();
    // A zstd frame proper: a skippable frame would "decompress" to nothing.
    const uint32_t magic = uint32_t{data[0]} | uint32_t{data[1]} << 8 | uint32_t{data[2]} << 16 |
                           uint32_t{data[3]} << 24;
    if (magic != ZSTD_MAGICNUMBER) return refuse();
    // Exactly one frame, nothing after it (this walks the block headers, reading nothing beyond `size`).
    const size_t frameSize = ZSTD_findFrameCompressedSize(data, size);
    if (ZSTD_isError(frameSize) || frameSize != size) return refuse();
    // The declared size must be the expected one before anything is allocated for it.
    const unsigned long long declared = ZSTD_getFrameContentSize(data, size);
    if (declared == ZSTD_CONTENTSIZE_UNKNOWN || declared == ZSTD_CONTENTSIZE_ERROR || declared != expectedSize) {
        return refuse();
    }

    Bytes separate;
    const bool inPlace = Overlaps(data, size, out.data(), out.capacity());
    Bytes& target = inPlace ? separate : out;
    target.resize(expectedSize);
    const size_t result = ZSTD_decompressDCtx(TakeDecompressor()->context, target.data(), target.size(), data, size);
    if (ZSTD_isError(result) || result != expectedSize) return refuse();
    if (inPlace) out = std::move(separate);
    return true;
}

struct DecompressingBuffer::Context {
    Decompressor stream;
};

DecompressingBuffer::DecompressingBuffer(const uint8_t* data, size_t size, uint64_t limit)
    : context_(std::make_unique<Context>()), data_(data), size_(size), limit_(limit) {
    if (!context_->stream.context) throw std::bad_alloc();
    setg(buffer_, buffer_, buffer_);
}

DecompressingBuffer::~DecompressingBuffer() = default;

DecompressingBuffer::int_type DecompressingBuffer::underflow() {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    while (!ended_ && !failed_) {
        ZSTD_inBuffer in{data_, size_, consumed_};
        ZSTD_outBuffer out{buffer_, sizeof buffer_, 0};
        const size_t result = ZSTD_decompressStream(context_->stream.context, &out, &in);
        consumed_ = in.pos;
        if (ZSTD_isError(result)) failed_ = true;
        if (result == 0) ended_ = true;  // the frame is complete
        produced_ += out.pos;
        if (produced_ > limit_) failed_ = true;
        if (ended_ && consumed_ != size_) failed_ = true;  // bytes after the frame
        if (!ended_ && out.pos == 0 && consumed_ == size_) failed_ = true;  // the frame ends early
        if (failed_) break;
        if (out.pos > 0) {
            setg(buffer_, buffer_, buffer_ + out.pos);
            return traits_type::to_int_type(*gptr());
        }
    }
    return traits_type::eof();
}

}  // namespace qvhost::repo
