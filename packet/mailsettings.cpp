/* Where each setting of a mail comes from: the caller, the file mail.cfg or the variables of a CGI program, a default.
 *
 * The file is read once, at the first need of it; one that can't be read is not tried again. What is done with the
 * settings stands in mail.cpp. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "foundation/config.h"
#include "foundation/paa.h"
#include "packet/maili.h"
#include "packet/packet.h"
#include "process/printable.h"
#include "process/velproc.h"

namespace {

constexpr int DEFAULT_PORT = 25;
constexpr char DEFAULT_HOST[] = "localhost";
constexpr char DEFAULT_SENDER[] = "velmora";
constexpr char DEFAULT_SUBJECT[] = "velmora Gathering Server Notification";
constexpr size_t LONGEST_NAME = 127;  // of a send host or sender that is worked out here
constexpr size_t SHOWN_TEXT = 40;
constexpr int MODES_WITH_A_FILE = PROCESS_MODE_DAEMON | PROCESS_MODE_FOREGROUND;

std::string config_path;  // empty: none
PAA_S *config_table = nullptr;
bool load_is_due = true;

/** A setting's key in the file, and the variable that stands for it in a CGI program. */
struct Setting {
    const char *key;
    const char *variable;
};
constexpr Setting SMTP_HOST{"smtphost", "g_MailServer"};
constexpr Setting SMTP_PORT{"smtpport", "g_MailServerPort"};
constexpr Setting SEND_HOST{"sendhost", "g_MailSendHost"};
constexpr Setting SENDER{"mailaddr", "g_MailAddress"};
constexpr Setting RECIPIENTS{"adminmail", "g_AdminMail"};

namespace say {
void verbose(const char *what, const std::string &value) {
    if (process_context.verbose != 0) process_log("%s: %s %s\n", MAIL_LABEL, what, printable(value).c_str());
}
void verbose(const char *what, int value) {
    if (process_context.verbose != 0) process_log("%s: %s %d\n", MAIL_LABEL, what, value);
}
void nothing_given(const std::string &subject, const char *what) {
    fprintf(stderr, "%s: Cannot send mail \"%s\", no %s given!\n", MAIL_LABEL, printable(subject).c_str(), what);
}
}  // namespace say

// ---- Sources ----------------------------------------------------------------------------------------------------

bool variables_are_asked() { return (process_context.mode & PROCESS_MODE_LOCAL_CONFIG) != 0; }

void find_config() {
    const bool is_wanted = (process_context.mode & MODES_WITH_A_FILE) != 0;
    if (variables_are_asked() || !is_wanted || !config_path.empty()) return;

    if (process_context.rootDir != nullptr) {
        config_path = std::string(process_context.rootDir) + "/etc" + "/" + "mail.cfg";
    }
    say::verbose("mailcfgfile", config_path.empty() ? "NULL" : config_path);
}

const char *from_file(const char *key) {
    if (config_path.empty()) return nullptr;
    if (load_is_due) {
        load_is_due = false;
        config_table = config_read2paa(nullptr, config_path.c_str());
    }
    if (config_table == nullptr) return nullptr;
    return static_cast<const char *>(paaFind(config_table, key, static_cast<int>(strlen(key)), nullptr));
}

const char *from_variable(const char *name) {
    return config_variable_source != nullptr ? config_variable_source(name) : nullptr;
}

/** What the source says; empty if it says nothing. */
std::string from_source(const Setting &setting) {
    const char *value = variables_are_asked() ? from_variable(setting.variable) : from_file(setting.key);
    return value != nullptr ? value : "";
}

// ---- The settings, one by one -------------------------------------------------------------------------------------

/** The port goes with the host: one in the source says nothing about a host that the caller gives. */
void complete_server(Mail &mail) {
    if (mail.smtp_host.empty()) {
        mail.smtp_host = from_source(SMTP_HOST);
        if (mail.smtp_port <= 0) {
            mail.smtp_port = static_cast<int>(strtol(from_source(SMTP_PORT).c_str(), nullptr, 10));
        }
    }
    if (mail.smtp_host.empty()) mail.smtp_host = DEFAULT_HOST;
    if (mail.smtp_port <= 0) mail.smtp_port = DEFAULT_PORT;
    say::verbose("psmtphost", mail.smtp_host);
    say::verbose("psmtpport", mail.smtp_port);
}

std::string bind_text() {
    const char *text = packet_bindip();
    return text != nullptr ? std::string(text).substr(0, LONGEST_NAME) : "";
}

std::string machine_name() {
    char name[LONGEST_NAME + 1] = "";
    return gethostname(name, sizeof name) == 0 ? std::string(name, strnlen(name, LONGEST_NAME)) : "";
}

void complete_send_host(Mail &mail) {
    std::string &host = mail.send_host;
    if (host.empty()) host = from_source(SEND_HOST);
    if (host.empty() && !variables_are_asked()) host = bind_text();
    if (host.empty()) host = machine_name();
    if (host.empty()) host = DEFAULT_HOST;
    say::verbose("psendhost", host);
}

void complete_sender(Mail &mail) {
    std::string &from = mail.from;
    if (from.empty()) from = from_source(SENDER);
    if (from.empty()) from = DEFAULT_SENDER;
    if (from.find('@') == std::string::npos) from = (from + "@" + mail.send_host).substr(0, LONGEST_NAME);
    say::verbose("pfromaddr", from);
}

void complete_recipients(Mail &mail) {
    if (mail.to.empty()) mail.to = from_source(RECIPIENTS);
    say::verbose("ptoaddr", mail.to);
}

void complete_subject(Mail &mail) {
    if (mail.subject.empty()) mail.subject = DEFAULT_SUBJECT;
    say::verbose("psubject", mail.subject);
}

/** Whoever can put a line end into one of these could add headers, or commands. */
void keep_to_one_line(Mail &mail) {
    for (std::string *text : {&mail.send_host, &mail.from, &mail.to, &mail.subject}) {
        std::replace(text->begin(), text->end(), '\n', ' ');
        std::replace(text->begin(), text->end(), '\r', ' ');
    }
}

}  // namespace

int packet_mail_complete(Mail &mail) {
    find_config();
    complete_server(mail);
    complete_send_host(mail);
    complete_sender(mail);
    complete_recipients(mail);
    complete_subject(mail);
    if (mail.to.empty()) {
        say::nothing_given(mail.subject, "recipients");
        return PACKETERRINVAL;
    }
    if (mail.text.empty()) {
        say::nothing_given(mail.subject, "text");
        return PACKETERRINVAL;
    }
    say::verbose("ptext", mail.text.substr(0, SHOWN_TEXT));
    if (process_context.hardened != 0) keep_to_one_line(mail);
    return 0;
}
