/* Whom a server serves: two lists of addresses, read from the command line once and walked for each request.
 *
 * Who is on the list of the allowed, or if that list is empty everybody, is served unless he is on the list of the
 * denied. Entries are compared as texts: "10.1*" is every address that is written so. */
#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "ivs/ivs.h"
#include "process/linelimit.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr char label[] = "ivsIpCheckInit";

struct IVS_IPCHECK_S {
    char *text;  // in the argument vector, or a heap copy of a resolved address
    IVS_IPCHECK_S *next, *prev;
};

struct IpList {
    IVS_IPCHECK_S *head, *tail;
};
IpList allowed, denied;

char local_host[] = "localhost";

namespace say {
void unrestricted() { process_log("IP.LOG: Access not restricted from any IP address\n"); }
void allows(const char *text) { process_log("IP.LOG: Access allowed from \"%s\"\n", text); }
void denies(const char *text) { process_log("IP.LOG: Access denied from \"%s\"\n", text); }
void not_allowed(const char *ip) {
    static LineLimit lines("Request from IP address not allowed");
    if (lines.passes()) process_log("IP.LOG: Request from IP address \"%s\" not allowed by configuration.\n", ip);
}
void is_denied(const char *ip) {
    static LineLimit lines("Request from IP address denied");
    if (lines.passes()) process_log("IP.LOG: Request from IP address \"%s\" denied by configuration.\n", ip);
}
}  // namespace say

/* ---- Lists ------------------------------------------------------------------------------------------------------- */

/** Adds an entry at the end; null without memory. Each entry is made in its list and stays there: so no list can run
 *  into itself or into the other one. */
IVS_IPCHECK_S *append(IpList &list, char *text) {
    auto *entry = static_cast<IVS_IPCHECK_S *>(process_malloc(label, sizeof(IVS_IPCHECK_S)));
    if (entry == nullptr) return nullptr;
    entry->text = text;
    entry->prev = list.tail;
    (list.tail != nullptr ? list.tail->next : list.head) = entry;
    list.tail = entry;
    return entry;
}

template <class Work>
void for_each(const IpList &list, Work work) {
    for (IVS_IPCHECK_S *entry = list.head; entry != nullptr; entry = entry->next) work(*entry);
}

/* ---- Options ------------------------------------------------------------------------------------------------------- */

bool is_white(char character) { return process_isspace(static_cast<unsigned char>(character)) != 0; }

char *skip_white(char *text) {
    while (is_white(*text)) ++text;
    return text;
}

struct Option {
    std::string_view name;
    IpList &list;
};
const Option options[] = {{"-ipallow", allowed}, {"-ipdeny", denied}};

const Option *find_option(std::string_view argument) {
    const auto *found = std::find_if(std::begin(options), std::end(options),
                                     [&](const Option &each) { return argument.starts_with(each.name); });
    return found != std::end(options) ? found : nullptr;
}

/** An empty value takes the text of the latest entry away, wherever it stands, and an entry that fits nothing stands
 *  at the end of the denied. So whoever was let in by it alone is let in no more. Returns the latest entry. */
IVS_IPCHECK_S *deny_nobody(IVS_IPCHECK_S *latest, char *empty) {
    if (latest == nullptr) return nullptr;
    latest->text = empty;
    IVS_IPCHECK_S *entry = latest != denied.tail ? append(denied, empty) : nullptr;
    return entry != nullptr ? entry : latest;
}

/** Reads the option at *argument, of which the vector may hold the value behind it. Returns the entry made, or the
 *  latest one there was. */
IVS_IPCHECK_S *take_option(const Option &option, char **argument, bool is_last, IVS_IPCHECK_S *latest) {
    argument[0][1] = 'I';  // whoever scans the vector again takes it for no option
    char *value = argument[0] + option.name.size();
    if (*value == 0) {
        if (is_last || argument[1] == nullptr) return latest;
        value = argument[1];
    }
    value = skip_white(value);
    if (*value == 0) return &option.list == &denied ? deny_nobody(latest, value) : latest;
    IVS_IPCHECK_S *entry = append(option.list, value);
    return entry != nullptr ? entry : latest;
}

void scan(int argc, char **argv) {
    IVS_IPCHECK_S *latest = nullptr;
    for (int index = 0; index < argc; ++index) {
        const Option *option = argv[index] != nullptr ? find_option(argv[index]) : nullptr;
        if (option != nullptr) latest = take_option(*option, argv + index, index + 1 == argc, latest);
    }
}

/* ---- From options to addresses --------------------------------------------------------------------------------------- */

/** Makes an entry of each word of a text. */
void split(IpList &list, IVS_IPCHECK_S &entry) {
    for (char *at = entry.text; *at != 0;) {
        while (*at != 0 && !is_white(*at)) ++at;
        if (*at == 0) return;
        *at = 0;
        at = skip_white(at + 1);
        if (*at == 0 || append(list, at) == nullptr) return;
    }
}

/** Puts an address in place of a host name. One that isn't known stays, and so never fits. */
void resolve(IVS_IPCHECK_S &entry) {
    if (strchr(entry.text, '*') != nullptr) return;
    uint32_t ip_host = 0;
    if (packet_gethostbyname(entry.text, &ip_host) != 0) return;
    const char *quad = packet_ip2str(htonl(ip_host));
    void *copy = process_memdup(label, quad, static_cast<int>(strlen(quad)) + 1);
    if (copy != nullptr) entry.text = static_cast<char *>(copy);
}

void finish(IpList &list, void (&tell)(const char *text)) {
    for_each(list, [&](IVS_IPCHECK_S &entry) { split(list, entry); });
    for_each(list, resolve);
    for_each(list, [&](const IVS_IPCHECK_S &entry) { tell(entry.text); });
}

/* ---- Check ------------------------------------------------------------------------------------------------------------ */

bool fits(std::string_view text, std::string_view address) {
    if (!text.ends_with('*')) return text == address;
    return address.starts_with(text.substr(0, text.size() - 1));
}

bool has(const IpList &list, std::string_view address) {
    for (const IVS_IPCHECK_S *entry = list.head; entry != nullptr; entry = entry->next) {
        if (fits(entry->text, address)) return true;
    }
    return false;
}

}  // namespace

int ivsIpCheckInit(int argc, char **argv) {
    scan(argc, argv);
    const bool nothing_told = allowed.head == nullptr && denied.head == nullptr;
    if (nothing_told && append(allowed, local_host) == nullptr) say::unrestricted();
    finish(allowed, say::allows);
    finish(denied, say::denies);
    return 0;
}

int ivsIpCheck(uint32_t ip) {
    const char *address = packet_ip2str(ip);
    if (allowed.head != nullptr && !has(allowed, address)) {
        say::not_allowed(address);
        return 0;
    }
    if (has(denied, address)) {
        say::is_denied(address);
        return 0;
    }
    return 1;
}

int ivs_may_answer(uint32_t ip) { return process_context.hardened == 0 || ivsIpCheck(ip) != 0; }
