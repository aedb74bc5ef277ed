#!/usr/bin/env python3
"""Writes the hand-made seed files of the fuzz corpora.

    tests/fuzz/make_seeds.py [CORPUS_DIR]      (default: corpus/ beside this file)

Packets and checksums are built here from first principles (RFC 791, 768,
1071, 1055), independently of the code under test. Seeds that a fuzzing
campaign added are kept as they are; this script only (re)writes the files
whose names start with "seed-".
"""
import os
import struct
import sys


def cksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s > 0xFFFF:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def ip_header(payload_len, src, dst, options=b"", ident=1, fix_sum=True):
    vl = 0x40 | (5 + len(options) // 4)
    hdr = struct.pack("!BBHHHBBH4s4s", vl, 0, 20 + len(options) + payload_len, ident, 0x4000,
                      255, 17, 0, bytes(src), bytes(dst)) + options
    if fix_sum:
        hdr = hdr[:10] + struct.pack("!H", cksum(hdr)) + hdr[12:]
    return hdr


def packet(payload, src=(10, 0, 0, 1), dst=(10, 0, 0, 2), sport=5330, dport=6330,
           options=b"", udp_sum="good", ip_sum_ok=True):
    """An IPv4/UDP packet; udp_sum is "good", "zero", "bad" or "ffff" (stored
    0xFFFF; the payload's last two bytes are chosen so the computed sum is 0)."""
    ulen = 8 + len(payload)
    if udp_sum == "ffff":
        head = payload[:-2]
        pseudo = bytes(src) + bytes(dst) + struct.pack("!BBH", 0, 17, ulen)
        s0 = pseudo + struct.pack("!HHHH", sport, dport, ulen, 0xFFFF) + head
        partial = 0xFFFF - (~cksum(s0) & 0xFFFF)
        payload = head + struct.pack("!H", partial)
    pseudo = bytes(src) + bytes(dst) + struct.pack("!BBH", 0, 17, ulen)
    udp = struct.pack("!HHHH", sport, dport, ulen, 0)
    good = cksum(pseudo + udp + payload) or 0xFFFF
    stored = {"good": good, "zero": 0, "bad": good ^ 0x0101, "ffff": 0xFFFF}[udp_sum]
    udp = udp[:6] + struct.pack("!H", stored)
    ip = ip_header(ulen, src, dst, options)
    if not ip_sum_ok:
        ip = ip[:10] + bytes([ip[10] ^ 0x10, ip[11]]) + ip[12:]
    return ip + udp + payload


def slip(pkt):
    body = pkt.replace(b"\xdb", b"\xdb\xdd").replace(b"\xc0", b"\xdb\xdc")
    return b"\xc0" + body + b"\xc0"


def slip_seeds():
    p = packet(b"hello q330")
    special = packet(bytes([0xC0, 0xDB, 0x41, 0xC0, 0xC0, 0xDB]) * 3)
    big = packet(bytes(range(256)) * 4)
    max_frame = packet(bytes((i * 7) & 0xFF for i in range(2048 - 28)))
    over = b"\xc0" + b"\x55" * 2049 + b"\xc0"
    return {
        "seed-one-packet": b"\x00" + slip(p),
        "seed-leading-ends-escapes": b"\x06" + b"\xc0\xc0\xc0" + slip(special)[1:],
        "seed-noise-then-packet": b"\x05" + b"line noise \x01\x02" + slip(p),
        "seed-bad-escape": b"\x01" + b"\xc0" + p[:10] + b"\xdb\x41" + p + b"\xc0",
        "seed-cut-payload": b"\x0e" + slip(big),
        "seed-short-and-bad-sums": b"\x06" + slip(p[:23]) + slip(packet(b"x" * 40, ip_sum_ok=False))
        + slip(packet(b"y" * 40, udp_sum="bad")) + slip(packet(b"z" * 40, udp_sum="zero")),
        "seed-ip-options": b"\x15" + slip(packet(b"after options", options=b"\x01\x01\x01\x00")),
        "seed-udp-sum-ffff": b"\x06" + slip(packet(b"computed sum zero!", udp_sum="ffff")),
        "seed-max-frame": b"\x04" + slip(max_frame),
        "seed-oversize-then-packet": b"\x01" + over + slip(p),
        "seed-unfinished": b"\x00" + slip(p) + slip(p)[:-5],
        "seed-esc-last": b"\x02" + slip(p) + b"\xc0\x45\xdb",
        "seed-trailing-bytes": b"\x05" + slip(p + b"\x12\x34"),
        "seed-empty-payload": b"\x04" + slip(packet(b"")),
    }


def codec_seeds():
    p = packet(b"payload bytes")
    opt = packet(b"with options", options=b"\x94\x04\x00\x00")
    full_opt = packet(b"forty option bytes", options=bytes(range(40)))
    return {
        "seed-udp-packet": p,
        "seed-ip-options": opt,
        "seed-ip-options-40": full_opt,
        "seed-19-bytes": p[:19],
        "seed-20-bytes-says-24": bytes([0x46]) + p[1:20],
        "seed-udp-sum-zero": packet(b"no sum", udp_sum="zero"),
        "seed-udp-sum-ffff": packet(b"computed sum zero!", udp_sum="ffff"),
        "seed-odd-length": packet(b"odd"),
        "seed-short-nibble": bytes([0x41]) + p[1:],
        "seed-ethernet": bytes.fromhex("ffffffffffff0200c0a80001 0800".replace(" ", "")) + p,
        "seed-long-payload": packet(bytes(range(256)) * 17),
    }


PF_SAMPLE = """# korvane parameter file
default {
    mode             slip
    device           /dev/ttyS1
    baud             19200
    flow             none
    q330_ip_address  192.168.1.50
    port_translations {
        5330   5330
        6330   6330
        10000  5330
    }
}
other {
    note   "keeps  blanks # and hashes"   # trailing comment
    mode   slip
    baud   115200
}
"""


def pf_seeds():
    return {
        "seed-korvane.pf": PF_SAMPLE.encode(),
        "seed-escapes.pf": b'default {\n  note "a \\" quote and \\\\ slash"\n  q "unterminated\n}\n',
        "seed-nesting.pf": b"default {\n a {\n  b {\n   c {\n    mode deep\n   }\n  }\n }\n}\n",
        "seed-unbalanced.pf": b"default {\n mode slip\n",
        "seed-close-without-open.pf": b"}\nmode slip\n",
        "seed-numbers.pf": b"default {\n baud 2147483647\n flow -2147483648\n mode 2147483648\n"
                           b" device +5\n x 0x10\n 5330 12abc\n note\n}\n",
        "seed-repeated.pf": b"default {\n mode a\n mode b\n}\ndefault {\n mode c\n}\n",
        "seed-crlf-utf8.pf": "default {\r\n  device /dev/ttyS1\r\n  note \u00e9t\u00e9\r\n}\r\n".encode(),
        "seed-block-vs-scalar.pf": b"default slip\nmode {\n}\nport_translations 5330\n",
        "seed-empty.pf": b"",
        "seed-brace-text.pf": b"default { x }\nname{\n\"quoted name\" 1\n{\n",
    }


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    for target, seeds in (("fuzz_slip_recv", slip_seeds()), ("fuzz_ip_codec", codec_seeds()),
                          ("fuzz_pf", pf_seeds())):
        d = os.path.join(root, target)
        os.makedirs(d, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(d, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
