/*
 * The agent's process as a plug-in sees it: its folders, the loading of the real plug-in DLL, and the
 * end of the process. Host's one thread.
 */
#ifndef DEVHOST_AGENT_H
#define DEVHOST_AGENT_H

#include <windows.h>

#include <string>

/* The state of the agent's process. */
enum agent_state {
    AGENT_RUNNING,
    AGENT_STOPPED,
    AGENT_EXITED, /* the plug-in ended the process through the allocation guard */
};

/* Sets the agent's folders, which lie in the run's folder, and the plug-in to load. UTF-8. */
void agent_open(const std::string &run_folder, const std::string &plugin_path);

/* Loads a plug-in and frees it again, without a call of its entry. Throws devhost_error with
 * EXIT_NO_PLUGIN as agent_start does. */
void agent_check_plugin(const std::string &plugin_path);

/* Starts the plug-in's DLL (plugin_image.h), redirects its calls to the machine and calls its entry.
 * Throws devhost_error: EXIT_NO_PLUGIN when it cannot be loaded or lacks the entry. */
void agent_start(void);

/* Calls the entry of the running plug-in once more. Returns its result; 0 when the plug-in ended the
 * process in it. */
uint64_t agent_call_entry(void);

/* Ends the process: drops everything that is pending, ends the DLL and frees every block of memory. No
 * effect when the process does not run. */
void agent_stop(void);

/* Called by agent_stop before each end of the agent's process, while its memory still exists; plugin: the
 * address of its module. NULL, the default: nothing is called. */
void agent_watch_end(void (*fn)(const void *plugin));

/* Called with the plug-in after the host has redirected the imports of a freshly loaded DLL, and
 * before its entry is called. NULL: nothing is called. */
void agent_watch_load(void (*fn)(HMODULE plugin));

enum agent_state agent_state_get(void);

/* Delivers everything up to that tick, in milliseconds since Windows started. An agent that exits before
 * is stopped, and time goes on. Throws devhost_error when an exception of the plug-in reaches the
 * host. */
void agent_run_until(uint64_t tick_ms);

/* Path of one of the plug-in's files below its data folder. */
std::string agent_data_path(const std::string &file_name);
/* The result of oxni_log_dir. */
std::string agent_base_folder(void);
/* Folder of the agent's executable. */
std::string agent_bin_folder(void);

#endif
