/*
 * The recovery tag: a small file of the platform's configuration that tells that the drivers may
 * run again. It is valid only with the creation time that it was written with, so a copy or a file
 * made by hand recovers nothing. Host's callbacks.
 */
#ifndef RECOVER_TAG_H
#define RECOVER_TAG_H

/* Writes a new tag in place of an existing one. Result 0; -1 not written, logged. */
int recover_tag_write(void);

/* Whether the tag exists and is valid. */
bool recover_tag_check(void);

/* Deletes the tag; a failure is logged. */
void recover_tag_delete(void);

#endif
