// First-in first-out queue.
#pragma once

#include <vel/memory/list.h>

/// A list that is filled at its tail and emptied at its head. Queues kept in an order of their own (timers) insert with
/// `insert_before` and take out with `remove`, both inherited.
///
/// Threads, ownership and errors as VEL_List; `dequeue` and `peek` of an empty queue leave the error code alone.
template <class T>
class VEL_Queue : public VEL_List<T> {
public:
    /// Puts a value behind the last one. 0, or -1 with the error code.
    int enqueue(const T& value) { return this->push_back(value); }
    int enqueue(T&& value) { return this->push_back(std::move(value)); }

    /// Takes the oldest value out. -1 when the queue is empty.
    int dequeue(T& value) { return this->pop_front(value); }

    /// The oldest value, which stays in the queue; null when the queue is empty.
    T* peek() const { return this->head() ? &this->head()->value() : nullptr; }
};
