/*
 * What survives: the persistent parts of the data model, in an SQLite file.
 */
#ifndef HOST_MODEL_STORE_H
#define HOST_MODEL_STORE_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/base/growing_pause.h"
#include "host/model/database.h"
#include "host/model/model.h"

namespace keel {

/* Restores what the file holds into the model, then follows the model's changes. Every turn of changes is one
 * transaction (write-ahead log): a host killed at any moment leaves the last completed one.
 *
 * A file that is damaged or no store is moved aside as FILE.damaged-N and a new one begun. Stored things that the model
 * has no place for are traced and left out of the model; they stay in the file, a value of another type until its
 * object is written again, an object until an instance of its name is added.
 *
 * While the file cannot be used (it is locked, the disk is full, read-only or not there) the service runs from memory:
 * that is traced once, stands in "KeelHost.StoreError" of the model, and is tried again with a growing pause. A file
 * that can be read at last gives back what was not written since the start; what was wins.
 *
 * A file that was taken away or replaced, or that a disk lost hold of, is opened anew, or begun anew, at the next
 * write or within five minutes, and all is written into it: from the first reading on the model has the last word. */
class Store {
public:
    Store(Loop &loop, Model &model, const std::string &file);
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store();

    /* Writes what has changed up to now and what follows from it at once (the setting's other name), before it returns:
     * for who must answer only when a change is safe. Not from a watcher. Empty when all is written, else why not. */
    std::string flush();

private:
    struct Dirty {
        bool deleted = false;            /* at some time, with all below */
        std::int64_t position = 0;       /* of an instance that has no row yet: later ones have higher positions */
        std::set<std::string> changed{}; /* until the file was read: the parameters that are newer here */
    };

    bool begin();
    bool overwrite();
    bool write_all_below(const Node &node, std::int64_t *position);
    bool move_aside();
    void restore();
    void restore_node(const std::string &parent, const std::string &name, bool instance);
    void restore_below(const std::string &path);
    Values stored_values(const std::string &path, const Shape &shape);
    void on_event(const Event &event);
    bool became_persistent(const Event &event);
    void mark_below(const Node &node);
    void write_dirty();
    bool write_once();
    bool write_all(const std::map<std::string, Dirty> &changes);
    std::vector<std::string> left_out_within(const std::string &path) const;
    bool write_node(const Node &node, std::int64_t position);
    bool write_missing_parents(const Node &node);
    bool delete_rows(const std::string &path);
    void try_again();
    void look_at_file();
    void set_error(const std::string &error);

    Loop &loop_;
    Model &model_;
    std::string file_;
    Database database_;
    std::string error_; /* empty while all goes well */
    Model::WatchId watch_ = 0;
    std::map<std::string, Dirty> dirty_; /* nodes to be written, by path */
    std::set<std::string> left_out_;     /* paths in the file that are not in the model */
    std::uint64_t start_ = 0;            /* the latest event when this was made */
    std::set<std::uint64_t> own_events_; /* of what was restored, not told yet */
    bool restored_ = false;              /* what was in the file is in the model */
    std::int64_t highest_position_ = 0;  /* in the file at that time */
    bool write_posted_ = false;
    Loop::TimerId retry_ = 0;
    Loop::TimerId looking_ = 0;
    GrowingPause pause_{1000, 60000}; /* before the next try */
    std::shared_ptr<bool> alive_;
};

} // namespace keel

#endif
