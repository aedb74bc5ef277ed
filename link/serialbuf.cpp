// The link record: construction, raw reads and writes, the buffered byte
// reader with its silence time-out and dumps, closing and freeing.
// Opening is in serialopen.cpp, the modem dialogue in modem.cpp.
#include "link/serialbuf.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link/textdump.h"
#include "support/elog.h"
#include "support/sysutil.h"

// ---- Construction and destruction ----

SerialBuf *serialbuf_create(int size, int timeout, int timeout_connect, int sleep, int tries,
                            SerialBufIdleCallback idle_callback, void *userdata1,
                            SerialBufLogCallback log_callback, void *userdata2, void *userdata3,
                            SerialBufDatarateCallback datarate_callback, void *userdata4) {
    auto *buf = static_cast<SerialBuf *>(calloc(1, sizeof(SerialBuf)));
    if (buf) buf->buf = static_cast<unsigned char *>(malloc(static_cast<size_t>(size)));
    if (buf && buf->buf) buf->line = static_cast<char *>(malloc(256));
    if (!buf || !buf->buf || !buf->line) {
        elog_log(1, "serialbuf_create: malloc() error.\n");
        // What was allocated before the failure is released rather than leaked.
        serialbuf_free(buf);
        return nullptr;
    }
    buf->state = 1;
    buf->size = size;
    buf->timeout = timeout;
    buf->timeout_connect = timeout_connect;
    buf->sleep = sleep;
    buf->tries = tries;
    buf->idle_callback = idle_callback;
    buf->userdata1 = userdata1;
    buf->log_callback = log_callback;
    buf->userdata2 = userdata2;
    buf->userdata3 = userdata3;
    buf->datarate_callback = datarate_callback;
    buf->userdata4 = userdata4;
    buf->next_bad = -1;
    buf->fd = -1;
    buf->fdserver = -1;
    buf->line_size = 256;
    buf->line[0] = '\0';
    return buf;
}

SerialBuf *serialbuf_create_serial(const char *dev, int baud, int flow, int size, int timeout,
                                   int sleep, int tries,
                                   SerialBufIdleCallback idle_callback, void *userdata1,
                                   SerialBufLogCallback log_callback, void *userdata2,
                                   void *userdata3, SerialBufDatarateCallback datarate_callback,
                                   void *userdata4) {
    SerialBuf *buf = serialbuf_create(size, timeout, timeout, sleep, tries, idle_callback,
                                      userdata1, log_callback, userdata2, userdata3,
                                      datarate_callback, userdata4);
    if (!buf) {
        elog_log(0, "serialbuf_create_serial: serialbuf_create() error.\n");
        return nullptr;
    }
    buf->com_mode = 1;
    buf->modem_control = 1;
    buf->baud = baud;
    buf->flow = flow;
    // A missing path is left unset (strdup would crash on it); open then fails.
    if (dev && !(buf->dev = strdup(dev))) {
        elog_log(1, "serialbuf_create_serial: strdup(dev) error.\n");
        serialbuf_free(buf);
        return nullptr;
    }
    return buf;
}

SerialBuf *serialbuf_create_tcpclient(const char *ipaddr, int port, int size, int timeout,
                                      int tries, SerialBufIdleCallback idle_callback,
                                      void *userdata1, SerialBufLogCallback log_callback,
                                      void *userdata2, void *userdata3,
                                      SerialBufDatarateCallback datarate_callback,
                                      void *userdata4) {
    SerialBuf *buf = serialbuf_create(size, timeout, timeout, 0, tries, idle_callback, userdata1,
                                      log_callback, userdata2, userdata3, datarate_callback,
                                      userdata4);
    if (!buf) {
        elog_log(0, "serialbuf_create_tcpclient: serialbuf_create() error.\n");
        return nullptr;
    }
    buf->com_mode = 2;
    buf->modem_control = 1;
    buf->port = port;
    // A missing host is left unset (strdup would crash on it); open then fails.
    if (ipaddr && !(buf->ipaddr = strdup(ipaddr))) {
        elog_log(1, "serialbuf_create_tcpclient: strdup(ipaddr) error.\n");
        serialbuf_free(buf);
        return nullptr;
    }
    return buf;
}

