// Internals shared by the link's source files: the text dumps of link
// traffic on standard output, and the reset of the reading state.
#pragma once

struct SerialBuf;

// Forgets buffered input and partial reply matches (close, disconnect,
// carrier loss all discard what was read but not yet handed out).
void link_forget_input(SerialBuf *buf);
// Back to open (state 2) with nothing buffered: disconnect and carrier loss.
void link_back_to_open(SerialBuf *buf);

// A printable ASCII character (space to tilde), the same set as isprint in
// the C locale, fixed here so that no locale change alters the dumps.
inline bool dump_printable(unsigned char c) { return c >= 0x20 && c <= 0x7e; }

// "<verb> <n> bytes: " then printable bytes as themselves, newline, carriage
// return, tab and backspace as \n \r \t \b, others nothing; newline; flush.
void dump_escaped(const char *verb, const unsigned char *data, int n);
// Printable bytes and newline, carriage return, tab, backspace as they are,
// others nothing, no header; flush.
void dump_raw(const unsigned char *data, int n);
