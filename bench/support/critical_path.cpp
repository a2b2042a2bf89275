#include "support/critical_path.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>

namespace bench {

namespace {

struct record {
    bool is_send;
    long long at_us;
    uint32_t number;
    uint32_t to;   // mailbox
    uint32_t from; // of a receipt
};

struct daemon_records {
    std::vector<record> all;
    std::set<uint32_t> own_mailboxes; // on which something was received
};

// "<7>12.345678 qel-tavu: send file.cpp:1 0x1b0701 to mailbox 5: ..." and
// "<7>12.345678 qel-tavu: receive file.cpp:1 0x1b0701 of 20 bytes from mailbox 7 on mailbox 5: ..."
bool read_record(const std::string& line, record& into) {
    long long seconds, microseconds;
    if (sscanf(line.c_str(), "<%*d>%lld.%lld", &seconds, &microseconds) != 2)
        return false;
    into.at_us = seconds * 1'000'000 + microseconds;
    size_t kind = line.find(": ");
    size_t rest = line.find(" 0x", kind);
    if (rest == std::string::npos)
        return false;
    into.is_send = line.compare(kind, 7, ": send ") == 0;
    into.from = 0;
    return into.is_send ? sscanf(line.c_str() + rest, " 0x%x to mailbox %u", &into.number, &into.to) == 2
                        : sscanf(line.c_str() + rest, " 0x%x of %*u bytes from mailbox %u on mailbox %u",
                                 &into.number, &into.from, &into.to) == 3;
}

daemon_records read_records(const std::string& traces) {
    daemon_records records;
    std::istringstream lines(traces);
    record each;
    for (std::string line; std::getline(lines, line);) {
        if (!read_record(line, each))
            continue;
        records.all.push_back(each);
        if (!each.is_send)
            records.own_mailboxes.insert(each.to);
    }
    return records;
}

using place = std::vector<record>::const_iterator;

// The last record before `limit` that fulfils the condition; `limit` when there is none.
template<class Condition>
place last_before(const daemon_records& records, place limit, Condition condition) {
    for (place at = limit; at != records.all.begin();) {
        if (condition(*--at))
            return at;
    }
    return limit;
}

} // namespace

std::vector<path_step> critical_path(const std::string (&traces)[2], uint32_t first, uint32_t last,
                                     uint32_t located) {
    const daemon_records daemons[2] = {read_records(traces[0]), read_records(traces[1])};
    std::vector<path_step> path = {{last, true}};
    size_t here = 0;
    place end = daemons[here].all.end();
    place limit = last_before(daemons[here], end, [&](auto& r) { return r.is_send && r.number == last; });
    if (limit == end)
        return {};
    while (path.back().number != first) {
        place received = last_before(daemons[here], limit, [](auto& r) { return !r.is_send; });
        if (received == limit)
            return {};
        const record& cause = *received;
        bool within = cause.number == located || daemons[here].own_mailboxes.contains(cause.from);
        path.push_back({cause.number, !within});
        limit = received;
        if (cause.number == first || cause.number == located)
            continue;
        here = within ? here : 1 - here;
        place later = within ? received : daemons[here].all.end();
        limit = last_before(daemons[here], later, [&](const record& r) {
            return r.is_send && r.number == cause.number && r.at_us <= cause.at_us &&
                   daemons[here].own_mailboxes.contains(r.to) == within;
        });
        if (limit == later)
            return {};
    }
    std::reverse(path.begin(), path.end());
    return path;
}

} // namespace bench