SerialBuf *serialbuf_create_tcpserver(int port, int size, int timeout, int tries,
                                      SerialBufIdleCallback idle_callback, void *userdata1,
                                      SerialBufLogCallback log_callback, void *userdata2,
                                      void *userdata3,
                                      SerialBufDatarateCallback datarate_callback,
                                      void *userdata4) {
    SerialBuf *buf = serialbuf_create(size, timeout, timeout, 0, tries, idle_callback, userdata1,
                                      log_callback, userdata2, userdata3, datarate_callback,
                                      userdata4);
    if (!buf) {
        elog_log(0, "serialbuf_create_tcpserver: serialbuf_create() error.\n");
        return nullptr;
    }
    buf->com_mode = 3;
    buf->modem_control = 1;
    buf->port = port;
    return buf;
}

void link_forget_input(SerialBuf *buf) {
    buf->ptr = 0;
    buf->occupied = 0;
    buf->busy_rec_string_ptr = 0;
    buf->offhook_rec_string_ptr = 0;
    buf->next_bad = -1;
}

void link_back_to_open(SerialBuf *buf) {
    buf->state = 2;
    buf->connecting = 0;
    link_forget_input(buf);
}

int serialbuf_close(SerialBuf *buf) {
    if (buf->state == 1) return 0;
    if (buf->fd >= 0) close(buf->fd);
    if (buf->fdserver >= 0) close(buf->fdserver);
    buf->fd = -1;
    buf->fdserver = -1;
    buf->state = 1;
    link_forget_input(buf);
    return 0;
}

int serialbuf_free(SerialBuf *buf) {
    if (!buf) return 0;
    char *strings[] = {buf->dev, buf->ipaddr, buf->dialout_string_prefix,
                       buf->dialout_string_suffix, buf->listen_string, buf->nolisten_string,
                       buf->hangup_string, buf->attention_string, buf->ring_rec_string,
                       buf->busy_rec_string, buf->connect_rec_string, buf->offhook_rec_string,
                       buf->attention_rec_string, buf->line};
    for (char *s : strings) free(s);
    free(buf->buf);
    free(buf);
    return 0;
}

int serialbuf_destroy(SerialBuf *buf) {
    if (!buf) return 0;  // nothing to disconnect or close
    serialbuf_disconnect(buf);
    serialbuf_close(buf);
    serialbuf_free(buf);
    return 0;
}

// ---- Raw data ----

int serialbuf_read(SerialBuf *buf, void *data, int nbytes) {
    int n = static_cast<int>(read(buf->fd, data, static_cast<size_t>(nbytes)));
    if (n >= 1 && buf->datarate_callback) buf->datarate_callback(buf->userdata4, 2, n);
    return n;
}

int serialbuf_write(SerialBuf *buf, const void *data, int nbytes) {
    int n = static_cast<int>(write(buf->fd, data, static_cast<size_t>(nbytes)));
    if (n >= 1 && buf->datarate_callback) buf->datarate_callback(buf->userdata4, 1, n);
    return n;
}

int serialbuf_usleep(int usec) {
    struct timespec ts;
    ts.tv_sec = usec / 1000000;
    ts.tv_nsec = static_cast<long>(usec % 1000000) * 1000L;
    // An interrupted sleep is not resumed: callers use it as a pause, not a clock.
    nanosleep(&ts, nullptr);
    return 0;
}

// ---- The byte reader ----

// Reports a silent line (result 1), or carrier loss (4) on a modem with lines.
static int silence_result(SerialBuf *buf) {
    if (buf->modem_control == 2 && serialbuf_isoffhook(buf->fd)) {
        elog_log(0, "serialbuf_get_byte: no carrier detected.\n");
        return 4;
    }
    elog_log(0, "serialbuf_get_byte: timeout.\n");
    return 1;
}

// Reports a read of no bytes: end of stream (2), or carrier loss (4).
static int end_of_stream(SerialBuf *buf) {
    if (buf->modem_control == 2 && serialbuf_isoffhook(buf->fd)) {
        elog_log(0, "serialbuf_get_byte: no carrier detected.\n");
        return 4;
    }
    elog_log(0, "serialbuf_get_byte: eof.\n");
    return 2;
}

