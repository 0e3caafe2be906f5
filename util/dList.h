#pragma once
// dNode and dList<T>: the system's intrusive doubly linked list. A node knows
// its neighbours (null at the ends) and is on at most one list at a time; the
// list knows only its head and tail and keeps no count, so moving a run of
// nodes to another list (splice) costs the same whatever the run's length.
#include <cstddef>

#include "util/Assert.h"

class dNode {
public:
    dNode() = default;
    dNode(const dNode&) : next(nullptr), prev(nullptr) {}
    dNode& operator=(const dNode&) { return *this; }
    virtual ~dNode() = default;

    dNode* next = nullptr;
    dNode* prev = nullptr;
};

template <class T>
class dList {
public:
    class iterator {
    public:
        iterator() = default;
        explicit iterator(dNode* n) : mNode(n) {}
        T& operator*() const { return *static_cast<T*>(mNode); }
        T* operator->() const { return static_cast<T*>(mNode); }
        T* get() const { return static_cast<T*>(mNode); }
        iterator& operator++() {
            mNode = mNode->next;
            return *this;
        }
        iterator& operator--() {
            mNode = mNode->prev;
            return *this;
        }
        bool operator==(const iterator& o) const { return mNode == o.mNode; }
        bool operator!=(const iterator& o) const { return mNode != o.mNode; }

    private:
        dNode* mNode = nullptr;
    };

    dList() = default;
    dList(const dList&) = delete;
    dList& operator=(const dList&) = delete;
    virtual ~dList() = default;

    bool empty() const { return head == nullptr; }
    T* front() const { return static_cast<T*>(head); }
    T* back() const { return static_cast<T*>(tail); }
    iterator begin() const { return iterator(head); }
    iterator end() const { return iterator(nullptr); }

    void push_back(T* node) { insertBefore(nullptr, node); }
    void push_front(T* node) { insertBefore(head, node); }

    // Inserts `node` before `position` (at the end when position is null).
    void insertBefore(dNode* position, T* node) {
        dNode* n = node;
        ESA_ASSERT(n->next == nullptr && n->prev == nullptr);
        n->next = position;
        n->prev = position ? position->prev : tail;
        if (n->prev) n->prev->next = n;
        else head = n;
        if (position) position->prev = n;
        else tail = n;
    }

    void remove(T* node) {
        dNode* n = node;
        if (n->prev) n->prev->next = n->next;
        else head = n->next;
        if (n->next) n->next->prev = n->prev;
        else tail = n->prev;
        n->next = n->prev = nullptr;
    }

    T* pop_front() {
        T* n = front();
        if (n) remove(n);
        return n;
    }

    // Moves the run first..last (inclusive, consecutive in this list) to the
    // end of `destination`.
    void splice(T* first, T* last, dList& destination) {
        dNode* f = first;
        dNode* l = last;
        if (f->prev) f->prev->next = l->next;
        else head = l->next;
        if (l->next) l->next->prev = f->prev;
        else tail = f->prev;
        f->prev = destination.tail;
        l->next = nullptr;
        if (destination.tail) destination.tail->next = f;
        else destination.head = f;
        destination.tail = l;
    }

    // Unlinks every node from the head and deletes it.
    void clearAndDelete() {
        while (dNode* n = head) {
            remove(static_cast<T*>(n));
            delete n;
        }
    }

protected:
    dNode* head = nullptr;
    dNode* tail = nullptr;
};
