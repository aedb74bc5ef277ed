// Command line, parameter block and configuration summary of the relay.
#include "relay/korvane.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/containers.h"
#include "support/elog.h"
#include "support/pf.h"

Korvane korvane;
int verbose;
int myshutdown;

namespace {

// What parse_pf read is never freed: the parameter file, the translation
// array and its key list stay for the life of the process. Holding them here
// keeps them reachable, so leak checkers report real leaks only.
struct {
    Pf *pf;
    Arr *xlat;
    Tbl *keys;
} kept;

constexpr int PORT_MIN = 100;
constexpr int PORT_MAX = 65535;

// Applies one argument that begins with '-'; a bad one ends the process.
void apply_option(const char *arg) {
    if (strcmp(arg, "-v") == 0) {
        verbose = 1;
    } else if (strcmp(arg, "-vv") == 0) {
        verbose = 2;
    } else if (strcmp(arg, "-vvv") == 0) {
        verbose = 3;
    } else if (strcmp(arg, "-help") == 0) {
        usage();
        exit(0);
    } else {
        elog_complain(0, "Unrecognized option '%s'.\n", arg);
        usage();
        exit(1);
    }
}

// atoi's leniency is kept on purpose ("5330x" reads 5330, "abc" reads 0 and
// fails the range test), but a number too large for an int is clamped
// instead of wrapping, so that 4294967396 can never come out as 100.
int port_number(const char *text) {
    long long n = strtoll(text, nullptr, 10);
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

bool port_in_range(int port) { return port >= PORT_MIN && port <= PORT_MAX; }

// "mode": only "slip", exactly, is accepted.
int parse_mode(Pf *pft, const char *tmpl, Korvane *qpr) {
    char *text = nullptr;
    if (parse_param(pft, "mode", PF_STRING, 1, &text) < 0) {
        elog_log(0, "parse_pf: parse_param(%s->mode) error.\n", tmpl);
        return -1;
    }
    if (strcmp(text, "slip") != 0) {
        elog_log(0, "parse_pf: Unrecognized %s->mode = '%s'.\n", tmpl, text);
        free(text);
        return -1;
    }
    qpr->mode = 1;
    free(text);
    return 0;
}

// "flow" is optional: absent means no flow control.
int parse_flow(Pf *pft, const char *tmpl, Korvane *qpr) {
    char *text = nullptr;
    qpr->flow = 0;
    if (parse_param(pft, "flow", PF_STRING, 0, &text) < 0) {
        elog_log(0, "parse_pf: parse_param(%s->flow) error.\n", tmpl);
        return -1;
    }
    if (text == nullptr) return 0;
    int result = 0;
    if (strcmp(text, "rtscts") == 0) {
        qpr->flow = 1;
    } else if (strcmp(text, "none") != 0) {
        elog_log(0, "parse_pf: parse_param(%s->flow) '%s' unrecognized.\n", tmpl, text);
        result = -1;
    }
    free(text);
    return result;
}

// The serial line: device, baud and flow. The link decides which speeds work.
int parse_serial(Pf *pft, const char *tmpl, Korvane *qpr) {
    if (parse_param(pft, "device", PF_STRING, 1, &qpr->dev) < 0) {
        elog_log(0, "parse_pf: parse_param(%s->device) error.\n", tmpl);
        return -1;
    }
    if (parse_param(pft, "baud", PF_INT, 1, &qpr->baud) < 0) {
        elog_log(0, "parse_pf: parse_param(%s->baud) error.\n", tmpl);
        return -1;
    }
    return parse_flow(pft, tmpl, qpr);
}

// The ports list, the routing map and the lock that guards the map.
int create_port_containers(Korvane *qpr) {
    qpr->ports = newtbl(1);
    if (qpr->ports == nullptr) {
        elog_log(0, "parse_pf: newtbl(qpr->ports) error.\n");
        return -1;  // out of memory, as below
    }
    qpr->ports_arr = routemap_create(KORVANE_ROUTES_MAX);
    if (qpr->ports_arr == nullptr) {
        elog_log(0, "parse_pf: newarr(qpr->ports_arr) error.\n");
        return -1;  // out of memory for the routing map
    }
    pthread_mutex_init(&qpr->ports_mutex, nullptr);
    return 0;
}

// Checks one translation and appends it to qpr->ports.
int add_port(const char *key, const char *value, const char *tmpl, Korvane *qpr) {
    int host_port = port_number(key);
    int q330_port = port_number(value);
    // The host port is checked first, so a line with both wrong names only it.
    if (!port_in_range(host_port)) {
        elog_log(0, "parse_pf: Illegal host port number '%s' in %s->port_translations array.\n",
                 key, tmpl);
        return -1;
    }
    if (!port_in_range(q330_port)) {
        elog_log(0, "parse_pf: Illegal q330 port number '%s' in %s->port_translations array.\n",
                 value, tmpl);
        return -1;
    }
    // Every datagram toward the datalogger is addressed by the text
    // "address:port", which must fit a packet's destination whole: cut, it
    // would lose digits of the port and send the datagram elsewhere.
    char dst[sizeof KorvanePkt::dst];
    int len = snprintf(dst, sizeof dst, "%s:%d", qpr->q330_ip_address, q330_port);
    if (len >= static_cast<int>(sizeof dst)) {
        elog_log(0, "parse_pf: %s->q330_ip_address '%s:%d' is longer than %d characters.\n", tmpl,
                 qpr->q330_ip_address, q330_port, static_cast<int>(sizeof dst) - 1);
        return -1;
    }
    auto *port = static_cast<KorvanePort *>(calloc(1, sizeof(KorvanePort)));
    if (port == nullptr) {
        // Going on without this translation would leave a port silently
        // unserved; failing makes the relay end with the reason.
        elog_log(1, "parse_pf: malloc (port,%d) error.\n", static_cast<int>(sizeof(KorvanePort)));
        return -1;  // out of memory for a port record
    }
    port->qpr = qpr;
    port->host_port = host_port;
    port->q330_port = q330_port;
    settbl(qpr->ports, -1, port);
    return 0;
}

// Turns the translation block into ports, in ascending text order of the
// host port: that order is the one of the summary and of thread start-up.
int parse_translations(Arr *xlat, const char *tmpl, Korvane *qpr) {
    Tbl *keys = keysarr(xlat);
    kept.keys = keys;
    if (create_port_containers(qpr) < 0) return -1;  // out of memory
    for (int i = 0; keys != nullptr && i < maxtbl(keys); i++) {
        const char *key = static_cast<const char *>(gettbl(keys, i));
        if (key == nullptr || key[0] == '\0') continue;
        // A value can be missing only if the reader stored none; it then
        // reads as an empty text and fails the range test like any non-number.
        const char *value = static_cast<const char *>(getarr(xlat, key));
        if (add_port(key, value ? value : "", tmpl, qpr) < 0) return -1;
    }
    return 0;
}

}  // namespace

void usage(void) {
    fputs("usage: korvane [-v] [-help] [template]\n", stderr);
    fflush(stderr);
}

void korvane_parse_args(int argc, char **argv, const char **template_name) {
    int i = 1;
    // Options stop at the first argument that does not begin with '-', so an
    // option written after the template counts as a surplus argument.
    for (; i < argc && argv[i][0] == '-'; i++) apply_option(argv[i]);
    int left = argc - i;
    if (left > 1) {
        elog_complain(0, "Unrecognized command argument '%s'.\n", argv[i]);
        usage();
        exit(1);
    }
    *template_name = left == 1 ? argv[i] : "default";
}

int parse_pf(const char *pf_file, const char *template_name, Korvane *qpr) {
    Pf *pf = nullptr;
    Pf *pft = nullptr;
    Arr *xlat = nullptr;
    if (pfread(pf_file, &pf) != 0) {
        elog_log(0, "parse_pf: pfread('%s') error.\n", pf_file);
        return -1;
    }
    kept.pf = pf;
    if (parse_param(pf, template_name, PF_BLOCK, 1, &pft) < 0) {
        elog_log(0, "parse_pf: parse_param(%s) error.\n", template_name);
        return -1;
    }
    if (parse_mode(pft, template_name, qpr) < 0) return -1;
    if (qpr->mode == 1 && parse_serial(pft, template_name, qpr) < 0) return -1;
    if (parse_param(pft, "q330_ip_address", PF_STRING, 1, &qpr->q330_ip_address) < 0) {
        elog_log(0, "parse_pf: parse_param(%s->q330_ip_address) error.\n", template_name);
        return -1;
    }
    if (parse_param(pft, "port_translations", PF_ARR, 1, &xlat) < 0) {
        elog_log(0, "parse_pf: parse_param(%s->port_translations) error.\n", template_name);
        return -1;
    }
    kept.xlat = xlat;
    return parse_translations(xlat, template_name, qpr);
}

void korvane_print_summary(const char *template_name, const Korvane *qpr) {
    elog_notify(0, "template          = %s\n", template_name);
    if (qpr->mode == 1) {
        elog_notify(0, "mode              = slip\n");
        elog_notify(0, "device            = %s\n", qpr->dev);
        elog_notify(0, "baud              = %d\n", qpr->baud);
    }
    elog_notify(0, "q330_ip_address   = %s\n", qpr->q330_ip_address);
    for (int i = 0; i < maxtbl(qpr->ports); i++) {
        auto *port = static_cast<const KorvanePort *>(gettbl(qpr->ports, i));
        if (i == 0)
            elog_notify(0, "port_translations = %d -> %d\n", port->host_port, port->q330_port);
        else
            elog_notify(0, "                    %d -> %d\n", port->host_port, port->q330_port);
    }
}
