// korvane: relays UDP between the host's network and a datalogger on a SLIP serial line.
#include <unistd.h>

#include <cstring>

#include "relay/korvane.h"
#include "support/elog.h"

int main(int argc, char **argv) {
    const char *template_name = nullptr;

    elog_init(argc, argv);
    elog_notify(0, "%s : $Revision: 1.12 $ $Date: 2006/10/19 17:36:59 $\n", argv[0]);

    korvane_parse_args(argc, argv, &template_name);
    memset(&korvane, 0, sizeof korvane);
    if (parse_pf("korvane", template_name, &korvane) != 0)
        elog_die(0, "Parameter file parsing error.\n");
    if (verbose != 0) korvane_print_summary(template_name, &korvane);

    korvane_setup_signals();
    korvane_start(&korvane);

    // No signal has a handler, so nothing should wake this.
    for (;;) {
        pause();
        elog_complain(0, "Return from pause.\n");
    }
}
