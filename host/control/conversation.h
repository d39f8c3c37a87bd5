/*
 * What one client of the control socket says, and what it is answered.
 *
 * A client sends JSON objects, one a line, and gets JSON objects back, one a line:
 *   {"op": "get", "path": "Keel"}                        -> {"ok": true, "tree": {...}}
 *   {"op": "set", "path": "...", "values": {"A": "1"}}   -> {"ok": true}
 *   {"op": "add", "path": "...", "key": "x", "values": {...}}   -> {"ok": true, "name": "x"}  (key optional)
 *   {"op": "del", "path": "..."}                         -> {"ok": true}
 *   {"op": "watch", "path": "..."}                       -> {"ok": true}, then {"event": ...} lines
 *                                                           also of an instance that is not there yet
 *   {"op": "look"}                                       -> {"ok": true}, with what only a look tells in the model;
 *                                                           what was said after it may be answered before
 *   {"op": "timeline"}                                   -> {"timeline": ...} lines, {"ok": true}
 *   {"op": "export"}                                     -> {"ok": true, "text": "..."}
 *   {"op": "import", "text": "..."}                      -> {"ok": true, "told": ["...", ...]}, once it is done, or
 *                                                           {"ok": false, "errors": ["...", ...], ...}
 *   {"op": "trace", "lines": 100, "follow": true}        -> {"trace": ...} lines, {"ok": true}, then more if followed
 * A refusal is {"ok": false, "path": "...", "error": "..."}. Values may be texts of any type: they are read as the
 * parameter's type wants. A tree is {"name", "parameters": {...}, "children": [...]}.
 */
#ifndef HOST_CONTROL_CONVERSATION_H
#define HOST_CONTROL_CONVERSATION_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/model/model.h"

namespace keel {

struct ControlActions {
    /* Called after each write and before its answer; when it says why the write is not safe, the answer does so. */
    std::function<std::string()> make_safe;
    /* Writes what is not followed all the time into the model, and calls done then, maybe on a later turn; may be
     * empty. */
    std::function<void(std::function<void()> done)> look;
    /* Why an instance cannot be deleted by hand, and what to do instead; "" when it can. May be empty. */
    std::function<std::string(const std::string &path)> objection_to_deletion = {};
    /* What the box has learned and was set to, as a text, and taking one over; both may be empty. The latter calls back
     * with what was wrong, and then nothing was done, or what was done; perhaps on a later turn. */
    std::function<std::string()> export_text{};
    using Imported = std::function<void(const std::vector<std::string> &errors, const std::vector<std::string> &told)>;
    std::function<void(const std::string &text, Imported imported)> import_text{};
};

class Conversation {
public:
    /* send takes each line for the client, its end included, also on later turns; it may end the conversation. Model
     * and actions must outlive it. */
    Conversation(Model &model, const ControlActions &actions, std::function<void(const std::string &line)> send);
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;
    ~Conversation();

    /* One line of the client's, without its end. Whatever it is, it is answered. */
    void take(const std::string &line);
    /* Refuses a line that came in another way. */
    void refuse(const std::string &reason);
    /* The client is gone: nothing is sent any more. */
    void end();

private:
    void send(const std::string &line);
    void look();
    void tell_timeline();
    void take_export();
    void take_import(const std::string &text);
    void tell_traces(std::size_t lines, bool follow);
    void watch(const std::string &path);

    Model &model_;
    const ControlActions &actions_;
    std::function<void(const std::string &line)> send_;
    Model::WatchId watch_ = 0;
    std::uint64_t follower_ = 0;
    bool ended_ = false;
    std::shared_ptr<bool> life_ = std::make_shared<bool>(); /* for what is answered on a later turn */
};

} // namespace keel

#endif
