// Hook for debug traces.
#include <vel/frame/debug.h>

namespace VELLib {

int debug_output(const char*, int, const char*, ...) { return 0; }

} // namespace VELLib
