/* A row of reliable packets in both directions, acknowledgements, cancellations and ticks, at times that the input
 * gives. A copy is handed up again only if its first arrival is too old or had to make room.
 *
 * Input: replay records at most, then step by step: a control byte (what, with whom, seconds since the last step) and
 * what the step needs, a packet with its length (2 bytes) first. Nothing is sent: the socket is closed. */
#include <map>
#include <utility>

#include "fuzz/fuzz.h"
#include "ivs/ivssrdpi.h"

namespace {

enum Step { RECEIVE, TICK, SEND, FORWARD, ACKNOWLEDGE, ACKNOWLEDGE_SENT, CANCEL, SET_CLOCK };

constexpr int NO_SOCKET = -1;
constexpr time_t WAITS[] = {0, 1, 2, 3, 4, 16, 64, 65};  // seconds
constexpr int STEP_USEC = 37000;

class Conversation {
public:
    explicit Conversation(Input &input) : input_(input) {
        become_a_silent_process();
        ivs::srdp_replay_limit = 1UL + input_.u8();
        while (!input_.is_empty()) step(input_.u8());
        ivs::srdp_reset();
    }

private:
    using Arrival = std::pair<int, uint16_t>;  // peer, id

    Input &input_;
    timeval now_{1000000, 0};
    PacketAddress peer_{};
    std::map<Arrival, time_t> arrivals_;  // to the last second in which a copy is one for certain
    std::vector<Bytes> acks_;             // for what was sent with an id that is known

    Bytes packet() { return input_.take(input_.u16be()); }
    void step(int control);
    void let_pass(time_t seconds);
    void receive(const Bytes &packet, int peer);
    void forward(Bytes packet);
    void acknowledge(const Bytes &packet) const;
    void acknowledge_sent(size_t number) const;
    void cancel(uint32_t owner, int type, int sub_type) const;
    void send(uint32_t owner, int type, const Bytes &body) const;
    void set_clock(time_t seconds);
    void check_counters() const;
};

int size_of(const Bytes &bytes) { return static_cast<int>(bytes.size()); }

void Conversation::let_pass(time_t seconds) {
    now_.tv_sec += seconds;
    now_.tv_usec += STEP_USEC;
    if (now_.tv_usec < 1000000) return;
    now_.tv_usec -= 1000000;
    now_.tv_sec++;
}

void Conversation::receive(const Bytes &packet, int peer) {
    const uint16_t id = ivs::srdp_id(packet.data(), size_of(packet));
    const int is_new = ivs::srdp_receive_at(now_.tv_sec, NO_SOCKET, now_.tv_sec, packet.data(), size_of(packet),
                                            &peer_, sizeof peer_);
    const auto known = arrivals_.find({peer, id});
    const bool had_room = arrivals_.size() <= ivs::srdp_replay_limit;
    FUZZ_REQUIRE(is_new == 0 || is_new == 1);
    FUZZ_REQUIRE(known != arrivals_.end() || is_new == 1);
    FUZZ_REQUIRE(known == arrivals_.end() || !had_room || known->second < now_.tv_sec || is_new == 0);
    if (is_new == 1) arrivals_[{peer, id}] = now_.tv_sec + ivs::SRDP_LIFETIME;
}

void Conversation::send(uint32_t owner, int type, const Bytes &body) const {
    ivs::srdp_send_at(now_, NO_SOCKET, now_.tv_sec, 0x01020304, owner, type, body.data(), size_of(body), &peer_,
                      sizeof peer_);
}

/** Bytes that have no room for an id go out as they are. */
void Conversation::forward(Bytes packet) {
    const Bytes before = packet;
    ivs::srdp_forward_at(now_, NO_SOCKET, now_.tv_sec, 1, packet.data(), size_of(packet), &peer_, sizeof peer_);
    if (size_of(packet) < IVS_SRDP_HEAD) {
        FUZZ_REQUIRE(packet == before);
        return;
    }
    FUZZ_REQUIRE(packet[0] == before[0] && memcmp(&packet[3], &before[3], packet.size() - 3) == 0);
    acks_.push_back({IVS_TYPE_SACK, packet[1], packet[2]});
}

void Conversation::acknowledge(const Bytes &packet) const {
    ivs::srdp_ack_at(now_.tv_sec, packet.data(), size_of(packet), &peer_);
}

void Conversation::acknowledge_sent(size_t number) const {
    if (!acks_.empty()) acknowledge(acks_[number % acks_.size()]);
}

void Conversation::cancel(uint32_t owner, int type, int sub_type) const {
    if (type == 0) return ivs::srdp_cancel_at(now_.tv_sec, owner);
    ivs::srdp_cancel_type_at(now_.tv_sec, owner, type, sub_type);
}

void Conversation::set_clock(time_t seconds) {
    ivs_srdp_clock_was_set(seconds);
    now_.tv_sec += seconds;
    for (auto &[arrival, last_second] : arrivals_) last_second += seconds;
}

void Conversation::check_counters() const {
    const uint32_t *sums = ivs::srdp_stats_at(now_.tv_sec, 60);
    FUZZ_REQUIRE(sums[ivs::SRDP_RER] <= sums[ivs::SRDP_PAR] && sums[ivs::SRDP_ARR] <= sums[ivs::SRDP_ACR]);
}

void Conversation::step(int control) {
    const int peer = control >> 3 & 3;
    peer_.sin_family = AF_INET;
    peer_.sin_addr.s_addr = htonl(INADDR_LOOPBACK + static_cast<uint32_t>(peer >> 1));
    peer_.sin_port = htons(static_cast<uint16_t>(4000 + (peer & 1)));
    let_pass(WAITS[control >> 5]);

    const int what = control & 7;
    if (what == RECEIVE) receive(packet(), peer);
    if (what == TICK) ivs::srdp_handle_at(now_.tv_sec, NO_SOCKET, now_);
    if (what == FORWARD) forward(packet());
    if (what == ACKNOWLEDGE) acknowledge(packet());
    if (what == ACKNOWLEDGE_SENT) acknowledge_sent(input_.u8());
    if (what == SET_CLOCK) set_clock(static_cast<int8_t>(input_.u8()) * time_t{60});
    if (what == SEND || what == CANCEL) {
        const uint32_t owner = input_.u8();
        const int type = input_.u8();
        what == SEND ? send(owner, type, packet()) : cancel(owner, type, input_.u8());
    }
    check_counters();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    const Conversation conversation(input);
    return 0;
}
