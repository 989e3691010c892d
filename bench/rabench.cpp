/* Load generator for the server: K sockets, each with one request outstanding, against the server and against a bare
 * blocking echo in turn, so that both see the same machine at the same time. With an access key, enciphered requests
 * take their turn beside clear ones.
 *
 * Absolute times on a shared machine mean little; the ratio to the echo in the same run is what to look at. The
 * records that the modes work on are made by `-f` or by bench/measure. */
#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "bench/tcpcrowd.h"
#include "packet/packet.h"
#include "packet/typecodes.h"

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

constexpr char usage_text[] =
    "Usage: rabench [options] HOST PORT\n"
    "  -m MODE     get, update, add, list, ping or replay (default get)\n"
    "  -k SOCKETS  sockets, each with one request outstanding (default 16)\n"
    "  -r KEYS     keys are drawn at random from this many records (default 1000)\n"
    "  -s SECONDS  length of one round (default 1)\n"
    "  -n ROUNDS   rounds against the echo and the server in turn (default 5)\n"
    "  -P PID      process id of the server: prints its processor time for each answer\n"
    "  -t TABLE    table with the columns ID, NAME and VISITS (default BENCH)\n"
    "  -K KEYTEXT  the server's access key, listed with \"encrypt\" for 127.0.0.1 alone: clear requests then come "
    "from\n"
    "              127.0.0.2 with the key in front, and enciphered ones from 127.0.0.1\n"
    "  -T PORT     keep 500 connections to the server's TCP port meanwhile, most of them coming and being reset\n"
    "  -f          first insert the records that are missing\n"
    "  -h          this text\n";

struct Options {
    std::string mode = "get", table = "BENCH", keyText;
    int sockets = 16, keys = 1000, rounds = 5;
    double seconds = 1;
    pid_t server = 0;
    uint16_t tcpPort = 0;
    bool fill = false;
};

[[noreturn]] void die(const std::string &text) {
    fprintf(stderr, "rabench: %s\n", text.c_str());
    exit(2);
}

/** Processor time of a process so far, from /proc, in microseconds. */
double processor_microseconds(pid_t pid) {
    FILE *file = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
    if (file == nullptr) die("no process " + std::to_string(pid));
    char line[1024] = "";
    const char *rest = fgets(line, sizeof line, file) ? strrchr(line, ')') : nullptr;
    fclose(file);
    unsigned long user = 0, system = 0;
    if (rest == nullptr || sscanf(rest, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system) != 2)
        die("/proc of the process can't be read");
    return static_cast<double>(user + system) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/** The clients on processor 0 and the echo on 1, where bench/measure has the server: neither takes time from the other. */
void pin_to(int processor) {
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof set, &set);
}

/** What there is to compare with: a process that sends each datagram back and does nothing else. */
class EchoServer {
public:
    EchoServer() {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address_;
        auto *plain = reinterpret_cast<sockaddr *>(&address_);
        if (fd < 0 || bind(fd, plain, size) != 0 || getsockname(fd, plain, &size) != 0) die("no socket for the echo");
        pid_ = fork();
        if (pid_ < 0) die("no process for the echo");
        if (pid_ == 0) serve(fd);
        close(fd);
    }
    ~EchoServer() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    EchoServer(const EchoServer &) = delete;
    EchoServer &operator=(const EchoServer &) = delete;

    const sockaddr_in &address() const { return address_; }
    pid_t pid() const { return pid_; }

private:
    [[noreturn]] static void serve(int fd) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pin_to(1);
        static char buffer[65536];
        for (;;) {
            sockaddr_in peer{};
            socklen_t size = sizeof peer;
            auto *plain = reinterpret_cast<sockaddr *>(&peer);
            const ssize_t length = recvfrom(fd, buffer, sizeof buffer, 0, plain, &size);
            if (length >= 0) sendto(fd, buffer, static_cast<size_t>(length), 0, plain, size);
        }
    }
    sockaddr_in address_{};
    pid_t pid_ = 0;
};

/** Makes the datagrams of one mode. */
class RequestMaker {
public:
    explicit RequestMaker(const Options &options) : options_(options) {}

    std::string next(uint32_t sequence) {
        if (options_.mode == "ping") return std::string("\x97", 1) + std::to_string(sequence);
        return datagram(sequence,
                        words(std::uniform_int_distribution<int>(0, options_.keys - 1)(random_), random_()));
    }

    static std::string datagram(uint32_t sequence, const Words &words) {
        std::string packet("=\1\0", 3);
        packet.append(reinterpret_cast<const char *>(&sequence), sizeof sequence);
        for (const std::string &word : words) packet.append(word.c_str(), word.size() + 1);
        return packet;
    }

