/* What every run needs: its options and its folder. */
#ifndef DEVHOST_RUN_FOLDER_H
#define DEVHOST_RUN_FOLDER_H

#include <map>
#include <string>
#include <vector>

struct run_options {
    std::map<std::string, std::string> defines; /* what {NAME} in paths stands for */
    std::string plugin_path;
    std::string keep;                  /* folder of the run that is kept; empty: a temporary one */
    std::string place;                 /* where a temporary one lies; empty: Windows' own place */
    std::vector<std::string> commands; /* console commands, "[BOOT/]SECONDS:LINE" */
    bool real_time;
    bool trace;
    bool guard_memory;
    std::string html; /* file for the page of the run; empty: none */
};

/* The plug-in DLL beside this program. */
std::string run_standard_plugin(void);

/* A new folder for a run's files. It is deleted with the object unless keep named it; otherwise its
 * name is generated below place, or below the temporary folder. UTF-8, absolute. Throws
 * devhost_error. */
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

#endif
