/* Any text as a file of mappings. What was read is found again by either side, and of two mappings for the same side
 * the later one.
 *
 * Input: the file. */
#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>

#include "foundation/config.h"
#include "fuzz/memoryfile.h"
#include "ivs/ivs.h"

/** In place of the system's: no input waits for a name server. One name is known, and addresses in any notation. */
extern "C" hostent *gethostbyname(const char *name) {
    static in_addr address;
    static char *addresses[] = {reinterpret_cast<char *>(&address), nullptr};
    static hostent found{};
    const bool is_known = strcmp(name, "gateway") == 0;
    if (is_known) address.s_addr = htonl(0x0a090807);
    if (!is_known && inet_aton(name, &address) == 0) {
        h_errno = HOST_NOT_FOUND;
        return nullptr;
    }
    found.h_addrtype = AF_INET;
    found.h_length = sizeof address;
    found.h_addr_list = addresses;
    return &found;
}

namespace {

struct Side {
    uint32_t ip;
    uint16_t port;
    bool operator==(const Side &) const = default;
};
struct Mapping {
    Side from, to;
};

bool read_side(char *text, Side *side) {
    const std::string whole = text;
    IVS_IPMAP_S *record = ivsStr2IpMap(text);
    if (record == nullptr) return false;
    FUZZ_REQUIRE(std::string(record->hostText) + ":" + record->portText == whole);
    FUZZ_REQUIRE(strchr(record->hostText, ':') == nullptr && process_isdigit(record->portText[0]) != 0);
    *side = {record->ip, record->port};
    free(record->hostText);
    free(record->portText);
    free(record);
    return true;
}

bool has_blank(const char *text) { return strpbrk(text, " \t\n\v\f\r") != nullptr; }

/** The mappings of the file, side by side, without the map. */
std::vector<Mapping> mappings_of(const MemoryFile &file) {
    const OwnedFile stream = file.open();
    std::vector<Mapping> mappings;
    char *left = nullptr, *right = nullptr;
    int lines = 0;
    while (config_key_value(stream.get(), &left, &right, nullptr, &lines) > 0) {
        Mapping mapping{};
        if (right == nullptr || has_blank(right)) continue;
        if (read_side(left, &mapping.from) && read_side(right, &mapping.to)) mappings.push_back(mapping);
    }
    return mappings;
}

using Lookup = int (*)(uint32_t, uint16_t, uint32_t *, uint16_t *);

void check_lookup(Lookup look_up, const std::vector<Mapping> &mappings, Side Mapping::*given, Side Mapping::*wanted) {
    for (const Mapping &mapping : mappings) {
        const auto is_same = [&](const Mapping &other) { return other.*given == mapping.*given; };
        const Mapping &last = *std::find_if(mappings.rbegin(), mappings.rend(), is_same);
        const Side &key = mapping.*given;
        Side found{};
        FUZZ_REQUIRE(look_up(key.ip, key.port, &found.ip, &found.port) == 1);
        FUZZ_REQUIRE(found == last.*wanted);
        FUZZ_REQUIRE(look_up(key.ip, key.port, nullptr, nullptr) == 1);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static MemoryFile file;
    become_a_silent_process();
    file.hold(Bytes(data, data + size));

    const std::vector<Mapping> mappings = mappings_of(file);
    FUZZ_REQUIRE(ivsReadIpMapFile(file.path()) == static_cast<int>(mappings.size()));
    check_lookup(ivsIpMapFrom, mappings, &Mapping::from, &Mapping::to);
    check_lookup(ivsIpMapTo, mappings, &Mapping::to, &Mapping::from);
    return 0;
}