    static std::string key(int number) {
        char text[16];
        snprintf(text, sizeof text, "key%06d", number);
        return text;
    }

private:
    Words words(int number, unsigned long fresh) const {
        const std::string &mode = options_.mode, &table = options_.table;
        if (mode == "update") return {"DB", "U", table, "ID", key(number), "NAME", "name " + std::to_string(fresh)};
        if (mode == "add") return {"DB", "A", table, "ID", key(number), "VISITS", "1"};
        if (mode == "list") return {"DB", "L", table, "ID", key(number), "10", "+", "", "NAME", "VISITS"};
        return {"DB", "G", table, "ID", key(number), "NAME", "VISITS"};
    }
    const Options &options_;
    std::mt19937 random_{12345};
};

/** How datagrams are dressed on their way, and from where they are sent. */
class Dress {
public:
    enum class Kind { PLAIN, PREFIX, ENVELOPE };

    Dress(Kind kind, const char *from, const std::string &keyText) : kind_(kind) {
        from_.sin_family = AF_INET;
        inet_pton(AF_INET, from, &from_.sin_addr);
        if (!keyText.empty()) packet_hex2bin(keyText.c_str(), key_, sizeof key_);
    }
    const sockaddr_in &from() const { return from_; }

    std::string put_on(const std::string &plain) const {
        if (kind_ == Kind::PLAIN) return plain;
        if (kind_ == Kind::PREFIX)
            return std::string(1, static_cast<char>(IVS_TYPE_ACCK)) + std::string(bytes(key_), sizeof key_) + plain;
        std::string envelope(plain.size() + PACKET_ENVELOPE_ROOM, 0);
        const auto *source = reinterpret_cast<const unsigned char *>(plain.data());
        auto *target = reinterpret_cast<unsigned char *>(envelope.data());
        envelope.resize(static_cast<size_t>(packet_encrypt(key_, source, static_cast<int>(plain.size()), target)));
        return envelope;
    }

    /** Undresses a reply in place; its length. */
    ssize_t take_off(char *reply, ssize_t length) const {
        if (kind_ != Kind::ENVELOPE) return length;
        static unsigned char plain[65536];
        int plainLength = 0;
        const auto *envelope = reinterpret_cast<const unsigned char *>(reply);
        const unsigned char *start = packet_decrypt(key_, envelope, static_cast<int>(length), plain, &plainLength);
        if (start == nullptr) return 0;
        memcpy(reply, start, static_cast<size_t>(plainLength));
        return plainLength;
    }

private:
    static const char *bytes(const unsigned char *source) { return reinterpret_cast<const char *>(source); }
    Kind kind_;
    sockaddr_in from_{};
    unsigned char key_[IVS_KEY_SIZE] = {};
};

/** One socket with its outstanding request. */
struct Line {
    int fd = -1;
    uint32_t sequence = 0;
    std::string request;  // as it goes out
    Clock::time_point sent;
};

struct Figures {
    long answers = 0, resent = 0, wrong = 0;
    double seconds = 0, processor = 0;
    std::vector<uint32_t> nanoseconds;

    void add(const Figures &other) {
        answers += other.answers, resent += other.resent, wrong += other.wrong;
        seconds += other.seconds, processor += other.processor;
        nanoseconds.insert(nanoseconds.end(), other.nanoseconds.begin(), other.nanoseconds.end());
    }
    double percentile(double part) {
        if (nanoseconds.empty()) return 0;
        const auto place =
            nanoseconds.begin() + static_cast<long>(part * static_cast<double>(nanoseconds.size() - 1));
        std::nth_element(nanoseconds.begin(), place, nanoseconds.end());
        return *place / 1000.0;
    }
    double processor_each() const { return answers > 0 ? processor / static_cast<double>(answers) : 0; }
};

/** All sockets towards one target. */
class Load {
public:
    Load(const Options &options, const sockaddr_in &target, bool isEcho, const Dress &dress)
        : options_(options),
          maker_(options),
          isEcho_(isEcho),
          dress_(dress),
          lines_(static_cast<size_t>(options.sockets)) {
        epoll_ = epoll_create1(EPOLL_CLOEXEC);
        for (size_t i = 0; i < lines_.size(); i++) {
            Line &line = lines_[i];
            line.fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            const auto *from = reinterpret_cast<const sockaddr *>(&dress_.from());
            if (line.fd < 0 || bind(line.fd, from, sizeof dress_.from()) != 0 ||
                connect(line.fd, reinterpret_cast<const sockaddr *>(&target), sizeof target) != 0)
                die("no socket towards the server");
            line.sequence = static_cast<uint32_t>(std::random_device{}());
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            epoll_ctl(epoll_, EPOLL_CTL_ADD, line.fd, &event);
        }
    }
    ~Load() {
        for (const Line &line : lines_) close(line.fd);
        close(epoll_);
    }
    Load(const Load &) = delete;
    Load &operator=(const Load &) = delete;

