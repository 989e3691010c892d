/* The framework's options, which every program of the platform understands. Values are kept in process_context;
 * what nobody but the framework needs is taken out of the vector. -D and -debug are read by process_daemonize, the
 * program's own options by the program. */
#include <cstring>

#include "process/processi.h"

namespace {

enum class Form {
    PREFIX,        // value glued on or in the next argument; both stay in the vector
    TAKEN_VALUE,   // option and next argument leave the vector
    TAKEN_FLAG,    // leaves the vector
    STAYING_FLAG,  // stays, for programs that look at it as well
};

struct Option {
    const char *name;
    Form form;
    bool (*set)(char *value);
};

bool replace_copy(char *&target, const char *value) {
    free(target);
    target = static_cast<char *>(process_memdup("process_init", value, static_cast<int>(strlen(value)) + 1));
    return target != nullptr;
}

constexpr Option options[] = {
    {"-setusername", Form::PREFIX, [](char *value) { return replace_copy(process_context.userName, value); }},
    {"-setgroupname", Form::PREFIX, [](char *value) { return replace_copy(process_context.groupName, value); }},
    {"-BINDIP", Form::TAKEN_VALUE, [](char *value) { return process_context.bindIp = value, true; }},
    {"-VELROOT", Form::TAKEN_VALUE, [](char *value) { return process_context.rootDir = value, true; }},
    {"-PACKETDIAG", Form::TAKEN_FLAG, [](char *) { return process_context.packetDiag = 1, true; }},
    {"-NOACCESSKEYCHECK", Form::TAKEN_FLAG, [](char *) { return process_context.noAccessKeyCheck = 1, true; }},
    {"-HARDEN", Form::TAKEN_FLAG, [](char *) { return process_context.hardened = 1, true; }},
    {"-TRACE", Form::STAYING_FLAG, [](char *) { return process_context.trace = 1, true; }},
    {"-VERBOSE", Form::STAYING_FLAG, [](char *) { return process_context.verbose = 1, true; }},
};

const Option *find_option(const char *argument) {
    if (argument == nullptr) return nullptr;
    for (const Option &option : options) {
        const bool matches = option.form == Form::PREFIX ? strncmp(argument, option.name, strlen(option.name)) == 0
                                                         : strcmp(argument, option.name) == 0;
        if (matches) return &option;
    }
    return nullptr;
}

void take_out(int *argc, char **argv, int index, int places) {
    const int left = *argc - places;
    for (int i = index; i < left; i++) argv[i] = argv[i + places];
    for (int i = left; i < *argc; i++) argv[i] = nullptr;
    *argc = left;
}

/** The value of a PREFIX option, or null if the option is the last argument and has none. */
char *prefix_value(const Option &option, int argc, char **argv, int index) {
    char *const glued_on = argv[index] + strlen(option.name);
    if (*glued_on != '\0') return glued_on;
    return index + 1 < argc ? argv[index + 1] : nullptr;
}

}  // namespace

bool process::take_options(int *argc, char **argv) {
    int index = 1;
    while (index < *argc) {
        const Option *option = find_option(argv[index]);
        const bool is_last = index + 1 == *argc;
        if (option == nullptr || (option->form == Form::TAKEN_VALUE && is_last)) {
            index++;
        } else if (option->form == Form::PREFIX) {
            char *value = prefix_value(*option, *argc, argv, index);
            if (value == nullptr) return true;  // without its value it can only be the last argument
            if (!option->set(value)) return false;
            index++;
        } else if (option->form == Form::STAYING_FLAG) {
            option->set(nullptr);
            index++;
        } else {
            const bool has_value = option->form == Form::TAKEN_VALUE;
            option->set(has_value ? argv[index + 1] : nullptr);
            take_out(argc, argv, index, has_value ? 2 : 1);
        }
    }
    return true;
}
