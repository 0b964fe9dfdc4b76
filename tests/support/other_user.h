// Work done as a user other than root: a child process that gives up root
// before it starts, as a local program of another user reaches the daemon.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace q9test {

/// The user that tests take when they need one that is not root: nobody.
constexpr uid_t other_uid = 65534;

/// Whether `uid` exists in this process's user namespace.  Outside a user
/// namespace every uid does; the sandbox's own namespace, made when the
/// tests do not run as root, maps root alone.
bool uid_is_mapped(uid_t uid);

/// Runs `work` in a child process whose user and group ids (real,
/// effective and saved) are `uid`, with no supplementary groups, and
/// returns what `work` returned; a text beginning "cannot become uid" when
/// the child could not give up root.
std::string as_user(uid_t uid, const std::function<std::string()>& work);

}  // namespace q9test
