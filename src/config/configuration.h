// The daemon's one configuration source: event sections of a TOML file.
#pragma once

#include <cpptoml.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

/// Fixed location of the configuration file.
extern const char* const default_configuration_path;
/// Path that load_configuration() reads; nothing changes it after start.
extern std::string configuration_path;

/// One event section: a path to watch, a path of assets, a target channel.
class ConfigurationEntry {
public:
    std::string name;            ///< section name, also its key in `configuration`
    std::string watch_path;      ///< "watch path"
    std::string asset_path;      ///< "asset path"
    int64_t target_channel = -1; ///< "target channel"

    /// True when name and both paths are non-empty and the channel is above 0.
    bool is_valid() const;
    /// Writes the four report lines ("Entry '...'", Watch, Assets, Channel)
    /// to `out`, or to stderr when `out` is null.
    void stderr_report(FILE* out = nullptr) const;
};

/// Valid event sections by name, byte-wise ordered.
extern std::map<std::string, ConfigurationEntry> configuration;

/// Reads `configuration_path` and adds its valid sections to
/// `configuration` (which the caller empties before a reload), then puts
/// the settings of its [daemon] table in force.  False when the file cannot
/// be examined, cannot be parsed or yields no document; the settings in
/// force then stay.
bool load_configuration();

/// Builds one entry from one TOML table and keeps it when it is valid; the
/// first section of a name wins, later ones draw a duplicate warning.
void add_event_table(const std::string& name, const std::shared_ptr<cpptoml::table>& table);
