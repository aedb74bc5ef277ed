// Connection states of a link: connect and disconnect, the reply matcher
// run on every received byte, and the two line-level helpers.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "link/serialbuf.h"
#include "support/elog.h"

int serialbuf_process_rec_strings(SerialBuf *buf, unsigned char byte) {
    (void)byte;
    if (buf->modem_control == 1) return 0;
    return 0;
}

// Leaves state 3 for 2 first when needed, opens from state 1; 0 or -1.
static int connect_prepare(SerialBuf *buf) {
    switch (buf->state) {
    case 1:
        if (serialbuf_open(buf) != 0) {
            elog_log(0, "serialbuf_connect: serialbuf_open() error.\n");
            return -1;
        }
        return 0;
    case 2: return 0;
    case 3:
        if (serialbuf_disconnect(buf) < 0) {
            elog_log(0, "serialbuf_connect: serialbuf_disconnect() error.\n");
            return -1;
        }
        return 0;
    default:
        elog_log(0, "serialbuf_connect: Illegal state value '%d'.\n", buf->state);
        return -1;
    }
}

// For the TCP-server kind, blocks until a client connects; 0 or -1.
static int connect_accept(SerialBuf *buf) {
    switch (buf->com_mode) {
    case 1:
    case 2: return 0;
    case 3:
        if (buf->fd >= 0) close(buf->fd);
        buf->fd = accept(buf->fdserver, nullptr, nullptr);
        if (buf->fd < 0) {
            elog_log(1, "serialbuf_connect: accept() error.\n");
            return -1;
        }
        return 0;
    default:
        elog_log(0, "serialbuf_connect: Illegal com_mode value '%d'.\n", buf->com_mode);
        return -1;
    }
}

int serialbuf_connect(SerialBuf *buf, int listen, const char *phone_number) {
    (void)listen;
    (void)phone_number;
    if (connect_prepare(buf) < 0 || connect_accept(buf) < 0) return -1;
    buf->state = 3;
    return 0;
}

int serialbuf_disconnect(SerialBuf *buf) {
    if (buf->state == 1 || buf->state == 2) return 0;
    if (buf->state != 3) {
        elog_log(0, "serialbuf_disconnect: Illegal state value '%d'.\n", buf->state);
        return -1;
    }
    if (buf->com_mode == 3) {
        // Only the accepted connection goes; the listening socket stays, so the
        // next connect accepts a new client.
        if (buf->fd >= 0) close(buf->fd);
        buf->fd = -1;
    } else if (buf->com_mode != 1 && buf->com_mode != 2) {
        elog_log(0, "serialbuf_disconnect: Illegal com_mode value '%d'.\n", buf->com_mode);
        return -1;
    }
    if (buf->fd >= 0 && buf->modem_control == 2) serialbuf_hangup(buf->fd);
    buf->state = 2;
    buf->connecting = 0;
    buf->ptr = 0;
    buf->occupied = 0;
    buf->busy_rec_string_ptr = 0;
    buf->offhook_rec_string_ptr = 0;
    buf->next_bad = -1;
    return 0;
}

// ---- Line-level helpers ----

// Written as the legacy 16-bit TCSETAW request would: the whole low half of
// the control word becomes 0 (speed 0, which drops DTR; size, receiver and
// local bits with it), the upper half stays as read.
int serialbuf_hangup(int fd) {
    struct termios t;
    if (tcgetattr(fd, &t) != 0) return -1;
    t.c_cflag &= ~static_cast<tcflag_t>(0xffff);
    cfsetospeed(&t, B0);
    if (tcsetattr(fd, TCSADRAIN, &t) != 0) return -1;
    return 0;
}

int serialbuf_isoffhook(int fd) {
    int lines = 0;
    // A device that cannot report its lines counts as having carrier.
    if (ioctl(fd, TIOCMGET, &lines) != 0) return 0;
    return (lines & TIOCM_CAR) ? 0 : 1;
}
