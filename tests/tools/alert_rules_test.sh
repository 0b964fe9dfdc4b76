#!/bin/bash
# alert_rules_test.sh RULES TESTS
#
# Lets promtool check the shipped alert rules, then runs its unit tests of
# them (TESTS names the rules file by its place in the source tree).
# Skipped (77) where promtool is missing.
set -eu
rules=$1
tests=$2
command -v promtool >/dev/null || { echo "promtool not available (Debian package prometheus)"; exit 77; }
promtool check rules "$rules"
promtool test rules "$tests"
