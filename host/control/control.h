/*
 * The control socket: keelctl's way in.
 *
 * A client sends JSON objects, one a line, and gets JSON objects back, one a line:
 *   {"op": "get", "path": "Keel"}                        -> {"ok": true, "tree": {...}}
 *   {"op": "set", "path": "...", "values": {"A": "1"}}   -> {"ok": true}
 *   {"op": "add", "path": "...", "key": "x", "values": {...}}   -> {"ok": true, "name": "x"}  (key optional)
 *   {"op": "del", "path": "..."}                         -> {"ok": true}
 *   {"op": "watch", "path": "..."}                       -> {"ok": true}, then {"event": ...} lines
 *   {"op": "trace", "lines": 100, "follow": true}        -> {"trace": ...} lines, {"ok": true}, then more if followed
 * A refusal is {"ok": false, "path": "...", "error": "..."}. Values may be texts of any type: they are read as the
 * parameter's type wants. A tree is {"name", "parameters": {...}, "children": [...]}.
 */
#ifndef HOST_CONTROL_CONTROL_H
#define HOST_CONTROL_CONTROL_H

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "host/base/uv_loop.h"
#include "host/model/model.h"

namespace keel {

class Control {
public:
    /* Listens on a Unix socket with mode 0600; its folder is made, with mode 0700, if there is none. The socket of a
     * host that is gone is replaced. make_safe is called after each write and before its answer; when it says why the
     * write is not safe, the answer does so, too. Throws std::runtime_error when the socket cannot be had, in
     * particular when a living host listens on it, or when what is at its path is no socket, which is then left as it
     * is. */
    Control(UvLoop &loop, Model &model, std::string socket_path, std::function<std::string()> make_safe);
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;
    ~Control();

private:
    struct Client;
    struct Listener;

    void accept();
    void take(Client &client, const std::string &line);
    void drop(Client &client);

    UvLoop &loop_;
    Model &model_;
    std::string path_;
    std::function<std::string()> make_safe_;
    Listener *listener_ = nullptr;
    std::set<Client *> clients_;
};

} // namespace keel

#endif
