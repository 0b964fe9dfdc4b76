// What the configuration tests share.
#pragma once

#include "config/configuration.h"

#include <gtest/gtest.h>

#include <string>

/// Runs the loader; what it wrote on stderr lands in `err`.
inline bool load_capturing_stderr(std::string& err)
{
    testing::internal::CaptureStderr();
    bool loaded = load_configuration();
    err = testing::internal::GetCapturedStderr();
    return loaded;
}
