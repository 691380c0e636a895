/* The options and the folder of a run. */
#ifndef DEVHOST_RUN_FOLDER_H
#define DEVHOST_RUN_FOLDER_H

#include <map>
#include <string>
#include <vector>

struct run_options {
    std::map<std::string, std::string> defines; /* what {NAME} in paths stands for */
    std::string plugin_path;
    std::string keep;                  /* folder of the run that is kept; empty: a temporary one */
    std::string place;                 /* where a temporary one lies; empty: the usual place */
    const struct run_folder *reused;   /* folder that each boot empties and uses; NULL: a new one */
    std::vector<std::string> commands; /* console commands, "[BOOT/]SECONDS:LINE" */
    bool real_time;
    bool trace;
    bool guard_memory;
    std::string html; /* file for the page of the run; empty: none */
};

/* The plug-in DLL beside this program. */
std::string run_standard_plugin(void);

/* A new folder for a run's files. Without keep its name is generated, and it is deleted with the
 * object; it lies in place, else in the folder that the environment variable BYPASS_PLACE names, else
 * in the temporary folder. UTF-8, absolute. Throws devhost_error. */
struct run_folder {
    std::string path;
    bool kept;

    explicit run_folder(const std::string &keep, const std::string &place = "");
    ~run_folder();
    run_folder(const run_folder &) = delete;
    run_folder &operator=(const run_folder &) = delete;
    /* Deletes everything in it. */
    void empty() const;
};

/* Deletes what can be deleted of all folders that are not kept: the program is about to end. Any
 * thread. */
void run_folder_remove_all(void);

#endif
