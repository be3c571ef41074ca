// klSocketKeepAlive: how a TCP connection notices a peer that is gone without a word (powered off,
// frozen kernel, cable or route cut): keep-alive probes while the connection is quiet, and a limit
// on how long sent data may stay unacknowledged.
//
// The default is the library's own keep-alive (klSocketLink::setKeepAlive()): probes after 120 s
// of quiet, one a second, the system's probe count and no limit on unacknowledged data. Programs
// whose users wait on a connection choose values of their own, such as deadPeerWithin15s().
//
// A value type.
#pragma once

struct klSocketKeepAlive {
    // Quiet seconds before the first probe (TCP_KEEPIDLE).
    int idleSeconds = 120;
    // Seconds between probes (TCP_KEEPINTVL).
    int intervalSeconds = 1;
    // Unanswered probes after which the connection is dropped (TCP_KEEPCNT); 0: the system's.
    int probes = 0;
    // Most milliseconds sent data may stay unacknowledged before the connection is dropped
    // (TCP_USER_TIMEOUT; it also bounds the probing); 0: the system's (retransmissions for
    // about 15 minutes).
    int userTimeoutMs = 0;

    // A peer gone is noticed within about 15 s: first probe after 5 s of quiet, then every 2 s,
    // dropped after 4 unanswered probes (13 s); data unacknowledged for 12 s also drops it. A
    // blocked receive or send then fails with the system's "Connection timed out".
    static constexpr klSocketKeepAlive deadPeerWithin15s() { return {5, 2, 4, 12000}; }
};
