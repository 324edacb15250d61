// Enumeration members as dictionary keys. Maps from the library become dicts
// keyed by the registered members themselves (`OrreryActuator.OCP_Items.POS_FB_41`
// is the very key object), built without a lookup per entry.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <cstdint>
#include <type_traits>
#include <unordered_map>

namespace ocp_api::python {

namespace py = pybind11;

// The registered member objects of a one-byte enumeration, by value. They are
// kept for the life of the process, like the enumeration type itself.
template <class Enum>
std::array<PyObject*, 256>& members_by_value() {
    static_assert(sizeof(Enum) == 1, "only one-byte enumerations are cached");
    static std::array<PyObject*, 256> members{};
    return members;
}

template <class Enum>
void remember_members(const py::handle& enum_type) {
    for (const auto& entry : py::reinterpret_borrow<py::dict>(enum_type.attr("__members__"))) {
        const auto value = entry.second.cast<Enum>();
        members_by_value<Enum>()[static_cast<uint8_t>(value)] = py::reinterpret_borrow<py::object>(entry.second).release().ptr();
    }
}

template <class Enum>
py::object member_of(Enum value) {
    if (PyObject* member = members_by_value<Enum>()[static_cast<uint8_t>(value)]) {
        return py::reinterpret_borrow<py::object>(member);
    }
    return py::cast(value);  // a code without a name
}

template <class Enum>
py::dict to_dict(const std::unordered_map<Enum, float>& map) {
    py::dict dict;
    for (const auto& [key, value] : map) {
        const py::object member = member_of(key);
        const py::float_ number(value);
        PyDict_SetItem(dict.ptr(), member.ptr(), number.ptr());
    }
    return dict;
}

}  // namespace ocp_api::python
