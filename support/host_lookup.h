// The reverse look-up that ip2name asks, replaceable so that tests can name
// addresses by hand. Not part of the relay's interface.
#pragma once

#include <cstdint>

// Makes ip2name call lookup (true with the host name written into name,
// 256 bytes; false when it cannot be named) instead of the resolver;
// nullptr restores the resolver.
void ip2name_set_lookup(bool (*lookup)(std::uint32_t ipaddr, char *name));
