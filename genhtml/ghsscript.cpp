/* Files that the template engine reads besides templates, and programs that it runs: key files and scripts. */
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "genhtml/ghstate.h"

using namespace genhtml;

namespace {

// ---- Key files -------------------------------------------------------------------------------------------------------

constexpr int LINE_SIZE = 4096;
constexpr size_t MOST_VALUE_BYTES = 4095;

/** The lines of a key file, without the white space at their ends. */
class KeyLines {
public:
    explicit KeyLines(const char *path) : file_(fopen(path, "re")) {}
    bool is_open() const { return file_.is_open(); }

    /** The next line; null at the end of the file. */
    char *next() {
        if (fgets(line_, sizeof line_, file_.get()) == nullptr) return nullptr;
        trim_right(line_);
        return line_;
    }

private:
    OwnedFile file_;
    char line_[LINE_SIZE];
};

/** Appends lines to a value as long as it ends in a backslash, up to an empty one. */
void append_continuation(KeyLines &lines, std::string &value) {
    while (value.ends_with('\\')) {
        value.pop_back();
        const char *line = lines.next();
        if (line == nullptr || *line == '\0') return;
        while (is_white(*line)) ++line;
        value += line;
    }
}

/** A backslash and an "n" stand for a line feed. */
void make_line_feeds(std::string &value) {
    for (size_t at = value.find("\\n"); at != std::string::npos; at = value.find("\\n", at + 1)) {
        value.replace(at, 2, 1, '\n');
    }
}

/** Stores what the file has; each line's key is what stands before its first white space. */
bool store_entries(KeyLines &lines, PAA_S *table) {
    std::string key, value;
    while (const char *line = lines.next()) {
        while (is_white(*line)) ++line;
        if (*line == '\0' || *line == '#') continue;

        const char *end = line;
        while (*end != '\0' && !is_white(*end)) ++end;
        key.assign(line, end);
        while (is_white(*end)) ++end;
        value = end;
        append_continuation(lines, value);
        if (value.size() > MOST_VALUE_BYTES) value.resize(MOST_VALUE_BYTES);
        make_line_feeds(value);
        if (ghsSaveToHash(table, key.c_str(), value.c_str(), 0) != 0) return false;
    }
    return true;
}

// ---- Scripts ---------------------------------------------------------------------------------------------------------

constexpr int REFUSED = 1, TOO_MUCH = 12;
constexpr long DEEPEST = 8;
constexpr size_t MOST_ARGUMENTS = 1022;

// As the programs of members find them; those of the administration lie one folder higher.
constexpr char interpreter_path[] = "../../bin/perl";
constexpr char script_folder[] = "../../bin/gathering/";
constexpr size_t ONE_FOLDER = 3;

struct Script {
    std::string name, arguments;
    std::string path;         // where it was found
    bool is_page = false;     // found in the working directory: a CGI program, which has to leave out its header
    std::string interpreter;  // empty: it runs by itself
};

/** The depth of this program as a sub-script: 0 for a page that the web server started. A depth below that is nothing
 *  that we ever gave: it would make room for a longer row of sub-scripts. */
long own_depth() {
    char *mark = nullptr;
    return ghInFetch("NOHTTPHEAD", &mark) ? std::max(strtol(mark, nullptr, 10), 0L) : 0;
}

/** Cuts a command at its first "?", or else at its first blank. */
Script cut_command(std::string_view command) {
    size_t end = command.find('?');
    if (end == std::string_view::npos) end = command.find(' ');
    Script script;
    script.name = command.substr(0, end);
    if (end != std::string_view::npos) script.arguments = command.substr(end + 1);
    return script;
}

/** Finds the script's file. False with errno. */
bool locate(Script &script) {
    const char *self = variable("selfurl");
    const size_t skipped = self != nullptr && strstr(self, "admin") != nullptr ? ONE_FOLDER : 0;
    if (script.name.find(".pl") != std::string::npos) script.interpreter = interpreter_path + skipped;

    struct stat found {};
    script.path = "./" + script.name;
    script.is_page = stat(script.path.c_str(), &found) == 0;
    if (script.is_page) return true;
    script.path = script_folder + skipped + script.name;
    return stat(script.path.c_str(), &found) == 0;
}

/** Cuts arguments at white space. A piece that begins with a double quote goes on to the next one; both stay. */
void append_arguments(std::vector<std::string> &vector, std::string_view text) {
    size_t at = 0;
    for (;;) {
        while (at < text.size() && is_white(text[at])) ++at;
        if (at == text.size() || vector.size() > MOST_ARGUMENTS) return;
        size_t end = at + 1;
        if (text[at] == '"') {
            end = std::min(text.find('"', end), text.size() - 1) + 1;
        } else {
            while (end < text.size() && !is_white(text[end])) ++end;
        }
        vector.emplace_back(text.substr(at, end - at));
        at = end;
    }
}

std::vector<std::string> argument_vector(const Script &script) {
    std::vector<std::string> vector;
    if (!script.interpreter.empty()) vector.push_back(script.interpreter);
    vector.push_back(script.path);
    append_arguments(vector, script.arguments);
    return vector;
}

/** The child's side. Its streams are copies of ours: at its exit they would write our text a second time and turn back
 *  the files that we read, so all descriptors but its output go first. */
[[noreturn]] void become(char **arguments) {
    execve(arguments[0], arguments, environ);
    close(STDIN_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    process_exit(-1);
}

int exit_status_of(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return errno;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/** Runs a program and waits for its end. The code of ghsErrno. */
int run(std::vector<std::string> &arguments) {
    std::vector<char *> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    struct sigaction former {};
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &usual, &former);  // ignored, as some web servers leave it, there would be no exit status
    const pid_t child = fork();
    if (child == 0) become(pointers.data());
    const int code = child < 0 ? errno : exit_status_of(child);
    sigaction(SIGCHLD, &former, nullptr);
    return code;
}

int call(std::string_view command) {
    const long depth = own_depth();
    if (depth > DEEPEST) return TOO_MUCH;
    Script script = cut_command(command);
    if (script.name.find("..") != std::string::npos) return REFUSED;
    if (!locate(script)) return errno;

    fflush(stdout);  // what was printed before comes first
    fflush(stderr);
    if (script.is_page) script.arguments += "&NOHTTPHEAD=" + std::to_string(depth + 1);
    std::vector<std::string> arguments = argument_vector(script);
    return arguments.size() > MOST_ARGUMENTS ? TOO_MUCH : run(arguments);
}

}  // namespace

bool genhtml::read_key_file(const char *label, PAA_S *table, const char *path) {
    if (path == nullptr) path = "";
    if (has_two_dots(path)) {
        set_error(TWO_DOTS, label, path);
        return false;
    }
    return with_memory<bool>(label, false, [&] {
        KeyLines lines(path);
        if (lines.is_open()) return store_entries(lines, table);
        set_error(NO_FILE, label, path);
        return false;
    });
}

PAA_S *ghsReadArray(PAA_S *table, const char *file) {
    constexpr char label[] = "ghsReadArray";
    clear_error(label);
    PAA_S *const made = table == nullptr ? paaCreate(0) : nullptr;
    PAA_S *const target = table == nullptr ? made : table;
    if (target == nullptr) {
        set_error(NO_MEMORY, label);
        return nullptr;
    }
    if (read_key_file(label, target, file)) return target;
    if (made != nullptr) paaDestroy(made);
    return nullptr;
}

void ghsCallScript(const char *command) {
    constexpr char label[] = "ghsCallScript";
    clear_error(label);
    if (command == nullptr || *command == '\0') return;
    const int code = with_memory<int>(label, TOO_MUCH, [&] { return call(command); });
    clear_error(label);
    if (code == 0) return;
    ghsErrno = code;
    ghsErrMsg[0] = '\0';  // scripts have codes of their own, and no words for them
}
