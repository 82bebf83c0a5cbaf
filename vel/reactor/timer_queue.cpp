// The engine of the timer queue: a 4-ary heap of runs of pooled nodes, and a hash from id to node.
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

    const uint64_t deadline = now_ms + interval_ms;
    sooner = deadline < deadline_ms();
    enter(fresh, deadline);
    ++size_;
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
    const uint64_t deadline = now_ms + interval_ms;
    sooner = deadline < deadline_ms();
    leave(found);
    nodes_[found].timer.interval = interval_ms;
    nodes_[found].timer.start = static_cast<uint32_t>(now_ms);
    enter(found, deadline);
    return true;
}

bool TimerEngine::next_due(uint64_t now_ms, int32_t& began_with, Timer& timer) const {
    if (deadline_ms() > now_ms) return false;
    timer = nodes_[heap_.front().first].timer;
    if (timer.id == began_with) return false;
    if (!contains(began_with)) began_with = timer.id; // also the first of all: no timer has id 0
    return true;
}

bool TimerEngine::take_first(Timer& timer) {
    if (heap_.empty()) return false;
    const uint32_t node = heap_.front().first;
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

// Room for one more timer in all three containers, so that nothing fails half-way. In the heap for a run of each timer,
// since rescheduling can take every run apart.
bool TimerEngine::make_room() {
    try {
        if (size_ >= heap_.capacity()) heap_.reserve(std::max(first_buckets, heap_.capacity() * 2));
        if (size_ >= buckets_.size()) rehash(std::max(first_buckets, buckets_.size() * 2));
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

// Ids in any regular pattern spread: sixteen that follow each other over one cache line, and the golden ratio gives
// them theirs.
size_t TimerEngine::bucket(int32_t id) const {
    const uint32_t number = static_cast<uint32_t>(id);
    return (((number / 16) * 0x9E3779B9u) >> bucket_shift_) ^ (number % 16);
}

// Where an id came round again, the timer that is first in the queue is meant.
uint32_t TimerEngine::find(int32_t id) const {
    if (buckets_.empty()) return none;
    uint32_t found = none;
    for (uint32_t node = buckets_[bucket(id)]; node != none; node = nodes_[node].next) {
        if (nodes_[node].timer.id != id) continue;
        if (found == none || expires_before(node, found)) found = node;
    }
    return found;
}

// Walks to the front of both runs: that is for the rare case that two timers share an id.
bool TimerEngine::expires_before(uint32_t node, uint32_t other) const {
    const auto first_of = [this](uint32_t at, uint32_t stop) {
        while (at != stop && nodes_[at].before != none) at = nodes_[at].before;
        return at;
    };
    const uint32_t first = first_of(node, none);
    const uint32_t other_first = first_of(other, node);
    if (other_first == node) return true; // it stands on the way
    return first != other_first && heap_[nodes_[first].place] < heap_[nodes_[other_first].place];
}

void TimerEngine::rehash(size_t count) {
    std::vector<uint32_t> fresh(count, none);
    buckets_.swap(fresh);
    bucket_shift_ = 32;
    for (size_t width = count; width > 1; width /= 2) --bucket_shift_;
    for (const Run& run : heap_) {
        for (uint32_t node = run.first; node != none; node = nodes_[node].after) {
            uint32_t& head = buckets_[bucket(nodes_[node].timer.id)];
            nodes_[node].next = head;
            head = node;
        }
    }
}

void TimerEngine::unlink(uint32_t node) {
    uint32_t* link = &buckets_[bucket(nodes_[node].timer.id)];
    while (*link != node) link = &nodes_[*link].next;
    *link = nodes_[node].next;
}

// Puts a node behind all of its deadline, into the newest run of that or into one of its own.
void TimerEngine::enter(uint32_t node, uint64_t deadline) {
    Recent& newest = recent(deadline);
    const bool grows = newest.last != none && newest.deadline == deadline;
    nodes_[node].before = grows ? newest.last : none;
    nodes_[node].after = none;
    if (grows) nodes_[newest.last].after = node;
    newest = {deadline, node};
    if (grows) return;
    const Run run{deadline, next_sequence_++, node};
    heap_.push_back(run);
    sift_up(heap_.size() - 1, run);
}

// The run's sequence number stays when its first timer leaves: other runs of its deadline are wholly before or behind.
void TimerEngine::leave(uint32_t node) {
    const Node& leaving = nodes_[node];
    const uint32_t before = leaving.before;
    const uint32_t after = leaving.after;
    Recent& newest = recent(leaving.timer.start + leaving.timer.interval);
    if (newest.last == node) newest.last = before;
    if (after != none) nodes_[after].before = before;
    if (before != none)
        nodes_[before].after = after;
    else if (after != none)
        place(leaving.place, {heap_[leaving.place].deadline, heap_[leaving.place].sequence, after});
    else
        remove_run(leaving.place);
}

void TimerEngine::remove_run(size_t index) {
    const Run last = heap_.back();
    heap_.pop_back();
    if (index < heap_.size()) reposition(index, last);
}

void TimerEngine::remove(uint32_t node) {
    unlink(node);
    leave(node);
    nodes_[node].next = free_;
    free_ = node;
    --size_;
}

void TimerEngine::place(size_t index, const Run& run) {
    heap_[index] = run;
    nodes_[run.first].place = static_cast<uint32_t>(index);
}

// Puts a run into the gap at `index`, upwards or downwards from there.
void TimerEngine::reposition(size_t index, const Run& run) {
    if (index > 0 && run < heap_[(index - 1) / arity])
        sift_up(index, run);
    else
        sift_down(index, run);
}

void TimerEngine::sift_up(size_t index, const Run& run) {
    while (index > 0) {
        const size_t parent = (index - 1) / arity;
        if (!(run < heap_[parent])) break;
        place(index, heap_[parent]);
        index = parent;
    }
    place(index, run);
}

void TimerEngine::sift_down(size_t index, const Run& run) {
    for (;;) {
        const size_t first = index * arity + 1;
        if (first >= heap_.size()) break;
        const auto begin = heap_.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end = heap_.begin() + static_cast<std::ptrdiff_t>(std::min(first + arity, heap_.size()));
        const auto least = std::min_element(begin, end);
        if (!(*least < run)) break;
        place(index, *least);
        index = static_cast<size_t>(least - heap_.begin());
    }
    place(index, run);
}

} // namespace vel
