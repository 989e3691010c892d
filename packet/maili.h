/* Mail, the inner side: what its two files hand to each other. From outside only packet.h is used. */
#ifndef PACKET_MAILI_H
#define PACKET_MAILI_H

#include <chrono>
#include <string>

/** One mail. As the caller gives it texts may be empty and the port 0; packet_mail_complete fills them in. */
struct Mail {
    std::string smtp_host = {};
    int smtp_port = 0;
    std::string send_host = {}, from = {}, to = {}, subject = {}, text = {};
};

/** How the lines about mail begin. */
inline constexpr char MAIL_LABEL[] = "packet_sendmail";

/** Gives every setting that is missing its value. 0, or PACKETERRINVAL, told on standard error: no recipients or no
 *  text. May throw std::bad_alloc. */
int packet_mail_complete(Mail &mail);

/** Sends a complete mail, and lets the dialogue take `limit` in all. Results as those of packet_sendmail. May throw
 *  std::bad_alloc. */
int packet_mail_deliver(const Mail &mail, std::chrono::milliseconds limit);

#endif
