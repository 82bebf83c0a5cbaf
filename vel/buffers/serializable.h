// Base of the objects that travel in an archive.
#pragma once

#include <vel/types.h>

class VEL_Archive;
class VEL_Object_Factory;

/// An object that writes itself to a VEL_Archive and reads itself back; stype and sid name its kind on the wire.
///
/// Threads:   the application's affair; the library calls the operations on the thread that runs the archive.
/// Errors:    a negative result or a thrown VEL_Exception fails the archive's call.
///
///     int serialize(VEL_Archive& archive) const override { archive << id_ << name_; return 0; }
///     int deserialize(VEL_Archive& archive) override { archive >> id_ >> name_; return 0; }
///     void calc_size(VEL_Archive& archive) const override { archive += id_; archive += name_; }
class VEL_API VEL_Serializable {
public:
    VEL_Serializable() = default;
    VEL_Serializable(uint16_t stype, uint16_t sid) : stype_(stype), sid_(sid) {}

    virtual ~VEL_Serializable();

    /// Writes the members with operator<< or set_element. Negative for failure; the base writes nothing and returns 0.
    virtual int serialize(VEL_Archive& archive) const;

    /// Reads the members back with operator>> or get_element. Negative for failure; the base returns 0.
    virtual int deserialize(VEL_Archive& archive);

    /// Adds the encoded size of every member with operator+=, exactly: a message block that comes out larger or smaller
    /// is refused. The base adds nothing.
    virtual void calc_size(VEL_Archive& archive) const;

    uint16_t get_stype() const { return stype_; }
    uint16_t get_sid() const { return sid_; }

    /// A copy made by serializing and deserializing; the caller owns it. Null on any failure, with the thread's code.
    VEL_Serializable* clone(const VEL_Object_Factory& factory) const;

private:
    uint16_t stype_ = 0;
    uint16_t sid_ = 0;
};
