/* The core without a platform: its calls of the host and of Windows are recorded in order and
 * answered as a test prepares them. */
#ifndef CORE_PATCHES_H
#define CORE_PATCHES_H

#include <list>
#include <string>
#include <vector>

#include <oxni/base/debug_console.h>
#include <oxni/base/json.h>
#include <oxni/base/resource.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/subscriber.h>
#include <oxni/base/timer.h>

#include "bypass_mgr_table.h"
#include "import_patch.h"

/* Input and calls of the core. */
struct core_state {
    bool tag;         /* there is a recovery tag; deleting it clears this */
    bool nameless;    /* no handle has attributes */
    json_t *document; /* what the store's file holds, owned; NULL: no file */
    /* Recorded calls. "tag?" looks whether the tag exists, "tag-" deletes it, "tag=" writes it,
     * "history" loads the upload history, "store DATA" writes the store's "data",
     * "push NAME MESSAGE", "timer MS", "stop", "release NAME". */
    std::vector<std::string> calls;
    /* The last push's reply and what it needs. */
    oxni_push_reply_fn reply;
    void *cookie;
    oxni_subscriber *pushed_to;
    oxni_subscribee_second_fn install_second;
    oxni_timer_fn last_timer; /* the one that was started last */
    oxni_res_state_fn link;   /* of the management link */
    oxni_dbg_echo_fn answer;  /* of the management side */
};
extern core_state s_core;

/* While it lives, nothing of the core reaches the host or the disk. Starts and ends with an empty
 * table, an empty store and no report. */
class core_patches
{
  public:
    core_patches();
    ~core_patches();

  private:
    void patch_subscribers();
    void patch_files();
    void patch_times_and_links();

    std::list<import_patch> patches_;
};

/* Handle number 0 to 3; their names are "a" to "d". */
oxni_subscriber *core_subscriber(size_t number);

/* Registers a product under a handle. Its name is the handle's; its module is "m" and the name.
 * The result is borrowed. */
struct suber_set *core_product(size_t number, int32_t status, int64_t count);

/* Returns the recorded calls as one line and clears them. */
std::string core_calls(void);

/* Parses a JSON text that has apostrophes in place of quotes. The result is new. */
json_t *core_json(std::string text);

#endif
