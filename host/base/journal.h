/*
 * Traces as entries of the system's journal, with fields to look them up by: journalctl ZONE=lan STB=02:00:00:00:00:01.
 */
#ifndef HOST_BASE_JOURNAL_H
#define HOST_BASE_JOURNAL_H

#include <string>

namespace keel {

class Journal {
public:
    /* The path of its socket, to which each entry goes as one datagram. */
    explicit Journal(std::string path = "/run/systemd/journal/socket");
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;
    ~Journal();

    /* An entry with MESSAGE ("zone: text", as it would stand in a log), PRIORITY (syslog's), ZONE, and an STB for each
     * device that the text names by its MAC address. False when the journal does not take it: it is not there, has no
     * room, or the entry is too long for a datagram; the next one is tried all the same. Never waits. */
    bool write(int priority, const std::string &zone, const std::string &text);

private:
    std::string path_;
    int socket_ = -1;
};

} // namespace keel

#endif
