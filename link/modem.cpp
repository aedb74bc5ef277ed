// The modem dialogue's building blocks: the stored command and reply
// strings, sending a command with timed pauses and retries, awaiting
// expected texts in the received bytes, and the busy / carrier-loss matcher
// that the byte reader runs on every byte. The connection state machines
// that use them are in connect.cpp.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "link/serialbuf.h"
#include "link/textdump.h"
#include "support/elog.h"
#include "support/host.h"

// ---- Modem settings ----

// Stores a copy of value in *field when value is given; -1 if the copy fails.
static int copy_string(char **field, const char *value, const char *name) {
    if (!value) return 0;
    char *copy = strdup(value);
    if (!copy) {
        elog_log(1, "serialbuf_set_modem_control: strdup(%s) error.\n", name);
        return -1;
    }
    free(*field);  // the link owns the earlier copy; replacing it must not leak it
    *field = copy;
    return 0;
}

int serialbuf_set_modem_control(SerialBuf *buf, int use_modem_control_lines, int timeout_connect,
                                const char *attention_string, const char *hangup_string,
                                const char *listen_string, const char *nolisten_string,
                                const char *dialout_string_prefix,
                                const char *dialout_string_suffix,
                                const char *attention_rec_string, const char *ring_rec_string,
                                const char *busy_rec_string, const char *connect_rec_string,
                                const char *offhook_rec_string) {
    if (use_modem_control_lines && buf->com_mode != 1) {
        elog_log(0, "serialbuf_set_modem_control: Cannot set local mode for non-serial buffer.\n");
        return -1;
    }
    buf->modem_control = use_modem_control_lines ? 2 : 3;
    buf->timeout_connect = timeout_connect;
    if (copy_string(&buf->attention_string, attention_string, "attention_string") ||
        copy_string(&buf->hangup_string, hangup_string, "hangup_string") ||
        copy_string(&buf->listen_string, listen_string, "listen_string") ||
        copy_string(&buf->nolisten_string, nolisten_string, "nolisten_string") ||
        copy_string(&buf->dialout_string_prefix, dialout_string_prefix, "dialout_string_prefix") ||
        copy_string(&buf->dialout_string_suffix, dialout_string_suffix, "dialout_string_suffix") ||
        copy_string(&buf->attention_rec_string, attention_rec_string, "attention_rec_string") ||
        copy_string(&buf->ring_rec_string, ring_rec_string, "ring_rec_string"))
        return -1;
    buf->busy_rec_string_size = 0;
    buf->busy_rec_string_ptr = 0;
    if (copy_string(&buf->busy_rec_string, busy_rec_string, "busy_rec_string")) return -1;
    if (busy_rec_string) buf->busy_rec_string_size = static_cast<int>(strlen(busy_rec_string));
    if (copy_string(&buf->connect_rec_string, connect_rec_string, "connect_rec_string")) return -1;
    buf->offhook_rec_string_size = 0;
    buf->offhook_rec_string_ptr = 0;
    if (copy_string(&buf->offhook_rec_string, offhook_rec_string, "offhook_rec_string")) return -1;
    if (offhook_rec_string)
        buf->offhook_rec_string_size = static_cast<int>(strlen(offhook_rec_string));
    return 0;
}

int serialbuf_clear_modem_control(SerialBuf *buf) {
    buf->modem_control = 1;
    return 0;
}

// ---- Reply matcher ----

// Feeds one byte to a simple matcher of reply with *matched characters seen;
// true when the byte completes it. A mismatch restarts from zero, except that
// a repeated first character keeps a count of 1 (so "BBUSY" is seen but
// "BUBUSY" is not): modems are matched exactly this way in the field.
static bool match_step(const char *reply, int size, int *matched, unsigned char byte) {
    // Compared only within the stored length: a reply kept from an earlier
    // call whose length was reset would otherwise be read past its end.
    if (*matched < size && byte == static_cast<unsigned char>(reply[*matched]))
        return ++*matched == size;
    if (!(*matched == 1 && byte == static_cast<unsigned char>(reply[0]))) *matched = 0;
    return false;
}


int serialbuf_process_rec_strings(SerialBuf *buf, unsigned char byte) {
    if (buf->modem_control == 1) return 0;
    // Busy is watched in every state: it ends a dial attempt as well.
    if (buf->busy_rec_string && match_step(buf->busy_rec_string, buf->busy_rec_string_size,
                                           &buf->busy_rec_string_ptr, byte)) {
        elog_log(0, "serialbuf_process_rec_strings: busy signal detected.\n");
        return 5;
    }
    // Carrier loss only means something once connected; while dialling the
    // same text may be the modem's answer to a failed call attempt.
    if (buf->state != 3 || !buf->offhook_rec_string) return 0;
    if (!match_step(buf->offhook_rec_string, buf->offhook_rec_string_size,
                    &buf->offhook_rec_string_ptr, byte))
        return 0;
    elog_log(0, "serialbuf_process_rec_strings: no carrier detected.\n");
    link_back_to_open(buf);  // the rest of the read buffer is discarded
    return 4;
}

// ---- Sending commands ----

