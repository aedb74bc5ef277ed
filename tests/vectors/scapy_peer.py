#!/usr/bin/python3
"""An independent IPv4/UDP peer for the codec tests, built on scapy.

  scapy_peer.py build   prints packets that scapy builds, one per line:
                        name hex ip_chksum udp_chksum and the header fields
  scapy_peer.py check   reads hex packets from stdin, one per line, and prints
                        for each what scapy parses and whether the checksums
                        it recomputes match the ones stored

Every line is blank-separated "key=value" words so the C++ side needs no
parser beyond splitting. Checksums are printed as wire-order numbers.
"""
import sys

from scapy.all import IP, UDP, raw  # noqa: E402


def fields(pkt):
    ip, udp = pkt[IP], pkt[UDP]
    return ("ihl=%d len=%d id=%d flags_frag=%d ttl=%d proto=%d ip_chksum=%d "
            "src=%s dst=%s sport=%d dport=%d ulen=%d udp_chksum=%d" % (
                ip.ihl, ip.len, ip.id, (int(ip.flags) << 13) | ip.frag, ip.ttl,
                ip.proto, ip.chksum, ip.src, ip.dst, udp.sport, udp.dport,
                udp.len, udp.chksum))


def cases():
    yield "plain", IP(src="192.168.1.7", dst="192.168.1.50", id=4660, ttl=64) / \
        UDP(sport=5331, dport=5330) / b"hello, datalogger"
    yield "escapes", IP(src="10.0.0.1", dst="10.0.0.2", id=1, flags="DF", ttl=255) / \
        UDP(sport=6330, dport=6330) / bytes([0xC0, 0xDB, 0xDC, 0xDD, 0xC0, 0x00])
    yield "odd", IP(src="127.0.0.1", dst="127.0.0.2", id=65535) / \
        UDP(sport=1, dport=65535) / b"odd"
    yield "empty", IP(src="1.2.3.4", dst="5.6.7.8", id=0) / UDP(sport=53, dport=53)
    yield "options", IP(src="172.16.0.9", dst="172.16.0.10", id=77,
                        options=b"\x01\x01\x01\x00") / UDP(sport=4000, dport=4001) / \
        bytes(range(40))
    yield "big", IP(src="192.0.2.1", dst="198.51.100.2", id=999) / \
        UDP(sport=5330, dport=5331) / bytes((i * 7) & 0xFF for i in range(1024))


def build():
    for name, pkt in cases():
        data = raw(pkt)
        print("name=%s hex=%s %s" % (name, data.hex(), fields(IP(data))))


def check():
    for line in sys.stdin:
        line = line.strip()
        if not line:
            continue
        data = bytes.fromhex(line)
        got = IP(data)
        again = got.copy()
        del again[IP].chksum
        del again[UDP].chksum
        fresh = IP(raw(again))
        ip_ok = int(fresh[IP].chksum == got[IP].chksum)
        udp_ok = int(fresh[UDP].chksum == got[UDP].chksum)
        print("%s ip_ok=%d udp_ok=%d" % (fields(got), ip_ok, udp_ok))


if __name__ == "__main__":
    {"build": build, "check": check}[sys.argv[1]]()
