/*
 * One scenario from opening to closing: the folder of the run, the playing, and what is left to say
 * at the end. Host's one thread.
 */
#ifndef DEVHOST_SESSION_H
#define DEVHOST_SESSION_H

#include <map>
#include <string>
#include <vector>

struct session_options {
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
std::string session_standard_plugin(void);

/* A new folder for a run's files, for as long as the object lives, or longer when it is one that
 * was asked for; its name is made up below another place than the temporary folder when that is
 * given. UTF-8, absolute. Throws devhost_error. */
struct run_folder {
    std::string path;
    bool kept;

    explicit run_folder(const std::string &keep, const std::string &place = "");
    ~run_folder();
    run_folder(const run_folder &) = delete;
    run_folder &operator=(const run_folder &) = delete;
    /* Everything in it is deleted. */
    void empty() const;
};

/* Plays a file from its first boot to its last. Result: enum devhost_exit. Throws devhost_error. */
int session_run(const std::string &file, const struct session_options &options);

/* Lets a person play a file: reads commands from the standard input until "quit" or its end. */
int session_console(const std::string &file, const struct session_options &options);

#endif
