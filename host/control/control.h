/*
 * The control socket: keelctl's way in.
 * conversation.h tells what is said there.
 */
#ifndef HOST_CONTROL_CONTROL_H
#define HOST_CONTROL_CONTROL_H

#include <memory>
#include <set>
#include <string>

#include "host/base/uv_loop.h"
#include "host/control/conversation.h"
#include "host/model/model.h"

namespace keel {

class Control {
public:
    /* Listens on a Unix socket with mode 0600; its folder is made, with mode 0700, if there is none. The socket of a
     * host that is gone is replaced. Throws std::runtime_error when the socket cannot be had, in particular when a
     * living host listens on it, or when what is at its path is no socket, which is then left as it is. One that is
     * taken away later is made anew within ten seconds. */
    Control(UvLoop &loop, Model &model, std::string socket_path, ControlActions actions);
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;
    ~Control();

    /* Throws when another process listens there: for who is about to write what that process holds. */
    static void require_free(const std::string &path);

private:
    struct Client;
    struct Listener;

    void listen();
    void close_listener();
    bool is_there() const;
    void look_at_socket();
    void accept();
    void drop(Client &client);

    UvLoop &loop_;
    Model &model_;
    std::string path_;
    ControlActions actions_;
    Listener *listener_ = nullptr;
    std::uint64_t inode_ = 0;  /* of the socket */
    bool unreachable_ = false; /* the last try to make it anew failed */
    Loop::TimerId looking_ = 0;
    std::set<Client *> clients_;
};

} // namespace keel

#endif
