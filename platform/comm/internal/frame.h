// Wire form of a packet: encoding and the whole-frame check.  Shared by the
// platform libraries; not part of the packet-socket library's interface.
#pragma once
