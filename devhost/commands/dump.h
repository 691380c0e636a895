/* What crash dumps contain, without a log. */
#ifndef DEVHOST_REPLAY_DUMP_H
#define DEVHOST_REPLAY_DUMP_H

#include <string>
#include <vector>

#include "../base/run_folder.h"

struct dump_options {
    std::vector<std::string> sources; /* files, folders, archives */
    std::vector<std::string> products;
    std::string products_file;
    std::string images; /* folder with drivers and kernel files; empty: none */
    bool json;
    struct run_options session;
};

/* Prints each dump. With products, also the module that the plug-in blames on a boot after the crash.
 * Result: enum devhost_exit; EXIT_BAD_EVIDENCE when a file that was named is not a readable dump. */
int replay_dump_command(const struct dump_options &options);

#endif
