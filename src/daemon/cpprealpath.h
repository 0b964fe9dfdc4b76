// Resolved paths as strings; the empty string means there is none.
#pragma once

#include <string>

/// The canonical absolute path of `path`, or "".
std::string cpp_realpath(const char* path);
/// The canonical absolute path of `path`, or "".
std::string cpp_realpath(const std::string& path);
/// What the open descriptor `fd` refers to (the kernel's link text), or "".
std::string procfs_fd_realpath(int fd);
