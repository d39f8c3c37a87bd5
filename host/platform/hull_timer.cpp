/*
 * The plug-in's timers and deferred calls.
 */
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "host/model/recheck.h"
#include "host/platform/attachment.h"
#include "platform/hull.h"

struct hull_timer {
    keel::Loop::TimerId running = 0; /* 0: stopped */
    std::unique_ptr<keel::OnceATurn> due;
    hull_timer_handler_t handler = nullptr;
    void *data = nullptr;
};

namespace {

/* What must not reach into the plug-in any more once it is detached. */
struct Open {
    std::set<hull_timer *> timers;
    std::map<keel::Loop::TimerId, std::unique_ptr<keel::OnceATurn>> deferred;
    bool registered = false;
};

Open open_ones;

void prepare() {
    if (open_ones.registered)
        return;
    open_ones.registered = true;
    keel::host_on_detach("timers", [] {
        const std::size_t left = open_ones.timers.size();
        while (!open_ones.timers.empty())
            hull_timer_destroy(*open_ones.timers.begin());
        for (const auto &[id, deferred] : open_ones.deferred)
            keel::host_loop().cancel_timer(id);
        open_ones = {};
        return left;
    });
}

/* Timers enter the plug-in in one order with everything else that does. */
std::unique_ptr<keel::OnceATurn> enter_later(std::function<void()> entry) {
    auto turn = std::make_unique<keel::OnceATurn>(keel::host_loop(), std::move(entry), keel::OnceATurn::Turn::Last);
    turn->schedule();
    return turn;
}

} // namespace

extern "C" {

hull_timer_t *hull_timer_create() {
    prepare();
    auto *timer = new hull_timer;
    open_ones.timers.insert(timer);
    return timer;
}

void hull_timer_setUserData(hull_timer_t *timer, void *userData) {
    if (timer)
        timer->data = userData;
}

void hull_timer_setHandler(hull_timer_t *timer, hull_timer_handler_t handler) {
    if (timer)
        timer->handler = handler;
}

bool hull_timer_start(hull_timer_t *timer, uint32_t milliseconds) {
    if (!hull_timer_stop(timer))
        return false;
    timer->running = keel::host_loop().start_timer(milliseconds, [timer] {
        timer->running = 0;
        timer->due = enter_later([timer] {
            if (timer->handler)
                timer->handler(timer, timer->data);
        });
    });
    return true;
}

bool hull_timer_stop(hull_timer_t *timer) {
    if (!timer)
        return false;
    if (timer->running)
        keel::host_loop().cancel_timer(timer->running);
    timer->running = 0;
    timer->due.reset();
    return true;
}

void hull_timer_destroy(hull_timer_t *timer) {
    if (!hull_timer_stop(timer))
        return;
    open_ones.timers.erase(timer);
    delete timer;
}

bool hull_timer_defer(void (*operation)(void *data), void *data, uint32_t milliseconds) {
    if (!operation)
        return false;
    prepare();
    auto id = std::make_shared<keel::Loop::TimerId>(0);
    *id = keel::host_loop().start_timer(milliseconds, [operation, data, id] {
        open_ones.deferred[*id] = enter_later([operation, data, id] {
            open_ones.deferred.erase(*id);
            operation(data);
        });
    });
    open_ones.deferred[*id] = nullptr;
    return true;
}
}
