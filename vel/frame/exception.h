// The exception of the library: an error code and its message.
#pragma once

#include <vel/types.h>

/// What deep failures raise; public operations catch it, store its code with the thread and return -1.
///
/// It reaches the application from constructors that cannot create what they stand for, from accessors of a missing
/// handle and from the stream operators of the element and message streams.
/// Limits:    the message is a NUL-terminated UTF-8 text of at most 511 bytes.
class VEL_API VEL_Exception {
public:
    /// @param message  text to keep, its first 511 bytes; null takes the message of the code
    VEL_Exception(uint32_t code, const char* message = nullptr);
    VEL_Exception(const VEL_Exception&) = default;
    VEL_Exception& operator=(const VEL_Exception&) = default;
    virtual ~VEL_Exception();

    uint32_t GetErrorCode() const { return code_; }

    /// The message; lives as long as this object.
    const char* GetErrorMsg() const { return message_; }

    /// Throws a VEL_Exception by value.
    [[noreturn]] static void ThrowException(uint32_t code, const char* message = nullptr);

private:
    char message_[512];
    uint32_t code_;
};
