// Parameter files: a line-oriented text of named scalars and named blocks,
// read once at start-up and looked up by name with a type code.
//
//   # a comment runs from '#' to the end of the line (outside quotes)
//   default {                  a block: a name, then '{' last on the line
//       baud   19200           a scalar: a name, then the rest of the line
//       note   "a  b # c"      quotes keep blanks and '#' (escapes: \" and \\ only)
//       lone                   a name alone is a scalar with the empty value
//   }                          '}' alone on its line closes the block
//
// A name repeated in one block replaces the earlier one. Blocks are maps:
// the order of names inside a block is not kept. Neither reading nor look-up
// locks: a Pf is built and read by one thread at a time.
#pragma once

// A parsed parameter file, or one block inside it.
struct Pf;

// Type codes of parse_param.
enum {
    PF_INT = 1,     // int *: a scalar that is a whole decimal integer in int range
    PF_STRING = 4,  // char **: a malloc'ed copy of a scalar; the caller frees it
    PF_ARR = 9,     // Arr **: a block of scalars as name -> malloc'ed value string
    PF_BLOCK = 10,  // Pf **: a view on a nested block, owned by the enclosing Pf
};

// --- Reading ---

// Reads the parameter file for name: a plain name looks for ./name.pf, then
// /etc/name.pf; a name with '/' is a path, tried as given, then with ".pf"
// added when it lacks it. What is not a regular file is skipped. 0 and *pf
// filled on success; -1 after registering one message (the file and line of
// a syntax error, or every place tried when no file exists).
int pfread(const char *name, Pf **pf);
// Parses text as if read from a file called origin (used in messages).
// Same results and messages as pfread (under its own name).
int pfparse_text(const char *text, const char *origin, Pf **pf);
// Frees a Pf returned by pfread or pfparse_text (not a nested block view).
// Accepts nullptr.
void pffree(Pf *pf);

// --- Look-up ---

// Looks up name in the block pf and stores it at result as the type code
// says. 0 on success; also 0, with result untouched, when name is absent and
// required is 0. Negative, after registering one message naming the
// parameter and the reason, when a required name is absent, a scalar stands
// where a block is asked for (or the reverse), or the value does not convert.
int parse_param(Pf *pf, const char *name, int type, int required, void *result);
