/* What the files of the invariants share. Host's one thread. */
#ifndef SIMULATION_INVARIANTS_H
#define SIMULATION_INVARIANTS_H

#include <cstdint>

#include <string>

/* Keeps the first invariant that is broken. */
void broken(const char *invariant, const std::string &what);

/* Builds the text only when the invariant is broken: they are checked some hundred times a boot. */
#define WANT(holds, invariant, what) ((holds) ? (void)0 : broken(invariant, what))

/* document_invariants.cpp: store and upload history. Watches of calls, and checks after a delivery
 * and at the end of an agent. */
void documents_on_load(const uint64_t *a, uint64_t result);
void documents_on_dump(const uint64_t *a, uint64_t result);
void documents_check_store(void);
void documents_check_history(void);
/* The file is in force again after its last write failed. */
void documents_fall_back(void);

#endif
