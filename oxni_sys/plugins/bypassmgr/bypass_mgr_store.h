/*
 * The store: the state of this boot's products and the crash that was blamed, kept across restarts
 * of the agent. Host's callbacks, one at a time.
 */
#ifndef BYPASS_MGR_STORE_H
#define BYPASS_MGR_STORE_H

#include <stdint.h>

#include "bypass_mgr_table.h"

/* Loads the document, and empties it when Windows has started since it was written. boot_time:
 * seconds since 1970 UTC. */
void bypass_mgr_store_load(uint64_t boot_time);

/* Replaces a product's entry and writes the document. An entry that cannot be built is logged; a
 * failed write is not noticed. */
void bypass_mgr_store_product(const struct suber_set *record);

/* The stored count; -1 when this boot's store has none for the product. */
int64_t bypass_mgr_stored_count(const char *product_name);

/* The stored status, 1 to 3 (inclusive); 0 when there is none. */
int32_t bypass_mgr_stored_status(const char *product_name);

/* Reads this boot's crash record. Result 0; -1 there is none, and crash is untouched. */
int bypass_mgr_stored_crash(struct crash_info *crash);

/* Stores this boot's crash record and writes the document, as above. */
void bypass_mgr_store_crash(const char *path, const char *create_time, const char *module_name);

#endif
