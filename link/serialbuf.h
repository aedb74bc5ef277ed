// The byte-stream link under the SLIP layer: one record wraps a serial
// device, a TCP connection made to a server, or a TCP connection accepted on
// a listening port. It opens and configures the stream, hands out received
// bytes one at a time from a read buffer (silence time-out, carrier checks,
// optional dumps), writes raw bytes, and runs an optional modem dialogue.
//
// Result codes of the reading calls and of the modem dialogue:
//   0 success, 1 time-out, 2 end of stream, 3 interrupted by the idle
//   callback, 4 not connected or carrier lost, 5 busy, -1 failure.
// A failure registers one message with elog_log before it returns.
//
// The link has no lock: one thread may read (serialbuf_get_byte) while
// another writes (serialbuf_write); opening, connecting, closing and freeing
// must not overlap any other call on the same record.
#pragma once

#include <cstdint>

// Called while a read waits; timed_out is 1 after a silent second, 0 after
// any wait in mode intr 1. Returning 3 ends the wait with result 3.
typedef int (*SerialBufIdleCallback)(void *userdata1, int timed_out);
// Receives each complete received text line in line-logging mode (rverbose 3).
typedef int (*SerialBufLogCallback)(void *userdata2, void *userdata3, char *line, int flag);
// Told of every raw read (direction 2) and write (direction 1) of 1 or more bytes.
typedef int (*SerialBufDatarateCallback)(void *userdata4, int direction, int nbytes);

struct SerialBuf {
    int com_mode;        // 1 serial device, 2 TCP client, 3 TCP server
    int modem_control;   // 1 no modem, 2 modem with control lines, 3 modem by strings only
    char *dev;           // serial device path (kind 1), own copy
    int baud;            // line speed in bit/s (kind 1)
    int flow;            // 1 asks for RTS/CTS (never reaches the device, see serialbuf_open)
    char *ipaddr;        // server host name or dotted address (kind 2), own copy
    int port;            // TCP port (kinds 2 and 3), low 16 bits used

    // Modem command strings, own copies or nullptr.
    char *dialout_string_prefix;
    char *dialout_string_suffix;
    char *listen_string;
    char *nolisten_string;
    char *hangup_string;
    char *attention_string;
    // Modem reply strings, own copies or nullptr.
    char *ring_rec_string;
    char *busy_rec_string;
    char *connect_rec_string;
    char *offhook_rec_string;
    char *attention_rec_string;
    int busy_rec_string_size;     // length of busy_rec_string
    int offhook_rec_string_size;  // length of offhook_rec_string
    int busy_rec_string_ptr;      // characters of busy_rec_string matched so far
    int offhook_rec_string_ptr;   // characters of offhook_rec_string matched so far

    int state;           // 1 closed, 2 open, 3 connected
    int connecting;      // 1 while a modem dialogue step runs
    unsigned char *buf;  // read buffer of size bytes, owned
    int ptr;             // index of the next byte to hand out
    int size;            // capacity of buf, fixed at creation
    int occupied;        // valid bytes in buf from the last read
    int next_bad;        // -1 at creation, close, disconnect, carrier loss; not read
    int timeout;         // read time-out in ms; 0 or less waits for ever
    int timeout_connect; // ms allowed for dialling and for the connect reply
    int fd;              // descriptor carrying the data, -1 when none
    int fdserver;        // listening socket (kind 3), -1 when none
    int sleep;           // us slept before a read so more bytes arrive; 0 or less none
    int tries;           // stored at creation, not read
    void *userdata;      // free for the owner

    SerialBufIdleCallback idle_callback;
    SerialBufLogCallback log_callback;
    SerialBufDatarateCallback datarate_callback;
    void *userdata1;     // first argument of idle_callback
    void *userdata2;     // first argument of log_callback
    void *userdata3;     // second argument of log_callback
    void *userdata4;     // first argument of datarate_callback

    char *line;          // text line being assembled in line-logging mode
    int line_size;       // capacity of line (starts at 256)
    int verbose;         // not used by the link
    int rverbose;        // read dump: 0 none, 1 escaped, 2 raw echo, 3 line logging
    int wverbose;        // non-zero: modem strings written are dumped to stdout
    int errors;          // not used
    int packets;         // not used

    // Owned by the SLIP layer and the endpoint; the link only zero-fills them.
    std::uint16_t slip_identification;
    std::uint16_t slip_port_src;
    std::uint16_t slip_port_dst;
    std::uint32_t slip_ipaddr_src;
    std::uint32_t slip_ipaddr_dst;
};

// ---- Construction and destruction ----

// Base constructor: zero-filled record, read buffer, empty 256-byte line, state 1.
SerialBuf *serialbuf_create(int size, int timeout, int timeout_connect, int sleep, int tries,
                            SerialBufIdleCallback idle_callback, void *userdata1,
                            SerialBufLogCallback log_callback, void *userdata2, void *userdata3,
                            SerialBufDatarateCallback datarate_callback, void *userdata4);
