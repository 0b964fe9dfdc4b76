// Placeholder until the TOML access helpers land.
#include "config/toml_access.h"

std::shared_ptr<cpptoml::base> toml_table_get(const cpptoml::table&, const char*) { return {}; }
std::shared_ptr<cpptoml::base> toml_table_get(const std::shared_ptr<cpptoml::base>&, const char*) { return {}; }
const char* toml_get_the_damn_string(const std::shared_ptr<cpptoml::base>&) { return nullptr; }
cpptoml::array* toml_array_ref(const std::shared_ptr<cpptoml::base>&) { return nullptr; }
