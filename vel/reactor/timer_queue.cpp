// The engine of the timer queue: an indexed 4-ary heap over pooled nodes and a hash from id to node.
#include <vel/reactor/timer_queue.h>

#include <algorithm>
#include <new>

namespace vel {
namespace {

constexpr size_t arity = 4;
constexpr size_t first_buckets = 64;
constexpr int32_t highest_id = 0x7FFFFFFE;

} // namespace

int32_t TimerEngine::schedule(void* handler, uint32_t interval_ms, uint64_t now_ms, bool& sooner) {
    sooner = false;
    const int32_t id = next_id();
    if (!make_room()) return -1;
    const uint32_t fresh = free_;
    Node& node = nodes_[fresh];
    free_ = node.next;
    node.timer = {id, interval_ms, static_cast<uint32_t>(now_ms), handler};
    uint32_t& head = buckets_[bucket(id)];
    node.next = head;
    head = fresh;

    const Entry entry{now_ms + interval_ms, next_sequence_++, fresh};
    sooner = entry.deadline < deadline_ms();
    heap_.push_back(entry);
    sift_up(heap_.size() - 1, entry);
    return id;
}

bool TimerEngine::cancel(int32_t id, void*& handler) {
    const uint32_t node = find(id);
    if (node == none) return false;
    handler = nodes_[node].timer.handler;
    remove(node);
    return true;
}

bool TimerEngine::reschedule(int32_t id, uint32_t interval_ms, uint64_t now_ms, bool& sooner) {
    sooner = false;
    const uint32_t found = find(id);
    if (found == none) return false;
    Node& node = nodes_[found];
    node.timer.interval = interval_ms;
    node.timer.start = static_cast<uint32_t>(now_ms);
    const Entry entry{now_ms + interval_ms, next_sequence_++, found};
    sooner = entry.deadline < deadline_ms();
    reposition(node.place, entry);
    return true;
}

bool TimerEngine::next_due(uint64_t now_ms, int32_t& began_with, Timer& timer) const {
    if (deadline_ms() > now_ms) return false;
    timer = nodes_[heap_.front().node].timer;
    if (timer.id == began_with) return false;
    if (!contains(began_with)) began_with = timer.id; // also the first of all: no timer has id 0
    return true;
}

bool TimerEngine::take_first(Timer& timer) {
    if (heap_.empty()) return false;
    const uint32_t node = heap_.front().node;
    timer = nodes_[node].timer;
    remove(node);
    return true;
}

uint32_t TimerEngine::wait_ms(uint64_t now_ms) const {
    if (heap_.empty()) return VEL_INFINITE;
    const uint64_t deadline = heap_.front().deadline;
    if (deadline <= now_ms) return 0;
    return static_cast<uint32_t>(std::min<uint64_t>(deadline - now_ms, VEL_INFINITE - 1)); // never "for ever"
}

int32_t TimerEngine::next_id() {
    last_id_ = last_id_ >= highest_id ? 1 : last_id_ + 1;
    return last_id_;
}

// Room for one more timer in all three containers, so that nothing fails half-way.
bool TimerEngine::make_room() {
    try {
        if (heap_.size() == heap_.capacity()) heap_.reserve(std::max(first_buckets, heap_.capacity() * 2));
        if (heap_.size() >= buckets_.size()) rehash(std::max(first_buckets, buckets_.size() * 2));
        if (free_ == none) {
            nodes_.push_back({});
            nodes_.back().next = none;
            free_ = static_cast<uint32_t>(nodes_.size() - 1);
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Multiplies by the golden ratio, so that ids in any regular pattern spread.
size_t TimerEngine::bucket(int32_t id) const { return (static_cast<uint32_t>(id) * 0x9E3779B9u) >> bucket_shift_; }

// Where an id came round again, the timer that is first in the queue is meant.
uint32_t TimerEngine::find(int32_t id) const {
    if (buckets_.empty()) return none;
    uint32_t found = none;
    for (uint32_t node = buckets_[bucket(id)]; node != none; node = nodes_[node].next) {
        if (nodes_[node].timer.id != id) continue;
        if (found == none || heap_[nodes_[node].place] < heap_[nodes_[found].place]) found = node;
    }
    return found;
}

void TimerEngine::rehash(size_t count) {
    std::vector<uint32_t> fresh(count, none);
    buckets_.swap(fresh);
    bucket_shift_ = 32;
    for (size_t width = count; width > 1; width /= 2) --bucket_shift_;
    for (const Entry& entry : heap_) {
        Node& node = nodes_[entry.node];
        uint32_t& head = buckets_[bucket(node.timer.id)];
        node.next = head;
        head = entry.node;
    }
}

void TimerEngine::unlink(uint32_t node) {
    uint32_t* link = &buckets_[bucket(nodes_[node].timer.id)];
    while (*link != node) link = &nodes_[*link].next;
    *link = nodes_[node].next;
}

void TimerEngine::remove(uint32_t node) {
    unlink(node);
    const size_t index = nodes_[node].place;
    nodes_[node].next = free_;
    free_ = node;
    const Entry last = heap_.back();
    heap_.pop_back();
    if (index < heap_.size()) reposition(index, last);
}

void TimerEngine::place(size_t index, const Entry& entry) {
    heap_[index] = entry;
    nodes_[entry.node].place = static_cast<uint32_t>(index);
}

// Puts an entry into the gap at `index`, upwards or downwards from there.
void TimerEngine::reposition(size_t index, const Entry& entry) {
    if (index > 0 && entry < heap_[(index - 1) / arity])
        sift_up(index, entry);
    else
        sift_down(index, entry);
}

void TimerEngine::sift_up(size_t index, const Entry& entry) {
    while (index > 0) {
        const size_t parent = (index - 1) / arity;
        if (!(entry < heap_[parent])) break;
        place(index, heap_[parent]);
        index = parent;
    }
    place(index, entry);
}

void TimerEngine::sift_down(size_t index, const Entry& entry) {
    for (;;) {
        const size_t first = index * arity + 1;
        if (first >= heap_.size()) break;
        const auto begin = heap_.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end = heap_.begin() + static_cast<std::ptrdiff_t>(std::min(first + arity, heap_.size()));
        const auto least = std::min_element(begin, end);
        if (!(*least < entry)) break;
        place(index, *least);
        index = static_cast<size_t>(least - heap_.begin());
    }
    place(index, entry);
}

} // namespace vel