// A link on the serial device dev at baud bit/s; flow 1 asks for RTS/CTS.
SerialBuf *serialbuf_create_serial(const char *dev, int baud, int flow, int size, int timeout,
                                   int sleep, int tries,
                                   SerialBufIdleCallback idle_callback, void *userdata1,
                                   SerialBufLogCallback log_callback, void *userdata2,
                                   void *userdata3, SerialBufDatarateCallback datarate_callback,
                                   void *userdata4);
// A link that connects to the TCP server ipaddr:port.
SerialBuf *serialbuf_create_tcpclient(const char *ipaddr, int port, int size, int timeout,
                                      int tries, SerialBufIdleCallback idle_callback,
                                      void *userdata1, SerialBufLogCallback log_callback,
                                      void *userdata2, void *userdata3,
                                      SerialBufDatarateCallback datarate_callback,
                                      void *userdata4);
// A link that accepts one TCP connection at a time on port.
SerialBuf *serialbuf_create_tcpserver(int port, int size, int timeout, int tries,
                                      SerialBufIdleCallback idle_callback, void *userdata1,
                                      SerialBufLogCallback log_callback, void *userdata2,
                                      void *userdata3,
                                      SerialBufDatarateCallback datarate_callback,
                                      void *userdata4);
// Closes descriptors and discards buffered bytes; state 1. Returns 0.
int serialbuf_close(SerialBuf *buf);
// Frees strings, buffers and the record (not descriptors); accepts nullptr. Returns 0.
int serialbuf_free(SerialBuf *buf);
// Disconnect, close and free, results ignored. Returns 0.
int serialbuf_destroy(SerialBuf *buf);

// ---- Opening and connection state ----

// Opens the stream of the link's kind; 0 and state 2, or -1.
int serialbuf_open(SerialBuf *buf);
// Brings the link to state 3 (opening it first, accepting, or running the
// modem dialogue: listen non-zero answers, zero dials phone_number).
int serialbuf_connect(SerialBuf *buf, int listen, const char *phone_number);
// Brings a connected link back to state 2 (hanging up a modem).
int serialbuf_disconnect(SerialBuf *buf);

// ---- Data ----

// One read() of at most nbytes from fd; returns its result.
int serialbuf_read(SerialBuf *buf, void *data, int nbytes);
// One write() of nbytes to fd (no loop over short writes); returns its result.
int serialbuf_write(SerialBuf *buf, const void *data, int nbytes);
// Stores the next received byte; intr 0 never calls the idle callback, 1
// after every wait, 2 after silent waits only. Returns a result code.
int serialbuf_get_byte(SerialBuf *buf, unsigned char *byte, int intr);
// Sleeps usec microseconds (not resumed when interrupted). Returns 0.
int serialbuf_usleep(int usec);

// ---- Modem dialogue ----

// Switches to modem mode (2 with control lines, serial only; 3 strings only)
// and stores copies of the strings given (nullptr leaves a field as it is).
int serialbuf_set_modem_control(SerialBuf *buf, int use_modem_control_lines, int timeout_connect,
                                const char *attention_string, const char *hangup_string,
                                const char *listen_string, const char *nolisten_string,
                                const char *dialout_string_prefix,
                                const char *dialout_string_suffix,
                                const char *attention_rec_string, const char *ring_rec_string,
                                const char *busy_rec_string, const char *connect_rec_string,
                                const char *offhook_rec_string);
// Back to no modem (modem_control 1); the strings stay. Returns 0.
int serialbuf_clear_modem_control(SerialBuf *buf);
// Sends string ("<sl=N>" pauses N us), then awaits response; at most tries+1 sends.
int serialbuf_send_modem_string(SerialBuf *buf, const char *string, const char *response,
                                int tries);
// Awaits the "~"-separated texts in order, within timeout ms for each.
int serialbuf_read_until(SerialBuf *buf, const char *until);
// As serialbuf_read_until without time-out; the idle callback may end it (3).
int serialbuf_read_until_intr(SerialBuf *buf, const char *until);
// As serialbuf_read_until without time-out; value keeps the last len_value-1
// characters that came before the awaited text.
int serialbuf_read_until_parse(SerialBuf *buf, const char *until, char *value, int len_value);
// Busy and carrier-loss matcher run on every byte handed out: 0, 4 or 5.
int serialbuf_process_rec_strings(SerialBuf *buf, unsigned char byte);
// Drops the line's speed to zero (and DTR with it). 0 or -1.
int serialbuf_hangup(int fd);
// 1 when the carrier-detect line is down, else 0 (also when the query fails).
int serialbuf_isoffhook(int fd);
