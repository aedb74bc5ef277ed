// Ordered list (Tbl) and string-keyed associative array (Arr) of untyped
// pointers. Neither locks: callers that share one guard it themselves.
#pragma once

#include <map>
#include <string>
#include <vector>

// An ordered list of pointers, addressed by index from 0.
struct Tbl {
    std::vector<void *> items;
};

// A new empty list (initial, a capacity hint, is ignored); nullptr on failure.
Tbl *newtbl(int initial);
// The pointer at index i; nullptr when i is out of range.
void *gettbl(Tbl *tbl, int i);
// Stores p at index i (growing the list with nullptr entries as needed);
// i == -1 appends. Returns the index used, or -1 on failure.
int settbl(Tbl *tbl, int i, void *p);
// Number of entries.
int maxtbl(const Tbl *tbl);
// Frees the list; free_item, when given, is applied to every entry.
void freetbl(Tbl *tbl, void (*free_item)(void *));

// An associative array from strings (compared as strings) to pointers.
struct Arr {
    std::map<std::string, void *> map;
};

// A new empty array; cmp must be nullptr (keys always compare as strings).
// Returns nullptr on failure.
Arr *newarr(int (*cmp)(const char *, const char *));
// The pointer stored under key, or nullptr when absent.
void *getarr(Arr *arr, const char *key);
// Stores or replaces the pointer under key (the array keeps its own copy of
// the key). Returns the pointer it replaced, or nullptr.
void *setarr(Arr *arr, const char *key, void *p);
// Number of keys.
int cntarr(const Arr *arr);
// A new list of the keys in ascending order. The strings belong to the array
// and stay valid while their key is in it; free the list with freetbl(t, 0).
Tbl *keysarr(Arr *arr);
// Frees the array; free_item, when given, is applied to every value.
void freearr(Arr *arr, void (*free_item)(void *));