// Writes one piece of a command; -1 on a short write.
static int write_piece(SerialBuf *buf, const char *piece, size_t len) {
    int n = serialbuf_write(buf, piece, static_cast<int>(len));
    // Compared unsigned on purpose: a failed write (-1) reads as a huge count
    // and passes, so a line error shows up as a missing reply that the
    // retries handle, while only a short write ends the dialogue.
    if (static_cast<unsigned>(n) < static_cast<unsigned>(len)) {
        elog_log(1, "serialbuf_send_modem_string: serialbuf_write() error.\n");
        return -1;
    }
    if (buf->wverbose)
        dump_escaped("writing", reinterpret_cast<const unsigned char *>(piece),
                     static_cast<int>(len));
    return 0;
}

// Sends text with each "<sl=N>" turned into a pause of N microseconds; 0 or -1.
// A pause that lacks its ">" is refused before the piece ahead of it is written.
static int send_pieces(SerialBuf *buf, const std::string &text) {
    size_t start = 0;
    for (;;) {
        size_t escape = text.find("<sl=", start);
        size_t close = std::string::npos;
        if (escape != std::string::npos) {
            close = text.find('>', escape + 4);
            if (close == std::string::npos) {
                elog_log(0, "serialbuf_send_modem_string: string format error.\n");
                return -1;
            }
        }
        size_t end = escape == std::string::npos ? text.size() : escape;
        if (write_piece(buf, text.data() + start, end - start) < 0) return -1;
        if (escape == std::string::npos) return 0;
        serialbuf_usleep(atoi(text.substr(escape + 4, close - escape - 4).c_str()));
        start = close + 1;
    }
}

int serialbuf_send_modem_string(SerialBuf *buf, const char *string, const char *response,
                                int tries) {
    if (!string || !*string) return 0;
    if (buf->state != 3 && !buf->connecting) {
        // Named after the byte reader: callers already match on these words.
        elog_log(0, "serialbuf_get_byte: not connected.\n");
        return 4;
    }
    // The whole command, pauses included, is sent again on every attempt,
    // since a modem that missed part of it may have dropped all of it.
    for (int attempt = 1;; attempt++) {
        if (send_pieces(buf, string) < 0) return -1;
        if (!response) return 0;
        int ret = serialbuf_read_until(buf, response);
        if (ret == 0) return 0;
        if (attempt > tries) {
            if (ret == 1) {
                elog_log(0, "serialbuf_send_modem_string: timeout.\n");
                return 1;
            }
            elog_log(0, "serialbuf_send_modem_string: read_until() error.\n");
            return ret;
        }
        if (ret == 1)
            elog_complain(0, "serialbuf_send_modem_string: timeout...retrying\n");
        else
            elog_complain(0, "serialbuf_send_modem_string: read_until() error...retrying\n");
        serialbuf_usleep(2);
    }
}

// ---- Awaiting replies ----

// How one wait for texts behaves.
struct AwaitMode {
    int intr;          // passed to serialbuf_get_byte
    bool timed;        // each text must come within buf->timeout
    char *value;       // collects what came before each text, or nullptr
    int len_value;     // capacity of value
};

// Keeps the last len_value - 1 characters dropped before a text in value.
static void collect(const AwaitMode &mode, int *count, char c) {
    if (!mode.value || mode.len_value <= 1) return;
    // Shifted before the append, so the terminator never lands past the
    // end of the caller's buffer.
    if (*count >= mode.len_value - 1) {
        memmove(mode.value, mode.value + 1, static_cast<size_t>(mode.len_value - 2));
        *count = mode.len_value - 2;
    }
    mode.value[(*count)++] = c;
    mode.value[*count] = '\0';
}

// Awaits one text by a sliding compare of the last n characters received.
static int await_text(SerialBuf *buf, const std::string &text, const AwaitMode &mode) {
    const double limit = buf->timeout / 1000.0;
    const double t0 = std_now();
    std::string window;
    int count = 0;
    for (;;) {
        unsigned char c = 0;
        int ret = serialbuf_get_byte(buf, &c, mode.intr);
        if (ret != 0) return ret;
        // Without a positive time-out the first byte is already too late.
        if (mode.timed && (limit <= 0 || std_now() - t0 > limit)) return 1;
        if (c == 0) continue;  // modems pad with NULs; they never match
        window += static_cast<char>(c);
        if (window.size() < text.size()) continue;
        if (window.compare(0, text.size(), text) == 0) return 0;
        collect(mode, &count, window[0]);
        window.erase(0, 1);
    }
}

// The non-empty "~"-separated texts of until, in order.
static std::vector<std::string> split_texts(const char *until) {
    std::vector<std::string> texts;
    std::string text;
    for (const char *p = until;; p++) {
        if (*p == '~' || *p == '\0') {
            if (!text.empty()) texts.push_back(text);
            text.clear();
            if (*p == '\0') return texts;
        } else {
            text += *p;
        }
    }
}

// Awaits every text of until in turn.
static int await_texts(SerialBuf *buf, const char *until, const AwaitMode &mode) {
    if (!until || !*until) return 0;
    for (const std::string &text : split_texts(until)) {
        int ret = await_text(buf, text, mode);
        if (ret != 0) return ret;
    }
    return 0;
}

int serialbuf_read_until(SerialBuf *buf, const char *until) {
    return await_texts(buf, until, AwaitMode{0, true, nullptr, 0});
}

int serialbuf_read_until_intr(SerialBuf *buf, const char *until) {
    return await_texts(buf, until, AwaitMode{2, false, nullptr, 0});
}

int serialbuf_read_until_parse(SerialBuf *buf, const char *until, char *value, int len_value) {
    if (value && len_value > 0) value[0] = '\0';
    return await_texts(buf, until, AwaitMode{0, false, value, len_value});
}
