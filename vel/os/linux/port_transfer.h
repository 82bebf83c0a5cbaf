// Moving the bytes of one socket request.
#pragma once

#include <vel/os/linux/port_binding.h>

namespace vel::os {

/// One attempt at a request under the direction's lock. True when it is finished, with its `error`. Otherwise the
/// direction is dry, or it is still ready and the request has had its turn.
bool perform(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error);

bool perform_accept(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error);
bool perform_connect(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error);

} // namespace vel::os
