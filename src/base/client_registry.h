// The clients of a server: connections, each with an id of the server's and a reference of the client's own.
// One mailbox may have several; they share one supervision of the mailbox, which begins with the first and
// ends with the last.
//
// The functions that a server traces are its own; here stands what they have in common.
#pragma once

#include "base/record_list.h"
#include "base/wire.h"
#include "platform/oka.h"

namespace tavu {

// The head of every server's record of a client.
struct registered_client {
    uint32_t id; // never 0
    oka_mailbox mailbox;
    uint32_t connection_reference; // the client's own, which every message to it carries
    uint32_t protocol_version;
    oka_monitor_ref monitor; // of the mailbox
};

template<class Client>
class client_registry {
  public:
    explicit constexpr client_registry(uint32_t most, const char* prefix = "TAVU")
        : most_(most), prefix_(prefix), clients_(prefix) {}

    Client* find(uint32_t id) {
        return clients_.find([=](const Client& each) { return each.id == id; });
    }
    Client* find(oka_mailbox mailbox, uint32_t connection_reference) {
        return clients_.find([=](const Client& each) {
            return each.mailbox == mailbox && each.connection_reference == connection_reference;
        });
    }
    // The mailbox's newest client, or null.
    Client* newest_of(oka_mailbox mailbox) {
        return clients_.find([=](const Client& each) { return each.mailbox == mailbox; });
    }
    Client* newest() { return clients_.first(); }
    // The oldest that the predicate accepts, or null.
    template<class Predicate>
    Client* oldest(Predicate accepts) {
        Client* found = nullptr;
        for (Client& each : clients_)
            found = accepts(each) ? &each : found;
        return found;
    }

    // The lowest id that is free, or 0.
    uint32_t free_id() {
        uint32_t id = 1;
        while (id <= most_ && find(id))
            id++;
        return id <= most_ ? id : 0;
    }

    // A client with an id that is free; null, after an error trace, when memory is short. `watch` supervises
    // the mailbox of a client that is its first, and gives the reference.
    template<class Watch>
    Client* add(uint32_t id, oka_mailbox mailbox, uint32_t connection_reference, uint32_t protocol_version,
                Watch watch) {
        const Client* sibling = newest_of(mailbox);
        Client* added = clients_.add();
        if (!added)
            return nullptr;
        added->id = id;
        added->mailbox = mailbox;
        added->connection_reference = connection_reference;
        added->protocol_version = protocol_version;
        if (sibling) {
            TRACE("%s: This is not the first client with client mailbox id=%u, already monitoring", prefix_,
                  mailbox);
            added->monitor = sibling->monitor;
        } else {
            TRACE("%s: This is the first client with client mailbox id=%u, start monitoring this mailbox",
                  prefix_, mailbox);
            added->monitor = watch(*added);
        }
        return added;
    }

    // `unwatch` ends the supervision of a mailbox that loses its last client.
    template<class Unwatch>
    void remove(Client& client, Unwatch unwatch) {
        oka_mailbox mailbox = client.mailbox;
        oka_monitor_ref monitor = client.monitor;
        clients_.remove(client);
        if (newest_of(mailbox)) {
            TRACE("%s: This is not the last client with client mailbox id=%u, keep monitoring this mailbox",
                  prefix_, mailbox);
            return;
        }
        TRACE("%s: This is the last client with client mailbox id=%u, stop monitoring this mailbox", prefix_,
              mailbox);
        unwatch(mailbox, monitor);
    }

    // Forgets every client without a word.
    void clear() { clients_.clear(); }

  private:
    uint32_t most_;
    const char* prefix_;
    record_list<Client> clients_;
};

// The first of the versions on offer that is the server's own, or 0.
uint32_t select_pv(const be32* offered, uint32_t count, uint32_t own);

} // namespace tavu
