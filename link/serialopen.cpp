// Opening the stream of a link: a raw serial line, a TCP client connection,
// or a TCP listening socket (the connection itself is accepted on connect).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "support/host.h"

// A path or host for a message; "(null)" when the link was given none.
static const char *shown(const char *text) { return text ? text : "(null)"; }

// ---- Serial device ----

// The terminal speed code for one of the eight supported rates; B0 otherwise.
static speed_t speed_code(int baud) {
    switch (baud) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return B0;
    }
}

// A mode word as the old 16-bit termio request writes it: the upper half
// stays as read from the device, the lower half takes the new value.
static tcflag_t low_half(tcflag_t as_read, unsigned long value) {
    return (as_read & ~static_cast<tcflag_t>(0xffff)) | static_cast<tcflag_t>(value & 0xffff);
}

// Closes the device after a failed configuration step; -1.
static int close_device(SerialBuf *buf) {
    close(buf->fd);
    buf->fd = -1;
    return -1;
}

// Makes the line raw, 8 bits, at the link's speed. The settings are merged
// the way the legacy 16-bit TCGETA/TCSETAW requests merge them: only the low
// 16 bits of each mode word change. That drops CRTSCTS (bit 31) from what is
// written, so opening never switches hardware flow control: the device keeps
// the RTS/CTS setting it had, whatever `flow` asks. Fielded lines depend on
// that, so it is kept on purpose. tcgetattr/tcsetattr are used instead of the
// legacy requests because qemu-user does not translate those.
static int configure_line(SerialBuf *buf) {
    struct termios t;
    if (tcgetattr(buf->fd, &t) != 0) {
        elog_log(1, "serialbuf_open: ioctl('%s') TCGETA error.\n", shown(buf->dev));
        return close_device(buf);
    }
    speed_t speed = speed_code(buf->baud);
    if (speed == B0) {
        elog_log(0, "serialbuf_open: invalid baudrate %d\n", buf->baud);
        return close_device(buf);
    }
    unsigned long cflag = CS8 | CREAD;
    if (buf->flow == 1) cflag |= CRTSCTS;  // lost in low_half, see above
    if (buf->modem_control != 2) cflag |= CLOCAL;  // a modem with lines must see carrier
    t.c_iflag = low_half(t.c_iflag, IGNBRK);
    t.c_oflag = low_half(t.c_oflag, 0);
    t.c_cflag = low_half(t.c_cflag, cflag);
    t.c_lflag = low_half(t.c_lflag, NOFLSH);
    // A read returns what has arrived, or nothing after a tenth of a second.
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 1;
    // The speed goes in through the library, never as bits of the control
    // word: newer C libraries define B19200 as 19200, which or-ed into the
    // word would switch parity on.
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
    if (tcsetattr(buf->fd, TCSADRAIN, &t) != 0) {
        elog_log(1, "serialbuf_open: ioctl('%s') TCSETAW error.\n", shown(buf->dev));
        return close_device(buf);
    }
    return 0;
}

// Opens the device read-write; -1 (errno set) when the link has no path or
// the open fails. O_NOCTTY: a relay that leads its session (as under systemd)
// must not get the line as its controlling terminal, or a hang-up of the line
// would end it by SIGHUP before its reader could report anything. O_NONBLOCK
// only for the open itself, so that a line whose saved settings lack CLOCAL
// does not hold the open until carrier comes; reads block as before.
static int open_device(const char *dev) {
    if (!dev) {
        errno = ENOENT;
        return -1;
    }
    int fd = open(dev, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return -1;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

// Opens the device into fd; -1, with its message, when that fails.
static int open_logged(SerialBuf *buf) {
    buf->fd = open_device(buf->dev);
    if (buf->fd >= 0) return 0;
    elog_log(1, "serialbuf_open: open('%s') error.\n", shown(buf->dev));
    return -1;
}

static int open_serial(SerialBuf *buf) {
    buf->state = 1;
    if (buf->fd >= 0) close(buf->fd);
    if (open_logged(buf) < 0) return -1;
    if (buf->modem_control == 2) serialbuf_hangup(buf->fd);
    // Re-opened after the hang-up so that the modem lines come up afresh; the
    // one-microsecond sleep only yields the processor.
    close(buf->fd);
    serialbuf_usleep(1);
    if (open_logged(buf) < 0) return -1;
    if (configure_line(buf) < 0) return -1;
    buf->state = 2;
    return 0;
}

// ---- TCP client ----

static int open_tcpclient(SerialBuf *buf) {
    buf->state = 1;
    if (buf->fd >= 0) close(buf->fd);
    // Forget the closed number at once: a later open would otherwise close it
    // again, and by then it may belong to another part of the program.
    buf->fd = -1;
    std::uint32_t addr = 0;
    char dotted[64];
    errno = 0;  // the look-up need not set it: no stale error text in the message
    if (!buf->ipaddr || name2ip(buf->ipaddr, &addr, dotted) != 0) {
        elog_log(1, "serialbuf_open: Can't locate server by name of '%s'\n", shown(buf->ipaddr));
        return -1;
    }
    buf->fd = socket(AF_INET, SOCK_STREAM, 0);
    if (buf->fd < 0) {
        elog_log(1, "serialbuf_open: Can't open stream socket\n");
        return -1;
    }
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<std::uint16_t>(buf->port & 0xffff));
    sa.sin_addr.s_addr = addr;  // already in network order
    if (connect(buf->fd, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) != 0) {
        elog_log(1, "serialbuf_open: Can't connect to server\n");
        close(buf->fd);
        buf->fd = -1;
        return -1;
    }
    buf->state = 2;
    return 0;
}

// ---- TCP server ----

// Logs a failed listening-socket step and closes the socket; -1.
static int server_failed(SerialBuf *buf, const char *message) {
    elog_log(1, "%s", message);
    close(buf->fdserver);
    buf->fdserver = -1;
    return -1;
}

static int open_tcpserver(SerialBuf *buf) {
    buf->state = 1;
    if (buf->fdserver >= 0) close(buf->fdserver);
    buf->fdserver = socket(AF_INET, SOCK_STREAM, 0);
    if (buf->fdserver < 0) {
        elog_log(1, "serialbuf_open: Can't open stream socket\n");
        return -1;
    }
    int one = 1;
    if (setsockopt(buf->fdserver, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0)
        return server_failed(buf, "serialbuf_open: setsockopt(SO_REUSEADDR) error.\n");
    if (setsockopt(buf->fdserver, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) != 0)
        return server_failed(buf, "serialbuf_open: setsockopt(SO_KEEPALIVE) error.\n");
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<std::uint16_t>(buf->port & 0xffff));
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(buf->fdserver, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) != 0)
        return server_failed(buf, "serialbuf_open: bind() error.\n");
    if (listen(buf->fdserver, 1) != 0)
        return server_failed(buf, "serialbuf_open: listen() error.\n");
    buf->state = 2;
    return 0;
}

int serialbuf_open(SerialBuf *buf) {
    switch (buf->com_mode) {
    case 1: return open_serial(buf);
    case 2: return open_tcpclient(buf);
    case 3: return open_tcpserver(buf);
    default:
        elog_log(0, "serialbuf_open: Illegal com_mode value '%d'.\n", buf->com_mode);
        return -1;
    }
}
