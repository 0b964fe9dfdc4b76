# shellcheck shell=bash
# tests/support/checks.sh: sourced by the shell tests that print one line
# per check, "ok: WHAT" or "FAIL: WHAT", and end with the counts.
passes=0
failures=0

# check WHAT COMMAND...: runs COMMAND and reports WHAT by its exit status.
check() {
    local what=$1
    shift
    if "$@"; then
        echo "ok: $what"
        passes=$((passes + 1))
    else
        echo "FAIL: $what"
        failures=$((failures + 1))
    fi
}