// Waits in whole seconds until data is waiting: 0, or 1, 3, 4, -1 to give up.
// Only silence since this refill began counts toward the time-out.
static int wait_for_data(SerialBuf *buf, int intr) {
    int waited = 0;
    for (;;) {
        int ready = fdwait(buf->fd, 1000);
        if (ready < 0) {
            elog_log(0, "serialbuf_get_byte: fdwait() error.\n");
            return -1;
        }
        if (intr == 1 && buf->idle_callback && buf->idle_callback(buf->userdata1, 0) == 3)
            return 3;
        if (ready > 0) return 0;
        if (intr == 2 && buf->idle_callback && buf->idle_callback(buf->userdata1, 1) == 3)
            return 3;
        // Counted only when a time-out applies, so that a link left to wait for
        // ever never overflows the counter after weeks of silence.
        if (buf->timeout > 0) {
            waited += 1000;
            if (waited >= buf->timeout) return silence_result(buf);
        }
    }
}

// Doubles the line buffer; -1 (and no line buffer any more) when that fails.
static int grow_line(SerialBuf *buf) {
    char *bigger = static_cast<char *>(realloc(buf->line, static_cast<size_t>(buf->line_size) * 2));
    if (!bigger) {
        elog_log(1, "serialbuf_get_byte: malloc() error.\n");
        free(buf->line);
        buf->line = nullptr;
        return -1;
    }
    buf->line = bigger;
    buf->line_size *= 2;
    return 0;
}

// Adds the n bytes read to the text line and hands out each completed line;
// a line may span several reads.
static int log_lines(SerialBuf *buf, int n) {
    // After a failed growth there is no line buffer: skip the logging rather
    // than write through a null pointer.
    if (!buf->log_callback || !buf->line) return 0;
    size_t len = strlen(buf->line);
    for (int i = 0; i < n; i++) {
        unsigned char c = buf->buf[i];
        if (dump_printable(c) || c == '\t' || c == '\b') {
            buf->line[len++] = static_cast<char>(c);
            buf->line[len] = '\0';
            // Grown while two bytes are still free, so the next byte and its
            // terminator always fit.
            if (static_cast<int>(len) >= buf->line_size - 2 && grow_line(buf) < 0) return -1;
        } else if (c == '\n' || c == '\r') {
            if (len > 0) buf->log_callback(buf->userdata2, buf->userdata3, buf->line, 1);
            len = 0;
            buf->line[0] = '\0';
        }
    }
    return 0;
}

// Shows the n bytes just read as rverbose asks; -1 only when the line buffer
// cannot grow.
static int dump_read(SerialBuf *buf, int n) {
    switch (buf->rverbose) {
    case 1: dump_escaped("reading", buf->buf, n); return 0;
    case 2: dump_raw(buf->buf, n); return 0;
    case 3: return log_lines(buf, n);
    default: return 0;
    }
}

// Refills the read buffer with one read after the wait and the pre-read sleep.
// Kept out of line: inlined, it would make every byte handed out from the
// buffer pay the refill path's register saves (the hottest loop of the
// datalogger-to-client direction).
__attribute__((noinline)) static int refill(SerialBuf *buf, int intr) {
    buf->ptr = 0;
    buf->occupied = 0;
    int ret = wait_for_data(buf, intr);
    if (ret != 0) return ret;
    if (buf->sleep > 0) serialbuf_usleep(buf->sleep);
    int n = serialbuf_read(buf, buf->buf, buf->size);
    if (n < 0) {
        elog_log(1, "serialbuf_get_byte: serialbuf_read() error.\n");
        return -1;
    }
    if (n == 0) return end_of_stream(buf);
    if (dump_read(buf, n) < 0) return -1;
    buf->occupied = n;
    return 0;
}

int serialbuf_get_byte(SerialBuf *buf, unsigned char *byte, int intr) {
    if (buf->state != 3 && !buf->connecting) {
        elog_log(0, "serialbuf_get_byte: not connected.\n");
        return 4;
    }
    if (buf->ptr >= buf->occupied) {
        int ret = refill(buf, intr);
        if (ret != 0) return ret;
    }
    *byte = buf->buf[buf->ptr++];
    // The byte is handed out even when the matcher reports busy or carrier loss.
    return serialbuf_process_rec_strings(buf, *byte);
}
