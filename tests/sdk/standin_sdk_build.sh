#!/bin/bash
# standin_sdk_build.sh HOST_BUILD SDK_BUILD
#
# Builds the daemon and the tools with -DAPPLIANCE_SDK into SDK_BUILD, against
# a stand-in of the appliance's own libraries: the host implementation's
# libraries as built in HOST_BUILD, each with the wire form inside as the
# appliance's libraries have it, and their public headers without
# comm_socket_v4_host.h, which only the host implementation offers.  Exits 0
# when everything compiles and links, so that the <stem>_sdk.cpp variants
# keep building although no appliance is at hand.
set -eu
if [ $# -ne 2 ] || [ "$1" = --help ]; then
    sed -n '2,10s/^# \{0,1\}//p' "$0"
    [ "${1:-}" = --help ] && exit 0
    exit 2
fi
top=$(cd "$(dirname "$0")/../.." && pwd)
host=$(cd "$1" && pwd)
build=$2
sdk=$build/standin-sdk

rm -rf "$sdk"
mkdir -p "$sdk/include" "$sdk/lib"
for dir in comm mediaitem metadata util; do
    cp "$top/platform/$dir/include/"*.h "$sdk/include/"
done
rm "$sdk/include/comm_socket_v4_host.h"
for lib in kelu_utils_v4_comm q9mi metadata_v4 appliance_util; do
    printf 'CREATE %s\nADDLIB %s\nADDLIB %s\nSAVE\nEND\n' "$sdk/lib/lib$lib.a" \
        "$host/platform/lib$lib.a" "$host/platform/libkelu_comm_frame.a" | ar -M
done

cmake -S "$top" -B "$build" -DAPPLIANCE_SDK="$sdk" -DQ9_TESTS=OFF
cmake --build "$build" -j "$(nproc)"
