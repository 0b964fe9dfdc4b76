#include "config/toml_access.h"

#include <stdexcept>

std::shared_ptr<cpptoml::base> toml_table_get(const cpptoml::table& table, const char* key)
{
    // The library signals an absent key only by throwing; a missing key is
    // an ordinary answer here.
    try {
        return table.get(key);
    } catch (const std::out_of_range&) {
        return nullptr;
    }
}

std::shared_ptr<cpptoml::base> toml_table_get(const std::shared_ptr<cpptoml::base>& node,
                                              const char* key)
{
    if (!node || !node->is_table() || node->is_array() || node->is_table_array())
        return nullptr;
    return toml_table_get(*node->as_table(), key);
}

const char* toml_get_the_damn_string(const std::shared_ptr<cpptoml::base>& node)
{
    const std::string* text = toml_get_the_damn_value<std::string>(node);
    return text ? text->c_str() : nullptr;
}

cpptoml::array* toml_array_ref(const std::shared_ptr<cpptoml::base>& node)
{
    if (!node || node->is_table() || !node->is_array() || node->is_table_array())
        return nullptr;
    return node->as_array().get();
}
