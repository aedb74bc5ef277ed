// The reverse look-up that ip2name asks, replaceable so that tests can name
// addresses by hand. Not part of the relay's interface.
#pragma once

#include <cstdint>

// A reverse look-up: true with the host name of the host-order address
// written into name (256 bytes), false when it cannot be named.
using Ip2nameLookup = bool (*)(std::uint32_t ipaddr, char *name);

// Makes ip2name call lookup instead of the resolver (nullptr restores the
// resolver); returns the look-up it replaced.
Ip2nameLookup ip2name_set_lookup(Ip2nameLookup lookup);
