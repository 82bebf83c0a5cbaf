// Process-wide table from descriptor to the object behind a handle.
//
// Invariants of a slot's word:
//  - kind is not none exactly while the handle is open; only then can a new pin be taken;
//  - pins counts the table's own pin while the handle is open, plus one for each call that uses the object;
//  - whoever takes pins to 0 destroys the object and then closes the descriptor; nobody touches the slot in between
//    but through the word, and the kernel gives the number out again only after that close.
// So a descriptor that is in use is never closed under its user, and a reused number is never mistaken for the old one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace vel::os {

enum class HandleKind : uint8_t { none, event, thread, file, socket, mutex, mapping, port, window };

class PortBinding;

/// What a handle stands for; derived by each kind.
class HandleObject {
public:
    virtual ~HandleObject() = default;

    /// Called once when the handle is closed, while calls may still use the object: ends what waits inside them.
    virtual void detach() {}

    /// A thread was ended by force inside a call that uses the object: gives back what it had claimed there.
    virtual void abandon(uint32_t /*thread_id*/) {}

    /// What a completion port keeps for this handle; null for kinds that cannot be associated.
    virtual PortBinding* port_binding() { return nullptr; }

    int descriptor() const { return descriptor_; }
    uint32_t generation() const { return generation_; }

private:
    friend class HandleTable;
    int descriptor_ = -1;
    uint32_t generation_ = 0; // tells a reused descriptor from the one before
    std::atomic<int32_t> shares_{1};
};

class HandleTable {
public:
    /// Takes over the descriptor (moved to 3 or above) and the object. Null when the descriptor is -1 or cannot be kept.
    static void* insert(int descriptor, HandleKind kind, std::unique_ptr<HandleObject> object);

    static uint32_t close(void* handle);
    static uint32_t share(void* handle);
    static uint64_t open_count();

    /// Pins the object behind a handle; null when it is not open or of another kind. `HandleKind::none` takes any.
    static HandleObject* pin(void* handle, HandleKind kind);
    static HandleObject* pin(int descriptor, HandleKind kind);
    static void unpin(HandleObject* object);

    static HandleKind kind(void* handle);

    /// Tells the handle from earlier and later ones with its number; 0 for none.
    static uint32_t generation(void* handle);

    /// What `HandleObject::port_binding` gave when the handle was opened; null once it is closed. Nothing keeps the
    /// handle open meanwhile, so it is for those only who can tell whether the binding is still that of the handle.
    static PortBinding* port_binding(uint64_t handle);
};

/// One pin of the calling thread. The pins of a thread form a chain, so that those of a thread that is ended by force
/// are given back in its place. To be dropped in the reverse order, at least of those taken by one thread.
class PinLink {
public:
    PinLink() = default;
    PinLink(const PinLink&) = delete;
    PinLink& operator=(const PinLink&) = delete;

    /// Takes over a pin; null does nothing.
    void hold(HandleObject* object);

    /// Gives the pin back, if there is one.
    void drop();

    HandleObject* object() const { return object_; }

    /// Copies the pinned objects of the calling thread, at most `room`; their number. Safe in a signal handler.
    static int pins_of_caller(HandleObject** objects, int room);

private:
    HandleObject* object_ = nullptr;
    PinLink* below_ = nullptr;
    static constinit thread_local PinLink* top_ __attribute__((tls_model("initial-exec")));
};

/// Pins an object for a scope.
template <class Object>
class Pinned {
public:
    Pinned(void* handle, HandleKind kind) { link_.hold(HandleTable::pin(handle, kind)); }
    Pinned(uint64_t socket, HandleKind kind) : Pinned(reinterpret_cast<void*>(socket), kind) {}
    ~Pinned() { link_.drop(); }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

    explicit operator bool() const { return link_.object() != nullptr; }
    Object* operator->() const { return static_cast<Object*>(link_.object()); }
    Object& operator*() const { return *operator->(); }

private:
    PinLink link_;
};

inline void* to_handle(int descriptor) { return reinterpret_cast<void*>(static_cast<uintptr_t>(descriptor)); }

} // namespace vel::os
