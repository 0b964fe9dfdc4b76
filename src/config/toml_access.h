// Typed access to a parsed TOML tree that answers empty instead of throwing.
#pragma once

#include <cpptoml.h>

#include <memory>

/// The child of `table` under exactly `key` (no dotted paths), or empty.
std::shared_ptr<cpptoml::base> toml_table_get(const cpptoml::table& table, const char* key);
/// The child under `key` when `node` is a table, or empty.
std::shared_ptr<cpptoml::base> toml_table_get(const std::shared_ptr<cpptoml::base>& node,
                                              const char* key);
/// The characters of a string value node, or null for any other kind.  The
/// text stays owned by the node.  `node` must not be empty.
const char* toml_get_the_damn_string(const std::shared_ptr<cpptoml::base>& node);
/// The stored T of a value node of exactly type T, or null; no conversion.
/// `node` must not be empty.
template <typename T>
const T* toml_get_the_damn_value(const std::shared_ptr<cpptoml::base>& node)
{
    std::shared_ptr<cpptoml::base> self = node->shared_from_this();
    auto value = std::dynamic_pointer_cast<cpptoml::value<T>>(self);
    return value ? &value->get() : nullptr;
}
/// `node` as an array of values (not of tables), borrowed, or null.
cpptoml::array* toml_array_ref(const std::shared_ptr<cpptoml::base>& node);
