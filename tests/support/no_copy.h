// The base of the support classes that own a process, a descriptor, a
// mapping or a thread: what they own is released once, so they are never
// copied.
#pragma once

namespace q9test {

/// Deletes copying for the class that derives from it.
class NoCopy {
public:
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;

protected:
    NoCopy() = default;
    ~NoCopy() = default;
};

}  // namespace q9test
