/* Access keys in a test's hand: their text, datagrams with a key shown in front, envelopes made and opened.
 *
 * For tests that link packet/. The library's own key table is left alone: a test process has no keys. */
#ifndef TESTS_SUPPORT_ACCESSKEY_H
#define TESTS_SUPPORT_ACCESSKEY_H

#include <optional>
#include <string>

#include "packet/packet.h"
#include "process/velproc.h"

/** No key is looked up meanwhile, so that the key file stays unread: a child may still want to read one. */
class NoKeyLookUp {
public:
    NoKeyLookUp() : before_(process_context.noAccessKeyCheck) { process_context.noAccessKeyCheck = 1; }
    ~NoKeyLookUp() { process_context.noAccessKeyCheck = before_; }

private:
    int before_;
};

class AccessKey {
public:
    /** From a key text of 32 characters a to p, the digits 0 to 15. */
    explicit AccessKey(std::string text) : text_(std::move(text)) {
        for (size_t at = 0; at + 1 < text_.size(); at += 2) {
            bytes_.push_back(static_cast<char>((text_[at] - 'a') << 4 | (text_[at + 1] - 'a')));
        }
    }
    const std::string &text() const { return text_; }

    /** The packet with the key shown in front of it. */
    std::string shown(const std::string &packet) const { return '\xa4' + bytes_ + packet; }

    /** The packet in an envelope under the key. */
    std::string sealed(const std::string &packet) const {
        const NoKeyLookUp none;
        std::string envelope(packet.size() + PACKET_ENVELOPE_ROOM, '\0');
        const int size =
            packet_encrypt(raw(bytes_), raw(packet), static_cast<int>(packet.size()), raw(envelope.data()));
        envelope.resize(static_cast<size_t>(size));
        return envelope;
    }

    /** What is in an envelope under the key; nothing for what is none. */
    std::optional<std::string> opened(const std::string &envelope) const {
        if (envelope.empty() || envelope[0] != '\xa5') return std::nullopt;
        std::string target(envelope.size(), '\0');
        int length = 0;
        const unsigned char *plain = packet_decrypt(raw(bytes_), raw(envelope), static_cast<int>(envelope.size()),
                                                    raw(target.data()), &length);
        if (plain == nullptr) return std::nullopt;
        return std::string(reinterpret_cast<const char *>(plain), static_cast<size_t>(length));
    }

private:
    static unsigned char *raw(char *bytes) { return reinterpret_cast<unsigned char *>(bytes); }
    static const unsigned char *raw(const std::string &bytes) {
        return reinterpret_cast<const unsigned char *>(bytes.data());
    }
    std::string text_, bytes_;
};

#endif
