// An object for archives that is nothing but its fields.
#pragma once

#include <tuple>
#include <vel/buffers/archive.h>
#include <vel/buffers/serializable.h>

namespace vel::testing {

template <class... Fields>
class FieldsOf : public VEL_Serializable {
public:
    using VEL_Serializable::VEL_Serializable;
    int serialize(VEL_Archive& archive) const override {
        std::apply([&](const auto&... field) { (archive << ... << field); }, fields);
        return 0;
    }
    int deserialize(VEL_Archive& archive) override {
        std::apply([&](auto&... field) { (archive >> ... >> field); }, fields);
        return 0;
    }
    void calc_size(VEL_Archive& archive) const override {
        std::apply([&](const auto&... field) { ((archive += field), ...); }, fields);
    }

    std::tuple<Fields...> fields;
};

} // namespace vel::testing
