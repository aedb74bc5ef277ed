// Connection states of a link: connect (open -> connected, accepting a TCP
// client, dialling out or answering through a modem), disconnect (back to
// open, hanging a modem up), and the two line-level helpers.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "link/serialbuf.h"
#include "link/textdump.h"
#include "support/elog.h"

// ---- Before the dialogue ----

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

// ---- Dialogue steps ----

// Runs one dialogue step with line logging on and bytes flowing before
// state 3; the caller's rverbose comes back and connecting ends whatever
// the step gave.
template <typename Step>
static int in_dialogue(SerialBuf *buf, Step step) {
    const int rverbose = buf->rverbose;
    buf->rverbose = 3;
    buf->connecting = 1;
    const int ret = step();
    buf->rverbose = rverbose;
    buf->connecting = 0;
    return ret;
}

// Runs a step with the read time-out set to msec, restored afterwards.
template <typename Step>
static int with_timeout(SerialBuf *buf, int msec, Step step) {
    const int timeout = buf->timeout;
    buf->timeout = msec;
    const int ret = step();
    buf->timeout = timeout;
    return ret;
}

// Logs a failed command step of function fn; returns ret.
static int command_failed(const char *fn, const char *name, int ret) {
    if (ret == 1)
        elog_log(0, "%s: serialbuf_send_modem_string(%s) timeout.\n", fn, name);
    else
        elog_log(0, "%s: serialbuf_send_modem_string(%s) error.\n", fn, name);
    return ret;
}

// Sends a command that the modem acknowledges with attention_rec_string.
static int command_step(SerialBuf *buf, const char *command, const char *name) {
    int ret = in_dialogue(buf, [&] {
        return serialbuf_send_modem_string(buf, command, buf->attention_rec_string, 2);
    });
    return ret == 0 ? 0 : command_failed("serialbuf_connect", name, ret);
}

// Enables answering, waits for ever for a ring (the idle callback may end
// the wait: 3), then for the connect reply within timeout_connect.
static int answer(SerialBuf *buf) {
    int ret = command_step(buf, buf->listen_string, "listen_string");
    if (ret != 0) return ret;
    ret = in_dialogue(buf, [&] {
        return with_timeout(buf, 0,
                            [&] { return serialbuf_read_until_intr(buf, buf->ring_rec_string); });
    });
    if (ret == 3) return 3;
    if (ret != 0) {
        elog_log(0, "serialbuf_connect: serialbuf_read_until_intr(ring_rec_string) error.\n");
        return ret;
    }
    ret = in_dialogue(buf, [&] {
        return with_timeout(buf, buf->timeout_connect,
                            [&] { return serialbuf_read_until(buf, buf->connect_rec_string); });
    });
    if (ret != 0) {
        elog_log(0, "serialbuf_connect: serialbuf_read_until(connect_rec_string) error.\n");
        return ret;
    }
    return 0;
}

// Disables answering, then dials prefix + number + suffix and awaits the
// connect reply within timeout_connect. Nothing to dial: connected as is.
static int dial(SerialBuf *buf, const char *phone_number) {
    int ret = in_dialogue(buf, [&] {
        return serialbuf_send_modem_string(buf, buf->nolisten_string, buf->attention_rec_string, 2);
    });
    if (ret == 5) {
        elog_log(0, "serialbuf_connect: serialbuf_send_modem_string(nolisten_string) line busy.\n");
        return 5;
    }
    if (ret != 0) {
        command_failed("serialbuf_connect", "nolisten_string", ret);
        // Any failure but time-out and busy is reported as -1 here, unlike
        // the other steps: callers only tell those two apart.
        return ret == 1 ? 1 : -1;
    }
    if (!buf->dialout_string_prefix || !phone_number) return 0;
    std::string command = std::string(buf->dialout_string_prefix) + phone_number;
    if (buf->dialout_string_suffix) command += buf->dialout_string_suffix;
    ret = in_dialogue(buf, [&] {
        return with_timeout(buf, buf->timeout_connect, [&] {
            return serialbuf_send_modem_string(buf, command.c_str(), buf->connect_rec_string, 1);
        });
    });
    if (ret == 5) {
        elog_log(0, "serialbuf_connect: serialbuf_send_modem_string(%s) line busy.\n",
                 command.c_str());
        return 5;
    }
    return ret == 0 ? 0 : command_failed("serialbuf_connect", command.c_str(), ret);
}

int serialbuf_connect(SerialBuf *buf, int listen, const char *phone_number) {
    if (connect_prepare(buf) != 0 || connect_accept(buf) != 0) return -1;
    if (buf->modem_control != 1) {
        int ret = command_step(buf, buf->attention_string, "attention_string");
        if (ret == 0) ret = command_step(buf, buf->hangup_string, "hangup_string");
        if (ret == 0) ret = listen ? answer(buf) : dial(buf, phone_number);
        // A failed step leaves the link open, ready for another try.
        if (ret != 0) return ret;
    }
    buf->state = 3;
    return 0;
}

// ---- Disconnecting ----

// Gets the modem's attention and hangs it up by command; 0 or the code.
static int hang_up_modem(SerialBuf *buf) {
    int ret = serialbuf_send_modem_string(buf, buf->attention_string, buf->attention_rec_string, 2);
    if (ret != 0) return command_failed("serialbuf_disconnect", "attention_string", ret);
    ret = serialbuf_send_modem_string(buf, buf->hangup_string, buf->attention_rec_string, 2);
    if (ret != 0) return command_failed("serialbuf_disconnect", "hangup_string", ret);
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
    // No descriptor (the accepted connection of a TCP server was just
    // closed): nothing to send the commands through, and no reply to wait for.
    if (buf->modem_control != 1 && buf->fd >= 0) {
        int ret = hang_up_modem(buf);
        if (ret != 0) return ret;  // still connected: the modem did not confirm
    }
    if (buf->fd >= 0 && buf->modem_control == 2) serialbuf_hangup(buf->fd);
    link_back_to_open(buf);
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
