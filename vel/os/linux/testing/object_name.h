// A name for objects between processes that no other test uses.
#pragma once

#include <string>
#include <unistd.h>
#include <vel/os/linux/named_object.h>

namespace vel::testing {

/// The files that stand for the name are removed at the end.
class ObjectName {
public:
    explicit ObjectName(std::string prefix = "test/") {
        static int count = 0;
        text_ = std::move(prefix) + std::to_string(::getpid()) + "/" + std::to_string(count++);
    }
    ~ObjectName() {
        for (const char* kind : {"mutex", "mapping", "gate"}) ::unlink(path(kind).c_str());
    }
    ObjectName(const ObjectName&) = delete;
    ObjectName& operator=(const ObjectName&) = delete;

    const char* c_str() const { return text_.c_str(); }
    std::string path(const char* kind) const { return os::named_object_path(kind, text_.c_str()); }

private:
    std::string text_;
};

} // namespace vel::testing