    Figures run(pid_t pid) {
        Figures figures;
        const double processorBefore = pid > 0 ? processor_microseconds(pid) : 0;
        const auto start = Clock::now();
        const auto end =
            start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options_.seconds));
        for (Line &line : lines_) send_new(line);
        auto now = start;
        while (now < end) now = turn(figures);
        figures.seconds = std::chrono::duration<double>(now - start).count();
        if (pid > 0) figures.processor = processor_microseconds(pid) - processorBefore;
        drain();
        return figures;
    }

private:
    Clock::time_point turn(Figures &figures) {
        epoll_event events[64];
        const int ready = epoll_wait(epoll_, events, 64, 100);
        auto now = Clock::now();
        for (int i = 0; i < ready; i++) {
            Line &line = lines_[events[i].data.u64];
            if (!take_answer(line, figures)) continue;
            now = Clock::now();
            figures.nanoseconds.push_back(
                static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - line.sent).count()));
            figures.answers++;
            send_new(line);
        }
        if (ready <= 0 || now - checked_ > std::chrono::milliseconds(100)) resend_late(now, figures);
        return now;
    }

    void send_new(Line &line) {
        const bool repeat = options_.mode == "replay" && !line.request.empty();
        if (!repeat) line.request = dress_.put_on(maker_.next(++line.sequence));
        line.sent = Clock::now();
        if (send(line.fd, line.request.data(), line.request.size(), 0) < 0) die("send failed; is the server there?");
    }

    void resend_late(Clock::time_point now, Figures &figures) {
        checked_ = now;
        for (const Line &line : lines_) {
            if (now - line.sent < std::chrono::seconds(1)) continue;
            figures.resent++;
            if (send(line.fd, line.request.data(), line.request.size(), 0) < 0)
                die("send failed; is the server there?");
        }
    }

    /** Whether the datagram that came answers the outstanding request. */
    bool take_answer(const Line &line, Figures &figures) const {
        char reply[65536];
        ssize_t length = recv(line.fd, reply, sizeof reply, 0);
        if (length < 0) return false;
        if (isEcho_ || options_.mode == "ping") return true;
        length = dress_.take_off(reply, length);
        if (length < 7 || memcmp(reply + 3, &line.sequence, 4) != 0) return false;  // an old one, late
        const bool good = reply[1] == 2 && length >= 9 && memcmp(reply + 7, "0", 2) == 0;
        if (!good) figures.wrong++;
        return true;
    }

    /** Answers still under way belong to no round. */
    void drain() const {
        char reply[65536];
        usleep(20000);
        for (const Line &line : lines_)
            while (recv(line.fd, reply, sizeof reply, 0) >= 0) {
            }
    }

    const Options &options_;
    RequestMaker maker_;
    bool isEcho_;
    Dress dress_;
    int epoll_ = -1;
    Clock::time_point checked_{};  // when late answers were last looked for
    std::vector<Line> lines_;
};

/** Inserts the records that are missing; a record that is there already is fine. */
void fill(const Options &options, const sockaddr_in &target, const Dress &dress) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval patience{6, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const auto *from = reinterpret_cast<const sockaddr *>(&dress.from());
    if (bind(fd, from, sizeof dress.from()) != 0 ||
        connect(fd, reinterpret_cast<const sockaddr *>(&target), sizeof target) != 0)
        die("no socket towards the server");
    for (int number = 0; number < options.keys; number++) {
        const std::string key = RequestMaker::key(number);
        const Words words{"DB", "I", options.table, "ID", key, "NAME", "name of " + key, "VISITS", "00000000"};
        const std::string request = dress.put_on(RequestMaker::datagram(static_cast<uint32_t>(number), words));
        char reply[65536] = "";
        if (send(fd, request.data(), request.size(), 0) < 0 || recv(fd, reply, sizeof reply - 1, 0) < 8)
            die("inserting the records: no answer, or refused");
        if (strcmp(reply + 7, "0") != 0 && strcmp(reply + 7, "2") != 0)
            die("inserting the records: status " + std::string(reply + 7));
    }
    close(fd);
}

