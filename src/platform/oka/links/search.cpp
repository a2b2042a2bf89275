#include "platform/oka/links/search.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/oka/core/oka_trace.h"

namespace oka {

namespace {

struct {
    search* all = nullptr;
} searches;

void report_once(search& of, int error) {
    if (!of.reported)
        OKA_ERROR("OKA: Mailbox '%s' of unit '%s' cannot be reached: %s", of.name, of.unit,
                  error == EPERM ? "it is another user's" : strerror(error));
    of.reported = true;
}

void look_again(void* context) {
    auto& of = *static_cast<search*>(context);
    of.retry_timer = 0;
    of.over->look(of);
    try_places(*of.over);
}

void note_error(search& of, int error) {
    if (error == ENOENT) {
        of.retry.reset();
        return;
    }
    of.failed = true;
    // A full queue of connections is not worth a word.
    if (error != EAGAIN)
        report_once(of, error);
}

// The descriptor of a connection to the next place, or -1 with errno.
int connect_to_next(search& of, uint32_t& peer) {
    uint64_t place = of.places[0];
    std::copy(of.places + 1, of.places + of.place_count, of.places);
    --of.place_count;
    errno = EAGAIN;
    return room_for_link() ? of.over->connect(of, place, peer) : -1;
}

// May end the search.
void try_places_of(search& of) {
    while (of.place_count > 0) {
        uint32_t peer = 0;
        int fd = connect_to_next(of, peer);
        if (fd >= 0) {
            begin_link(*of.over, of.link, fd, peer, !of.over->connects_later);
            return;
        }
        note_error(of, errno);
    }
    if (of.failed && !of.retry_timer)
        of.retry_timer = call_later(of.retry.next_ms(), look_again, &of);
    of.failed = false;
}

void handle_found(link_search& link, oka_mailbox mailbox) {
    answer_locate(reinterpret_cast<search&>(link).locate, mailbox);
}

void handle_failed(link_search& link) {
    auto& of = reinterpret_cast<search&>(link);
    of.failed = true;
    try_places_of(of);
}

bool introduce(link_search& link, int fd) {
    const auto& of = reinterpret_cast<search&>(link);
    return !of.over->introduce || of.over->introduce(fd, of.wanted());
}

} // namespace

void start_search(const family& over, uint32_t id, const char* unit, const char* name) {
    auto* fresh = new search;
    fresh->link.found = handle_found;
    fresh->link.failed = handle_failed;
    fresh->link.introduce = introduce;
    fresh->over = &over;
    fresh->locate = id;
    snprintf(fresh->unit, sizeof fresh->unit, "%s", *unit ? unit : own_unit());
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    fresh->next = searches.all;
    searches.all = fresh;
    over.look(*fresh);
    try_places(over);
}

void cancel_search(const family& over, uint32_t id) {
    search** link = &searches.all;
    while (*link && ((*link)->over != &over || (*link)->locate != id))
        link = &(*link)->next;
    if (!*link)
        return;
    search* ended = *link;
    *link = ended->next;
    cancel_link(ended->link);
    cancel_call(ended->retry_timer);
    over.stop_looking(*ended);
    delete ended;
}

search* next_search(const family& over, const search* after) {
    search* each = after ? after->next : searches.all;
    while (each && each->over != &over)
        each = each->next;
    return each;
}

void add_place(search& of, uint64_t place) {
    uint64_t* end = of.places + of.place_count;
    if (of.place_count < places_limit && std::find(of.places, end, place) == end)
        of.places[of.place_count++] = place;
}

void remove_place(search& of, uint64_t place) {
    uint64_t* end = of.places + of.place_count;
    of.place_count = static_cast<size_t>(std::remove(of.places, end, place) - of.places);
    of.retry.reset();
}

void try_places(const family& over) {
    // From the beginning each time, since trying one may end others.
    auto next_to_try = [&over] {
        search* each = next_search(over, nullptr);
        while (each && (each->place_count == 0 || each->link.busy()))
            each = next_search(over, each);
        return each;
    };
    while (search* each = next_to_try())
        try_places_of(*each);
}

} // namespace oka
