#!/usr/bin/python3
"""scapy as an independent IPv4/UDP peer for the codec tests.

  build   prints packets that scapy builds, one per line: hex, then fields
  check   takes hex packets as arguments; prints the fields scapy parses, then
          ok=II, one digit per checksum (IP, UDP): 1 when the checksum scapy
          recomputes matches the stored one
Fields: ihl len id frag ttl src dst sport dport ulen ipsum udpsum.
"""
import sys

from scapy.all import IP, UDP, raw


def fields(p):
    u = p[UDP]
    return "%d %d %d %d %d %s %s %d %d %d %d %d" % (
        p.ihl, p.len, p.id, (int(p.flags) << 13) | p.frag, p.ttl, p.src, p.dst,
        u.sport, u.dport, u.len, p.chksum, u.chksum)


CASES = [
    IP(src="192.168.1.7", dst="192.168.1.50", id=4660) / UDP(sport=5331, dport=5330)
    / b"hello, datalogger",
    IP(src="10.0.0.1", dst="10.0.0.2", id=1, flags="DF", ttl=255) / UDP(sport=6330, dport=6330)
    / bytes([0xC0, 0xDB, 0xDC, 0xDD, 0xC0, 0]),
    IP(src="127.0.0.1", dst="127.0.0.2", id=65535) / UDP(sport=1, dport=65535) / b"odd",
    IP(src="1.2.3.4", dst="5.6.7.8", id=0) / UDP(sport=53, dport=53),
    IP(src="172.16.0.9", dst="172.16.0.10", options=b"\x01\x01\x01\x00")
    / UDP(sport=4000, dport=4001) / bytes(range(40)),
    IP(src="192.0.2.1", dst="198.51.100.2") / UDP(sport=5330, dport=5331)
    / bytes((i * 7) & 0xFF for i in range(1024)),
]

if sys.argv[1] == "build":
    for pkt in CASES:
        print(raw(pkt).hex(), fields(IP(raw(pkt))))
else:
    for packet in sys.argv[2:]:
        got = IP(bytes.fromhex(packet))
        again = got.copy()
        del again.chksum, again[UDP].chksum
        fresh = IP(raw(again))
        print(fields(got), "ok=%d%d" % (fresh.chksum == got.chksum, fresh[UDP].chksum == got[UDP].chksum))
