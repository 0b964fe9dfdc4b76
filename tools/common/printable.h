// Texts from a peer shown on one line of a terminal or a log.
#pragma once

#include <string>

/// The byte itself when it is visible or a space, else "\xNN" (lower-case
/// hex), so that no byte of a shown text breaks or hides its line.
std::string printable_byte(unsigned char c);
/// `text` with every byte through printable_byte().
std::string printable(const std::string& text);
