// Defaults of the serializable objects and of the factory.
#include <vel/buffers/serializable.h>

#include <vel/buffers/object_factory.h>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>

VEL_Serializable::~VEL_Serializable() = default;

int VEL_Serializable::serialize(VEL_Archive&) const { return 0; }

int VEL_Serializable::deserialize(VEL_Archive&) { return 0; }

void VEL_Serializable::calc_size(VEL_Archive&) const {}

VEL_Object_Factory::~VEL_Object_Factory() = default;

VEL_Serializable* VEL_Object_Factory::create_stream(uint16_t, uint16_t) const {
    VELLib::SetErrorCode(vel::error::not_implemented);
    return nullptr;
}
