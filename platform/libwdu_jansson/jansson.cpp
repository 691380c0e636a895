/* Jansson's set-up in this process, before anybody can call it. Its functions are exported by the
 * .def file beside this one. */
#include <jansson.h>

#include <liboxnibase/host.h>
#include <oxni/base/memory.h>

/* Any value but 0, which would ask for a random one: runs must repeat. */
static constexpr size_t HASH_SEED = 1;

/* Runs when the library is loaded; liboxnibase, which it imports, is ready by then. */
__attribute__((constructor)) static void set_up()
{
    json_set_alloc_funcs(oxni_zero_malloc_, oxni_free_);
    json_object_seed(HASH_SEED);
    oxnih_memory_see_through(reinterpret_cast<const void *>(&set_up));
}
