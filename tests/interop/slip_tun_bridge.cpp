// slip_tun_bridge TUN_NAME PCAP_FILE
//
// Puts the Linux IP stack at the far end of a serial line: SLIP frames that
// arrive on the master side of a new pseudo-terminal are unescaped and
// written to a TUN device, and every packet read from that device goes back
// as a SLIP frame. It only frames (RFC 1055): headers are neither checked
// nor fixed, so whatever the relay puts on the line is judged by the kernel.
// Every packet that crosses is recorded in PCAP_FILE (raw IPv4 link type).
// Prints the slave path on standard output once the device is attached, and
// runs until it is killed.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr unsigned char kEnd = 0xC0;
constexpr unsigned char kEsc = 0xDB;
constexpr unsigned char kEscEnd = 0xDC;
constexpr unsigned char kEscEsc = 0xDD;
constexpr size_t kMaxPacket = 65535;

[[noreturn]] void die(const char *what) {
    std::fprintf(stderr, "slip_tun_bridge: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

void put32(std::FILE *f, std::uint32_t v) { std::fwrite(&v, sizeof v, 1, f); }

// A pcap file in this host's byte order, microsecond stamps, link type 101.
std::FILE *pcap_open(const char *path) {
    std::FILE *f = std::fopen(path, "wb");
    if (!f) die("fopen");
    const std::uint16_t version[2] = {2, 4};
    put32(f, 0xa1b2c3d4);
    std::fwrite(version, sizeof version, 1, f);
    for (std::uint32_t v : {0u, 0u, 65535u, 101u}) put32(f, v);
    std::fflush(f);
    return f;
}

// Flushed per packet: the bridge ends by a signal, and the test reads the
// file while it still runs.
void pcap_record(std::FILE *f, const unsigned char *packet, size_t n) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    put32(f, static_cast<std::uint32_t>(tv.tv_sec));
    put32(f, static_cast<std::uint32_t>(tv.tv_usec));
    put32(f, static_cast<std::uint32_t>(n));
    put32(f, static_cast<std::uint32_t>(n));
    std::fwrite(packet, 1, n, f);
    std::fflush(f);
}

int tun_open(const char *name) {
    int fd = open("/dev/net/tun", O_RDWR);
    if (fd < 0) die("open /dev/net/tun");
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    if (ioctl(fd, TUNSETIFF, &ifr) < 0) die("TUNSETIFF");
    return fd;
}

// Opens a pseudo-terminal and keeps its slave open, so that the master never
// sees a hang-up while the relay closes and re-opens the line. The slave is
// made raw at once: bytes written before the relay opens it must not be
// echoed or edited.
int pty_open(std::string *slave_path) {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) < 0 || unlockpt(master) < 0) die("posix_openpt");
    *slave_path = ptsname(master);
    int slave = open(slave_path->c_str(), O_RDWR | O_NOCTTY);
    if (slave < 0) die("open slave");
    struct termios t;
    if (tcgetattr(slave, &t) < 0) die("tcgetattr");
    cfmakeraw(&t);
    if (tcsetattr(slave, TCSANOW, &t) < 0) die("tcsetattr");
    return master;
}

void write_all(int fd, const unsigned char *p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) die("write line");
        p += w;
        n -= static_cast<size_t>(w);
    }
}

// One frame being unescaped, a byte at a time.
struct Decoder {
    std::vector<unsigned char> frame;
    bool escaped = false;
};

// Feeds one line byte; true when it completes a non-empty frame. An unknown
// escape passes its byte through (RFC 1055), and an oversized frame is
// dropped: neither is for this bridge to judge.
bool feed(Decoder *d, unsigned char b) {
    if (d->escaped) {
        d->escaped = false;
        if (b == kEscEnd) b = kEnd;
        else if (b == kEscEsc) b = kEsc;
    } else if (b == kEsc) {
        d->escaped = true;
        return false;
    } else if (b == kEnd) {
        return !d->frame.empty();
    }
    if (d->frame.size() == kMaxPacket) d->frame.clear();
    d->frame.push_back(b);
    return false;
}

// Line to kernel. A TUN write refuses what is not IP at all (line noise);
// that is reported and the bridge goes on.
void from_line(int master, int tun, std::FILE *pcap, Decoder *d) {
    unsigned char buf[4096];
    ssize_t n = read(master, buf, sizeof buf);
    if (n < 0 && errno == EINTR) return;
    if (n <= 0) die("read line");
    for (ssize_t i = 0; i < n; i++) {
        if (!feed(d, buf[i])) continue;
        pcap_record(pcap, d->frame.data(), d->frame.size());
        if (write(tun, d->frame.data(), d->frame.size()) < 0)
            std::fprintf(stderr, "slip_tun_bridge: TUN refused a %zu-byte frame: %s\n", d->frame.size(),
                         std::strerror(errno));
        d->frame.clear();
    }
}

// Kernel to line: END, the escaped packet, END.
void from_tun(int tun, int master, std::FILE *pcap) {
    static unsigned char packet[kMaxPacket];
    static unsigned char frame[2 * kMaxPacket + 2];
    ssize_t n = read(tun, packet, sizeof packet);
    if (n < 0 && errno == EINTR) return;
    if (n <= 0) die("read TUN");
    pcap_record(pcap, packet, static_cast<size_t>(n));
    size_t len = 0;
    frame[len++] = kEnd;
    for (ssize_t i = 0; i < n; i++) {
        unsigned char b = packet[i];
        if (b == kEnd || b == kEsc) {
            frame[len++] = kEsc;
            b = b == kEnd ? kEscEnd : kEscEsc;
        }
        frame[len++] = b;
    }
    frame[len++] = kEnd;
    write_all(master, frame, len);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: slip_tun_bridge TUN_NAME PCAP_FILE\n");
        return 2;
    }
    std::FILE *pcap = pcap_open(argv[2]);
    int tun = tun_open(argv[1]);
    std::string slave_path;
    int master = pty_open(&slave_path);
    std::printf("%s\n", slave_path.c_str());
    std::fflush(stdout);
    Decoder dec;
    for (;;) {
        struct pollfd p[2] = {{master, POLLIN, 0}, {tun, POLLIN, 0}};
        if (poll(p, 2, -1) < 0) {
            if (errno == EINTR) continue;
            die("poll");
        }
        if (p[0].revents) from_line(master, tun, pcap, &dec);
        if (p[1].revents) from_tun(tun, master, pcap);
    }
}
