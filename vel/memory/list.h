// Doubly linked list.
#pragma once

#include <cstddef>
#include <iterator>
#include <new>
#include <utility>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>

template <class T>
class VEL_List;

/// One element of a VEL_List.
template <class T>
class VEL_Node {
public:
    explicit VEL_Node(const T& value) : value_(value) {}
    explicit VEL_Node(T&& value) : value_(std::move(value)) {}
    virtual ~VEL_Node() = default;
    VEL_Node(const VEL_Node&) = delete;
    VEL_Node& operator=(const VEL_Node&) = delete;

    T& value() { return value_; }
    const T& value() const { return value_; }
    VEL_Node* next() const { return next_; }
    VEL_Node* prev() const { return prev_; }

private:
    friend class VEL_List<T>;
    T value_;
    VEL_Node* next_ = nullptr;
    VEL_Node* prev_ = nullptr;
};

/// Values in the order they were put in; a node keeps its address until it is removed.
///
/// Threads:   one at a time; the owner's lock guards it.
/// Ownership: the list owns its nodes, not what pointers among the values point to. A copy is deep.
/// Errors:    insertions return -1 with code 8, or with the code of a VEL_Exception that copying the value raised. What
///            finds nothing returns -1 or null and leaves the error code alone.
template <class T>
class VEL_List {
public:
    using Node = VEL_Node<T>;

    /// Walks from the oldest to the newest; valid until its own node is removed.
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = T*;
        using reference = T&;

        explicit iterator(Node* node = nullptr) : node_(node) {}
        T& operator*() const { return node_->value(); }
        T* operator->() const { return &node_->value(); }
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
        Node* node() const { return node_; }

    private:
        Node* node_;
    };

    VEL_List() = default;

    /// Throws VEL_Exception with the error code when a value cannot be copied.
    VEL_List(const VEL_List& other) { append_all(other); }
    VEL_List(VEL_List&& other) noexcept { swap(other); }
    VEL_List& operator=(VEL_List other) noexcept {
        swap(other);
        return *this;
    }
    virtual ~VEL_List() { clear(); }

    /// Puts a value behind the last or before the first one. 0 or -1.
    int push_back(const T& value) { return insert_before(nullptr, value); }
    int push_back(T&& value) { return insert_before(nullptr, std::move(value)); }
    int push_front(const T& value) { return insert_before(head_, value); }
    int push_front(T&& value) { return insert_before(head_, std::move(value)); }

    /// Puts a value before a node of this list; null means at the end. 0 or -1.
    int insert_before(Node* position, const T& value) { return link_new(position, value); }
    int insert_before(Node* position, T&& value) { return link_new(position, std::move(value)); }

    /// Takes the first value out. -1 when the list is empty.
    int pop_front(T& value) {
        if (!head_) return -1;
        value = std::move(head_->value_);
        remove(head_);
        return 0;
    }

    /// Removes a node of this list.
    void remove(Node* node) {
        unlink(node);
        delete node;
    }

    /// Removes the first value equal to this one. -1 when there is none.
    int remove_value(const T& value) {
        Node* node = find_node(value);
        if (!node) return -1;
        remove(node);
        return 0;
    }

    /// Moves a node of this list to before another one (null: to the end); allocates nothing.
    void move_before(Node* node, Node* position) {
        if (node == position) return;
        unlink(node);
        link(node, position);
    }

    /// 0 when the list holds an equal value, else -1.
    int find(const T& value) const { return find_node(value) ? 0 : -1; }

    /// The first node with an equal value; null when there is none.
    Node* find_node(const T& value) const {
        Node* node = head_;
        while (node && !(node->value_ == value)) node = node->next_;
        return node;
    }

    void clear() {
        while (head_) remove(head_);
    }

    /// The first and the last node; null when the list is empty.
    Node* head() const { return head_; }
    Node* tail() const { return tail_; }
    uint64_t size() const { return size_; }
    bool is_empty() const { return size_ == 0; }
    iterator begin() const { return iterator(head_); }
    iterator end() const { return iterator(); }

    void swap(VEL_List& other) noexcept {
        std::swap(head_, other.head_);
        std::swap(tail_, other.tail_);
        std::swap(size_, other.size_);
    }

private:
    template <class Value>
    int link_new(Node* position, Value&& value) {
        try {
            link(new Node(std::forward<Value>(value)), position);
            return 0;
        } catch (const VEL_Exception& exception) {
            VELLib::SetErrorCode(exception.GetErrorCode());
        } catch (const std::bad_alloc&) {
            VELLib::SetErrorCode(8);
        }
        return -1;
    }

    void link(Node* node, Node* position) {
        node->next_ = position;
        node->prev_ = position ? position->prev_ : tail_;
        (node->prev_ ? node->prev_->next_ : head_) = node;
        (position ? position->prev_ : tail_) = node;
        ++size_;
    }

    void unlink(Node* node) {
        (node->prev_ ? node->prev_->next_ : head_) = node->next_;
        (node->next_ ? node->next_->prev_ : tail_) = node->prev_;
        --size_;
    }

    void append_all(const VEL_List& other) {
        for (const T& value : other) {
            if (push_back(value) == 0) continue;
            clear();
            VEL_Exception::ThrowException(VELLib::GetErrorCode());
        }
    }

    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    uint64_t size_ = 0;
};
