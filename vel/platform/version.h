// Version record of an executable file.
#pragma once

#include <string>
#include <vel/types.h>

/// File and product version of an executable in the PE format.
///
/// Threads: one at a time.
/// Errors:  only the constructor with a path throws.
class VEL_API VEL_Version {
public:
    /// All values 0.
    VEL_Version() = default;

    /// `extract(path)`; throws VEL_Exception with the thread's error code when that returns 0.
    VEL_Version(const char* path);

    VEL_Version(const VEL_Version&) = default;
    VEL_Version& operator=(const VEL_Version&) = default;
    virtual ~VEL_Version();

    /// Clears the values and reads those of a file. A file without a version record succeeds with zeros, on purpose:
    /// programs ask about files of any kind.
    /// Returns 1, or 0 with the error code: 1813 when the record or what leads to it is malformed, else the code of
    /// opening or reading the file.
    int extract(const char* path);

    /// Two 16-bit numbers each, the higher-ranking one above.
    uint32_t fileVerHigh() const { return file_high_; }
    uint32_t fileVerLow() const { return file_low_; }
    uint32_t productVerHigh() const { return product_high_; }
    uint32_t productVerLow() const { return product_low_; }

    /// The four numbers with dots between them, such as "1.2.3.4".
    std::string fileVerStr() const;
    std::string productVerStr() const;

private:
    uint32_t file_high_ = 0;
    uint32_t file_low_ = 0;
    uint32_t product_high_ = 0;
    uint32_t product_low_ = 0;
};
