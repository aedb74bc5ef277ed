// Time, host-name look-ups and the signal dispositions set at start-up.
#pragma once

#include <cstdint>

// The current time: seconds since the epoch, microsecond resolution.
double std_now(void);

// Resolves a host name or dotted quad. 0: *ipaddr holds the first IPv4
// address in network byte order and ipc (>= 16 bytes) its dotted text;
// -1: *ipaddr is all ones and ipc is empty. Serialised by a private mutex.
int name2ip(const char *name, std::uint32_t *ipaddr, char *ipc);
// Names a host-order IPv4 address into name (>= 256 bytes). 0 when the
// resolver named it; -1 when it could not be named (name gets the dotted
// text, complained about once per address) or came from that failure cache.
// The look-up holds no lock, so callers are never held up by each other's.
int ip2name(std::uint32_t ipaddr, char *name);
// Addresses ip2name's failure cache keeps; beyond this it forgets the oldest.
#define IP2NAME_FAILURES_MAX 256

// SIGPIPE ignored (SA_RESTART, empty mask); fatal on failure; returns 0.
int ignoreSIGPIPE(void);
// SIGALRM ignored the same way; fatal on failure; returns 0.
int ignoreSIGALRM(void);
