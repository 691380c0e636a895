/* Start and end of the agent's process. */
#include "agent.h"

#include <windows.h>

#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../disk/files.h"
#include "../disk/memory_disk.h"
#include "../machine/machine.h"
#include "../machine/machine_open.h"
#include "../machine/modules.h"
#include "plugin_image.h"

typedef uint64_t (*plugin_init_fn)(void);

/* Thrown through the plug-in's frames instead of an end of the process. */
struct agent_exit {
};

static std::string s_folder; /* of the run, with backslashes */
static std::string s_plugin_path;
static HMODULE s_plugin;
static enum agent_state s_state = AGENT_STOPPED;
static void (*s_end_fn)(const void *plugin);
static void (*s_load_fn)(HMODULE plugin);

static void exit_agent(void *user)
{
    (void)user;
    s_state = AGENT_EXITED;
    throw agent_exit();
}

void agent_open(const std::string &run_folder, const std::string &plugin_path)
{
    s_state = AGENT_STOPPED;
    s_folder = run_folder;
    s_plugin_path = plugin_path;
    CreateDirectoryW(text_wide(run_folder + "\\agent").c_str(), nullptr);
    CreateDirectoryW(text_wide(agent_bin_folder()).c_str(), nullptr);
    CreateDirectoryW(text_wide(agent_base_folder()).c_str(), nullptr);
    oxnih_set_install_dir(agent_bin_folder().c_str());
    oxnih_set_process_path((agent_bin_folder() + "\\oxni_agent.exe").c_str());
    oxnih_set_log_dir(agent_base_folder().c_str());
    oxnih_set_exit(exit_agent, nullptr);
    /* The plug-in's calls pass through this program: blocks belong to the caller. */
    oxnih_memory_see_through(reinterpret_cast<const void *>(&exit_agent));
}

/* The entry of a loaded plug-in; NULL: another DLL. */
static plugin_init_fn init_of(HMODULE plugin)
{
    return reinterpret_cast<plugin_init_fn>(
        reinterpret_cast<void *>(GetProcAddress(plugin, "oxni_plugin_init")));
}

static devhost_error not_loaded(const std::string &path)
{
    return devhost_error(EXIT_NO_PLUGIN,
                         path + ": cannot be loaded: " + text_error(GetLastError()));
}

static devhost_error no_plugin(const std::string &path)
{
    return devhost_error(EXIT_NO_PLUGIN, path + ": does not export oxni_plugin_init");
}

void agent_check_plugin(const std::string &plugin_path)
{
    HMODULE plugin = LoadLibraryW(text_wide(plugin_path).c_str());

    if (plugin == nullptr)
        throw not_loaded(plugin_path);
    const bool has_entry = init_of(plugin) != nullptr;
    FreeLibrary(plugin);
    if (!has_entry)
        throw no_plugin(plugin_path);
}

static void redirect_imports(HMODULE plugin)
{
    memory_disk_redirect(plugin, false);
    calls_patch(plugin, machine_stand_in);
    if (s_load_fn != nullptr)
        s_load_fn(plugin);
}

void agent_start(void)
{
    machine_start_token();
    machine_start_modules();
    HMODULE plugin = image_start(text_wide(s_plugin_path), redirect_imports);

    if (plugin == nullptr)
        throw not_loaded(s_plugin_path);
    if (init_of(plugin) == nullptr) {
        image_unload();
        throw no_plugin(s_plugin_path);
    }
    s_plugin = plugin;
    s_state = AGENT_RUNNING;
    (void)agent_call_entry();
}

uint64_t agent_call_entry(void)
{
    try {
        return init_of(s_plugin)();
    } catch (const agent_exit &) {
        return 0;
    } catch (...) {
        throw devhost_error(EXIT_EXPECTATION_FAILED,
                            "an exception of the plug-in's entry reached the host");
    }
}

void agent_stop(void)
{
    if (s_plugin == nullptr)
        return;
    if (s_end_fn != nullptr)
        s_end_fn(s_plugin);
    oxnih_core_reset();
    image_end();
    s_plugin = nullptr;
    oxnih_log_close();
    machine_close_agent_files();
    oxnih_memory_drop_all();
    if (s_state == AGENT_EXITED)
        (void)calls_left_open(); /* Windows closes what an exited process had open */
    else if (s_state == AGENT_RUNNING)
        s_state = AGENT_STOPPED;
}

void agent_watch_end(void (*fn)(const void *plugin))
{
    s_end_fn = fn;
}

void agent_watch_load(void (*fn)(HMODULE plugin))
{
    s_load_fn = fn;
}

enum agent_state agent_state_get(void)
{
    return s_state;
}

void agent_run_until(uint64_t tick_ms)
{
    while (oxnih_core_run_until(tick_ms) != 0) {
        if (s_state != AGENT_EXITED)
            throw devhost_error(EXIT_EXPECTATION_FAILED,
                                "an exception of the plug-in reached the host");
        agent_stop();
    }
}

std::string agent_data_path(const std::string &file_name)
{
    return s_folder + "\\agent\\var\\bypass_mgr\\" + file_name;
}

std::string agent_base_folder(void)
{
    return s_folder + "\\base";
}

std::string agent_bin_folder(void)
{
    return s_folder + "\\agent\\bin";
}
