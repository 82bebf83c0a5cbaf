// Version record of an executable file.
#include <vel/platform/version.h>

#include <cstdio>
#include <vel/frame/exception.h>
#include <vel/os/version_record.h>
#include <vel/platform/report.h>

namespace {

std::string dotted(uint32_t high, uint32_t low) {
    char text[24];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF);
    return text;
}

} // namespace

VEL_Version::VEL_Version(const char* path) {
    if (extract(path) == 0) VEL_Exception::ThrowException(VELLib::GetErrorCode(), nullptr);
}

VEL_Version::~VEL_Version() = default;

int VEL_Version::extract(const char* path) {
    *this = VEL_Version();
    vel::os::VersionRecord record{};
    bool found = false;
    if (vel::report(vel::os::read_version_record(path, record, found)) != 0) return 0;
    if (!found) return 1;
    file_high_ = record.file_high;
    file_low_ = record.file_low;
    product_high_ = record.product_high;
    product_low_ = record.product_low;
    return 1;
}

std::string VEL_Version::fileVerStr() const { return dotted(file_high_, file_low_); }
std::string VEL_Version::productVerStr() const { return dotted(product_high_, product_low_); }
