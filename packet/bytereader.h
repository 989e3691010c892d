/* Bytes of the wire: a reader and a writer that keep the bounds themselves.
 *
 * Whatever came from a peer is read through ByteReader, whatever goes to one is put together with ByteWriter. What
 * the fields mean is left to their users. Fields are copied, never cast: on the wire nothing is aligned. */
#ifndef PACKET_BYTEREADER_H
#define PACKET_BYTEREADER_H

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

/** Walks over a packet and never beyond it. Bytes that are missing read as zero. */
class ByteReader {
public:
    ByteReader(const void *packet, int length)
        : next_(static_cast<const uint8_t *>(packet)), left_(packet != nullptr && length > 0 ? length : 0) {}

    uint8_t u8() { return field<uint8_t>(); }
    uint16_t raw16() { return field<uint16_t>(); }  // opaque or network order: goes through as it stands
    uint32_t raw32() { return field<uint32_t>(); }  // identifier word: stays in network order
    uint16_t u16be() { return ntohs(field<uint16_t>()); }
    uint32_t u32be() { return ntohl(field<uint32_t>()); }  // number: host order from here on

    /** Steps over `count` bytes or to the end, and gives where they begin and how many there are. */
    const uint8_t *bytes(int count, int *taken = nullptr) {
        const uint8_t *start = next_;
        const int stepped = step(count);
        if (taken != nullptr) *taken = stepped;
        return start;
    }
    void skip(int count) { step(count); }

    /** What has not been read yet. */
    const uint8_t *rest() const { return next_; }
    int left() const { return left_; }

    /** A field or a stretch was asked for that isn't there in full; to be asked once, at the end. */
    bool ran_short() const { return ran_short_; }

private:
    template <class Word>
    Word field() {
        Word word{};
        const uint8_t *start = next_;
        const int taken = step(static_cast<int>(sizeof word));
        if (taken > 0) memcpy(&word, start, static_cast<size_t>(taken));
        return word;
    }
    int step(int wanted) {
        const int taken = std::clamp(wanted, 0, left_);
        if (taken > 0) next_ += taken;
        left_ -= taken;
        ran_short_ = ran_short_ || taken < wanted;
        return taken;
    }
    const uint8_t *next_;
    int left_;
    bool ran_short_ = false;
};

/** Fills a buffer and never beyond it. A field or stretch that doesn't fit is left out whole, and so is all that
 *  follows, so that what was written is always the true beginning of the packet. */
class ByteWriter {
public:
    ByteWriter(void *buffer, int size)
        : start_(static_cast<uint8_t *>(buffer)), size_(buffer != nullptr && size > 0 ? size : 0) {}

    ByteWriter &u8(unsigned value) { return field(static_cast<uint8_t>(value)); }
    ByteWriter &raw16(uint16_t word) { return field(word); }
    ByteWriter &raw32(uint32_t word) { return field(word); }
    ByteWriter &u16be(uint16_t value) { return field(htons(value)); }
    ByteWriter &u32be(uint32_t value) { return field(htonl(value)); }

    ByteWriter &bytes(const void *source, int count) {
        if (count <= 0) return *this;
        if (ran_full_ || count > room()) {
            ran_full_ = true;
            return *this;
        }
        memcpy(start_ + length_, source, static_cast<size_t>(count));
        length_ += count;
        return *this;
    }

    const uint8_t *data() const { return start_; }
    int length() const { return length_; }
    int room() const { return size_ - length_; }

    /** Something didn't fit; to be asked once, at the end. */
    bool ran_full() const { return ran_full_; }

private:
    template <class Word>
    ByteWriter &field(Word word) {
        return bytes(&word, static_cast<int>(sizeof word));
    }
    uint8_t *start_;
    int size_;
    int length_ = 0;
    bool ran_full_ = false;
};

#endif