void print(const char *name, Figures &figures, bool withProcessor) {
    printf("%-8s %9.0f requests/s   p50 %7.1f  p99 %7.1f  p99.9 %7.1f us", name,
           static_cast<double>(figures.answers) / figures.seconds, figures.percentile(0.5), figures.percentile(0.99),
           figures.percentile(0.999));
    if (withProcessor) printf("   processor %6.2f us/answer", figures.processor_each());
    if (figures.resent > 0) printf("   resent %ld", figures.resent);
    if (figures.wrong > 0) printf("   NOT STATUS 0: %ld", figures.wrong);
    printf("\n");
}

long number_of(const char *text, long least, long most, const char *what) {
    char *end = nullptr;
    const long number = strtol(text, &end, 10);
    if (*text == 0 || *end != 0 || number < least || number > most) die(std::string("bad ") + what + ": " + text);
    return number;
}

Options options_from(int argc, char **argv) {
    Options options;
    for (int letter; (letter = getopt(argc, argv, "m:k:r:s:n:P:t:K:T:fh")) != -1;) {
        switch (letter) {
            case 'm':
                options.mode = optarg;
                break;
            case 'k':
                options.sockets = static_cast<int>(number_of(optarg, 1, 500, "number of sockets"));
                break;
            case 'r':
                options.keys = static_cast<int>(number_of(optarg, 1, 1000000, "number of keys"));
                break;
            case 's':
                options.seconds = static_cast<double>(number_of(optarg, 1, 3600, "seconds"));
                break;
            case 'n':
                options.rounds = static_cast<int>(number_of(optarg, 1, 1000, "number of rounds"));
                break;
            case 'P':
                options.server = static_cast<pid_t>(number_of(optarg, 1, 1L << 30, "process id"));
                break;
            case 'K':
                options.keyText = optarg;
                break;
            case 'T':
                options.tcpPort = static_cast<uint16_t>(number_of(optarg, 1, 65535, "TCP port"));
                break;
            case 't':
                options.table = optarg;
                break;
            case 'f':
                options.fill = true;
                break;
            case 'h':
                fputs(usage_text, stdout);
                exit(0);
            default:
                fputs(usage_text, stderr);
                exit(2);
        }
    }
    const Words modes{"get", "update", "add", "list", "ping", "replay"};
    if (std::find(modes.begin(), modes.end(), options.mode) == modes.end()) die("no such mode: " + options.mode);
    if (argc - optind != 2) {
        fputs(usage_text, stderr);
        exit(2);
    }
    return options;
}

/** One kind of requests against one target, with what came of them. */
struct Measured {
    Measured(const char *called, pid_t process, const Options &options, const sockaddr_in &target, const Dress &dress)
        : name(called), pid(process), load(options, target, strcmp(called, "echo") == 0, dress) {}

    const char *name;
    pid_t pid;
    Load load;
    Figures figures;

    double rate() const { return static_cast<double>(figures.answers) / figures.seconds; }
};

void compare(const Measured &one, const Measured &other) {
    if (one.pid > 0 && other.pid > 0)
        printf("%s, processor time for an answer: %.2f times that of %s\n", one.name,
               one.figures.processor_each() / other.figures.processor_each(), other.name);
    printf("%s, requests a second: %.2f of %s\n", one.name, one.rate() / other.rate(), other.name);
}

}  // namespace

int main(int argc, char **argv) {
    const Options options = options_from(argc, argv);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(number_of(argv[optind + 1], 1, 65535, "port")));
    if (inet_pton(AF_INET, argv[optind], &server.sin_addr) != 1) die("HOST is a dotted address here");

    const bool withKey = !options.keyText.empty();
    const Dress bare(Dress::Kind::PLAIN, "0.0.0.0", "");
    const Dress clear = withKey ? Dress(Dress::Kind::PREFIX, "127.0.0.2", options.keyText) : bare;
    const Dress enciphered(Dress::Kind::ENVELOPE, "127.0.0.1", options.keyText);

    if (options.fill) fill(options, server, clear);
    const EchoServer echo;
    pin_to(0);
    const TcpCrowd crowd(server, options.tcpPort);
    std::list<Measured> all;
    all.emplace_back("echo", echo.pid(), options, echo.address(), bare);
    all.emplace_back(options.mode.c_str(), options.server, options, server, clear);
    if (withKey) all.emplace_back("encipher", options.server, options, server, enciphered);

    for (int round = 0; round < options.rounds; round++) {
        for (Measured &each : all) each.figures.add(each.load.run(each.pid));
    }
    bool good = true;
    for (Measured &each : all) {
        if (each.figures.answers == 0) die("no answer came");
        print(each.name, each.figures, each.pid > 0);
        good = good && each.figures.wrong == 0;
    }
    for (auto each = std::next(all.begin()); each != all.end(); ++each) compare(*each, *std::prev(each));
    return good ? 0 : 1;
}
