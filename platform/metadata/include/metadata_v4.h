// Metadata library of the appliance (metadata_v4_*), host build.
#pragma once

/// Writes into `out` (at most `capacity` bytes, NUL-terminated) the metadata
/// directory of `path`; on this host that is the path itself.  0, or -1 with
/// `out` set to the empty string when it does not fit.
int metadata_v4_file_to_metadir(char* out, unsigned long capacity, const char* path);
