/* Owners of what has to be given back: descriptors, streams, blocks from malloc, and key bytes that must not stay
 * in memory. Each can be moved, none copied; letting go never changes errno, so that a failure can still be told
 * after its owner has gone. */
#ifndef PROCESS_OWNED_H
#define PROCESS_OWNED_H

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

/** Puts errno back at the end of a scope to what it was at its beginning. */
class KeptErrno {
public:
    KeptErrno() : kept_(errno) {}
    ~KeptErrno() { errno = kept_; }
    KeptErrno(const KeptErrno &) = delete;
    KeptErrno &operator=(const KeptErrno &) = delete;

    int value() const { return kept_; }

private:
    int kept_;
};

/** Closes a descriptor at the end. -1 stands for none. */
class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    OwnedFd(OwnedFd &&other) noexcept : fd_(other.release()) {}
    OwnedFd &operator=(OwnedFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    OwnedFd(const OwnedFd &) = delete;
    OwnedFd &operator=(const OwnedFd &) = delete;
    ~OwnedFd() { reset(); }

    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    explicit operator bool() const { return is_open(); }
    /** Hands the descriptor to the caller, who closes it. */
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old < 0 || old == fd) return;
        const KeptErrno kept;
        close(old);
    }

private:
    int fd_ = -1;
};

namespace process {
/** Opens a log or status file, created with mode 0664, close-on-exec and without following a link. For root only a
 *  regular file with one name will do: through any other a user could have root write where it shouldn't. */
OwnedFd open_guarded(const char *path, int flags);
}  // namespace process

/** Closes a stream at the end. */
class OwnedFile {
public:
    OwnedFile() = default;
    explicit OwnedFile(FILE *file) : file_(file) {}
    OwnedFile(OwnedFile &&other) noexcept : file_(other.release()) {}
    OwnedFile &operator=(OwnedFile &&other) noexcept {
        reset(other.release());
        return *this;
    }
    OwnedFile(const OwnedFile &) = delete;
    OwnedFile &operator=(const OwnedFile &) = delete;
    ~OwnedFile() { reset(); }

    FILE *get() const { return file_; }
    bool is_open() const { return file_ != nullptr; }
    explicit operator bool() const { return is_open(); }
    /** Hands the stream to the caller, who closes it. */
    FILE *release() { return std::exchange(file_, nullptr); }
    void reset(FILE *file = nullptr) {
        FILE *const old = std::exchange(file_, file);
        if (old == nullptr || old == file) return;
        const KeptErrno kept;
        fclose(old);
    }

private:
    FILE *file_ = nullptr;
};

/** Frees a block of malloc at the end: OwnedBlock<char> text(process_memdup(label, source, size)). For plain data:
 *  no destructor runs. */
template <class Item = void>
class OwnedBlock {
    static_assert(std::is_void_v<Item> || std::is_trivially_destructible_v<Item>, "free() runs no destructor");

public:
    OwnedBlock() = default;
    explicit OwnedBlock(void *block) : block_(static_cast<Item *>(block)) {}
    OwnedBlock(OwnedBlock &&other) noexcept : block_(other.release()) {}
    OwnedBlock &operator=(OwnedBlock &&other) noexcept {
        reset(other.release());
        return *this;
    }
    OwnedBlock(const OwnedBlock &) = delete;
    OwnedBlock &operator=(const OwnedBlock &) = delete;
    ~OwnedBlock() { reset(); }

    Item *get() const { return block_; }
    Item *operator->() const { return block_; }
    template <class Other = Item>
    std::add_lvalue_reference_t<Other> operator[](std::size_t index) const {
        return block_[index];
    }
    bool is_null() const { return block_ == nullptr; }
    explicit operator bool() const { return !is_null(); }
    /** Hands the block to the caller, who frees it. */
    Item *release() { return std::exchange(block_, nullptr); }
    void reset(void *block = nullptr) {
        Item *const old = std::exchange(block_, static_cast<Item *>(block));
        if (old == nullptr || old == block_) return;
        const KeptErrno kept;
        free(old);
    }

private:
    Item *block_ = nullptr;
};

/** Overwrites memory in a way that the compiler can't leave out. */
inline void wipe(void *memory, std::size_t size) {
    if (memory != nullptr && size > 0) explicit_bzero(memory, size);
}

/** A fixed number of bytes for keys and passwords: zero at first, wiped at the end. */
template <std::size_t Size>
class WipedBytes {
public:
    WipedBytes() = default;
    WipedBytes(const WipedBytes &) = delete;
    WipedBytes &operator=(const WipedBytes &) = delete;
    ~WipedBytes() { wipe(bytes_.data(), Size); }

    std::uint8_t *data() { return bytes_.data(); }
    const std::uint8_t *data() const { return bytes_.data(); }
    static constexpr std::size_t size() { return Size; }
    std::uint8_t &operator[](std::size_t index) { return bytes_[index]; }
    std::uint8_t operator[](std::size_t index) const { return bytes_[index]; }
    auto begin() { return bytes_.begin(); }
    auto end() { return bytes_.end(); }
    auto begin() const { return bytes_.begin(); }
    auto end() const { return bytes_.end(); }

private:
    std::array<std::uint8_t, Size> bytes_{};
};

#endif
