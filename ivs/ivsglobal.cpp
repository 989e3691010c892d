/* Small services: the platform's global settings, ids in URLs, keys counted by their uses, words. */
#include <stdio.h>
#include <string.h>

#include <string_view>

#include "foundation/config.h"
#include "foundation/paa.h"
#include "ivs/ivs.h"
#include "process/owned.h"
#include "process/velproc.h"

PAA_S *ivs_globalcfg = nullptr;
PAA_S *ivs_key_table = nullptr;

/* ---- Global settings ---------------------------------------------------------------------------------------------- */

namespace {

constexpr char open_label[] = "ivs_globalcfg_open";
constexpr char value_label[] = "ivs_globalcfg_value";
constexpr char usual_file[] = "gsbin/gathering/config/global.cfg";

bool is_slash(char character) { return character == '/' || character == '\\'; }

/** Paths with a drive letter count as well: settings are shared with hosts that have such. */
bool is_full_path(std::string_view name) {
    if (!name.empty() && is_slash(name[0])) return true;
    return name.size() >= 4 && name[1] == ':' && is_slash(name[2]);
}

/** The path of a file of settings, or null without memory. */
OwnedBlock<char> settings_path(const char *name) {
    if (name == nullptr) name = usual_file;
    const bool is_full = is_full_path(name);
    const char *root = is_full || process_context.rootDir == nullptr ? "" : process_context.rootDir;
    const size_t size = strlen(root) + 1 + strlen(name) + 1;
    OwnedBlock<char> path(process_malloc(open_label, static_cast<int>(size)));
    if (!path.is_null()) snprintf(path.get(), size, "%s%s%s", root, is_full ? "" : "/", name);
    return path;
}

}  // namespace

int ivs_globalcfg_open(const char *name) {
    const OwnedBlock<char> path = settings_path(name);
    if (path.is_null()) return -1;
    process_log("Gathering config file %s\n", path.get());
    PAA_S *table = config_read(ivs_globalcfg, path.get());
    if (table == nullptr) return -2;
    ivs_globalcfg = table;
    return 0;
}

char *ivs_globalcfg_value(const char *key) {
    if (ivs_globalcfg != nullptr) return config_value(ivs_globalcfg, key, 0);
    process_error("%s: called but global config file not opened!\n", value_label);
    return nullptr;
}

/* ---- Ids in URLs ---------------------------------------------------------------------------------------------------- */

namespace {

constexpr size_t LONGEST_ID = 504;
char id_text[sizeof "g_" + LONGEST_ID + sizeof "ID"];

/** The value behind the first of the forms that occurs; its data are null if none does. */
template <size_t Count>
std::string_view find_value(std::string_view url, const std::string_view (&forms)[Count]) {
    for (const std::string_view form : forms) {
        const size_t at = url.find(form);
        if (at == std::string_view::npos) continue;
        const std::string_view value = url.substr(at + form.size());
        return value.substr(0, value.find('&'));
    }
    return {};
}

char *write_id(const char *before, std::string_view value, const char *behind) {
    if (value.size() > LONGEST_ID) return nullptr;
    snprintf(id_text, sizeof id_text, "%s%.*s%s", before, static_cast<int>(value.size()), value.data(), behind);
    return id_text;
}

}  // namespace

char *ivs_url_id(const char *url) {
    constexpr std::string_view id_forms[] = {"?ID=", "&ID=", "ID="};
    constexpr std::string_view place_forms[] = {"?plc=", "&plc="};
    if (url == nullptr) return nullptr;

    const std::string_view id = find_value(url, id_forms);
    if (!id.empty()) return write_id("", id, "");

    const std::string_view place = find_value(url, place_forms);
    if (place.empty() || ivs_globalcfg == nullptr) return nullptr;
    const char *setting = write_id("g_", place, "ID");
    return setting != nullptr ? ivs_globalcfg_value(setting) : nullptr;
}

/* ---- Keys by their uses ----------------------------------------------------------------------------------------------- */

namespace {

/** The count of a key in the table itself, or null. */
void *find_count(const void *key, int length) { return paaFind(ivs_key_table, key, length, nullptr); }

/** Changes a count, which need not be aligned; returns the new one. */
int32_t change_count(void *count, int32_t change) {
    int32_t uses = 0;
    memcpy(&uses, count, sizeof uses);
    uses += change;
    memcpy(count, &uses, sizeof uses);
    return uses;
}

}  // namespace

void *ivs_key_ref(const void *key, int keyLength) {
    if (ivs_key_table == nullptr) ivs_key_table = paaCreate(0);
    void *const count = ivs_key_table != nullptr ? find_count(key, keyLength) : nullptr;
    constexpr int32_t first_use = 1;
    if (count != nullptr) {
        change_count(count, 1);
    } else if (paaInsert(ivs_key_table, key, keyLength, &first_use, sizeof first_use) != 0) {
        return nullptr;
    }
    return paaFindKey(ivs_key_table, key, keyLength);
}

void ivs_key_unref(const void *key, int keyLength) {
    if (key == nullptr || keyLength == 0 || ivs_key_table == nullptr) return;
    void *const count = find_count(key, keyLength);
    if (count != nullptr && change_count(count, -1) < 1) paaRemove(ivs_key_table, key, keyLength);
}

/* ---- Words -------------------------------------------------------------------------------------------------------------- */

int ivs_split_word(int length, const char *text, int *restLength, const char **rest) {
    const auto is_white = [&](int at) { return process_isspace(static_cast<unsigned char>(text[at])) != 0; };
    if (restLength != nullptr) *restLength = 0;
    if (rest != nullptr) *rest = nullptr;

    int word = 0;
    while (word < length && !is_white(word)) ++word;
    int next = word;
    while (next < length && is_white(next)) ++next;
    if (next >= length) return word;
    if (restLength != nullptr) *restLength = length - next;
    if (rest != nullptr) *rest = text + next;
    return word;
}
