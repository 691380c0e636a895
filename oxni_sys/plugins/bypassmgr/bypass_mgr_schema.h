/* The JSON Schema that the host holds registration messages to. */
#ifndef BYPASS_MGR_SCHEMA_H
#define BYPASS_MGR_SCHEMA_H

/* One line: a pretty-printed text without its line breaks and with its indentation. */
extern const char bypass_mgr_registration_schema[];

#endif
