// Composition root: the order in which the library starts and stops. The only file that knows every subsystem.
#include <vel/library.h>
