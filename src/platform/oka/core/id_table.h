// Records by their 32-bit id. Ids come from counters, so the low bits spread them evenly.
#pragma once

#include <cstddef>
#include <cstdint>

namespace oka {

// T has a `uint32_t id` and a `T* next_in_table`. The table does not own its records.
template<typename T, size_t buckets>
class id_table {
    static_assert((buckets & (buckets - 1)) == 0);

  public:
    T* find(uint32_t id) const {
        T* record = heads[id % buckets];
        while (record && record->id != id)
            record = record->next_in_table;
        return record;
    }

    void insert(T* record) {
        T*& head = heads[record->id % buckets];
        record->next_in_table = head;
        head = record;
        ++records;
    }

    void remove(T* record) {
        T** link = &heads[record->id % buckets];
        while (*link != record)
            link = &(*link)->next_in_table;
        *link = record->next_in_table;
        --records;
    }

    // Removes any record, or gives null: for emptying the table.
    T* take_any() {
        for (T*& head : heads) {
            if (!head)
                continue;
            T* taken = head;
            head = taken->next_in_table;
            --records;
            return taken;
        }
        return nullptr;
    }

    template<typename Predicate>
    T* find_if(Predicate wanted) const {
        for (T* head : heads) {
            for (T* record = head; record; record = record->next_in_table) {
                if (wanted(*record))
                    return record;
            }
        }
        return nullptr;
    }

    size_t size() const { return records; }

  private:
    T* heads[buckets] = {};
    size_t records = 0;
};

// The next id of a counter that is free in the table and none of the reserved values.
template<typename Table>
uint32_t next_free_id(uint32_t& counter, const Table& table) {
    do
        ++counter;
    while (counter == 0 || counter == OKA_MAILBOX_NONE || counter == OKA_ANY_SENDER || table.find(counter));
    return counter;
}

} // namespace oka
