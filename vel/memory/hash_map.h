// Chained hash map that remembers the order of insertion.
#pragma once

#include <cstddef>
#include <iterator>
#include <new>
#include <utility>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/memory/allocator.h>
#include <vel/memory/hash_function.h>

template <class K, class V, class H, class A>
class VEL_Hash_Map;

/// One entry of a VEL_Hash_Map.
template <class K, class V>
class VEL_Hash_Node {
public:
    VEL_Hash_Node(const K& key, const V& value) : key_(key), value_(value) {}
    virtual ~VEL_Hash_Node() = default;
    VEL_Hash_Node(const VEL_Hash_Node&) = delete;
    VEL_Hash_Node& operator=(const VEL_Hash_Node&) = delete;

    const K& key() const { return key_; }
    V& value() { return value_; }
    const V& value() const { return value_; }

    /// The neighbours in the order of insertion.
    VEL_Hash_Node* next() const { return list_next_; }
    VEL_Hash_Node* prev() const { return list_prev_; }

private:
    template <class, class, class, class>
    friend class VEL_Hash_Map;
    K key_;
    V value_;
    VEL_Hash_Node* chain_next_ = nullptr;
    VEL_Hash_Node** chain_prev_ = nullptr; // the pointer that leads here: the one before's, or the bucket itself
    VEL_Hash_Node* list_next_ = nullptr;
    VEL_Hash_Node* list_prev_ = nullptr;
};

/// Maps keys to values; walks them in the order of insertion. An entry keeps its address until it is removed.
///
/// Keys compare with `==`. Binding a key again adds a second entry that hides the first; look up before binding.
/// Threads:   one at a time; the owner's lock guards it.
/// Ownership: the map owns its entries, not what pointers among them point to. It is not copied.
/// Errors:    `bind` returns -1 with 0x20000005 when the hash function answers a bucket that does not exist, with 8 when
///            memory is short, or with the code of a VEL_Exception that copying raised; the map is then unchanged. What
///            finds nothing returns -1 or null and leaves the error code alone.
/// Limits:    the number of buckets never changes once the table is there.
///
///     VEL_Hash_Map<std::string, int> ports;
///     ports.bind("http", 80);
///     if (int* port = ports.find("http")) connect(*port);
template <class K, class V, class H = VEL_HFunc, class A = VEL_Std_Allocator>
class VEL_Hash_Map {
public:
    using Node = VEL_Hash_Node<K, V>;

    /// Buckets of a map that was given no number.
    static constexpr uint64_t default_buckets = 32749;

    /// Walks in the order of insertion; valid until its own entry is removed.
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Node;
        using difference_type = std::ptrdiff_t;
        using pointer = Node*;
        using reference = Node&;

        explicit iterator(Node* node = nullptr) : node_(node) {}
        Node& operator*() const { return *node_; }
        Node* operator->() const { return node_; }
        iterator& operator++() {
            node_ = node_->next();
            return *this;
        }
        iterator operator++(int) {
            iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const iterator& other) const { return node_ == other.node_; }
        bool operator!=(const iterator& other) const { return node_ != other.node_; }

    private:
        Node* node_;
    };

    /// A map that creates its table of `default_buckets` at the first insertion.
    VEL_Hash_Map() = default;

    /// A map that creates its table at once. Throws VEL_Exception with the thread's error code when it cannot.
    /// @param buckets  number of chains, at least 1
    explicit VEL_Hash_Map(uint64_t buckets) {
        if (create_table(buckets) != 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
    }

    VEL_Hash_Map(const VEL_Hash_Map&) = delete;
    VEL_Hash_Map& operator=(const VEL_Hash_Map&) = delete;

    virtual ~VEL_Hash_Map() {
        clear();
        allocator_.free(table_);
    }

    /// Adds an entry at the end of the order; it is the first to be found for its key. 0 or -1.
    int bind(const K& key, const V& value) {
        if (!table_ && create_table(default_buckets) != 0) return -1;
        try {
            const uint64_t bucket = hash_.HashFunc(key, buckets_);
            if (bucket >= buckets_) VEL_Exception::ThrowException(bad_hash);
            link(new Node(key, value), bucket);
            return 0;
        } catch (const VEL_Exception& exception) {
            VELLib::SetErrorCode(exception.GetErrorCode());
        } catch (const std::bad_alloc&) {
            VELLib::SetErrorCode(8);
        }
        return -1;
    }

    /// The value of the newest entry for a key; null when there is none.
    V* find(const K& key) const {
        Node* node = find_node(key);
        return node ? &node->value_ : nullptr;
    }

    /// Copies the value of a key. -1 when there is none.
    int find(const K& key, V& value) const {
        const V* found = find(key);
        if (!found) return -1;
        value = *found;
        return 0;
    }

    /// The newest entry for a key; null when there is none.
    Node* find_node(const K& key) const {
        if (size_ == 0) return nullptr;
        const uint64_t bucket = hash_.HashFunc(key, buckets_);
        if (bucket >= buckets_) return nullptr;
        Node* node = table_[bucket];
        while (node && !(node->key_ == key)) node = node->chain_next_;
        return node;
    }

    /// Removes the newest entry for a key. -1 when there is none.
    int unbind(const K& key) {
        Node* node = find_node(key);
        if (!node) return -1;
        remove(node);
        return 0;
    }

    /// The same, and moves the value out.
    int unbind(const K& key, V& value) {
        Node* node = find_node(key);
        if (!node) return -1;
        value = std::move(node->value_);
        remove(node);
        return 0;
    }

    /// Removes an entry of this map.
    void remove(Node* node) {
        unlink(node);
        delete node;
    }

    void clear() {
        while (head_) remove(head_);
    }

    /// The oldest and the newest entry; null when the map is empty.
    Node* head() const { return head_; }
    Node* tail() const { return tail_; }
    uint64_t size() const { return size_; }
    bool is_empty() const { return size_ == 0; }

    /// Number of chains; 0 as long as there is no table.
    uint64_t bucket_count() const { return buckets_; }
    iterator begin() const { return iterator(head_); }
    iterator end() const { return iterator(); }

private:
    static constexpr uint32_t bad_hash = 0x20000005;

    int create_table(uint64_t buckets) {
        if (buckets > UINT64_MAX / sizeof(Node*)) {
            VELLib::SetErrorCode(8);
            return -1;
        }
        table_ = static_cast<Node**>(allocator_.malloc(buckets * sizeof(Node*), true));
        if (!table_) return -1;
        buckets_ = buckets;
        return 0;
    }

    void link(Node* node, uint64_t bucket) {
        node->chain_next_ = table_[bucket];
        node->chain_prev_ = &table_[bucket];
        if (node->chain_next_) node->chain_next_->chain_prev_ = &node->chain_next_;
        table_[bucket] = node;
        node->list_prev_ = tail_;
        (tail_ ? tail_->list_next_ : head_) = node;
        tail_ = node;
        ++size_;
    }

    void unlink(Node* node) {
        *node->chain_prev_ = node->chain_next_;
        if (node->chain_next_) node->chain_next_->chain_prev_ = node->chain_prev_;
        (node->list_prev_ ? node->list_prev_->list_next_ : head_) = node->list_next_;
        (node->list_next_ ? node->list_next_->list_prev_ : tail_) = node->list_prev_;
        --size_;
    }

    A allocator_;
    H hash_;
    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    Node** table_ = nullptr;
    uint64_t buckets_ = 0;
    uint64_t size_ = 0;
};
