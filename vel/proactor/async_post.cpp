// The operation that carries a posted message to its handler.
#include <vel/proactor/async_post.h>

#include <vel/proactor/async_handler.h>
#include <vel/proactor/record_pool.h>

namespace {

constinit vel::RecordPool pool(sizeof(VEL_Async_Post_Operation)); // of records of this very class, not of derived ones

void* take(size_t size) { return size == sizeof(VEL_Async_Post_Operation) ? pool.take() : nullptr; }

} // namespace

void* VEL_Async_Post_Operation::operator new(size_t size) {
    void* memory = take(size);
    return memory != nullptr ? memory : ::operator new(size);
}

void* VEL_Async_Post_Operation::operator new(size_t size, const std::nothrow_t&) noexcept {
    void* memory = take(size);
    return memory != nullptr ? memory : ::operator new(size, std::nothrow);
}

void VEL_Async_Post_Operation::operator delete(void* memory, size_t size) {
    if (size != sizeof(VEL_Async_Post_Operation) || !pool.give_back(memory)) ::operator delete(memory);
}

VEL_Async_Post_Operation::VEL_Async_Post_Operation() : VEL_Async_Operation(5) {}

VEL_Async_Post_Operation::VEL_Async_Post_Operation(VEL_Proactor* proactor, uint32_t completion_key,
                                                   VEL_Async_Handler* handler, const VEL_Message_Block& message)
    : VEL_Async_Operation(proactor, completion_key, VEL_INVALID_HANDLE, handler, 5),
      message_(message) {}

VEL_Async_Post_Operation::~VEL_Async_Post_Operation() = default;

int VEL_Async_Post_Operation::completion() { return get_handler()->handle_signal(this); }
