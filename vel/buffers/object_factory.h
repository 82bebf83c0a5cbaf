// Maker of the objects that an archive reads.
#pragma once

#include <vel/types.h>

class VEL_Serializable;

/// Makes an empty object of the kind that a message names; applications derive from it.
///
/// Threads:   called on the thread that runs the archive.
class VEL_API VEL_Object_Factory {
public:
    virtual ~VEL_Object_Factory();

    /// A new object of that kind, owned by the caller, or null for a kind that is not known.
    /// The base sets 0x20000003 and returns null.
    virtual VEL_Serializable* create_stream(uint16_t stype, uint16_t sid) const;
};
