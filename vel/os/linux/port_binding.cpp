// Association of handles with a completion port.
#include <vel/os/linux/port_binding.h>

namespace vel::os {

void PortBinding::detach() {}

} // namespace vel::os
