#include "support/containers.h"

#include <new>

// The initial capacity is only a hint, and the lists stay short: ignored.
Tbl *newtbl(int) { return new (std::nothrow) Tbl; }

void *gettbl(Tbl *tbl, int i) {
    if (!tbl || i < 0 || i >= maxtbl(tbl)) return nullptr;
    return tbl->items[static_cast<size_t>(i)];
}

int settbl(Tbl *tbl, int i, void *p) {
    if (!tbl || i < -1) return -1;
    if (i == -1) i = maxtbl(tbl);
    if (i >= maxtbl(tbl)) tbl->items.resize(static_cast<size_t>(i) + 1, nullptr);
    tbl->items[static_cast<size_t>(i)] = p;
    return i;
}

int maxtbl(const Tbl *tbl) { return tbl ? static_cast<int>(tbl->items.size()) : 0; }

void freetbl(Tbl *tbl, void (*free_item)(void *)) {
    if (!tbl) return;
    if (free_item)
        for (void *p : tbl->items) free_item(p);
    delete tbl;
}

Arr *newarr(int (*cmp)(const char *, const char *)) {
    if (cmp) return nullptr;  // only string order is supported
    return new (std::nothrow) Arr;
}

void *getarr(Arr *arr, const char *key) {
    if (!arr || !key) return nullptr;
    auto it = arr->map.find(key);
    return it == arr->map.end() ? nullptr : it->second;
}

void *setarr(Arr *arr, const char *key, void *p) {
    if (!arr || !key) return nullptr;
    auto [it, inserted] = arr->map.try_emplace(key, p);
    if (inserted) return nullptr;
    void *old = it->second;
    it->second = p;
    return old;
}

int cntarr(const Arr *arr) { return arr ? static_cast<int>(arr->map.size()) : 0; }

Tbl *keysarr(Arr *arr) {
    Tbl *keys = newtbl(cntarr(arr));
    if (!keys || !arr) return keys;
    // std::map keeps its keys in ascending order, and its nodes never move,
    // so the key strings stay valid while the entry exists.
    for (auto &entry : arr->map) keys->items.push_back(const_cast<char *>(entry.first.c_str()));
    return keys;
}

void freearr(Arr *arr, void (*free_item)(void *)) {
    if (!arr) return;
    if (free_item)
        for (auto &entry : arr->map) free_item(entry.second);
    delete arr;
}
