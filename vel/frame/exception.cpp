// The exception of the library.
#include <algorithm>
#include <cstring>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>

VEL_Exception::VEL_Exception(uint32_t code, const char* message) : code_(code) {
    uint64_t length;
    if (message) {
        length = std::min<uint64_t>(std::strlen(message), sizeof message_ - 1);
        std::memcpy(message_, message, length);
    } else {
        length = VELLib::GetErrorMsg(code, message_, sizeof message_);
    }
    std::fill(message_ + length, message_ + sizeof message_, '\0');
}

VEL_Exception::~VEL_Exception() = default;

void VEL_Exception::ThrowException(uint32_t code, const char* message) { throw VEL_Exception(code, message); }
