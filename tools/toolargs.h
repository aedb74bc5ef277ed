// Command-line helpers shared by the tools (dlsim, dlping): strict number
// parsing and host:port texts. Header-only, so that tools/ stays one .cpp per
// program.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace toolargs {

// A whole decimal integer in [lo, hi]; false on anything else (trailing text too).
inline bool parse_long(const char *text, long lo, long hi, long *value) {
    if (!text || !*text) return false;
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *value = v;
    return true;
}

// A decimal number in [lo, hi] (fractions allowed); false on anything else.
inline bool parse_double(const char *text, double lo, double hi, double *value) {
    if (!text || !*text) return false;
    char *end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (errno != 0 || *end != '\0' || !(v >= lo && v <= hi)) return false;
    *value = v;
    return true;
}

// Resolves "host:port" (a name or a dotted quad, IPv4 only) to a socket address.
inline bool parse_hostport(const char *text, sockaddr_in *addr) {
    std::string s(text ? text : "");
    size_t colon = s.rfind(':');
    long port = 0;
    if (colon == std::string::npos || colon == 0) return false;
    if (!parse_long(s.c_str() + colon + 1, 0, 65535, &port)) return false;
    std::string host = s.substr(0, colon);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return false;
    std::memcpy(addr, res->ai_addr, sizeof *addr);
    freeaddrinfo(res);
    addr->sin_port = htons(static_cast<std::uint16_t>(port));
    return true;
}

// "a.b.c.d:port" of a socket address.
inline std::string addr_text(const sockaddr_in &addr) {
    char ip[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(ntohs(addr.sin_port));
}

}  // namespace toolargs
