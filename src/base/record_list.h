// The one list type of the daemon: it owns its records, zero-fills them, puts new ones at the head, and
// lets any record be removed while any walk is under way. An allocation can fail and says so.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstring>
#include <new>

#include "base/trace.h"

namespace tavu {

template<class T>
class record_list {
    struct node {
        node* next;
        T record;
    };

  public:
    // Walks the records from the newest on. Registered with its list, so that it steps over records
    // that are removed under it.
    class iterator {
      public:
// gcc 12 does not see that the destructor takes the address out of the list again.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
        explicit iterator(record_list& list) : list_(list), at_(list.head_), outer_(list.walks_) {
            after_ = at_ ? at_->next : nullptr;
            list_.walks_ = this;
        }
        ~iterator() {
            list_.walks_ = outer_;
        }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
        iterator(const iterator&) = delete;
        iterator& operator=(const iterator&) = delete;

        T& operator*() const {
            return at_->record;
        }
        iterator& operator++() {
            at_ = after_;
            after_ = at_ ? at_->next : nullptr;
            return *this;
        }
        bool operator!=(std::nullptr_t) const {
            return at_ != nullptr;
        }

      private:
        friend class record_list;
        record_list& list_;
        node* at_;
        node* after_;
        iterator* outer_; // walks nest like the calls that make them
    };

    // `prefix` begins the trace of a failed allocation: "TAVU", or "KEYSRV" for the key server's lists.
    explicit constexpr record_list(const char* prefix) : prefix_(prefix) {}
    constexpr record_list() : record_list("TAVU") {}
    ~record_list() {
        clear();
    }
    record_list(const record_list&) = delete;
    record_list& operator=(const record_list&) = delete;

    // A zero-filled record at the head of the list, or null after an error trace.
    [[nodiscard]] T* add() {
        void* memory = ::operator new(sizeof(node), std::nothrow);
        if (!memory) {
            TRACE_ERROR("%s: Memory allocation of %u bytes failed", prefix_,
                        static_cast<unsigned>(sizeof(node)));
            return nullptr;
        }
        memset(memory, 0, sizeof(node));
        node* added = new (memory) node{};
        added->next = head_;
        head_ = added;
        return &added->record;
    }

    // Unlinks and frees a record of this list.
    void remove(T& record) {
        for (node** link = &head_; *link; link = &(*link)->next) {
            node* removed = *link;
            if (&removed->record != &record)
                continue;
            *link = removed->next;
            for (iterator* walk = walks_; walk; walk = walk->outer_) {
                if (walk->after_ == removed)
                    walk->after_ = removed->next;
            }
            removed->~node();
            ::operator delete(removed);
            return;
        }
        assert(false && "a record of this list");
    }

    void clear() {
        while (head_)
            remove(head_->record);
    }

    // The newest record, or null.
    T* first() {
        return head_ ? &head_->record : nullptr;
    }
    // The record after this one, or null.
    T* next_of(T& record) {
        node* at = head_;
        while (at && &at->record != &record)
            at = at->next;
        return at && at->next ? &at->next->record : nullptr;
    }

    // The newest record that the predicate accepts, or null.
    template<class Predicate>
    T* find(Predicate accepts) {
        for (node* at = head_; at; at = at->next) {
            if (accepts(at->record))
                return &at->record;
        }
        return nullptr;
    }

    bool empty() const {
        return !head_;
    }
    unsigned size() const {
        unsigned count = 0;
        for (const node* at = head_; at; at = at->next)
            count++;
        return count;
    }

    iterator begin() {
        return iterator(*this);
    }
    std::nullptr_t end() {
        return nullptr;
    }

  private:
    node* head_ = nullptr;
    iterator* walks_ = nullptr;
    const char* prefix_;
};

} // namespace tavu
