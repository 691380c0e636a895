/*
 * The agent's process, as far as a plug-in can tell: its folders, the loading of the real plug-in
 * DLL, and the end of the process. Host's one thread.
 */
#ifndef DEVHOST_AGENT_H
#define DEVHOST_AGENT_H

#include <windows.h>

#include <string>

/* How a start or a stretch of the agent's life ended. */
enum agent_state {
    AGENT_RUNNING,
    AGENT_STOPPED,
    AGENT_EXITED, /* the plug-in ended the process through the allocation guard */
};

/* Gives the agent its folders below the run's one, and names the plug-in to load. UTF-8. */
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

/* The process ends: everything that was pending is forgotten, the DLL is ended, and every block of
 * memory is freed. Harmless when it is not running. */
void agent_stop(void);

/* Called before each end of the agent's process by agent_stop, while all that it holds is there;
 * plugin: the address of its module. NULL: nobody, which is the start. */
void agent_watch_end(void (*fn)(const void *plugin));

/* Called with the plug-in after the host has redirected the imports of a freshly loaded DLL, and
 * before its entry is called. NULL: nothing is called. */
void agent_watch_load(void (*fn)(HMODULE plugin));

enum agent_state agent_state_get(void);

/* Delivers everything up to that tick (milliseconds since Windows started). An agent that exits on
 * the way is stopped, time goes on all the same. Throws devhost_error when an exception of the
 * plug-in reaches the host. */
void agent_run_until(uint64_t tick_ms);

/* Path of one of the plug-in's files below its data folder. */
std::string agent_data_path(const std::string &file_name);
/* What oxni_log_dir answers. */
std::string agent_base_folder(void);
/* Folder of the agent's executable. */
std::string agent_bin_folder(void);

#endif
