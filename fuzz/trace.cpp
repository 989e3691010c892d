/* Any packet through the trace printer. It reads nothing outside of the packet, and the line that it writes is one
 * line: no control byte of the packet gets into it.
 *
 * Input: the packet, which is tried at each shorter length as well. */
#include <algorithm>

#include "fuzz/fuzz.h"
#include "ivs/ivs.h"
#include "process/owned.h"

namespace {

std::string traced(const Bytes &packet, const PacketAddress *peer) {
    timeval when{};
    char *text = nullptr;
    size_t length = 0;
    FILE *stream = open_memstream(&text, &length);
    ivs_trace_packet(stream, &when, "TR ", packet.data(), static_cast<int>(packet.size()), peer);
    fclose(stream);
    const OwnedBlock<char> owner(text);
    return std::string(text, length);
}

bool is_control(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 32 || code == 127;
}

void check(const Bytes &packet) {
    const PacketAddress peer{};
    const std::string line = traced(packet, &peer);

    const size_t end = line.find('\n');
    FUZZ_REQUIRE(line.starts_with("TR 19700101") || line.starts_with("TR 19691231"));
    FUZZ_REQUIRE(end != std::string::npos);
    FUZZ_REQUIRE(line.find_first_not_of('\n', end) == std::string::npos);  // line feeds at the end only
    FUZZ_REQUIRE(std::none_of(line.begin(), line.begin() + static_cast<long>(end), is_control));
    FUZZ_REQUIRE(!packet.empty() || line.ends_with("  0 \n"));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t MOST_CUTS = 256;
    for (size_t cut = size < MOST_CUTS ? 0 : size; cut <= size; ++cut) check(Bytes(data, data + cut));
    return 0;
}
