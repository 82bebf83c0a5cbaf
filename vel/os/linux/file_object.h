// What a file handle stands for.
#pragma once

#include <vel/os/linux/byte_lock.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/port_binding.h>

namespace vel::os {

class FileObject : public HandleObject {
public:
    FileObject(bool writable, bool delete_on_close) : writable_(writable), delete_on_close_(delete_on_close) {}
    ~FileObject() override;

    /// Lets the port drop the file first, then ends the waits for byte ranges.
    void detach() override {
        port_->detach();
        locks_.close(descriptor());
    }

    void abandon(uint32_t thread_id) override { locks_.abandon(descriptor(), thread_id); }

    PortBinding* port_binding() override { return port_.get(); }

    ByteLocks& locks() { return locks_; }
    bool writable() const { return writable_; }

private:
    ByteLocks locks_;
    const PortBinding::Owner port_ = PortBinding::make(false);
    const bool writable_;
    const bool delete_on_close_;
};

} // namespace vel::os
